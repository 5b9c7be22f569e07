#include "QmconLock.h"

#include <cerrno>

#include "QmconException.h"
#include "QmconFunctions.h"

QmconLock::QmconLock() {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  const int rc = pthread_mutex_init(&m_mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  if (rc != 0) QMCON_THROW("Create Lock Failed");
}

// A lock must not be held when it is destroyed. The mutex is not unlocked
// first: unlocking a mutex the caller does not hold is an error that thread
// checkers rightly report.
QmconLock::~QmconLock() {
  pthread_mutex_destroy(&m_mutex);
}

int QmconLock::Lock() {
  const int rc = pthread_mutex_lock(&m_mutex);
  return (rc == 0 || rc == EDEADLK) ? 0 : 2;
}

int QmconLock::TryLock() {
  const int rc = pthread_mutex_trylock(&m_mutex);
  if (rc == 0 || rc == EDEADLK) return 0;
  return rc == EBUSY ? 1 : 2;
}

int QmconLock::Unlock() {
  return pthread_mutex_unlock(&m_mutex);
}
