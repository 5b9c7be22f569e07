#ifndef QM_RUNTIME_QMIOSERVERSOCKET_H
#define QM_RUNTIME_QMIOSERVERSOCKET_H

#include <atomic>
#include <string>

#include "Qmobject.h"

class QmioAcceptedSocket;
class QmioSocketEventHandler;

// A listening TCP socket (SO_REUSEADDR, so that it can be bound again at once
// after a stop). Accept hands out new QmioAcceptedSocket objects that the
// caller owns; the event handler is not owned. Shutdown may be called from
// another thread to release one blocked in Accept.
class QmioServerSocket : public Qmobject {
 public:
  QmioServerSocket() = default;
  ~QmioServerSocket() override;  // closes the descriptor unless shut down
  QmioServerSocket(const QmioServerSocket&) = delete;
  QmioServerSocket& operator=(const QmioServerSocket&) = delete;

  // An empty host listens on every interface and is recorded as "localhost".
  // Port 0 takes an ephemeral port (see GetPort).
  void Listen(const std::string& host, int port, bool noDelay);
  // -1 blocks; otherwise null after the time-out (a negative time-out other
  // than -1 is 0). A signal does not end the wait. Null as well for a peer
  // that gave up before it was taken. Throws QmioException "Socket Accept
  // Failed" when descriptors or memory run out or the socket no longer
  // listens, "Socket Select Failed" when the wait itself fails.
  QmioAcceptedSocket* Accept(int timeoutMs);
  bool Shutdown();
  void SetEventHandler(QmioSocketEventHandler* handler) { m_handler = handler; }

  std::string GetHostName() const { return m_hostName; }
  int GetSocket() const { return m_socket.load(); }
  // True while the socket is open and listening.
  bool IsListening() const;
  // The bound local port, or -1 when not listening.
  int GetPort() const;

 private:
  QmioAcceptedSocket* DoAccept(int descriptor);

  std::atomic<int> m_socket{-1};
  std::string m_hostName;
  QmioSocketEventHandler* m_handler = nullptr;
};

#endif
