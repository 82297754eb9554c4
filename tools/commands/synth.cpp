#include <tarvo/tarvo.h>

#include <cstdio>
#include <filesystem>

#include "commands/commands.h"
#include "commands/output_files.h"
#include "pictures/picture.h"
#include "synth/scene.h"

namespace fs = std::filesystem;

namespace tool {

void synth(const SynthOptions& options, const Verbosity& verbosity) {
  const fs::path folder(options.folder);
  std::error_code error;
  fs::create_directories(folder, error);  // a failure shows below
  const std::string frame1 = (folder / "frame1.png").string(), frame2 = (folder / "frame2.png").string(),
                    flow = (folder / "flow.flo").string();
  OutputFiles outputs(
      {{"frame1.png", frame1, {".png"}}, {"frame2.png", frame2, {".png"}}, {"flow.flo", flow, {".flo"}}}, {});
  routeReport(verbosity, false);
  const Rendering rendering = render(makeScene(options.scene, options.width, options.height, options.seed));
  outputs.write(frame1, [&](std::FILE* file) { writePng(file, rendering.frame1); });
  outputs.write(frame2, [&](std::FILE* file) { writePng(file, rendering.frame2); });
  outputs.write(flow, [&](std::FILE* file) { NFlowFile::write(file, rendering.flow); });
  outputs.commit();
  if (!verbosity.quiet) {
    std::printf("scene %s, %s pixels: %s, %s, %s\n", options.scene.c_str(),
                sizeText(options.width, options.height).c_str(), frame1.c_str(), frame2.c_str(),
                flow.c_str());
  }
}

}  // namespace tool
