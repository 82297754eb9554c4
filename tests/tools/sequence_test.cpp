#include <gtest/gtest.h>
#include <tarvo/tarvo.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "frames/natural_order.h"
#include "pictures/picture.h"
#include "sequence/workers.h"
#include "tools/run_tool.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Words = std::vector<std::string>;

/// Texture `kind` moved by (x, y), 40 x 32.
CTensor<float> textured(int kind, int x, int y) {
  CTensor<float> picture(40, 32, 3);
  for (int z = 0; z < 3; ++z) {
    for (int j = 0; j < 32; ++j) {
      for (int i = 0; i < 40; ++i) {
        const double a = 0.5 * (i - x) + kind, b = (0.4 + 0.2 * kind) * (j - y) + z;
        picture(i, j, z) =
            static_cast<float>(120 + 60 * std::sin(a) * std::cos(b) + 40 * std::cos(0.2 * a * kind - b));
      }
    }
  }
  return picture;
}

class Sequence : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return folder.path(name); }

  void save(const std::string& name, const CTensor<float>& picture) const {
    fs::create_directories(fs::path(path(name)).parent_path());
    std::FILE* const file = std::fopen(path(name).c_str(), "wb");
    writePng(file, picture);
    std::fclose(file);
  }
  /// in/f7.png to in/f12.png, which move by a pixel each.
  void makeFrames() const {
    for (int k = 7; k <= 12; ++k) save("in/f" + std::to_string(k) + ".png", textured(1, k, 0));
  }
  static Outcome sequence(Words words) {
    words.insert(words.begin(), "sequence");
    words.insert(words.end(), {"--preset", "fast"});
    return runTool(words);
  }
  /// The contents of all files below a folder that are no manifest, or of all.
  std::map<std::string, std::string> tree(const std::string& root, bool manifests) const {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(path(root))) {
      if (!entry.is_regular_file() || (!manifests && entry.path().extension() == ".jsonl")) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      files[fs::relative(entry.path(), path(root)).string()] = {std::istreambuf_iterator<char>(file), {}};
    }
    return files;
  }
  static std::vector<Json> lines(const std::string& text) {
    std::vector<Json> all;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) all.push_back(Json::parse(line));
    return all;
  }

  const TemporaryFolder folder;
};

}  // namespace

TEST(NaturalOrder, ComparesNumbersByValueAndFindsWhatIsMissing) {
  const char* const ordered[] = {"a", "a1", "a01", "a2", "a10", "a10b2", "a10b10", "b"};
  for (std::size_t i = 0; i < std::size(ordered); ++i) {
    for (std::size_t j = 0; j < std::size(ordered); ++j) {
      if (i / 3 == 0 && j / 3 == 0 && i != 0 && j != 0) continue;  // a1 and a01 have one value
      EXPECT_EQ(tool::naturallyBefore(ordered[i], ordered[j]), i < j) << ordered[i] << " " << ordered[j];
    }
  }
  EXPECT_NE(tool::naturallyBefore("a1", "a01"), tool::naturallyBefore("a01", "a1"));
  EXPECT_EQ(tool::missingNumbers({"f1", "f2", "f4", "f5", "f9"}), "3, 6-8");
  EXPECT_EQ(tool::missingNumbers({"f10", "f20", "f30", "f50"}), "40");
  EXPECT_EQ(tool::missingNumbers({"f1", "g2", "f9"}), "");
}

TEST_F(Sequence, EveryWayGivesTheFlowsOfSinglePairs) {
  makeFrames();
  for (int k = 7; k < 12; ++k) {
    const std::string name = "f" + std::to_string(k), next = "f" + std::to_string(k + 1);
    ASSERT_EQ(
        runTool({"flow", path("in/" + name + ".png"), path("in/" + next + ".png"), "-o", path(name + ".flo"),
                 "--backward", path(name + "b.flo"), "--occlusion", path(name + ".png"), "--preset", "fast"})
            .status,
        0);
  }
  const Words all{"--direction", "both", "--occlusion", "-q"};
  const auto with = [&](Words words) {
    words.insert(words.end(), all.begin(), all.end());
    return sequence(words);
  };
  const Outcome outcome = with({path("in"), "-o", path("out")});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  const auto files = tree("out", false);
  ASSERT_EQ(files.size(), 15u);
  const auto single = tree(".", false);
  for (int k = 7; k < 12; ++k) {
    const std::string name = "f" + std::to_string(k);
    EXPECT_EQ(files.at(name + ".flo"), single.at(name + ".flo"));
    EXPECT_EQ(files.at("backward/" + name + ".flo"), single.at(name + "b.flo"));
    EXPECT_EQ(files.at("occlusion/" + name + ".png"), single.at(name + ".png"));
  }

  std::ofstream(path("list.txt"))
      << "# six\nin/f7.png\nin/f8.png\nin/f9.png\nin/f10.png\nin/f11.png\nin/f12.png\n";
  ASSERT_EQ(with({path("in/f%d.png"), "-o", path("pattern"), "--jobs", "1"}).status, 0);
  ASSERT_EQ(with({path("list.txt"), "-o", path("list"), "--jobs", "3"}).status, 0);
  ASSERT_EQ(with({path("in/f*.png"), "-o", path("redone")}).status, 0);
  for (const char* const other : {"pattern", "list", "redone"}) EXPECT_EQ(tree(other, false), files) << other;
  for (const int count : {2, 3, 7}) {
    const std::string out = "shards" + std::to_string(count);
    for (int k = 1; k <= count; ++k) {
      EXPECT_EQ(runTool({"status", path(out)}).status, 1);
      ASSERT_EQ(
          with({path("in"), "-o", path(out), "--shard", std::to_string(k) + "/" + std::to_string(count)})
              .status,
          0);
    }
    EXPECT_EQ(tree(out, false), files);
    EXPECT_EQ(runTool({"status", path(out)}).status, 0);
  }
}

TEST_F(Sequence, FramesOfAStreamAreThoseOfTheFolder) {
  std::ofstream stream(path("frames.ppm"), std::ios::binary);
  for (int k = 0; k < 4; ++k) {
    const CTensor<float> picture = textured(1, 2 * k, k);
    stream << "P6\n40 32\n" << (k == 3 ? 65535 : 255) << "\n";  // 16 bits are read as well
    for (int y = 0; y < 32; ++y) {
      for (int x = 0; x < 40; ++x) {
        for (int z = 0; z < 3; ++z) {
          const int value = static_cast<int>(std::lround(picture(x, y, z)));
          stream.put(static_cast<char>(value));
          if (k == 3) stream.put(static_cast<char>(value));
        }
      }
    }
    save("in/00000" + std::to_string(k) + ".png", picture);
  }
  stream.close();
  ASSERT_EQ(sequence({path("in"), "-o", path("out")}).status, 0);
  const auto pipe = [&](const std::string& options) {
    return runProgram({"/bin/sh", "-c", std::string(TARVO_TOOL) + " sequence - --preset fast -q " + options});
  };
  ASSERT_EQ(pipe("-o " + path("piped") + " < " + path("frames.ppm")).status, 0);
  EXPECT_EQ(tree("piped", false), tree("out", false));
  const Outcome resumed = pipe("--resume --json -o " + path("piped") + " < " + path("frames.ppm"));
  ASSERT_EQ(resumed.status, 0);
  EXPECT_EQ(lines(resumed.out).back()["summary"]["skipped"], 3);
  EXPECT_EQ(pipe("--shard 1/2 -o " + path("x") + " < " + path("frames.ppm")).status, 2);
  const Outcome cut = pipe("-o " + path("cut") + " < /dev/null");
  EXPECT_EQ(cut.status, 1);
  fs::resize_file(path("frames.ppm"), 2 * 3840 + 100);
  const Outcome broken = pipe("-o " + path("broken") + " < " + path("frames.ppm"));
  EXPECT_EQ(broken.status, 1);
  EXPECT_NE(broken.err.find("after 2 frames"), std::string::npos) << broken.err;
  EXPECT_EQ(tree("broken", false).size(), 1u);
}

TEST_F(Sequence, ResumesWhatIsThereAndRefusesWhatDiffers) {
  makeFrames();
  const Words run{path("in"), "-o", path("out"), "--direction", "both", "-q", "--json"};
  const auto with = [&](const Words& more) {
    Words words = run;
    words.insert(words.end(), more.begin(), more.end());
    return sequence(words);
  };
  ASSERT_EQ(with({}).status, 0);
  const auto whole = tree("out", true);
  EXPECT_EQ(with({}).status, 2);
  // A run that was killed: a pair without a record, a record cut short, a file begun, an output missing.
  std::string manifest = whole.at("tarvo.jsonl");
  manifest.resize(manifest.size() - 40);
  std::ofstream(path("out/tarvo.jsonl"), std::ios::binary) << manifest;
  std::ofstream(path("out/f11.flo.part")) << "PIEH";
  fs::remove(path("out/backward/f8.flo"));
  const Outcome resumed = with({"--resume"});
  ASSERT_EQ(resumed.status, 0) << resumed.err;
  EXPECT_EQ(lines(resumed.out).back()["summary"]["skipped"], 3);
  EXPECT_EQ(tree("out", true), whole);

  // A changed output of the same size is found by its hash alone.
  std::fstream(path("out/f9.flo"), std::ios::in | std::ios::out | std::ios::binary).seekp(50).put('!');
  EXPECT_EQ(lines(with({"--resume"}).out).back()["summary"]["done"], 0);
  EXPECT_EQ(lines(with({"--resume", "--verify"}).out).back()["summary"]["done"], 1);
  EXPECT_EQ(tree("out", true), whole);

  const Outcome parameter = with({"--resume", "--alpha", "11"});
  EXPECT_EQ(parameter.status, 2);
  EXPECT_NE(parameter.err.find("alpha 10.0, now 11.0"), std::string::npos) << parameter.err;
  save("in/f12.png", textured(1, 13, 0));
  const Outcome frame = with({"--resume"});
  EXPECT_EQ(frame.status, 2);
  EXPECT_NE(frame.err.find("f12.png has other contents"), std::string::npos) << frame.err;
  EXPECT_EQ(tree("out", true), whole);
  EXPECT_EQ(lines(with({"--redo"}).out).back()["summary"]["done"], 1);
}

TEST_F(Sequence, WhatFailsIsReportedAndTheRestGoesOn) {
  makeFrames();
  save("in/f13.png", textured(1, 13, 0));
  std::ofstream(path("in/f9.png")) << "\x89PNG no more";
  CTensor<float> other = textured(1, 12, 0);
  other.downsample(20, 16);
  save("in/f12.png", other);
  const Outcome outcome = sequence({path("in"), "-o", path("out"), "--json"});
  EXPECT_EQ(outcome.status, 1);
  std::string states;
  for (const Json& line : lines(outcome.out)) {
    if (line.contains("state"))
      states += std::to_string(line["pair"].get<int>()) + line["state"].get<std::string>()[0];
  }
  std::string sorted;
  for (char pair = '0'; pair < '6'; ++pair) sorted += states.substr(states.find(pair), 2);
  EXPECT_EQ(sorted, "0d1f2f3d4f5f");
  EXPECT_NE(outcome.err.find("20 x 16 pixels, not 40 x 32"), std::string::npos) << outcome.err;
  EXPECT_EQ(tree("out", false).size(), 2u);
  const Outcome status = runTool({"status", path("out"), "--json"});
  EXPECT_EQ(status.status, 1);
  EXPECT_EQ(Json::parse(status.out)["failed"], 4);
}

TEST_F(Sequence, MarksCutsAndIdenticalFrames) {
  const int motions[] = {0, 3, 6, 6, 9};  // a pan with a frame shown twice, then another scene
  for (int k = 0; k < 8; ++k) {
    save("in/" + std::to_string(k) + ".png", k < 5 ? textured(1, motions[k], 0) : textured(3, k, 0));
  }
  const Outcome outcome = sequence({path("in"), "-o", path("out"), "--json", "--jobs", "1"});
  ASSERT_EQ(outcome.status, 0);
  for (const Json& line : lines(outcome.out)) {
    if (!line.contains("pair")) continue;
    EXPECT_EQ(line["cut"].get<bool>(), line["pair"] == 4) << line;
    EXPECT_EQ(line["same"].get<bool>(), line["pair"] == 2) << line;
  }
}

TEST_F(Sequence, RefusesInputsThatAreNoSequence) {
  makeFrames();
  save("more/f7.png", textured(1, 0, 0));
  std::ofstream(path("list.txt")) << "in/f7.png\nmore/f7.png\n";
  fs::create_directory(path("empty"));
  const struct {
    Words inputs;
    int status;
    const char* told;
  } cases[] = {
      {{path("nowhere")}, 1, "no such file"},
      {{path("empty")}, 1, "no pictures"},
      {{path("more")}, 1, "1 frame makes no pair"},
      {{path("in/%d%d.png")}, 1, "one number"},
      {{path("list.txt")}, 1, "same name"},
      {{path("in"), path("in/f7.png")}, 1, "cannot be mixed"},
      {{path("in"), path("in/")}, 2, "two inputs"},
      {{path("in"), "--shard", "0/3"}, 2, "0/3 is not K/N"},
      {{path("in"), "--shard", "auto"}, 2, "SLURM_ARRAY_TASK_ID"},
  };
  for (const auto& c : cases) {
    Words words = c.inputs;
    words.insert(words.end(), {"-o", path("out")});
    const Outcome outcome = sequence(words);
    EXPECT_EQ(outcome.status, c.status) << c.told;
    EXPECT_NE(outcome.err.find(c.told), std::string::npos) << outcome.err;
    EXPECT_FALSE(fs::exists(path("out")));
  }
  fs::remove(path("in/f9.png"));
  EXPECT_NE(sequence({path("in"), "-o", path("out")}).err.find("numbers missing: 9"), std::string::npos);
}

TEST(Workers, APairWhoseProcessDiesFailsAndTheOthersAreDone) {
  std::map<long, std::string> told;
  tool::shareAmongProcesses(
      2, {{0, 5}, {7, 12}},
      [](const std::vector<tool::PairRange>& ranges, const auto& report) {
        for (const tool::PairRange& range : ranges) {
          for (long pair = range.first; pair < range.last; ++pair) {
            if (pair == 3 || pair == 11) std::raise(SIGKILL);
            report({tool::PairReport::State::Done, pair, {{"pair", pair}}, 0});
          }
        }
      },
      [&](const tool::PairReport& pair) { told[pair.pair] += pair.record.value("error", "done"); }, [] {});
  ASSERT_EQ(told.size(), 10u);
  for (const auto& [pair, text] : told) {
    EXPECT_EQ(text, pair == 3 || pair == 11 ? "its process was ended by signal 9" : "done") << pair;
  }
}
