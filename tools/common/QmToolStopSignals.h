#ifndef QM_TOOLS_COMMON_QMTOOLSTOPSIGNALS_H
#define QM_TOOLS_COMMON_QMTOOLSTOPSIGNALS_H

#include <signal.h>

// SIGINT and SIGTERM taken synchronously. The constructor blocks both in
// the calling thread, and so in every thread started from it afterwards:
// create it first thing in main, before any library starts a thread, and
// no thread is ever interrupted by them. The program then takes them when
// it is ready: Wait in its main loop, or poll Descriptor with its other
// descriptors. One per process; not thread-safe.
class QmToolStopSignals {
 public:
  QmToolStopSignals();
  ~QmToolStopSignals();
  QmToolStopSignals(const QmToolStopSignals&) = delete;
  QmToolStopSignals& operator=(const QmToolStopSignals&) = delete;

  // Waits up to `milliseconds` (0: only looks); the signal taken, or 0.
  int Wait(int milliseconds);
  // A descriptor that turns readable when a stop signal is pending; Wait(0)
  // takes it. -1 when none could be made.
  int Descriptor();
  // "SIGINT" or "SIGTERM".
  static const char* Name(int signal);

 private:
  sigset_t m_signals;
  int m_descriptor = -1;
};

#endif
