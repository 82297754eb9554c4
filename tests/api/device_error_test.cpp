#include <gtest/gtest.h>
#include <tarvo/tarvo.h>

#include <functional>
#include <regex>
#include <set>

#include "support/library_state.h"
#include "support/scene.h"
#include "support/tolerance.h"

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
std::string failureOf(const Work& work) {
  Planes result;
  return failureOf(work, result);
}

/// What went wrong when call n failed; empty where everything was as it should be. Only a failure that spoils
/// nothing, of a last wait for the device, may go unseen.
std::string faultOfCall(long n, const Work& work, const Planes& expected, std::set<std::string>& labels) {
  const std::size_t before = NDevice::memoryUse().inUse;
  NDevice::failCall(n);
  Planes result;
  const std::string message = failureOf(work, result);
  NDevice::failCall(0);
  Told told;
  if (message.empty()) {
    if (!tolerance::exact(result, expected)) return "the failure went unseen and spoilt the result";
  } else if (const auto known = understood(message, told); !known) {
    return known.message();
  } else {
    labels.insert(told.label);
  }
  if (const std::size_t now = NDevice::memoryUse().inUse; now != before) {
    return std::to_string(now - before) + " bytes kept after: " + message;
  }
  try {
    if (const auto same = tolerance::exact(work(), expected); !same) return std::string(same.message());
  } catch (const DeviceFailure& failure) {
    return "the next call fails with: " + std::string(failure.what()) + " after: " + message;
  }
  return "";
}

/// Fails every device call of `work` in turn. Returns the labels that the messages bore.
std::set<std::string> failEveryCall(const Work& work) {
  const ThrowOnError throwing;
  const Silence silence;
  std::set<std::string> labels;
  work();  // fills the pool, so that later runs make the same calls
  NDevice::failCall(0);
  const Planes expected = work();
  const long calls = NDevice::failCall(0);
  EXPECT_GT(calls, 0);
  int faults = 0;
  for (long n = 1; n <= calls && faults < 8; ++n) {
    const std::string fault = faultOfCall(n, work, expected, labels);
    if (fault.empty()) continue;
    ++faults;
    ADD_FAILURE() << "call " << n << " of " << calls << ": " << fault;
  }
  NDevice::failCall(calls + 1);
  EXPECT_EQ(failureOf(work), "");
  return labels;
}

/// Two levels and the passes at full resolution.
constexpr int kHeight = 30, kWidth = 37;
constexpr float kEta = 0.6f;

Planes runFlow(int h, int w, float eta) {
  CTensor<float> first = tensorOf(render(h, w, 0, 0));
  CTensor<float> second = tensorOf(render(h, w, 1, 0.5));
  CTensor<float> flow;
  runFlowGPU(first, second, flow, 0.0f, 30.0f, 300.0f, 5.0f, eta, 1, 2);
  return planesOf(flow);
}

Planes runHostFlow(decltype(variationalFlow) driver) {
  Planes first = render(kHeight, kWidth, 0, 0);
  Planes second = render(kHeight, kWidth, 1, 0.5);
  Planes matches(kHeight, kWidth, 3, 1.0f);
  Planes flow(kHeight, kWidth, 2);
  const std::size_t n = static_cast<std::size_t>(kHeight) * kWidth;
  driver(first.data(), second.data(), flow.data(), flow.data() + n, matches.data(), matches.data() + n,
         matches.data() + 2 * n, 1, kHeight, kWidth, 3, 0.0f, 30.0f, 300.0f, 5.0f, kEta, 1, 2, 1);
  return flow;
}

}  // namespace

TEST(DeviceErrors, OfAFlowComputationAreSeenReleaseEverythingAndTheNextCallWorks) {
  const std::set<std::string> labels = failEveryCall([] { return runFlow(kHeight, kWidth, kEta); });
  for (const char* label :
       {"", "Input safe", "u,v safe", "Warping safe", "CG", "Inteprolation", "warp over"}) {
    EXPECT_EQ(labels.count(label), 1u) << '"' << label << '"';
  }
}

TEST(DeviceErrors, OfATinyPictureAreSeenReleaseEverythingAndTheNextCallWorks) {
  const std::set<std::string> labels = failEveryCall([] { return runFlow(10, 10, 0.95f); });
  EXPECT_EQ(labels.count("ER"), 1u);
}

TEST(DeviceErrors, OfTheHostArrayRoutinesAreSeenReleaseEverythingAndTheNextCallWorks) {
  failEveryCall([] { return runHostFlow(variationalFlowTarvo); });
  failEveryCall([] { return runHostFlow(variationalFlow); });
  failEveryCall([] {
    Planes image = render(9, 11, 0, 0), warped = render(9, 11, 0.5, 0), valid(9, 11, 1, 1.0f), match(9, 11),
           flow(9, 11, 2);
    NonLinearIteration(image.data(), warped.data(), valid.data(), match.data(), match.data(), match.data(), 1,
                       flow.data(), flow.data() + 99, 9, 11, 30.0f, 300.0f, 5.0f, 2, 3, 1.0f);
    return flow;
  });
  failEveryCall([] {
    Planes matrix(4, 5, 12, 1.0f), rhs(4, 5, 2, 3.0f), flow(4, 5, 2);
    PCG(matrix.data(), rhs.data(), flow.data(), flow.data() + 20, 4, 5, 2);
    return flow;
  });
  failEveryCall([] {
    const Planes first = render(kHeight, kWidth, 0, 0), second = render(kHeight, kWidth, 1, 0);
    Planes field(kHeight, kWidth, 3);
    constexpr std::size_t n = static_cast<std::size_t>(kHeight) * kWidth;
    createAndMatchHOG(first.data(), second.data(), field.data(), field.data() + n, field.data() + 2 * n,
                      kHeight, kWidth, 3);
    return field;
  });
  const std::set<std::string> labels = failEveryCall([] {
    const Planes image = render(12, 13, 0, 0), hog(12, 13, kHogBins), confidence(12, 13);
    Planes field(12, 13, 3);
    HOGMatch(image.data(), image.data(), hog.data(), hog.data(), confidence.data(), field.data(),
             field.data() + 156, field.data() + 312, 13, 12);
    return field;
  });
  for (const char* label : {"2dsum", "energy", "Forward HOG MATCH", "Consistency check"}) {
    EXPECT_EQ(labels.count(label), 1u) << label;
  }
  failEveryCall([] {
    const Planes matrix(4, 5, 12, 1.0f), rhs(4, 5, 2, 3.0f), flow(4, 5, 2);
    return Planes(1, 1, 1, computeResidual(matrix.data(), rhs.data(), flow.data(), flow.data() + 20, 4, 5));
  });
}

TEST(DeviceErrors, OfAWaitAreToldByTheCheckBehindIt) {
  // The result of a wait is not tested: a failure while kernels ran bears the label of the step.
  const std::set<std::string> labels = failEveryCall([] { return runFlow(kHeight, kWidth, kEta); });
  EXPECT_EQ(labels.count("Solve"), 1u);
}

TEST(DeviceErrors, PrintTheirMessageAndEndTheProcessByDefault) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        NDevice::failCall(1);
        runFlow(kHeight, kWidth, kEta);
      },
      testing::ExitedWithCode(1), "Cuda error in file 'tarvo' in line [0-9]+ : out of memory\\.");
  EXPECT_EXIT(
      {
        NDevice::onError([](const std::string&) {});  // a handler that returns changes nothing
        NDevice::failCall(1);
        runFlow(kHeight, kWidth, kEta);
      },
      testing::ExitedWithCode(1), "Cuda error in file 'tarvo' in line [0-9]+ : out of memory\\.");
}

TEST(DeviceErrors, EndOneFlowComputationOnlyOncePerInjection) {
  const ThrowOnError throwing;
  const Silence silence;
  NDevice::failCall(5);
  EXPECT_NE(failureOf([] { return runFlow(kHeight, kWidth, kEta); }), "");
  EXPECT_EQ(failureOf([] { return runFlow(kHeight, kWidth, kEta); }), "");
  NDevice::failCall(5);
  NDevice::failCall(0);
  EXPECT_EQ(failureOf([] { return runFlow(kHeight, kWidth, kEta); }), "");
}
