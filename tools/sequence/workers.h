#pragma once

#include <functional>
#include <vector>

#include "sequence/pairs.h"

namespace tool {

/// Pairs first ... last - 1.
struct PairRange {
  long first, last;
};

/// Does the pairs of the ranges, in this order, and reports each once.
using DoPairs = std::function<void(const std::vector<PairRange>& ranges,
                                   const std::function<void(const PairReport&)>& report)>;

/// Has processes of their own do the pairs, each a block of consecutive ones. They are forked from this one, which
/// must not have computed anything. A pair whose process dies is reported as failed, and a new process goes on
/// behind it. Where `poll` or `report` throw, or an exception leaves `doPairs`, the processes are ended first.
/// @param jobs    processes at a time, at least 1
/// @param report  called in this process
/// @param poll    called here while waiting, about every 100 ms
void shareAmongProcesses(int jobs, const std::vector<PairRange>& ranges, const DoPairs& doPairs,
                         const std::function<void(const PairReport&)>& report,
                         const std::function<void()>& poll);

}  // namespace tool
