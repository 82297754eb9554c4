#pragma once

#include <algorithm>

namespace device::cpu {

/// Threads of the CPU device, the caller's included. Default: the number of processors this process may use;
/// of more than these only so many work. Becomes less where the system gives no further thread.
int teamSize();
void setTeamSize(int threads);

/// Runs body(context, chunk) on the team, once for every chunk in [0, chunks), and returns when all are done.
/// The caller claims chunks like the workers and never waits for a worker that has not claimed one. `body`
/// must not throw. Where the caller's poll (device/watch.h) throws, the chunks left are dropped, and the
/// exception leaves when no thread runs one any more.
void runChunks(int chunks, void (*body)(const void* context, int chunk), const void* context);

/// Below this many pixels work runs on the caller's thread: sharing it would cost more than it saves.
constexpr int kPixelsForTeam = 12000;

/// Rows per chunk when h rows of w pixels are shared among the threads: a few chunks for each, none tiny and
/// none so long that the caller cannot stop; or all rows, if the work stays on the caller's thread. Results
/// never depend on it.
int rowsPerChunk(int h, int w);

/// Runs function(y0, y1) over bands of `rows` rows that cover [0, h); the last band may be smaller.
template <class Function>
void forBandsOf(int rows, int h, const Function& function) {
  if (rows >= h) {
    function(0, h);
    return;
  }
  struct Context {
    const Function& function;
    int h, rows;
  };
  const Context context{function, h, rows};
  runChunks((h + rows - 1) / rows,
            [](const void* opaque, int chunk) {
              const auto& c = *static_cast<const Context*>(opaque);
              c.function(chunk * c.rows, std::min(c.h, (chunk + 1) * c.rows));
            },
            &context);
}

/// The same over bands of rowsPerChunk(h, w) rows.
template <class Function>
void forBands(int h, int w, const Function& function) {
  forBandsOf(rowsPerChunk(h, w), h, function);
}

}  // namespace device::cpu
