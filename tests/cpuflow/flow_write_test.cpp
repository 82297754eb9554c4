#include <sys/stat.h>
#include <tarvo/COpticFlow.h>
#include <tarvo/NFlowFile.h>
#include <unistd.h>

#include <cstdio>
#include <limits>
#include <memory>
#include <stdexcept>

#include "cpuflow/file_fixture.h"

namespace {

using FlowWrite = FileTest;

unsigned permissions(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

}  // namespace

TEST_F(FlowWrite, InterleavesThePlanes) {
  CTensor<float> flow(2, 1, 2);
  flow(0, 0, 0) = 1;
  flow(0, 0, 1) = 2;
  flow(1, 0, 0) = 3;
  flow(1, 0, 1) = 4;
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, path("a.flo").c_str()); }), "");
  const char expected[] =
      "PIEH\x02\0\0\0\x01\0\0\0"
      "\0\0\x80\x3f\0\0\0\x40\0\0\x40\x40\0\0\x80\x40";
  EXPECT_EQ(readText(path("a.flo")), std::string(expected, 28));
}

TEST_F(FlowWrite, ReturnsTheSameBitsWhenReadBack) {
  const int sizes[][2] = {{1, 1}, {1, 9}, {37, 21}, {331, 257}};
  for (const auto& size : sizes) {
    CTensor<float> flow = numberedFlow(size[0], size[1]);
    flow(0, 0, 0) = std::numeric_limits<float>::quiet_NaN();
    flow(size[0] - 1, size[1] - 1, 1) = std::numeric_limits<float>::infinity();
    flow(0, size[1] - 1, 1) = -1e10F;
    COpticFlow::writeMiddlebury(flow, path("a.flo").c_str());
    CTensor<float> back;
    COpticFlow::readMiddlebury(path("a.flo").c_str(), back);
    EXPECT_TRUE(sameFlow(back, flow)) << size[0] << " x " << size[1];
  }
  EXPECT_EQ(entries(), 1);
}

TEST_F(FlowWrite, WarnsAboutOtherEndingsAndWritesAllTheSame) {
  CTensor<float> flow = numberedFlow(2, 2);
  std::filesystem::create_directory(path("dir.flo"));
  for (const char* ending : {"a.flow", "a.FLO", "a.flo.", "a.flo2", "dir.flo/a"}) {
    const std::string name = path(ending);
    EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, name.c_str()); }),
              name + " should have extension '.flo'\n");
    EXPECT_EQ(readText(name).size(), 44U);
  }
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, path("b.png.flo").c_str()); }), "");
  EXPECT_EQ(printed([&] { NFlowFile::write(path("c"), flow); }), "");
  EXPECT_TRUE(sameFlow(NFlowFile::read(path("c")), flow));
  const std::string before = std::filesystem::current_path();
  std::filesystem::current_path(path(""));
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, "d.flo"); }), "");
  std::filesystem::current_path(before);
  EXPECT_TRUE(sameFlow(NFlowFile::read(path("d.flo")), flow));
}

TEST_F(FlowWrite, SaysWhatCannotBeOpened) {
  CTensor<float> flow = numberedFlow(2, 2);
  writeText(path("file"), "x");
  std::filesystem::create_directory(path("folder.flo"));
  for (const std::string& name :
       {path("missing/a.flo"), path("file/a.flo"), path("folder.flo"), std::string("/proc/a.flo")}) {
    EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, name.c_str()); }),
              "Could not open " + name + "\n");
    EXPECT_THROW(NFlowFile::write(name, flow), std::runtime_error);
  }
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, ""); }),
            " should have extension '.flo'\nCould not open \n");
  EXPECT_EQ(entries(), 2);
}

TEST_F(FlowWrite, LeavesWriteProtectedFilesAndTakesNoNewOnesToProtectedFolders) {
  if (geteuid() == 0) GTEST_SKIP() << "the superuser may write anywhere";
  CTensor<float> flow = numberedFlow(2, 2);
  const std::string name = path("protected.flo");
  writeText(name, "old");
  chmod(name.c_str(), 0444);
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, name.c_str()); }),
            "Could not open " + name + "\n");
  chmod(name.c_str(), 0644);
  chmod(path("").c_str(), 0555);
  const std::string fresh = path("fresh.flo");
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, fresh.c_str()); }),
            "Could not open " + fresh + "\n");
  EXPECT_EQ(readText(name), "old");
  // The old file itself may be written: directly, for there is no place for a new one.
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, name.c_str()); }), "");
  chmod(path("").c_str(), 0755);
  EXPECT_TRUE(sameFlow(NFlowFile::read(name), flow));
  EXPECT_EQ(entries(), 1);
}

TEST_F(FlowWrite, KeepsTheOldFileWhenTheDiskIsFull) {
  CTensor<float> flow = numberedFlow(64, 64);
  const std::string old = path("old.flo");
  const std::string fresh = path("fresh.flo");
  writeText(old, "old");
  for (const std::string& name : {old, fresh}) {
    const std::string message = printed([&] {
      const FileSizeLimit limit(4096);
      COpticFlow::writeMiddlebury(flow, name.c_str());
      EXPECT_THROW(NFlowFile::write(name, flow), std::runtime_error);
    });
    EXPECT_EQ(message, "Problem writing data to " + name + ": File too large\n");
  }
  EXPECT_EQ(readText(old), "old");
  EXPECT_EQ(entries(), 1);
}

TEST_F(FlowWrite, ReportsAFailedHeaderAndGoesOn) {
  CTensor<float> flow = numberedFlow(2, 2);
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, "/dev/full"); }),
            "/dev/full should have extension '.flo'\nProblem writing header\n");
  EXPECT_THROW(NFlowFile::write("/dev/full", flow), std::runtime_error);
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}

TEST_F(FlowWrite, GoesToAnOpenFileFromItsPosition) {
  using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
  File file(std::fopen(path("a").c_str(), "wb"), std::fclose);
  std::fputs("before", file.get());
  NFlowFile::write(file.get(), numberedFlow(37, 21));
  EXPECT_THROW(NFlowFile::write(file.get(), CTensor<float>(2, 2, 1, 0.0F)), std::runtime_error);
  NFlowFile::write(path("b.flo"), numberedFlow(37, 21));
  EXPECT_EQ(readText(path("a")), "before" + readText(path("b.flo")));
  file.reset(std::fopen("/dev/full", "wb"));
  EXPECT_THROW(NFlowFile::write(file.get(), numberedFlow(2, 2)), std::runtime_error);
}

TEST_F(FlowWrite, RefusesATensorWithoutSecondPlane) {
  CTensor<float> flow(2, 2, 1, 0.0F);
  writeText(path("a.flo"), "old");
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, path("a.flo").c_str()); }),
            "Problem writing data to " + path("a.flo") + ": a flow has 2 planes, not 1\n");
  EXPECT_EQ(readText(path("a.flo")), "old");
  CTensor<float> empty;
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(empty, path("empty.flo").c_str()); }), "");
  EXPECT_EQ(readText(path("empty.flo")), flowBytes(0, 0, {}));
}

TEST_F(FlowWrite, FollowsLinksAndKeepsPermissions) {
  CTensor<float> flow = numberedFlow(2, 2);
  std::filesystem::create_directory(path("sub"));
  writeText(path("sub/target.flo"), "old");
  chmod(path("sub/target.flo").c_str(), 0640);
  std::filesystem::create_symlink("sub/target.flo", path("link.flo"));
  std::filesystem::create_symlink("link.flo", path("chain.flo"));
  std::filesystem::create_symlink("sub/new.flo", path("dangling.flo"));
  for (const char* name : {"chain.flo", "dangling.flo"}) {
    EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, path(name).c_str()); }), "");
    EXPECT_TRUE(std::filesystem::is_symlink(path(name)));
  }
  EXPECT_TRUE(sameFlow(NFlowFile::read(path("sub/target.flo")), flow));
  EXPECT_TRUE(sameFlow(NFlowFile::read(path("sub/new.flo")), flow));
  EXPECT_EQ(permissions(path("sub/target.flo")), 0640U);
  const unsigned mask = umask(0);
  umask(mask);
  EXPECT_EQ(permissions(path("sub/new.flo")), 0666U & ~mask);
  std::filesystem::create_symlink("loop.flo", path("loop.flo"));
  EXPECT_EQ(printed([&] { COpticFlow::writeMiddlebury(flow, path("loop.flo").c_str()); }),
            "Could not open " + path("loop.flo") + "\n");
}
