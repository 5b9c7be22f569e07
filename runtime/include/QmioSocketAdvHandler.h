#ifndef QM_RUNTIME_QMIOSOCKETADVHANDLER_H
#define QM_RUNTIME_QMIOSOCKETADVHANDLER_H

#include <string>

#include "QmLogInterface.h"
#include "QmioSocket.h"
#include "QmioSocketEventHandler.h"

// Ready-made connection handler: on a data event it reads the connection in
// 1024-byte pieces (the first read waits up to the read time-out) and passes
// each piece on (OnReceived, by default straight to OnData) until that asks
// to close, the peer closes, or nothing more has come. In the last case the
// connection stays open and goes back to the socket pool, which calls again
// when more data comes, so a quiet connection holds no thread. A close by the peer is logged at
// debug level; any other failure at error level. The derived class sets the socket it serves and
// the logger; neither is owned. One thread uses a handler at a time.
class QmioSocketAdvHandler : public QmioSocketEventHandler {
 public:
  QmioSocketAdvHandler(const std::string& terminator, int readTimeoutMs);
  ~QmioSocketAdvHandler() override;

  void OnSocketEvent(QmioSocket* socket, SocketEvent event, void* data) override;
  // True to go on reading, false to end the connection.
  virtual bool OnData(const std::string& data) = 0;

  // Writes on the served socket; throws QmioException on failure.
  void SendData(const std::string& data);

  // Whether the derived class writes on the connection (SendData). Without
  // replies, a connection the peer has closed is released before the data
  // read last is handled, so that the peer need not wait for that work.
  // True unless set.
  void SetRepliesOnConnection(bool replies) { m_repliesOnConnection = replies; }
  void SetSocket(QmioSocket* socket) { m_socket = socket; }
  void SetLogger(QmLogInterface* logger) { m_logger = logger; }
  void SetReadTimeout(int timeoutMs) { m_readTimeout = timeoutMs; }
  std::string GetClientName() const { return m_clientName; }
  std::string GetTerminator() const { return m_terminator; }

 protected:
  // Each piece as it was read; false ends the connection. Passes the piece
  // to OnData; a derived class that frames its own units overrides it.
  virtual bool OnReceived(const std::string& piece);
  // The peer has closed the connection (after everything it sent was passed
  // to OnReceived).
  virtual void OnPeerClosed() {}

  void ReadLoop();
  // One piece that has come (waiting for the first); "" when nothing has.
  std::string ReadPiece(bool first, QmioSocket::SocketStatus& status);
  // OnReceived; false (logged) when it asks to close.
  bool PassOn(const std::string& piece);

  std::string m_clientName;
  int m_readTimeout;
  QmioSocket* m_socket = nullptr;
  QmLogInterface* m_logger = nullptr;
  std::string m_terminator;
  bool m_repliesOnConnection = true;
};

#endif
