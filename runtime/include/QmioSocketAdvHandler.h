#ifndef QM_RUNTIME_QMIOSOCKETADVHANDLER_H
#define QM_RUNTIME_QMIOSOCKETADVHANDLER_H

#include <string>

#include "QmLogInterface.h"
#include "QmioSocketEventHandler.h"

// Ready-made connection handler: on a data event it reads the connection in
// 1024-byte pieces and passes each piece to OnData until OnData returns
// false or the connection fails or closes. The derived class sets the socket
// it serves and the logger; neither is owned.
class QmioSocketAdvHandler : public QmioSocketEventHandler {
 public:
  QmioSocketAdvHandler(const std::string& terminator, int readTimeoutMs);
  ~QmioSocketAdvHandler() override;

  void OnSocketEvent(QmioSocket* socket, SocketEvent event, void* data) override;
  // True to go on reading, false to end the connection.
  virtual bool OnData(const std::string& data) = 0;

  // Writes on the served socket; throws QmioException on failure.
  void SendData(const std::string& data);

  void SetSocket(QmioSocket* socket) { m_socket = socket; }
  void SetLogger(QmLogInterface* logger) { m_logger = logger; }
  void SetReadTimeout(int timeoutMs) { m_readTimeout = timeoutMs; }
  std::string GetClientName() const { return m_clientName; }
  std::string GetTerminator() const { return m_terminator; }

 protected:
  void ReadLoop();

  std::string m_clientName;
  int m_readTimeout;
  QmioSocket* m_socket = nullptr;
  QmLogInterface* m_logger = nullptr;
  std::string m_terminator;
};

#endif
