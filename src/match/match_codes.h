#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "match/match_kernels.h"

// Image B in bytes, for the search on the CPU (match_cpu.cpp, match_screen.cpp): tests that reject most
// candidates, many side by side, and never one that matters.
//
// Every code is the integer part of a scaled value, limited at both ends: a function that does not decrease.
// So a value between two others has a code between theirs, and two values that differ by d have codes that
// differ by at most d times the scale, plus one. kCodeError is that one and the rounding of the scaled value,
// below 1e-3 codes. The sums that are coded are of absolute values, so that terms do not cancel and the
// rounding of a sum stays as small.
//
//  - Colours: a candidate whose colour differs by more than 18 > sqrt(300) in a channel is not acceptable.
//  - Energies: that of an acceptable candidate lies between half and twice the point's.
//  - Sums over parts of a cell, n bins each: by Cauchy and Schwarz the squared differences of the sums add up
//    to at most n times the distance. So no sum differs by more than the root of that (coarse codes, of the
//    corner cells). And the vector of the fine codes' differences, of all cells, is at most as long as that
//    root times the scale plus the length of the vector of their errors.
//
// least <= code <= least + width is tested as code - least <= width modulo 256. Everything in the range
// passes, and a little outside it may pass too.
//
// A not-a-number in a colour or an energy rejects nothing; so rows that hold one are marked and tested by the
// sums alone, and so are points with a colour or an energy that is not finite. A not-a-number in a histogram
// makes every distance to it a not-a-number, which is never the smallest: its codes may be anything.

namespace match {

constexpr int kCoarseParts = 3, kFineParts = 5;  // of a cell, over 5 and over 3 bins
constexpr int kBinsOfCoarse = kHogBins / kCoarseParts, kBinsOfFine = kHogBins / kFineParts;
// Largest codes: of a byte; and so that three squares of fine codes fit 16 bits (fineDistance).
constexpr float kMostByte = 255.0f, kMostFine = 147.0f;
// Codes per typical energy, the sum of a cell's 15 bins. Every scale gives the same results, but not as fast:
// if it is small, a difference of one code is a large distance; if it is large, codes reach their limit and
// the differences beyond it are lost. With these a coarse code is about 17 and a fine one 20 for a cell of
// typical energy with equal bins, and the limits are reached by a part of 5.1 and 1.47 typical energies.
constexpr float kCoarsePerEnergy = 50.0f, kFinePerEnergy = 100.0f;
constexpr float kCodeError = 1.01f;  // see above
constexpr int kCorners = 4;
constexpr int kBlock = 32;       // columns tested together
constexpr int kGroup = 8;        // columns of a block listed together
constexpr int kRowOfCells = 16;  // fine codes of three cells side by side, and one that does not count
constexpr unsigned kPaddedColumns = 256;  // whole blocks, at least kMostColumns; a power of two divides fast
constexpr unsigned char kAll = 255;       // a width that no difference exceeds

/// Vectors that the compiler keeps in the registers of the instruction set.
using Bytes = unsigned char __attribute__((vector_size(kBlock)));
using Shorts = std::uint16_t __attribute__((vector_size(2 * kRowOfCells)));
using Words = std::uint32_t __attribute__((vector_size(2 * kRowOfCells)));
using HalfWords = std::uint32_t __attribute__((vector_size(kRowOfCells)));

/// Integer part of `value` limited to 0 ... most; `most` for a not-a-number.
TARVO_HOST_DEVICE unsigned char codeOf(float value, float most) {
  const float limited = value < most ? value : most;
  return static_cast<unsigned char>(static_cast<int>(limited > 0.0f ? limited : 0.0f));
}

TARVO_HOST_DEVICE unsigned char colourCode(float colour) {
  return codeOf(colour, kMostByte);
}

/// 16 codes to the octave, from 2^-6 on: the exponent and the first four bits of the float's fraction.
TARVO_HOST_DEVICE unsigned char energyCode(float energy) {
  constexpr int kShift = 19, kFirst = (127 - 6) << 4;
  std::int32_t bits;
  std::memcpy(&bits, &energy, sizeof bits);
  return static_cast<unsigned char>(std::min(std::max((bits >> kShift) - kFirst, 0), 255));
}

/// The codes of image B, dense.
struct Codes {
  static constexpr int kPlanes = kPictureChannels + 1 + kCoarseParts;
  int h, w;
  float coarseScale, fineScale;  ///< codes per grey level
  unsigned char* planes;         ///< of each row: colours, energy, coarse sums
  unsigned char* open;           ///< of each row: 1 where a colour or an energy is not a number
  std::uint16_t* fine;  ///< of each row columns 0, 4, ..., then 1, 5, ..., and so on; of a column kFineParts
  int* cellOffsets;     ///< of each column: fineCell

  static constexpr std::size_t kSlack = 2 * kPaddedColumns;  // read behind the last candidate, never used
  TARVO_HOST_DEVICE unsigned char* planeRow(int k, int y) const {
    return planes + (static_cast<long>(y) * kPlanes + k) * w;
  }
  TARVO_HOST_DEVICE std::uint16_t* fineRow(int y) const { return fine + y * fineLength(w); }
  TARVO_HOST_DEVICE long fineCell(int x) const {
    const auto column = static_cast<unsigned>(x), columns = static_cast<unsigned>(w + 3) / 4;
    return (column % 4 * columns + column / 4) * kFineParts;
  }
  static constexpr long fineLength(int w) { return (w + 3) / 4 * 4 * kFineParts; }
};

/// A point's codes, with which those of image B are compared.
struct PointCodes {
  Bytes least[kPictureChannels + 1];  // smallest code of an acceptable candidate
  unsigned char acceptable;           // largest difference of a code from `least`
  int coarse[kCorners][kCoarseParts];
  alignas(32) std::uint16_t fine[3][kRowOfCells];

  /// Limits of colours and energy.
  TARVO_HOST_DEVICE void setAcceptable(const float* colour, float energy) {
    constexpr float kWidth = 18.0f;
    int width = 0;
    bool finite = std::fabs(energy) < INFINITY;
    const auto range = [&](int k, int from, int to) {
      std::memset(&least[k], from, kBlock);
      width = std::max(width, to - from);
    };
    for (int c = 0; c < kPictureChannels; ++c) {
      finite = finite && std::fabs(colour[c]) < INFINITY;
      range(c, colourCode(colour[c] - kWidth), colourCode(colour[c] + kWidth));
    }
    range(kPictureChannels, energyCode(0.5f * energy), energyCode(2.0f * energy));
    acceptable = finite ? static_cast<unsigned char>(width) : kAll;
  }

  /// Sums of cell k, `bins` its kHogBins values.
  TARVO_HOST_DEVICE void setCell(const Codes& codes, int k, const float* bins) {
    float coarseSums[kCoarseParts] = {}, fineSums[kFineParts] = {};
    for (int b = 0; b < kHogBins; ++b) {
      coarseSums[b / kBinsOfCoarse] += std::fabs(bins[b]);
      fineSums[b / kBinsOfFine] += std::fabs(bins[b]);
    }
    for (int part = 0; part < kFineParts; ++part) {
      fine[k / 3][k % 3 * kFineParts + part] = codeOf(fineSums[part] * codes.fineScale, kMostFine);
    }
    fine[k / 3][kRowOfCells - 1] = 0;
    if (k % 2 != 0 || k == kCentreCell) return;
    const int corner = k / 6 * 2 + k % 3 / 2;
    for (int part = 0; part < kCoarseParts; ++part) {
      coarse[corner][part] = codeOf(coarseSums[part] * codes.coarseScale, kMostByte);
    }
  }
};

/// Limits of the sums for one distance.
struct Bounds {
  unsigned char width;       // of coarse codes
  bool squares;              // whether their squares are tested too: whenever the width can reject
  std::uint16_t reach;       // half the width
  std::uint16_t mostCoarse;  // sum of squared differences of coarse codes
  unsigned mostFine;         // sum of squared differences of fine codes
  Bytes least[kCorners][kCoarseParts];

  /// Rejects no candidate whose estimate is at most `most`, though an estimate is exact only to a factor of
  /// 1.0001 and to 1e-30 (`loosened`). The factor 1.001 covers that, and the rounding of the float operations
  /// here, each below 1e-6.
  TARVO_HOST_DEVICE void set(const Codes& codes, const PointCodes& point, float most) {
    const float distance = most * 1.001f + 1e-30f;
    const float root = std::sqrt(static_cast<float>(kBinsOfCoarse) * distance) * codes.coarseScale;
    const float coarse = root + kCodeError;
    const float errors = kCodeError * std::sqrt(static_cast<float>(kCells * kFineParts));
    const float fine = std::sqrt(static_cast<float>(kBinsOfFine) * distance) * codes.fineScale + errors;
    constexpr float kMostSum = static_cast<float>(kCells * kFineParts) * kMostFine * kMostFine;
    mostFine = static_cast<unsigned>(std::min(fine * fine * 1.001f, kMostSum)) + 1;
    const int wide = coarse < 127.0f ? static_cast<int>(coarse) : 0;
    width = wide != 0 ? static_cast<unsigned char>(2 * wide) : kAll;
    reach = static_cast<std::uint16_t>(wide);
    const float sum = root + kCodeError * std::sqrt(static_cast<float>(kCorners * kCoarseParts));
    squares = wide != 0;
    mostCoarse = static_cast<std::uint16_t>(std::min(sum * sum * 1.001f + 1.0f, 65535.0f));
    for (int k = 0; k < kCorners; ++k) {
      for (int part = 0; part < kCoarseParts; ++part) {
        std::memset(&least[k][part], point.coarse[k][part] - wide, kBlock);
      }
    }
  }
};

/// apart = max(apart, the differences of a block's codes from `least`), byte by byte.
TARVO_HOST_DEVICE void compare(Bytes& apart, const unsigned char* block, const Bytes& least) {
  Bytes own;
  std::memcpy(&own, block, sizeof own);
  own -= least;
  apart = own > apart ? own : apart;
}

/// 255 in the first `count` columns of a block, else 0; count at most kBlock.
TARVO_HOST_DEVICE void setFirst(Bytes& block, unsigned count) {
  for (unsigned i = 0; i < kBlock; ++i) block[i] = i < count ? 255 : 0;
}

/// passing[i] of `count` columns, whole blocks, from codes[0] on: 255 where colours and energy may be
/// acceptable, else 0.
/// @param plane from a plane of codes to the next
/// @param last  255 in the columns of the last block that exist, else 0
TARVO_HOST_DEVICE void testColumns(const unsigned char* codes, long plane, const PointCodes& point, bool open,
                                   unsigned count, const Bytes& last, unsigned char* passing) {
  const unsigned char width = open ? kAll : point.acceptable;
  Bytes least[kPictureChannels + 1];
  for (int k = 0; k <= kPictureChannels; ++k) least[k] = point.least[k];
  for (unsigned i = 0; i < count; i += kBlock) {
    Bytes apart = {};
    for (int k = 0; k <= kPictureChannels; ++k) compare(apart, codes + k * plane + i, least[k]);
    auto passed = reinterpret_cast<Bytes>(apart <= width);
    if (i + kBlock == count) passed &= last;
    std::memcpy(passing + i, &passed, sizeof passed);
  }
}

/// Clears passing[i] of a block where a coarse sum rejects.
/// @param codes of the cells to the upper left
/// @param down  from a row of cells to the next
TARVO_HOST_DEVICE void boundBlock(const unsigned char* codes, long plane, long down,
                                  const Bytes (&least)[kCorners][kCoarseParts], unsigned char width,
                                  unsigned char* passing) {
  Bytes apart = {};
  TARVO_UNROLL
  for (int part = 0; part < kCoarseParts; ++part) {
    const unsigned char* cells = codes + part * plane;
    compare(apart, cells, least[0][part]);
    compare(apart, cells + 2 * kSpacing, least[1][part]);
    compare(apart, cells + 2 * down, least[2][part]);
    compare(apart, cells + 2 * down + 2 * kSpacing, least[3][part]);
  }
  Bytes passed;
  std::memcpy(&passed, passing, sizeof passed);
  passed &= reinterpret_cast<Bytes>(apart <= width);
  std::memcpy(passing, &passed, sizeof passed);
}

/// Of a block that boundBlock has tested, clears passing[i] where the squares of the coarse sums reject. The
/// sums of squares are modulo 2^16: one that exceeds that may pass.
TARVO_HOST_DEVICE void boundSquares(const unsigned char* codes, long plane, long down, const Bounds& bounds,
                                    unsigned char* passing) {
  Shorts even = {}, odd = {};
  TARVO_UNROLL
  for (int part = 0; part < kCoarseParts; ++part) {
    TARVO_UNROLL
    for (int k = 0; k < kCorners; ++k) {
      Bytes own;
      std::memcpy(&own, codes + part * plane + k / 2 * 2 * down + k % 2 * 2 * kSpacing, sizeof own);
      own -= bounds.least[k][part];
      const auto pairs = reinterpret_cast<Shorts>(own);
      const Shorts low = (pairs & std::uint16_t{255}) - bounds.reach;
      const Shorts high = (pairs >> 8) - bounds.reach;
      even += low * low;
      odd += high * high;
    }
  }
  const auto evenPassed = reinterpret_cast<Shorts>(even <= bounds.mostCoarse);
  const auto oddPassed = reinterpret_cast<Shorts>(odd <= bounds.mostCoarse);
  const Shorts both = (evenPassed & std::uint16_t{0x00ff}) | (oddPassed & std::uint16_t{0xff00});
  Shorts passed;
  std::memcpy(&passed, passing, sizeof passed);
  passed &= both;
  std::memcpy(passing, &passed, sizeof passed);
}

/// Sum of squared differences of the fine codes. A lane sums three squares: 3 kMostFine^2 < 2^16.
/// @param cells of the upper left cell
/// @param down  from a row of cells to the next
TARVO_HOST_DEVICE unsigned fineDistance(const std::uint16_t* cells, long down, const Shorts* point) {
  Shorts squares = {};
  TARVO_UNROLL
  for (int k = 0; k < 3; ++k) {
    Shorts own;
    std::memcpy(&own, cells + k * down, sizeof own);
    own -= point[k];
    squares += own * own;
  }
  const Words words = reinterpret_cast<Words>(squares);
  const Words high = (words >> 16) & Words{~0u, ~0u, ~0u, ~0u, ~0u, ~0u, ~0u, 0};
  const Words pairs = (words & 0xffffu) + high;
  HalfWords halves[2];
  std::memcpy(halves, &pairs, sizeof halves);
  const HalfWords sums = halves[0] + halves[1];
  return (sums[0] + sums[2]) + (sums[1] + sums[3]);
}

/// Codes of `count` columns from (x0, y) on; count at most kChunk.
constexpr int kChunk = 64;
TARVO_HOST_DEVICE void codeHistograms(const Codes& codes, const kernels::HOGMatch_kernel& m, int x0, int y,
                                      int count) {
  float bins[kHogBins][kChunk] = {};
  for (int b = 0; b < kHogBins; ++b) {
    std::memcpy(bins[b], m.hogB + m.plane(b) + m.at(x0, y), static_cast<std::size_t>(count) * sizeof(float));
  }
  unsigned char coarse[kCoarseParts][kChunk];
  std::uint16_t fine[kFineParts][kChunk];
  const auto sum = [&bins](int first, int n, int i) {
    float result = 0.0f;
    for (int b = first; b < first + n; ++b) result += std::fabs(bins[b][i]);
    return result;
  };
  for (int part = 0; part < kCoarseParts; ++part) {
#pragma omp simd
    for (int i = 0; i < kChunk; ++i) {
      coarse[part][i] = codeOf(sum(part * kBinsOfCoarse, kBinsOfCoarse, i) * codes.coarseScale, kMostByte);
    }
    std::memcpy(codes.planeRow(kPictureChannels + 1 + part, y) + x0, coarse[part],
                static_cast<std::size_t>(count));
  }
  for (int part = 0; part < kFineParts; ++part) {
#pragma omp simd
    for (int i = 0; i < kChunk; ++i) {
      fine[part][i] = codeOf(sum(part * kBinsOfFine, kBinsOfFine, i) * codes.fineScale, kMostFine);
    }
  }
  for (int i = 0; i < count; ++i) {
    std::uint16_t* cell = codes.fineRow(y) + codes.fineCell(x0 + i);
    for (int part = 0; part < kFineParts; ++part) cell[part] = fine[part][i];
  }
}

/// All codes of row y.
TARVO_HOST_DEVICE void codeRow(const Codes& codes, const kernels::HOGMatch_kernel& m, int y) {
  unsigned char open = 0;
  for (int c = 0; c < kPictureChannels; ++c) {
    const float* colour = m.imageB + m.plane(c) + m.at(0, y);
    unsigned char* out = codes.planeRow(c, y);
#pragma omp simd reduction(| : open)
    for (int x = 0; x < codes.w; ++x) {
      out[x] = colourCode(colour[x]);
      open |= colour[x] == colour[x] ? 0 : 1;
    }
  }
  const float* energy = m.energyB + m.at(0, y);
  unsigned char* out = codes.planeRow(kPictureChannels, y);
#pragma omp simd reduction(| : open)
  for (int x = 0; x < codes.w; ++x) {
    out[x] = energyCode(energy[x]);
    open |= energy[x] == energy[x] ? 0 : 1;
  }
  codes.open[y] = open;
  for (int x = 0; x < codes.w; x += kChunk) codeHistograms(codes, m, x, y, std::min(kChunk, codes.w - x));
}

/// Mean energy of some pixels of image B, for the scales of the codes.
inline float typicalEnergy(const kernels::HOGMatch_kernel& m) {
  constexpr int kStep = 7;
  float sum = 0.0f;
  int count = 0;
  for (int y = 0; y < m.h; y += kStep) {
    for (int x = 0; x < m.w; x += kStep) {
      const float energy = m.energyB[m.at(x, y)];
      if (!(energy > 1e-9f && energy < 1e9f)) continue;
      sum += energy;
      ++count;
    }
  }
  return count != 0 ? sum / static_cast<float>(count) : 1.0f;
}

}  // namespace match
