#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <tarvo/CTensor.h>

#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/files.h"

/// Has a folder of its own.
class FileTest : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return folder_.path(name); }
  /// Number of entries in the test's folder.
  int entries() const { return static_cast<int>(folder_.names().size()); }

  /// What `action` prints to standard output.
  static std::string printed(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
  }

  const TemporaryFolder folder_;
};

/// While alive, no file can grow beyond a number of bytes, as on a full disk.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit limit = before_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit before_{};
  void (*handler_)(int);
};

/// The bytes of a flow file with any tag and sizes.
inline std::string flowBytes(std::int32_t width, std::int32_t height, const std::vector<float>& data,
                             const std::string& tag = "PIEH") {
  std::string bytes(tag.size() + 8 + data.size() * sizeof(float), '\0');
  std::memcpy(&bytes[0], tag.data(), tag.size());
  std::memcpy(&bytes[tag.size()], &width, 4);
  std::memcpy(&bytes[tag.size() + 4], &height, 4);
  if (!data.empty()) std::memcpy(&bytes[tag.size() + 8], data.data(), data.size() * sizeof(float));
  return bytes;
}

/// A flow whose elements all differ.
inline CTensor<float> numberedFlow(int width, int height) {
  CTensor<float> flow(width, height, 2);
  for (int i = 0; i < flow.size(); ++i) flow.data()[i] = static_cast<float>(i) * 0.37F - 11;
  return flow;
}

/// Same sizes and bits.
inline bool sameFlow(const CTensor<float>& a, const CTensor<float>& b) {
  return a.sizeX() == b.sizeX() && a.sizeY() == b.sizeY() && a.sizeZ() == b.sizeZ() &&
         std::memcmp(a.data(), b.data(), static_cast<std::size_t>(a.size()) * sizeof(float)) == 0;
}
