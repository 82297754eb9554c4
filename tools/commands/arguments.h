#pragma once

#include <tarvo/NFlow.h>

#include <CLI/CLI.hpp>
#include <string>
#include <utility>
#include <vector>

#include "commands/console.h"
#include "flow_picture/flow_picture.h"

/// What several commands' command lines share.
namespace tool {

/// Accepts what a float can hold and `accepts` takes; says otherwise what `wanted` is.
CLI::Validator numberThat(bool (*accepts)(float), const std::string& wanted);

/// Accepts a whole number from `lowest` to `highest`, and hands it on without leading zeros, which the later
/// conversion would take for octal.
CLI::Validator wholeNumber(long lowest, long highest);

void addVerbosity(CLI::App& app, Verbosity& verbosity);
void addDevice(CLI::App& command, std::string& device);
void addThreads(CLI::App& command, int& threads);

/// --wheel and --max-motion.
/// @param words   what auto and longest stand for
/// @param needed  an option without which these have no meaning, or null
void addColours(CLI::App& command, Wheel& wheel, std::string& maxMotion, const std::string& words,
                CLI::Option* needed = nullptr);

/// A value of an option as the user wrote it.
using Choices = std::vector<std::pair<const NFlow::Option*, std::string>>;

/// --preset and an option for each line of NFlow::optionTable. Both are filled when the line is parsed, and must
/// live until then.
void addParameters(CLI::App& command, std::string& preset, Choices& choices);
/// The preset's parameters with the choices.
NFlow::Options parametersOf(const std::string& preset, const Choices& choices);

}  // namespace tool
