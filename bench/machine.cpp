#include "machine.h"

#include <sched.h>
#include <sys/resource.h>
#include <tarvo/NDevice.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <stdexcept>

namespace bench {
namespace {

std::string firstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string processor() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    const std::size_t colon = line.find(": ");
    if (line.compare(0, 10, "model name") == 0 && colon != std::string::npos) return line.substr(colon + 2);
  }
  return "unknown";
}

int processors() {
  cpu_set_t set;
  return sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 0;
}

std::string caches() {
  std::string text;
  for (int index = 0; index < 8; ++index) {
    const std::string folder = format("/sys/devices/system/cpu/cpu0/cache/index%d/", index);
    const std::string type = firstLine(folder + "type");
    if (type.empty() || type == "Instruction") continue;
    text += (text.empty() ? "L" : ", L") + firstLine(folder + "level") + " " + firstLine(folder + "size");
    text += " (processors " + firstLine(folder + "shared_cpu_list") + ")";
  }
  return text.empty() ? "unknown" : text;
}

std::string today() {
  const std::time_t now = std::time(nullptr);
  std::tm day{};
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d", gmtime_r(&now, &day));
  return text;
}

std::string compiler() {
#if defined(__clang__)
  return "clang++ " __clang_version__;
#else
  return "g++ " __VERSION__;
#endif
}

}  // namespace

std::vector<std::pair<std::string, std::string>> describeMachine() {
  return {{"day", today()},
          {"processor", processor()},
          {"processors", std::to_string(processors())},
          {"cache sizes", caches()},
          {"compiler", compiler()},
          {"tarvo", NDevice::version()},
          {"device", NDevice::current()}};
}

double loadAverage() {
  double load = -1.0;
  return getloadavg(&load, 1) == 1 ? load : -1.0;
}

double peakMemory() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) * 1024.0;
}

void resetPeakMemory() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

double median(std::vector<double> values) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const std::size_t half = values.size() / 2;
  return values.size() % 2 == 1 ? values[half] : 0.5 * (values[half - 1] + values[half]);
}

double spread(const std::vector<double>& values) {
  const double middle = median(values);
  if (values.size() < 2 || middle == 0.0) return 0.0;
  const auto ends = std::minmax_element(values.begin(), values.end());
  return (*ends.second - *ends.first) / middle;
}

std::string spreadText(const std::vector<double>& values) {
  return values.size() < 2 ? "-" : format("%.0f %%", 100.0 * spread(values));
}

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
  }
  return out + "\"";
}

std::string format(const char* pattern, ...) {
  char text[1024];
  va_list arguments;
  va_start(arguments, pattern);
  std::vsnprintf(text, sizeof text, pattern, arguments);
  va_end(arguments);
  return text;
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file.flush()) throw std::runtime_error("could not write " + path);
}

}  // namespace bench
