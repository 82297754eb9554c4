#pragma once

#include <memory>
#include <string>
#include <vector>

#include "flow_files/bytes.h"

/// The little of ZIP archives that NumPy's archives need: files stored or deflated, without ZIP64 or a password.
namespace flow_files {

struct ZipEntry {
  std::string name;
  std::uint64_t packed, size;  ///< bytes in the archive and of the file
  std::uint64_t start;         ///< of its own header in the archive
  unsigned flags, method;
  std::uint32_t checksum;
};

/// What an archive's directory lists. Throws for anything but an archive.
std::vector<ZipEntry> readZipDirectory(FileSource& file);

/// The bytes of a file in an archive. Throws where its entry cannot be right, or is packed in an unknown way.
class ZipEntrySource : public ByteSource {
 public:
  ZipEntrySource(FileSource& file, const ZipEntry& entry);
  ~ZipEntrySource() override;
  ZipEntrySource(const ZipEntrySource&) = delete;
  ZipEntrySource& operator=(const ZipEntrySource&) = delete;

  void read(void* to, std::size_t count) override;
  /// Throws unless all was read and the sum of all bytes is right.
  void finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// Writes an archive, file after file.
class ZipSink : public ByteSink {
 public:
  explicit ZipSink(FileSink& file);
  ~ZipSink() override;
  ZipSink(const ZipSink&) = delete;
  ZipSink& operator=(const ZipSink&) = delete;

  /// What is written from here on goes to a new file in the archive.
  void open(const std::string& name);
  void write(const void* from, std::size_t count) override;
  void close();
  /// Writes the directory after the last file.
  void finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace flow_files
