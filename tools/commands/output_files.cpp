#include "commands/output_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "commands/console.h"

namespace fs = std::filesystem;

namespace tool {

namespace {

std::atomic<const OutputFiles*> current{nullptr};

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error(path + ": cannot be written (" + reason + ")");
}

/// The name at the end of a chain of symbolic links, which need not exist.
fs::path followLinks(const std::string& path) {
  constexpr int kMostLinks = 40;
  fs::path name(path);
  std::error_code error;
  for (int i = 0; i < kMostLinks && fs::is_symlink(name, error); ++i) {
    name = name.parent_path() / fs::read_symlink(name, error);
  }
  return name;
}

/// Whether both paths name the same file, which need not exist.
bool sameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  const auto canonical = [&error](const std::string& path) {
    return fs::weakly_canonical(fs::absolute(followLinks(path), error), error);
  };
  return fs::equivalent(a, b, error) || canonical(a) == canonical(b);
}

void checkEnding(const Output& output) {
  std::string found = fs::path(output.path).extension().string();
  std::transform(found.begin(), found.end(), found.begin(), [](unsigned char c) { return std::tolower(c); });
  if (std::find(output.endings.begin(), output.endings.end(), found) != output.endings.end()) {
    return;
  }
  std::string endings;
  for (std::size_t i = 0; i < output.endings.size(); ++i) {
    endings += (i == 0 ? "" : i + 1 < output.endings.size() ? ", " : " or ") + output.endings[i];
  }
  throw UsageError{output.option + ": '" + output.path + "' does not end in " + endings};
}

/// Opens the temporary file for writing; -1, and errno set, if that fails.
int openTemporary(const OutputFiles::File& file, int flags) {
  const int descriptor =
      open(file.temporary.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, file.permissions);
  if (descriptor >= 0 && file.exists) {
    // Where the file system has none to set, the file is as good without.
    static_cast<void>(fchmod(descriptor, file.permissions));
  }
  return descriptor;
}

/// Finds a free name in a folder and tests that it can be used; false, and errno set, if it cannot.
bool findTemporary(OutputFiles::File& file, const fs::path& folder) {
  static int counter = 0;
  int probe = -1;
  do {
    file.temporary =
        (folder / (".tarvo-" + std::to_string(getpid()) + "-" + std::to_string(++counter) + ".tmp")).string();
    probe = openTemporary(file, O_EXCL);
  } while (probe < 0 && errno == EEXIST);
  if (probe < 0) {
    return false;
  }
  close(probe);
  unlink(file.temporary.c_str());
  return true;
}

OutputFiles::File prepare(const std::string& path) {
  constexpr unsigned kNewFilePermissions = 0666;  // less the process's mask
  const fs::path target = followLinks(path), folder = target.parent_path();
  OutputFiles::File file{path, target.string(), "", false, kNewFilePermissions};
  struct stat status {};
  if (stat(target.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode)) {
      fail(path, S_ISDIR(status.st_mode) ? "it is a folder" : "it is not a plain file");
    }
    if (access(target.c_str(), W_OK) != 0) {  // then it may not be replaced either
      fail(path, std::strerror(errno));
    }
    file.exists = true;
    file.permissions = status.st_mode & 07777;
  } else if (errno != ENOENT) {
    fail(path, std::strerror(errno));
  }
  std::error_code error;
  if (!folder.empty() && !fs::is_directory(folder, error)) {
    fail(path, "there is no folder " + folder.string());
  }
  const auto folderTakesNone = [] { return errno == EACCES || errno == EPERM || errno == EROFS; };
  if (!findTemporary(file, folder) &&
      !(file.exists && folderTakesNone() && findTemporary(file, fs::temp_directory_path(error)))) {
    fail(path, std::strerror(errno));
  }
  return file;
}

/// Copies the temporary file over the existing one; false, and errno set, if that fails.
bool overwrite(const OutputFiles::File& file) {
  std::ifstream from(file.temporary, std::ios::binary);
  std::ofstream to(file.target, std::ios::binary);
  to << from.rdbuf();
  to.close();
  return from && to;
}

/// A signal that the process was started to ignore stays ignored.
void handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  sigaction(signal, nullptr, &action);
  if (action.sa_handler == SIG_IGN) {
    return;
  }
  action = {};
  action.sa_handler = handler;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(signal, &action, nullptr);
}

}  // namespace

OutputFiles::OutputFiles(const std::vector<Output>& outputs, const std::vector<std::string>& inputs) {
  std::vector<Output> wanted;
  for (const Output& output : outputs) {
    if (output.path.empty()) {
      continue;
    }
    checkEnding(output);
    for (const Output& other : wanted) {
      if (sameFile(output.path, other.path)) {
        throw UsageError{output.option + " and " + other.option + " name the same file: " + output.path};
      }
    }
    for (const std::string& input : inputs) {
      if (sameFile(output.path, input)) {
        throw UsageError{output.option + " names an input file: " + input};
      }
    }
    wanted.push_back(output);
  }
  for (const Output& output : wanted) {
    files_.push_back(prepare(output.path));
  }
  current = this;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    handle(signal, endBySignal);
  }
  std::signal(SIGXFSZ, SIG_IGN);  // a file that grows too large is a failure like a full disk
}

OutputFiles::~OutputFiles() {
  current = nullptr;
  removeTemporaries();
}

void OutputFiles::removeTemporaries() const {
  for (const File& file : files_) {
    unlink(file.temporary.c_str());
  }
}

/// Calls nothing but what a signal handler may.
void OutputFiles::endBySignal(int signal) {
  const OutputFiles* const files = current;
  if (files) {
    files->removeTemporaries();
  }
  raise(signal);  // ends the process once this handler, which is not in place any more, returns
}

void OutputFiles::write(const std::string& path, const std::function<void(std::FILE*)>& writer) {
  const auto file = std::find_if(files_.begin(), files_.end(), [&](const File& f) { return f.path == path; });
  if (file == files_.end()) {
    throw std::logic_error(path + " is no output");
  }
  const int descriptor = openTemporary(*file, O_TRUNC | O_NOFOLLOW);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(descriptor < 0 ? nullptr : fdopen(descriptor, "wb"),
                                                         std::fclose);
  if (!stream) {
    fail(path, std::strerror(errno));
  }
  try {
    writer(stream.get());
  } catch (const std::runtime_error& error) {
    fail(path, error.what());
  }
  if (std::fclose(stream.release()) != 0) {
    fail(path, std::strerror(errno));
  }
}

void OutputFiles::commit() {
  for (const File& file : files_) {
    if (std::rename(file.temporary.c_str(), file.target.c_str()) != 0 && !(file.exists && overwrite(file))) {
      fail(file.path, std::strerror(errno));
    }
  }
}

}  // namespace tool
