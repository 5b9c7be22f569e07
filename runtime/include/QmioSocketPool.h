#ifndef QM_RUNTIME_QMIOSOCKETPOOL_H
#define QM_RUNTIME_QMIOSOCKETPOOL_H

#include <cstddef>
#include <memory>

#include "QmLogInterface.h"
#include "QmconDelegate.h"
#include "QmconEvent.h"
#include "QmconThread.h"

class QmioSocket;

// Holds accepted connections while they wait for data and serves each one
// that has data on a worker, which runs the socket's event handler. Workers
// are loops (SockeReadWork) on the threads of a thread pool, started as
// connections need them; a ready connection wakes exactly one idle loop, and
// a loop with nothing to serve for 30 s ends. One watch thread (this object
// is its work) sleeps in epoll on the waiting sockets and a wake-up
// descriptor, so any descriptor number works and nothing waits on a fixed
// sleep.
//
// Bounds: at most `threadCount` connections are served at once; connections
// with data beyond that wait in a bounded queue; at most `socketLimit`
// connections wait without having sent anything, except new ones still
// within their grace time (250 ms), which may wait up to the queue's bound.
// A connection that sends nothing for the idle time (30 s unless set) is
// closed. AddSocketMakingRoom makes room for a new connection by closing the
// one that has waited longest (past its grace time) without sending anything. After its handler a
// connection is deleted, or watched again when the handler asked to keep it (see
// QmioSocketEventHandler::KeepConnection).
//
// Ownership: the pool owns the sockets given to it; a socket being served
// belongs to its worker, which gives it back through Release. The state the
// workers touch is shared with them, so a late worker never reaches a
// destroyed pool. All operations are thread-safe.
class QmioSocketPool : public QmconDelegate {
 public:
  class Core;  // the state shared with the work items

  QmioSocketPool();
  ~QmioSocketPool() override;  // stops the pool when it still runs
  QmioSocketPool(const QmioSocketPool&) = delete;
  QmioSocketPool& operator=(const QmioSocketPool&) = delete;

  // Starts the watch thread; throws QmioException "Socket Pool Create
  // Failed" (path "SocketPool") when its descriptors cannot be made.
  bool Initialize(int socketLimit, int threadCount);
  // Where evicted and idle connections are reported (not owned).
  void SetLogger(QmLogInterface* logger);
  void SetIdleTimeout(int timeoutMs);

  // 0 when added; throws QmioException "Too Many Sockets" (path
  // "SocketPool") when `socketLimit` connections already wait.
  int AddSocket(QmioSocket* socket);
  // Adds an accepted connection; when the pool is full, closes the
  // connection that has waited longest without sending anything (logged at
  // warning level) to make room. When none can be closed yet, waits up to
  // `timeoutMs` for room and returns false: the socket was not added and is
  // still the caller's. A stopped pool takes the socket and closes it.
  bool AddSocketMakingRoom(QmioSocket* socket, int timeoutMs);
  // Takes a waiting socket out of the pool (not deleted) and returns it.
  QmioSocket* RemoveSocket(QmioSocket* socket);
  // True while the number of waiting sockets is at most the limit (where
  // AddSocket refuses at the limit: kept so).
  bool HaveAvailableSpot();
  std::size_t WaitingCount();
  // Closes the waiting connections, shuts down the served ones so that
  // their handlers end, ends the watch thread and stops the workers within
  // about `timeoutMs`.
  bool Stop(int timeoutMs);

  // The watch loop, run on the watch thread.
  void DoWork(void* data) override;

  // For the pool's worker loops (SockeReadWork): the next connection to
  // serve (null when the loop is to end); a served connection given back,
  // which the pool watches again when `keep` (and it still runs) and deletes
  // otherwise; the end of a loop.
  static QmioSocket* TakeNext(const std::shared_ptr<Core>& core);
  static void Release(const std::shared_ptr<Core>& core, QmioSocket* socket, bool keep);
  static void WorkerEnded(const std::shared_ptr<Core>& core);

 private:
  void WaitForWatchThreadEnd();

  std::shared_ptr<Core> m_core;
  QmconThread m_watchThread;
  QmconEvent m_finished{true};
  bool m_running = false;
};

#endif
