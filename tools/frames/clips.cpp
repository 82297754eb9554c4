#include "frames/clips.h"

#include <glob.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>

#include "frames/natural_order.h"
#include "pictures/picture.h"
#include "video/video.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

std::string endingOf(const fs::path& path) {
  std::string ending = path.extension().string();
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return ending;
}

bool isPictureName(const fs::path& path) {
  static const char* const kEndings[] = {".png", ".jpg", ".jpeg", ".ppm", ".pgm", ".pnm"};
  const std::string ending = endingOf(path);
  return std::any_of(std::begin(kEndings), std::end(kEndings),
                     [&](const char* known) { return ending == known; });
}

bool isHidden(const fs::path& path) {
  return path.filename().string().rfind('.', 0) == 0;
}

void sortNaturally(std::vector<std::string>& files) {
  std::sort(files.begin(), files.end(), naturallyBefore);
}

std::vector<std::string> picturesIn(const std::string& folder, std::vector<std::string>& messages) {
  std::vector<std::string> files;
  long others = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (isHidden(entry.path()) || entry.is_directory()) continue;
    if (isPictureName(entry.path())) {
      files.push_back(entry.path().string());
    } else {
      ++others;
    }
  }
  sortNaturally(files);
  if (others > 0) {
    messages.push_back(folder + ": " + std::to_string(others) +
                       (others == 1 ? " file that is no picture" : " files that are no pictures") +
                       " passed over");
  }
  return files;
}

/// Where "%d" or "%04d" stands in a pattern.
struct NumberField {
  std::size_t start, end;
  std::size_t width;
};

NumberField numberField(const std::string& pattern) {
  const std::size_t start = pattern.find('%');
  std::size_t end = start + 1;
  while (end < pattern.size() && std::isdigit(static_cast<unsigned char>(pattern[end])) != 0) ++end;
  const std::string digits = pattern.substr(start + 1, end - start - 1);
  const bool good = end < pattern.size() && pattern[end] == 'd' && digits.size() < 3 &&
                    (digits.empty() || digits[0] == '0') && pattern.find('%', end) == std::string::npos &&
                    pattern.find('/', start) == std::string::npos;
  if (!good) {
    throw std::runtime_error(pattern + ": a pattern has one number in the name of the file, like %d or %04d");
  }
  return {start, end + 1, digits.empty() ? 1 : static_cast<std::size_t>(std::stoul(digits))};
}

std::vector<std::string> filesNumbered(const std::string& pattern) {
  const NumberField field = numberField(pattern);
  const fs::path folder = fs::path(pattern).parent_path();
  const std::size_t nameStart = pattern.rfind('/') == std::string::npos ? 0 : pattern.rfind('/') + 1;
  const std::string before = pattern.substr(nameStart, field.start - nameStart);
  const std::string after = pattern.substr(field.end);
  std::vector<std::string> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder.empty() ? "." : folder)) {
    const std::string name = entry.path().filename().string();
    if (name.size() < before.size() + after.size() + field.width || name.rfind(before, 0) != 0 ||
        name.compare(name.size() - after.size(), after.size(), after) != 0) {
      continue;
    }
    const std::string number = name.substr(before.size(), name.size() - before.size() - after.size());
    const bool digits = number.find_first_not_of("0123456789") == std::string::npos;
    const bool padded = number.size() == field.width || number[0] != '0';
    if (digits && padded) files.push_back((folder / name).string());
  }
  sortNaturally(files);
  return files;
}

std::vector<std::string> filesMatching(const std::string& pattern) {
  glob_t found{};
  const int status = glob(pattern.c_str(), GLOB_NOSORT, nullptr, &found);
  std::vector<std::string> files;
  if (status == 0) files.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  globfree(&found);
  sortNaturally(files);
  return files;
}

std::vector<std::string> filesListed(const std::string& list) {
  std::ifstream file(list);
  if (!file) throw std::runtime_error(list + ": cannot be read");
  const fs::path folder = fs::path(list).parent_path();
  std::vector<std::string> files;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    files.push_back((folder / line).string());  // an absolute path stays one
  }
  return files;
}

/// Flows are named after their frames.
void checkNames(const std::vector<std::string>& files, const std::string& input) {
  std::map<std::string, std::string> seen;
  for (const std::string& file : files) {
    const auto [other, isNew] = seen.emplace(fs::path(file).stem().string(), file);
    if (!isNew) {
      throw std::runtime_error(input + ": two frames have the same name, which their flows would share: " +
                               other->second + " and " + file);
    }
  }
}

void reportGaps(const std::vector<std::string>& files, const std::string& input,
                std::vector<std::string>& messages) {
  std::vector<std::string> names;
  names.reserve(files.size());
  for (const std::string& file : files) names.push_back(fs::path(file).stem().string());
  const std::string missing = missingNumbers(names);
  if (!missing.empty()) messages.push_back(input + ": numbers missing: " + missing);
}

/// A name for the results of an input: of its file or folder, without ending.
std::string nameOf(const std::string& input) {
  fs::path path = fs::path(input).lexically_normal();
  if (!path.has_filename()) path = path.parent_path();
  const std::string name = fs::is_directory(input) ? path.filename().string() : path.stem().string();
  return name.empty() || name == "." || name == ".." ? "clip" : name;
}

Clip clipOf(const std::string& input, std::vector<std::string>& messages) {
  if (input == "-") return {Clip::Kind::Stream, input, "stdin", {}};
  if (looksLikeVideo(input)) {
    if (!fs::is_regular_file(input)) throw std::runtime_error(input + ": there is no such file");
    return {Clip::Kind::Video, input, nameOf(input), {}};
  }
  Clip clip{Clip::Kind::Files, input, nameOf(input), {}};
  const bool exists = fs::exists(input);
  if (fs::is_directory(input)) {
    clip.files = picturesIn(input, messages);
  } else if (exists && (endingOf(input) == ".txt" || endingOf(input) == ".lst")) {
    clip.files = filesListed(input);
  } else if (!exists && input.find('%') != std::string::npos) {
    clip.files = filesNumbered(input);
  } else if (!exists && input.find_first_of("*?[") != std::string::npos) {
    clip.files = filesMatching(input);
  } else {
    throw std::runtime_error(input + (exists ? ": is no picture, video, folder, pattern or list (.txt)"
                                             : ": there is no such file or folder"));
  }
  if (clip.files.empty()) throw std::runtime_error(input + ": there are no pictures");
  return clip;
}

class FileFrames : public FrameSource {
 public:
  explicit FileFrames(std::vector<std::string> files) : files_(std::move(files)) {}
  std::optional<long> count() const override { return static_cast<long>(files_.size()); }
  bool next(Frame& frame) override {
    if (next_ == files_.size()) return false;
    const std::string& path = files_[next_++];
    frame = {fs::path(path).stem().string(), path, {}, {}};
    return true;
  }

 private:
  std::vector<std::string> files_;
  std::size_t next_ = 0;
};

class StreamFrames : public FrameSource {
 public:
  StreamFrames(std::FILE* stream, std::string name) : stream_(stream), name_(std::move(name)) {}
  std::optional<long> count() const override { return std::nullopt; }
  bool next(Frame& frame) override {
    char number[24];
    std::snprintf(number, sizeof number, "%06ld", read_);
    frame = {number, "", {}, {}};
    try {
      if (!readNextPnm(stream_, name_, frame.picture)) return false;
    } catch (const std::runtime_error& error) {
      throw BrokenSequence(std::string(error.what()) + ", after " + std::to_string(read_) +
                           (read_ == 1 ? " frame" : " frames"));
    }
    ++read_;
    return true;
  }

 private:
  std::FILE* stream_;
  std::string name_;
  long read_ = 0;
};

class SelectedFrames : public FrameSource {
 public:
  SelectedFrames(std::unique_ptr<FrameSource> source, const Selection& selection)
      : source_(std::move(source)), selection_(selection) {}
  std::optional<long> count() const override {
    const std::optional<long> all = source_->count();
    if (!all) return std::nullopt;
    const long last = selection_.last < 0 ? *all : std::min(*all, selection_.last);
    return std::max(0L, (last - selection_.first + selection_.step - 1) / selection_.step);
  }
  bool next(Frame& frame) override {
    while (selection_.last < 0 || number_ < selection_.last) {
      if (!source_->next(frame)) return false;
      const long from = number_++ - selection_.first;
      if (from >= 0 && from % selection_.step == 0) return true;
    }
    return false;
  }

 private:
  std::unique_ptr<FrameSource> source_;
  Selection selection_;
  long number_ = 0;
};

}  // namespace

std::vector<Clip> findClips(const std::vector<std::string>& inputs, std::vector<std::string>& messages) {
  std::vector<Clip> clips;
  std::vector<std::string> pictures;
  for (const std::string& input : inputs) {
    if (isPictureName(input) && fs::exists(input) && !fs::is_directory(input)) {
      pictures.push_back(input);
    } else {
      clips.push_back(clipOf(input, messages));
    }
  }
  if (!pictures.empty() && !clips.empty()) {
    throw std::runtime_error("picture files (" + pictures[0] + ") and other inputs (" + clips[0].input +
                             ") cannot be mixed");
  }
  if (!pictures.empty()) {
    if (!std::is_sorted(pictures.begin(), pictures.end(), naturallyBefore)) {
      messages.emplace_back("the pictures are taken in the order given, which is not that of their numbers");
    }
    clips.push_back({Clip::Kind::Files, "the pictures", "clip", pictures});
  }
  for (const Clip& clip : clips) {
    checkNames(clip.files, clip.input);
    reportGaps(clip.files, clip.input, messages);
  }
  return clips;
}

std::vector<std::string> select(const std::vector<std::string>& files, const Selection& selection) {
  const long all = static_cast<long>(files.size());
  const long last = selection.last < 0 ? all : std::min(all, selection.last);
  std::vector<std::string> selected;
  for (long k = selection.first; k < last; k += selection.step) {
    selected.push_back(files[static_cast<std::size_t>(k)]);
  }
  return selected;
}

std::unique_ptr<FrameSource> framesOf(std::vector<std::string> files) {
  return std::make_unique<FileFrames>(std::move(files));
}

std::unique_ptr<FrameSource> framesOf(std::FILE* stream, const std::string& name) {
  return std::make_unique<StreamFrames>(stream, name);
}

std::unique_ptr<FrameSource> select(std::unique_ptr<FrameSource> source, const Selection& selection) {
  return std::make_unique<SelectedFrames>(std::move(source), selection);
}

}  // namespace tool
