#include "cpuflow/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace {

constexpr unsigned kNewFilePermissions = 0666;  // less the process's mask
constexpr std::size_t kLongestEnding = 32;      // keeps the temporary name within every file system's limit

/// The name at the end of a chain of symbolic links; links in the folder part are left to the system.
std::string followLinks(const std::string& path) {
  constexpr int kMostLinks = 40;
  std::filesystem::path name(path);
  std::error_code error;
  for (int i = 0; i < kMostLinks && std::filesystem::is_symlink(name, error); ++i) {
    const std::filesystem::path target = std::filesystem::read_symlink(name, error);
    if (error) break;
    name = name.parent_path() / target;
  }
  return name.string();
}

/// A name in the folder of `target` and with its ending that no other call of this process uses.
std::string temporaryName(const std::string& target) {
  static std::atomic<unsigned> counter{0};
  const std::filesystem::path path(target);
  std::string ending = path.extension().string();
  if (ending.size() > kLongestEnding) ending.clear();
  const std::string name = ".tarvo-" + std::to_string(getpid()) + "-" + std::to_string(++counter) + ending;
  return (path.parent_path() / name).string();
}

}  // namespace

OutputFile::OutputFile(const std::string& path) : target_(followLinks(path)) {
  struct stat status {};
  if (target_.empty()) {
    error_ = ENOENT;
  } else if (stat(target_.c_str(), &status) != 0) {
    if (errno == ENOENT) {
      openBeside(kNewFilePermissions, false);
    } else {
      fail();
    }
  } else if (!S_ISREG(status.st_mode)) {
    descriptor_ = open(target_.c_str(), O_WRONLY | O_CLOEXEC);
    if (descriptor_ < 0) fail();
  } else {
    // A file that may not be written may not be replaced either.
    const int existing = open(target_.c_str(), O_WRONLY | O_CLOEXEC);
    if (existing < 0) {
      fail();
      return;
    }
    openBeside(status.st_mode & 07777, true);
    if (!isOpen() && (error_ == EACCES || error_ == EPERM || error_ == EROFS)) {
      descriptor_ = existing;
      error_ = 0;
      if (ftruncate(descriptor_, 0) != 0) fail();
    } else {
      close(existing);
    }
  }
}

OutputFile::~OutputFile() {
  discard();
}

void OutputFile::openBeside(unsigned permissions, bool keepPermissions) {
  do {
    temporary_ = temporaryName(target_);
    descriptor_ = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, permissions);
  } while (descriptor_ < 0 && errno == EEXIST);
  if (descriptor_ < 0) {
    fail();
    temporary_.clear();
  } else if (keepPermissions) {
    // Where the file system has none to set, the file is as good without.
    (void)fchmod(descriptor_, permissions);
  }
}

bool OutputFile::write(const void* bytes, std::size_t count) {
  const char* next = static_cast<const char*>(bytes);
  while (count > 0) {
    const ssize_t written = ::write(descriptor_, next, count);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return fail();
    next += written;
    count -= static_cast<std::size_t>(written);
  }
  return true;
}

bool OutputFile::commit() {
  const int descriptor = descriptor_;
  descriptor_ = -1;
  if (close(descriptor) != 0) fail();  // some file systems report a full disk only now
  if (error_ == 0 && !temporary_.empty()) {
    if (std::rename(temporary_.c_str(), target_.c_str()) == 0) {
      temporary_.clear();
    } else {
      fail();
    }
  }
  discard();
  return error_ == 0;
}

std::string OutputFile::reason() const {
  return std::generic_category().message(error_);
}

bool OutputFile::fail() {
  if (error_ == 0) error_ = errno;
  return false;
}

void OutputFile::discard() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
  if (!temporary_.empty()) unlink(temporary_.c_str());
  temporary_.clear();
}
