#include "commands/sequence_report.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>

namespace tool {

namespace {

const char* wordFor(PairReport::State state) {
  if (state == PairReport::State::Done) return "done";
  return state == PairReport::State::Skipped ? "skipped" : "failed";
}

/// "1:02:03", "2:03" or "3 s".
std::string durationText(double seconds) {
  const long whole = std::lround(seconds);
  char text[40];
  if (whole >= 3600) {
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
  } else if (whole >= 60) {
    std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%ld s", whole);
  }
  return text;
}

}  // namespace

SequenceReport::SequenceReport(const Verbosity& verbosity, bool json, long pairs, bool nameClips)
    : verbosity_(verbosity),
      json_(json),
      nameClips_(nameClips),
      bar_(!verbosity.quiet && !verbosity.verbose && isatty(STDERR_FILENO) == 1),
      pairs_(pairs) {}

double SequenceReport::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void SequenceReport::drawBar() const {
  constexpr int kLength = 30;
  const long over = done_ + skipped_ + failed_;
  const double rate = static_cast<double>(done_ + failed_) / seconds();  // what is skipped takes no time
  if (pairs_ < 0) {
    std::fprintf(stderr, "\r\033[K%ld pairs, %.2f per second", over, rate);
  } else {
    const int filled = static_cast<int>(kLength * over / (pairs_ > 0 ? pairs_ : 1));
    const std::string left =
        rate > 0 ? ", " + durationText(static_cast<double>(pairs_ - over) / rate) + " left" : "";
    std::fprintf(stderr, "\r\033[K[%s%s] %ld of %ld pairs, %.2f per second%s",
                 std::string(static_cast<std::size_t>(filled), '#').c_str(),
                 std::string(static_cast<std::size_t>(kLength - filled), '.').c_str(), over, pairs_, rate,
                 left.c_str());
  }
  std::fflush(stderr);
}

void SequenceReport::add(const PairReport& pair) {
  ++(pair.state == PairReport::State::Done      ? done_
     : pair.state == PairReport::State::Skipped ? skipped_
                                                : failed_);
  if (pair.record.value("cut", false)) ++cuts_;
  if (pair.state == PairReport::State::Failed) {
    std::fprintf(stderr, "%starvo: %spair %ld: %s\n", bar_ ? "\r\033[K" : "",
                 nameClips_ ? (clip_ + ": ").c_str() : "", pair.pair,
                 pair.record.at("error").get<std::string>().c_str());
  }
  if (json_) {
    Json line;
    if (nameClips_) line["clip"] = clip_;
    line.update(pair.record);
    line["state"] = wordFor(pair.state);
    line["seconds"] = pair.seconds;
    std::fputs(lineOf(line).c_str(), stdout);
    std::fflush(stdout);
  }
  if (bar_) drawBar();
}

void SequenceReport::finish() {
  if (bar_) std::fputs("\r\033[K", stderr);
  const double time = seconds();
  if (json_) {
    const Json summary{{"pairs", done_ + skipped_ + failed_},
                       {"done", done_},
                       {"skipped", skipped_},
                       {"failed", failed_},
                       {"cuts", cuts_},
                       {"seconds", time}};
    std::fputs(lineOf({{"summary", summary}}).c_str(), stdout);
  } else if (!verbosity_.quiet) {
    std::printf("%ld pairs in %s: %ld computed, %ld there already, %ld failed, %ld cuts\n",
                done_ + skipped_ + failed_, durationText(time).c_str(), done_, skipped_, failed_, cuts_);
  }
}

}  // namespace tool
