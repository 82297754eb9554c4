#include "core/pattern.h"

namespace {

/// The recursion on a single line, pass by pass.
std::vector<float> smoothed(const std::vector<float>& x, float sigma) {
  const float a = static_cast<float>(2.5 / (sigma * std::sqrt(static_cast<double>(3.1415927f))));
  const float e = static_cast<float>(std::exp(-static_cast<double>(a)));
  const float e2 = e * e;
  const float k = static_cast<float>((1.0 - e) * (1.0 - e) / (1.0 + 2.0 * a * e - e2));
  const float c1 = static_cast<float>((a - 1.0) * e);
  const float c2 = static_cast<float>((a + 1.0) * e);
  const float b1 = 2 * e;
  const int size = static_cast<int>(x.size());
  std::vector<float> up(x.size()), down(x.size()), sum(x.size());
  up[0] = x[0] / 2;
  up[1] = k * (x[1] + c1 * x[0]) + (b1 - e2) * x[0] / 2;
  for (int n = 2; n < size; n++) up[n] = k * (x[n] + c1 * x[n - 1]) + b1 * up[n - 1] - e2 * up[n - 2];
  down[size - 1] = x[size - 1] / 2;
  down[size - 2] = k * (c2 - e2) * x[size - 1] + (b1 - e2) * x[size - 1] / 2;
  for (int n = size - 3; n >= 0; n--) {
    down[n] = k * (c2 * x[n + 1] - e2 * x[n + 2]) + b1 * down[n + 1] - e2 * down[n + 2];
  }
  for (int n = 0; n < size; n++) sum[n] = up[n] + down[n];
  return sum;
}

CMatrix<float> smoothedRow(CMatrix<float> row, float sigma) {
  NFilter::recursiveSmoothX(row, sigma);
  return row;
}

}  // namespace

TEST(RecursiveSmooth, KeepsAConstantInsideAndBendsItsEnds) {
  const CMatrix<float> row = smoothedRow(CMatrix<float>(60, 1, 1), 2);
  const float begin[] = {0.91187f, 0.93444f, 0.95673f};
  const float end[] = {1.04327f, 1.06557f, 1.08813f};
  for (int i = 0; i < 3; i++) {
    EXPECT_NEAR(row(i, 0), begin[i], 1e-5);  // the digits given
    EXPECT_NEAR(row(57 + i, 0), end[i], 1e-5);
  }
  for (int x = 25; x < 35; x++) EXPECT_NEAR(row(x, 0), 1, 1e-5);
}

TEST(RecursiveSmooth, SmoothsTwoSamplesByHand) {
  CMatrix<float> pair(2, 1, 0);
  pair(0, 0) = 1;
  pair = smoothedRow(pair, 2);
  EXPECT_EQ(pair(0, 0), 0.5f);
  EXPECT_FLOAT_EQ(pair(1, 0), 0.34631385f);
  CMatrix<float> column(1, 2, 0);
  column(0, 1) = 1;
  NFilter::recursiveSmoothY(column, 2);
  EXPECT_FLOAT_EQ(column(0, 0), 0.47743606f);
  EXPECT_FLOAT_EQ(column(0, 1), 0.6762501f);
}

TEST(RecursiveSmooth, TreatsEveryRowAndColumnAsALineOfItsOwn) {
  // Standard deviations at which another precision of pi, of its root or of a factor shows in the results.
  for (const float sigma : {0.7f, 1.9f, 3.1f}) {
    for (const CTensor<float>& source :
         {patternTensor(3, 2, 1), patternTensor(17, 29, 3), patternTensor(131, 33, 1)}) {
      CTensor<float> alongX = source, alongY = source;
      NFilter::recursiveSmoothX(alongX, sigma);
      NFilter::recursiveSmoothY(alongY, sigma);
      for (int z = 0; z < source.sizeZ(); z++) {
        for (int y = 0; y < source.sizeY(); y++) {
          const float* row = &source(0, y, z);
          const std::vector<float> expected = smoothed(std::vector<float>(row, row + source.sizeX()), sigma);
          ASSERT_TRUE(std::equal(expected.begin(), expected.end(), &alongX(0, y, z)))
              << sigma << ", row " << y;
        }
        for (int x = 0; x < source.sizeX(); x++) {
          std::vector<float> column(source.sizeY());
          for (int y = 0; y < source.sizeY(); y++) column[y] = source(x, y, z);
          column = smoothed(column, sigma);
          for (int y = 0; y < source.sizeY(); y++)
            ASSERT_EQ(alongY(x, y, z), column[y]) << sigma << ", " << x;
        }
      }
    }
  }
}

TEST(RecursiveSmooth, LeavesImagesUnchangedWhereNothingIsDefined) {
  const CTensor<float> source = patternTensor(17, 5, 2);
  for (float sigma : {0.0f, -1.0f, std::nanf(""), 1e-40f, INFINITY}) {
    CTensor<float> image = source;
    NFilter::recursiveSmoothX(image, sigma);
    NFilter::recursiveSmoothY(image, sigma);
    EXPECT_TRUE(sameElements(image, source)) << sigma;
  }
  CMatrix<float> row(9, 1, 3), column(1, 9, 3);
  NFilter::recursiveSmoothY(row, 2);
  NFilter::recursiveSmoothX(column, 2);
  EXPECT_TRUE(sameElements(row, CMatrix<float>(9, 1, 3)) && sameElements(column, row));
  CTensor<float> empty;
  NFilter::recursiveSmoothX(empty, 2);
  NFilter::recursiveSmoothY(empty, 2);
  EXPECT_EQ(empty.data(), nullptr);
}
