#include "core/pattern.h"

TEST(Product, CombinesRowsWithColumns) {
  const CMatrix<float> a = matrix<float>(3, 2, {1, 2, 3, 4, 5, 6});
  const CMatrix<float> b = matrix<float>(4, 3, {1, 0, 2, -1, 0, 1, 1, 3, 5, 0, 0, 2});
  const CMatrix<float> expected = matrix<float>(4, 2, {16, 2, 4, 11, 34, 5, 13, 23});
  const CMatrix<float> p = a * b;
  ASSERT_EQ(p.sizeX(), 4);
  ASSERT_EQ(p.sizeY(), 2);
  EXPECT_TRUE(sameElements(p, expected));
  CMatrix<float> in(a);
  in *= b;
  EXPECT_TRUE(sameElements(in, expected) && in.sizeX() == 4);

  // Single precision from the left: the small term is lost; double keeps it.
  CMatrix<float> single = matrix<float>(3, 1, {1e8f, 1, -1e8f});
  single *= matrix<float>(1, 3, {1, 1, 1});
  EXPECT_EQ(single(0, 0), 0);
  CMatrix<double> twice = matrix<double>(3, 1, {1e8, 1, -1e8});
  twice *= matrix<double>(1, 3, {1, 1, 1});
  EXPECT_EQ(twice(0, 0), 1);
}

TEST(Product, RefusesSizesThatDoNotMeet) {
  CMatrix<float> a(3, 2, 1);
  testing::internal::CaptureStderr();
  EXPECT_THROW(a * a, EIncompatibleMatrices);
  EXPECT_THROW(a *= a, EIncompatibleMatrices);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("M1 = 3x2  M2 = 3x2"), std::string::npos);
  EXPECT_TRUE(a.sizeX() == 3 && a.sizeY() == 2 && a(2, 1) == 1);
}

TEST(Inverse, TimesTheMatrixIsTheIdentity) {
  for (const int n : {1, 2, 5, 20}) {
    const CTensor<float> pattern = patternTensor(n, n, 1);
    CMatrix<double> m(n, n);
    for (int i = 0; i < m.size(); ++i) m.data()[i] = static_cast<double>(pattern.data()[i]) - 127;
    CMatrix<double> product(m);
    CMatrix<double> inverse(m);
    inverse.inv();
    product *= inverse;
    for (int i = 0; i < m.size(); ++i) EXPECT_NEAR(product.data()[i], i % (n + 1) == 0 ? 1 : 0, 1e-9) << n;
  }
  CMatrix<double> turn = matrix<double>(3, 3, {0, 1, 0, 0, 0, 1, 1, 0, 0});  // needs a pivot in every column
  turn.inv();
  EXPECT_TRUE(sameElements(turn, matrix<double>(3, 3, {0, 0, 1, 1, 0, 0, 0, 1, 0})));
}

TEST(Inverse, EndsOnSingularMatricesAndRefusesOthersThanSquare) {
  CMatrix<double> singular = matrix<double>(2, 2, {1, 2, 2, 4});
  singular.inv();
  CMatrix<double> wide = matrix<double>(3, 2, {1, 2, 3, 4, 5, 6});
  const CMatrix<double> before(wide);
  testing::internal::CaptureStderr();
  EXPECT_THROW(wide.inv(), ENonquadraticMatrix);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("3x2"), std::string::npos);
  EXPECT_TRUE(sameElements(wide, before));
}
