#include <fcntl.h>
#include <tarvo/COpticFlow.h>
#include <tarvo/NFlowFile.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <stdexcept>
#include <thread>

#include "cpuflow/allocation_watch.h"
#include "cpuflow/file_fixture.h"

namespace {

class FlowRead : public FileTest {
 protected:
  /// Reads `bytes` as a file, which must fail with `reason` and change nothing, and again through a pipe,
  /// whose length is not known beforehand.
  void expectRefused(const std::string& bytes, const std::string& reason) {
    const std::string name = path("damaged.flo");
    writeText(name, bytes);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(ends[1]);
    for (const std::string& source : {name, "/dev/fd/" + std::to_string(ends[0])}) {
      CTensor<float> flow = numberedFlow(3, 2);
      const float* data = flow.data();
      const std::string message = printed([&] { COpticFlow::readMiddlebury(source.c_str(), flow); });
      EXPECT_EQ(message.find("Problem reading " + source + ": " + reason), 0U) << message;
      EXPECT_EQ(message.find('\n'), message.size() - 1);
      EXPECT_EQ(flow.data(), data);
      EXPECT_TRUE(sameFlow(flow, numberedFlow(3, 2)));
    }
    close(ends[0]);
    try {
      NFlowFile::read(name);
      ADD_FAILURE() << "damaged file accepted: " << reason;
    } catch (const std::runtime_error& problem) {
      EXPECT_EQ(std::string(problem.what()).find("Problem reading " + name + ": " + reason), 0U);
    }
  }
};

}  // namespace

TEST_F(FlowRead, SeparatesThePairsIntoPlanes) {
  writeText(path("a.any"), flowBytes(2, 1, {1, 2, 3, 4}));
  CTensor<float> flow;
  EXPECT_EQ(printed([&] { COpticFlow::readMiddlebury(path("a.any").c_str(), flow); }), "");
  ASSERT_EQ(flow.sizeX(), 2);
  ASSERT_EQ(flow.sizeY(), 1);
  ASSERT_EQ(flow.sizeZ(), 2);
  EXPECT_EQ(flow(0, 0, 0), 1);
  EXPECT_EQ(flow(1, 0, 0), 3);
  EXPECT_EQ(flow(0, 0, 1), 2);
  EXPECT_EQ(flow(1, 0, 1), 4);
  writeText(path("empty.flo"), flowBytes(0, 7, {}));
  EXPECT_TRUE(sameFlow(NFlowFile::read(path("empty.flo")), CTensor<float>(0, 7, 2)));
}

TEST_F(FlowRead, RefusesEveryTruncatedLength) {
  const std::string whole = flowBytes(2, 1, {1, 2, 3, 4});
  ASSERT_EQ(whole.size(), 28U);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    SCOPED_TRACE(length);
    expectRefused(whole.substr(0, length),
                  length < 12
                      ? "the file ends within its header"
                      : "short data: 2 x 1 pixels need 28 bytes, the file has " + std::to_string(length));
  }
}

TEST_F(FlowRead, RefusesWrongTagsAndImpossibleSizesWithoutTakingMemory) {
  NFlowFile::write(path("good.flo"), numberedFlow(400, 400));
  largestAllocation();
  NFlowFile::read(path("good.flo"));
  EXPECT_GE(largestAllocation(), 400U * 400 * 8);
  expectRefused(flowBytes(2, 1, {1, 2, 3, 4}, "HEIP"), "wrong tag");
  expectRefused(flowBytes(-1, 1, {}), "negative size -1 x 1");
  expectRefused(flowBytes(-2, -1, {1, 2, 3, 4}), "negative size -2 x -1");
  expectRefused(flowBytes(1, INT_MIN, {}), "negative size");
  expectRefused(flowBytes(INT_MAX, INT_MAX, {1, 2}), "the size 2147483647 x 2147483647 is too large");
  // 2^32 elements, which is 0 in 32 bits.
  expectRefused(flowBytes(65536, 32768, {1, 2}), "the size 65536 x 32768 is too large");
  expectRefused(flowBytes(0, INT_MAX, {}), "the size 0 x 2147483647 is too large");
  // The largest that a tensor can hold.
  expectRefused(flowBytes(INT_MAX / 2, 1, {1, 2}), "short data: 1073741823 x 1 pixels need 8589934596 bytes");
  expectRefused(flowBytes(30000, 30000, {1, 2}), "short data: 30000 x 30000 pixels need 7200000012 bytes");
  EXPECT_LT(largestAllocation(), 1U << 20);
}

TEST_F(FlowRead, ReadsPastTrailingDataWithAMessage) {
  const std::string name = path("long.flo");
  writeText(name, flowBytes(2, 1, {1, 2, 3, 4, 5}));
  CTensor<float> flow;
  EXPECT_EQ(printed([&] { COpticFlow::readMiddlebury(name.c_str(), flow); }),
            name + ": 4 bytes after the flow data are ignored\n");
  ASSERT_EQ(flow.size(), 4);
  EXPECT_EQ(flow(1, 0, 1), 4);
  EXPECT_NE(printed([&] { EXPECT_TRUE(sameFlow(NFlowFile::read(name), flow)); }), "");
}

TEST_F(FlowRead, SaysWhatCannotBeOpened) {
  for (const std::string& name : {path("missing.flo"), path("100%s.flo"), std::string()}) {
    CTensor<float> flow = numberedFlow(3, 2);
    EXPECT_EQ(printed([&] { COpticFlow::readMiddlebury(name.c_str(), flow); }),
              "Could not open " + name + "\n");
    EXPECT_TRUE(sameFlow(flow, numberedFlow(3, 2)));
    EXPECT_THROW(NFlowFile::read(name), std::runtime_error);
  }
  CTensor<float> flow;
  EXPECT_EQ(printed([&] {
              COpticFlow::readMiddlebury(path("").c_str(), flow);
            }).find("Problem reading " + path("")),
            0U);
}

TEST_F(FlowRead, ReadsALongPipeInPieces) {
  const CTensor<float> flow = numberedFlow(331, 257);
  NFlowFile::write(path("a.flo"), flow);
  const std::string bytes = readText(path("a.flo"));
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::thread writer([&] {
    // Pieces that end inside of pixels.
    for (std::size_t first = 0; first < bytes.size(); first += 50001) {
      const std::size_t count = std::min<std::size_t>(50001, bytes.size() - first);
      EXPECT_EQ(write(ends[1], bytes.data() + first, count), static_cast<ssize_t>(count));
    }
    close(ends[1]);
  });
  EXPECT_TRUE(sameFlow(NFlowFile::read("/dev/fd/" + std::to_string(ends[0])), flow));
  writer.join();
  close(ends[0]);
}
