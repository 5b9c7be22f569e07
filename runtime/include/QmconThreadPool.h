#ifndef QM_RUNTIME_QMCONTHREADPOOL_H
#define QM_RUNTIME_QMCONTHREADPOOL_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <memory>

#include "Qmobject.h"

class QmconDelegate;
class QmLogInterface;

// Runs QmconDelegate work items on up to a maximum of detached worker
// threads, made on demand and retired after an idle time-out (30000 ms by
// default). The pool owns queued items and deletes each item after running
// it. No worker is ever ended from outside: Stop asks the running items to
// stop and waits a bounded time for the workers to leave. A worker still busy
// then is reported and left to finish on its own; workers share the pool's
// state through a shared pointer, so the pool object may be destroyed while
// such a straggler still runs. Workers never touch the pool's logger.
// Thread-safe.
class QmconThreadPool : public Qmobject {
 public:
  static const int kDefaultIdleTimeoutMs = 30000;

  QmconThreadPool();
  // Refuses further work and drops queued items; running items go on.
  ~QmconThreadPool() override;
  QmconThreadPool(const QmconThreadPool&) = delete;
  QmconThreadPool& operator=(const QmconThreadPool&) = delete;

  // Stores the maximum thread count. Changes no signal disposition.
  void Initialize(unsigned int maxThreads);
  // Where Stop reports the workers it leaves running (error level); without
  // a logger they go to the system log. Used only inside Stop, on the
  // caller's thread, so the logger must outlive the calls to Stop.
  void SetLogger(QmLogInterface* logger);
  // Queues the item. `threadId` receives the id of the worker made for it,
  // or 0 when an existing worker will take it.
  void AddWork(QmconDelegate* work, unsigned long& threadId);
  void AddWork(QmconDelegate* work);
  // Refuses further work, drops queued items, asks every running item to
  // stop (StopWork) and waits up to `timeoutMs` (at least 100 ms) for the
  // workers to leave. A worker still busy after that is logged at error
  // level and left running. Always true.
  bool Stop(int timeoutMs);

  void StopTask(QmconDelegate* work);
  void PauseTask(QmconDelegate* work);
  void ResumeTask(QmconDelegate* work);
  void StopTasks();
  void PauseTasks();
  void ResumeTasks();
  // Removes (and deletes) a queued item that has not started; true if found.
  bool DeleteTask(QmconDelegate* work);
  void DeleteTasks();

  std::size_t RunningSize() const;
  std::size_t WorkerCount() const;
  bool IsThreadRunning(unsigned long threadId) const;
  bool RemoveThread(unsigned long threadId);

  void SetIdleTimeout(int timeoutMs);

 private:
  struct State;
  enum TaskAction { TASK_STOP, TASK_PAUSE, TASK_RESUME };

  static void* WorkerEntry(void* state);
  static void WorkerLoop(State* state);
  static void RunItem(State* state, QmconDelegate* work);
  static void Apply(QmconDelegate* work, TaskAction action);
  void ApplyToTask(QmconDelegate* work, TaskAction action);
  void ApplyToTasks(TaskAction action);
  unsigned long StartWorkerIfNeeded();
  void ReportStragglers(int waitedMs);

  std::shared_ptr<State> m_state;
  std::atomic<QmLogInterface*> m_logger{nullptr};
};

#endif
