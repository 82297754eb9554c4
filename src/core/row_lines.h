#pragma once

#include <cstddef>
#include <vector>

/// Filters that run along a line process several lines side by side: sample n of line j lies at
/// lines[n * stride + j]. The columns of a plane are stored like that already (stride: the row length). The
/// functions below bring rows into this form and back, kRowBundle at a time.
inline constexpr int kRowBundle = 16;

/// Columns processed side by side: enough for the memory to deliver whole pages of a row, few enough for the
/// intermediate samples of a strip of columns to stay in cache.
inline constexpr int kColumnStrip = 64;

/// lines[n * count + j] = rows[j * length + n] for `count` rows of `length` samples.
inline void gatherRows(const float* rows, int length, int count, float* lines) {
  for (int n = 0; n < length; n++) {
    for (int j = 0; j < count; j++) *lines++ = rows[static_cast<std::ptrdiff_t>(j) * length + n];
  }
}

/// rows[j * length + n] = lines[n * count + j]: the reverse of gatherRows.
inline void scatterRows(const float* lines, int length, int count, float* rows) {
  for (int n = 0; n < length; n++) {
    for (int j = 0; j < count; j++) rows[static_cast<std::ptrdiff_t>(j) * length + n] = *lines++;
  }
}
