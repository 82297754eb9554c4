#pragma once

namespace tool {

/// The user or the system has asked the process to end. No std::exception, so that nothing takes it for a failure.
struct Stopped {
  int signal;
};

/// From now on SIGINT, SIGTERM and SIGHUP make throwIfStopped throw, so that what is under way is left in order.
/// The second signal of a kind ends the process.
void stopOnSignals();
void throwIfStopped();

/// Ends the process by the signal, as if it had not been waited for.
[[noreturn]] void endBy(const Stopped& stopped);

}  // namespace tool
