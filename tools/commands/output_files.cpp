#include "commands/output_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "commands/console.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

std::string temporaryName(const fs::path& target) {
  const std::string name =
      "." + target.stem().string() + ".tmp" + std::to_string(getpid()) + target.extension().string();
  return (target.parent_path() / name).string();
}

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error(path + ": cannot be written (" + reason + ")");
}

}  // namespace

OutputFiles::~OutputFiles() {
  for (const File& file : files_) {
    std::error_code ignored;
    fs::remove(file.temporary, ignored);
  }
}

void OutputFiles::announce(const std::string& path) {
  std::error_code error;
  const fs::path target = fs::is_symlink(path, error) ? fs::weakly_canonical(path, error) : fs::path(path);
  const fs::file_status status = fs::status(target, error);
  if (fs::is_directory(status)) {
    fail(path, "it is a folder");
  }
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    fail(path, "it is not a plain file");
  }
  const fs::path folder = target.parent_path();
  if (!folder.empty() && !fs::is_directory(folder, error)) {
    fail(path, "there is no folder " + folder.string());
  }
  const std::string temporary = temporaryName(target);
  const int probe = open(temporary.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (probe < 0) {
    fail(path, std::strerror(errno));
  }
  close(probe);
  fs::remove(temporary, error);
  files_.push_back({path, target.string(), temporary});
}

void OutputFiles::write(const std::string& path, const std::function<void(const std::string&)>& writer) {
  const auto named = [&path](const File& file) { return file.path == path; };
  const auto file = std::find_if(files_.begin(), files_.end(), named);
  if (file == files_.end()) {
    throw std::logic_error(path + " was not announced");
  }
  try {
    writer(file->temporary);
  } catch (const std::runtime_error& error) {
    std::string text = error.what();
    const std::size_t at = text.find(file->temporary);
    throw std::runtime_error(at == std::string::npos ? text : text.replace(at, file->temporary.size(), path));
  }
}

void OutputFiles::commit() {
  for (const File& file : files_) {
    std::error_code error;
    fs::rename(file.temporary, file.target, error);
    if (error) {
      fail(file.path, error.message());
    }
  }
  files_.clear();
}

void checkEnding(const std::string& option, const std::string& path, const std::string& ending) {
  std::string found = fs::path(path).extension().string();
  std::transform(found.begin(), found.end(), found.begin(), [](unsigned char c) { return std::tolower(c); });
  if (found != ending) {
    throw UsageError{option + ": '" + path + "' does not end in " + ending};
  }
}

bool sameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  if (fs::equivalent(a, b, error)) {
    return true;
  }
  return fs::weakly_canonical(fs::absolute(a, error), error) ==
         fs::weakly_canonical(fs::absolute(b, error), error);
}

}  // namespace tool
