#ifndef QM_OAP_OAPMESSAGESWEEPER_H
#define QM_OAP_OAPMESSAGESWEEPER_H

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>

class OAPMessageStore;
class QmLogInterface;

// Keeps a message store within its bounds: once a second, and at once when
// poked while the store holds a sixteenth more than its limit, a thread of
// its own removes the messages older than the retention and the oldest
// beyond the limit, in small batches so that sends and answers waiting for
// the store never wait long. Each sweep that removed something logs one info
// line with the count.
//
// Start and Stop are called by the owner's thread, Poke by any thread. Stop
// (also run by the destructor) wakes the thread and joins it, which takes at
// most one batch; the sweeper may be started again. The logger is not owned
// and must stay usable until Stop returns.
class OAPMessageSweeper {
 public:
  OAPMessageSweeper(std::shared_ptr<OAPMessageStore> store, int retentionMinutes, size_t limit,
                    QmLogInterface* logger);
  ~OAPMessageSweeper();
  OAPMessageSweeper(const OAPMessageSweeper&) = delete;
  OAPMessageSweeper& operator=(const OAPMessageSweeper&) = delete;

  void Start();
  void Stop();
  // Asks for a sweep now when the store has grown well beyond its limit.
  void Poke();
  // One sweep now, on the caller's thread; the number of messages removed.
  size_t Sweep();

 private:
  void Run();

  const std::shared_ptr<OAPMessageStore> m_store;
  const int m_retentionMinutes;
  const size_t m_limit;
  QmLogInterface* const m_logger;
  std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_stop = false;
  bool m_due = false;
  std::thread m_thread;
};

#endif
