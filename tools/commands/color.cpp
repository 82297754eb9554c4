#include <tarvo/tarvo.h>

#include <cstdio>
#include <stdexcept>

#include "commands/commands.h"
#include "commands/flow_io.h"
#include "commands/output_files.h"
#include "flow_picture/flow_picture.h"
#include "pictures/picture.h"

namespace tool {

void color(const ColorOptions& options, const Verbosity& verbosity) {
  OutputFiles outputs({{"--output", options.output, {".png"}}}, {options.flow});
  routeReport(verbosity, false);
  const CTensor<float> flow = readFlowFile(options.flow, verbosity);
  if (flow.size() == 0) {
    throw std::runtime_error(options.flow + ": has no pixels to draw");
  }
  const double maxMotion = options.maxMotion > 0 ? options.maxMotion : longestMotion(flow);
  CTensor<float> picture = colourPicture(flow, maxMotion);
  if (options.legend && !drawLegend(picture)) {
    message(verbosity, options.output + ": too small for a legend");
  }
  outputs.write(options.output, [&](std::FILE* file) { writePng(file, picture); });
  outputs.commit();
  if (!verbosity.quiet) {
    std::printf("%s pixels, full brightness at %.3g px: %s\n", sizeText(flow.sizeX(), flow.sizeY()).c_str(),
                maxMotion, options.output.c_str());
  }
}

}  // namespace tool
