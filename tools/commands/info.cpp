#include <tarvo/tarvo.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "commands/commands.h"
#include "commands/parameters.h"

namespace tool {

namespace {

/// A line for each option, a column for each preset.
void printPresets() {
  std::printf("%-23s", "");
  for (const std::string& name : NFlow::presetNames()) std::printf("  %19s", name.c_str());
  std::printf("\n");
  for (const NFlow::Option& option : NFlow::optionTable()) {
    std::printf("%-23s", flagOf(option).c_str());
    for (const std::string& name : NFlow::presetNames()) {
      std::printf("  %19s", NFlow::text(NFlow::preset(name), option).c_str());
    }
    std::printf("\n");
  }
}

nlohmann::ordered_json presetsAsJson() {
  nlohmann::ordered_json json;
  for (const std::string& name : NFlow::presetNames()) json[name] = parametersAsJson(NFlow::preset(name));
  return json;
}

}  // namespace

void info(const InfoOptions& options) {
  if (options.presets) {
    if (options.json) {
      std::printf("%s\n", presetsAsJson().dump(2).c_str());
    } else {
      printPresets();
    }
    return;
  }
  if (options.json) {
    const nlohmann::ordered_json json{{"version", NDevice::version()},
                                      {"device", NDevice::current()},
                                      {"devices", NDevice::devices()},
                                      {"instruction_set", NDevice::instructionSet()},
                                      {"threads", NDevice::threads()}};
    std::printf("%s\n", json.dump(2).c_str());
    return;
  }
  std::printf("tarvo %s\n", NDevice::version().c_str());
  std::printf("runs on              %s\n", NDevice::current().c_str());
  std::printf("vector instructions  %s\n", NDevice::instructionSet().c_str());
  std::printf("threads of the CPU   %d\n", NDevice::threads());
  std::printf("devices\n");
  for (const std::string& device : NDevice::devices()) {
    std::printf("  %s\n", device.c_str());
  }
}

}  // namespace tool
