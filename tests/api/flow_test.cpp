#include <tarvo/tarvo.h>

#include <algorithm>
#include <set>
#include <thread>
#include <tuple>

#if defined(__x86_64__)
#include <xmmintrin.h>
#endif

#include "api/allocation_count.h"
#include "support/test.h"

namespace {

struct Parameters {
  float sigma = 0.0f, alpha = 30.0f, beta = 300.0f, gamma = 5.0f, eta = 0.95f;
  int fixedPointIterations = 5, solverIterations = 10;
};

Parameters quick() {
  Parameters p;
  p.eta = 0.7f;
  p.fixedPointIterations = 2;
  p.solverIterations = 4;
  return p;
}

void run(CTensor<float>& first, CTensor<float>& second, CTensor<float>& flow, const Parameters& p,
         decltype(runFlowGPU) driver = runFlowGPU) {
  driver(first, second, flow, p.sigma, p.alpha, p.beta, p.gamma, p.eta, p.fixedPointIterations,
         p.solverIterations);
}

Planes flowOf(const Planes& first, const Planes& second, const Parameters& p = {}) {
  const Silence silence;
  CTensor<float> a = tensorOf(first), b = tensorOf(second), flow;
  run(a, b, flow, p);
  return planesOf(flow);
}

struct Both {
  Planes forward, backward;
};

Both bothOf(const Planes& first, const Planes& second, const Parameters& p) {
  const Silence silence;
  CTensor<float> forward(3, 3, 1, 7.0f), backward;
  tarvo(tensorOf(first), tensorOf(second), forward, backward, p.sigma, p.alpha, p.beta, p.gamma, p.eta,
        p.fixedPointIterations, p.solverIterations);
  return {planesOf(forward), planesOf(backward)};
}

/// Large enough to be shared out among threads.
const Planes& picture1() {
  static const Planes picture = render(113, 129, 0, 0);
  return picture;
}
const Planes& picture2() {
  static const Planes picture = render(113, 129, 1.5, -0.75);
  return picture;
}

/// What the entry points say to these arguments, "accepted" if nothing; outputs must stay as they are.
std::string refusal(const CTensor<float>& first, const CTensor<float>& second, const Parameters& p) {
  const Silence silence;
  std::set<std::string> messages;
  for (const std::string function : {"tarvo: ", "runFlowGPU: ", "runFlow: "}) {
    CTensor<float> a = first, b = second, flow(2, 2, 1, 7.0f), backward(1, 2, 1, 8.0f);
    try {
      if (function == "tarvo: ") {
        tarvo(a, b, flow, backward, p.sigma, p.alpha, p.beta, p.gamma, p.eta, p.fixedPointIterations,
              p.solverIterations);
      } else {
        run(a, b, flow, p, function == "runFlow: " ? runFlow : runFlowGPU);
      }
      messages.insert("accepted");
    } catch (const std::invalid_argument& error) {
      const std::string message = error.what();
      EXPECT_EQ(message.compare(0, function.size(), function), 0) << message;
      messages.insert(message.substr(function.size()));
      EXPECT_TRUE(exact(planesOf(flow), Planes(2, 2, 1, 7.0f)));
      EXPECT_TRUE(exact(planesOf(backward), Planes(2, 1, 1, 8.0f)));
      EXPECT_TRUE(a.size() == 0 || exact(planesOf(a), planesOf(first)));
    }
  }
  EXPECT_EQ(messages.size(), 1u);
  return *messages.begin();
}

bool says(const std::string& message, const std::vector<std::string>& parts) {
  return std::all_of(parts.begin(), parts.end(),
                     [&](const std::string& part) { return message.find(part) != std::string::npos; });
}

}  // namespace

TEST(Flow, RefusesWrongPicturesAndNamesThem) {
  const auto image = [](int w, int h, int channels) { return CTensor<float>(w, h, channels, 1.0f); };
  const struct {
    CTensor<float> first, second;
    std::vector<std::string> parts;
  } kCases[] = {
      {image(6, 5, 3),
       image(5, 6, 3),
       {"image1 and image2 must have the same size, got 6 x 5 x 3 and 5 x 6 x 3"}},
      {image(6, 5, 3), image(6, 5, 1), {"image1", "image2", "6 x 5 x 3", "6 x 5 x 1"}},
      {CTensor<float>(), CTensor<float>(), {"image1", "0 x 0"}},
      {image(0, 5, 3), image(0, 5, 3), {"image1", "0 x 5"}},
      {image(6, 5, 1), image(6, 5, 1), {"channel", "1"}},
      {image(6, 5, 2), image(6, 5, 2), {"channels", "2"}},
      {image(6, 5, 4), image(6, 5, 4), {"channels", "4"}},
  };
  for (const auto& c : kCases) EXPECT_PRED2(says, refusal(c.first, c.second, {}), c.parts);
}

TEST(Flow, RefusesWrongParametersAndNamesThem) {
  const CTensor<float> good(6, 5, 3, 1.0f);
  const auto with = [&](auto Parameters::*member, auto value) {
    Parameters p = quick();
    p.*member = value;
    return refusal(good, good, p);
  };
  for (const auto& [name, member] :
       {std::pair{"alpha", &Parameters::alpha}, {"beta", &Parameters::beta}, {"gamma", &Parameters::gamma}}) {
    for (const auto& [value, text] :
         {std::pair{kNan, "nan"}, {kInf, "inf"}, {-kInf, "-inf"}, {-0.5f, "-0.5"}}) {
      EXPECT_PRED2(says, with(member, value), (std::vector<std::string>{name, text}));
    }
    EXPECT_EQ(with(member, 0.0f), "accepted");
  }
  for (const auto& [value, text] :
       {std::pair{0.0f, "0"}, {1.0f, "1"}, {-0.5f, "-0.5"}, {1.5f, "1.5"}, {kNan, "nan"}}) {
    EXPECT_PRED2(says, with(&Parameters::eta, value), (std::vector<std::string>{"eta", text}));
  }
  EXPECT_PRED2(says, with(&Parameters::sigma, kInf), (std::vector<std::string>{"sigma", "inf"}));
  for (const auto& [name, member] : {std::pair{"fixedPointIterations", &Parameters::fixedPointIterations},
                                     {"solverIterations", &Parameters::solverIterations}}) {
    EXPECT_PRED2(says, with(member, -1), (std::vector<std::string>{name, "-1"}));
    EXPECT_EQ(with(member, 0), "accepted");
  }
}

TEST(Flow, OfEverySmallSizeReturns) {
  for (const Size size : {Size{1, 1}, Size{1, 9}, Size{9, 1}, Size{2, 2}, Size{10, 10}, Size{15, 16},
                          Size{17, 29}, Size{5, 200}, Size{21, 37}}) {
    const Planes flow =
        flowOf(randomPlanes(size.h, size.w, 3, 1), randomPlanes(size.h, size.w, 3, 2), quick());
    ASSERT_TRUE(flow.h == size.h && flow.w == size.w && flow.count == 2) << size;
    for (const float value : flow.values) ASSERT_TRUE(std::isfinite(value)) << size;
  }
}

TEST(Flow, GoesToTheCallersArrayWhereTheElementsAreAsMany) {
  CTensor<float> first = tensorOf(render(20, 30, 0, 0)), second = tensorOf(render(20, 30, 1, 0));
  CTensor<float> flow(40, 30, 1, 8.0f);
  const float* const array = flow.data();
  runFlowGPU(first, second, flow, 0.0f, 30.0f, 300.0f, 5.0f, 0.5f, 1, 1);
  EXPECT_EQ(flow.data(), array);
  EXPECT_TRUE(flow.sizeX() == 30 && flow.sizeY() == 20 && flow.sizeZ() == 2);
}

TEST(Flow, RecoversAShiftInBothDirections) {
  // By whole pixels, which matches find exactly, and by fractions, without matches: on so smooth a texture
  // the best whole-pixel match may lie elsewhere.
  for (const auto& [u, v, beta] :
       {std::tuple{3.0f, -3.0f, 300.0f}, {-2.0f, 1.0f, 300.0f}, {-2.25f, 1.5f, 0.0f}}) {
    Parameters p;
    p.beta = beta;
    const Both flow = bothOf(picture1(), render(113, 129, static_cast<double>(u), static_cast<double>(v)), p);
    EXPECT_TRUE(tolerance::flow(flow.forward, uniformFlow(113, 129, u, v), 6, 0.05)) << u << ", " << v;
    EXPECT_TRUE(tolerance::flow(flow.backward, uniformFlow(113, 129, -u, -v), 6, 0.05)) << u << ", " << v;
  }
}

TEST(Flow, OfEqualPicturesIsZero) {
  const Planes flow = flowOf(picture1(), picture1());
  for (const float value : flow.values) ASSERT_EQ(value, 0.0f);
}

TEST(Flow, HasTheSameBitsOnEveryRunAndForAnyNumberOfThreads) {
  Planes expected;
  withThreads({1}, [&] { expected = flowOf(picture1(), picture2()); });
  withThreads({1, 2, 3}, [&] { EXPECT_TRUE(exact(flowOf(picture1(), picture2()), expected)); });
}

TEST(Flow, HasTheSameBitsWhateverTheCallersFloatingPointMode) {
#if defined(__x86_64__)
  const Planes expected = flowOf(picture1(), picture2(), quick());
  const unsigned before = _mm_getcsr();
  const unsigned odd = before | 0x8040u | 0x4000u;  // denormals flushed, rounding upwards
  _mm_setcsr(odd);
  const Planes result = flowOf(picture1(), picture2(), quick());
  const unsigned after = _mm_getcsr();
  _mm_setcsr(before);
  EXPECT_EQ(after & 0xE040u, odd & 0xE040u);
  EXPECT_TRUE(exact(result, expected));
#else
  GTEST_SKIP() << "the mode is set on x86-64 only";
#endif
}

TEST(Flow, OfBothDirectionsIsTwoSeparateComputations) {
  const Both flow = bothOf(picture1(), picture2(), quick());
  EXPECT_TRUE(exact(flow.forward, flowOf(picture1(), picture2(), quick())));
  EXPECT_TRUE(exact(flow.backward, flowOf(picture2(), picture1(), quick())));

  const Silence silence;
  const Planes first = render(40, 45, 0, 0), second = render(40, 45, 1, 0);
  CTensor<float> forward, backward;
  tarvo(tensorOf(first), tensorOf(second), forward, backward);  // the default parameters
  EXPECT_TRUE(exact(planesOf(forward), flowOf(first, second)));
}

TEST(Flow, SmoothsTheBackwardDirectionTwice) {
  const Silence silence;
  Parameters p = quick();
  p.sigma = 1.5f;
  const Both flow = bothOf(picture1(), picture2(), p);
  CTensor<float> first = tensorOf(picture1()), second = tensorOf(picture2()), result;
  run(first, second, result, p);
  EXPECT_TRUE(exact(planesOf(result), flow.forward));
  CTensor<float> smooth = tensorOf(picture1());
  NFilter::recursiveSmoothX(smooth, 1.5f);
  NFilter::recursiveSmoothY(smooth, 1.5f);
  EXPECT_TRUE(exact(planesOf(first), planesOf(smooth)));
  run(second, first, result, p);
  EXPECT_TRUE(exact(planesOf(result), flow.backward));
}

TEST(Flow, SmoothsBothPicturesWhereSigmaIsPositiveAndOnlyThere) {
  const Silence silence;
  for (const auto driver : {runFlowGPU, runFlow}) {
    Planes expected;
    for (const float sigma : {0.0f, -2.0f, kNan, 1.5f}) {
      Parameters p = quick();
      p.sigma = sigma;
      CTensor<float> first = tensorOf(picture1()), second = tensorOf(picture2()), flow;
      run(first, second, flow, p, driver);
      if (sigma == 0.0f) expected = planesOf(flow);
      const bool smooth = sigma > 0.0f;
      EXPECT_NE(bool(exact(planesOf(flow), expected)), smooth) << sigma;
      EXPECT_NE(bool(exact(planesOf(first), picture1())), smooth) << sigma;
      EXPECT_NE(bool(exact(planesOf(second), picture2())), smooth) << sigma;
    }
  }
}

TEST(Flow, ReportsItsPhasesInOrderWithTotalsThatGrow) {
  const struct {
    std::string start;
    const double* timer;  // whose value is printed
  } kLines[] = {{"# scales = ", nullptr},
                {"Solver time = ", &timer_solver},
                {"MakeMatrix time = ", &timer_makematrix},
                {"Interp time = ", &timer_interp_warp},
                {"downsampling time = ", &timer_down},
                {"Memcpy time = ", &timer_memcpy1},
                {"Filter time = ", &timer_filter},
                {"HOG time = ", &timer_HOG},
                {"Var time = ", &timer_var},
                {"Total time = ", &timer_total}};
  std::vector<double> before;
  for (const auto& line : kLines) before.push_back(line.timer != nullptr ? *line.timer : 0.0);
  const double memcpyBefore = timer_memcpy;
  const Report report;
  CTensor<float> first = tensorOf(picture1()), second = tensorOf(picture2()), flow;
  Parameters p = quick();
  p.sigma = 1.0f;
  run(first, second, flow, p);
  const std::vector<std::string> lines = report.lines();
  std::size_t at = 0;
  for (std::size_t i = 0; i < before.size(); ++i) {
    const auto& [start, timer] = kLines[i];
    while (at < lines.size() && lines[at].rfind(start, 0) != 0) ++at;
    ASSERT_LT(at, lines.size()) << '"' << start << "\" is missing or out of order";
    if (timer == nullptr) continue;
    EXPECT_GT(*timer, before[i]) << start;
    EXPECT_NEAR(std::stod(lines[at].substr(start.size())), *timer, 1e-6);
  }
  EXPECT_EQ(at, lines.size() - 1);
  EXPECT_GE(timer_memcpy, memcpyBefore);
  EXPECT_GE(timer_total, timer_var);
  EXPECT_TRUE(finish_total.tv_sec > start_total.tv_sec ||
              (finish_total.tv_sec == start_total.tv_sec && finish_total.tv_usec >= start_total.tv_usec));
}

TEST(Flow, AllocatesNothingOnASecondRun) {
  const Silence silence;
  flowOf(picture1(), picture2());
  const NDevice::MemoryUse first = NDevice::memoryUse();
  const long before = allocationCount();
  flowOf(picture1(), picture2());
  const NDevice::MemoryUse second = NDevice::memoryUse();
  EXPECT_EQ(first.inUse, second.inUse);
  EXPECT_EQ(first.kept, second.kept);
  EXPECT_EQ(allocationCount(), before);
}

TEST(Flow, TellsItsProgressAsOneSequenceForBothDirections) {
  const Progress progress;
  bothOf(picture1(), picture2(), quick());
  const auto& calls = progress.calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.size(), static_cast<std::size_t>(calls[0].total));
  EXPECT_EQ(calls.size() % 2, 0u);
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].done, static_cast<int>(i) + 1);
    EXPECT_EQ(calls[i].total, calls[0].total);
  }
  const std::size_t runs = calls.size();
  flowOf(picture1(), picture2(), quick());
  EXPECT_EQ(calls.size(), runs + runs / 2);
  EXPECT_EQ(calls.back().done, calls.back().total);
}

TEST(Flow, RefusesCallsFromItsCallbacksAndWorksAfterwards) {
  const Planes expected = flowOf(picture1(), picture2(), quick());
  const std::size_t inUse = NDevice::memoryUse().inUse;
  const std::function<void()> calls[] = {
      [] { flowOf(picture1(), picture2(), quick()); },
      [] { NDevice::select("cpu"); },
      [] {
        Planes out(3, 3);
        GaussianFilter(out.data(), 3, 3, out.data(), 0, 0, 1.0f);
      },
  };
  for (const auto& call : calls) {
    NReport::progress([&call](int, int) { call(); });
    EXPECT_THROW(flowOf(picture1(), picture2(), quick()), std::logic_error);
    NReport::progress({});
    EXPECT_EQ(NDevice::memoryUse().inUse, inUse);
    EXPECT_TRUE(exact(flowOf(picture1(), picture2(), quick()), expected));
  }
}

TEST(Flow, EndsWithWhatACallbackThrowsAndReleasesEverything) {
  struct Stop {};
  const Planes expected = flowOf(picture1(), picture2(), quick());
  const std::size_t inUse = NDevice::memoryUse().inUse;
  for (int at = 1; at <= 4; ++at) {
    NReport::progress([at](int done, int) {
      if (done == at) throw Stop{};
    });
    EXPECT_THROW(bothOf(picture1(), picture2(), quick()), Stop);
    EXPECT_EQ(NDevice::memoryUse().inUse, inUse);
  }
  NReport::progress({});
  EXPECT_TRUE(exact(flowOf(picture1(), picture2(), quick()), expected));
}

TEST(Flow, OfSeveralThreadsTakesTurns) {
  const Silence silence;
  Planes expected[2][2], results[2][2];  // forward and backward, on the device and mostly on the host
  std::thread threads[2][2];
  const auto flow = [](int k, int host) {
    CTensor<float> a = tensorOf(k == 0 ? picture1() : picture2()),
                   b = tensorOf(k == 0 ? picture2() : picture1());
    CTensor<float> result;
    run(a, b, result, quick(), host != 0 ? runFlow : runFlowGPU);
    return planesOf(result);
  };
  for (int i = 0; i < 4; ++i) expected[i / 2][i % 2] = flow(i / 2, i % 2);
  for (int i = 0; i < 4; ++i) {
    threads[i / 2][i % 2] = std::thread([&, i] {
      for (int repeat = 0; repeat < 3; ++repeat) results[i / 2][i % 2] = flow(i / 2, i % 2);
    });
  }
  for (int i = 0; i < 4; ++i) {
    threads[i / 2][i % 2].join();
    EXPECT_TRUE(exact(results[i / 2][i % 2], expected[i / 2][i % 2])) << i;
  }
}
