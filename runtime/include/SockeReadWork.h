#ifndef QM_RUNTIME_SOCKEREADWORK_H
#define QM_RUNTIME_SOCKEREADWORK_H

#include <memory>

#include "QmconDelegate.h"
#include "QmioSocket.h"
#include "QmioSocketPool.h"

// One connection handed from the socket pool to a worker: runs the socket's
// handler with a data event, then deletes the socket (and so its handler).
// Owns the socket from construction; while the handler runs the socket is
// listed in `served` (may be null), through which the pool's Stop ends it.
class SockeReadWork : public QmconDelegate {
 public:
  explicit SockeReadWork(QmioSocket* socket,
                         std::shared_ptr<QmioSocketPool::ServedSockets> served = nullptr);
  ~SockeReadWork() override;

  void DoWork(void* data) override;

 private:
  std::unique_ptr<QmioSocket> m_socket;
  std::shared_ptr<QmioSocketPool::ServedSockets> m_served;
};

#endif
