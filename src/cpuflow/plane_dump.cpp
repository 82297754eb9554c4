#include <tarvo/COpticFlow.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "cpuflow/flow_file.h"
#include "cpuflow/output_file.h"
#include "device/report.h"

namespace {

/// Integer part of a value, held within 0 ... 255; 0 for what is not a number.
unsigned char toByte(float value) {
  if (!(value > 0)) return 0;
  return value < 255 ? static_cast<unsigned char>(value) : 255;
}

/// Writes the header and the pixels of a grey map; the result is false if any of it failed.
bool writeGreyMap(OutputFile& file, const float* data, int h, int w, float minimum, float range) {
  const std::string header = "P5\n" + std::to_string(w) + "\n" + std::to_string(h) + "\n255\n";
  if (!file.write(header.data(), header.size())) return false;
  constexpr std::size_t kBlock = 1 << 18;
  const std::size_t n = h < 1 || w < 1 ? 0 : static_cast<std::size_t>(h) * static_cast<std::size_t>(w);
  std::vector<unsigned char> bytes(std::min(n, kBlock));
  for (std::size_t first = 0; first < n; first += kBlock) {
    const std::size_t count = std::min(n - first, kBlock);
    for (std::size_t i = 0; i < count; ++i) bytes[i] = toByte((data[first + i] - minimum) / range * 255);
    if (!file.write(bytes.data(), count)) return false;
  }
  return file.commit();
}

}  // namespace

void print_image_cpu(float* data, const char* filename, int height, int width) {
  constexpr float kStart = 1e9f;
  float minimum = kStart;
  float maximum = -kStart;
  const std::size_t n =
      height < 1 || width < 1 ? 0 : static_cast<std::size_t>(height) * static_cast<std::size_t>(width);
  for (std::size_t i = 0; i < n; ++i) {
    if (data[i] < minimum) minimum = data[i];
    if (data[i] > maximum) maximum = data[i];
  }
  const float range = maximum - minimum;
  report::print("%s, range = %f\n", filename, range);
  OutputFile file(filename);
  if (!file.isOpen()) return;
  if (!writeGreyMap(file, data, height, width, minimum, range)) {
    report::print("%s\n", flow_file::writeProblem(filename, file.reason()).c_str());
  }
}

void slice_image(float* data, int, int pitch, int x0, int y0, int x1, int y1) {
  for (int y = y0; y < y1; ++y) {
    const float* row = data + static_cast<std::ptrdiff_t>(y) * pitch;
    for (int x = x0; x < x1; ++x) report::print("%f ", row[x]);
    report::print("\n");
  }
}
