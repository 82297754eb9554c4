#include "commands/parameters.h"

#include <cctype>
#include <cstdlib>

namespace tool {

namespace {

/// The words of a field's name in small letters, with `between` between them.
std::string words(const std::string& name, char between) {
  std::string result;
  for (const char letter : name) {
    const auto code = static_cast<unsigned char>(letter);
    if (std::isupper(code) != 0) result += between;
    result += static_cast<char>(std::tolower(code));
  }
  return result;
}

}  // namespace

std::string flagOf(const NFlow::Option& option) {
  return "--" + words(option.name, '-');
}

bool isHybrids(const NFlow::Option& option) {
  // It has what a change of the seven parameters alone can change.
  static const NFlow::Options neutral;
  NFlow::Options other;
  static_cast<NFlow::Parameters&>(other) = {-1, -1, -1, -1, -1, -1, -1};
  return NFlow::text(neutral, option) != NFlow::text(other, option);
}

nlohmann::ordered_json parametersAsJson(const NFlow::Options& options, bool hybrid) {
  nlohmann::ordered_json json;
  for (const NFlow::Option& option : NFlow::optionTable()) {
    if (hybrid && !isHybrids(option)) continue;
    const std::string name = words(option.name, '_'), text = NFlow::text(options, option);
    if (std::holds_alternative<NFlow::Solver NFlow::Options::*>(option.field)) {
      json[name] = text;
    } else if (const auto* const whole = std::get_if<int NFlow::Options::*>(&option.field)) {
      json[name] = options.**whole;
    } else {
      json[name] = std::strtod(text.c_str(), nullptr);  // 0.95, not the nearest double to the nearest float
    }
  }
  return json;
}

}  // namespace tool
