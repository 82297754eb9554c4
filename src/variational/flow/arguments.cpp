#include "variational/flow/arguments.h"

#include <tarvo/picture.h>

#include <climits>
#include <cmath>
#include <sstream>
#include <stdexcept>
#include <string>

namespace variational {
namespace {

template <class Value>
[[noreturn]] void refuse(const char* function, const char* what, const char* must, const Value& value) {
  std::ostringstream text;
  text << function << ": " << what << " must be " << must << ", got " << value;
  throw std::invalid_argument(text.str());
}

}  // namespace

void checkPlane(const char* function, const char* what, int height, int width, int planes) {
  constexpr long kPadding = 64;  // a pitch exceeds the width by less
  const long most = INT_MAX / planes;
  if (width < 1 || height < 1) {
    refuse(function, what, "at least 1 x 1", std::to_string(width) + " x " + std::to_string(height));
  }
  if ((static_cast<long>(width) + kPadding) * height > most) {
    refuse(function, what, ("at most about " + std::to_string(most / 1000000) + " million pixels").c_str(),
           std::to_string(width) + " x " + std::to_string(height));
  }
}

void checkSize(const char* function, const char* what, int height, int width, int channels) {
  checkPlane(function, what, height, width);
  if (channels != kPictureChannels) {
    refuse(function, what, "of 3 channels",
           std::to_string(channels) + (channels == 1 ? " channel" : " channels"));
  }
}

void checkWeights(const char* function, const FlowWeights& weights) {
  const auto check = [function](const char* name, float value) {
    if (!(std::isfinite(value) && value >= 0.0f)) refuse(function, name, "finite and not negative", value);
  };
  check("alpha", weights.alpha);
  check("beta", weights.beta);
  check("gamma", weights.gamma);
  if (!(weights.eta > 0.0f && weights.eta < 1.0f)) {
    refuse(function, "eta", "greater than 0 and less than 1", weights.eta);
  }
  if (weights.fixedPointIterations < 0) {
    refuse(function, "fixedPointIterations", "at least 0", weights.fixedPointIterations);
  }
  if (weights.solverIterations < 0 || weights.solverIterations > INT_MAX / 2) {
    refuse(function, "solverIterations", "at least 0 and less than 2^30", weights.solverIterations);
  }
}

}  // namespace variational
