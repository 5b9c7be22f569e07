#ifndef QM_RUNTIME_QMSYSEVENTLOGMULTITHREADED_H
#define QM_RUNTIME_QMSYSEVENTLOGMULTITHREADED_H

#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "QmsysEventLogInterface.h"

// Logger front end that queues accepted lines and writes them on a worker
// thread of its own. Start() runs the worker; Stop() lets it write what is
// queued and waits up to ten seconds for it to end. The worker works only
// on a queue it shares with this object (holding the writer and the
// process name), never on this object, so a worker stuck in a write may
// outlive both Stop() and this object without touching freed memory; the
// lines it had not reached by then are dropped and counted in the system
// log. Any thread may write; Start() and Stop() may be called from any
// thread.
class QmsysEventLogMultiThreaded : public QmsysEventLogInterface {
 public:
  // One queued line.
  struct MsgStruct {
    QmsysEventLogWriterInterface::LogLevel level;
    std::string message;
    int line;
    time_t time;  // when the line was queued
    std::string file;
  };

  explicit QmsysEventLogMultiThreaded(const std::string& moduleName);
  ~QmsysEventLogMultiThreaded() override;  // stops a running worker

  using QmsysEventLogInterface::Print;
  bool Print(QmsysEventLogWriterInterface::LogLevel level, const std::string& message, int line,
             const char* file) override;
  bool Start() override;
  bool Stop() override;
  // The worker's body: writes the lines of the queue `userData` points to
  // until it is stopped and empty.
  static void DoWork(void* userData);

 private:
  struct Queue;
  class Worker;

  std::shared_ptr<Queue> currentQueue();

  std::mutex m_queueMutex;         // guards m_queue (the pointer, not the queue)
  std::shared_ptr<Queue> m_queue;  // of the running worker; null when stopped
};

#endif
