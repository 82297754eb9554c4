#include <tarvo/tarvo.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "commands/flow_io.h"
#include "commands/output_files.h"
#include "flow_picture/arrows.h"
#include "flow_picture/flow_picture.h"
#include "pictures/picture.h"

namespace tool {

namespace {

Colours coloursOf(const ColorOptions& options, const CTensor<float>& flow) {
  const Wheel wheel = options.wheel;
  if (options.maxMotion == "auto") return {wheel, usualMotion(flow)};
  if (options.maxMotion == "longest") return {wheel, longestMotion(flow)};
  return {wheel, std::stod(options.maxMotion)};
}

/// The arrows over a frame.
void drawOver(const ColorOptions& options, const CTensor<float>& flow, OutputFiles& outputs,
              const Verbosity& verbosity) {
  std::vector<std::string> messages;
  CTensor<float> picture = readPicture(options.over, &messages, &flow);
  for (const std::string& text : messages) message(verbosity, text);
  const long arrows = drawArrows(picture, flow, options.arrows);
  outputs.write(options.output, [&](std::FILE* file) { writePng(file, picture); });
  outputs.commit();
  if (!verbosity.quiet) {
    std::printf("%s pixels, %ld arrows: %s\n", sizeText(flow.sizeX(), flow.sizeY()).c_str(), arrows,
                options.output.c_str());
  }
}

}  // namespace

void color(const ColorOptions& options, const Verbosity& verbosity) {
  OutputFiles outputs({{"--output", options.output, {".png"}}},
                      {options.flow, options.over.empty() ? options.flow : options.over});
  routeReport(verbosity, false);
  const CTensor<float> flow = readFlowFile(options.flow, verbosity);
  if (flow.size() == 0) {
    throw std::runtime_error(options.flow + ": has no pixels to draw");
  }
  const Colours colours = coloursOf(options, flow);
  if (!options.over.empty()) {
    drawOver(options, flow, outputs, verbosity);
    return;
  }
  CTensor<float> picture = colourPicture(flow, colours);
  if (options.arrows > 0) drawArrows(picture, flow, options.arrows);
  if (options.legend && !drawLegend(picture, colours)) {
    message(verbosity, options.output + ": too small for a legend");
  }
  outputs.write(options.output, [&](std::FILE* file) { writePng(file, picture, 8, notesOf(colours)); });
  outputs.commit();
  if (!verbosity.quiet) {
    std::printf("%s pixels, %s wheel, full colours at %.3g px: %s\n",
                sizeText(flow.sizeX(), flow.sizeY()).c_str(), nameOf(colours.wheel), colours.scale,
                options.output.c_str());
  }
}

}  // namespace tool
