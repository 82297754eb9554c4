#include "flow_files/zip.h"

#define ZLIB_CONST  // zlib takes input that it must not change
#include <zlib.h>

#include <algorithm>
#include <new>
#include <stdexcept>

namespace flow_files {

namespace {

constexpr std::uint32_t kFileTag = 0x04034b50, kDirectoryTag = 0x02014b50, kEndTag = 0x06054b50,
                        kSumsTag = 0x08074b50;
constexpr std::size_t kFileBytes = 30, kDirectoryBytes = 46, kEndBytes = 22, kLongestComment = 65535;
constexpr unsigned kStored = 0, kDeflated = 8, kEncrypted = 1, kSumsFollow = 8;
constexpr unsigned kVersion = 20, kFirstDay = 0x21;  // 2.0; 1 January 1980
constexpr std::uint32_t kInZip64 = 0xffffffff;
constexpr std::size_t kBlock = 65536;
constexpr int kQuick = 1;  // higher levels take 2 to 4 times as long and save 3 % at most

[[noreturn]] void damaged(const std::string& what) {
  throw std::runtime_error("is damaged: " + what);
}

/// Position of the record that ends the archive; a comment may follow it.
std::uint64_t findEnd(FileSource& file, std::vector<unsigned char>& tail) {
  if (file.size() < kEndBytes) damaged("it is too short for an archive");
  tail.resize(std::min<std::uint64_t>(file.size(), kEndBytes + kLongestComment));
  const std::uint64_t start = file.size() - tail.size();
  file.seek(start);
  file.read(tail.data(), tail.size());
  for (std::size_t at = tail.size() - kEndBytes + 1; at-- > 0;) {
    if (littleEndian(&tail[at], 4) == kEndTag &&
        at + kEndBytes + littleEndian(&tail[at + 20], 2) == tail.size()) {
      tail.erase(tail.begin(), tail.begin() + static_cast<std::ptrdiff_t>(at));
      return start + at;
    }
  }
  damaged("it is no archive, or has no end");
}

void put(std::string& bytes, std::uint64_t value, int count) {
  for (; count > 0; --count, value >>= 8) bytes += static_cast<char>(value);
}

/// The fields that an entry has in front of its data and in the directory.
void putCommon(std::string& bytes, const ZipEntry& entry, bool sums) {
  put(bytes, kVersion, 2);
  put(bytes, entry.flags, 2);
  put(bytes, entry.method, 2);
  put(bytes, 0, 2);
  put(bytes, kFirstDay, 2);
  put(bytes, sums ? entry.checksum : 0, 4);
  put(bytes, sums ? entry.packed : 0, 4);
  put(bytes, sums ? entry.size : 0, 4);
  put(bytes, entry.name.size(), 2);
  put(bytes, 0, 2);  // no further fields
}

}  // namespace

std::vector<ZipEntry> readZipDirectory(FileSource& file) {
  std::vector<unsigned char> end;
  const std::uint64_t endStart = findEnd(file, end);
  const std::uint64_t count = littleEndian(&end[10], 2), size = littleEndian(&end[12], 4),
                      start = littleEndian(&end[16], 4);
  if (start == kInZip64) throw std::runtime_error("is an archive of 4 GB or more (ZIP64), which is not read");
  if (start + size > endStart) damaged("its directory is not before its end");
  std::vector<unsigned char> bytes(size);
  file.seek(start);
  file.read(bytes.data(), size);
  std::vector<ZipEntry> entries;
  std::size_t at = 0;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (at + kDirectoryBytes > size || littleEndian(&bytes[at], 4) != kDirectoryTag)
      damaged("its directory is cut off");
    const auto field = [&](std::size_t offset, int length) {
      return littleEndian(&bytes[at + offset], length);
    };
    const std::size_t name = at + kDirectoryBytes, nameBytes = field(28, 2);
    const std::size_t next = name + nameBytes + field(30, 2) + field(32, 2);
    if (next > size) damaged("its directory is cut off");
    entries.push_back({std::string(bytes.begin() + static_cast<std::ptrdiff_t>(name),
                                   bytes.begin() + static_cast<std::ptrdiff_t>(name + nameBytes)),
                       field(20, 4), field(24, 4), field(42, 4), static_cast<unsigned>(field(8, 2)),
                       static_cast<unsigned>(field(10, 2)), static_cast<std::uint32_t>(field(16, 4))});
    at = next;
  }
  return entries;
}

struct ZipEntrySource::State {
  FileSource& file;
  ZipEntry entry;
  std::uint64_t packedLeft, left;
  uLong checksum = crc32(0, nullptr, 0);
  std::vector<unsigned char> block = std::vector<unsigned char>(kBlock);
  z_stream inflater{};

  void refill() {
    const std::size_t now = std::min<std::uint64_t>(packedLeft, block.size());
    file.read(block.data(), now);
    packedLeft -= now;
    inflater.next_in = block.data();
    inflater.avail_in = static_cast<uInt>(now);
  }
  void inflateTo(unsigned char* to, std::size_t count);
};

void ZipEntrySource::State::inflateTo(unsigned char* to, std::size_t count) {
  while (count > 0) {
    const auto now = static_cast<uInt>(std::min<std::size_t>(count, kBlock));
    inflater.next_out = to;
    inflater.avail_out = now;
    while (inflater.avail_out > 0) {
      if (inflater.avail_in == 0) refill();
      const int result = inflate(&inflater, Z_NO_FLUSH);
      if (result == Z_MEM_ERROR) throw std::bad_alloc();
      if (result != Z_OK && !(result == Z_STREAM_END && inflater.avail_out == 0)) {
        damaged(entry.name + " in it cannot be unpacked");
      }
    }
    to += now;
    count -= now;
  }
}

ZipEntrySource::ZipEntrySource(FileSource& file, const ZipEntry& entry)
    : state_(new State{file, entry, entry.packed, entry.size}) {
  if ((entry.flags & kEncrypted) != 0)
    throw std::runtime_error(entry.name + " in it has a password, which is not read");
  if (entry.method != kStored && entry.method != kDeflated) {
    throw std::runtime_error(entry.name + " in it is packed by method " + std::to_string(entry.method) +
                             "; 0 and 8 are read");
  }
  if (entry.size == kInZip64 || entry.packed == kInZip64 || entry.start == kInZip64) {
    throw std::runtime_error(entry.name + " in it has 4 GB or more (ZIP64), which is not read");
  }
  unsigned char header[kFileBytes];
  file.seek(entry.start);
  file.read(header, sizeof header);
  if (littleEndian(header, 4) != kFileTag)
    damaged("there is no " + entry.name + " where its directory has it");
  file.seek(entry.start + kFileBytes + littleEndian(header + 26, 2) + littleEndian(header + 28, 2));
  const std::uint64_t most = entry.method == kStored ? entry.packed : kMostInflated * (entry.packed + 1);
  if (entry.packed > file.left() || entry.size > most ||
      (entry.method == kStored && entry.size != entry.packed)) {
    damaged("the sizes of " + entry.name + " in it cannot be right");
  }
  if (inflateInit2(&state_->inflater, -MAX_WBITS) != Z_OK) throw std::bad_alloc();
}

ZipEntrySource::~ZipEntrySource() {
  inflateEnd(&state_->inflater);
}

void ZipEntrySource::read(void* to, std::size_t count) {
  State& s = *state_;
  if (count > s.left)
    damaged(s.entry.name + " in it ends too early, after " + std::to_string(s.entry.size) + " bytes");
  auto* const bytes = static_cast<unsigned char*>(to);
  if (s.entry.method == kStored) {
    s.file.read(bytes, count);
  } else {
    s.inflateTo(bytes, count);
  }
  s.left -= count;
  s.checksum = crc32_z(s.checksum, bytes, count);
}

void ZipEntrySource::finish() {
  if (state_->left > 0) damaged(state_->entry.name + " in it has bytes after its data");
  if (state_->checksum != state_->entry.checksum) damaged(state_->entry.name + " in it has a wrong checksum");
}

struct ZipSink::State {
  FileSink& file;
  std::vector<ZipEntry> entries;
  std::uint64_t position = 0;
  std::vector<unsigned char> block = std::vector<unsigned char>(kBlock);
  z_stream deflater{};

  void put(const void* from, std::size_t count) {
    file.write(from, count);
    position += count;
  }
  void deflateFrom(const void* from, std::size_t count, int flush) {
    deflater.next_in = static_cast<const Bytef*>(from);
    deflater.avail_in = static_cast<uInt>(count);
    do {
      deflater.next_out = block.data();
      deflater.avail_out = static_cast<uInt>(block.size());
      deflate(&deflater, flush);
      const std::size_t made = block.size() - deflater.avail_out;
      put(block.data(), made);
      entries.back().packed += made;
    } while (deflater.avail_out == 0);
  }
};

ZipSink::ZipSink(FileSink& file) : state_(new State{file, {}}) {
  if (deflateInit2(&state_->deflater, kQuick, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::bad_alloc();
  }
}

ZipSink::~ZipSink() {
  deflateEnd(&state_->deflater);
}

void ZipSink::open(const std::string& name) {
  const auto checksum = static_cast<std::uint32_t>(crc32(0, nullptr, 0));
  state_->entries.push_back({name, 0, 0, state_->position, kSumsFollow, kDeflated, checksum});
  deflateReset(&state_->deflater);
  std::string header;
  flow_files::put(header, kFileTag, 4);
  putCommon(header, state_->entries.back(), false);
  header += name;
  state_->put(header.data(), header.size());
}

/// Writers hand over rows, which are far shorter than the 4 GB that zlib takes.
void ZipSink::write(const void* from, std::size_t count) {
  ZipEntry& entry = state_->entries.back();
  entry.size += count;
  entry.checksum =
      static_cast<std::uint32_t>(crc32_z(entry.checksum, static_cast<const Bytef*>(from), count));
  state_->deflateFrom(from, count, Z_NO_FLUSH);
}

void ZipSink::close() {
  state_->deflateFrom(nullptr, 0, Z_FINISH);
  const ZipEntry& entry = state_->entries.back();
  std::string sums;
  flow_files::put(sums, kSumsTag, 4);
  flow_files::put(sums, entry.checksum, 4);
  flow_files::put(sums, entry.packed, 4);
  flow_files::put(sums, entry.size, 4);
  state_->put(sums.data(), sums.size());
}

void ZipSink::finish() {
  std::string directory;
  for (const ZipEntry& entry : state_->entries) {
    flow_files::put(directory, kDirectoryTag, 4);
    flow_files::put(directory, kVersion, 2);
    putCommon(directory, entry, true);
    flow_files::put(directory, 0, 10);  // no comment, first disk, no attributes
    flow_files::put(directory, entry.start, 4);
    directory += entry.name;
  }
  std::string end;
  flow_files::put(end, kEndTag, 4);
  flow_files::put(end, 0, 4);  // one disk
  flow_files::put(end, state_->entries.size(), 2);
  flow_files::put(end, state_->entries.size(), 2);
  flow_files::put(end, directory.size(), 4);
  flow_files::put(end, state_->position, 4);
  flow_files::put(end, 0, 2);  // no comment
  state_->put(directory.data(), directory.size());
  state_->put(end.data(), end.size());
}

}  // namespace flow_files
