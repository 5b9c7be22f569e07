#include "QmsysEventLogMultiThreaded.h"

#include <signal.h>

#include <chrono>
#include <exception>

#include "QmconCriticalSection.h"
#include "QmconDelegate.h"
#include "QmconException.h"
#include "QmconFunctions.h"
#include "QmconThread.h"
#include "QmsysSystemLog.h"

namespace {

const int kStartChecks = 5;
const int kStartCheckIntervalMs = 500;
const std::chrono::seconds kStopWait(10);

// Killing a thread relies on the runtime's SIGQUIT handler, which ends only
// the receiving thread; without it SIGQUIT would end the whole process.
bool CanKillThreads() {
  struct sigaction current {};
  if (sigaction(SIGQUIT, nullptr, &current) != 0) return false;
  return current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN;
}

}  // namespace

// Runs the owner's DoWork on the worker thread. Deleted together with its
// auto-cleaning thread object once the owner's DoWork has returned.
class QmsysEventLogMultiThreaded::Worker : public QmconDelegate {
 public:
  explicit Worker(QmsysEventLogMultiThreaded* owner) : m_owner(owner) {}
  void DoWork(void* userData) override { m_owner->DoWork(userData); }

 private:
  QmsysEventLogMultiThreaded* m_owner;
};

QmsysEventLogMultiThreaded::QmsysEventLogMultiThreaded(const std::string& moduleName)
    : QmsysEventLogInterface(moduleName) {}

QmsysEventLogMultiThreaded::~QmsysEventLogMultiThreaded() {
  bool running;
  {
    std::lock_guard<std::mutex> done(m_doneMutex);
    running = !m_finished;
  }
  if (running) Stop();
}

bool QmsysEventLogMultiThreaded::Print(QmsysEventLogWriterInterface::LogLevel level,
                                       const std::string& message, int line, const char* file) {
  if (GetWriter() == nullptr) return false;
  bool queued = false;
  {
    QmconCriticalSection guard(&m_queueLock, true, true, false);
    if (!m_stop) {
      m_queue.push_back(std::unique_ptr<MsgStruct>(
          new MsgStruct{level, message, line, time(nullptr), file != nullptr ? file : ""}));
      queued = true;
    }
  }
  try {
    m_arrived.Broadcast();
  } catch (const QmconException& e) {
    QmsysSystemLog::Write("QmsysEventLogMultiThreaded::Print", QmsysSystemLog::CATEGORY_ERROR, "%s",
                          e.ToString().c_str());
  }
  return queued;
}

bool QmsysEventLogMultiThreaded::Start() {
  const bool alive = QmsysEventLogInterface::Start();
  {
    std::lock_guard<std::mutex> done(m_doneMutex);
    if (!m_finished) return alive;  // the worker already runs
    {
      QmconCriticalSection guard(&m_queueLock, true, true, false);
      m_stop = false;
    }
    auto thread = std::make_unique<QmconThread>();
    auto worker = std::make_unique<Worker>(this);
    thread->SetAutoClean(true);
    try {
      thread->Run(worker.get());
    } catch (const QmconException& e) {
      QmsysSystemLog::Write("QmsysEventLogInterface::Start", QmsysSystemLog::CATEGORY_ERROR, "%s",
                            e.ToString().c_str());
      return false;
    }
    // From here on the thread owns itself and the worker.
    worker.release();
    m_thread = thread.release();
    m_finished = false;
  }
  for (int check = 0; check < kStartChecks; ++check) {
    if (isWorkerRunning()) return alive;
    Qmsleep(kStartCheckIntervalMs);
  }
  QmsysSystemLog::Write("QmsysEventLogInterface::Start", QmsysSystemLog::CATEGORY_ERROR,
                        "Worker thread is not running");
  return alive;
}

bool QmsysEventLogMultiThreaded::Stop() {
  {
    QmconCriticalSection guard(&m_queueLock, true, true, false);
    m_stop = true;
  }
  try {
    m_arrived.Broadcast();
  } catch (const QmconException& e) {
    QmsysSystemLog::Write("QmsysEventLogMultiThreaded::Stop", QmsysSystemLog::CATEGORY_ERROR, "%s",
                          e.ToString().c_str());
  }
  std::unique_lock<std::mutex> done(m_doneMutex);
  m_done.wait_for(done, kStopWait, [this] { return m_finished; });
  QmsysEventLogInterface::Stop();
  if (m_finished) return true;

  // The worker is stuck in a write: end it and abandon its thread object.
  QmsysSystemLog::Write("QmsysEventLogMultiThreaded::Stop", QmsysSystemLog::CATEGORY_ERROR,
                        "Worker thread did not stop in time");
  if (CanKillThreads()) {
    try {
      m_thread->Kill();
    } catch (const QmconException& e) {
      QmsysSystemLog::Write("QmsysEventLogMultiThreaded::Stop", QmsysSystemLog::CATEGORY_ERROR,
                            "%s", e.ToString().c_str());
    }
  }
  m_thread = nullptr;
  m_finished = true;
  return true;
}

void QmsysEventLogMultiThreaded::DoWork(void* /*userData*/) {
  try {
    bool stop = false;
    while (!stop) {
      m_arrived.Wait(-1);
      std::vector<std::unique_ptr<MsgStruct>> batch;
      {
        QmconCriticalSection guard(&m_queueLock, true, true, false);
        batch.swap(m_queue);
        stop = m_stop;
      }
      writeBatch(batch);
    }
  } catch (const std::exception& e) {
    QmsysSystemLog::Write("QmsysEventLogMultiThreaded::DoWork", QmsysSystemLog::CATEGORY_ERROR,
                          "%s", e.what());
  }
  markWorkerFinished();
}

bool QmsysEventLogMultiThreaded::isWorkerRunning() {
  std::lock_guard<std::mutex> done(m_doneMutex);
  return !m_finished && m_thread != nullptr && m_thread->IsRunning();
}

void QmsysEventLogMultiThreaded::writeBatch(const std::vector<std::unique_ptr<MsgStruct>>& batch) {
  QmsysEventLogWriterInterface* writer = GetWriter();
  if (writer == nullptr) return;
  // Only standard exceptions are caught: a thread ended by Kill unwinds
  // through here and must not be stopped.
  for (const auto& msg : batch) {
    try {
      (*writer)(getProcessName(), msg->level, msg->message, msg->line, msg->file.c_str(),
                msg->time);
    } catch (const std::exception& e) {
      const char* text = e.what();
      QmsysSystemLog::Write("QmsysEventLogMultiThreaded::DoWork", QmsysSystemLog::CATEGORY_ERROR,
                            "%s", (text != nullptr && *text != '\0') ? text : "Unknown error");
    }
  }
}

// Last touch of this object by the worker thread: once m_finished is seen
// true under the mutex, the owner may be destroyed.
void QmsysEventLogMultiThreaded::markWorkerFinished() {
  std::lock_guard<std::mutex> done(m_doneMutex);
  m_finished = true;
  m_thread = nullptr;
  m_done.notify_all();
}
