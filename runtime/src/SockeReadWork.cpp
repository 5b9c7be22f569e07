#include "SockeReadWork.h"

#include "QmioSocketEventHandler.h"

namespace {

// Gives the socket back to the pool however the handler ends, including the
// unwinding of a worker ended while the handler runs.
class ReleaseOnExit {
 public:
  ReleaseOnExit(const std::shared_ptr<QmioSocketPool::Core>& pool, QmioSocket* socket)
      : m_pool(pool), m_socket(socket) {}
  ~ReleaseOnExit() { QmioSocketPool::Release(m_pool, m_socket, m_keep); }
  ReleaseOnExit(const ReleaseOnExit&) = delete;
  ReleaseOnExit& operator=(const ReleaseOnExit&) = delete;

  void Keep(bool keep) { m_keep = keep; }

 private:
  const std::shared_ptr<QmioSocketPool::Core>& m_pool;
  QmioSocket* m_socket;
  bool m_keep = false;
};

// Tells the pool that its worker loop ends, however it ends.
class LoopEndOnExit {
 public:
  explicit LoopEndOnExit(const std::shared_ptr<QmioSocketPool::Core>& pool) : m_pool(pool) {}
  ~LoopEndOnExit() { QmioSocketPool::WorkerEnded(m_pool); }
  LoopEndOnExit(const LoopEndOnExit&) = delete;
  LoopEndOnExit& operator=(const LoopEndOnExit&) = delete;

 private:
  const std::shared_ptr<QmioSocketPool::Core>& m_pool;
};

}  // namespace

SockeReadWork::SockeReadWork(QmioSocket* socket, std::shared_ptr<QmioSocketPool::Core> pool)
    : m_socket(socket), m_pool(std::move(pool)) {}

SockeReadWork::~SockeReadWork() = default;

void SockeReadWork::DoWork(void* data) {
  if (m_pool == nullptr) {
    if (m_socket != nullptr) Serve(m_socket.release(), data);
    return;
  }
  LoopEndOnExit loopEnd(m_pool);
  if (m_socket != nullptr) Serve(m_socket.release(), data);
  while (QmioSocket* socket = QmioSocketPool::TakeNext(m_pool)) Serve(socket, data);
}

void SockeReadWork::Serve(QmioSocket* socket, void* data) {
  ReleaseOnExit release(m_pool, socket);
  QmioSocketEventHandler* handler = socket->GetEventHandler();
  if (handler == nullptr) return;
  handler->OnSocketEvent(socket, QmioSocketEventHandler::EVENT_DATA_READY, data);
  release.Keep(handler->KeepConnection());
}
