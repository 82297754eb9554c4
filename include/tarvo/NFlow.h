#pragma once

#include <tarvo/CTensor.h>
#include <tarvo/export.h>
#include <tarvo/flow.h>
#include <tarvo/matching.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

// The flow between two pictures: options or a preset and two views in, a result out. With the default options
// the forward flow has the bits of runFlowGPU.
//
//   NFlow::Options options = NFlow::preset("accurate");
//   options.occlusion = true;
//   const auto picture = NFlow::Image::interleaved(bytes, width, height);   // 8-bit RGB
//   const NFlow::Result result = NFlow::compute(picture, other, options);

namespace NFlow {

enum class Solver { ConjugateGradients, Relaxation };

/// Terms beside the seven parameters. The defaults are neutral: with them the method is that of runFlowGPU,
/// bit for bit, and none of them costs anything.
struct Terms {
  /// Normalised constraints: each linearised constraint's square is divided by |gradient|^2 + zeta^2 instead of
  /// |gradient|, so that its unit is the pixel; of brightness [grey levels per pixel] and of gradients [grey
  /// levels per square pixel]. Both 0: off; otherwise both must be above 0.
  float zetaData = 0.0f, zetaGradient = 0.0f;
  float edgeScale = 0.0f;  ///< smoothness falls off at edges of image 1 of this height [grey levels]; 0: off
  float smoothnessEpsilon =
      0.001f;                     ///< gradients of the flow below this cost their square, above it themselves
  float coarseSmoothness = 0.0f;  ///< alpha is multiplied by eta^(level * this): less smooth at coarse levels
  int medianRadius =
      0;  ///< of a weighted median of the flow after each pass at full resolution [pixels]; 0: off
  int finalPasses = 5;   ///< passes at full resolution after the pyramid, without matches
  int matchSpacing = 4;  ///< between searched grid points [pixels], a multiple of 4
  /// A match counts only if so many of the 24 grid points within two spacings of it move alike, within 4 pixels.
  int matchSupport = 0;
  /// Sizes at which the pictures are matched: full, half, quarter ... of which each doubles the reach of 80 pixels.
  int matchSizes = 1;
  Solver solver = Solver::ConjugateGradients;
  float leastSide = 15.0f;  ///< about the shorter side of the coarsest level [pixels]
};

/// All that can be chosen about a computation. optionTable() holds the ranges.
struct Options : Parameters, Terms {
  bool matches = true;     ///< search matches
  bool backward = false;   ///< compute the backward flow too, on its own
  bool occlusion = false;  ///< tell what of image 1 is hidden in image 2; takes the backward flow
};

/// The options of a preset: "standard" (the defaults), "fast" or "accurate". Throws std::invalid_argument,
/// naming the presets there are, for another name.
TARVO_API Options preset(const std::string& name);
TARVO_API std::vector<std::string> presetNames();

/// A number or choice among the options.
struct Option {
  const char* name;  ///< of the field, e.g. "fixedPointIterations"
  std::variant<float Options::*, int Options::*, Solver Options::*> field;
  double least, most;  ///< the range; values of a float are finite
  bool open;           ///< least and most themselves are excluded
  int step;            ///< a whole number is a multiple of this
  const char* text;    ///< what it does
};

/// Every float, int and Solver of Options.
TARVO_API const std::vector<Option>& optionTable();
/// Which values an option takes, e.g. "a number from 0 up".
TARVO_API std::string allowed(const Option& option);
/// An option's value in words, e.g. "0.95" or "relaxation", and its way back. set throws
/// std::invalid_argument, "VALUE is not ALLOWED", and leaves the options as they were, for a wrong value.
TARVO_API std::string text(const Options& options, const Option& option);
TARVO_API void set(Options& options, const Option& option, const std::string& value);

/// A view of a picture in the caller's memory, which is only read. Strides are in elements; they may be
/// negative, and elements may be shared.
struct Image {
  enum class Type { UInt8, UInt16, Float };

  const void* data = nullptr;  ///< element of pixel (0, 0) and channel 0, aligned for its type
  int width = 0, height = 0;
  std::ptrdiff_t pixelStride = 0, rowStride = 0, channelStride = 0;
  Type type = Type::UInt8;
  int channels = 3;  ///< red, green and blue; or 1: grey, which becomes three equal channels
  /// Values that stand for black and white: x becomes (x - black) * 255 / (white - black) in single
  /// precision, and stays as it is where they are 0 and 255.
  float black = 0.0f, white = 255.0f;
  /// Null, or of every pixel: other than 0 where the picture says nothing. The values there have no effect.
  const std::uint8_t* mask = nullptr;
  std::ptrdiff_t maskPixelStride = 1, maskRowStride = 0;  ///< not 0 where there is a mask
  bool ignoreNaN = false;  ///< a pixel with a value that is not finite says nothing; else it is refused

  /// Channels of a pixel side by side, pixels and rows without gaps. Element is std::uint8_t, std::uint16_t
  /// (white: 65535) or float (white: 255).
  template <class Element>
  static Image interleaved(const Element* data, int width, int height, int channels = 3) {
    const std::ptrdiff_t pixel = channels;
    return {
        data, width, height, pixel, pixel * width, 1, typeOf<Element>(), channels, 0.0f, whiteOf<Element>()};
  }
  /// One plane for each channel, without gaps.
  template <class Element>
  static Image planar(const Element* data, int width, int height, int channels = 3) {
    const std::ptrdiff_t row = width;
    return {data, width, height, 1, row, row * height, typeOf<Element>(), channels, 0.0f, whiteOf<Element>()};
  }

 private:
  template <class Element>
  static constexpr Type typeOf() {
    constexpr bool kBytes = std::is_same_v<Element, std::uint8_t>,
                   kWords = std::is_same_v<Element, std::uint16_t>;
    static_assert(kBytes || kWords || std::is_same_v<Element, float>);
    return kBytes ? Type::UInt8 : kWords ? Type::UInt16 : Type::Float;
  }
  template <class Element>
  static constexpr float whiteOf() {
    return typeOf<Element>() == Type::UInt16 ? 65535.0f : 255.0f;
  }
};

/// Pixel (x, y) of image 1 looks like (x + u, y + v) of image 2; weight as in <tarvo/matching.h>.
struct Match {
  float x, y, u, v, weight;
};

/// What compute calls while it works, on the thread of its caller. Either may be empty. Either may throw: that
/// ends the computation, the exception leaves compute, and the next call works. Neither may call a computing
/// function of the library, which throws std::logic_error.
struct Watch {
  std::function<void(int done, int total)> progress;  ///< after each pass; both directions are one sequence
  std::function<void()> poll;  ///< about every 50 ms, in the wait for another caller's computation too
};

/// Wall-clock seconds of the stages of one direction. `variational` holds the four after it, of which
/// `fixedPoint` holds `solver`.
struct Seconds {
  double total = 0, smoothing = 0, transfer = 0, matching = 0, variational = 0;
  double downsampling = 0, warping = 0, fixedPoint = 0, solver = 0;
};

/// What one direction took and found.
struct Work {
  Seconds seconds;
  NMatching::Counts counts{};  ///< zeros without matches
};

struct Result {
  CTensor<float> forward;      ///< flow from image 1 to image 2, w x h x 2: u, v [pixels]
  CTensor<float> backward;     ///< from image 2 to image 1; empty unless Options::backward or occlusion
  std::vector<Match> matches;  ///< of weight > 0 that the forward flow used, in rows from the top
  std::vector<std::uint8_t> occlusion;  ///< consistency(forward, backward); empty unless asked for
  Work forwardWork, backwardWork;       ///< both pictures are smoothed in the forward direction
  std::string device;                   ///< NDevice::current()
};

/// Computes what the options ask for. The pictures are not changed. Where a picture says nothing (Image::mask),
/// or the place that the flow leads to does, the flow comes from its surroundings; if it says nothing anywhere,
/// the flow is 0.
///
/// Throws std::invalid_argument, naming the argument and its values, before memory is taken: for pictures
/// without pixels, of more than about 143 million, of different sizes or of other than one or three channels;
/// for data that are null or not aligned; for strides that are zero or lead out of the address space; for
/// black and white that are equal or not finite; for values that are not finite in 0 ... 255, unless
/// Image::mask or ignoreNaN leaves them out; for options out of their range.
///
/// Prints nothing unless NReport::to has named a stream: that gets the report of runFlowGPU. NReport::progress
/// counts the passes of both directions as one sequence. A device error is told as NDevice::onError says.
/// NMatching::enable has no effect, NMatching::lastCounts stays.
TARVO_API Result compute(const Image& image1, const Image& image2, const Options& options = {},
                         const Watch& watch = {});
/// The same for tensors of one or three planes with values in 0 ... 255.
TARVO_API Result compute(const CTensor<float>& image1, const CTensor<float>& image2,
                         const Options& options = {}, const Watch& watch = {});

/// Bytes that compute takes at one time, at most.
struct Memory {
  std::size_t device;  ///< of the chosen device
  std::size_t host;    ///< beside them: converted pictures and results; pictures of 255 = white take less
};

/// What compute takes for pictures of this size, told without taking it. On the CPU device both are ordinary
/// memory. Masks and ignoreNaN take about 40 bytes a pixel more. What is kept for the next call
/// (NDevice::memoryUse) is the device's part. Throws std::invalid_argument for sizes and options that compute
/// refuses.
TARVO_API Memory memoryRequired(int width, int height, const Options& options = {});

/// `image` at (x + u, y + v), bilinear, for every pixel (x, y) of the flow: w x h x k. `outside` where that
/// place leaves the picture, or the flow is not finite. Pixels reach half a pixel around their centres, so up
/// to there the border counts. Throws std::invalid_argument unless the flow is w x h x 2 and the image has its
/// width and height, of at most 2^24.
TARVO_API CTensor<float> warp(const CTensor<float>& image, const CTensor<float>& flow,
                              float outside = std::numeric_limits<float>::quiet_NaN());

/// What of image 1 is hidden in image 2, row by row: 255 where pixel x with forward flow f = f(x) is occluded,
/// else 0. It is occluded if x + f leaves the picture by more than half a pixel, or unless
///   |f + b(x + f)|^2 <= 0.01 (|f|^2 + |b(x + f)|^2) + 0.5 [pixels^2],
/// the backward flow b being interpolated bilinearly. What is not a number is occluded. Throws
/// std::invalid_argument unless both flows are w x h x 2 of one size.
TARVO_API std::vector<std::uint8_t> consistency(const CTensor<float>& forward,
                                                const CTensor<float>& backward);

}  // namespace NFlow
