#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// A folder of its own for a test, removed with everything in it at the end.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string path(const std::string& name) const { return (folder_ / name).string(); }
  /// Names of everything in it, also hidden files, sorted.
  std::vector<std::string> names() const;

 private:
  std::filesystem::path folder_;
};

std::string readText(const std::string& path);
void writeText(const std::string& path, const std::string& text);

struct Outcome {
  int status;  ///< exit status, or minus the signal that ended the program
  std::string out, err;
};

/// Runs a program without standard input and waits for it.
Outcome runProgram(const std::vector<std::string>& words);
/// Runs the command-line tool.
Outcome runTool(std::vector<std::string> arguments);
