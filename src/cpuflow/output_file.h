#pragma once

#include <cstddef>
#include <string>

/// A file that appears under its name only when it is complete.
///
/// The bytes go to a temporary file in the same folder with the same ending; commit() gives it the final
/// name. Until then, and on every failure, a file of that name stays as it was. Where the name leads through
/// symbolic links, the file they lead to is replaced, with its permissions kept. Devices and pipes are
/// written directly, and so is a file in a folder that takes no new one: it loses its old contents at once.
class OutputFile {
 public:
  /// Opens the file for writing. Fails, seen by isOpen(), where the file or a new one beside it cannot be
  /// written.
  explicit OutputFile(const std::string& path);
  /// Removes what was not committed.
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  bool isOpen() const { return descriptor_ >= 0; }
  /// Writes all of the bytes; false if that failed, in which case commit() will fail too.
  bool write(const void* bytes, std::size_t count);
  /// Completes the file; false if that or an earlier write failed. Nothing may be written afterwards.
  bool commit();
  /// Why the first failing step failed, in words of the operating system.
  std::string reason() const;

 private:
  void openBeside(unsigned permissions, bool keepPermissions);
  bool fail();
  void discard();

  std::string target_;
  std::string temporary_;  // empty while nothing has to be renamed or removed
  int descriptor_ = -1;
  int error_ = 0;
};
