#include <tarvo/CFilter.h>
#include <tarvo/CVector.h>

#include <cstddef>
#include <new>
#include <string>
#include <utility>

#include "core/pattern.h"

namespace {
int arraysAllocated = 0;
}

// Counted, because an array that is released and allocated anew often comes back at the same address.
void* operator new[](std::size_t bytes) {
  arraysAllocated++;
  return ::operator new(bytes);
}
void operator delete[](void* array) noexcept {
  ::operator delete(array);
}
void operator delete[](void* array, std::size_t) noexcept {
  ::operator delete(array);
}

namespace {

void expectSizes(const CTensor<float>& tensor, int x, int y, int z) {
  EXPECT_EQ(tensor.sizeX(), x);
  EXPECT_EQ(tensor.sizeY(), y);
  EXPECT_EQ(tensor.sizeZ(), z);
}

/// What constructing an exception with these arguments writes to standard error.
template <typename Exception, typename... Arguments>
std::string messageOf(Arguments... arguments) {
  testing::internal::CaptureStderr();
  const Exception exception(arguments...);
  return testing::internal::GetCapturedStderr();
}

}  // namespace

TEST(Containers, StartEmptyOrFilledAndStoreXFastestThenYThenZ) {
  expectSizes(CTensor<float>(), 0, 0, 0);
  EXPECT_EQ(CTensor<float>().data(), nullptr);
  EXPECT_EQ(CVector<double>(3, 0.5)(2), 0.5);
  const CMatrix<bool> flags(7, 3, true);
  static_assert(sizeof(flags(0, 0)) == 1, "one byte per element");
  EXPECT_EQ(std::count(flags.data(), flags.data() + 21, true), 21);
  CTensor<float> tensor(4, 5, 2, 0);
  tensor(2, 4, 1) = 2;
  EXPECT_EQ(tensor.data()[38], 2);
  CMatrix<float> plane(4, 5, 0);
  plane(3, 1) = 1;
  EXPECT_EQ(plane.data()[7], 1);
}

TEST(Containers, CopiesDoNotShareStorage) {
  CTensor<float> tensor = patternTensor(17, 29, 2);
  const CTensor<float> copy(tensor);
  expectSizes(copy, 17, 29, 2);
  EXPECT_TRUE(sameElements(copy, tensor));
  tensor(16, 28, 1) += 1;
  EXPECT_FALSE(sameElements(copy, tensor));
  expectSizes(CTensor<float>(CTensor<float>()), 0, 0, 0);
}

TEST(Containers, AssignmentOfEqualCountKeepsArrayAndTakesShape) {
  CTensor<float> target(4, 5, 2, 0);
  const float* array = target.data();
  const CTensor<float> source = patternTensor(10, 4, 1);
  CMatrix<double> plane(6, 2, 0);
  const CMatrix<double> twos(3, 4, 2);
  arraysAllocated = 0;
  target = source;
  plane = twos;
  EXPECT_EQ(arraysAllocated, 0);
  EXPECT_EQ(target.data(), array);
  expectSizes(target, 10, 4, 1);
  EXPECT_TRUE(sameElements(target, source));
  const CTensor<float>& itself = target;
  target = itself;
  EXPECT_EQ(target.data(), array);
  EXPECT_TRUE(sameElements(target, source));
  EXPECT_EQ(plane.sizeY(), 4);
  EXPECT_EQ(plane(2, 3), 2);
}

TEST(Containers, AssignmentOfOtherCountsReallocatesAndOfNothingEmpties) {
  CTensor<float> target(2, 2, 1, 7);
  const CTensor<float> source = patternTensor(3, 2, 2);
  const CTensor<float> empty;
  for (int round = 0; round < 2; round++) {
    target = source;
    expectSizes(target, 3, 2, 2);
    EXPECT_TRUE(sameElements(target, source));
    target = empty;
    expectSizes(target, 0, 0, 0);
    EXPECT_EQ(target.data(), nullptr);
  }
}

TEST(Containers, MovingHandsTheArrayOverAndLeavesEmpty) {
  CTensor<float> source(3, 2, 1, 4);
  const float* array = source.data();
  CTensor<float> target(std::move(source));
  EXPECT_EQ(target.data(), array);
  expectSizes(source, 0, 0, 0);
  EXPECT_EQ(source.data(), nullptr);

  CSmooth<float> mask(1, 3);
  CFilter<float> taken(std::move(mask));
  CFilter<float> assigned(2, 1);
  assigned = std::move(taken);
  EXPECT_EQ(assigned.size(), 7);
  EXPECT_EQ(assigned.centre(), 3);
  for (const CFilter<float>* moved : {static_cast<CFilter<float>*>(&mask), &taken}) {
    EXPECT_TRUE(moved->size() == 0 && moved->centre() == 0);
  }
}

TEST(Containers, RefuseSizesThatDoNotFit) {
  arraysAllocated = 0;
  EXPECT_THROW(CTensor<float>(640, -1, 3), std::length_error);
  EXPECT_THROW(CMatrix<double>(-2, -3, 0.0), std::length_error);
  EXPECT_THROW(CVector<float>(-1), std::length_error);
  EXPECT_THROW(CMatrix<bool>(65536, 32768), std::length_error);
  EXPECT_THROW(CTensor<float>(0, 70000, 70000), std::length_error);
  EXPECT_EQ(arraysAllocated, 0);
  try {
    CTensor<float>(1 << 30, 1 << 30, 16);  // 2^64 elements: 0 if counted in 64 bits
    FAIL() << "not refused";
  } catch (const std::length_error& error) {
    EXPECT_STREQ(error.what(), "CTensor: too many elements in 1073741824 x 1073741824 x 16");
  }
  expectSizes(CTensor<float>(0, 5, 2), 0, 5, 2);
}

TEST(Exceptions, WriteTheirMessageWhenConstructed) {
  EXPECT_EQ(messageOf<ETensorIncompatibleSize>(3, 4, 5, 6),
            "Exception ETensorIncompatibleSize: x = 3:5, y = 4:6\n");
  EXPECT_EQ(messageOf<EIncompatibleMatrices>(3, 2, 2, 3),
            "Exception EIncompatibleMatrices: M1 = 3x2  M2 = 2x3\n");
  EXPECT_EQ(messageOf<ENonquadraticMatrix>(4, 1500), "Exception ENonquadarticMatrix: M = 4x1500\n");
  EXPECT_EQ(messageOf<EFilterIncompatibleSize>(12, 6),
            "Exception EFilterIncompatibleSize: Initial container size: 12  Resulting container size: 6\n");
  EXPECT_EQ(messageOf<EFilterNotAvailable>(), "");
}
