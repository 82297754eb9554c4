#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "flow_files/formats.h"
#include "flow_files/npy.h"
#include "flow_files/zip.h"

// An archive with the array flow, height x width x 2, and where pixels are unknown the array valid, height x width.
namespace flow_files {

namespace {

constexpr const char* kFlowName = "flow.npy";
constexpr const char* kValidName = "valid.npy";
constexpr const char* kTruths = "|b1";

const ZipEntry* entryNamed(const std::vector<ZipEntry>& entries, const std::string& name) {
  const auto found =
      std::find_if(entries.begin(), entries.end(), [&](const ZipEntry& entry) { return entry.name == name; });
  return found == entries.end() ? nullptr : &*found;
}

/// Marks what the array does not know.
void readValid(FileSource& file, const ZipEntry& entry, CTensor<float>& flow) {
  ZipEntrySource source(file, entry);
  const ArrayHeader header = readArrayHeader(source, entry.size);
  const int w = flow.sizeX(), h = flow.sizeY();
  if (header.kind != kTruths || header.shape.size() != 2 ||
      header.shape[0] != static_cast<std::uint64_t>(h) || header.shape[1] != static_cast<std::uint64_t>(w)) {
    throw std::runtime_error("has the array valid of the kind '" + header.kind + "' and shape " +
                             textOf(header.shape) + ", which must be '" + kTruths + "' and (" +
                             std::to_string(h) + ", " + std::to_string(w) + ")");
  }
  const int lines = header.columnsFirst ? w : h;
  std::vector<unsigned char> line(static_cast<std::size_t>(header.columnsFirst ? h : w));
  for (int i = 0; i < lines; ++i) {
    source.read(line.data(), line.size());
    for (int k = 0; k < static_cast<int>(line.size()); ++k) {
      const int x = header.columnsFirst ? i : k, y = header.columnsFirst ? k : i;
      if (line[static_cast<std::size_t>(k)] == 0)
        flow(x, y, 0) = flow(x, y, 1) = std::numeric_limits<float>::quiet_NaN();
    }
  }
  source.finish();
}

}  // namespace

CTensor<float> decodeNpz(const std::string& path, Notes&) {
  FileSource file(path);
  const std::vector<ZipEntry> entries = readZipDirectory(file);
  const ZipEntry* const entry = entryNamed(entries, kFlowName);
  if (!entry) throw std::runtime_error("has no array named flow");
  CTensor<float> flow;
  {
    ZipEntrySource source(file, *entry);
    flow = readFlowArray(source, readArrayHeader(source, entry->size), entry->size);
    source.finish();
  }
  const ZipEntry* const valid = entryNamed(entries, kValidName);
  if (valid) readValid(file, *valid, flow);
  return flow;
}

void encodeNpz(std::FILE* file, const CTensor<float>& flow, int bytes, const tool::FlowWriteOptions&) {
  FileSink sink(file);
  ZipSink zip(sink);
  zip.open(kFlowName);
  writeFlowArray(zip, flow, bytes);
  zip.close();
  const auto known = [](float u) { return !std::isnan(u); };
  const float* const u = flow.data();
  if (!std::all_of(u, u + flow.size() / 2, known)) {
    zip.open(kValidName);
    writeArrayHeader(zip, kTruths, {flow.sizeY(), flow.sizeX()});
    std::vector<unsigned char> row(static_cast<std::size_t>(flow.sizeX()));
    for (int y = 0; y < flow.sizeY(); ++y) {
      std::transform(&flow(0, y, 0), &flow(0, y, 0) + flow.sizeX(), row.begin(), known);
      zip.write(row.data(), row.size());
    }
    zip.close();
  }
  zip.finish();
  sink.flush();
}

}  // namespace flow_files
