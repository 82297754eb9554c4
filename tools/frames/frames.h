#pragma once

#include <tarvo/CTensor.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

/// Sequences of pictures, whatever they come from.
namespace tool {

/// One picture of a sequence.
struct Frame {
  std::string name;        ///< what its flow is named after: of a file, without folder and ending
  std::string path;        ///< of a picture file, which is not read yet; else empty
  CTensor<float> picture;  ///< width x height x 3: red, green, blue in 0 ... 255; empty if there is a path
  std::optional<double> time;  ///< when it is shown [s]; of video
};

/// The rest of a sequence cannot be read.
struct BrokenSequence : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The frames of a sequence, one after another. Each is read when it is asked for.
class FrameSource {
 public:
  virtual ~FrameSource() = default;

  /// How many frames there are, where that can be told without reading them.
  virtual std::optional<long> count() const = 0;

  /// Reads the next frame; false where there is none.
  /// @throws BrokenSequence      naming the source and how many frames were read, if it ends too early
  /// @throws std::runtime_error  naming the frame, if it alone cannot be read; the next call reads the next
  virtual bool next(Frame& frame) = 0;
};

}  // namespace tool
