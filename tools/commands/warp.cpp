#include <tarvo/tarvo.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands/arguments.h"
#include "commands/commands.h"
#include "commands/flow_io.h"
#include "commands/output_files.h"
#include "pictures/picture.h"

namespace tool {

namespace {

struct WarpOptions {
  std::string frame, flow, output;
  std::string backward;  ///< flow that tells what is hidden, unless empty
  int fill = 0;          ///< of all channels, where nothing is seen
};

CTensor<float> readFlowLike(const std::string& path, const CTensor<float>& frame,
                            const Verbosity& verbosity) {
  CTensor<float> flow = readFlowFile(path, verbosity);
  if (flow.sizeX() != frame.sizeX() || flow.sizeY() != frame.sizeY()) {
    throw std::runtime_error(path + ": is of " + sizeText(flow.sizeX(), flow.sizeY()) +
                             " pixels, the picture of " + sizeText(frame.sizeX(), frame.sizeY()));
  }
  return flow;
}

void warp(const WarpOptions& options, const Verbosity& verbosity) {
  std::vector<std::string> inputs{options.frame, options.flow};
  if (!options.backward.empty()) inputs.push_back(options.backward);
  OutputFiles outputs({{"--output", options.output, {".png"}}}, inputs);
  routeReport(verbosity, false);
  std::vector<std::string> messages;
  const CTensor<float> frame = readPicture(options.frame, &messages);
  for (const std::string& text : messages) message(verbosity, text);
  const CTensor<float> flow = readFlowLike(options.flow, frame, verbosity);
  CTensor<float> back = NFlow::warp(frame, flow);  // not a number where the flow leads outside
  std::vector<std::uint8_t> hidden;
  if (!options.backward.empty())
    hidden = NFlow::consistency(flow, readFlowLike(options.backward, frame, verbosity));
  long unseen = 0;
  for (int y = 0; y < back.sizeY(); ++y) {
    for (int x = 0; x < back.sizeX(); ++x) {
      const std::size_t pixel = static_cast<std::size_t>(y) * back.sizeX() + x;
      const bool seen = std::isfinite(back(x, y, 0)) && (hidden.empty() || hidden[pixel] == 0);
      unseen += seen ? 0 : 1;
      for (int c = 0; !seen && c < 3; ++c) back(x, y, c) = static_cast<float>(options.fill);
    }
  }
  outputs.write(options.output, [&](std::FILE* file) { writePng(file, back); });
  outputs.commit();
  if (!verbosity.quiet) {
    std::printf("%s pixels, %ld of them not seen: %s\n", sizeText(back.sizeX(), back.sizeY()).c_str(), unseen,
                options.output.c_str());
  }
}

}  // namespace

void addWarp(CLI::App& app, Verbosity& verbosity) {
  const auto options = std::make_shared<WarpOptions>();
  CLI::App* const command = app.add_subcommand("warp", "Brings a second picture back by the flow to it");
  command->footer("The result looks like the first picture, where its pixels are seen in the second.");
  command->add_option("FRAME2", options->frame, "Second picture (PNG, JPEG, PPM or PGM)")
      ->required()
      ->type_name("");
  command->add_option("FLOW", options->flow, "Flow from the first picture to FRAME2")
      ->required()
      ->type_name("");
  command->add_option("-o,--output", options->output, "Picture to write")->required()->type_name("OUT.png");
  command
      ->add_option(
          "--occlusion", options->backward,
          "Flow from FRAME2 to the first picture; what it shows to be hidden in FRAME2 is not seen either")
      ->type_name("BACKWARD.flo");
  command->add_option("--fill", options->fill, "Grey level of what is not seen")
      ->transform(wholeNumber(0, 255))
      ->capture_default_str()
      ->type_name("NUMBER");
  addVerbosity(*command, verbosity);
  command->callback([options, &verbosity] { warp(*options, verbosity); });
}

}  // namespace tool
