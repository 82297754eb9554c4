#include <tarvo/tarvo.h>

#include <cstdio>
#include <filesystem>
#include <vector>

#include "commands/commands.h"
#include "commands/output_files.h"
#include "pictures/picture.h"
#include "sequence/panels.h"
#include "synth/scene.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

/// Frames of a scene that goes on moving, and from each to the next the exact flow and what is hidden.
void synthSequence(const SynthOptions& options, const Verbosity& verbosity) {
  constexpr double kStep = 0.125;  // of the scene's motion, from frame to frame
  const fs::path folder(options.folder);
  std::error_code error;
  for (const char* name : {"frames", "truth/occlusion"}) fs::create_directories(folder / name, error);
  std::vector<std::string> frames, flows, hidden;
  std::vector<Output> wanted;
  for (int k = 0; k < options.frames; ++k) {
    char name[16];
    std::snprintf(name, sizeof name, "%06d", k);
    wanted.push_back({"frame", frames.emplace_back((folder / "frames" / name).string() + ".png"), {".png"}});
    if (k + 1 == options.frames) break;
    wanted.push_back({"flow", flows.emplace_back((folder / "truth" / name).string() + ".flo"), {".flo"}});
    hidden.push_back((folder / "truth/occlusion" / name).string() + ".png");
    wanted.push_back({"occlusion", hidden.back(), {".png"}});
  }
  OutputFiles outputs(wanted, {});
  routeReport(verbosity, false);
  const Scene scene = makeScene(options.scene, options.width, options.height, options.seed);
  CTensor<float> flow, visible;
  for (std::size_t k = 0; k < frames.size(); ++k) {
    const double time = kStep * static_cast<double>(k);
    const CTensor<float> frame = renderFrame(scene, time);
    outputs.write(frames[k], [&](std::FILE* file) { writePng(file, frame); });
    if (k == flows.size()) break;
    renderMotion(scene, time, time + kStep, flow, visible);
    outputs.write(flows[k], [&](std::FILE* file) { NFlowFile::write(file, flow); });
    const std::vector<std::uint8_t> mask = [&visible] {
      std::vector<std::uint8_t> pixels(static_cast<std::size_t>(visible.size()));
      for (std::size_t i = 0; i < pixels.size(); ++i) pixels[i] = visible.data()[i] == 0 ? 255 : 0;
      return pixels;
    }();
    outputs.write(hidden[k],
                  [&](std::FILE* file) { writePng(file, maskPicture(mask, options.width, options.height)); });
  }
  outputs.commit();
  if (!verbosity.quiet) {
    std::printf("scene %s, %d frames of %s pixels: %s, %s\n", options.scene.c_str(), options.frames,
                sizeText(options.width, options.height).c_str(), (folder / "frames").string().c_str(),
                (folder / "truth").string().c_str());
  }
}

}  // namespace

void synth(const SynthOptions& options, const Verbosity& verbosity) {
  if (options.frames > 0) {
    synthSequence(options, verbosity);
    return;
  }
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
