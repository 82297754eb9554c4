#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include "sequence/pairs.h"

namespace tool {

/// What a manifest of a run before says, against what is to be computed now.
class KnownPairs {
 public:
  KnownPairs() = default;
  /// @param verify  outputs are there only if their contents have their hash; otherwise if they have their size
  KnownPairs(const Manifest& manifest, const PairJob& job, bool verify);

  /// The first difference of settings or of the contents of these frames, in words; empty if there is none.
  /// @param files  of the frames; empty: only the settings are compared
  std::string difference(const std::vector<std::string>& files);

  /// Whether a pair of these files is done, its results are there, and they are of the same settings and frames.
  bool isDone(long pair, const std::vector<std::string>& files);
  /// The same for frames with these contents. Throws std::runtime_error where the manifest has other contents,
  /// unless `otherContents`.
  bool isDone(long pair, const std::string& contents1, const std::string& contents2,
              bool otherContents) const;

 private:
  const std::string& contentsOf(const std::string& file);
  bool outputsAreThere(const Json& record) const;

  const Manifest* manifest_ = nullptr;
  const PairJob* job_ = nullptr;
  bool verify_ = false;
  std::array<std::string, 2> lastFile_, lastContents_;  // of contentsOf: each frame is in two pairs
  std::map<long, bool> done_;                           // by isDone with files
};

}  // namespace tool
