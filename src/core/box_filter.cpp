#include <tarvo/NFilter.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "core/row_lines.h"
#include "core/same_size.h"

namespace {

/// Window of a box filter on lines of `length` samples.
struct Window {
  int half;                    ///< samples on each side of the output, at most `length`
  std::vector<float> inverse;  ///< inverse[m] = 1 / m for every number of samples that can meet in the window

  Window(int width, int length)
      : half(std::min(std::max(width, 1) / 2, length)), inverse(static_cast<std::size_t>(length) + 1, 1.0f) {
    for (int m = 1; m <= length; m++) inverse[m] = static_cast<float>(1.0 / m);
  }
};

/// Running mean along `lines` lines of `length` >= 1 samples, which lie side by side.
/// @param sum  scratch for one value per line
void averageLines(const float* source, float* result, std::ptrdiff_t stride, int length, int lines,
                  const Window& window, float* sum) {
  const int half = window.half;
  int count = std::min(half, length - 1) + 1;
  std::fill_n(sum, lines, 0.0f);
  for (int n = 0; n < count; n++) {
    for (int j = 0; j < lines; j++) sum[j] += source[n * stride + j];
  }
  for (int n = 0; n < length; n++) {
    const float inverse = window.inverse[count];
    float* out = result + n * stride;
    for (int j = 0; j < lines; j++) out[j] = inverse * sum[j];
    if (n >= half) {
      const float* leaving = source + (n - half) * stride;
      for (int j = 0; j < lines; j++) sum[j] -= leaving[j];
      count--;
    }
    if (n < length - half - 1) {
      const float* entering = source + (n + half + 1) * stride;
      for (int j = 0; j < lines; j++) sum[j] += entering[j];
      count++;
    }
  }
}

}  // namespace

namespace NFilter {

template <typename T>
void boxFilterX(const CTensor<T>& source, CTensor<T>& result, int width) {
  requireSameSize(source, result);
  const int length = source.sizeX();
  const int rows = source.sizeY() * source.sizeZ();
  if (length == 0) return;
  const Window window(width, length);
  std::vector<T> in(static_cast<std::size_t>(length) * kRowBundle);
  std::vector<T> out(in.size());
  T sum[kRowBundle];
  for (int y = 0; y < rows; y += kRowBundle) {
    const int bundle = std::min(kRowBundle, rows - y);
    const std::ptrdiff_t first = static_cast<std::ptrdiff_t>(y) * length;
    gatherRows(source.data() + first, length, bundle, in.data());
    averageLines(in.data(), out.data(), bundle, length, bundle, window, sum);
    scatterRows(out.data(), length, bundle, result.data() + first);
  }
}

template <typename T>
void boxFilterY(const CTensor<T>& source, CTensor<T>& result, int width) {
  requireSameSize(source, result);
  const int sizeX = source.sizeX();
  const int length = source.sizeY();
  if (length == 0) return;
  const Window window(width, length);
  T sum[kColumnStrip];
  for (int z = 0; z < source.sizeZ(); z++) {
    const std::ptrdiff_t plane = static_cast<std::ptrdiff_t>(z) * sizeX * length;
    for (int x = 0; x < sizeX; x += kColumnStrip) {
      const int strip = std::min(kColumnStrip, sizeX - x);
      averageLines(source.data() + plane + x, result.data() + plane + x, sizeX, length, strip, window, sum);
    }
  }
}

template void boxFilterX<float>(const CTensor<float>&, CTensor<float>&, int);
template void boxFilterY<float>(const CTensor<float>&, CTensor<float>&, int);

}  // namespace NFilter
