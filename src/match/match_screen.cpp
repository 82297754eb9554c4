#include "match/match_screen.h"

#include "device/cpu/band.h"

// Every test runs over the whole band before the next one begins. What passes is hard to predict, so it is
// listed without a branch. Each test is a function of its own, so small that what it compares with stays in
// registers.

namespace match {
namespace {

constexpr unsigned kCrowded = 2;  // passing groups of a block from which on testing its squares pays

/// Whether anything passes in a block, as 1 or 0.
TARVO_HOST_DEVICE unsigned passes(const unsigned char* block) {
  std::uint64_t groups[kBlock / kGroup];
  std::memcpy(groups, block, sizeof groups);
  return ((groups[0] | groups[1]) | (groups[2] | groups[3])) != 0 ? 1 : 0;
}

/// Groups of a block where something passes.
TARVO_HOST_DEVICE unsigned passingGroups(const unsigned char* block) {
  unsigned count = 0;
  TARVO_UNROLL
  for (unsigned g = 0; g < kBlock; g += kGroup) {
    std::uint64_t group;
    std::memcpy(&group, block + g, sizeof group);
    count += group != 0 ? 1 : 0;
  }
  return count;
}

/// Lists the blocks where colours and energy pass; returns how many.
TARVO_BAND unsigned testBand(const Codes& codes, const PointCodes& point, const Band& band,
                             Screening& screening) {
  const unsigned padded = (band.columns + kBlock - 1) / kBlock * kBlock;
  Bytes last;
  setFirst(last, band.columns + kBlock - padded);
  for (unsigned r = 0; r < band.rows; ++r) {
    const int y = band.y + static_cast<int>(r);
    testColumns(codes.planeRow(0, y) + band.x0, codes.w, point, codes.open[y] != 0, padded, last,
                screening.passing + r * kPaddedColumns);
  }
  unsigned count = 0;
  for (unsigned r = 0; r < band.rows; ++r) {
    for (unsigned block = r * kPaddedColumns; block < r * kPaddedColumns + padded; block += kBlock) {
      screening.blocks[count] = block;
      count += passes(screening.passing + block);
    }
  }
  return count;
}

/// Appends the groups of a block where something passes to a list; returns its new length.
TARVO_HOST_DEVICE unsigned listGroups(const unsigned char* passing, unsigned block, unsigned* groups,
                                      unsigned count) {
  TARVO_UNROLL
  for (unsigned g = block; g < block + kBlock; g += kGroup) {
    std::uint64_t group;
    std::memcpy(&group, passing + g, sizeof group);
    groups[count] = g;
    count += group != 0 ? 1 : 0;
  }
  return count;
}

/// Lists the groups of these blocks where the coarse sums pass and, in crowded blocks, their squares; returns
/// how many. The list of blocks keeps those where the coarse sums pass.
TARVO_BAND unsigned boundBand(const Codes& codes, const Bounds& bounds, const Band& band, unsigned blocks,
                              Screening& screening) {
  const long plane = codes.w, row = plane * Codes::kPlanes;
  const unsigned char* first = codes.planeRow(kPictureChannels + 1, band.y - kSpacing) + band.x0 - kSpacing;
  const auto cellsOf = [&](unsigned block) {
    return first + block / kPaddedColumns * row + block % kPaddedColumns;
  };
  Bytes least[kCorners][kCoarseParts];
  std::memcpy(least, bounds.least, sizeof least);
  const unsigned char width = bounds.width;
  for (unsigned i = 0; i < blocks; ++i) {
    const unsigned block = screening.blocks[i];
    boundBlock(cellsOf(block), plane, kSpacing * row, least, width, screening.passing + block);
  }
  unsigned left = 0;
  for (unsigned i = 0; i < blocks; ++i) {
    const unsigned block = screening.blocks[i];
    screening.blocks[left] = block;
    left += passes(screening.passing + block);
  }
  if (bounds.squares) {
    unsigned* const crowded = screening.groups;  // free until the groups are listed
    unsigned count = 0;
    for (unsigned i = 0; i < left; ++i) {
      const unsigned block = screening.blocks[i];
      crowded[count] = block;
      count += passingGroups(screening.passing + block) >= kCrowded ? 1 : 0;
    }
    for (unsigned i = 0; i < count; ++i) {
      boundSquares(cellsOf(crowded[i]), plane, kSpacing * row, bounds, screening.passing + crowded[i]);
    }
  }
  unsigned count = 0;
  for (unsigned i = 0; i < left; ++i) {
    count = listGroups(screening.passing, screening.blocks[i], screening.groups, count);
  }
  return count;
}

/// Lists the candidates of these groups that have passed so far and pass by the fine sums; returns how many.
TARVO_BAND unsigned fineBand(const Codes& codes, const PointCodes& point, const Bounds& bounds,
                             const Band& band, unsigned groups, Screening& screening) {
  unsigned* const places = screening.places;
  unsigned count = 0;
  for (unsigned i = 0; i < groups; ++i) {
    const unsigned group = screening.groups[i];
    TARVO_UNROLL
    for (unsigned place = group; place < group + kGroup; ++place) {
      places[count] = place;
      count += screening.passing[place] & 1;
    }
  }
  const std::uint16_t* first = codes.fineRow(band.y - kSpacing);
  const long row = Codes::fineLength(codes.w);
  const int* cells = codes.cellOffsets + band.x0 - kSpacing;
  const unsigned most = bounds.mostFine;
  Shorts own[3];
  std::memcpy(own, point.fine, sizeof own);
  unsigned left = 0;
  for (unsigned i = 0; i < count; ++i) {
    const unsigned place = places[i];
    const std::uint16_t* at = first + place / kPaddedColumns * row + cells[place % kPaddedColumns];
    places[left] = place;
    left += fineDistance(at, kSpacing * row, own) <= most ? 1 : 0;
  }
  return left;
}

}  // namespace

unsigned screen(const Codes& codes, const PointCodes& point, const Bounds& bounds, const Band& band,
                Screening& screening) {
  const unsigned blocks = testBand(codes, point, band, screening);
  const unsigned groups = boundBand(codes, bounds, band, blocks, screening);
  return fineBand(codes, point, bounds, band, groups, screening);
}

}  // namespace match
