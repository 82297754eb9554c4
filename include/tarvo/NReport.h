#pragma once

#include <tarvo/export.h>

#include <cstdio>
#include <functional>

/// Where the library's report goes. Optional: without any call the report goes to standard output.
/// Messages of exceptions and device errors are no part of it; they go to standard error.
namespace NReport {

/// Sends the report to `stream` from now on; a null pointer means standard output. The stream stays the
/// caller's.
TARVO_API void to(std::FILE* stream);

/// Prints nothing from now on; to() ends the silence.
TARVO_API void silence();

/// Calls `callback(done, total)` after every pass of the coarse-to-fine scheme, on the caller's thread; both
/// directions of a call of tarvo count as one sequence. An empty function ends it. The callback must not call
/// a computing function of the library (that throws std::logic_error); it may throw, which ends the
/// computation.
TARVO_API void progress(std::function<void(int done, int total)> callback);

}  // namespace NReport
