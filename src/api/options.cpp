#include <tarvo/NFlow.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "api/flow_job.h"

// What can be chosen about a computation: names, ranges, presets.

namespace NFlow {
namespace {

constexpr double kInfinite = std::numeric_limits<double>::infinity();

constexpr const char* kSolvers[] = {"conjugate-gradients", "relaxation"};

const std::vector<std::pair<std::string, Options>>& presets() {
  static const auto table = [] {
    Options fast, accurate;
    for (Options* options : {&fast, &accurate}) {  // found by scripts/tune.py
      options->zetaData = 0.5f;
      options->zetaGradient = 0.25f;
      options->edgeScale = 30.0f;
      options->solver = Solver::Relaxation;
      options->alpha = 10.0f;
      options->gamma = 3.0f;
    }
    accurate.sigma = 0.5f;
    accurate.beta = 17.0f;
    accurate.solverIterations = 12;
    accurate.smoothnessEpsilon = 0.01f;
    accurate.coarseSmoothness = 0.43f;
    accurate.medianRadius = 3;
    accurate.finalPasses = 3;
    accurate.matchSupport = 1;
    accurate.matchSizes = 2;
    fast.beta = 40.0f;
    fast.eta = 0.8f;
    fast.fixedPointIterations = 3;
    fast.solverIterations = 20;
    fast.smoothnessEpsilon = 0.02f;
    fast.coarseSmoothness = 0.2f;
    fast.medianRadius = 1;
    fast.finalPasses = 0;
    fast.matchSpacing = 12;
    return std::vector<std::pair<std::string, Options>>{
        {"standard", {}}, {"fast", fast}, {"accurate", accurate}};
  }();
  return table;
}

std::ostringstream plainText() {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text.precision(7);
  return text;
}

bool accepts(const Option& option, float value) {
  const auto number = static_cast<double>(value);
  const bool inside = option.open ? number > option.least && number < option.most
                                  : number >= option.least && number <= option.most;
  return std::isfinite(value) && inside;
}
bool accepts(const Option& option, int value) {
  return value >= option.least && value <= option.most && value % option.step == 0;
}
bool accepts(const Option& /*option*/, Solver value) {
  return value == Solver::ConjugateGradients || value == Solver::Relaxation;
}

template <class Number>
bool parse(const std::string& text, Number& value) {
  std::istringstream stream(text);
  stream.imbue(std::locale::classic());
  stream >> value;
  return !stream.fail() && stream.peek() == std::istringstream::traits_type::eof();
}
bool parse(const std::string& text, Solver& value) {
  const auto* const at = std::find(std::begin(kSolvers), std::end(kSolvers), text);
  value = static_cast<Solver>(at - std::begin(kSolvers));
  return at != std::end(kSolvers);
}

}  // namespace

const std::vector<Option>& optionTable() {
  static const std::vector<Option> table = {
      {"sigma", &Options::sigma, -kInfinite, kInfinite, false, 1,
       "Standard deviation of the smoothing of both pictures beforehand [pixels]; 0 or less: none"},
      {"alpha", &Options::alpha, 0, kInfinite, false, 1, "Weight of the smoothness term"},
      {"beta", &Options::beta, 0, kInfinite, false, 1, "Weight of the descriptor-match term"},
      {"gamma", &Options::gamma, 0, kInfinite, false, 1, "Weight of the gradient-constancy term"},
      {"eta", &Options::eta, 0, 1, true, 1,
       "Size ratio of neighbouring pyramid levels, between 0 and 1 (both excluded)"},
      {"fixedPointIterations", &Options::fixedPointIterations, 0, INT_MAX, false, 1,
       "Outer iterations on each pyramid level"},
      {"solverIterations", &Options::solverIterations, 0, INT_MAX / 2, false, 1,
       "Iterations of the linear solver in each outer iteration, at most; doubled on the last passes"},
      {"zetaData", &Options::zetaData, 0, kInfinite, false, 1,
       "Normalised constraints: brightness is divided by |gradient|^2 + zeta^2 instead of |gradient|; 0: "
       "off"},
      {"zetaGradient", &Options::zetaGradient, 0, kInfinite, false, 1,
       "The same for gradients; 0 if and only if the other is 0"},
      {"edgeScale", &Options::edgeScale, 0, kInfinite, false, 1,
       "Height of the edges of the first picture where smoothness falls off [grey levels]; 0: nowhere"},
      {"smoothnessEpsilon", &Options::smoothnessEpsilon, 0.0001, 1, false, 1,
       "Flow gradients below this cost their square, above it themselves"},
      {"coarseSmoothness", &Options::coarseSmoothness, 0, 4, false, 1,
       "Alpha is multiplied by eta^(level * this): less smoothness at coarse levels; 0: alpha everywhere"},
      {"medianRadius", &Options::medianRadius, 0, 4, false, 1,
       "Radius of the weighted median of the flow at full resolution [pixels]; 0: none"},
      {"finalPasses", &Options::finalPasses, 0, 1000, false, 1,
       "Passes at full resolution after the pyramid, without matches"},
      {"matchSpacing", &Options::matchSpacing, 4, 64, false, 4, "Pixels between searched grid points"},
      {"matchSupport", &Options::matchSupport, 0, 24, false, 1,
       "Matches that move alike, of the 24 grid points around, that a match needs to count"},
      {"matchSizes", &Options::matchSizes, 1, 4, false, 1,
       "Sizes of the pictures that are matched: full, half, quarter ...; each doubles the reach of 80 "
       "pixels"},
      {"solver", &Options::solver, 0, 1, false, 1, "Solver of the linear systems"},
      {"leastSide", &Options::leastSide, 1, kInfinite, false, 1,
       "About the shorter side of the coarsest pyramid level [pixels]"},
  };
  return table;
}

std::string allowed(const Option& option) {
  if (std::holds_alternative<Solver Options::*>(option.field)) {
    return std::string(kSolvers[0]) + " or " + kSolvers[1];
  }
  std::ostringstream words = plainText();
  const bool whole = std::holds_alternative<int Options::*>(option.field);
  if (option.open) {
    words << "between " << option.least << " and " << option.most;
  } else if (option.least == -kInfinite) {
    words << "a finite number";
  } else {
    words << (whole ? "a whole number from " : "a number from ") << option.least;
    if (option.most >= INT_MAX) {
      words << " up";
    } else {
      words << " to " << static_cast<long>(option.most);
    }
    if (option.step > 1) words << ", a multiple of " << option.step;
  }
  return words.str();
}

std::string text(const Options& options, const Option& option) {
  std::ostringstream words = plainText();
  if (const auto* const solver = std::get_if<Solver Options::*>(&option.field)) {
    const auto index = static_cast<std::size_t>(options.**solver);
    words << (index < std::size(kSolvers) ? kSolvers[index] : "another");
  } else if (const auto* const number = std::get_if<float Options::*>(&option.field)) {
    words << options.**number;
  } else {
    words << options.*std::get<int Options::*>(option.field);
  }
  return words.str();
}

void set(Options& options, const Option& option, const std::string& value) {
  std::visit(
      [&](auto field) {
        auto parsed = options.*field;
        if (!parse(value, parsed) || !accepts(option, parsed)) {
          throw std::invalid_argument(value + " is not " + allowed(option));
        }
        options.*field = parsed;
      },
      option.field);
}

Options preset(const std::string& name) {
  std::string names;
  for (const auto& [known, options] : presets()) {
    if (known == name) return options;
    names += (names.empty() ? "" : ", ") + known;
  }
  throw std::invalid_argument("NFlow::preset: name must be one of " + names + ", got " + name);
}

std::vector<std::string> presetNames() {
  std::vector<std::string> names;
  for (const auto& preset : presets()) names.push_back(preset.first);
  return names;
}

}  // namespace NFlow

void api::checkOptions(const char* function, const NFlow::Options& options) {
  for (const NFlow::Option& option : NFlow::optionTable()) {
    const bool good =
        std::visit([&](auto field) { return NFlow::accepts(option, options.*field); }, option.field);
    if (good) continue;
    throw std::invalid_argument(std::string(function) + ": " + option.name + " must be " +
                                NFlow::allowed(option) + ", got " + NFlow::text(options, option));
  }
  if ((options.zetaData > 0.0f) != (options.zetaGradient > 0.0f)) {
    std::ostringstream words = NFlow::plainText();
    words << function << ": zetaData and zetaGradient must both be 0 or both be above 0, got "
          << options.zetaData << " and " << options.zetaGradient;
    throw std::invalid_argument(words.str());
  }
}
