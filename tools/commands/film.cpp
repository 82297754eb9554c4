#include "commands/film.h"

#include <cstdio>
#include <filesystem>

#include "commands/arguments.h"
#include "commands/output_files.h"
#include "commands/stop.h"
#include "video/video.h"
#include "video/video_writer.h"

namespace fs = std::filesystem;

namespace tool {

void addFilm(CLI::App& command, FilmJob& film) {
  CLI::Option* const color =
      command
          .add_option(
              "--color", film.target,
              "Also draw the flows, all with one scale: png, a picture for each in FOLDER/color; or a "
              "clip, by ffmpeg")
          ->check(CLI::Validator(
              [](const std::string& text) {
                return text == "png" || isWritableVideo(text)
                           ? std::string()
                           : text + " is not png, and does not end in .mp4 or .mkv";
              },
              ""))
          ->type_name("png|FILE.mp4|FILE.mkv");
  addColours(
      command, film.wheel, film.maxMotion,
      "auto: the largest of what 99 of 100 pixels of a flow do not exceed; longest: the longest of all",
      color);
  command
      .add_option_function<std::string>(
          "--panel", [&film](const std::string& text) { film.panels = panelsNamed(text); },
          "What is drawn beside one another: frame,color,error,occlusion or some of them; four in two rows")
      ->check(CLI::Validator(
          [](const std::string& text) {
            try {
              panelsNamed(text);
              return std::string();
            } catch (const std::invalid_argument& error) {
              return std::string(error.what());
            }
          },
          ""))
      ->needs(color)
      ->default_str("color")
      ->type_name("NAMES");
  command
      .add_option("--fps", film.rate,
                  "Frames per second of the clip (default: those of a video's frames, else 25)")
      ->check(numberThat([](float value) { return value >= 0.01F && value <= 1000; },
                         "a number from 0.01 to 1000"))
      ->needs(color)
      ->type_name("NUMBER");
}

void checkFilm(const FilmJob& film, const PairJob& job, const std::vector<Clip>& clips,
               const std::string& folder) {
  if (film.target.empty()) return;
  for (const Clip& clip : clips) {
    if (film.needsFrames() && clip.kind == Clip::Kind::Stream) {
      throw UsageError{"--panel: frame and error need the frames again, and standard input is read once"};
    }
  }
  if (film.has(Panel::Occlusion) && (!job.forward || (!job.backward && !job.occlusion))) {
    throw UsageError{"--panel: occlusion needs --direction both, or --occlusion with forward flows"};
  }
  if (film.target == "png") return;
  if (clips.size() > 1) {
    throw UsageError{"--color: " + film.target + " would have to hold " + std::to_string(clips.size()) +
                     " inputs; --color png draws all"};
  }
  try {
    checkFfmpeg();
  } catch (const std::runtime_error& error) {
    throw UsageError{std::string("--color: ") + error.what()};
  }
  const fs::path place = fs::path(film.target).parent_path();
  if (!place.empty() &&
      fs::path(place / "").lexically_normal() == fs::path(fs::path(folder) / "").lexically_normal()) {
    fs::create_directories(folder);
  }
  std::vector<std::string> inputs = clips[0].files;
  if (clips[0].kind == Clip::Kind::Video) inputs.push_back(clips[0].input);
  const OutputFiles tested({{"--color", film.target, {".mp4", ".mkv"}}}, inputs);
}

void makeFilm(const FilmJob& film, const PairJob& job, const Shard& shard,
              std::unique_ptr<FrameSource> frames, const Verbosity& verbosity, bool toldByJson) {
  if (film.target.empty()) return;
  std::vector<Manifest> manifests;
  long all = -1, there = 0;
  for (int k = 1; k <= shard.count; ++k) {
    manifests.emplace_back((fs::path(job.folder) / manifestName({k, shard.count})).string());
    const Json& header = manifests.back().header();
    if (!header.is_null() && header["pairs"].is_number_integer()) all = header["pairs"].get<long>();
    there += static_cast<long>(manifests.back().pairs().size());
  }
  if (shard.count > 1 && there < all) {
    message(verbosity,
            "--color: " + std::to_string(all - there) + " pairs of other shards are missing; the last draws");
    return;
  }
  Film made;
  try {
    made = makeFilm(film, job, manifests, std::move(frames), throwIfStopped);
  } catch (const std::runtime_error&) {
    throwIfStopped();  // ffmpeg gets the same signal from a terminal
    throw;
  }
  const std::string target = film.target == "png" ? (fs::path(job.folder) / "color").string() : film.target;
  for (const std::string& text : made.leftOut) message(verbosity, target + ": " + text);
  if (verbosity.quiet || toldByJson) return;
  std::printf("%ld pictures of %s pixels, %s wheel, full colours at %.3g px", made.pictures,
              sizeText(made.width, made.height).c_str(), nameOf(film.wheel), made.scale);
  if (film.target != "png") std::printf(", %.6g per second", made.rate);
  std::printf(": %s\n", target.c_str());
}

}  // namespace tool
