#include "QmioAcceptedSocket.h"

QmioAcceptedSocket::QmioAcceptedSocket(int descriptor, const std::string& remoteAddress) {
  m_socket = descriptor;
  m_remoteAddress = remoteAddress;
}

QmioAcceptedSocket::~QmioAcceptedSocket() = default;
