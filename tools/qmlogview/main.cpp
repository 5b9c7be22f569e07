// qmlogview: lists and follows the entries of an SQLite log database.

#include <signal.h>

#include <cerrno>
#include <ctime>
#include <iostream>

#include "LogViewOptions.h"
#include "LogViewer.h"

namespace {

// SIGINT and SIGTERM stay blocked and are taken synchronously while the
// viewer waits between polls, so an interrupt ends it between two reads.
sigset_t StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

bool WaitForStopSignal(const sigset_t& signals, int milliseconds) {
  timespec timeout{milliseconds / 1000, static_cast<long>(milliseconds % 1000) * 1000000L};
  while (true) {
    const int taken = sigtimedwait(&signals, nullptr, &timeout);
    if (taken >= 0) return true;
    if (errno == EAGAIN) return false;
    if (errno != EINTR) return true;
  }
}

}  // namespace

int main(int argc, char** argv) {
  LogViewOptions options;
  std::string error;
  if (!LogViewOptions::Parse(argc, argv, options, error)) {
    std::cerr << "qmlogview: " << error << std::endl;
    return LogViewer::EXIT_USAGE;
  }
  if (options.help) {
    std::cout << LogViewOptions::Usage();
    return LogViewer::EXIT_OK;
  }
  const sigset_t signals = StopSignals();
  if (options.follow) sigprocmask(SIG_BLOCK, &signals, nullptr);
  LogViewer viewer(options, std::cout, std::cerr);
  return viewer.Run([&signals](int ms) { return WaitForStopSignal(signals, ms); });
}
