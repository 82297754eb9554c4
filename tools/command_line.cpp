#include "command_line.h"

#include <tarvo/tarvo.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <vector>

#include "commands/arguments.h"
#include "commands/commands.h"
#include "flow_files/flow_file.h"
#include "synth/scene.h"

namespace tool {

namespace {

enum ExitStatus { kSuccess = 0, kFailure = 1, kWrongUsage = 2 };

constexpr int kLargestSide = 16384;

/// "640x480" in two numbers.
std::string parseSize(const std::string& text, int& width, int& height) {
  char end = '\0';
  const bool good = text.find_first_not_of("0123456789x") == std::string::npos && text.size() < 12 &&
                    std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &end) == 2 && width >= 1 &&
                    height >= 1 && width <= kLargestSide && height <= kLargestSide;
  return good ? std::string()
              : text + " is not a size like 640x480, each from 1 to " + std::to_string(kLargestSide);
}

/// ".flo, .png, ..."
std::string endingsText() {
  std::string text;
  for (const std::string& ending : flowEndings()) text += (text.empty() ? "" : ", ") + ending;
  return text;
}

void addFlow(CLI::App& app, FlowOptions& options, Verbosity& verbosity) {
  CLI::App* const command = app.add_subcommand("flow", "Computes the optical flow between two pictures");
  command->footer(
      "Pictures may be PNG (transparency is dropped), JPEG, PPM or PGM; 16-bit values are scaled to 0-255, "
      "grey\n"
      "becomes three equal channels. Pixel (x, y) of FRAME1 corresponds to (x + u, y + v) in FRAME2.\n"
      "Files appear under their names when all are complete; what was there before stays until then.\n"
      "The endings of OUT and OUT2 tell the formats of the flows: " +
      endingsText() + ".");
  command->add_option("FRAME1", options.frame1, "First picture (PNG, JPEG, PPM or PGM)")
      ->required()
      ->type_name("");
  command->add_option("FRAME2", options.frame2, "Second picture, of the same size")
      ->required()
      ->type_name("");
  command->add_option("-o,--output", options.output, "Flow from FRAME1 to FRAME2 [pixels]")
      ->required()
      ->type_name("OUT");
  command
      ->add_option("--backward", options.backward,
                   "Also compute the flow from FRAME2 to FRAME1, a run of its own")
      ->type_name("OUT2");
  command->add_option("--color", options.colour, "Also draw the forward flow, as 'tarvo color' does")
      ->type_name("OUT.png");
  command
      ->add_option("--matches", options.matches,
                   "Also write the forward matches: x, y, u, v [pixels] and weight, one a line")
      ->type_name("OUT.csv");
  command
      ->add_option("--occlusion", options.occlusion,
                   "Also draw in white what of FRAME1 is hidden in FRAME2; takes the backward flow")
      ->type_name("OUT.png");
  const char* const flags[] = {"--mask", "--mask2"};
  for (int k = 0; k < 2; ++k) {
    const std::string frame = "FRAME" + std::to_string(k + 1);
    command
        ->add_option(flags[k], options.masks[k],
                     "Picture of the size of " + frame + ": a pixel that is not black is ignored in " + frame)
        ->type_name("PICTURE");
  }
  command->add_flag("--no-matches", options.noMatches,
                    "Search no matches; the same flow as --beta 0, sooner");
  command
      ->add_option_function<std::string>(
          "--pipeline", [&options](const std::string& name) { options.hybrid = name == "hybrid"; },
          "What computes: device, or hybrid, a slower reference whose variational part and checks run on the "
          "host")
      ->check(CLI::IsMember({"device", "hybrid"}))
      ->default_str("device")
      ->type_name("NAME");
  const auto choices = std::make_shared<Choices>();
  addParameters(*command, options.preset, *choices);
  addDevice(*command, options.device);
  addThreads(*command, options.threads);
  command->add_flag("--json", options.json,
                    "Sizes, device, matches and seconds of each phase as JSON on standard output");
  addVerbosity(*command, verbosity);
  command->callback([&options, &verbosity, choices] {
    options.parameters = parametersOf(options.preset, *choices);
    flow(options, verbosity);
  });
}

void addEval(CLI::App& app, EvalOptions& options, Verbosity& verbosity) {
  CLI::App* const command = app.add_subcommand("eval", "Compares a flow field with a reference");
  command->footer(
      "End-point errors are in pixels, also by the true motion (0-10, 10-40, over 40 px); the angular error "
      "is\n"
      "between (u, v, 1) of both fields in degrees; outliers are off by more than 3 px and more than 5 %.\n"
      "Pixels with an unknown reference (1e9 or more, or not a number) are not used. Used pixels where FLOW "
      "has no\n"
      "value are counted as missing: they are outliers, and are left out of the means.");
  command->add_option("FLOW", options.flow, "Flow file to judge")->required()->type_name("");
  command->add_option("REFERENCE", options.reference, "Flow file with the true motion")
      ->required()
      ->type_name("");
  command->add_flag("--json", options.json,
                    "The figures as JSON; shares are 0 to 1, null where there is no pixel");
  addVerbosity(*command, verbosity);
  command->callback([&] { eval(options, verbosity); });
}

void addColor(CLI::App& app, ColorOptions& options, Verbosity& verbosity) {
  CLI::App* const command = app.add_subcommand("color", "Draws a flow field in colours");
  command->footer(
      "The hue is the direction. On the standard wheel, with which flow fields are usually published, red is "
      "to the\n"
      "right, yellow downwards, cyan to the left and blue upwards; what does not move is white, colours are "
      "fuller\n"
      "up to the full motion and darker beyond it. On the dark wheel red is to the right, violet blue "
      "downwards,\n"
      "green to the left and yellow upwards; the brightness is the length. What is unknown is grey on both.\n"
      "The picture file tells the wheel and the scale as text.");
  command->add_option("FLOW", options.flow, "Flow file to draw")->required()->type_name("");
  command->add_option("-o,--output", options.output, "Picture to write")->required()->type_name("OUT.png");
  addColours(*command, options.wheel, options.maxMotion,
             "auto: what 99 of 100 pixels do not exceed; longest: the longest in FLOW");
  command->add_flag(
      "--legend", options.legend,
      "Draw the colours of all motions, the scale and the wheel's name in the lower right corner");
  CLI::Option* const arrows =
      command
          ->add_option(
              "--arrows", options.arrows,
              "Draw an arrow every so many pixels, from each to where it moves; none where that is unknown")
          ->transform(wholeNumber(2, kLargestSide))
          ->type_name("COUNT");
  CLI::Option* const over =
      command
          ->add_option("--over", options.over,
                       "Draw the arrows over this picture, FLOW's first frame, not over colours")
          ->needs(arrows)
          ->type_name("FRAME");
  for (const char* colours : {"--wheel", "--max-motion", "--legend"})
    over->excludes(command->get_option(colours));
  addVerbosity(*command, verbosity);
  command->callback([&] { color(options, verbosity); });
}

void addSynth(CLI::App& app, SynthOptions& options, Verbosity& verbosity) {
  CLI::App* const command = app.add_subcommand("synth", "Renders two frames of a scene and their exact flow");
  std::string footer = "Writes frame1.png, frame2.png and flow.flo. Scenes:\n";
  std::vector<std::string> names;
  for (const SceneName& scene : sceneNames()) {
    names.push_back(scene.name);
    footer += "  " + scene.name + std::string(10 - scene.name.size(), ' ') + scene.description + "\n";
  }
  command->footer(footer);
  command->add_option("SCENE", options.scene, "What to render")
      ->required()
      ->check(CLI::IsMember(names))
      ->type_name("");
  command->add_option("-o,--output", options.folder, "Folder to write to; it is made if need be")
      ->required()
      ->type_name("DIR");
  command
      ->add_option_function<std::string>(
          "--size", [&options](const std::string& text) { parseSize(text, options.width, options.height); },
          "Size of the frames (default: 640x480); outlines grow with it, motions stay [pixels]")
      ->check(CLI::Validator(
          [](const std::string& text) {
            int width = 0, height = 0;
            return parseSize(text, width, height);
          },
          ""))
      ->type_name("WxH");
  command
      ->add_option(
          "--frames", options.frames,
          "So many frames instead, each an eighth of the motion on: DIR/frames, and in DIR/truth the flow "
          "from each to the next and what is hidden")
      ->transform(wholeNumber(2, 10000))
      ->type_name("COUNT");
  command->add_option("--seed", options.seed, "Another number gives other textures and outlines")
      ->transform(wholeNumber(0, 4294967295))
      ->capture_default_str()
      ->type_name("NUMBER");
  addVerbosity(*command, verbosity);
  command->callback([&] { synth(options, verbosity); });
}

void addCheck(CLI::App& app, CheckOptions& options, Verbosity& verbosity) {
  CLI::App* const command =
      app.add_subcommand("check", "Compares the descriptors of a picture by host and device");
  command->footer(
      "Says in one line whether the histograms agree: bins 1 to 13, three pixels inside the border, up to "
      "rounding;\n"
      "the share of values that do not is of gradients whose direction lies on the border of two bins. With "
      "-v "
      "also\n"
      "samples of histograms and confidence. Exit status 1 if more than 0.1 % differ.");
  command->add_option("FRAME", options.frame, "Picture (PNG, JPEG, PPM or PGM)")->required()->type_name("");
  addDevice(*command, options.device);
  addVerbosity(*command, verbosity);
  command->callback([&] { check(options, verbosity); });
}

void addInfo(CLI::App& app, InfoOptions& options, Verbosity& verbosity) {
  CLI::App* const command =
      app.add_subcommand("info", "Tells the version, the devices and the vector instructions");
  command->footer("");
  command->add_flag("--presets", options.presets, "Print the parameters of each preset instead");
  command->add_flag("--json", options.json, "The same as JSON");
  addVerbosity(*command, verbosity);
  command->callback([&] { info(options); });
}

/// All options that a command line can set.
struct Options {
  Verbosity verbosity;
  FlowOptions flow;
  EvalOptions eval;
  ColorOptions color;
  SynthOptions synth;
  CheckOptions check;
  InfoOptions info;
};

/// Takes no memory: there may be none.
int fail(const char* text, int status) {
  const bool hasLineEnd = *text != '\0' && text[std::strlen(text) - 1] == '\n';  // as device errors do
  std::fprintf(stderr, "tarvo: %s%s", text, hasLineEnd ? "" : "\n");
  return status;
}

/// What was printed may still be on its way: a full disk or a closed pipe is a failure.
int finishOutput() {
  return std::fflush(stdout) == 0 && !std::ferror(stdout)
             ? kSuccess
             : fail("standard output cannot be written", kFailure);
}

/// Of failing device calls. What the library says of memory names a step inside of it.
void throwDeviceError(const std::string& text) {
  if (text.find("out of memory") != std::string::npos) throw std::bad_alloc();
  throw std::runtime_error(text);
}

int parseAndRun(int argc, char** argv) {
  Options options;
  CLI::App app("Dense optical flow between two colour pictures", "tarvo");
  app.set_version_flag(
      "--version", [] { return "tarvo " + NDevice::version(); }, "Print the version and end");
  app.require_subcommand(0, 1);  // none is told below, after unexpected words
  app.footer(
      "'tarvo COMMAND --help' explains a command. Exit status: 0 success, 1 failure while running, 2 wrong "
      "usage.\n"
      "Results are on standard output, progress and messages on standard error.");
  addVerbosity(app, options.verbosity);
  addFlow(app, options.flow, options.verbosity);
  addSequence(app, options.verbosity);
  addStatus(app, options.verbosity);
  addEval(app, options.eval, options.verbosity);
  addColor(app, options.color, options.verbosity);
  addConvert(app, options.verbosity);
  addSynth(app, options.synth, options.verbosity);
  addCheck(app, options.check, options.verbosity);
  addInfo(app, options.info, options.verbosity);
  addWarp(app, options.verbosity);
  NDevice::onError(throwDeviceError);
  try {
    app.parse(argc, argv);
    if (app.get_subcommands().empty()) {
      throw UsageError{"a command is required; --help lists them"};
    }
    return finishOutput();
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? finishOutput() : kWrongUsage;
  }
}

}  // namespace

int runCommandLine(int argc, char** argv) {
  try {
    return parseAndRun(argc, argv);
  } catch (const UsageError& error) {
    return fail(error.message.c_str(), kWrongUsage);
  } catch (const std::bad_alloc&) {
    return fail("there is not enough memory", kFailure);
  } catch (const std::exception& error) {
    return fail(error.what(), kFailure);
  }
}

}  // namespace tool
