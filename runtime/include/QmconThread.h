#ifndef QM_RUNTIME_QMCONTHREAD_H
#define QM_RUNTIME_QMCONTHREAD_H

#include <pthread.h>

#include <atomic>

#include "QmconDelegate.h"
#include "Qmobject.h"

// A detached POSIX thread running one QmconDelegate. Threads are suspended,
// resumed and ended with process-wide signal handlers that
// InitializeLibrary installs: SIGUSR1 suspends, SIGUSR2 interrupts the
// suspension, SIGQUIT and SIGTERM end the receiving thread (pthread_exit).
// With auto-clean the finishing thread deletes this object and its delegate.
class QmconThread : public Qmobject {
 public:
  QmconThread() = default;
  ~QmconThread() override;

  static void InitializeLibrary();
  static void CloseLibrary();

  void Run(QmconDelegate* work);
  void Kill();
  void Stop();    // suspend
  void Resume();  // sends SIGUSR1, as Stop does
  bool IsRunning() const;
  static bool IsThreadActive(unsigned long pid);
  pthread_t GetThreadID() const { return m_threadId.load(); }
  static pthread_t GetMyThreadID();
  void SetAutoClean(bool autoClean) { m_autoClean = autoClean; }
  int WaitForThreadObject(unsigned long timeoutMs);

  static const pthread_t kNoThread;

 private:
  static void* ThreadWork(void* record);

  bool m_autoClean = false;
  std::atomic<pthread_t> m_threadId{kNoThread};
};

#endif
