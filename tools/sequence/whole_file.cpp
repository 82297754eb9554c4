#include "sequence/whole_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "sequence/content_hash.h"

namespace tool {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error(path + ": cannot be written (" + reason + ")");
}

/// Removes the file unless it was given its name.
struct Part {
  std::string path;
  ~Part() {
    if (!path.empty()) unlink(path.c_str());
  }
};

}  // namespace

WrittenFile writeWhole(const std::string& path, const std::function<void(std::FILE*)>& writer) {
  constexpr unsigned kPermissions = 0666;  // less the process's mask
  Part part{path + ".part"};
  const int descriptor =
      open(part.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kPermissions);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(descriptor < 0 ? nullptr : fdopen(descriptor, "wb"),
                                                       std::fclose);
  if (!file) fail(path, std::strerror(errno));
  try {
    writer(file.get());
  } catch (const std::runtime_error& error) {
    fail(path, error.what());
  }
  if (std::fclose(file.release()) != 0) fail(path, std::strerror(errno));
  WrittenFile written{std::filesystem::file_size(part.path), hashOfFile(part.path)};
  if (std::rename(part.path.c_str(), path.c_str()) != 0) fail(path, std::strerror(errno));
  part.path.clear();
  return written;
}

}  // namespace tool
