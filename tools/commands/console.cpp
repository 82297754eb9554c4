#include "commands/console.h"

#include <tarvo/tarvo.h>
#include <unistd.h>

#include <cstdio>

namespace tool {

namespace {

constexpr int kBarLength = 40;

void drawBar(const std::string& label, int done, int total) {
  const int filled = total > 0 ? kBarLength * done / total : 0;
  std::string bar(static_cast<std::size_t>(filled), '#');
  bar.resize(kBarLength, '.');
  std::fprintf(stderr, "\r%s [%s] %3d %%", label.c_str(), bar.c_str(), total > 0 ? 100 * done / total : 0);
  std::fflush(stderr);
}

}  // namespace

void routeReport(const Verbosity& verbosity, bool computing) {
  if (!verbosity.quiet && (verbosity.verbose || !computing)) {
    NReport::to(stderr);
  } else {
    NReport::silence();
  }
}

void message(const Verbosity& verbosity, const std::string& text) {
  if (!verbosity.quiet) {
    std::fprintf(stderr, "tarvo: %s\n", text.c_str());
  }
}

std::string sizeText(int width, int height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

ProgressBar::ProgressBar(const Verbosity& verbosity, const std::string& label)
    : shown_(!verbosity.quiet && !verbosity.verbose && isatty(STDERR_FILENO) == 1) {
  if (shown_) {
    drawBar(label, 0, 1);
    NReport::progress([label](int done, int total) { drawBar(label, done, total); });
  }
}

ProgressBar::~ProgressBar() {
  if (shown_) {
    NReport::progress({});
    std::fprintf(stderr, "\r\033[K");  // back to the start of the line and clear it
    std::fflush(stderr);
  }
}

}  // namespace tool
