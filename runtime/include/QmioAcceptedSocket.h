#ifndef QM_RUNTIME_QMIOACCEPTEDSOCKET_H
#define QM_RUNTIME_QMIOACCEPTEDSOCKET_H

#include <string>

#include "QmioSocket.h"

// The socket made for one accepted connection; its remote address is the
// peer's dotted IPv4 address. Owns the descriptor it is given.
class QmioAcceptedSocket : public QmioSocket {
 public:
  QmioAcceptedSocket(int descriptor, const std::string& remoteAddress);
  ~QmioAcceptedSocket() override;
};

#endif
