#include "QmconEvent.h"

#include <sched.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>

#include "QmconException.h"
#include "QmconFunctions.h"
#include "QmconThread.h"

QmconEvent::QmconEvent() : m_manualReset(false) {
  Initialize();
}

QmconEvent::QmconEvent(bool manualReset) : m_manualReset(manualReset) {
  Initialize();
}

// Releases every waiter (each returns 16) and waits until the last one has
// left Wait, so no waiter touches the mutex or condition after they are gone.
QmconEvent::~QmconEvent() {
  pthread_mutex_lock(&m_mutex);
  m_signalled = true;
  m_destroying = true;
  pthread_mutex_unlock(&m_mutex);
  pthread_cond_broadcast(&m_cond);
  for (;;) {
    pthread_mutex_lock(&m_mutex);
    const int waiters = m_waiters;
    pthread_mutex_unlock(&m_mutex);
    if (waiters == 0) break;
    sched_yield();
  }
  pthread_cond_destroy(&m_cond);
  pthread_mutex_destroy(&m_mutex);
}

void QmconEvent::Initialize() {
  std::memset(&m_mutex, 0, sizeof(m_mutex));
  if (pthread_mutex_init(&m_mutex, nullptr) != 0) QMCON_THROW("Create lock failed");
  if (pthread_cond_init(&m_cond, nullptr) != 0) QMCON_THROW("Create condition event failed");
}

namespace {

// Leaves an event's Wait: counts the waiter out and releases the mutex, also
// when the wait ends by an exception.
class WaitScope {
 public:
  WaitScope(pthread_mutex_t* mutex, int* waiters) : m_mutex(mutex), m_waiters(waiters) {
    ++*m_waiters;
  }
  ~WaitScope() {
    if (m_mutex != nullptr) Leave();
  }
  // The normal way out; false when the mutex could not be released.
  bool Leave() {
    --*m_waiters;
    pthread_mutex_t* mutex = m_mutex;
    m_mutex = nullptr;
    return pthread_mutex_unlock(mutex) == 0;
  }

 private:
  pthread_mutex_t* m_mutex;
  int* m_waiters;
};

}  // namespace

int QmconEvent::Wait(int timeoutMs) {
  const int result = WaitForSignal(timeoutMs < -1 ? 0 : timeoutMs);
  // A thread asked to suspend does so here, holding nothing of the event.
  QmconThread::SuspendIfRequested();
  return result;
}

int QmconEvent::WaitForSignal(int timeoutMs) {
  if (pthread_mutex_lock(&m_mutex) != 0) QMCON_THROW("Lock failed");
  WaitScope scope(&m_mutex, &m_waiters);

  int rc = 0;
  if (m_signalled) {
    if (!m_manualReset) m_signalled = false;
  } else if (timeoutMs == -1) {
    while (!m_signalled && !m_destroying) rc = pthread_cond_wait(&m_cond, &m_mutex);
    if (!m_manualReset) m_signalled = false;
  } else {
    // The sub-second part of the time-out is added as microseconds: callers
    // depend on this arithmetic (Wait(1500) lasts about 1.0015 s).
    timeval now;
    gettimeofday(&now, nullptr);
    timespec deadline;
    deadline.tv_sec = now.tv_sec + timeoutMs / 1000;
    long nanos = (now.tv_usec + timeoutMs % 1000) * 1000L;
    if (nanos >= 1000000000L) {
      deadline.tv_sec += 1;
      nanos -= 1000000000L;
    }
    deadline.tv_nsec = nanos;
    rc = pthread_cond_timedwait(&m_cond, &m_mutex, &deadline);
    if (rc == 0 && !m_manualReset) m_signalled = false;
  }

  if (!scope.Leave()) QMCON_THROW("Unlock failed");
  if (rc == ETIMEDOUT) return TIMEDOUT;
  return rc == 0 ? SIGNALLED : FAILED;
}

// The condition is signalled while the mutex is held: a waiter that wakes
// may destroy the event at once, and the destructor's lock then waits until
// this call no longer touches it.
void QmconEvent::Broadcast() {
  pthread_mutex_lock(&m_mutex);
  m_signalled = true;
  const int rc = m_manualReset ? pthread_cond_broadcast(&m_cond) : pthread_cond_signal(&m_cond);
  pthread_mutex_unlock(&m_mutex);
  if (rc != 0) QMCON_THROW("Broadcast Event Failed");
}

void QmconEvent::Reset() {
  if (!m_manualReset) return;
  if (pthread_mutex_lock(&m_mutex) != 0) QMCON_THROW("Lock Failed");
  m_signalled = false;
  m_armed = true;
  pthread_mutex_unlock(&m_mutex);
}
