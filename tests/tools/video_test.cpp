#include "video/video.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "pictures/picture.h"
#include "tools/run_tool.h"
#include "video/video_writer.h"

namespace {

/// Seven frames of noise in a folder, and clips of them.
class Video : public testing::Test {
 protected:
  void SetUp() override {
    try {
      tool::checkFfmpeg();
    } catch (const std::runtime_error& error) {
      GTEST_SKIP() << error.what();
    }
    ASSERT_TRUE(make({"-f", "lavfi", "-i", "testsrc=s=34x22:r=25,noise=alls=40", "-frames:v", "7", "-pix_fmt",
                      "rgb24", folder_.path("%d.png")}));
  }
  static bool make(std::vector<std::string> words) {
    words.insert(words.begin(), {"/usr/bin/env", "ffmpeg", "-v", "error", "-y"});
    const Outcome made = runProgram(words);
    return made.status == 0 || (ADD_FAILURE() << made.err, false);
  }
  /// A clip of the frames; ./ keeps its name from being taken for anything else.
  std::string clip(const std::string& name, std::vector<std::string> options) {
    options.insert(options.begin(), {"-r", "25", "-i", folder_.path("%d.png")});
    options.push_back("file:" + folder_.path(name));
    EXPECT_TRUE(make(options));
    return folder_.path(name);
  }
  static std::vector<tool::Frame> framesOf(const std::string& path, const tool::VideoOptions& options = {}) {
    const auto source = tool::openVideo(path, options);
    std::vector<tool::Frame> frames(1);
    while (source->next(frames.back())) frames.emplace_back();
    frames.pop_back();
    return frames;
  }
  /// What tarvo sequence writes, one flow behind the other.
  std::string flowsOf(const std::string& input) const {
    const std::string out = folder_.path("flows");
    const Outcome run = runTool({"sequence", input, "-o", out, "--preset", "fast"});
    EXPECT_EQ(run.status, 0) << run.err;
    std::string flows;
    for (int i = 0; i < 6; ++i) {
      char name[16];
      std::snprintf(name, sizeof name, "%06d.flo", i);
      const std::string path = out + "/" + (input.back() == 'g' ? std::to_string(i + 1) + ".flo" : name);
      flows += readText(path);
    }
    std::filesystem::remove_all(out);
    return flows;
  }
  static std::string errorOf(const std::string& path) {
    try {
      framesOf(path);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }
  TemporaryFolder folder_;
};

TEST_F(Video, LosslessClipsHaveThePixelsOfTheirPictures) {
  // Names that other programs might take for options, commands or addresses.
  for (const std::string& path : {clip("-i.mkv", {"-c:v", "ffv1", "-pix_fmt", "bgr0"}),
                                  clip("a b;c|d.mp4", {"-c:v", "libx264rgb", "-qp", "0"})}) {
    const auto frames = framesOf(path);
    ASSERT_EQ(frames.size(), 7u) << path;
    for (std::size_t i = 0; i < frames.size(); ++i) {
      const CTensor<float> picture = readPicture(folder_.path(std::to_string(i + 1) + ".png"), nullptr);
      ASSERT_EQ(frames[i].picture.size(), picture.size());
      EXPECT_TRUE(std::equal(picture.data(), picture.data() + picture.size(), frames[i].picture.data())) << i;
      EXPECT_DOUBLE_EQ(*frames[i].time, double(i) / 25);
    }
    EXPECT_EQ(flowsOf(path), flowsOf(folder_.path("%d.png"))) << path;
  }
}

TEST_F(Video, FramesOfAVaryingRateKeepTheirTimes) {
  const std::vector<int> ticks{0, 1, 2, 5, 6, 9, 20};
  const std::string times = "setpts=(N*lt(N\\,3)+5*eq(N\\,3)+6*eq(N\\,4)+9*eq(N\\,5)+20*eq(N\\,6))/25/TB";
  for (const char* name : {"v.mkv", "v.mp4"}) {
    const std::string path = clip(name, {"-vf", times, "-fps_mode", "passthrough", "-c:v", "libx264"});
    const auto frames = framesOf(path), part = framesOf(path, {5 / 25., 9 / 25.});
    ASSERT_EQ(frames.size(), ticks.size()) << name;
    for (std::size_t i = 0; i < ticks.size(); ++i) EXPECT_NEAR(*frames[i].time, ticks[i] / 25., 1e-9) << i;
    ASSERT_EQ(part.size(), 2u);
    EXPECT_NEAR(*part[1].time, 6 / 25., 1e-9);
  }
}

TEST_F(Video, AClipCutOffSaysHowMuchWasRead) {
  for (const std::string& path : {clip("c.mkv", {"-c:v", "ffv1"}),
                                  clip("c.mp4", {"-c:v", "libx264", "-movflags", "+faststart", "-g", "1"})}) {
    EXPECT_EQ(errorOf(path), "");
    std::filesystem::resize_file(path, std::filesystem::file_size(path) * 2 / 3);
    const std::string error = errorOf(path);
    EXPECT_NE(error.find(path + ": ends after "), std::string::npos) << error;
    EXPECT_EQ(error.find("ends after 0"), std::string::npos) << error;
  }
}

TEST_F(Video, ClipsAreTurnedAndReadWithAllTheirBits) {
  const std::string plain = clip("p.mp4", {"-c:v", "libx264", "-pix_fmt", "yuv420p"});
  const std::string turned = folder_.path("turned.mp4");
  ASSERT_TRUE(make({"-i", plain, "-c", "copy", "-metadata:s:v", "rotate=90", turned}));
  const auto frames = framesOf(turned);
  ASSERT_EQ(frames.size(), 7u);
  EXPECT_EQ(frames[0].picture.sizeX(), 22);
  const std::string fine = clip("f.mkv", {"-c:v", "ffv1", "-pix_fmt", "yuv444p10le", "-vf", "boxblur=2"});
  EXPECT_TRUE(tool::openVideo(fine, {})->sixteenBits());
  const auto fineFrames = framesOf(fine);
  const CTensor<float>& picture = fineFrames.at(0).picture;
  EXPECT_TRUE(std::any_of(picture.data(), picture.data() + picture.size(),
                          [](float value) { return value != std::floor(value); }));
}

TEST_F(Video, WritesClipsThatHaveThePicturesAndLeavesNothingWhereItCannot) {
  const CTensor<float> picture = readPicture(folder_.path("1.png"), nullptr);
  CTensor<float> odd(33, 21, 3, 0.f);
  const auto write = [&](const std::string& path, const CTensor<float>& shown) {
    tool::VideoWriter writer(path, 23.97603, shown.sizeX(), shown.sizeY());
    for (int i = 0; i < 3; ++i) writer.add(shown);
    writer.finish();
  };
  write(folder_.path("-o;.mkv"), picture);
  write(folder_.path("o.mp4"), odd);
  const auto lossless = framesOf(folder_.path("-o;.mkv")), coded = framesOf(folder_.path("o.mp4"));
  ASSERT_EQ(lossless.size() + coded.size(), 6u);
  EXPECT_TRUE(std::equal(picture.data(), picture.data() + picture.size(), lossless[2].picture.data()));
  EXPECT_EQ(coded[0].picture.sizeX() * 100 + coded[0].picture.sizeY(), 3422);
  EXPECT_NEAR(*coded[2].time, 2 * 1001 / 24000., 1e-6);

  std::filesystem::create_directory(folder_.path("d.mkv"));
  EXPECT_THROW(write(folder_.path("d.mkv"), picture), std::runtime_error);
  { tool::VideoWriter given_up(folder_.path("u.mkv"), 25, 34, 22); }
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path(""))) {
    EXPECT_NE(entry.path().extension(), ".part") << entry.path();
  }
}

TEST_F(Video, SequencesAreDrawnWithOneScaleAlsoOfPairsThatWereThere) {
  const std::string out = folder_.path("out");
  const auto sequence = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"sequence", folder_.path("%d.png"), "-o", out, "--preset", "fast"});
    return runTool(words);
  };
  ASSERT_EQ(sequence({"-q", "--direction", "both"}).status, 0);
  writeText(folder_.path("4.png"), "no picture");
  EXPECT_EQ(sequence({"--direction", "both", "--redo", "--color", out + "/c.mkv", "--panel",
                      "frame,error,occlusion,color", "--max-motion", "3"})
                .status,
            1);
  const auto frames = framesOf(out + "/c.mkv");
  ASSERT_EQ(frames.size(), 4u);  // without the pairs of the frame that cannot be read
  const std::vector<std::string> flows{"1", "2", "5", "6"};
  for (std::size_t i = 0; i < 4; ++i) {
    const std::string frame = folder_.path(flows[i] + ".png"), colour = folder_.path("c.png");
    ASSERT_EQ(runTool({"color", out + "/" + flows[i] + ".flo", "-o", colour, "--max-motion", "3"}).status, 0);
    const CTensor<float> shown = readPicture(frame, nullptr), motion = readPicture(colour, nullptr);
    int differing = 0;
    for (int k = 0; k < shown.size(); ++k) {
      const int x = k % 34, y = k / 34 % 22, z = k / 34 / 22;
      differing += frames[i].picture(x, y, z) != shown(x, y, z) ? 1 : 0;
      differing += frames[i].picture(34 + x, 22 + y, z) != motion(x, y, z) ? 1 : 0;
    }
    EXPECT_EQ(differing, 0) << i;
  }
  EXPECT_EQ(sequence({"--resume", "--color", "png", "--panel", "occlusion"}).status, 2);
}

TEST_F(Video, WhatIsNoClipIsAnError) {
  for (const char* name : {"http://localhost/y.mp4", "concat:a|b", "/dev/zero", "pipe:0"}) {
    EXPECT_EQ(errorOf(name), std::string(name) + ": is not there, or not a plain file");
  }
  writeText(folder_.path("text.mp4"), "no clip");
  EXPECT_NE(errorOf(folder_.path("text.mp4")).find("cannot be read as video"), std::string::npos);
  const std::string path = std::getenv("PATH");
  for (const auto& [version, accepted] :
       {std::pair{"4.4.2", false}, {"5.0.3", false}, {"N-1-gabc", true}, {"n7.1", true}}) {
    for (const char* program : {"ffmpeg", "ffprobe"}) {
      writeText(folder_.path(program),
                std::string("#!/bin/sh\necho '") + program + " version " + version + " x'\n");
      std::filesystem::permissions(folder_.path(program), std::filesystem::perms::all);
    }
    setenv("PATH", folder_.path("").c_str(), 1);
    if (accepted) {
      EXPECT_NO_THROW(tool::checkFfmpeg()) << version;
    } else {
      EXPECT_THROW(tool::checkFfmpeg(), std::runtime_error) << version;
    }
    setenv("PATH", path.c_str(), 1);
  }
  setenv("PATH", "/nowhere", 1);
  EXPECT_THROW(tool::checkFfmpeg(), std::runtime_error);
  setenv("PATH", path.c_str(), 1);
}

}  // namespace
