#include "sequence/film.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>

#include "pictures/picture.h"
#include "sequence/whole_file.h"
#include "video/video_writer.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

/// Where the record of each pair is.
using Places = std::map<long, const Manifest*>;

Places placesOf(const std::vector<Manifest>& manifests) {
  Places places;
  for (const Manifest& manifest : manifests) {
    for (const auto& [pair, place] : manifest.pairs()) places[pair] = &manifest;
  }
  return places;
}

/// The frames of one pair after another.
class FramePairs {
 public:
  FramePairs(std::unique_ptr<FrameSource> source, double scale) : source_(std::move(source)), scale_(scale) {}

  /// Pairs are asked for in their order.
  void read(long pair) {
    for (; read_ < pair + 2; ++read_) {
      std::swap(first_, second_);
      second_ = {};
      if (!source_->next(second_.frame)) {
        throw std::runtime_error("the sequence has fewer frames than when its flows were computed");
      }
    }
    first_.load(scale_);
    second_.load(scale_);
  }
  const CTensor<float>& first() const { return first_.frame.picture; }
  const CTensor<float>& second() const { return second_.frame.picture; }

 private:
  struct Loaded {
    Frame frame;
    bool loaded = false;
    void load(double scale) {
      if (loaded) return;
      if (frame.picture.size() == 0) frame.picture = readPicture(frame.path, nullptr);
      shrink(frame.picture, scale);
      loaded = true;
    }
  };
  std::unique_ptr<FrameSource> source_;
  double scale_;
  Loaded first_, second_;
  long read_ = 0;
};

class FilmMaker {
 public:
  FilmMaker(const FilmJob& film, const PairJob& job, const std::vector<Manifest>& manifests,
            std::unique_ptr<FrameSource> frames, std::function<void()> poll)
      : job_(film), pairs_(job), places_(placesOf(manifests)), poll_(std::move(poll)) {
    if (frames) frames_ = std::make_unique<FramePairs>(std::move(frames), job.scale);
  }

  Film make() {
    survey();
    const Colours colours{job_.wheel, film_.scale};
    if (job_.target == "png") fs::create_directories(fs::path(pairs_.folder) / "color");
    for (const auto& [pair, manifest] : places_) {
      poll_();
      const Json record = manifest->record(pair);
      if (record.contains("outputs")) draw(pair, record, colours);
    }
    if (film_.pictures == 0) throw std::runtime_error(pairs_.folder + ": no pair is there to be drawn");
    if (writer_) writer_->finish();
    return film_;
  }

 private:
  std::string fileOf(const Json& record, const char* kind) const {
    return (fs::path(pairs_.folder) / record.at("outputs").at(kind).at(0).get<std::string>()).string();
  }
  CTensor<float> flowOf(const Json& record) const {
    return readFlow(fileOf(record, pairs_.forward ? "forward" : "backward"), nullptr);
  }

  /// Finds the scale and the rate, and who is left out.
  void survey() {
    double scale = 0, seconds = 0;
    long timed = 0;
    for (const auto& [pair, manifest] : places_) {
      const Json record = manifest->record(pair);
      if (!record.contains("outputs")) {
        film_.leftOut.push_back("pair " + std::to_string(pair) + " is left out, it has failed");
        continue;
      }
      if (job_.maxMotion == "auto") scale = std::max(scale, record.at("p99").get<double>());
      if (job_.maxMotion == "longest") {
        poll_();
        scale = std::max(scale, longestMotion(flowOf(record)));
      }
      if (record.contains("t")) {
        seconds += record["t"][1].get<double>() - record["t"][0].get<double>();
        ++timed;
      }
    }
    const bool given = job_.maxMotion != "auto" && job_.maxMotion != "longest";
    film_.scale = given ? std::stod(job_.maxMotion) : scale > 0 ? scale : 1;
    film_.rate = job_.rate > 0 ? job_.rate
                 : seconds > 0 ? static_cast<double>(timed) / seconds
                               : FilmJob::kUsualRate;
  }

  std::vector<std::uint8_t> hiddenIn(const Json& record, const CTensor<float>& flow) const {
    if (!pairs_.occlusion) return NFlow::consistency(flow, readFlow(fileOf(record, "backward"), nullptr));
    const CTensor<float> mask = readPicture(fileOf(record, "occlusion"), nullptr);
    return {mask.data(), mask.data() + static_cast<std::ptrdiff_t>(flow.sizeX()) * flow.sizeY()};
  }

  void draw(long pair, const Json& record, const Colours& colours) {
    const CTensor<float> flow = flowOf(record);
    if (frames_) frames_->read(pair);
    std::vector<CTensor<float>> panels;
    for (const Panel panel : job_.panels) {
      if (panel == Panel::Colour) {
        panels.push_back(colourPicture(flow, colours));
        drawLegend(panels.back(), colours);
      } else if (panel == Panel::Occlusion) {
        panels.push_back(maskPicture(hiddenIn(record, flow), flow.sizeX(), flow.sizeY()));
      } else {
        const CTensor<float>&own = pairs_.forward ? frames_->first() : frames_->second(),
              &other = pairs_.forward ? frames_->second() : frames_->first();
        panels.push_back(panel == Panel::Frame ? own : errorPicture(own, other, flow));
      }
    }
    put(pair, record, sideBySide(panels), colours);
  }

  void put(long pair, const Json& record, const CTensor<float>& picture, const Colours& colours) {
    const auto notes = notesOf(colours);
    if (job_.target == "png") {
      const fs::path flow = fileOf(record, pairs_.forward ? "forward" : "backward");
      const fs::path path = fs::path(pairs_.folder) / "color" / (flow.stem().string() + ".png");
      writeWhole(path.string(), [&](std::FILE* file) { writePng(file, picture, 8, notes); });
    } else if (!writer_) {
      writer_ = std::make_unique<VideoWriter>(job_.target, film_.rate, picture.sizeX(), picture.sizeY(),
                                              notes, poll_);
    } else if (picture.sizeX() != film_.width || picture.sizeY() != film_.height) {
      film_.leftOut.push_back("pair " + std::to_string(pair) + " is left out, it has another size");
      return;
    }
    if (writer_) writer_->add(picture);
    film_.width = picture.sizeX();
    film_.height = picture.sizeY();
    ++film_.pictures;
  }

  const FilmJob& job_;
  const PairJob& pairs_;
  Places places_;
  std::function<void()> poll_;
  std::unique_ptr<FramePairs> frames_;
  std::unique_ptr<VideoWriter> writer_;
  Film film_;
};

}  // namespace

bool FilmJob::has(Panel panel) const {
  return std::find(panels.begin(), panels.end(), panel) != panels.end();
}

Film makeFilm(const FilmJob& film, const PairJob& job, const std::vector<Manifest>& manifests,
              std::unique_ptr<FrameSource> frames, const std::function<void()>& poll) {
  return FilmMaker(film, job, manifests, std::move(frames), poll).make();
}

}  // namespace tool
