#include "SockeReadWork.h"

#include "QmioSocketEventHandler.h"

namespace {

// Lists the socket as served for as long as its handler runs, including the
// unwinding of a worker ended by a signal.
class ServedEntry {
 public:
  ServedEntry(QmioSocketPool::ServedSockets* served, QmioSocket* socket)
      : m_served(served), m_socket(socket) {
    if (m_served != nullptr) m_served->Add(m_socket);
  }
  ~ServedEntry() {
    if (m_served != nullptr) m_served->Remove(m_socket);
  }
  ServedEntry(const ServedEntry&) = delete;
  ServedEntry& operator=(const ServedEntry&) = delete;

 private:
  QmioSocketPool::ServedSockets* m_served;
  QmioSocket* m_socket;
};

}  // namespace

SockeReadWork::SockeReadWork(QmioSocket* socket,
                             std::shared_ptr<QmioSocketPool::ServedSockets> served)
    : m_socket(socket), m_served(std::move(served)) {}

SockeReadWork::~SockeReadWork() = default;

void SockeReadWork::DoWork(void* data) {
  // The socket is released even when the worker is ended while the handler
  // runs: the unwinding destroys the owning pointer.
  std::unique_ptr<QmioSocket> socket(std::move(m_socket));
  if (socket == nullptr || socket->GetEventHandler() == nullptr) return;
  ServedEntry entry(m_served.get(), socket.get());
  socket->GetEventHandler()->OnSocketEvent(socket.get(), QmioSocketEventHandler::EVENT_DATA_READY,
                                           data);
}
