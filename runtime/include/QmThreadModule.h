#ifndef QM_RUNTIME_QMTHREADMODULE_H
#define QM_RUNTIME_QMTHREADMODULE_H

#include <memory>

#include "QmPlainModule.h"
#include "QmconDelegate.h"
#include "QmconEvent.h"
#include "QmconThread.h"

// A module with a worker thread of its own that runs DoThreadWork, logs
// whatever it throws, finalises the module and reports its end through the
// stopped event. Another thread asks the loop to end with StopThread. The
// module owns both events and the thread object. Signalling the stopped
// event is the worker's last touch of the module and of its logger, so the
// owner may delete both as soon as WaitForThreadStop has returned true (the
// usual stop sequence is StopThread, WaitForThreadStop).
class QmThreadModule : public QmPlainModule, public QmconDelegate {
 public:
  QmThreadModule();
  ~QmThreadModule() override;

  // Throws QmException when the events or the thread object cannot be made,
  // and passes on QmconException of a failed thread start. False, with an
  // error line, while the module's thread runs.
  bool StartAsThread();
  bool StopThread();
  // True when the worker signalled its end within `timeoutMs` (-1: no limit).
  bool WaitForThreadStop(int timeoutMs);
  // Pacing of a work loop: waits up to `timeoutMs` for the stop event.
  bool KeepContinueMyself(int timeoutMs, bool honourStop);

  virtual void DoThreadWork() = 0;
  void StopWork() override {}
  void PauseWork() override {}
  void ResumeWork() override {}
  // The thread body.
  void DoWork(void* data) override;

 protected:
  // Started and not yet reported its end.
  bool IsThreadRunning() const;

 private:
  void RunGuarded();

  std::unique_ptr<QmconEvent> m_stopEvent;
  std::unique_ptr<QmconThread> m_thread;
  std::unique_ptr<QmconEvent> m_stoppedEvent;
};

#endif
