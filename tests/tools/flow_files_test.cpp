#include "flow_files/flow_file.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <map>
#include <stdexcept>

#include "evaluation/evaluation.h"
#include "pictures/picture.h"
#include "tools/run_tool.h"

namespace {

constexpr float kNoNumber = std::numeric_limits<float>::quiet_NaN();

/// Values that no format holds exactly, or, with `steps`, that all do; some pixels are unknown.
CTensor<float> flowOf(int width, int height, bool steps) {
  CTensor<float> flow(width, height, 2);
  for (int i = 0; i < flow.size(); ++i) {
    flow.data()[i] = steps ? float(i % 57 - 28) * 0.25f : 30.0f * std::sin(float(i) * 1.7f);
  }
  flow(width / 2, height / 2, 0) = kNoNumber;
  flow(width - 1, 0, 1) = 2e9f;
  return flow;
}

/// Equal to within `error`, and both unknown at the same pixels; what is read is unknown as documented.
void expectNear(const CTensor<float>& read, const CTensor<float>& flow, double error) {
  ASSERT_EQ(read.sizeX(), flow.sizeX());
  ASSERT_EQ(read.sizeY(), flow.sizeY());
  ASSERT_EQ(read.sizeZ(), 2);
  for (int y = 0; y < flow.sizeY(); ++y) {
    for (int x = 0; x < flow.sizeX(); ++x) {
      const bool known = isKnown(flow(x, y, 0), flow(x, y, 1));
      for (int z = 0; z < 2; ++z) {
        ASSERT_EQ(std::isnan(read(x, y, z)), !known) << x << " " << y;
        if (known) {
          ASSERT_LE(std::abs(read(x, y, z) - flow(x, y, z)), error) << x << " " << y;
        }
      }
    }
  }
}

std::string problemOf(const std::string& path) {
  try {
    tool::readFlow(path);
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

class FlowFiles : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return folder.path(name); }

  tool::FlowLoss write(const tool::FlowFormat& format, const CTensor<float>& flow, bool exrUp = true) const {
    return writeFlow(fileOf(format), flow, format, {exrUp});
  }
  std::string fileOf(const tool::FlowFormat& format) const { return path("f" + endingOf(format)); }

  const TemporaryFolder folder;
};

std::string littleEndian(std::uint64_t value, int bytes) {
  std::string text;
  for (; bytes > 0; --bytes, value >>= 8) text += char(value);
  return text;
}

std::string npy(const std::string& description, std::size_t data) {
  return "\x93NUMPY" + std::string("\1\0", 2) + littleEndian(description.size(), 2) + description +
         std::string(data, '\0');
}

/// The fields that an archive has twice for a file.
std::string zipFields(unsigned flags, unsigned method, const std::string& packed, std::uint64_t size,
                      const std::string& name) {
  const auto sum = crc32(0, reinterpret_cast<const Bytef*>(packed.data()), uInt(packed.size()));
  return littleEndian(20, 2) + littleEndian(flags, 2) + littleEndian(method, 2) + littleEndian(0, 4) +
         littleEndian(sum, 4) + littleEndian(packed.size(), 4) + littleEndian(size, 4) +
         littleEndian(name.size(), 2) + littleEndian(0, 2);
}

std::string zip(const std::string& data, std::uint64_t size, unsigned flags = 0, unsigned method = 0,
                const std::string& name = "flow.npy") {
  const std::string fields = zipFields(flags, method, data, size, name);
  const std::string file = "PK\3\4" + fields + name + data;
  const std::string directory = "PK\1\2" + littleEndian(20, 2) + fields + littleEndian(0, 14) + name;
  return file + directory + "PK\5\6" + littleEndian(0, 4) + littleEndian(1, 2) + littleEndian(1, 2) +
         littleEndian(directory.size(), 4) + littleEndian(file.size(), 4) + littleEndian(0, 2);
}

}  // namespace

TEST_F(FlowFiles, EveryFormatKeepsWhatItCanHold) {
  const std::map<std::string, double> errors{
      {"png", 1 / 128.}, {"npy16", 1 / 128.}, {"npz16", 1 / 128.}, {"exr16", 1 / 128.}};
  for (const tool::FlowFormat& format : tool::flowFormats()) {
    SCOPED_TRACE(format.name);
    EXPECT_EQ(tool::formatNamed(format.name), &format);
    const bool exact = errors.count(format.name) == 0;
    for (const auto& [width, height] : {std::pair(1, 1), std::pair(37, 5), std::pair(130, 67)}) {
      for (const bool up : {true, false}) {
        EXPECT_EQ(write(format, flowOf(width, height, true), up).error, 0);
        expectNear(tool::readFlow(fileOf(format)), flowOf(width, height, true), 0);
      }
      const CTensor<float> flow = flowOf(width, height, false);
      const double told = write(format, flow).error;
      expectNear(tool::readFlow(fileOf(format)), flow, told);
      EXPECT_LE(told, exact ? 0 : errors.at(format.name));
      EXPECT_EQ(told == 0, exact || width == 1);
    }
  }
}

TEST_F(FlowFiles, WhatAFormatCannotHoldIsUnknownAndCounted) {
  CTensor<float> flow(4, 1, 2, 0.0f);
  flow(0, 0, 0) = 511.984375f, flow(0, 0, 1) = -512.0f;
  flow(1, 0, 0) = 512.0f;
  flow(2, 0, 1) = -65520.0f;
  flow(3, 0, 0) = 3e-8f;  // half of the least number of 16 bits
  const std::map<std::string, long> dropped{{"png", 2}, {"npy16", 1}, {"npz16", 1}};
  for (const auto& [name, count] : dropped) {
    const tool::FlowFormat& format = *tool::formatNamed(name);
    const tool::FlowLoss loss = write(format, flow);
    EXPECT_EQ(loss.dropped, count) << name;
    EXPECT_NE(textOf(loss, format).find(std::to_string(count) + " pixels"), std::string::npos) << name;
    const CTensor<float> read = tool::readFlow(fileOf(format));
    EXPECT_EQ(read(0, 0, 1), -512) << name;
    EXPECT_TRUE(std::isnan(read(2, 0, 0))) << name;
    EXPECT_EQ(std::isnan(read(1, 0, 0)), name == "png");
  }
}

TEST_F(FlowFiles, EveryTruncationIsOneErrorThatNamesTheFile) {
  for (const tool::FlowFormat& format : tool::flowFormats()) {
    write(format, flowOf(5, 3, false));
    const std::string whole = readText(fileOf(format));
    ASSERT_EQ(problemOf(fileOf(format)), "");
    for (std::size_t length = 0; length < whole.size(); ++length) {
      writeText(fileOf(format), whole.substr(0, length));
      const std::string problem = problemOf(fileOf(format));
      ASSERT_NE(problem.find(fileOf(format)), std::string::npos)
          << format.name << " of " << length << " bytes";
      ASSERT_EQ(problem.find('\n'), std::string::npos) << problem;
    }
  }
}

TEST_F(FlowFiles, DamagedAndForeignFilesAreRefusedWithTheReason) {
  const std::string shape = "'fortran_order': False, 'shape': (",
                    good = "{'descr': '<f4', " + shape + "1, 1, 2)}";
  const std::string array = npy(good, 8);
  std::FILE* const picture = std::fopen(path("picture.png").c_str(), "wb");
  writePng(picture, CTensor<float>(1, 1, 3, 0.0f));
  std::fclose(picture);
  struct Case {
    std::string name, bytes, reason;
  };
  const Case cases[] = {
      {"a.pfm", "Pf\n1 1\n-1\n" + std::string(4, '\0'), "one value"},
      {"a.pfm", "PF\n1 1\n0\n" + std::string(12, '\0'), "scale"},
      {"a.pfm", "PF\n-1 1\n-1\n", "width or height"},
      {"a.pfm", "PF\n0 1\n-1\n", "no pixels"},
      {"a.pfm", "PF\n100000 100000\n-1\n", "too large"},
      {"a.pfm", "PF\n10000 10000\n-1\n" + std::string(9, '\0'), "need 1200000000 bytes"},
      {"a.pfm", "PF" + std::string(500, '\n'), "header"},
      {"a.npy", npy("{'descr': '|O', " + shape + "1, 1, 2)}", 8), "pickled"},
      {"a.npy", npy("{'descr': '<i4', " + shape + "1, 1, 2)}", 8), "'<i4'"},
      {"a.npy", npy("{'descr': [('u', '<f4')], " + shape + "1, 1, 2)}", 8), "records"},
      {"a.npy", npy("{'descr': '<f4', " + shape + "2, 1, 1)}", 8), "(2, 1, 1)"},
      {"a.npy", npy("{'descr': '<f4', " + shape + "20000, 5000, 2)}", 8), "need 800000000 bytes"},
      {"a.npy", npy("{'descr': '<f4', " + shape + "1, 1, 2)} x", 8), "description"},
      {"a.npy", npy("{'descr': '<f4', 'descr': '<f4', " + shape + "1, 1, 2)}", 8), "description"},
      {"a.npy", npy("{'descr': '<f4', " + shape + "-1, 1, 2)}", 8), "description"},
      {"a.npz", zip(array, array.size(), 1), "password"},
      {"a.npz", zip(array, array.size(), 0, 12), "method 12"},
      {"a.npz", zip(array, array.size() + 1), "sizes"},
      {"a.npz", zip(array, 1u << 30, 0, 8), "sizes"},
      {"a.npz", zip(array, array.size(), 0, 8), "unpacked"},
      {"a.npz", zip(array + "x", array.size() + 1), "after its data"},
      {"a.npz", zip(array, array.size(), 0, 0, "arr_0.npy"), "flow"},
      {"a.png", readText(path("picture.png")), "picture"},
      {"a.png", "no picture, but long enough for one", "no PNG"},
      {"a.exr", "no picture, but long enough for one", "OpenEXR"},
  };
  for (const Case& c : cases) {
    writeText(path(c.name), c.bytes);
    const std::string problem = problemOf(path(c.name));
    EXPECT_EQ(problem.find(path(c.name) + ": "), 0u) << problem;
    EXPECT_NE(problem.find(c.reason), std::string::npos) << c.reason << " is not in: " << problem;
  }
  writeText(path("a.npz"), zip(array, array.size()));
  EXPECT_EQ(problemOf(path("a.npz")), "");
  writeText(path("a.pfm"), "PF2 1\t1\n4\n" + std::string("\x3f\x80\0\0\xc0\0\0\0", 8));  // high byte first
  const CTensor<float> flow = tool::readFlow(path("a.pfm"));
  EXPECT_EQ(flow(0, 0, 0), 1);
  EXPECT_EQ(flow(0, 0, 1), -2);
}

TEST_F(FlowFiles, ConvertTakesOneFileOrManyAndGoesOnAfterABadOne) {
  const CTensor<float> flow = flowOf(9, 7, true);
  for (const char* const name : {"a.flo", "b.flo"}) writeFlow(path(name), flow, *tool::formatNamed("flo"));
  writeText(path("bad.flo"), "PIEH");
  const auto status = [](const std::vector<std::string>& words) { return runTool(words).status; };
  EXPECT_EQ(status({"convert", path("a.flo"), path("a.pfm")}), 0);
  expectNear(tool::readFlow(path("a.pfm")), flow, 0);
  const Outcome many = runTool(
      {"convert", path("a.flo"), path("bad.flo"), path("b.flo"), "--to", "npz16", "-o", path("new/folder")});
  EXPECT_EQ(many.status, 1);
  EXPECT_NE(many.err.find("bad.flo"), std::string::npos) << many.err;
  EXPECT_NE(many.err.find("1 of 3"), std::string::npos) << many.err;
  expectNear(tool::readFlow(path("new/folder/b.npz")), flow, 0);
  EXPECT_FALSE(std::ifstream(path("new/folder/bad.npz")));
  const Outcome same = runTool({"eval", path("a.pfm"), path("new/folder/a.npz"), "--json"});
  EXPECT_NE(same.out.find("\"epe\": 0.0"), std::string::npos) << same.out << same.err;

  const std::string before = readText(path("a.pfm"));
  const std::vector<std::vector<std::string>> wrong{
      {"convert", path("a.pfm"), path("./a.pfm")},
      {"convert", path("a.flo"), path("b.txt")},
      {"convert", path("a.flo")},
      {"convert", path("a.flo"), path("c.pfm"), "-o", path("new")},
      {"convert", path("a.flo"), path("a.pfm"), "--to", "npy"},
      {"convert", path("a.flo"), path("a.pfm"), "--to", "flo"}};
  for (const std::vector<std::string>& words : wrong) EXPECT_EQ(status(words), 2) << words.back();
  EXPECT_EQ(readText(path("a.pfm")), before);
}
