#include <tarvo/tarvo.h>

#include <functional>
#include <regex>
#include <set>

#include "support/test.h"

namespace {

using Work = std::function<Planes()>;

/// What a message says: its label (empty for a failed call) and unit.
struct Told {
  std::string label, unit;
};

testing::AssertionResult understood(const std::string& message, Told& told) {
  static const std::regex kCall("Cuda error in file '(\\w+)' in line [1-9][0-9]* : [^\\n]+\\.\\n");
  static const std::regex kLaunch(
      "Cuda error: ([^\\n]+) in file '(\\w+)' in line [1-9][0-9]* : [^\\n]+\\.\\n");
  static const std::set<std::string> kUnits{"OpticalFlowGPU", "Filters", "solvers", "HOGMatch", "tarvo"};
  std::smatch parts;
  if (std::regex_match(message, parts, kCall)) {
    told = {"", parts[1]};
  } else if (std::regex_match(message, parts, kLaunch)) {
    told = {parts[1], parts[2]};
  } else {
    return testing::AssertionFailure() << "unknown form: " << message;
  }
  if (kUnits.count(told.unit) == 0) return testing::AssertionFailure() << "unknown unit: " << message;
  return testing::AssertionSuccess();
}

/// The message with which `work` fails, or nothing; then its result is in `result`.
std::string failureOf(const Work& work, Planes& result) {
  try {
    result = work();
  } catch (const DeviceFailure& failure) {
    return failure.what();
  }
  return "";
}

/// What went wrong when call n failed; empty where everything was as it should be. Only a failure that spoils
/// nothing, of a last wait for the device, may go unseen.
std::string faultOfCall(long n, const Work& work, const Planes& expected, std::set<std::string>& said) {
  const std::size_t before = NDevice::memoryUse().inUse;
  NDevice::failCall(n);
  Planes result;
  const std::string message = failureOf(work, result);
  NDevice::failCall(0);
  Told told;
  if (message.empty()) {
    if (!exact(result, expected)) return "the failure went unseen and spoilt the result";
  } else if (const auto known = understood(message, told); !known) {
    return known.message();
  } else {
    said.insert({told.label, told.unit});
  }
  if (const std::size_t now = NDevice::memoryUse().inUse; now != before) {
    return std::to_string(now - before) + " bytes kept after: " + message;
  }
  try {
    if (const auto same = exact(work(), expected); !same) return std::string(same.message());
  } catch (const DeviceFailure& failure) {
    return "the next call fails with: " + std::string(failure.what()) + " after: " + message;
  }
  return "";
}

/// Fails every device call of `work` in turn. Returns the labels and units that the messages bore.
std::set<std::string> failEveryCall(const Work& work) {
  const ThrowOnError throwing;
  const Silence silence;
  std::set<std::string> said;
  work();  // fills the pool, so that later runs make the same calls
  NDevice::failCall(0);
  const Planes expected = work();
  const long calls = NDevice::failCall(0);
  EXPECT_GT(calls, 0);
  int faults = 0;
  for (long n = 1; n <= calls && faults < 8; ++n) {
    const std::string fault = faultOfCall(n, work, expected, said);
    if (fault.empty()) continue;
    ++faults;
    ADD_FAILURE() << "call " << n << " of " << calls << ": " << fault;
  }
  NDevice::failCall(calls + 1);
  EXPECT_TRUE(exact(work(), expected));
  return said;
}

/// Of two levels and the passes at full resolution.
constexpr int kHeight = 30, kWidth = 37;

Planes flowBy(decltype(runFlowGPU) driver, int h = kHeight, int w = kWidth, float eta = 0.6f) {
  CTensor<float> first = tensorOf(render(h, w, 0, 0)), second = tensorOf(render(h, w, 1, 0.5));
  CTensor<float> flow(2, 2, 1, 7.0f);
  try {
    driver(first, second, flow, 0.0f, 30.0f, 300.0f, 5.0f, eta, 1, 2);
  } catch (const DeviceFailure&) {
    EXPECT_TRUE(driver == runFlowGPU || exact(planesOf(flow), Planes(2, 2, 1, 7.0f)))
        << "runFlow leaves it alone";
    throw;
  }
  return planesOf(flow);
}

Planes hostArrayFlowBy(decltype(variationalFlow) driver) {
  Planes first = render(kHeight, kWidth, 0, 0), second = render(kHeight, kWidth, 1, 0.5);
  Planes matches(kHeight, kWidth, 3, 1.0f), flow(kHeight, kWidth, 2);
  const std::size_t n = static_cast<std::size_t>(kHeight) * kWidth;
  driver(first.data(), second.data(), flow.data(), flow.data() + n, matches.data(), matches.data() + n,
         matches.data() + 2 * n, 1, kHeight, kWidth, 3, 0.0f, 30.0f, 300.0f, 5.0f, 0.6f, 1, 2, 1);
  return flow;
}

/// What must be among the labels and units of the messages.
void expectSaid(const std::set<std::string>& wanted, const Work& work) {
  const std::set<std::string> said = failEveryCall(work);
  for (const std::string& text : wanted) EXPECT_EQ(said.count(text), 1u) << '"' << text << '"';
}

}  // namespace

// Every failing call is seen and releases everything, and the next computation works.

TEST(DeviceErrors, OfFlowComputations) {
  // The result of a wait is not tested: a failure while kernels ran bears the label of the step.
  expectSaid({"", "Input safe", "u,v safe", "Warping safe", "CG", "Inteprolation", "warp over", "Solve"},
             [] { return flowBy(runFlowGPU); });
  expectSaid({"ER"}, [] { return flowBy(runFlowGPU, 10, 10, 0.95f); });
}

TEST(DeviceErrors, OfFlowComputationsMostlyOnTheHost) {
  expectSaid({}, [] { return flowBy(runFlow); });
}

TEST(DeviceErrors, OfFlowComputationsOfHostArrays) {
  expectSaid({}, [] { return hostArrayFlowBy(variationalFlowTarvo); });
  expectSaid({}, [] { return hostArrayFlowBy(variationalFlow); });
}

TEST(DeviceErrors, OfTheHostArrayRoutinesOfSolvers) {
  expectSaid({}, [] {
    Planes image = render(9, 11, 0, 0), warped = render(9, 11, 0.5, 0), valid(9, 11, 1, 1.0f), match(9, 11),
           flow(9, 11, 2);
    NonLinearIteration(image.data(), warped.data(), valid.data(), match.data(), match.data(), match.data(), 1,
                       flow.data(), flow.data() + 99, 9, 11, 30.0f, 300.0f, 5.0f, 2, 3, 1.0f);
    return flow;
  });
  static const Planes matrix(4, 5, 12, 1.0f), rhs(4, 5, 2, 3.0f);
  expectSaid({}, [] {
    Planes flow(4, 5, 2);
    PCG(matrix.data(), rhs.data(), flow.data(), flow.data() + 20, 4, 5, 2);
    return flow;
  });
  expectSaid({"", "SOR", "OpticalFlowGPU"}, [] {
    Planes flow(4, 5, 2);
    SORIterations(matrix.data(), rhs.data(), flow.data(), flow.data() + 20, flow.data(), 4, 5, 1.85f, 2);
    return flow;
  });
  expectSaid({}, [] {
    const Planes flow(4, 5, 2);
    return Planes(1, 1, 1, computeResidual(matrix.data(), rhs.data(), flow.data(), flow.data() + 20, 4, 5));
  });
}

TEST(DeviceErrors, OfTheHostArrayRoutinesOfMatching) {
  static const Planes image = randomPlanes(21, 37, 3, 40);
  // The CPU's form is one launch under the last label of what it replaces.
  expectSaid({NDevice::kind() == "cpu" ? "box filter only" : "compute hog only"}, [] {
    Planes hog(21, 37, kHogBins);
    ComputeHOGGPU(image.data(), hog.data(), 3, 37, 21);
    return hog;
  });
  expectSaid({"compute conf over"}, [] {
    Planes confidence(21, 37);
    computeConfidenceGPU(image.data(), nullptr, confidence.data(), 21, 37, 3);
    return confidence;
  });
  expectSaid({"energy"}, [] {
    Planes energy(21, 37);
    computeEnergy(image.data(), energy.data(), 21, 37, 3);
    return energy;
  });
  expectSaid({"2dsum"}, [] { return Planes(1, 1, 1, compute2DSum(image.data(), 21, 37)); });
  expectSaid({"Consistency check"}, [] {
    const Planes second = render(kHeight, kWidth, 1, 0);
    Planes field(kHeight, kWidth, 3);
    constexpr std::size_t n = static_cast<std::size_t>(kHeight) * kWidth;
    createAndMatchHOG(second.data(), second.data(), field.data(), field.data() + n, field.data() + 2 * n,
                      kHeight, kWidth, 3);
    return field;
  });
  expectSaid({"2dsum", "energy", "Forward HOG MATCH", "Consistency check"}, [] {
    const Planes hog(12, 13, kHogBins), confidence(12, 13);
    Planes field(12, 13, 3);
    HOGMatch(image.data(), image.data(), hog.data(), hog.data(), confidence.data(), field.data(),
             field.data() + 156, field.data() + 312, 13, 12);
    return field;
  });
}

TEST(DeviceErrors, PrintTheirMessageAndEndTheProcessByDefault) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const bool handled : {false, true}) {
    EXPECT_EXIT(
        {
          if (handled) NDevice::onError([](const std::string&) {});  // a handler that returns changes nothing
          NDevice::failCall(1);
          flowBy(runFlowGPU);
        },
        testing::ExitedWithCode(1), "Cuda error in file 'tarvo' in line [0-9]+ : out of memory\\.");
  }
}
