#include <tarvo/tarvo.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "commands/commands.h"
#include "commands/flow_io.h"
#include "commands/output_files.h"
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

}  // namespace

void color(const ColorOptions& options, const Verbosity& verbosity) {
  OutputFiles outputs({{"--output", options.output, {".png"}}}, {options.flow});
  routeReport(verbosity, false);
  const CTensor<float> flow = readFlowFile(options.flow, verbosity);
  if (flow.size() == 0) {
    throw std::runtime_error(options.flow + ": has no pixels to draw");
  }
  const Colours colours = coloursOf(options, flow);
  CTensor<float> picture = colourPicture(flow, colours);
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
