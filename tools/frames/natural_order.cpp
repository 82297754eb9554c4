#include "frames/natural_order.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <utility>

namespace tool {

namespace {

bool isDigit(char letter) {
  return std::isdigit(static_cast<unsigned char>(letter)) != 0;
}

/// The digits from `at` on, without leading zeros; `at` goes behind them.
std::string digitsFrom(const std::string& text, std::size_t& at) {
  const std::size_t start = at;
  while (at < text.size() && isDigit(text[at])) ++at;
  const std::size_t first = std::min(text.find_first_not_of('0', start), at);
  return text.substr(first, at - first);
}

/// A name around its last number: "shot_12_v007a" is "shot_12_v", 7, "a".
struct Numbered {
  std::string before, after;
  std::int64_t number;
};

bool split(const std::string& name, Numbered& parts) {
  std::size_t end = name.size();
  while (end > 0 && !isDigit(name[end - 1])) --end;
  std::size_t start = end;
  while (start > 0 && isDigit(name[start - 1])) --start;
  constexpr std::size_t kMostDigits = 18;
  if (start == end || end - start > kMostDigits) return false;
  parts = {name.substr(0, start), name.substr(end), std::atoll(name.substr(start, end - start).c_str())};
  return true;
}

/// The numbers of names that differ in nothing else; empty for others.
std::vector<std::int64_t> numbersOf(const std::vector<std::string>& names) {
  std::vector<std::int64_t> numbers;
  Numbered first, parts;
  for (const std::string& name : names) {
    if (!split(name, parts)) return {};
    if (numbers.empty()) first = parts;
    if (parts.before != first.before || parts.after != first.after) return {};
    if (!numbers.empty() && parts.number <= numbers.back()) return {};
    numbers.push_back(parts.number);
  }
  return numbers;
}

std::int64_t mostFrequentStep(const std::vector<std::int64_t>& numbers) {
  std::map<std::int64_t, long> counts;
  for (std::size_t k = 1; k < numbers.size(); ++k) ++counts[numbers[k] - numbers[k - 1]];
  const auto fewer = [](const auto& a, const auto& b) { return a.second < b.second; };
  return std::max_element(counts.begin(), counts.end(), fewer)->first;
}

}  // namespace

bool naturallyBefore(const std::string& a, const std::string& b) {
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (isDigit(a[i]) && isDigit(b[j])) {
      const std::string left = digitsFrom(a, i), right = digitsFrom(b, j);
      if (left.size() != right.size()) return left.size() < right.size();
      if (left != right) return left < right;
    } else {
      if (a[i] != b[j]) return a[i] < b[j];
      ++i;
      ++j;
    }
  }
  const std::size_t restA = a.size() - i, restB = b.size() - j;
  return restA != restB ? restA < restB : a < b;
}

std::string missingNumbers(const std::vector<std::string>& names) {
  const std::vector<std::int64_t> numbers = numbersOf(names);
  if (numbers.size() < 3) return "";
  const std::int64_t step = mostFrequentStep(numbers);
  std::string text;
  for (std::size_t k = 1; k < numbers.size(); ++k) {
    const std::int64_t from = numbers[k - 1] + step, to = numbers[k] - step;
    if (from > to) continue;
    text += (text.empty() ? "" : ", ") + std::to_string(from);
    if (to > from) text += "-" + std::to_string(to);
  }
  return text;
}

}  // namespace tool
