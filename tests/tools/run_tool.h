#pragma once

#include <string>
#include <vector>

#include "support/files.h"

struct Outcome {
  int status;  ///< exit status, or minus the signal that ended the program
  std::string out, err;
};

/// Runs a program without standard input and waits for it.
Outcome runProgram(const std::vector<std::string>& words);
/// Runs the command-line tool.
Outcome runTool(std::vector<std::string> arguments);
