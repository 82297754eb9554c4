#pragma once

#include <string>
#include <utility>
#include <vector>

namespace bench {

/// What a figure depends on besides the library: one (name, text) pair each for the day, the processor, how
/// many of them this process may use, the caches, the compiler, the library's version and the device that it
/// runs on.
std::vector<std::pair<std::string, std::string>> describeMachine();

/// Runnable processes, mean of the last minute; above 0.5 at the start, others share the machine. Negative
/// where unknown.
double loadAverage();

/// Largest memory of the process [bytes] since the last resetPeakMemory() that had an effect, else since its
/// start.
double peakMemory();
void resetPeakMemory();

/// Median of the values; 0 for none.
double median(std::vector<double> values);
/// (largest - smallest) / median; 0 for fewer than two values or a median of 0.
double spread(const std::vector<double>& values);
/// The spread in per cent; "-" for fewer than two values.
std::string spreadText(const std::vector<double>& values);

/// `text` as a JSON string, quotes included.
std::string quoted(const std::string& text);
/// printf into a string.
__attribute__((format(printf, 1, 2))) std::string format(const char* pattern, ...);

/// Writes a whole file; throws std::runtime_error naming it.
void writeFile(const std::string& path, const std::string& text);

}  // namespace bench
