#include "sequence/pairs.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "evaluation/evaluation.h"
#include "pictures/picture.h"
#include "sequence/content_hash.h"
#include "sequence/panels.h"
#include "sequence/scene_change.h"
#include "sequence/whole_file.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

NFlow::Image viewOf(const CTensor<float>& picture) {
  return NFlow::Image::planar(picture.data(), picture.sizeX(), picture.sizeY());
}

std::string sizeOf(const CTensor<float>& picture) {
  return std::to_string(picture.sizeX()) + " x " + std::to_string(picture.sizeY());
}

/// Mean length and 99th percentile of the lengths [pixels], to a hundredth.
void addLengths(const CTensor<float>& flow, Json& record) {
  const std::size_t pixels = static_cast<std::size_t>(flow.size()) / 2;
  std::vector<float> lengths(pixels);
  double sum = 0;
  for (std::size_t k = 0; k < pixels; ++k) {
    lengths[k] = std::hypot(flow.data()[k], flow.data()[k + pixels]);
    sum += lengths[k];
  }
  const auto place = lengths.begin() + static_cast<std::ptrdiff_t>((pixels - 1) * 99 / 100);
  std::nth_element(lengths.begin(), place, lengths.end());
  const auto hundredths = [](double value) { return std::round(value * 100) / 100; };
  record["mean"] = hundredths(sum / static_cast<double>(pixels));
  record["p99"] = hundredths(*place);
}

}  // namespace

std::string pairKey(const Json& settings, const std::string& contents1, const std::string& contents2) {
  return hashOf(settings.dump() + "\n" + contents1 + "\n" + contents2);
}

std::string contentsOf(const Frame& frame) {
  return frame.path.empty() ? hashOf(frame.picture) : hashOfFile(frame.path);
}

void shrink(CTensor<float>& picture, double scale) {
  const auto scaled = [scale](int size) { return std::max(1, static_cast<int>(std::lround(size * scale))); };
  if (scale < 1) picture.downsample(scaled(picture.sizeX()), scaled(picture.sizeY()));
}

void makeFolders(const PairJob& job) {
  const fs::path folder(job.folder);
  fs::create_directories(folder);
  if (job.backward) fs::create_directory(folder / "backward");
  if (job.occlusion) fs::create_directory(folder / "occlusion");
}

Pairs::Pairs(const PairJob& job, long first, IsDone isDone, std::function<void(const PairReport&)> report,
             std::function<void()> poll)
    : job_(job),
      pair_(first),
      isDone_(std::move(isDone)),
      report_(std::move(report)),
      poll_(std::move(poll)) {}

void Pairs::add(Frame frame) {
  Loaded loaded;
  loaded.used = true;
  try {
    loaded.contents = contentsOf(frame);
  } catch (const std::runtime_error& error) {
    loaded.error = error.what();
  }
  loaded.frame = std::move(frame);
  next(std::move(loaded));
}

void Pairs::addUnreadable(const std::string& error) {
  Loaded loaded;
  loaded.used = true;
  loaded.error = error;
  next(std::move(loaded));
}

void Pairs::next(Loaded loaded) {
  poll_();
  if (last_.used) {
    report_(pair(last_, loaded));
    ++pair_;
  }
  last_ = std::move(loaded);
}

void Pairs::load(Loaded& loaded) const {
  if (!loaded.error.empty() || loaded.frame.picture.size() > 0) return;
  try {
    loaded.frame.picture = readPicture(loaded.frame.path, nullptr);
  } catch (const std::runtime_error& error) {
    loaded.error = error.what();
  }
}

PairReport Pairs::pair(Loaded& first, Loaded& second) {
  const auto start = std::chrono::steady_clock::now();
  const auto seconds = [start] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  const auto fileOf = [](const Frame& frame) {
    return frame.path.empty() ? frame.name : fs::path(frame.path).filename().string();
  };
  Json record{{"pair", pair_}, {"frames", {fileOf(first.frame), fileOf(second.frame)}}};
  const auto micros = [](double time) { return std::round(time * 1e6) / 1e6; };
  if (first.frame.time && second.frame.time) {
    record["t"] = {micros(*first.frame.time), micros(*second.frame.time)};
  }
  if (first.error.empty() && second.error.empty() && isDone_ &&
      isDone_(pair_, first.contents, second.contents)) {
    return {PairReport::State::Skipped, pair_, record, seconds()};
  }
  load(first);
  load(second);
  try {
    for (const Loaded* frame : {&first, &second}) {
      if (!frame->error.empty()) throw std::runtime_error(frame->error);
    }
    record["contents"] = {first.contents, second.contents};
    record["key"] = pairKey(job_.settings, first.contents, second.contents);
    record.update(computed(first, second));
    return {PairReport::State::Done, pair_, record, seconds()};
  } catch (const std::runtime_error& error) {
    record["error"] = error.what();
    return {PairReport::State::Failed, pair_, record, seconds()};
  }
}

Json Pairs::computed(const Loaded& first, const Loaded& second) const {
  const CTensor<float>&full1 = first.frame.picture, &full2 = second.frame.picture;
  if (full1.sizeX() != full2.sizeX() || full1.sizeY() != full2.sizeY()) {
    throw std::runtime_error("frame " + second.frame.name + " has " + sizeOf(full2) + " pixels, not " +
                             sizeOf(full1) + " like the frame before");
  }
  CTensor<float> small1, small2;
  if (job_.scale < 1) {
    shrink(small1 = full1, job_.scale);
    shrink(small2 = full2, job_.scale);
  }
  const CTensor<float>&a = job_.scale < 1 ? small1 : full1, &b = job_.scale < 1 ? small2 : full2;
  const bool backwardOnly = !job_.forward && !job_.occlusion;
  NFlow::Result result = backwardOnly ? NFlow::compute(viewOf(b), viewOf(a), job_.options, {{}, poll_})
                                      : NFlow::compute(viewOf(a), viewOf(b), job_.options, {{}, poll_});
  if (backwardOnly) std::swap(result.forward, result.backward);
  const CTensor<float>& told = backwardOnly ? result.backward : result.forward;

  Json record;
  const auto write = [&](const char* kind, const std::string& place, const auto& writer) {
    const WrittenFile file = writeWhole((fs::path(job_.folder) / place).string(), writer);
    record["outputs"][kind] = {place, file.size, file.hash};
  };
  const auto writeFlow = [&](const char* kind, const std::string& place, const CTensor<float>& flow) {
    checkFinite(flow);
    FlowLoss loss;
    write(kind, place + endingOf(*job_.format),
          [&](std::FILE* file) { loss = tool::writeFlow(file, flow, *job_.format); });
    if (loss.dropped > 0) record["dropped"][kind] = loss.dropped;
  };
  const std::string& name = first.frame.name;
  if (job_.forward) writeFlow("forward", name, result.forward);
  if (job_.backward) writeFlow("backward", "backward/" + name, result.backward);
  if (job_.occlusion) {
    write("occlusion", "occlusion/" + name + ".png", [&](std::FILE* file) {
      writePng(file, maskPicture(result.occlusion, told.sizeX(), told.sizeY()));
    });
  }
  record["matches"] = result.forwardWork.counts.keptMatches;
  addLengths(told, record);
  record["same"] = first.contents == second.contents;
  record["cut"] = backwardOnly ? isCut(b, a, told) : isCut(a, b, told);
  return record;
}

}  // namespace tool
