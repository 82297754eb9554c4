#include <tarvo/COpticFlow.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <vector>

#include "cpuflow/flow_file.h"
#include "cpuflow/output_file.h"
#include "device/report.h"

namespace {

constexpr float kUnknown = 1e9F;  // components of a reference from here on mean unknown motion

bool hasFlowEnding(const char* filename) {
  const char* ending = std::strrchr(filename, '.');
  return ending != nullptr && std::strcmp(ending, ".flo") == 0;
}

/// Angle in degrees between the space-time directions (u, v, 1) and (ur, vr, 1). Sums of products in single
/// precision, the rest in double.
double spaceTimeAngle(float u, float v, float ur, float vr) {
  constexpr double kDegrees = 57.29577866666166;  // 180 / 3.1415927
  const float product = u * ur + v * vr;
  const float square = u * u + v * v;
  const float squareReference = ur * ur + vr * vr;
  float c = static_cast<float>((product + 1.0) / std::sqrt((squareReference + 1.0) * (square + 1.0)));
  if (c > 1) c = 1;
  if (c < -1) c = -1;
  return std::acos(c) * kDegrees;
}

/// Difference of two directions, 0 ... pi.
float directionDifference(float u, float v, float ur, float vr) {
  constexpr float kBelowPi = 3.1415925F;
  constexpr float kTurn = 6.283185F;
  float d = static_cast<float>(std::atan2(static_cast<double>(v), static_cast<double>(u)) -
                               std::atan2(static_cast<double>(vr), static_cast<double>(ur)));
  if (d > kBelowPi) d -= kTurn;
  if (d < -kBelowPi) d += kTurn;
  return std::abs(d);
}

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

void COpticFlow::writeMiddlebury(CTensor<float>& flow, const char* filename) {
  if (!hasFlowEnding(filename)) report::print("%s should have extension '.flo'\n", filename);
  const std::string objection = flow_file::whyNotWritable(flow);
  if (!objection.empty()) {
    report::print("%s\n", flow_file::writeProblem(filename, objection).c_str());
    return;
  }
  OutputFile file(filename);
  if (!file.isOpen()) {
    report::print("Could not open %s\n", filename);
    return;
  }
  const bool begun = flow_file::writeHeader(file, flow);
  if (!begun) report::print("Problem writing header\n");
  const bool complete = flow_file::writeData(file, flow) && file.commit();
  if (begun && !complete) {
    report::print("%s\n", flow_file::writeProblem(filename, file.reason()).c_str());
  }
}

void COpticFlow::readMiddlebury(const char* filename, CTensor<float>& flow) {
  try {
    flow = flow_file::read(filename);
  } catch (const flow_file::OpenError&) {
    report::print("Could not open %s\n", filename);
  } catch (const std::exception& problem) {
    report::print("%s\n", problem.what());
  }
}

float COpticFlow::angularError(CTensor<float>& flow, CTensor<float>& reference) {
  float sum = 0;
  int count = 0;
  const int w = flow.sizeZ() < 2 || reference.sizeZ() < 2 ? 0 : std::min(flow.sizeX(), reference.sizeX());
  const int h = std::min(flow.sizeY(), reference.sizeY());
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const float ur = reference(x, y, 0);
      const float vr = reference(x, y, 1);
      if (std::abs(ur) > kUnknown || std::abs(vr) > kUnknown) continue;
      sum = static_cast<float>(sum + spaceTimeAngle(flow(x, y, 0), flow(x, y, 1), ur, vr));
      ++count;
    }
  }
  return count > 0 ? sum / static_cast<float>(count) : std::numeric_limits<float>::quiet_NaN();
}

float aae(CTensor<float> flow, CTensor<float> reference) {
  const int n = flow.sizeX() * flow.sizeY();
  if (flow.sizeZ() < 2 || n == 0) return std::numeric_limits<float>::quiet_NaN();
  const float* f = flow.data();
  const float* r = reference.data();
  const int covered = std::clamp(reference.size() - n, 0, n);
  float sum = 0;
  for (int i = 0; i < covered; ++i) {
    if (r[i] >= kUnknown || r[n + i] >= kUnknown) continue;
    sum += directionDifference(f[i], f[n + i], r[i], r[n + i]);
  }
  return sum / static_cast<float>(n) * 180 / 3.1415925F;
}

void print_image_cpu(float* data, const char* filename, int height, int width) {
  constexpr float kStart = 1e9F;
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
