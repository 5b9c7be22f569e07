#ifndef QM_RUNTIME_QMIOSOCKETPOOL_H
#define QM_RUNTIME_QMIOSOCKETPOOL_H

#include <sys/select.h>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <set>

#include "QmconDelegate.h"
#include "QmconEvent.h"
#include "QmconLock.h"
#include "QmconThread.h"
#include "QmconThreadPool.h"

class QmioSocket;

// Holds accepted connections that wait for their first data. One select
// thread (this object is its work) watches the waiting sockets and hands
// each one that becomes readable to a worker of the thread pool, which runs
// the socket's event handler and then deletes the socket. The pool owns the
// waiting sockets; a handed-over socket belongs to its work item.
class QmioSocketPool : public QmconDelegate {
 public:
  // The sockets that workers are serving. Stop shuts them down so that their
  // handlers' reads end and the workers finish by themselves. Shared with the
  // work items, so it outlives the pool while one of them runs.
  class ServedSockets {
   public:
    // A socket that arrives after ShutdownAll is shut down at once.
    void Add(QmioSocket* socket);
    void Remove(QmioSocket* socket);
    void ShutdownAll();

   private:
    std::mutex m_mutex;
    std::set<QmioSocket*> m_sockets;
    bool m_shutDown = false;
  };

  QmioSocketPool();
  ~QmioSocketPool() override;  // stops the pool when it still runs
  QmioSocketPool(const QmioSocketPool&) = delete;
  QmioSocketPool& operator=(const QmioSocketPool&) = delete;

  bool Initialize(int socketLimit, int threadCount);
  // 0 when added, the lock's failure code otherwise; throws QmioException
  // "Too Many Sockets" (path "SocketPool") when the limit is reached.
  int AddSocket(QmioSocket* socket);
  QmioSocket* RemoveSocket(QmioSocket* socket);
  // True while the number of waiting sockets is at most the limit.
  bool HaveAvailableSpot();
  // Stops the workers, ends the select thread and deletes waiting sockets.
  bool Stop(int timeoutMs);

  // The select loop, run on the select thread.
  void DoWork(void* data) override;
  // Fills the read set; returns the highest socket descriptor, or -1.
  int BuildSelectList();
  // Hands every readable socket to a worker.
  void ReadSockets();

  std::size_t WaitingCount();

 private:
  static bool CanSelect(int descriptor);
  void HandOver(QmioSocket* socket);
  bool SelectOnce(int highest);
  void Wake();
  void DrainWakePipe();
  void IdleSleep();
  void WaitForSelectThreadEnd();
  void DeleteWaitingSockets();

  int m_socketLimit = 0;
  std::list<QmioSocket*> m_sockets;
  QmconThreadPool m_workers;
  QmconLock m_lock;
  QmconThread m_selectThread;
  fd_set m_readSet;

  // The select thread leaves its loop on this flag (it is not suspended, which
  // would leave it blocked for ever). The wake pipe and the wake event cut its
  // select and its idle sleep short when a socket arrives or the pool stops;
  // the finished event tells Stop that it has left.
  std::atomic<bool> m_stopping{false};
  bool m_running = false;
  int m_wakePipe[2] = {-1, -1};
  QmconEvent m_finished{true};
  std::shared_ptr<ServedSockets> m_served;
};

#endif
