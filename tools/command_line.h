#pragma once

namespace tool {

/// Reads the command line and carries it out. Returns the exit status: 0 success, 1 failure while running, 2
/// wrong usage. Errors are on standard error.
int runCommandLine(int argc, char** argv);

}  // namespace tool
