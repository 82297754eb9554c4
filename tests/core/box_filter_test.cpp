#include <climits>

#include "core/pattern.h"

namespace {

CTensor<float> averagedAlongX(const CTensor<float>& source, int width) {
  CTensor<float> result(source.sizeX(), source.sizeY(), source.sizeZ(), -1);
  NFilter::boxFilterX(source, result, width);
  return result;
}

}  // namespace

TEST(BoxFilter, CutsTheWindowAtTheBorder) {
  const float values[] = {1, 2, 6, 4, 12, 5};
  CTensor<float> row(6, 1, 1);
  std::copy_n(values, 6, row.data());
  // Width 4 counts as 5: two samples on each side.
  const float expected[] = {3, 3.25f, 5, 5.8f, 6.75f, 7};
  const CTensor<float> even = averagedAlongX(row, 4);
  const CTensor<float> odd = averagedAlongX(row, 5);
  for (int x = 0; x < 6; x++) {
    EXPECT_FLOAT_EQ(even(x, 0, 0), expected[x]);
    EXPECT_EQ(odd(x, 0, 0), even(x, 0, 0));
  }
  for (int width : {11, 1000, INT_MAX - 1, INT_MAX}) {
    const CTensor<float> all = averagedAlongX(row, width);
    for (int x = 0; x < 6; x++) EXPECT_FLOAT_EQ(all(x, 0, 0), 5) << width;
  }
  for (int width : {1, 0, -7}) {
    const CTensor<float> same = averagedAlongX(row, width);
    for (int x = 0; x < 6; x++) EXPECT_EQ(same(x, 0, 0), values[x]) << width;
  }
}

TEST(BoxFilter, TreatsColumnsLikeTheRowsOfTheTurnedTensor) {
  const int sizes[][3] = {{1, 1, 1}, {1, 13, 2}, {17, 29, 3}, {131, 21, 1}};
  for (const auto& size : sizes) {
    const CTensor<float> source = patternTensor(size[0], size[1], size[2]);
    CTensor<float> turned(size[1], size[0], size[2]);
    CTensor<float> alongY = turned;
    for (int i = 0; i < source.size(); i++) {
      turned(i / size[0] % size[1], i % size[0], i / size[0] / size[1]) = source.data()[i];
    }
    NFilter::boxFilterY(turned, alongY, 7);
    const CTensor<float> alongX = averagedAlongX(source, 7);
    for (int i = 0; i < source.size(); i++) {
      ASSERT_EQ(alongY(i / size[0] % size[1], i % size[0], i / size[0] / size[1]), alongX.data()[i]) << i;
    }
  }
}

TEST(BoxFilter, UpdatesTheSumInsteadOfFormingItAnew) {
  // The large sample swallows the small ones while it is in the window, and they stay lost.
  CTensor<float> row(5, 1, 1, 1);
  row(1, 0, 0) = 1e10f;
  const CTensor<float> mean = averagedAlongX(row, 3);
  EXPECT_EQ(mean(3, 0, 0), 1.0f / 3);  // 0 after the large one left, plus 1 entering
}

TEST(BoxFilter, RefusesResultsOfOtherSizes) {
  CTensor<float> result(4, 3, 1, 5);
  testing::internal::CaptureStderr();
  EXPECT_THROW(NFilter::boxFilterX(CTensor<float>(4, 3, 2), result, 3), EFilterIncompatibleSize);
  EXPECT_THROW(NFilter::boxFilterY(CTensor<float>(3, 4, 1), result, 3), EFilterIncompatibleSize);
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}
