#include "QmconThreadPool.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>

#include "QmLogInterface.h"
#include "QmString.h"
#include "QmconCriticalSection.h"
#include "QmconDelegate.h"
#include "QmconEvent.h"
#include "QmconException.h"
#include "QmconFunctions.h"
#include "QmconLock.h"
#include "QmsysSystemLog.h"

namespace {

const char* const kSource = "QmconThreadPool";
const int kMinStopWaitMs = 100;

}  // namespace

// Everything the workers touch. Workers hold it through a shared pointer so
// that it outlives the pool object for as long as one of them runs.
struct QmconThreadPool::State {
  // Guarded by queueLock.
  std::list<QmconDelegate*> queue;
  std::map<pthread_t, QmconDelegate*> running;
  bool stopping = false;
  // Guarded by threadLock.
  std::list<pthread_t> workers;

  std::atomic<unsigned int> maxThreads{0};
  std::atomic<int> idleTimeoutMs{kDefaultIdleTimeoutMs};
  QmconLock queueLock;
  QmconLock threadLock;
  QmconEvent workEvent{true};

  // Lets Stop wait for the workers to leave instead of sleeping blindly.
  std::mutex endMutex;
  std::condition_variable endCond;

  std::list<pthread_t>::iterator FindWorker(pthread_t id) {
    return std::find_if(workers.begin(), workers.end(),
                        [id](pthread_t w) { return pthread_equal(w, id) != 0; });
  }
  bool IsListed(pthread_t id) {
    QmconCriticalSection guard(&threadLock, true, true, false);
    return FindWorker(id) != workers.end();
  }
  std::size_t WorkerCount() {
    QmconCriticalSection guard(&threadLock, true, true, false);
    return workers.size();
  }
  // The worker's last touch of the list; wakes a Stop waiting for it.
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
  // True when every worker has left within `waitMs`.
  bool WaitForWorkers(int waitMs) {
    std::unique_lock<std::mutex> lock(endMutex);
    return endCond.wait_for(lock, std::chrono::milliseconds(waitMs),
                            [this] { return WorkerCount() == 0; });
  }
};

QmconThreadPool::QmconThreadPool() : m_state(std::make_shared<State>()) {}

QmconThreadPool::~QmconThreadPool() {
  {
    QmconCriticalSection guard(&m_state->queueLock, true, true, false);
    m_state->stopping = true;
    DeleteTasks();
  }
  try {
    m_state->workEvent.Broadcast();
  } catch (const QmconException&) {
    // Idle workers then retire by their time-out instead.
  }
}

void QmconThreadPool::Initialize(unsigned int maxThreads) {
  m_state->maxThreads = maxThreads;
}

void QmconThreadPool::SetLogger(QmLogInterface* logger) {
  m_logger = logger;
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
  m_state->workers.push_back(id);
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
    WorkerLoop(state.get());
  } catch (const QmException& e) {
    QmsysSystemLog::Write("QmconThreadPool::WorkerLoop", QmsysSystemLog::CATEGORY_ERROR, "%s",
                          e.ToString().c_str());
  }
  state->RemoveSelf();
  return nullptr;
}

void QmconThreadPool::WorkerLoop(State* st) {
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
    RunItem(st, work);
  }
}

void QmconThreadPool::RunItem(State* st, QmconDelegate* work) {
  // Deleted after its running entry is gone, so that no task control call
  // reaches a deleted item.
  std::unique_ptr<QmconDelegate> owned(work);
  try {
    work->DoWork(work->GetUserData());
  } catch (const std::exception& e) {
    // Work items are expected to catch their own exceptions.
    QmsysSystemLog::Write("QmconThreadPool::RunItem", QmsysSystemLog::CATEGORY_ERROR,
                          "Thread pool work item failed: %s", e.what());
  } catch (...) {
    QmsysSystemLog::Write("QmconThreadPool::RunItem", QmsysSystemLog::CATEGORY_ERROR,
                          "Thread pool work item failed");
  }
  QmconCriticalSection guard(&st->queueLock, true, true, false);
  st->running.erase(pthread_self());
}

bool QmconThreadPool::Stop(int timeoutMs) {
  {
    QmconCriticalSection guard(&m_state->queueLock, true, true, false);
    m_state->stopping = true;
    DeleteTasks();
  }
  ApplyToTasks(TASK_STOP);
  m_state->workEvent.Broadcast();
  const int waitMs = std::max(timeoutMs, kMinStopWaitMs);
  if (!m_state->WaitForWorkers(waitMs)) ReportStragglers(waitMs);
  return true;
}

// The workers still listed are busy in an item that did not stop in time.
// They keep the shared state and their item, and leave when the item returns.
void QmconThreadPool::ReportStragglers(int waitedMs) {
  std::list<pthread_t> busy;
  {
    QmconCriticalSection guard(&m_state->threadLock, true, true, false);
    busy = m_state->workers;
  }
  QmLogInterface* logger = m_logger;
  for (pthread_t id : busy) {
    const std::string text = QmstringFormat(
        "Thread pool worker [%lu] still busy %d ms after the stop request; left running",
        static_cast<unsigned long>(id), waitedMs);
    if (logger != nullptr) {
      QM_LOG(logger, Error, kSource, text);
    } else {
      QmsysSystemLog::Write("QmconThreadPool::Stop", QmsysSystemLog::CATEGORY_ERROR, "%s",
                            text.c_str());
    }
  }
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
  return m_state->WorkerCount();
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
