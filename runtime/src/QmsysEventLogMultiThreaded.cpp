#include "QmsysEventLogMultiThreaded.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>

#include "QmconDelegate.h"
#include "QmconException.h"
#include "QmconThread.h"
#include "QmsysSystemLog.h"

namespace {

const std::chrono::milliseconds kStartWait(2500);  // five checks 500 ms apart
const std::chrono::seconds kStopWait(10);

}  // namespace

// What the worker shares with its owner. The worker holds it until it ends,
// so it lives as long as either of them needs it.
struct QmsysEventLogMultiThreaded::Queue {
  std::mutex mutex;
  std::condition_variable changed;  // lines queued, stop asked, worker started or ended
  std::deque<MsgStruct> lines;
  bool stop = false;
  bool started = false;
  bool running = true;  // until the worker has ended
  std::shared_ptr<QmsysEventLogWriterInterface> writer;
  std::string processName;
};

// Runs DoWork on the worker thread. Deleted with its auto-cleaning thread
// object when the work ends, releasing its share of the queue.
class QmsysEventLogMultiThreaded::Worker : public QmconDelegate {
 public:
  explicit Worker(std::shared_ptr<Queue> queue) : m_queue(std::move(queue)) {}
  void DoWork(void* /*userData*/) override { QmsysEventLogMultiThreaded::DoWork(m_queue.get()); }

 private:
  std::shared_ptr<Queue> m_queue;
};

QmsysEventLogMultiThreaded::QmsysEventLogMultiThreaded(const std::string& moduleName)
    : QmsysEventLogInterface(moduleName) {}

QmsysEventLogMultiThreaded::~QmsysEventLogMultiThreaded() {
  Stop();
}

std::shared_ptr<QmsysEventLogMultiThreaded::Queue> QmsysEventLogMultiThreaded::currentQueue() {
  std::lock_guard<std::mutex> guard(m_queueMutex);
  return m_queue;
}

bool QmsysEventLogMultiThreaded::Print(QmsysEventLogWriterInterface::LogLevel level,
                                       const std::string& message, int line, const char* file) {
  const std::shared_ptr<Queue> queue = currentQueue();
  if (GetWriter() == nullptr || !queue) return false;
  {
    std::lock_guard<std::mutex> guard(queue->mutex);
    if (queue->stop) return false;
    queue->lines.push_back(
        MsgStruct{level, message, line, time(nullptr), file != nullptr ? file : ""});
  }
  queue->changed.notify_all();
  return true;
}

bool QmsysEventLogMultiThreaded::Start() {
  const bool alive = QmsysEventLogInterface::Start();
  if (!alive) return false;
  std::shared_ptr<Queue> queue;
  {
    std::lock_guard<std::mutex> starting(m_queueMutex);
    if (m_queue) return alive;  // the worker already runs
    queue = std::make_shared<Queue>();
    queue->writer = sharedWriter();
    queue->processName = getProcessName();
    auto thread = std::make_unique<QmconThread>();
    auto worker = std::make_unique<Worker>(queue);
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
    thread.release();
    m_queue = queue;
  }
  std::unique_lock<std::mutex> guard(queue->mutex);
  if (!queue->changed.wait_for(guard, kStartWait, [&] { return queue->started; })) {
    QmsysSystemLog::Write("QmsysEventLogInterface::Start", QmsysSystemLog::CATEGORY_ERROR,
                          "Worker thread is not running");
  }
  return alive;
}

bool QmsysEventLogMultiThreaded::Stop() {
  std::shared_ptr<Queue> queue;
  {
    std::lock_guard<std::mutex> stopping(m_queueMutex);
    queue.swap(m_queue);  // a second Stop has nothing left to wait for
  }
  if (queue) {
    std::unique_lock<std::mutex> guard(queue->mutex);
    queue->stop = true;
    queue->changed.notify_all();
    if (!queue->changed.wait_for(guard, kStopWait, [&] { return !queue->running; })) {
      // The worker is stuck in a write. It keeps the queue and the writer
      // alive itself; what it has not reached is given up.
      QmsysSystemLog::Write("QmsysEventLogMultiThreaded::Stop", QmsysSystemLog::CATEGORY_ERROR,
                            "Worker thread did not stop in time; %zu queued lines dropped",
                            queue->lines.size());
      queue->lines.clear();
    }
  }
  return QmsysEventLogInterface::Stop();
}

void QmsysEventLogMultiThreaded::DoWork(void* userData) {
  Queue& queue = *static_cast<Queue*>(userData);
  std::unique_lock<std::mutex> guard(queue.mutex);
  queue.started = true;
  queue.changed.notify_all();
  while (true) {
    queue.changed.wait(guard, [&] { return queue.stop || !queue.lines.empty(); });
    if (queue.lines.empty()) break;  // stopped, and everything written
    const MsgStruct line = std::move(queue.lines.front());
    queue.lines.pop_front();
    guard.unlock();
    try {
      (*queue.writer)(queue.processName, line.level, line.message, line.line, line.file.c_str(),
                      line.time);
    } catch (const std::exception& e) {
      const char* text = e.what();
      QmsysSystemLog::Write("QmsysEventLogMultiThreaded::DoWork", QmsysSystemLog::CATEGORY_ERROR,
                            "%s", (text != nullptr && *text != '\0') ? text : "Unknown error");
    } catch (...) {
      QmsysSystemLog::Write("QmsysEventLogMultiThreaded::DoWork", QmsysSystemLog::CATEGORY_ERROR,
                            "Unknown error");
    }
    guard.lock();
  }
  queue.running = false;
  queue.changed.notify_all();
}
