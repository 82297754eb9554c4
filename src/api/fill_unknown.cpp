#include "api/fill_unknown.h"

#include <algorithm>
#include <cstddef>

namespace api {
namespace {

/// Values, and how much of each is known, 0 ... 1.
struct Grid {
  int w, h;
  std::vector<float> value, weight;

  Grid(int width, int height)
      : w(width),
        h(height),
        value(static_cast<std::size_t>(w) * static_cast<std::size_t>(h)),
        weight(value.size()) {}
  std::size_t at(int x, int y) const {
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(w) + static_cast<std::size_t>(x);
  }
  bool complete() const {
    return std::all_of(weight.begin(), weight.end(), [](float one) { return one >= 1.0f; });
  }
};

/// A grid of half the size. A cell holds the weighted mean of up to four, and their weight up to 1.
Grid halved(const Grid& fine) {
  Grid coarse((fine.w + 1) / 2, (fine.h + 1) / 2);
  for (int y = 0; y < coarse.h; ++y) {
    for (int x = 0; x < coarse.w; ++x) {
      float sum = 0.0f, weight = 0.0f;
      for (int j = 2 * y; j < std::min(2 * y + 2, fine.h); ++j) {
        for (int i = 2 * x; i < std::min(2 * x + 2, fine.w); ++i) {
          sum += fine.weight[fine.at(i, j)] * fine.value[fine.at(i, j)];
          weight += fine.weight[fine.at(i, j)];
        }
      }
      coarse.value[coarse.at(x, y)] = weight > 0.0f ? sum / weight : 0.0f;
      coarse.weight[coarse.at(x, y)] = std::min(weight, 1.0f);
    }
  }
  return coarse;
}

/// What the fine grid lacks to weight 1, from the coarse one by bilinear interpolation.
void complete(Grid& fine, const Grid& coarse) {
  for (int y = 0; y < fine.h; ++y) {
    const int y0 = y / 2, y1 = std::min(std::max(y0 + (y % 2 == 0 ? -1 : 1), 0), coarse.h - 1);
    for (int x = 0; x < fine.w; ++x) {
      const float weight = fine.weight[fine.at(x, y)];
      if (weight >= 1.0f) continue;
      const int x0 = x / 2, x1 = std::min(std::max(x0 + (x % 2 == 0 ? -1 : 1), 0), coarse.w - 1);
      const auto row = [&](int j) {
        return 0.75f * coarse.value[coarse.at(x0, j)] + 0.25f * coarse.value[coarse.at(x1, j)];
      };
      float& value = fine.value[fine.at(x, y)];
      value = weight * value + (1.0f - weight) * (0.75f * row(y0) + 0.25f * row(y1));
    }
  }
}

void fillPlane(float* plane, int w, int h, const std::vector<float>& known) {
  std::vector<Grid> grids{Grid(w, h)};
  grids[0].weight = known;
  for (std::size_t i = 0; i < known.size(); ++i) grids[0].value[i] = known[i] > 0.0f ? plane[i] : 0.0f;
  while (!grids.back().complete() && (grids.back().w > 1 || grids.back().h > 1)) {
    grids.push_back(halved(grids.back()));
  }
  for (std::size_t k = grids.size() - 1; k > 0; --k) complete(grids[k - 1], grids[k]);
  std::copy(grids[0].value.begin(), grids[0].value.end(), plane);
}

}  // namespace

void fillUnknown(CTensor<float>& picture, const std::vector<float>& known) {
  for (int k = 0; k < picture.sizeZ(); ++k) {
    fillPlane(&picture(0, 0, k), picture.sizeX(), picture.sizeY(), known);
  }
}

}  // namespace api
