#ifndef QM_RUNTIME_QMCONTHREADPOOL_H
#define QM_RUNTIME_QMCONTHREADPOOL_H

#include <pthread.h>

#include <cstddef>
#include <memory>

#include "Qmobject.h"

class QmconDelegate;

// Runs QmconDelegate work items on up to a maximum of detached worker
// threads, made on demand and retired after an idle time-out (30000 ms by
// default). The pool owns queued items and deletes each item after running
// it. Workers share the pool's state through a shared pointer, so the pool
// object may be destroyed after Stop while stragglers are still finishing.
class QmconThreadPool : public Qmobject {
 public:
  static const int kDefaultIdleTimeoutMs = 30000;

  QmconThreadPool();
  // Refuses further work and drops queued items; running items go on.
  ~QmconThreadPool() override;
  QmconThreadPool(const QmconThreadPool&) = delete;
  QmconThreadPool& operator=(const QmconThreadPool&) = delete;

  // Stores the maximum and installs the SIGQUIT/SIGTERM thread-end handler.
  void Initialize(unsigned int maxThreads);
  // Queues the item. `threadId` receives the id of the worker made for it,
  // or 0 when an existing worker will take it.
  void AddWork(QmconDelegate* work, unsigned long& threadId);
  void AddWork(QmconDelegate* work);
  // Refuses further work, drops queued items, gives live workers their share
  // of `timeoutMs` and ends stragglers with SIGQUIT. Always true.
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
  static void WorkerLoop(const std::shared_ptr<State>& state);
  static void RunItem(const std::shared_ptr<State>& state, QmconDelegate* work);
  static void EndThreadHandler(int signal);
  static void Apply(QmconDelegate* work, TaskAction action);
  void ApplyToTask(QmconDelegate* work, TaskAction action);
  void ApplyToTasks(TaskAction action);
  unsigned long StartWorkerIfNeeded();
  bool WaitForWorkerEnd(pthread_t id, int waitMs);
  bool Kill(pthread_t id);

  std::shared_ptr<State> m_state;
};

#endif
