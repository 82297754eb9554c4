#include <functional>

#include "core/pattern.h"

namespace {

/// Mean of the source over the area of each new element, in double precision.
CMatrix<double> areaMeans(const CMatrix<float>& source, int newX, int newY) {
  CMatrix<double> means(newX, newY, 0);
  const double fx = static_cast<double>(source.sizeX()) / newX,
               fy = static_cast<double>(source.sizeY()) / newY;
  const auto overlap = [](int cell, double length, int sample) {
    return std::max(0.0, std::min((cell + 1) * length, sample + 1.0) - std::max(cell * length, 1.0 * sample));
  };
  for (int j = 0; j < newY; ++j) {
    for (int i = 0; i < newX; ++i) {
      for (int y = 0; y < source.sizeY(); ++y) {
        for (int x = 0; x < source.sizeX(); ++x) {
          means(i, j) +=
              static_cast<double>(source(x, y)) * overlap(i, fx, x) * overlap(j, fy, y) / (fx * fy);
        }
      }
    }
  }
  return means;
}

void expectNear(const CMatrix<float>& result, const CMatrix<double>& expected, double bound) {
  ASSERT_EQ(result.sizeX(), expected.sizeX());
  ASSERT_EQ(result.sizeY(), expected.sizeY());
  for (int i = 0; i < result.size(); ++i) ASSERT_NEAR(result.data()[i], expected.data()[i], bound) << i;
}

}  // namespace

TEST(Downsample, AveragesAreas) {
  CMatrix<float> small = matrix(3, 2, {0, 6, 12, 4, 8, 100});
  small.downsample(2, 1);
  // Columns: (0 + 6 / 2) and (6 / 2 + 12) over 1.5, likewise 4, 8, 100; then the mean of both rows.
  expectNear(small, matrix<double>(2, 1, {(2.0 + 8.0 / 1.5) / 2, (10.0 + 104.0 / 1.5) / 2}), 1e-5);
  const int sizes[][4] = {{10, 9, 7, 4}, {40, 33, 39, 32}, {37, 50, 37, 13}, {50, 21, 13, 21}, {5, 6, 1, 1}};
  for (const auto& size : sizes) {
    SCOPED_TRACE(testing::Message() << size[0] << " x " << size[1] << " to " << size[2] << " x " << size[3]);
    CMatrix<float> reduced = patternMatrix(size[0], size[1]);
    const CMatrix<double> means = areaMeans(reduced, size[2], size[3]);
    reduced.downsample(size[2], size[3]);
    expectNear(reduced, means, 5e-3);  // the length of a cell is a float, its error adds up along the line
  }
  const CMatrix<float> before = patternMatrix(17, 5);
  CMatrix<float> same(before);
  same.downsample(17, 5);
  EXPECT_TRUE(sameElements(same, before));
}

TEST(Downsample, SpreadsWeightedElements) {
  // Column x goes to position x / 2: the middle column half to each side, its own to the right if that
  // exists.
  CMatrix<float> values = matrix(4, 1, {10, 20, 30, 40});
  CMatrix<float> weights = matrix(4, 1, {1, 4, 0, -2});
  const CMatrix<float> kept(weights);
  values.downsample(2, 1, weights);
  EXPECT_FLOAT_EQ(values(0, 0), (10.0f + 0.5f * 20 * 4) / (1 + 0.5f * 4));
  EXPECT_FLOAT_EQ(values(1, 0), 20);
  EXPECT_TRUE(sameElements(weights, kept));

  // 3 x 4 to 2 x 2: columns at 0, 2/3, 4/3 and rows at 0, 1/2, 1, 3/2; what would fall outside is dropped.
  CMatrix<float> plane = matrix(3, 4, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
  CMatrix<float> one = matrix(3, 4, {1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 4});
  plane.downsample(2, 2, one);
  // Value 5 at (2/3, 1/2), 9 at (4/3, 1), 12 at (4/3, 3/2).
  EXPECT_NEAR(plane(0, 0), (1 * 1 + 5 * 2 / 6.0) / (1 + 2 / 6.0), 1e-5);
  EXPECT_NEAR(plane(1, 0), 5, 1e-5);
  EXPECT_NEAR(plane(0, 1), 5, 1e-5);
  EXPECT_NEAR(plane(1, 1), (5 * 2 / 3.0 + 9 * 3 * 2 / 3.0 + 12 * 4 / 3.0) / (2 / 3.0 + 2 + 4 / 3.0), 1e-4);

  CMatrix<float> unseen = patternMatrix(9, 8);
  CMatrix<float> nothing = matrix(9, 8, std::vector<float>(72, std::nanf("")));
  unseen.downsample(4, 3, nothing);
  ASSERT_EQ(unseen.size(), 12);
  for (int i = 0; i < unseen.size(); ++i) EXPECT_EQ(unseen.data()[i], 0);

  CMatrix<float> self = matrix(2, 2, {1, 3, 0, 0});
  self.downsample(1, 1, self);  // the weight is averaged with itself as weight, as the flow pyramid does
  EXPECT_FLOAT_EQ(self(0, 0), (1.0f + 0.5f * 9) / (1 + 0.5f * 3));
}

TEST(Upsample, InterpolatesBetweenCentresAndRepeatsBorders) {
  CMatrix<float> row = matrix(2, 1, {0, 8});
  row.upsampleBilinear(4, 2);
  EXPECT_TRUE(sameElements(row, matrix(4, 2, {0, 2, 6, 8, 0, 2, 6, 8})));
  CMatrix<float> plane(20, 13);
  for (int i = 0; i < plane.size(); ++i) plane.data()[i] = static_cast<float>(3 * (i % 20) - 2 * (i / 20));
  plane.upsampleBilinear(33, 29);
  for (int y = 0; y < 29; ++y) {
    for (int x = 0; x < 33; ++x) {
      const double px = std::min(std::max((x + 0.5) * 20 / 33 - 0.5, 0.0), 19.0);
      const double py = std::min(std::max((y + 0.5) * 13 / 29 - 0.5, 0.0), 12.0);
      ASSERT_NEAR(plane(x, y), 3 * px - 2 * py, 1e-4) << x << ", " << y;
    }
  }
}

TEST(Resampling, OfATensorIsThatOfItsPlanes) {
  const CTensor<float> source = patternTensor(19, 14, 3);
  CTensor<float> weights = patternTensor(19, 14, 4);
  using Tensor = CTensor<float>;
  using Matrix = CMatrix<float>;
  const auto planeOf = [](const Tensor& tensor, int z) {
    Matrix plane(tensor.sizeX(), tensor.sizeY());
    std::copy_n(&tensor(0, 0, z), plane.size(), plane.data());
    return plane;
  };
  struct Case {
    int x, y;
    std::function<void(Tensor&)> all;
    std::function<void(Matrix&, int)> one;
  };
  const Case cases[] = {
      {11, 9, [](Tensor& t) { t.downsample(11, 9); }, [](Matrix& m, int) { m.downsample(11, 9); }},
      {7, 14, [&](Tensor& t) { t.downsample(7, 14, weights); },
       [&](Matrix& m, int z) {
         Matrix weight = planeOf(weights, z);
         m.downsample(7, 14, weight);
       }},
      {25, 20, [](Tensor& t) { t.upsampleBilinear(25, 20); },
       [](Matrix& m, int) { m.upsampleBilinear(25, 20); }},
  };
  for (const Case& c : cases) {
    Tensor tensor(source);
    c.all(tensor);
    ASSERT_EQ(tensor.sizeX(), c.x);
    ASSERT_EQ(tensor.sizeY(), c.y);
    ASSERT_EQ(tensor.sizeZ(), 3);
    for (int z = 0; z < 3; ++z) {
      Matrix plane = planeOf(source, z);
      c.one(plane, z);
      EXPECT_TRUE(sameElements(plane, planeOf(tensor, z)));
    }
  }
}

TEST(Resampling, RefusesWhatDoesNotFitAndChangesNothing) {
  const CTensor<float> before = patternTensor(6, 5, 2);
  CTensor<float> tensor(before), other(5, 6, 2, 1), shallow(6, 5, 1, 1);
  const CMatrix<float> plane = patternMatrix(6, 5);
  CMatrix<float> matrix(plane), small(6, 4, 1), empty;
  EXPECT_THROW(tensor.downsample(3, 3, other), ETensorIncompatibleSize);
  EXPECT_THROW(tensor.downsample(3, 3, shallow), std::invalid_argument);
  EXPECT_THROW(matrix.downsample(3, 3, small), ETensorIncompatibleSize);
  for (const auto& size : {std::pair{7, 5}, std::pair{6, 6}, std::pair{0, 3}, std::pair{3, -1}}) {
    EXPECT_THROW(tensor.downsample(size.first, size.second), std::invalid_argument);
    EXPECT_THROW(matrix.downsample(size.first, size.second), std::invalid_argument);
  }
  EXPECT_THROW(matrix.downsample(0, 1, matrix), std::invalid_argument);
  EXPECT_THROW(tensor.upsampleBilinear(3, 0), std::invalid_argument);
  EXPECT_THROW(empty.upsampleBilinear(3, 3), std::invalid_argument);
  EXPECT_TRUE(sameElements(tensor, before) && tensor.sizeX() == 6 && tensor.sizeZ() == 2);
  EXPECT_TRUE(sameElements(matrix, plane) && matrix.sizeX() == 6);
}
