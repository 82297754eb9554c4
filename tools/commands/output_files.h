#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace tool {

/// A file that a command is to write.
struct Output {
  std::string option;                ///< that names it
  std::string path;                  ///< empty: not asked for
  std::vector<std::string> endings;  ///< one of which the path must have, whatever its case
};

/// The files that a command writes: all or none appear. Each is written under a temporary name beside its
/// final one and renamed once every file is complete; what was there before stays until then. Permissions of
/// existing files are kept, symbolic links followed. In a folder that takes no new files, an existing file is
/// overwritten in the end, from a copy in the system's folder for temporary files.
///
/// SIGINT, SIGTERM and SIGHUP remove the temporary files before they end the process. At most one object at a
/// time.
class OutputFiles {
 public:
  /// Tests, before a long computation, that the files can be written: nothing but a plain file that may be
  /// written has their names, and their folders exist. Throws std::runtime_error otherwise, and UsageError
  /// for a wrong ending or where two outputs, or an output and an input, are the same file.
  OutputFiles(const std::vector<Output>& outputs, const std::vector<std::string>& inputs);
  /// Removes temporary files that were not renamed.
  ~OutputFiles();
  OutputFiles(const OutputFiles&) = delete;
  OutputFiles& operator=(const OutputFiles&) = delete;

  /// Has `writer` write one of the files; it throws std::runtime_error with the reason alone.
  void write(const std::string& path, const std::function<void(std::FILE*)>& writer);

  /// Gives all files their final names. Throws std::runtime_error if that fails.
  void commit();

  struct File {
    std::string path, target, temporary;  // target: path with symbolic links followed
    bool exists;
    unsigned permissions;
  };

 private:
  static void endBySignal(int signal);
  void removeTemporaries() const;

  std::vector<File> files_;  // not changed after construction: a signal may come at any time
};

}  // namespace tool
