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
#include "commands/flow_picture.h"
#include "commands/output_files.h"
#include "pictures/picture.h"

namespace tool {

namespace {

using Json = nlohmann::ordered_json;

/// Milliseconds of the library's clocks, all counted since it was loaded.
struct Phases {
  double total, smoothing, transfer, matching, variational, downsampling, warping, fixedPoint, solver;

  static Phases now() {
    return {timer_total, timer_filter,      timer_memcpy1,    timer_HOG,   timer_var,
            timer_down,  timer_interp_warp, timer_makematrix, timer_solver};
  }
};

struct Run {
  CTensor<float> flow;
  NMatching::Counts counts{};
  double seconds = 0;
  Phases before{}, after{};
};

struct Frames {
  CTensor<float> first, second;
};

Frames readFrames(const FlowOptions& options, const Verbosity& verbosity) {
  std::vector<std::string> messages;
  CTensor<float> first = readPicture(options.frame1, &messages);
  CTensor<float> second = readPicture(options.frame2, &messages, &first);
  for (const std::string& text : messages) {
    message(verbosity, text);
  }
  return {std::move(first), std::move(second)};
}

Json phaseSeconds(const Run& run, bool hybrid) {
  const auto seconds = [&run](double Phases::*phase) {
    return (run.after.*phase - run.before.*phase) / 1000;
  };
  if (hybrid) {
    return {{"total", run.seconds},
            {"smoothing", seconds(&Phases::smoothing)},
            {"variational", seconds(&Phases::total)}};  // all that this pipeline counts as total
  }
  return {{"total", seconds(&Phases::total)},
          {"smoothing", seconds(&Phases::smoothing)},
          {"transfer", seconds(&Phases::transfer)},
          {"matching", seconds(&Phases::matching)},
          {"variational", seconds(&Phases::variational)},
          {"downsampling", seconds(&Phases::downsampling)},
          {"warping", seconds(&Phases::warping)},
          {"fixed_point", seconds(&Phases::fixedPoint)},
          {"solver", seconds(&Phases::solver)}};
}

/// Pictures have finite values, and so does their flow unless a weight lets a sum overflow.
void checkFinite(const CTensor<float>& flow) {
  const auto finite = [](float value) { return std::isfinite(value); };
  const long bad = flow.size() - std::count_if(flow.data(), flow.data() + flow.size(), finite);
  if (bad == 0) return;
  throw std::runtime_error("the flow is not a number at " + std::to_string(bad) + " of " +
                           std::to_string(flow.size()) + " values: --alpha, --beta or --gamma is too large");
}

/// One direction. The frames are copies of its own, because smoothing changes them.
Run compute(CTensor<float> from, CTensor<float> to, const FlowOptions& options, const Verbosity& verbosity,
            const std::string& label) {
  const ProgressBar bar(verbosity, label);
  const FlowParameters& p = options.parameters;
  const auto pipeline = options.hybrid ? runFlow : runFlowGPU;
  Run run;
  run.before = Phases::now();
  const auto start = std::chrono::steady_clock::now();
  pipeline(from, to, run.flow, p.sigma, p.alpha, p.beta, p.gamma, p.eta, p.fixedPointIterations,
           p.solverIterations);
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.after = Phases::now();
  checkFinite(run.flow);
  if (!options.noMatches) run.counts = NMatching::lastCounts();
  return run;
}

/// A float as the user wrote it: 0.95, not the nearest double to the nearest float.
double asWritten(float value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.7g", double(value));
  return std::strtod(text, nullptr);
}

Json describe(const std::string& file, const Run& run, bool hybrid) {
  return {{"file", file},
          {"seconds", run.seconds},
          {"phases", phaseSeconds(run, hybrid)},
          {"matching",
           {{"grid_points", run.counts.gridPoints},
            {"gated_points", run.counts.gatedPoints},
            {"forward_matches", run.counts.forwardMatches},
            {"kept_matches", run.counts.keptMatches}}}};
}

/// The kept matches of the forward direction, one a line, in rows from the top. They are searched once more:
/// the library does not hand out the match field of a flow computation.
void writeMatches(std::FILE* file, Frames frames, float sigma) {
  if (sigma > 0) {
    for (CTensor<float>* image : {&frames.first, &frames.second}) {
      NFilter::recursiveSmoothX(*image, sigma);
      NFilter::recursiveSmoothY(*image, sigma);
    }
  }
  const int w = frames.first.sizeX(), h = frames.first.sizeY();
  CTensor<float> field(w, h, 3, 0);
  const std::size_t plane = static_cast<std::size_t>(w) * static_cast<std::size_t>(h);
  createAndMatchHOG(frames.first.data(), frames.second.data(), field.data(), field.data() + plane,
                    field.data() + 2 * plane, h, w, 3);
  std::fputs("x,y,u,v,weight\n", file);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      if (!(field(x, y, 2) > 0)) continue;
      const int written = std::fprintf(file, "%d,%d,%.9g,%.9g,%.9g\n", x, y, double(field(x, y, 0)),
                                       double(field(x, y, 1)), double(field(x, y, 2)));
      if (written < 0) throw std::runtime_error(std::strerror(errno));
    }
  }
}

void printJson(const FlowOptions& options, const Run& forward, const Run* backward) {
  const FlowParameters& p = options.parameters;
  Json json{{"frame1", options.frame1},
            {"frame2", options.frame2},
            {"width", forward.flow.sizeX()},
            {"height", forward.flow.sizeY()},
            {"pipeline", options.hybrid ? "hybrid" : "device"},
            {"device", NDevice::current()},
            {"threads", NDevice::threads()},
            {"parameters",
             {{"sigma", asWritten(p.sigma)},
              {"alpha", asWritten(p.alpha)},
              {"beta", asWritten(p.beta)},
              {"gamma", asWritten(p.gamma)},
              {"eta", asWritten(p.eta)},
              {"fixed_point_iterations", p.fixedPointIterations},
              {"solver_iterations", p.solverIterations}}},
            {"forward", describe(options.output, forward, options.hybrid)}};
  if (backward) {
    json["backward"] = describe(options.backward, *backward, options.hybrid);
  }
  if (!options.colour.empty()) {
    json["color"] = options.colour;
  }
  if (!options.matches.empty()) {
    json["matches"] = options.matches;
  }
  std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

void printSummary(const FlowOptions& options, const Run& forward, const Run* backward) {
  std::printf("%s pixels on %s\n", sizeText(forward.flow.sizeX(), forward.flow.sizeY()).c_str(),
              NDevice::current().c_str());
  std::printf("forward flow   %6.2f s  %s\n", forward.seconds, options.output.c_str());
  if (!options.noMatches) {
    std::printf("matches        %8d  of %d grid points\n", forward.counts.keptMatches,
                forward.counts.gridPoints);
  }
  if (!options.matches.empty()) {
    std::printf("match table              %s\n", options.matches.c_str());
  }
  if (backward) {
    std::printf("backward flow  %6.2f s  %s\n", backward->seconds, options.backward.c_str());
  }
  if (!options.colour.empty()) {
    std::printf("colour picture           %s\n", options.colour.c_str());
  }
}

}  // namespace

void flow(const FlowOptions& options, const Verbosity& verbosity) {
  if (!options.matches.empty()) {
    if (options.noMatches) throw UsageError{"--matches and --no-matches exclude each other"};
    if (options.hybrid) throw UsageError{"--matches and --pipeline hybrid exclude each other"};
  }
  OutputFiles outputs({{"--output", options.output, ".flo"},
                       {"--backward", options.backward, ".flo"},
                       {"--color", options.colour, ".png"},
                       {"--matches", options.matches, ".csv"}},
                      {options.frame1, options.frame2});
  const Frames frames = readFrames(options, verbosity);
  routeReport(verbosity, true);
  NDevice::select(options.device);
  if (options.threads > 0) {
    NDevice::threads(options.threads);
  }

  NMatching::enable(!options.noMatches);
  const Run forward = compute(frames.first, frames.second, options, verbosity, "forward ");
  outputs.write(options.output, [&](std::FILE* file) { NFlowFile::write(file, forward.flow); });
  Run backward;
  if (!options.backward.empty()) {
    backward = compute(frames.second, frames.first, options, verbosity, "backward");
    outputs.write(options.backward, [&](std::FILE* file) { NFlowFile::write(file, backward.flow); });
  }
  if (!options.colour.empty()) {
    const CTensor<float> picture = colourPicture(forward.flow, longestMotion(forward.flow));
    outputs.write(options.colour, [&](std::FILE* file) { writePng(file, picture); });
  }
  if (!options.matches.empty()) {
    outputs.write(options.matches,
                  [&](std::FILE* file) { writeMatches(file, frames, options.parameters.sigma); });
  }
  outputs.commit();

  const Run* const second = options.backward.empty() ? nullptr : &backward;
  if (options.json) {
    printJson(options, forward, second);
  } else if (!verbosity.quiet) {
    printSummary(options, forward, second);
  }
}

}  // namespace tool
