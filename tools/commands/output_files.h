#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tool {

/// The files that a command writes: all or none appear. Each is written under a temporary name beside its
/// final one (with the same ending) and renamed once every file is complete; what was there before stays
/// until then.
class OutputFiles {
 public:
  OutputFiles() = default;
  /// Removes temporary files that were not renamed.
  ~OutputFiles();
  OutputFiles(const OutputFiles&) = delete;
  OutputFiles& operator=(const OutputFiles&) = delete;

  /// Announces a file and tests that it can be written, before a long computation: its folder exists and
  /// takes files, and nothing but a plain file has its name. Throws std::runtime_error otherwise.
  void announce(const std::string& path);

  /// Has `writer` write an announced file under the temporary name that it is given.
  void write(const std::string& path, const std::function<void(const std::string&)>& writer);

  /// Gives all files their final names. Throws std::runtime_error if one cannot be renamed.
  void commit();

 private:
  struct File {
    std::string path, target, temporary;  // target: path with symbolic links followed
  };
  std::vector<File> files_;
};

/// Throws UsageError unless the path ends in `ending` (".flo", ".png"), whatever its case.
void checkEnding(const std::string& option, const std::string& path, const std::string& ending);

/// Whether both paths name the same file, which need not exist.
bool sameFile(const std::string& a, const std::string& b);

}  // namespace tool
