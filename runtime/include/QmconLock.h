#ifndef QM_RUNTIME_QMCONLOCK_H
#define QM_RUNTIME_QMCONLOCK_H

#include <pthread.h>

#include "Qmobject.h"

// Recursive mutex. Lock operations return codes and never throw:
// 0 taken (also on EDEADLK), 1 busy (TryLock only), 2 any other error.
class QmconLock : public Qmobject {
 public:
  QmconLock();  // throws QmconException "Create Lock Failed"
  ~QmconLock() override;
  QmconLock(const QmconLock&) = delete;
  QmconLock& operator=(const QmconLock&) = delete;

  int Lock();
  int TryLock();
  int Unlock();

 private:
  pthread_mutex_t m_mutex;
};

#endif
