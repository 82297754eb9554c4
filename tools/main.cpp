#include "command_line.h"

int main(int argc, char** argv) {
  return tool::runCommandLine(argc, argv);
}
