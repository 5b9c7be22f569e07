#ifndef QM_RUNTIME_SOCKEREADWORK_H
#define QM_RUNTIME_SOCKEREADWORK_H

#include <memory>

#include "QmconDelegate.h"
#include "QmioSocket.h"
#include "QmioSocketPool.h"

// One connection handed from the socket pool to a worker: runs the socket's
// handler with a data event, then gives the socket back to the pool, which
// watches it again or deletes it (see QmioSocketPool::Release). Without a
// pool the socket is deleted after its handler. Owns the socket until then;
// an item that never runs deletes it.
class SockeReadWork : public QmconDelegate {
 public:
  explicit SockeReadWork(QmioSocket* socket, std::shared_ptr<QmioSocketPool::Core> pool = nullptr);
  ~SockeReadWork() override;

  void DoWork(void* data) override;

 private:
  std::unique_ptr<QmioSocket> m_socket;
  std::shared_ptr<QmioSocketPool::Core> m_pool;
};

#endif
