#include <sys/stat.h>
#include <tarvo/tarvo.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

#include "commands/arguments.h"
#include "commands/commands.h"
#include "commands/film.h"
#include "commands/parameters.h"
#include "commands/sequence_report.h"
#include "commands/stop.h"
#include "frames/clips.h"
#include "pictures/picture.h"
#include "sequence/content_hash.h"
#include "sequence/pairs.h"
#include "sequence/resume.h"
#include "sequence/workers.h"
#include "video/video.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

struct SequenceOptions {
  std::vector<std::string> inputs;
  std::string folder;
  std::string direction = "forward", format = "flo";
  bool occlusion = false, noMatches = false;
  FilmJob film;
  Selection selection;
  double scale = 1;
  bool resume = false, redo = false, verify = false;
  std::string shard;
  int jobs = 0;     // 0: as many as pay off
  int threads = 0;  // of each job; 0: what is left for one
  std::string preset = "standard";
  NFlow::Options parameters;
  std::string device = "auto";
  bool json = false;
};

/// One number of the environment.
long slurm(const char* name) {
  const char* const text = std::getenv(name);
  char* end = nullptr;
  const long value = text ? std::strtol(text, &end, 10) : 0;
  if (!text || *text == '\0' || *end != '\0') {
    throw UsageError{std::string("--shard auto: the variable ") + name + " of a job array " +
                     (text ? "is '" + std::string(text) + "', no number" : "is not set")};
  }
  return value;
}

Shard shardOfArray() {
  const long id = slurm("SLURM_ARRAY_TASK_ID"), least = slurm("SLURM_ARRAY_TASK_MIN"),
             most = slurm("SLURM_ARRAY_TASK_MAX"), count = slurm("SLURM_ARRAY_TASK_COUNT");
  if (most - least + 1 != count || id < least || id > most) {
    throw UsageError{"--shard auto: task " + std::to_string(id) + " of an array of " + std::to_string(count) +
                     " from " + std::to_string(least) + " to " + std::to_string(most) +
                     " leaves numbers out; name the shard, like --shard $SLURM_ARRAY_TASK_ID/16"};
  }
  return {static_cast<int>(id - least + 1), static_cast<int>(count)};
}

Shard parseShard(const std::string& text) {
  if (text.empty()) return {};
  if (text == "auto") return shardOfArray();
  Shard shard;
  char end = '\0';
  const bool good = text.size() < 14 && text.find_first_not_of("0123456789/") == std::string::npos &&
                    std::sscanf(text.c_str(), "%d/%d%c", &shard.number, &shard.count, &end) == 2 &&
                    shard.number >= 1 && shard.number <= shard.count;
  if (!good) throw UsageError{"--shard: " + text + " is not K/N with K from 1 to N, or auto"};
  return shard;
}

PairRange blockOf(const Shard& shard, long pairs) {
  return {pairs * (shard.number - 1) / shard.count, pairs * shard.number / shard.count};
}

PairJob jobOf(const SequenceOptions& options) {
  PairJob job;
  job.options = options.parameters;
  job.options.matches = !options.noMatches;
  job.forward = options.direction != "backward";
  job.backward = options.direction != "forward";
  job.occlusion = options.occlusion;
  job.options.backward = job.backward && (job.forward || job.occlusion);
  job.options.occlusion = job.occlusion;
  job.format = formatNamed(options.format);
  job.scale = options.scale;
  job.settings = {{"version", NDevice::version()}, {"direction", options.direction},
                  {"format", options.format},      {"occlusion", options.occlusion},
                  {"scale", options.scale},        {"step", options.selection.step},
                  {"matches", !options.noMatches}, {"parameters", parametersAsJson(options.parameters)}};
  return job;
}

/// How many processes of how many threads do the work.
struct Team {
  int jobs, threads;
};

/// One thread a process is the quickest while there is memory and work for so many.
Team teamFor(const SequenceOptions& options, const PairJob& job, const std::vector<std::string>& files,
             long pairs) {
  const int processors = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  const auto onCpu =
      [&] {  // asked only where nothing forks if it is not so: a CUDA driver does not outlive that
        return options.device == "cpu" || (options.device == "auto" && NDevice::devices().size() == 1);
      };
  int jobs = options.jobs;
  if (jobs == 0 && !files.empty() && options.threads == 0 && onCpu()) {
    CTensor<float> picture;
    try {
      picture = readPicture(files[0], nullptr);
    } catch (const std::runtime_error&) {  // is reported with its pair
    }
    jobs = processors;
    if (picture.size() > 0) {
      const NFlow::Memory memory = NFlow::memoryRequired(picture.sizeX(), picture.sizeY(), job.options);
      const double free = static_cast<double>(sysconf(_SC_AVPHYS_PAGES)) * sysconf(_SC_PAGESIZE);
      const double each = static_cast<double>(memory.device + memory.host);
      jobs = std::max(1, std::min(processors, static_cast<int>(free / 2 / each)));
    }
  }
  jobs = static_cast<int>(std::max(1L, std::min<long>(std::max(jobs, 1), pairs)));
  return {jobs, options.threads > 0 ? options.threads : std::max(1, processors / jobs)};
}

/// The results of one clip.
class ClipRun {
 public:
  ClipRun(const SequenceOptions& options, const Verbosity& verbosity, const Clip& clip, const Shard& shard,
          PairJob job)
      : options_(options),
        verbosity_(verbosity),
        clip_(clip),
        job_(std::move(job)),
        shard_(shard),
        manifest_((fs::path(job_.folder) / manifestName(shard)).string()) {
    if (clip.kind == Clip::Kind::Files) {
      files_ = select(clip.files, options.selection);
      pairs_ = static_cast<long>(files_.size()) - 1;
      if (*pairs_ < 1) {
        throw std::runtime_error(clip.input + ": " + std::to_string(files_.size()) +
                                 (files_.size() == 1 ? " frame makes" : " frames make") + " no pair");
      }
      block_ = blockOf(shard, *pairs_);
    } else if (shard.count > 1) {
      throw UsageError{"--shard: " + named() + " cannot be split"};
    } else if (options.jobs > 1) {
      throw UsageError{"--jobs: " + named() + " is read by one process"};
    }
  }

  /// Finds out what is done. Throws UsageError where results of other settings or frames are there.
  void prepare() {
    known_ = KnownPairs(manifest_, job_, options_.verify);
    if (!manifest_.header().is_null() && !options_.resume && !options_.redo) {
      throw UsageError{manifest_.path() +
                       " is of a run before: --resume goes on with it, --redo makes anew "
                       "what differs"};
    }
    if (!options_.redo) {
      const std::string difference = known_.difference(files_);
      if (!difference.empty()) {
        throw UsageError{manifest_.path() + ": " + difference + "; --redo computes again what differs"};
      }
    }
  }

  long known() const { return pairs_ ? block_.last - block_.first : -1; }

  /// Computes what is not done. Returns false if the clip ended too early.
  bool run(const std::function<void(const PairReport&)>& report) {
    makeFolders(job_);
    Json header{{"tarvo", NDevice::version()}, {"input", clip_.input}};
    header["pairs"] = pairs_ ? Json(*pairs_) : Json();
    if (shard_.count > 1) header["shard"] = {shard_.number, shard_.count};
    header["settings"] = job_.settings;
    manifest_.start(header, [this](long pair) {  // of a stream it shows when the frames come
      return clip_.kind != Clip::Kind::Files || known_.isDone(pair, files_);
    });
    const auto note = [&](const PairReport& pair) {
      if (pair.state != PairReport::State::Skipped) manifest_.add(pair.record);
      report(pair);
    };
    const bool whole = clip_.kind == Clip::Kind::Files ? runFiles(note) : runStream(note);
    if (whole) manifest_.finish(*pairs_);
    return whole;
  }

  /// Draws what is done. This process computes then: no other may be forked from it afterwards.
  void draw() const {
    std::unique_ptr<FrameSource> frames;
    if (options_.film.needsFrames() && !options_.film.target.empty()) {
      frames = clip_.kind == Clip::Kind::Files ? framesOf(files_) : select(open(nullptr), options_.selection);
    }
    makeFilm(options_.film, job_, shard_, std::move(frames), verbosity_, options_.json);
  }

 private:
  void useDevice(int threads) const {
    NDevice::select(options_.device);
    NDevice::threads(threads);
  }

  bool runFiles(const std::function<void(const PairReport&)>& report) {
    std::vector<PairRange> todo;
    for (long pair = block_.first; pair < block_.last; ++pair) {
      if (known_.isDone(pair, files_)) {
        report({PairReport::State::Skipped, pair, {{"pair", pair}}});
      } else if (!todo.empty() && todo.back().last == pair) {
        ++todo.back().last;
      } else {
        todo.push_back({pair, pair + 1});
      }
    }
    if (todo.empty()) return true;
    const Team team = teamFor(options_, job_, files_, block_.last - block_.first);
    const DoPairs doPairs = [&](const std::vector<PairRange>& ranges,
                                const std::function<void(const PairReport&)>& tell) {
      useDevice(team.threads);
      for (const PairRange& range : ranges) {
        Pairs pairs(job_, range.first, {}, tell, throwIfStopped);
        const auto source = framesOf({files_.begin() + range.first, files_.begin() + range.last + 1});
        for (Frame frame; source->next(frame);) pairs.add(std::move(frame));
      }
    };
    if (team.jobs == 1) {
      doPairs(todo, report);
    } else {
      shareAmongProcesses(team.jobs, todo, doPairs, report, throwIfStopped);
    }
    return true;
  }

  std::string named() const { return clip_.kind == Clip::Kind::Stream ? "standard input" : clip_.input; }

  std::unique_ptr<FrameSource> open(std::vector<std::string>* messages) const {
    if (clip_.kind == Clip::Kind::Stream) return framesOf(stdin, named());
    return openVideo(clip_.input, {}, messages);
  }

  bool runStream(const std::function<void(const PairReport&)>& report) {
    const Team team = teamFor(options_, job_, {}, 1);
    useDevice(team.threads);
    const auto isDone = [this](long pair, const std::string& first, const std::string& second) {
      return known_.isDone(pair, first, second, options_.redo);
    };
    Pairs pairs(job_, 0, isDone, report, throwIfStopped);
    std::vector<std::string> messages;
    const auto source = select(open(&messages), options_.selection);
    for (const std::string& text : messages) message(verbosity_, text);
    long frames = 0;
    try {
      for (Frame frame; source->next(frame); ++frames) pairs.add(std::move(frame));
    } catch (const BrokenSequence& error) {
      std::fprintf(stderr, "tarvo: %s\n", error.what());
      return false;
    }
    if (frames < 2) {
      throw std::runtime_error(named() + ": " + std::to_string(frames) +
                               (frames == 1 ? " frame makes no pair" : " frames make no pair"));
    }
    pairs_ = frames - 1;
    return true;
  }

  const SequenceOptions& options_;
  const Verbosity& verbosity_;
  const Clip& clip_;
  PairJob job_;
  Shard shard_;
  Manifest manifest_;
  KnownPairs known_;
  std::vector<std::string> files_;
  std::optional<long> pairs_;
  PairRange block_{0, 0};
};

/// A folder for each clip; the named one itself if there is only one clip.
std::vector<std::string> foldersFor(const std::vector<Clip>& clips, const std::string& folder) {
  if (clips.size() == 1) return {folder};
  std::vector<std::string> folders;
  for (const Clip& clip : clips) {
    const std::string own = (fs::path(folder) / clip.name).string();
    if (std::find(folders.begin(), folders.end(), own) != folders.end()) {
      throw UsageError{"two inputs would have their results in " + own};
    }
    folders.push_back(own);
  }
  return folders;
}

void needFfmpeg() {
  try {
    checkFfmpeg();
  } catch (const std::runtime_error& error) {
    throw UsageError{error.what()};
  }
}

void sequence(const SequenceOptions& options, const Verbosity& verbosity) {
  const Shard shard = parseShard(options.shard);
  std::vector<std::string> messages;
  const std::vector<Clip> clips = findClips(options.inputs, messages);
  const std::vector<std::string> folders = foldersFor(clips, options.folder);
  for (const std::string& text : messages) message(verbosity, text);
  if (std::any_of(clips.begin(), clips.end(),
                  [](const Clip& clip) { return clip.kind == Clip::Kind::Video; })) {
    needFfmpeg();
  }
  routeReport(verbosity, true);

  std::vector<std::unique_ptr<ClipRun>> runs;
  long known = 0;
  for (std::size_t k = 0; k < clips.size(); ++k) {
    PairJob job = jobOf(options);
    job.folder = folders[k];
    runs.push_back(std::make_unique<ClipRun>(options, verbosity, clips[k], shard, std::move(job)));
    runs.back()->prepare();
    known = known < 0 || runs.back()->known() < 0 ? -1 : known + runs.back()->known();
  }
  checkFilm(options.film, jobOf(options), clips, options.folder);
  stopOnSignals();
  SequenceReport report(verbosity, options.json, known, clips.size() > 1);
  bool whole = true;
  try {
    for (std::size_t k = 0; k < clips.size(); ++k) {
      report.clip(clips[k].name);
      whole = runs[k]->run([&report](const PairReport& pair) { report.add(pair); }) && whole;
    }
  } catch (const Stopped& stopped) {
    report.finish();
    endBy(stopped);
  }
  report.finish();
  try {
    for (const auto& run : runs) run->draw();
  } catch (const Stopped& stopped) {
    endBy(stopped);
  }
  if (report.failed() > 0) {
    throw std::runtime_error(std::to_string(report.failed()) +
                             (report.failed() == 1 ? " pair has failed" : " pairs have failed"));
  }
  if (!whole) throw std::runtime_error("not all frames could be read");
}

CLI::Validator scaleCheck() {
  return numberThat([](float value) { return value > 0 && value <= 1; }, "a number above 0 and up to 1");
}

}  // namespace

void addSequence(CLI::App& app, Verbosity& verbosity) {
  CLI::App* const command =
      app.add_subcommand("sequence", "Computes the flow from each picture of a sequence to the next");
  command->footer(
      "An INPUT is a folder, a pattern like 'shot.%04d.png' or 'shot.*.png', a list of files (.txt), picture "
      "files,\n"
      "a video file, or - for PPM and PGM pictures on standard input. N frames give N - 1 flows, "
      "FOLDER/NAME.flo, named "
      "after the\n"
      "first frame of their pair. What is done is in FOLDER/tarvo.jsonl; 'tarvo status FOLDER' reads it.\n"
      "A frame or pair that fails is reported, the others go on, and the exit status is 1.");
  const auto options = std::make_shared<SequenceOptions>();
  const auto choices = std::make_shared<Choices>();
  command->add_option("INPUT", options->inputs, "Where the frames are")->required()->type_name("");
  command->add_option("-o,--output", options->folder, "Folder for the results; it is made if need be")
      ->required()
      ->type_name("FOLDER");
  command
      ->add_option("--direction", options->direction,
                   "forward: to the next frame; backward: from the next frame, in FOLDER/backward; both")
      ->check(CLI::IsMember({"forward", "backward", "both"}))
      ->capture_default_str()
      ->type_name("NAME");
  command->add_flag("--occlusion", options->occlusion,
                    "Also draw in white what of a frame is hidden in the next, in FOLDER/occlusion");
  addFilm(*command, options->film);
  command->add_option("--start", options->selection.first, "First frame to use, counted from 0")
      ->transform(wholeNumber(0, 2000000000))
      ->type_name("NUMBER");
  command->add_option("--stop", options->selection.last, "Frame to stop before (default: after the last)")
      ->transform(wholeNumber(0, 2000000000))
      ->type_name("NUMBER");
  command->add_option("--step", options->selection.step, "Use every so many frames")
      ->transform(wholeNumber(1, 1000000))
      ->capture_default_str()
      ->type_name("COUNT");
  command->add_option("--scale", options->scale, "Shrink the frames first; flows are of the shrunk frames")
      ->check(scaleCheck())
      ->capture_default_str()
      ->type_name("NUMBER");
  std::vector<std::string> formats;
  for (const FlowFormat& format : flowFormats()) formats.emplace_back(format.name);
  command->add_option("--format", options->format, "Of the flow files; docs/formats.md tells what each holds")
      ->check(CLI::IsMember(formats))
      ->capture_default_str()
      ->type_name("NAME");
  command->add_flag("--no-matches", options->noMatches, "Search no matches");
  command->add_flag("--resume", options->resume,
                    "Go on with a run before: skip pairs whose results are there");
  command->add_flag("--redo", options->redo,
                    "The same, and compute again what was made of other settings or frames");
  command->add_flag("--verify", options->verify,
                    "Take results as there only if their contents have their hash");
  command
      ->add_option("--shard", options->shard,
                   "Do block K of N of the pairs, K from 1; auto: as the variables of a Slurm array say")
      ->type_name("K/N");
  command
      ->add_option("--jobs", options->jobs,
                   "Processes (default: one per processor on the CPU, as far as memory allows; one on a GPU)")
      ->transform(wholeNumber(1, 1024))
      ->type_name("COUNT");
  addParameters(*command, options->preset, *choices);
  addDevice(*command, options->device);
  command
      ->add_option("--threads", options->threads,
                   "Threads of each process on the CPU (default: the processors shared among the processes)")
      ->transform(wholeNumber(1, 1024))
      ->type_name("COUNT");
  command->add_flag("--json", options->json,
                    "A line of JSON for each pair and one for all on standard output");
  addVerbosity(*command, verbosity);
  command->callback([options, choices, &verbosity] {
    options->parameters = parametersOf(options->preset, *choices);
    sequence(*options, verbosity);
  });
}

}  // namespace tool
