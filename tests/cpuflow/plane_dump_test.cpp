#include <tarvo/COpticFlow.h>

#include <limits>

#include "cpuflow/file_fixture.h"

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

class PlaneDump : public FileTest {
 protected:
  /// The file that a plane gives, with the printed range checked.
  std::string dump(std::vector<float> values, int height, int width, const std::string& range) {
    const std::string name = path("plane.pgm");
    EXPECT_EQ(printed([&] { print_image_cpu(values.data(), name.c_str(), height, width); }),
              name + ", range = " + range + "\n");
    return readText(name);
  }
};

std::string bytes(std::initializer_list<int> values) {
  std::string text;
  for (int value : values) text += static_cast<char>(value);
  return text;
}

}  // namespace

TEST_F(PlaneDump, StretchesValuesToBytes) {
  EXPECT_EQ(dump({0, 1, 2, 3}, 2, 2, "3.000000"), "P5\n2\n2\n255\n" + bytes({0, 85, 170, 255}));
  EXPECT_EQ(dump({-1, 1, 0.99F, -0.5F, 0, 1}, 2, 3, "2.000000"),
            "P5\n3\n2\n255\n" + bytes({0, 255, 253, 63, 127, 255}));
  // A shorter file replaces the longer one.
  EXPECT_EQ(dump({4, 6}, 2, 1, "2.000000"), "P5\n1\n2\n255\n" + bytes({0, 255}));
  EXPECT_EQ(entries(), 1);
}

TEST_F(PlaneDump, GivesZerosWhereThereIsNoRange) {
  EXPECT_EQ(dump({7, 7, 7}, 1, 3, "0.000000"), "P5\n3\n1\n255\n" + bytes({0, 0, 0}));
  EXPECT_EQ(dump({kNaN, 0, kNaN, 2}, 1, 4, "2.000000"), "P5\n4\n1\n255\n" + bytes({0, 0, 0, 255}));
  EXPECT_EQ(dump({kNaN, kNaN}, 1, 2, "-2000000000.000000"), "P5\n2\n1\n255\n" + bytes({0, 0}));
  EXPECT_EQ(dump({0, 1, kInfinity}, 1, 3, "inf"), "P5\n3\n1\n255\n" + bytes({0, 0, 0}));
  EXPECT_EQ(dump({-kInfinity, 1, 5}, 1, 3, "inf").size(), 14U);
  // Values beyond the starting points of the search stay within the bytes.
  EXPECT_EQ(dump({2e9F, 3e9F}, 1, 2, "2000000000.000000"), "P5\n2\n1\n255\n" + bytes({127, 255}));
  EXPECT_EQ(dump({-2e9F, -3e9F}, 1, 2, "2000000000.000000"), "P5\n2\n1\n255\n" + bytes({127, 0}));
}

TEST_F(PlaneDump, WritesOnlyAHeaderWithoutPixels) {
  EXPECT_EQ(dump({}, 0, 5, "-2000000000.000000"), "P5\n5\n0\n255\n");
  EXPECT_EQ(dump({}, -2, -3, "-2000000000.000000"), "P5\n-3\n-2\n255\n");
}

TEST_F(PlaneDump, KeepsTheOldFileWhenTheDiskIsFull) {
  std::vector<float> values(600 * 500, 1.0F);
  const std::string name = path("a.pgm");
  writeText(name, "old");
  const std::string message = printed([&] {
    const FileSizeLimit limit(4096);
    print_image_cpu(values.data(), name.c_str(), 500, 600);
  });
  EXPECT_EQ(message, name + ", range = 0.000000\nProblem writing data to " + name + ": File too large\n");
  EXPECT_EQ(readText(name), "old");
  print_image_cpu(values.data(), name.c_str(), 500, 600);
  EXPECT_EQ(readText(name).size(), 300015U);
  const std::string missing = path("missing/a.pgm");
  EXPECT_EQ(printed([&] { print_image_cpu(values.data(), missing.c_str(), 1, 1); }),
            missing + ", range = 0.000000\n");
  EXPECT_EQ(entries(), 1);
}

TEST_F(PlaneDump, PrintsARectangle) {
  float values[] = {0, 1, 2, -9, 3, 4.5F, 5, -9};
  EXPECT_EQ(printed([&] { slice_image(values, 77, 4, 1, 0, 3, 2); }),
            "1.000000 2.000000 \n4.500000 5.000000 \n");
  EXPECT_EQ(printed([&] { slice_image(values, 0, 4, 2, 0, 2, 2); }), "\n\n");
  EXPECT_EQ(printed([&] { slice_image(values, 0, 4, 0, 1, 3, 1); }), "");
}
