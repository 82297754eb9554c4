#include <tarvo/tarvo.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "commands/commands.h"

namespace tool {

void info(const InfoOptions& options) {
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
