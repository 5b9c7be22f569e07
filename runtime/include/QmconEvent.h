#ifndef QM_RUNTIME_QMCONEVENT_H
#define QM_RUNTIME_QMCONEVENT_H

#include <pthread.h>

#include "Qmobject.h"

// Event with a millisecond wait, auto-reset (default) or manual-reset.
// Wait results: 16 signalled, 17 timed out, 18 other error. A negative
// time-out other than -1 counts as 0. A thread that a QmconThread was asked
// to suspend sleeps at the end of its next Wait until resumed.
// The deadline adds the sub-second part of a time-out as microseconds, so
// Wait(1500) lasts about 1.0015 s; callers rely on this arithmetic.
class QmconEvent : public Qmobject {
 public:
  enum WaitResult { SIGNALLED = 16, TIMEDOUT = 17, FAILED = 18 };

  QmconEvent();
  explicit QmconEvent(bool manualReset);
  ~QmconEvent() override;  // releases every waiter first
  QmconEvent(const QmconEvent&) = delete;
  QmconEvent& operator=(const QmconEvent&) = delete;

  void Initialize();
  int Wait(int timeoutMs);  // -1 waits without limit
  void Broadcast();
  void Reset();  // manual-reset events only

 private:
  int WaitForSignal(int timeoutMs);

  bool m_manualReset;
  pthread_cond_t m_cond;
  pthread_mutex_t m_mutex;
  bool m_armed = true;
  bool m_signalled = false;
  bool m_destroying = false;  // set by the destructor: every waiter leaves
  int m_waiters = 0;          // threads inside Wait
};

#endif
