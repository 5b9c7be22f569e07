#include "QmconThreadPool.h"

#include <cxxabi.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>

#include "QmconCriticalSection.h"
#include "QmconDelegate.h"
#include "QmconEvent.h"
#include "QmconException.h"
#include "QmconFunctions.h"
#include "QmconLock.h"

namespace {

const int kStopGraceMs = 500;
const int kMinWaitPerThreadMs = 100;
// How long Stop waits for killed workers to finish unwinding.
const int kKillSettleMs = 1000;

}  // namespace

// Everything the workers touch. Workers hold it through a shared pointer so
// that it outlives the pool object for as long as one of them runs.
struct QmconThreadPool::State {
  struct Worker {
    pthread_t id;
    bool busy;  // inside a work item: the only state in which Stop may end it
  };

  // Guarded by queueLock.
  std::list<QmconDelegate*> queue;
  std::map<pthread_t, QmconDelegate*> running;
  bool stopping = false;
  // Guarded by threadLock.
  std::list<Worker> workers;

  unsigned int maxThreads = 0;
  std::atomic<int> idleTimeoutMs{kDefaultIdleTimeoutMs};
  QmconLock queueLock;
  QmconLock threadLock;
  QmconEvent workEvent{true};

  // Lets Stop wait for a worker to leave instead of sleeping blindly.
  std::mutex endMutex;
  std::condition_variable endCond;

  std::list<Worker>::iterator FindWorker(pthread_t id) {
    return std::find_if(workers.begin(), workers.end(),
                        [id](const Worker& w) { return pthread_equal(w.id, id) != 0; });
  }
  bool IsListed(pthread_t id) {
    QmconCriticalSection guard(&threadLock, true, true, false);
    return FindWorker(id) != workers.end();
  }
  void SetBusy(bool busy) {
    QmconCriticalSection guard(&threadLock, true, true, false);
    auto it = FindWorker(pthread_self());
    if (it != workers.end()) it->busy = busy;
  }
  void RemoveSelf() {
    {
      QmconCriticalSection guard(&threadLock, true, true, false);
      auto it = FindWorker(pthread_self());
      if (it != workers.end()) workers.erase(it);
    }
    std::lock_guard<std::mutex> lock(endMutex);
    endCond.notify_all();
  }
  // On an idle time-out: leaves the worker list when no work is queued. Both
  // locks are held so that AddWork either sees this worker gone (and makes a
  // new one) or has already queued the item this worker then takes.
  bool RetireIfIdle() {
    QmconCriticalSection threads(&threadLock, true, true, false);
    QmconCriticalSection items(&queueLock, true, true, false);
    if (!queue.empty() && !stopping) return false;
    auto it = FindWorker(pthread_self());
    if (it != workers.end()) workers.erase(it);
    return true;
  }
};

namespace {

// Removes the worker from the list however its loop ends, including the
// unwinding of a thread ended by SIGQUIT.
class WorkerExitGuard {
 public:
  explicit WorkerExitGuard(std::function<void()> onExit) : m_onExit(std::move(onExit)) {}
  ~WorkerExitGuard() { m_onExit(); }

 private:
  std::function<void()> m_onExit;
};

}  // namespace

QmconThreadPool::QmconThreadPool() : m_state(std::make_shared<State>()) {}

QmconThreadPool::~QmconThreadPool() {
  {
    QmconCriticalSection guard(&m_state->queueLock, true, true, false);
    m_state->stopping = true;
    for (QmconDelegate* work : m_state->queue) delete work;
    m_state->queue.clear();
  }
  try {
    m_state->workEvent.Broadcast();
  } catch (const QmconException&) {
    // Idle workers then retire by their time-out instead.
  }
}

void QmconThreadPool::EndThreadHandler(int /*signal*/) {
  pthread_exit(nullptr);
}

void QmconThreadPool::Initialize(unsigned int maxThreads) {
  m_state->maxThreads = maxThreads;
  struct sigaction action;
  std::memset(&action, 0, sizeof(action));
  action.sa_handler = &QmconThreadPool::EndThreadHandler;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGQUIT, &action, nullptr) != 0 || sigaction(SIGTERM, &action, nullptr) != 0) {
    QMCON_THROW("Initialize Thread Pool Failed");
  }
}

void QmconThreadPool::AddWork(QmconDelegate* work) {
  unsigned long threadId = 0;
  AddWork(work, threadId);
}

void QmconThreadPool::AddWork(QmconDelegate* work, unsigned long& threadId) {
  threadId = 0;
  if (work == nullptr) QMCON_THROW("Empty Thread Pool Work Failed");
  {
    QmconCriticalSection guard(&m_state->queueLock, true, true, false);
    if (m_state->stopping) QMCON_THROW("Thread Pool Is Stopping");
    m_state->queue.push_back(work);
  }
  threadId = StartWorkerIfNeeded();
  m_state->workEvent.Broadcast();
}

unsigned long QmconThreadPool::StartWorkerIfNeeded() {
  QmconCriticalSection guard(&m_state->threadLock, true, true, false);
  if (m_state->workers.size() >= m_state->maxThreads) return 0;
  auto* handle = new std::shared_ptr<State>(m_state);
  pthread_t id;
  const int rc = pthread_create(&id, nullptr, &QmconThreadPool::WorkerEntry, handle);
  if (rc != 0) {
    delete handle;
    errno = rc;
    QMCON_THROW("Create Thread Failed");
  }
  // The new thread waits for this lock before it looks itself up.
  m_state->workers.push_back(State::Worker{id, false});
  const int detached = pthread_detach(id);
  if (detached != 0) {
    errno = detached;
    QMCON_THROW("Detach Thread Failed");
  }
  return static_cast<unsigned long>(id);
}

void* QmconThreadPool::WorkerEntry(void* handle) {
  std::shared_ptr<State> state;
  {
    std::unique_ptr<std::shared_ptr<State>> owned(static_cast<std::shared_ptr<State>*>(handle));
    state = *owned;
  }
  try {
    WorkerLoop(state);
  } catch (const abi::__forced_unwind&) {
    throw;  // ended by SIGQUIT: the thread must finish unwinding
  } catch (const QmException& e) {
    std::fprintf(stderr, "%s\n", e.ToString().c_str());
  }
  return nullptr;
}

void QmconThreadPool::WorkerLoop(const std::shared_ptr<State>& state) {
  State* st = state.get();
  WorkerExitGuard exitGuard([st] { st->RemoveSelf(); });
  for (;;) {
    const int waited = st->workEvent.Wait(st->idleTimeoutMs.load());
    if (waited == QmconEvent::TIMEDOUT) {
      if (st->RetireIfIdle()) return;
      continue;
    }
    QmconDelegate* work = nullptr;
    {
      QmconCriticalSection guard(&st->queueLock, true, true, false);
      if (st->stopping) return;
      if (st->queue.empty()) {
        st->workEvent.Reset();
        continue;
      }
      work = st->queue.front();
      st->queue.pop_front();
      st->running[pthread_self()] = work;
    }
    RunItem(state, work);
  }
}

void QmconThreadPool::RunItem(const std::shared_ptr<State>& state, QmconDelegate* work) {
  State* st = state.get();
  // Declared in this order so that the running entry goes before the item is
  // deleted, also when the thread is ended inside DoWork.
  std::unique_ptr<QmconDelegate> owned(work);
  WorkerExitGuard runningEntry([st] {
    QmconCriticalSection guard(&st->queueLock, true, true, false);
    st->running.erase(pthread_self());
  });
  st->SetBusy(true);
  try {
    work->DoWork(work->GetUserData());
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& e) {
    // Work items are expected to catch their own exceptions.
    std::fprintf(stderr, "Thread pool work item failed: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "Thread pool work item failed\n");
  }
  st->SetBusy(false);
}

bool QmconThreadPool::Stop(int timeoutMs) {
  {
    QmconCriticalSection guard(&m_state->queueLock, true, true, false);
    m_state->stopping = true;
    for (QmconDelegate* work : m_state->queue) delete work;
    m_state->queue.clear();
  }
  m_state->workEvent.Broadcast();
  {
    // Idle workers leave at once; give the others the grace time.
    std::unique_lock<std::mutex> lock(m_state->endMutex);
    m_state->endCond.wait_for(lock, std::chrono::milliseconds(kStopGraceMs),
                              [this] { return WorkerCount() == 0; });
  }

  std::list<pthread_t> live;
  {
    QmconCriticalSection guard(&m_state->threadLock, true, true, false);
    for (const State::Worker& w : m_state->workers) live.push_back(w.id);
  }
  int waitPerThread = live.empty() ? 0 : timeoutMs / static_cast<int>(live.size());
  if (waitPerThread <= 99) waitPerThread = kMinWaitPerThreadMs;

  std::list<pthread_t> killed;
  for (pthread_t id : live) {
    if (WaitForWorkerEnd(id, waitPerThread)) continue;
    if (Kill(id)) killed.push_back(id);
  }
  // Let the killed workers finish unwinding (their items go with them).
  const auto settle = std::chrono::steady_clock::now() + std::chrono::milliseconds(kKillSettleMs);
  for (pthread_t id : killed) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        settle - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    WaitForWorkerEnd(id, static_cast<int>(left.count()));
  }
  return true;
}

bool QmconThreadPool::Kill(pthread_t id) {
  // A listed worker has not run its exit code yet, so it still exists;
  // holding the list lock keeps it from getting there during the kill.
  QmconCriticalSection guard(&m_state->threadLock, true, true, false);
  auto it = m_state->FindWorker(id);
  if (it == m_state->workers.end() || !it->busy) return false;
  std::printf("Kill thread [%d]\n", static_cast<int>(static_cast<unsigned int>(id)));
  std::fflush(stdout);
  return pthread_kill(id, SIGQUIT) == 0;
}

bool QmconThreadPool::WaitForWorkerEnd(pthread_t id, int waitMs) {
  std::unique_lock<std::mutex> lock(m_state->endMutex);
  return m_state->endCond.wait_for(lock, std::chrono::milliseconds(waitMs),
                                   [this, id] { return !m_state->IsListed(id); });
}

void QmconThreadPool::Apply(QmconDelegate* work, TaskAction action) {
  switch (action) {
    case TASK_STOP:
      work->StopWork();
      break;
    case TASK_PAUSE:
      work->PauseWork();
      break;
    case TASK_RESUME:
      work->ResumeWork();
      break;
  }
}

void QmconThreadPool::ApplyToTask(QmconDelegate* work, TaskAction action) {
  QmconCriticalSection guard(&m_state->queueLock, true, true, false);
  const bool running = std::any_of(m_state->running.begin(), m_state->running.end(),
                                   [work](const auto& entry) { return entry.second == work; });
  const bool queued =
      std::find(m_state->queue.begin(), m_state->queue.end(), work) != m_state->queue.end();
  if (running || queued) Apply(work, action);  // otherwise not ours: it may be gone already
}

void QmconThreadPool::ApplyToTasks(TaskAction action) {
  QmconCriticalSection guard(&m_state->queueLock, true, true, false);
  for (const auto& entry : m_state->running) Apply(entry.second, action);
}

void QmconThreadPool::StopTask(QmconDelegate* work) {
  ApplyToTask(work, TASK_STOP);
}
void QmconThreadPool::PauseTask(QmconDelegate* work) {
  ApplyToTask(work, TASK_PAUSE);
}
void QmconThreadPool::ResumeTask(QmconDelegate* work) {
  ApplyToTask(work, TASK_RESUME);
}
void QmconThreadPool::StopTasks() {
  ApplyToTasks(TASK_STOP);
}
void QmconThreadPool::PauseTasks() {
  ApplyToTasks(TASK_PAUSE);
}
void QmconThreadPool::ResumeTasks() {
  ApplyToTasks(TASK_RESUME);
}

bool QmconThreadPool::DeleteTask(QmconDelegate* work) {
  QmconCriticalSection guard(&m_state->queueLock, true, true, false);
  auto it = std::find(m_state->queue.begin(), m_state->queue.end(), work);
  if (it == m_state->queue.end()) return false;
  m_state->queue.erase(it);
  delete work;
  return true;
}

void QmconThreadPool::DeleteTasks() {
  QmconCriticalSection guard(&m_state->queueLock, true, true, false);
  for (QmconDelegate* work : m_state->queue) delete work;
  m_state->queue.clear();
}

std::size_t QmconThreadPool::RunningSize() const {
  QmconCriticalSection guard(&m_state->queueLock, true, true, false);
  return m_state->running.size();
}

std::size_t QmconThreadPool::WorkerCount() const {
  QmconCriticalSection guard(&m_state->threadLock, true, true, false);
  return m_state->workers.size();
}

bool QmconThreadPool::IsThreadRunning(unsigned long threadId) const {
  return m_state->IsListed(static_cast<pthread_t>(threadId));
}

bool QmconThreadPool::RemoveThread(unsigned long threadId) {
  QmconCriticalSection guard(&m_state->threadLock, true, true, false);
  auto it = m_state->FindWorker(static_cast<pthread_t>(threadId));
  if (it == m_state->workers.end()) return false;
  m_state->workers.erase(it);
  return true;
}

void QmconThreadPool::SetIdleTimeout(int timeoutMs) {
  m_state->idleTimeoutMs = timeoutMs;
}
