#pragma once

#include <tarvo/export.h>

#include <cstdio>
#include <functional>

/// Where the library's report goes. Optional: without any call it goes to standard output. Messages of
/// exceptions and device errors are not part of it; they go to standard error.
namespace NReport {

/// Sends the report to `stream` from now on, null meaning standard output. The caller keeps the stream.
TARVO_API void to(std::FILE* stream);

/// Drops the report from now on, until to() is called.
TARVO_API void silence();

/// Calls `callback(done, total)` after every pass of the coarse-to-fine scheme, on the caller's thread. The
/// two directions of a call of tarvo count as one sequence. An empty function stops the calls. The callback
/// must not call a computing function of the library (that throws std::logic_error); it may throw, which ends
/// the computation.
TARVO_API void progress(std::function<void(int done, int total)> callback);

}  // namespace NReport
