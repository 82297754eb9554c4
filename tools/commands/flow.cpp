#include <tarvo/tarvo.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "commands/commands.h"
#include "commands/flow_io.h"
#include "commands/output_files.h"
#include "commands/parameters.h"
#include "evaluation/evaluation.h"
#include "flow_picture/flow_picture.h"
#include "pictures/picture.h"

namespace tool {

namespace {

using Json = nlohmann::ordered_json;

struct Run {
  CTensor<float> flow;
  NFlow::Work work;
};

/// Flows of both directions, where asked for, and what was found on the way.
struct Computed {
  Run forward, backward;
  std::vector<NFlow::Match> matches;
  std::vector<std::uint8_t> occlusion;
};

struct Frames {
  CTensor<float> first, second;
  std::vector<std::uint8_t> masks[2];  // other than 0: ignored; empty: nothing is
};

/// Not 0 where any channel of the picture is not.
std::vector<std::uint8_t> readMask(const std::string& path, std::vector<std::string>* messages,
                                   const CTensor<float>& frame) {
  const CTensor<float> picture = readPicture(path, messages, &frame);
  const std::size_t pixels = static_cast<std::size_t>(picture.sizeX()) * picture.sizeY();
  std::vector<std::uint8_t> mask(pixels);
  for (std::size_t k = 0; k < 3 * pixels; ++k) mask[k % pixels] |= picture.data()[k] > 0.0f ? 255 : 0;
  return mask;
}

Frames readFrames(const FlowOptions& options, const Verbosity& verbosity) {
  std::vector<std::string> messages;
  CTensor<float> first = readPicture(options.frame1, &messages);
  CTensor<float> second = readPicture(options.frame2, &messages, &first);
  std::vector<std::uint8_t> masks[2];
  for (int k = 0; k < 2; ++k) {
    if (!options.masks[k].empty()) masks[k] = readMask(options.masks[k], &messages, first);
  }
  for (const std::string& text : messages) {
    message(verbosity, text);
  }
  return {std::move(first), std::move(second), {std::move(masks[0]), std::move(masks[1])}};
}

Json phaseSeconds(const NFlow::Seconds& seconds, bool hybrid) {
  if (hybrid) {
    return {{"total", seconds.total}, {"smoothing", seconds.smoothing}, {"variational", seconds.variational}};
  }
  return {{"total", seconds.total},
          {"smoothing", seconds.smoothing},
          {"transfer", seconds.transfer},
          {"matching", seconds.matching},
          {"variational", seconds.variational},
          {"downsampling", seconds.downsampling},
          {"warping", seconds.warping},
          {"fixed_point", seconds.fixedPoint},
          {"solver", seconds.solver}};
}

NFlow::Image viewOf(const CTensor<float>& frame, const std::vector<std::uint8_t>& mask) {
  NFlow::Image image = NFlow::Image::planar(frame.data(), frame.sizeX(), frame.sizeY());
  image.mask = mask.empty() ? nullptr : mask.data();
  image.maskRowStride = frame.sizeX();
  return image;
}

Computed compute(const Frames& frames, const FlowOptions& options) {
  NFlow::Options parameters = options.parameters;
  parameters.matches = !options.noMatches;
  parameters.backward = !options.backward.empty();
  parameters.occlusion = !options.occlusion.empty();
  NFlow::Result result = NFlow::compute(viewOf(frames.first, frames.masks[0]),
                                        viewOf(frames.second, frames.masks[1]), parameters);
  return {{std::move(result.forward), result.forwardWork},
          {std::move(result.backward), result.backwardWork},
          std::move(result.matches),
          std::move(result.occlusion)};
}

/// One direction of the hybrid pipeline. The frames are copies of its own, because smoothing changes them.
Run computeHybrid(CTensor<float> from, CTensor<float> to, const NFlow::Parameters& p) {
  Run run;
  const double smoothing = timer_filter, variational = timer_total;  // all that this pipeline counts
  const auto start = std::chrono::steady_clock::now();
  runFlow(from, to, run.flow, p.sigma, p.alpha, p.beta, p.gamma, p.eta, p.fixedPointIterations,
          p.solverIterations);
  run.work.seconds.total = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.work.seconds.smoothing = (timer_filter - smoothing) / 1000;
  run.work.seconds.variational = (timer_total - variational) / 1000;
  run.work.counts = NMatching::lastCounts();
  return run;
}

Computed computeHybrid(const Frames& frames, const FlowOptions& options) {
  NMatching::enable(!options.noMatches);
  Computed computed;
  computed.forward = computeHybrid(frames.first, frames.second, options.parameters);
  if (!options.backward.empty()) {
    computed.backward = computeHybrid(frames.second, frames.first, options.parameters);
  }
  if (options.noMatches) computed.forward.work.counts = computed.backward.work.counts = {};
  return computed;
}

Json describe(const std::string& file, const Run& run, bool hybrid) {
  return {{"file", file},
          {"seconds", run.work.seconds.total},
          {"phases", phaseSeconds(run.work.seconds, hybrid)},
          {"matching",
           {{"grid_points", run.work.counts.gridPoints},
            {"gated_points", run.work.counts.gatedPoints},
            {"forward_matches", run.work.counts.forwardMatches},
            {"kept_matches", run.work.counts.keptMatches}}}};
}

/// The matches, one a line, in rows from the top.
void writeMatches(std::FILE* file, const std::vector<NFlow::Match>& matches) {
  std::fputs("x,y,u,v,weight\n", file);
  for (const NFlow::Match& match : matches) {
    const int written = std::fprintf(file, "%.9g,%.9g,%.9g,%.9g,%.9g\n", double(match.x), double(match.y),
                                     double(match.u), double(match.v), double(match.weight));
    if (written < 0) throw std::runtime_error(std::strerror(errno));
  }
}

/// A mask of bytes as a grey picture.
CTensor<float> pictureOf(const std::vector<std::uint8_t>& mask, int width, int height) {
  CTensor<float> picture(width, height, 3);
  for (std::size_t k = 0; k < 3 * mask.size(); ++k) picture.data()[k] = mask[k % mask.size()];
  return picture;
}

void printJson(const FlowOptions& options, const Run& forward, const Run* backward) {
  Json json{{"frame1", options.frame1},
            {"frame2", options.frame2},
            {"width", forward.flow.sizeX()},
            {"height", forward.flow.sizeY()},
            {"pipeline", options.hybrid ? "hybrid" : "device"},
            {"device", NDevice::current()},
            {"threads", NDevice::threads()},
            {"preset", options.preset},
            {"parameters", parametersAsJson(options.parameters, options.hybrid)},
            {"forward", describe(options.output, forward, options.hybrid)}};
  if (backward) {
    json["backward"] = describe(options.backward, *backward, options.hybrid);
  }
  if (!options.masks[0].empty()) {
    json["mask"] = options.masks[0];
  }
  if (!options.masks[1].empty()) {
    json["mask2"] = options.masks[1];
  }
  if (!options.colour.empty()) {
    json["color"] = options.colour;
  }
  if (!options.matches.empty()) {
    json["matches"] = options.matches;
  }
  if (!options.occlusion.empty()) {
    json["occlusion"] = options.occlusion;
  }
  std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

void printSummary(const FlowOptions& options, const Run& forward, const Run* backward) {
  std::printf("%s pixels on %s\n", sizeText(forward.flow.sizeX(), forward.flow.sizeY()).c_str(),
              NDevice::current().c_str());
  std::printf("forward flow   %6.2f s  %s\n", forward.work.seconds.total, options.output.c_str());
  if (!options.noMatches) {
    std::printf("matches        %8d  of %d grid points\n", forward.work.counts.keptMatches,
                forward.work.counts.gridPoints);
  }
  if (!options.matches.empty()) {
    std::printf("match table              %s\n", options.matches.c_str());
  }
  if (backward) {
    std::printf("backward flow  %6.2f s  %s\n", backward->work.seconds.total, options.backward.c_str());
  }
  if (!options.colour.empty()) {
    std::printf("colour picture           %s\n", options.colour.c_str());
  }
  if (!options.occlusion.empty()) {
    std::printf("occluded pixels          %s\n", options.occlusion.c_str());
  }
}

/// Refuses what the hybrid pipeline does not have.
void checkHybrid(const FlowOptions& options) {
  if (!options.matches.empty()) throw UsageError{"--matches and --pipeline hybrid exclude each other"};
  if (!options.masks[0].empty()) throw UsageError{"--mask and --pipeline hybrid exclude each other"};
  if (!options.masks[1].empty()) throw UsageError{"--mask2 and --pipeline hybrid exclude each other"};
  if (!options.occlusion.empty()) throw UsageError{"--occlusion and --pipeline hybrid exclude each other"};
  for (const NFlow::Option& option : NFlow::optionTable()) {
    if (isHybrids(option) || NFlow::text({}, option) == NFlow::text(options.parameters, option)) continue;
    throw UsageError{"--pipeline hybrid has no " + flagOf(option) + ", got " +
                     NFlow::text(options.parameters, option)};
  }
}

}  // namespace

void flow(const FlowOptions& options, const Verbosity& verbosity) {
  if (!options.matches.empty() && options.noMatches) {
    throw UsageError{"--matches and --no-matches exclude each other"};
  }
  if (options.hybrid) checkHybrid(options);
  std::vector<std::string> inputs{options.frame1, options.frame2};
  for (const std::string& mask : options.masks) {
    if (!mask.empty()) inputs.push_back(mask);
  }
  OutputFiles outputs({{"--output", options.output, flowEndings()},
                       {"--backward", options.backward, flowEndings()},
                       {"--color", options.colour, {".png"}},
                       {"--occlusion", options.occlusion, {".png"}},
                       {"--matches", options.matches, {".csv"}}},
                      inputs);
  const Frames frames = readFrames(options, verbosity);
  routeReport(verbosity, true);
  NDevice::select(options.device);
  if (options.threads > 0) {
    NDevice::threads(options.threads);
  }

  Computed computed;
  {
    const ProgressBar bar(verbosity, "flow");
    computed = options.hybrid ? computeHybrid(frames, options) : compute(frames, options);
  }
  const CTensor<float>& forward = computed.forward.flow;
  checkFinite(forward);
  writeFlowFile(outputs, options.output, forward, verbosity);
  if (!options.backward.empty()) {
    checkFinite(computed.backward.flow);
    writeFlowFile(outputs, options.backward, computed.backward.flow, verbosity);
  }
  if (!options.colour.empty()) {
    const Colours colours{Wheel::Standard, usualMotion(forward)};
    const CTensor<float> picture = colourPicture(forward, colours);
    outputs.write(options.colour, [&](std::FILE* file) { writePng(file, picture, 8, notesOf(colours)); });
  }
  if (!options.occlusion.empty()) {
    const CTensor<float> picture = pictureOf(computed.occlusion, forward.sizeX(), forward.sizeY());
    outputs.write(options.occlusion, [&](std::FILE* file) { writePng(file, picture); });
  }
  if (!options.matches.empty()) {
    outputs.write(options.matches, [&](std::FILE* file) { writeMatches(file, computed.matches); });
  }
  outputs.commit();

  const Run* const second = options.backward.empty() ? nullptr : &computed.backward;
  if (options.json) {
    printJson(options, computed.forward, second);
  } else if (!verbosity.quiet) {
    printSummary(options, computed.forward, second);
  }
}

}  // namespace tool
