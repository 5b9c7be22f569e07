#ifndef QM_RUNTIME_QMSYSEVENTLOGMULTITHREADED_H
#define QM_RUNTIME_QMSYSEVENTLOGMULTITHREADED_H

#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "QmconEvent.h"
#include "QmconLock.h"
#include "QmsysEventLogInterface.h"

class QmconThread;

// Logger front end that queues accepted lines and writes them on a worker
// thread of its own. Start() runs the worker, Stop() lets it write what is
// queued and waits up to ten seconds for it to end. The worker's thread
// object cleans itself up; this object owns the queue and its lines.
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
  // The worker's body: writes queued lines until stopped.
  void DoWork(void* userData);

 private:
  class Worker;

  bool isWorkerRunning();
  void writeBatch(const std::vector<std::unique_ptr<MsgStruct>>& batch);
  void markWorkerFinished();

  std::vector<std::unique_ptr<MsgStruct>> m_queue;
  QmconLock m_queueLock;
  QmconEvent m_arrived;
  bool m_stop = false;  // guarded by m_queueLock

  // Worker bookkeeping. The thread object deletes itself when the worker
  // ends, so it is only touched while m_finished is false, under m_doneMutex.
  std::mutex m_doneMutex;
  std::condition_variable m_done;
  QmconThread* m_thread = nullptr;
  bool m_finished = true;
};

#endif
