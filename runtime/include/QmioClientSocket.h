#ifndef QM_RUNTIME_QMIOCLIENTSOCKET_H
#define QM_RUNTIME_QMIOCLIENTSOCKET_H

#include <string>

#include "QmioSocket.h"

// Outgoing connection: resolves a host and connects to it. The remote
// address, and so the path of its exceptions, is "host:port".
class QmioClientSocket : public QmioSocket {
 public:
  QmioClientSocket() = default;
  ~QmioClientSocket() override;

  void Close() override;
  // Blocking connect; returns the connect result (0).
  int Connect(const std::string& host, int port, SocketType type);
};

#endif
