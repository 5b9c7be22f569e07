#ifndef QM_RUNTIME_SOCKEREADWORK_H
#define QM_RUNTIME_SOCKEREADWORK_H

#include <memory>

#include "QmconDelegate.h"
#include "QmioSocket.h"
#include "QmioSocketPool.h"

// A worker of the socket pool, run by a thread pool: serves its socket (if
// given one) by running the socket's handler with a data event, gives it
// back to the pool (which watches it again or deletes it), and goes on with
// the pool's next ready connection until there is none for the pool's idle
// time. Without a pool it serves its one socket and deletes it. Owns a
// socket until it gives it back; an item that never runs deletes it.
class SockeReadWork : public QmconDelegate {
 public:
  explicit SockeReadWork(QmioSocket* socket, std::shared_ptr<QmioSocketPool::Core> pool = nullptr);
  ~SockeReadWork() override;

  void DoWork(void* data) override;

 private:
  void Serve(QmioSocket* socket, void* data);

  std::unique_ptr<QmioSocket> m_socket;
  std::shared_ptr<QmioSocketPool::Core> m_pool;
};

#endif
