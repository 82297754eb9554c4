#pragma once

#include <tarvo/NFlow.h>

#include <functional>
#include <string>
#include <vector>

#include "flow_files/flow_file.h"
#include "frames/frames.h"
#include "sequence/manifest.h"

namespace tool {

/// What is computed of each pair of a sequence, and where it goes.
struct PairJob {           // NOLINT(bugprone-exception-escape): Json may throw where it is moved
  NFlow::Options options;  ///< backward and occlusion as the two below say
  bool forward = true, backward = false;
  bool occlusion = false;              ///< what of the first frame is hidden in the second
  const FlowFormat* format = nullptr;  ///< of the flows
  double scale = 1;                    ///< of the frames before anything else, up to 1
  std::string folder;                  ///< forward flows in it; others in its folders "backward", "occlusion"
  Json settings;                       ///< all of the above that changes a result, and the version
};

/// What became of a pair.
struct PairReport {
  enum class State { Done, Skipped, Failed };
  State state;
  long pair;
  Json record;         ///< of the manifest; of a failed pair with "error"
  double seconds = 0;  ///< that it took, frames and files included
};

/// Tells a record that is there from one to be made: whether a pair is done whose frames have these contents.
using IsDone = std::function<bool(long pair, const std::string& contents1, const std::string& contents2)>;

/// The pairs of consecutive frames. Each frame is read once, and kept until its second pair is done.
class Pairs {
 public:
  /// @param first   number of the first pair
  /// @param isDone  pairs that are not computed again; may be empty
  /// @param poll    see NFlow::Watch
  Pairs(const PairJob& job, long first, IsDone isDone, std::function<void(const PairReport&)> report,
        std::function<void()> poll);

  /// The next frame. A frame that cannot be read fails the pairs that it is in.
  void add(Frame frame);
  /// A frame that its source cannot read.
  void addUnreadable(const std::string& error);

 private:
  struct Loaded {
    Frame frame;
    std::string contents;  // hash
    std::string error;
    bool used = false;
  };
  void next(Loaded loaded);
  void load(Loaded& loaded) const;
  PairReport pair(Loaded& first, Loaded& second);
  Json computed(const Loaded& first, const Loaded& second) const;

  const PairJob& job_;
  long pair_;
  IsDone isDone_;
  std::function<void(const PairReport&)> report_;
  std::function<void()> poll_;
  Loaded last_;
};

/// Identifies what a pair's results come from.
std::string pairKey(const Json& settings, const std::string& contents1, const std::string& contents2);

/// The contents of a frame, which is read if need be.
std::string contentsOf(const Frame& frame);

/// Shrinks a picture by area averages to `scale` times its sides, unless that is 1.
void shrink(CTensor<float>& picture, double scale);

/// The folders that results go to; they are made.
void makeFolders(const PairJob& job);

}  // namespace tool
