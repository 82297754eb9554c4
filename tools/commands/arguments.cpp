#include "commands/arguments.h"

#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "commands/parameters.h"

namespace tool {

namespace {

std::string checkDevice(const std::string& text) {
  const bool plain = text == "auto" || text == "cpu" || text == "cuda";
  const bool numbered = text.rfind("cuda:", 0) == 0 && text.size() > 5 && text.size() < 9 &&
                        text.find_first_not_of("0123456789", 5) == std::string::npos;
  return plain || numbered ? std::string() : text + " is not auto, cpu, cuda or cuda:N (N up to 999)";
}

CLI::Validator accepted(const NFlow::Option& option) {
  return CLI::Validator(
      [&option](const std::string& text) {
        try {
          NFlow::Options scratch;
          NFlow::set(scratch, option, text);
          return std::string();
        } catch (const std::invalid_argument& error) {
          return std::string(error.what());
        }
      },
      "");
}

const char* typeNameOf(const NFlow::Option& option) {
  if (std::holds_alternative<float NFlow::Options::*>(option.field)) return "NUMBER";
  return std::holds_alternative<int NFlow::Options::*>(option.field) ? "COUNT" : "NAME";
}

}  // namespace

CLI::Validator numberThat(bool (*accepts)(float), const std::string& wanted) {
  return CLI::Validator(
      [accepts, wanted](const std::string& text) {
        char* end = nullptr;
        const float value = std::strtof(text.c_str(), &end);
        const bool good = !text.empty() && *end == '\0' && std::isfinite(value) && accepts(value);
        return good ? std::string() : text + " is not " + wanted;
      },
      "");
}

CLI::Validator wholeNumber(long lowest, long highest) {
  const std::string wanted = highest < 2147483647 ? "a whole number from " + std::to_string(lowest) + " to " +
                                                        std::to_string(highest)
                                                  : "a whole number from " + std::to_string(lowest) + " up";
  return CLI::Validator(
      [=](std::string& text) {
        char* end = nullptr;
        const long value = std::strtol(text.c_str(), &end, 10);
        const bool good = !text.empty() && *end == '\0' && value >= lowest && value <= highest;
        if (!good) return text + " is not " + wanted;
        text = std::to_string(value);
        return std::string();
      },
      "");
}

void addVerbosity(CLI::App& app, Verbosity& verbosity) {
  app.add_flag("-q,--quiet", verbosity.quiet,
               "No progress, messages and summaries, only errors and the figures asked for");
  app.add_flag("-v,--verbose", verbosity.verbose,
               "The library's own report on standard error (without effect beside -q)");
}

void addParameters(CLI::App& command, std::string& preset, Choices& choices) {
  command
      .add_option("--preset", preset,
                  "Where the parameters start from; 'tarvo info --presets' shows their values")
      ->check(CLI::IsMember(NFlow::presetNames()))
      ->capture_default_str()
      ->group("Parameters")
      ->type_name("NAME");
  for (const NFlow::Option& option : NFlow::optionTable()) {
    command
        .add_option_function<std::string>(
            flagOf(option),
            [&choices, &option](const std::string& text) { choices.emplace_back(&option, text); },
            option.text)
        ->check(accepted(option))
        ->default_str(NFlow::text({}, option))
        ->group("Parameters")
        ->type_name(typeNameOf(option));
  }
}

NFlow::Options parametersOf(const std::string& preset, const Choices& choices) {
  NFlow::Options parameters = NFlow::preset(preset);
  for (const auto& [option, text] : choices) NFlow::set(parameters, *option, text);
  return parameters;
}

void addDevice(CLI::App& command, std::string& device) {
  command.add_option("--device", device, "Where to compute: auto, cpu, cuda or cuda:N")
      ->check(CLI::Validator(checkDevice, ""))
      ->capture_default_str()
      ->type_name("DEVICE");
}

void addColours(CLI::App& command, Wheel& wheel, std::string& maxMotion, const std::string& words,
                CLI::Option* needed) {
  CLI::Option* const wheelOption =
      command
          .add_option_function<std::string>(
              "--wheel", [&wheel](const std::string& name) { wheel = wheelNamed(name); },
              "Which colours: standard or dark")
          ->check(CLI::IsMember({"standard", "dark"}))
          ->default_str(nameOf(wheel))
          ->type_name("NAME");
  CLI::Option* const motionOption =
      command.add_option("--max-motion", maxMotion, "Motion with full colours [pixels]; " + words)
          ->check(CLI::IsMember({"auto", "longest"}) |
                  numberThat([](float value) { return value > 0; }, "auto, longest or a number above 0"))
          ->capture_default_str()
          ->type_name("NUMBER");
  if (needed) {
    wheelOption->needs(needed);
    motionOption->needs(needed);
  }
}

void addThreads(CLI::App& command, int& threads) {
  command.add_option("--threads", threads, "Threads of the CPU device (default: one per processor)")
      ->transform(wholeNumber(1, 1024))
      ->type_name("COUNT");
}

}  // namespace tool
