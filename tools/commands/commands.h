#pragma once

#include <tarvo/NFlow.h>

#include <CLI/CLI.hpp>
#include <string>

#include "commands/console.h"
#include "flow_picture/flow_picture.h"

namespace CLI {
class App;
}

/// The commands behind the command line, one file each. They print results on standard output and throw
/// UsageError for arguments that can't go together and std::exception for what fails while running.
namespace tool {

struct FlowOptions {
  std::string frame1, frame2;
  std::string output;     ///< flow from frame 1 to frame 2
  std::string backward;   ///< flow from frame 2 to frame 1, unless empty
  std::string colour;     ///< colour picture of the forward flow, unless empty
  std::string matches;    ///< table of the forward matches, unless empty
  std::string occlusion;  ///< picture of what is hidden in frame 2, unless empty
  std::string masks[2];   ///< pictures of what is to be ignored in either frame, unless empty
  bool noMatches = false;
  bool hybrid = false;  ///< runFlow instead of NFlow::compute
  std::string preset = "standard";
  NFlow::Options parameters;  ///< of the preset, with what was chosen besides
  std::string device = "auto";
  int threads = 0;  ///< 0: the library's default
  bool json = false;
};
void flow(const FlowOptions& options, const Verbosity& verbosity);

struct EvalOptions {
  std::string flow, reference;
  bool json = false;
};
void eval(const EvalOptions& options, const Verbosity& verbosity);

struct ColorOptions {
  std::string flow, output;
  Wheel wheel = Wheel::Standard;
  std::string maxMotion = "auto";  ///< a number [pixels], "longest" or "auto", the usual motion
  bool legend = false;
  int arrows = 0;    ///< pixels from one to the next; 0: none
  std::string over;  ///< picture that is under the arrows instead of the colours, unless empty
};
void color(const ColorOptions& options, const Verbosity& verbosity);

struct SynthOptions {
  std::string scene, folder;
  int width = 640, height = 480;
  unsigned seed = 1;
  int frames = 0;  ///< of a sequence; 0: the two of a pair
};
void synth(const SynthOptions& options, const Verbosity& verbosity);

struct CheckOptions {
  std::string frame;
  std::string device = "auto";
};
void check(const CheckOptions& options, const Verbosity& verbosity);

struct InfoOptions {
  bool presets = false;
  bool json = false;
};
void info(const InfoOptions& options);

/// Commands that declare themselves: each adds its subcommand, which runs when it is parsed.
void addSequence(CLI::App& app, Verbosity& verbosity);
void addStatus(CLI::App& app, Verbosity& verbosity);
void addConvert(CLI::App& app, Verbosity& verbosity);
void addWarp(CLI::App& app, Verbosity& verbosity);

}  // namespace tool
