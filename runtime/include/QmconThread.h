#ifndef QM_RUNTIME_QMCONTHREAD_H
#define QM_RUNTIME_QMCONTHREAD_H

#include <pthread.h>

#include <memory>
#include <mutex>

#include "QmconDelegate.h"
#include "Qmobject.h"

// A detached POSIX thread running one QmconDelegate. No signal is ever sent
// to the thread: Kill, Stop (suspend) and Resume are requests that the
// thread honours cooperatively. Each is passed to the delegate's StopWork,
// PauseWork or ResumeWork hook; a suspended thread also sleeps at the end of
// its next QmconEvent::Wait until it is resumed or killed. The hooks run
// under the thread's control lock and must not call back into this object.
//
// The running thread shares a small control record with this object and
// never touches the object itself, so the object may be destroyed while its
// thread runs. With auto-clean the finishing thread deletes this object and
// its delegate, and the starter must not touch either after Run.
// Thread-safe: any thread may call any member.
class QmconThread : public Qmobject {
 public:
  QmconThread();
  ~QmconThread() override;
  QmconThread(const QmconThread&) = delete;
  QmconThread& operator=(const QmconThread&) = delete;

  // Kept for the runtime's start and end; the thread layer needs no
  // process-wide set-up and installs no signal handler.
  static void InitializeLibrary();
  static void CloseLibrary();

  // Starts the delegate on a new detached thread; does nothing while a
  // thread of this object runs.
  void Run(QmconDelegate* work);
  // Asks the thread to end (the delegate's StopWork, and release from a
  // suspension) and forgets it: the object is idle at once, the thread ends
  // when its delegate returns. Does nothing on an idle object.
  void Kill();
  // Asks the thread to suspend at its next wait and waits (bounded) until it
  // has. Does nothing on an idle object.
  void Stop();
  // Ends a suspension. Throws "Resume Thread Failed" on an idle object.
  void Resume();
  bool IsRunning() const;
  // Whether a process with this id exists (no signal is sent).
  static bool IsThreadActive(unsigned long pid);
  // The running thread's id, or kNoThread.
  pthread_t GetThreadID() const;
  static pthread_t GetMyThreadID();
  void SetAutoClean(bool autoClean);
  // Polls in 250 ms steps while the thread runs; the count ends the loop
  // only when it reaches exactly zero. Always 0.
  int WaitForThreadObject(unsigned long timeoutMs);

  // Where a thread of this class honours a suspension: called by
  // QmconEvent::Wait once it has let go of its event. Returns at once on any
  // other thread or when no suspension is asked for.
  static void SuspendIfRequested();

  static const pthread_t kNoThread;

 private:
  class Control;

  static void* ThreadWork(void* control);
  // The control record of the calling thread when this class started it.
  static Control*& ThisThreadControl();
  std::shared_ptr<Control> Current() const;

  mutable std::mutex m_mutex;  // guards the two members below
  bool m_autoClean = false;
  std::shared_ptr<Control> m_control;  // of the running thread; null when idle
};

#endif
