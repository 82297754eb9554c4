#include <tarvo/pyramid.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "device/cpu/form.h"
#include "device/launch.h"
#include "device/memory.h"
#include "variational/pyramid/downsample_cpu.h"
#include "variational/pyramid/enlarge_cpu.h"
#include "variational/pyramid/enlarge_flow.h"
#include "variational/pyramid/pyramid_kernels.h"
#include "variational/pyramid/warp_cpu.h"
#include "variational/units.h"

namespace {

constexpr const char* kUnit = units::kOpticalFlowGPU;

/// Where `source` overlaps `out` (both in floats), a copy of it in `copy`, else `source` itself.
const float* copiedIfOverlapping(device::Buffer& copy, const float* out, std::size_t outFloats,
                                 const float* source, std::size_t floats) {
  if (!device::overlap(out, outFloats, source, floats)) return source;
  TARVO_CALL(copy.allocate(floats));
  TARVO_CALL(device::copyFloats(copy.get(), source, floats, device::Direction::OnDevice));
  return copy.get();
}

/// Shrinks a line of n samples, `stride` apart, to outN: every output takes `ratio` samples, a sample that
/// straddles two outputs is shared out by length.
void shrinkLine(const float* in, int n, int stride, float* out, int outN, int outStride) {
  const float ratio = static_cast<float>(n) / static_cast<float>(outN);
  float remaining = ratio;
  float carry = 1.0f;
  int i = 0;
  int o = 0;
  while (i < n && o < outN) {
    if (remaining > 1.0f) {
      out[o * outStride] += carry * in[i * stride];
      remaining -= carry;
      carry = 1.0f;
      ++i;
    } else {
      out[o * outStride] += remaining * in[i * stride];
      carry = 1.0f - remaining;
      remaining = ratio;
      ++o;
    }
  }
}

}  // namespace

void downsample_kernel(const float* in, int inH, int inW, int inP, float* out, int outH, int outW, int outP,
                       int) {
  launch(kernels::downsample_kernel{in, inH, inW, inP, out, outH, outW, outP},
         [&] { variational::downsampleOnCpu(in, inH, inW, inP, out, outH, outW, outP, nullptr); });
}

void downsample_kernel(const float* in, int inH, int inW, int inP, float* out, int outH, int outW, int outP,
                       const float* weight, int) {
  launch(kernels::downsample_weighted_kernel{in, inH, inW, inP, out, outH, outW, outP, weight},
         [&] { variational::downsampleOnCpu(in, inH, inW, inP, out, outH, outW, outP, weight); });
}

void downsample(const float* in, int inH, int inW, int inP, float* out, int outH, int outW, int outP,
                const float* weight) {
  if (weight != nullptr) {
    downsample_kernel(in, inH, inW, inP, out, outH, outW, outP, weight, 1);
  } else {
    downsample_kernel(in, inH, inW, inP, out, outH, outW, outP, 1);
  }
}

void gInterpolate(float* out, int h, int w, int p, const float* in, int inH, int inW, int inP, float factor) {
  device::Buffer copy;
  const float* source =
      copiedIfOverlapping(copy, out, device::planeFloats(h, p), in, device::planeFloats(inH, inP));
  launch(kernels::interpolate_kernel{{source, inH, inW, inP}, out, h, w, p, factor});
  device::synchronize();
  TARVO_LAUNCHED("Inteprolation");
  TARVO_CALL(copy.release());
}

void variational::enlargeFlow(float* outU, float* outV, int h, int w, int p, const float* u, const float* v,
                              int inH, int inW, int inP, float factor) {
  const kernels::EnlargeFlow kernel{{u, inH, inW, inP}, {v, inH, inW, inP}, outU, outV, h, w, p, factor};
  launch(kernel, [&] { enlargeOnCpu(kernel); });
  TARVO_LAUNCHED("Inteprolation");
}

void gWarpMotion(float* out, const float* u, const float* v, const float* src, const float* fallback,
                 int channels, float* valid, int h, int w, int p) {
  if ((channels != 1 && channels != 3) || h <= 0 || w <= 0) return;
  const std::size_t floats = device::planeFloats(h, p, channels);
  device::Buffer copy;
  if (channels == 1) {
    const float* source = copiedIfOverlapping(copy, out, floats, src, floats);
    launch(kernels::warp_motion_1chan_kernel{source, out, fallback, valid, h, w, p, u, v});
  } else if (!device::cpu::runs([&] {
               TARVO_CALL(copy.allocate(device::planeFloats(h, w, variational::kWarpLanes)));
               variational::warpOnCpu({src, out, fallback, valid, h, w, p, u, v}, copy.get());
             })) {
    const float* source = copiedIfOverlapping(copy, out, floats, src, floats);
    launch(kernels::warp_motion_kernel{source, out, fallback, valid, h, w, p, u, v});
  }
  device::synchronize();
  TARVO_LAUNCHED("warp over");
  TARVO_CALL(copy.release());
}

void downsampleCPU(const float* in, int inH, int inW, float* out, int outH, int outW, int planes) {
  if (outW >= inW || outH >= inH || outW < 1 || outH < 1) {
    throw std::invalid_argument("downsampleCPU: the target must be smaller than the source, got " +
                                std::to_string(outW) + " x " + std::to_string(outH) + " from " +
                                std::to_string(inW) + " x " + std::to_string(inH));
  }
  const float scale = static_cast<float>(outH * outW) / static_cast<float>(inH * inW);
  const auto outPixels = static_cast<std::size_t>(outH) * static_cast<std::size_t>(outW);
  std::vector<float> narrow(static_cast<std::size_t>(inH) * static_cast<std::size_t>(outW));
  for (int plane = 0; plane < planes; ++plane) {
    std::fill(narrow.begin(), narrow.end(), 0.0f);
    for (int y = 0; y < inH; ++y) {
      shrinkLine(in + static_cast<long>(y) * inW, inW, 1, &narrow[static_cast<std::size_t>(y) * outW], outW,
                 1);
    }
    std::fill(out, out + outPixels, 0.0f);
    for (int x = 0; x < outW; ++x)
      shrinkLine(&narrow[static_cast<std::size_t>(x)], inH, outW, out + x, outH, outW);
    for (std::size_t i = 0; i < outPixels; ++i) out[i] *= scale;
    in += static_cast<long>(inH) * inW;
    out += outPixels;
  }
}
