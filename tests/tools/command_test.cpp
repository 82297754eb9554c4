#include <gtest/gtest.h>
#include <tarvo/tarvo.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "flow_picture/arrows.h"
#include "pictures/picture.h"
#include "support/library_state.h"
#include "synth/scene.h"
#include "tools/run_tool.h"

namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;
using Words = std::vector<std::string>;

class Command : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return folder.path(name); }

  /// Renders two frames and their flow into the folder.
  void makeFrames() {
    ASSERT_EQ(runTool({"synth", "layers", "-o", path("."), "--size", "48x40"}).status, 0);
    frames = {path("frame1.png"), path("frame2.png")};
  }

  Outcome flow(const Words& arguments) const {
    Words words{"flow"};
    words.insert(words.end(), frames.begin(), frames.end());
    words.insert(words.end(), arguments.begin(), arguments.end());
    return runTool(words);
  }

  static bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }

  const TemporaryFolder folder;
  Words frames;
};

}  // namespace

TEST_F(Command, SynthWritesTheSceneThatTheRendererGives) {
  const Outcome outcome = runTool({"synth", "demo", "-o", path("a/b"), "--size", "40x30", "--seed", "7"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_TRUE(contains(outcome.out, "frame1.png"));
  const Rendering scene = render(makeScene("demo", 40, 30, 7));
  const CTensor<float> flow = NFlowFile::read(path("a/b/flow.flo"));
  ASSERT_EQ(flow.size(), scene.flow.size());
  EXPECT_TRUE(std::equal(flow.data(), flow.data() + flow.size(), scene.flow.data()));
  const CTensor<float> frame = readPicture(path("a/b/frame2.png"), nullptr);
  ASSERT_EQ(frame.size(), scene.frame2.size());
  for (int i = 0; i < frame.size(); ++i) {
    ASSERT_NEAR(frame.data()[i], scene.frame2.data()[i], 0.5001);
  }
}

TEST_F(Command, WrongUsageEndsWith2AndNamesTheOption) {
  const struct {
    Words words;
    const char* told;
  } cases[] = {
      {{}, "command"},
      {{"paint"}, "paint"},
      {{"flow", "a.png"}, "FRAME2"},
      {{"flow", "a.png", "b.png"}, "--output"},
      {{"flow", "a.png", "b.png", "c.png", "-o", "x.flo"}, "c.png"},
      {{"flow", "a.png", "b.png", "-o", "x.gif"}, "x.gif"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--backward", "./x.flo"}, "--backward"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--color", "b.png"}, "--color"},
      {{"flow", "a.png", "b.flo", "-o", "./b.flo"}, "--output names an input"},
      {{"flow", "a.csv", "b.png", "-o", "x.flo", "--matches", "a.csv"}, "--matches names an input"},
      {{"color", "x.png", "-o", "x.png"}, "--output names an input"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--eta", "1.5"}, "--eta: 1.5"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--eta", "0.999999999"}, "--eta"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--alpha", "nan"}, "--alpha: nan"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--gamma", "1e99"}, "--gamma: 1e99"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--beta", "3px"}, "--beta: 3px"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--solver-iterations", "-1"}, "--solver-iterations: -1"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--solver-iterations", "2147483647"}, "0 to 1073741823"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--device", "cuda:4711"}, "--device: cuda:4711"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--threads", "0"}, "--threads: 0"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--device", "gpu"}, "--device: gpu"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--preset", "slow"}, "--preset: slow"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--match-spacing", "6"}, "a multiple of 4"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--solver", "lu"}, "conjugate-gradients or relaxation"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--pipeline", "hybrid", "--zeta-data", "1"}, "--zeta-data"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--pipeline", "hybrid", "--mask2", "m.png"}, "--mask2"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--mask", "m.png", "--color", "m.png"}, "names an input"},
      {{"flow", "a.png", "b.png", "-o", "x.flo", "--occlusion", "x.jpg"}, "x.jpg"},
      {{"color", "x.flo", "-o", "x.jpg"}, "x.jpg"},
      {{"color", "x.flo", "-o", "x.png", "--max-motion", "0"}, "0 is not auto, longest or a number above 0"},
      {{"color", "x.flo", "-o", "x.png", "--wheel", "grey"}, "--wheel: grey"},
      {{"synth", "sea", "-o", "d"}, "sea"},
      {{"synth", "demo", "-o", "d", "--size", "12"}, "--size: 12"},
      {{"synth", "demo", "-o", "d", "--size", "99999x9"}, "--size: 99999x9"},
      {{"eval", "x.flo"}, "REFERENCE"}};
  for (const auto& [words, told] : cases) {
    const Outcome outcome = runTool(words);
    EXPECT_EQ(outcome.status, 2) << told;
    EXPECT_TRUE(contains(outcome.err, told)) << told << " is not in: " << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
}

TEST_F(Command, HelpAndVersionAreResults) {
  for (const Words& words :
       {Words{"--help"}, {"flow", "--help"}, {"eval", "-h"}, {"color", "-h"}, {"synth", "-h"}}) {
    const Outcome outcome = runTool(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(contains(outcome.out, "Usage")) << outcome.out;
    EXPECT_EQ(outcome.err, "");
  }
  const std::string help = runTool({"flow", "--help"}).out;
  for (const char* told :
       {"--sigma NUMBER=0", "--alpha NUMBER=30", "--beta NUMBER=300", "--gamma NUMBER=5", "--eta NUMBER=0.95",
        "--fixed-point-iterations COUNT=5", "--solver-iterations COUNT=10"}) {
    EXPECT_TRUE(contains(help, told)) << told;
  }
  EXPECT_EQ(runTool({"--version"}).out, "tarvo " + NDevice::version() + "\n");
}

TEST_F(Command, FailuresEndWith1AndNameTheFile) {
  makeFrames();
  writeText(path("damaged.png"), readText(frames[0]).substr(0, 500));
  writeText(path("damaged.flo"), "PIEH");
  ASSERT_EQ(runTool({"synth", "shift", "-o", path("small"), "--size", "20x10"}).status, 0);
  const std::string good = path("flow.flo"), out = path("x.flo");
  const struct {
    Words words;
    std::string told;
  } cases[] = {{{"flow", path("none.png"), frames[1], "-o", out}, "none.png"},
               {{"flow", frames[0], path("damaged.png"), "-o", out}, "damaged.png"},
               {{"flow", frames[0], path("small/frame1.png"), "-o", out}, "48 x 40"},
               {{"flow", frames[0], path("small/frame1.png"), "-o", out}, "20 x 10"},
               {{"flow", frames[0], frames[1], "-o", out, "--mask", path("small/frame1.png")},
                "20 x 10 pixels, not 48 x 40"},
               {{"flow", frames[0], frames[1], "-o", path("none/x.flo")}, "none/x.flo"},
               {{"flow", frames[0], frames[1], "-o", out, "--device", "cuda:999"}, "cuda"},
               {{"flow", frames[0], frames[1], "-o", out, "--alpha", "3e38"}, "too large"},
               {{"eval", path("none.flo"), good}, "none.flo"},
               {{"eval", good, path("damaged.flo")}, "damaged.flo"},
               {{"eval", good, path("small/flow.flo")}, "20 x 10"},
               {{"color", path("damaged.flo"), "-o", path("x.png")}, "damaged.flo"},
               {{"color", good, "-o", path("none/x.png")}, "none/x.png"},
               {{"synth", "demo", "-o", frames[0]}, "frame1.png"}};
  for (const auto& [words, told] : cases) {
    const Outcome outcome = runTool(words);
    EXPECT_EQ(outcome.status, 1) << told << ": " << outcome.err;
    EXPECT_TRUE(contains(outcome.err, told)) << told << " is not in: " << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
  EXPECT_EQ(folder.names(),
            (Words{"damaged.flo", "damaged.png", "flow.flo", "frame1.png", "frame2.png", "small"}));
}

TEST_F(Command, AFailedRunLeavesTheOldFilesAndNothingElse) {
  makeFrames();
  writeText(path("old.flo"), "old");
  EXPECT_EQ(runTool({"flow", frames[0], path("none.png"), "-o", path("old.flo")}).status, 1);
  EXPECT_EQ(readText(path("old.flo")), "old");
  // The disk takes no more than 1 KiB: the picture can't be completed, so the flow that could be isn't put in
  // place.
  const Words before = folder.names();
  const Outcome outcome = runProgram({"/bin/sh", "-c", "ulimit -f 2; exec \"$@\"", "sh", TARVO_TOOL, "synth",
                                      "demo", "-o", path("."), "--size", "8x2000"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "frame1.png")) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "(File too large)")) << outcome.err;
  EXPECT_EQ(folder.names(), before);
  EXPECT_EQ(readPicture(frames[0], nullptr).sizeX(), 48);
}

TEST_F(Command, ASignalRemovesTemporaryFilesAndEndsTheProgram) {
  // Comes when the first temporary file has contents, while the second picture is still to be written.
  const Outcome outcome = runProgram(
      {"/bin/sh", "-c",
       "\"$@\" & until [ -s $0/.tarvo* ]; do kill -0 $! || exit 99; sleep 0.01; done; kill $!; wait $!",
       path("."), TARVO_TOOL, "synth", "shift", "-o", path("."), "--size", "900x900"});
  EXPECT_EQ(outcome.status, 128 + SIGTERM) << outcome.err;
  EXPECT_EQ(folder.names(), Words{});
}

TEST_F(Command, OutputsKeepPermissionsAndFollowLinks) {
  makeFrames();
  const auto draw = [&](const std::string& name) {
    return runTool({"color", path("flow.flo"), "-o", path(name)});
  };
  constexpr fs::perms kPrivate = fs::perms::owner_read | fs::perms::owner_write;
  writeText(path("private.png"), "old");
  fs::permissions(path("private.png"), kPrivate);
  fs::create_symlink("private.png", path("link.png"));
  fs::create_symlink("new.png", path("dangling.png"));
  fs::create_symlink("loop.png", path("loop.png"));
  const std::string longest = std::string(251, 'a') + ".png";
  for (const auto& [name, file] : {std::pair<std::string, std::string>{"link.png", "private.png"},
                                   {"dangling.png", "new.png"},
                                   {longest, longest}}) {
    EXPECT_EQ(draw(name).status, 0) << name;
    EXPECT_TRUE(name == file || fs::is_symlink(path(name))) << name;
    EXPECT_EQ(readPicture(path(file), nullptr).sizeX(), 48) << name;
  }
  EXPECT_EQ(fs::status(path("private.png")).permissions(), kPrivate);
  EXPECT_TRUE(contains(draw("loop.png").err, "symbolic links"));
  if (geteuid() == 0) return;  // who may write anywhere
  fs::permissions(path("private.png"), fs::perms::owner_read);
  EXPECT_EQ(draw("private.png").status, 1);
  fs::permissions(path("."), fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_EQ(draw("new.png").status, 0);
  EXPECT_EQ(draw("newer.png").status, 1);
  fs::permissions(path("."), fs::perms::owner_all);
}

TEST_F(Command, TheHybridPipelineIsRunFlow) {
  makeFrames();
  const Outcome outcome = flow({"-o", path("h.flo"), "--pipeline", "hybrid", "--eta", "0.6", "--json", "-v"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "Var time = ")) << outcome.err;
  const Json json = Json::parse(outcome.out);
  EXPECT_EQ(json.at("pipeline"), "hybrid");
  EXPECT_GT(json.at("forward").at("phases").at("variational"), 0.0);
  CTensor<float> first = readPicture(frames[0], nullptr), second = readPicture(frames[1], nullptr), expected;
  const Silence silence;
  runFlow(first, second, expected, 0, 30, 300, 5, 0.6f, 5, 10);
  const CTensor<float> result = NFlowFile::read(path("h.flo"));
  ASSERT_EQ(result.size(), expected.size());
  EXPECT_TRUE(std::equal(result.data(), result.data() + result.size(), expected.data()));
}

TEST_F(Command, CheckSaysInOneLineWhetherHostAndDeviceAgree) {
  makeFrames();
  const Outcome outcome = runTool({"check", frames[0]});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out.rfind("histograms of host and device agree: ", 0), 0u) << outcome.out;
  EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 1);
  EXPECT_EQ(outcome.err, "");
  EXPECT_TRUE(contains(runTool({"check", frames[0], "-v"}).err, "sums (cpu,gpu) = "));
  ASSERT_EQ(runTool({"synth", "shift", "-o", path("small"), "--size", "20x6"}).status, 0);
  const Outcome small = runTool({"check", path("small/frame1.png")});
  EXPECT_EQ(small.status, 1);
  EXPECT_TRUE(contains(small.err, "20 x 6")) << small.err;
}

TEST_F(Command, FlowWritesItsFilesAndTellsOfThemInJson) {
  makeFrames();
  const Outcome outcome = flow({"-o", path("f.flo"), "--backward", path("b.flo"), "--color", path("f.png"),
                                "--eta", "0.5", "--alpha", "12.5", "--sigma", "1.5", "--device", "cpu",
                                "--threads", "01", "--solver-iterations", "010", "--json"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.err, "");
  const Json json = Json::parse(outcome.out);
  EXPECT_EQ(json.at("width"), 48);
  EXPECT_EQ(json.at("height"), 40);
  EXPECT_EQ(json.at("threads"), 1);
  EXPECT_EQ(json.at("parameters").at("alpha"), 12.5);
  EXPECT_EQ(json.at("parameters").at("solver_iterations"), 10);
  EXPECT_TRUE(contains(json.at("device"), "cpu"));
  EXPECT_GT(json.at("forward").at("phases").at("total"), 0.0);
  EXPECT_EQ(json.at("backward").at("file"), path("b.flo"));
  const CTensor<float> forward = NFlowFile::read(path("f.flo"));
  EXPECT_EQ(forward.sizeX(), 48);
  EXPECT_EQ(forward.sizeY(), 40);
  EXPECT_EQ(readPicture(path("f.png"), nullptr).sizeY(), 40);

  // The backward flow is the flow of the swapped pictures: smoothing changed copies of them.
  std::swap(frames[0], frames[1]);
  ASSERT_EQ(
      flow({"-o", path("s.flo"), "--eta", "0.5", "--alpha", "12.5", "--sigma", "1.5", "--device", "cpu"})
          .status,
      0);
  EXPECT_EQ(readText(path("b.flo")), readText(path("s.flo")));
  EXPECT_NE(readText(path("f.flo")), readText(path("s.flo")));
}

TEST_F(Command, FlowTellsAndWritesItsMatchesAndCanLeaveThemOut) {
  ASSERT_EQ(runTool({"synth", "shift", "-o", path("."), "--size", "96x80"}).status, 0);
  frames = {path("frame1.png"), path("frame2.png")};
  const Outcome with = flow({"-o", path("f.flo"), "--matches", path("m.csv"), "--eta", "0.5", "--json"});
  ASSERT_EQ(with.status, 0) << with.err;
  const Json counts = Json::parse(with.out).at("forward").at("matching");
  EXPECT_EQ(counts.at("grid_points"), 18 * 14);
  EXPECT_LE(counts.at("kept_matches"), counts.at("forward_matches"));
  EXPECT_LE(counts.at("forward_matches"), counts.at("gated_points"));

  // The scene shifts by (4.3, -2.6): most matches are (4, -3), and each stands on a line of its own.
  const std::string table = readText(path("m.csv"));
  ASSERT_EQ(table.rfind("x,y,u,v,weight\n", 0), 0u);
  const long lines = std::count(table.begin(), table.end(), '\n') - 1;
  EXPECT_GT(lines, 50);
  EXPECT_LE(lines, counts.at("kept_matches"));
  long right = 0;
  for (std::size_t at = table.find(",4,-3,"); at != std::string::npos; at = table.find(",4,-3,", at + 1))
    ++right;
  EXPECT_GT(right, lines / 2);

  ASSERT_EQ(flow({"-o", path("n.flo"), "--no-matches", "--eta", "0.5"}).status, 0);
  ASSERT_EQ(flow({"-o", path("z.flo"), "--beta", "0", "--eta", "0.5"}).status, 0);
  EXPECT_EQ(readText(path("n.flo")), readText(path("z.flo")));
  EXPECT_NE(readText(path("n.flo")), readText(path("f.flo")));
  EXPECT_EQ(flow({"-o", path("e.flo"), "--matches", path("m.csv"), "--no-matches"}).status, 2);
}

TEST_F(Command, FlowTakesAPresetAndAMaskAndDrawsWhatIsHidden) {
  makeFrames();
  std::string text = "P3 48 40 255\n";
  std::vector<std::uint8_t> mask;
  for (int i = 0; i < 48 * 40; ++i) {
    mask.push_back(i % 48 < 16 ? 1 : 0);
    text += mask.back() != 0 ? "0 0 1\n" : "0 0 0\n";
  }
  writeText(path("m.ppm"), text);
  const Json presets = Json::parse(runTool({"info", "--presets", "--json"}).out);
  EXPECT_TRUE(contains(runTool({"info", "--presets"}).out, "--eta"));
  for (const Words& order :
       {Words{"--preset", "fast", "--alpha", "12.5"}, {"--alpha", "12.5", "--preset", "fast"}}) {
    Words words{"-o", path("f.flo"), "--occlusion", path("o.png"), "--mask2", path("m.ppm"), "--json"};
    words.insert(words.end(), order.begin(), order.end());
    const Outcome outcome = flow(words);
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    const Json json = Json::parse(outcome.out);
    Json expected = presets.at("fast");
    expected["alpha"] = 12.5;
    EXPECT_EQ(json.at("parameters"), expected);
    EXPECT_EQ(json.at("preset"), "fast");
    EXPECT_EQ(json.count("backward"), 0u);
  }
  NFlow::Options options = NFlow::preset("fast");
  options.alpha = 12.5f;
  options.occlusion = true;
  const CTensor<float> first = readPicture(frames[0], nullptr), second = readPicture(frames[1], nullptr);
  NFlow::Image masked = NFlow::Image::planar(second.data(), 48, 40);
  masked.mask = mask.data(), masked.maskRowStride = 48;
  const NFlow::Result result = NFlow::compute(NFlow::Image::planar(first.data(), 48, 40), masked, options);
  const CTensor<float> flow = NFlowFile::read(path("f.flo"));
  EXPECT_TRUE(std::equal(flow.data(), flow.data() + flow.size(), result.forward.data()));
  const CTensor<float> drawn = readPicture(path("o.png"), nullptr);
  EXPECT_TRUE(std::equal(result.occlusion.begin(), result.occlusion.end(), drawn.data()));
  EXPECT_GT(std::count(result.occlusion.begin(), result.occlusion.end(), 255), 0);
}

TEST_F(Command, FlowSaysAsMuchAsIsAskedFor) {
  makeFrames();
  const Words fast{"-o", path("f.flo"), "--eta", "0.5"};
  const auto with = [&fast](const std::string& option) {
    Words words = fast;
    words.push_back(option);
    return words;
  };
  const Outcome plain = flow(fast), quiet = flow(with("-q")), verbose = flow(with("-v"));
  EXPECT_TRUE(contains(plain.out, "48 x 40") && contains(plain.out, "f.flo")) << plain.out;
  EXPECT_EQ(plain.err, "");
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.out + quiet.err, "");
  EXPECT_TRUE(contains(verbose.err, "Total time = ")) << verbose.err;
  EXPECT_FALSE(contains(verbose.out, "Total time = "));
}

TEST_F(Command, EvalPrintsTheFiguresAsTextAndJson) {
  CTensor<float> flow(4, 1, 2, 0.f), reference(4, 1, 2, 0.f);
  flow(0, 0, 0) = 5;                                        // off by 5: an outlier
  flow(1, 0, 1) = std::numeric_limits<float>::quiet_NaN();  // missing
  reference(2, 0, 0) = 2e9f;                                // unknown
  flow(3, 0, 0) = reference(3, 0, 0) = 12;
  NFlowFile::write(path("f.flo"), flow);
  NFlowFile::write(path("r.flo"), reference);
  const Outcome outcome = runTool({"eval", path("f.flo"), path("r.flo"), "--json"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  const Json json = Json::parse(outcome.out);
  EXPECT_EQ(json.at("pixels"), 4);
  EXPECT_EQ(json.at("pixels_used"), 3);
  EXPECT_EQ(json.at("pixels_missing"), 1);
  EXPECT_NEAR(json.at("epe").get<double>(), 2.5, 1e-9);
  EXPECT_NEAR(json.at("outlier_share").get<double>(), 2. / 3, 1e-9);
  EXPECT_NEAR(json.at("epe_by_motion").at(0).at("epe").get<double>(), 5, 1e-9);
  EXPECT_EQ(json.at("epe_by_motion").at(1).at("pixels"), 1);
  EXPECT_TRUE(json.at("epe_by_motion").at(2).at("epe").is_null());
  const std::string text = runTool({"eval", path("f.flo"), path("r.flo")}).out;
  EXPECT_TRUE(contains(text, "2.500 px") && contains(text, "66.67 %") && contains(text, "3 of 4") &&
              contains(text, "pixels missing"))
      << text;

  NFlowFile::write(path("u.flo"), CTensor<float>(4, 1, 2, 1e10f));
  EXPECT_EQ(runTool({"eval", path("f.flo"), path("u.flo")}).status, 1);
}

TEST_F(Command, ColorDrawsOnBothWheelsAtTheScaleAskedFor) {
  // Eight directions from the right over downwards, then still, beyond the scale, unknown.
  CTensor<float> flow(11, 1, 2, 0.f);
  for (int k = 0; k < 8; ++k) {
    flow(k, 0, 0) = k == 2 || k == 6 ? 0.f : k < 2 || k == 7 ? 4.f : -4.f;
    flow(k, 0, 1) = k % 4 == 0 ? 0.f : k < 4 ? 4.f : -4.f;
  }
  flow(9, 0, 0) = 40;
  flow(10, 0, 1) = 1e10f;
  NFlowFile::write(path("f.flo"), flow);
  using Row = std::vector<int>;
  const auto pixels = [&](Words words) {
    words.insert(words.begin(), {"color", path("f.flo"), "-o", path("f.png")});
    EXPECT_EQ(runTool(words).status, 0);
    const CTensor<float> picture = readPicture(path("f.png"), nullptr);
    std::vector<Row> colours;
    for (int x = 0; x < 11; ++x) {
      colours.push_back({int(picture(x, 0, 0)), int(picture(x, 0, 1)), int(picture(x, 0, 2))});
    }
    return colours;
  };
  // Beyond the scale: three quarters of the table's hues, entries 0, 6.75, 13.5 ... 47.25 of 55.
  const std::vector<Row> table{{191, 0, 0},   {191, 85, 0}, {191, 172, 0}, {23, 191, 0},
                               {0, 156, 191}, {0, 39, 191}, {66, 0, 191},  {165, 0, 191}};
  const std::vector<Row> beyond = pixels({"--max-motion", "1"}),
                         longest = pixels({"--max-motion", "longest"});
  EXPECT_TRUE(contains(readText(path("f.png")), std::string("scale\0"
                                                            "40 px",
                                                            11)));
  for (int k = 0; k < 8; ++k) {
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(beyond[k][c], table[k][c], 1) << k << " " << c;
  }
  EXPECT_EQ(longest[8], (Row{255, 255, 255}));
  EXPECT_EQ(longest[9], (Row{255, 0, 0}));
  EXPECT_EQ(longest[0], (Row{255, 229, 229}));
  EXPECT_EQ(longest[10], (Row{128, 128, 128}));
  const std::vector<Row> dark = pixels({"--wheel", "dark", "--max-motion", "80"});
  EXPECT_EQ(dark[8], (Row{0, 0, 0}));
  EXPECT_NEAR(dark[9][0], 127, 1);
  EXPECT_EQ(dark[10], (Row{128, 128, 128}));

  CTensor<float> wild(20, 10, 2, 2.f);  // the usual length is that of all but one
  wild(3, 3, 0) = 1000;
  NFlowFile::write(path("w.flo"), wild);
  EXPECT_TRUE(contains(runTool({"color", path("w.flo"), "-o", path("w.png")}).out, " 2.83 px"));
}

TEST(Arrows, LeadFromWherePixelsAreToWhereTheyMove) {
  CTensor<float> picture(25, 9, 3, 100.f), flow(25, 9, 2, 0.f);
  for (int x = 0; x < 25; ++x) flow(x, 4, 0) = 7;
  flow(12, 4, 0) = 2e9f;  // unknown
  flow(20, 4, 0) = 0;
  flow(20, 4, 1) = -3;
  EXPECT_EQ(tool::drawArrows(picture, flow, 8), 2);
  for (int x = 4; x <= 11; ++x) EXPECT_EQ(picture(x, 4, 1), 0) << x;
  for (int y = 1; y <= 4; ++y) EXPECT_EQ(picture(20, y, 2), 0) << y;
  EXPECT_LT(picture(9, 3, 0), 50);  // the head
  EXPECT_EQ(picture(9, 3, 0), picture(9, 5, 0));
  EXPECT_GT(picture(4, 5, 0), 100);  // the light edge
  for (int x = 13; x <= 17; ++x) EXPECT_EQ(picture(x, 4, 0), 100) << x;
  EXPECT_EQ(picture(20, 7, 0), 100);
}

TEST_F(Command, ColorPutsTheLegendIntoTheLowerRightCorner) {
  // The motions of the legend's own disc, so that both must look the same.
  constexpr int kRadius = 10, kWidth = 2 * kRadius + 1;
  CTensor<float> flow(90, 120, 2, 0.f);
  for (int y = 0; y < kWidth; ++y) {
    for (int x = 0; x < kWidth; ++x) flow(x, y, 0) = float(x - kRadius), flow(x, y, 1) = float(y - kRadius);
  }
  NFlowFile::write(path("f.flo"), flow);
  for (const std::string wheel : {"standard", "dark"}) {
    ASSERT_EQ(runTool({"color", path("f.flo"), "-o", path("l.png"), "--legend", "--wheel", wheel,
                       "--max-motion", "10"})
                  .status,
              0);
    const CTensor<float> picture = readPicture(path("l.png"), nullptr);
    const int left = 90 - 55 + 27 - kRadius, top = 120 - 49 + 4;  // "standard" has 8 letters of 6 pixels
    for (int y = 0; y < kWidth && wheel == "standard"; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        if (std::hypot(x - kRadius, y - kRadius) > kRadius) continue;
        for (int c = 0; c < 3; ++c)
          ASSERT_EQ(picture(left + x, top + y, c), picture(x, y, c)) << x << " " << y;
      }
    }
    int ink = 0;
    for (int y = 100; y < 120; ++y) {
      for (int x = 36; x < 90; ++x) ink += picture(x, y, 0) == 0 && picture(x, y, 1) == 0;
    }
    EXPECT_GT(ink, 50) << wheel;
    EXPECT_EQ(picture(30, 60, 0), wheel == "dark" ? 0 : 255);
  }
  NFlowFile::write(path("tiny.flo"), CTensor<float>(9, 9, 2, 0.f));
  const Outcome tiny = runTool({"color", path("tiny.flo"), "-o", path("t.png"), "--legend"});
  EXPECT_EQ(tiny.status, 0);
  EXPECT_TRUE(contains(tiny.err, "legend"));
}

TEST_F(Command, WarpBringsASecondPictureBackAndFillsWhatIsNotSeen) {
  makeFrames();
  const CTensor<float> second = readPicture(frames[1], nullptr);
  NFlowFile::write(path("f.flo"), CTensor<float>(48, 40, 2, 3.f));
  NFlowFile::write(path("b.flo"), CTensor<float>(48, 40, 2, 9.f));  // nothing returns
  const Words words{"warp", frames[1], path("f.flo"), "-o", path("w.png"), "--fill", "7"};
  ASSERT_EQ(runTool(words).status, 0);
  const CTensor<float> back = readPicture(path("w.png"), nullptr);
  EXPECT_EQ(back(5, 6, 1), second(8, 9, 1));
  EXPECT_EQ(back(45, 6, 1), 7);
  Words hidden = words;
  hidden.insert(hidden.end(), {"--occlusion", path("b.flo")});
  EXPECT_TRUE(contains(runTool(hidden).out, "1920 of them not seen"));
  NFlowFile::write(path("f.flo"), CTensor<float>(4, 4, 2, 3.f));
  EXPECT_TRUE(contains(runTool(words).err, "4 x 4 pixels, the picture of 48 x 40"));
}

TEST_F(Command, InfoTellsVersionDevicesAndInstructions) {
  const Json json = Json::parse(runTool({"info", "--json"}).out);
  EXPECT_EQ(json.at("version"), NDevice::version());
  EXPECT_FALSE(json.at("devices").empty());
  EXPECT_TRUE(contains(json.at("instruction_set"), "x86-64"));
  EXPECT_TRUE(contains(runTool({"info"}).out, json.at("device")));
}
