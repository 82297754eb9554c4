#pragma once

#include <string>
#include <vector>

/// Standard error: messages and progress. Results go to standard output by std::printf.
namespace tool {

/// Command line that cannot be carried out whatever the files hold; ends the process with status 2.
struct UsageError {
  std::string message;
};

/// How much the user wants to hear.
struct Verbosity {
  bool quiet = false;    ///< errors only; no messages, progress and summaries
  bool verbose = false;  ///< the library's report on standard error
};

/// Sends the library's report to standard error (where files are read: its warnings) or nowhere.
void routeReport(const Verbosity& verbosity, bool computing);

/// Prints "tarvo: MESSAGE" on standard error, unless quiet.
void message(const Verbosity& verbosity, const std::string& text);

/// "640 x 480"
std::string sizeText(int width, int height);

/// A progress bar on standard error while it lives, fed by the library's passes; nothing unless standard
/// error is a terminal and neither quiet nor verbose.
class ProgressBar {
 public:
  ProgressBar(const Verbosity& verbosity, const std::string& label);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

 private:
  bool shown_;
};

}  // namespace tool
