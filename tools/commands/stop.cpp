#include "commands/stop.h"

#include <csignal>
#include <cstdlib>
#include <initializer_list>

namespace tool {

namespace {

volatile std::sig_atomic_t stopSignal = 0;

void note(int signal) {
  stopSignal = signal;
}

}  // namespace

void stopOnSignals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = note;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(signal, &action, nullptr);
  }
}

void throwIfStopped() {
  if (stopSignal != 0) throw Stopped{stopSignal};
}

void endBy(const Stopped& stopped) {
  std::signal(stopped.signal, SIG_DFL);
  std::raise(stopped.signal);
  std::exit(1);  // where the signal is blocked
}

}  // namespace tool
