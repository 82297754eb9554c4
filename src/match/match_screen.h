#pragma once

#include "match/match_codes.h"

// The tests in bytes of a search on the CPU, for some rows of a window at a time.

namespace match {

constexpr int kBandRows = 8;
constexpr unsigned kPlaces = kBandRows * kPaddedColumns;

/// Rows of the window that are tested together, at most kBandRows.
struct Band {
  int x0, y;  // upper left candidate
  unsigned columns, rows;
};

/// What the tests work on. A place is a candidate of the band: row * kPaddedColumns + column. Lists have one
/// spare entry, since an entry is written before it is known whether it counts.
struct Screening {
  alignas(64) unsigned char passing[kPlaces];  // 255 or 0
  unsigned blocks[kPlaces / kBlock + 1], groups[kPlaces / kGroup + 1], places[kPlaces + 1];
};

/// The tests one after the other, each for what passed the one before: colours and energy; sums over parts of
/// the corner cells; where many pass, the squares of these; squares of the fine sums of all cells. Returns
/// how many candidates pass; screening.places begins with them, in order.
unsigned screen(const Codes& codes, const PointCodes& point, const Bounds& bounds, const Band& band,
                Screening& screening);

}  // namespace match
