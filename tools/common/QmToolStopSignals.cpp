#include "QmToolStopSignals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

QmToolStopSignals::QmToolStopSignals() {
  sigemptyset(&m_signals);
  sigaddset(&m_signals, SIGINT);
  sigaddset(&m_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
}

QmToolStopSignals::~QmToolStopSignals() {
  if (m_descriptor >= 0) close(m_descriptor);
}

int QmToolStopSignals::Wait(int milliseconds) {
  timespec timeout{milliseconds / 1000, static_cast<long>(milliseconds % 1000) * 1000000L};
  while (true) {
    const int taken = sigtimedwait(&m_signals, nullptr, &timeout);
    if (taken > 0) return taken;
    if (errno != EINTR) return 0;
  }
}

int QmToolStopSignals::Descriptor() {
  if (m_descriptor < 0) m_descriptor = signalfd(-1, &m_signals, SFD_CLOEXEC | SFD_NONBLOCK);
  return m_descriptor;
}

const char* QmToolStopSignals::Name(int signal) {
  return signal == SIGINT ? "SIGINT" : "SIGTERM";
}
