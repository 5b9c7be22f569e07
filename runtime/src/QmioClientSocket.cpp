#include "QmioClientSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstring>

#include "QmconFunctions.h"
#include "QmioException.h"

namespace {

const int kTcpLevel = 6;         // IPPROTO_TCP
const int kTcpUserTimeout = 18;  // TCP_USER_TIMEOUT
const int kUserTimeoutMs = 10000;
const int kUdpProtocol = 17;
const int kIcmpProtocol = 1;

}  // namespace

QmioClientSocket::~QmioClientSocket() = default;

void QmioClientSocket::Close() {
  QmioSocket::Close();
}

int QmioClientSocket::Connect(const std::string& host, int port, SocketType type) {
  m_remoteAddress = host + ":" + std::to_string(port);
  int fd;
  switch (type) {
    case SOCKET_TCP:
      fd = socket(AF_INET, SOCK_STREAM, 0);
      break;
    case SOCKET_UDP:
      fd = socket(AF_INET, SOCK_DGRAM, kUdpProtocol);
      break;
    case SOCKET_RAW_ICMP:
      fd = socket(AF_INET, SOCK_RAW, kIcmpProtocol);
      break;
    default:
      QMIO_THROW(m_remoteAddress, "Socket Unknown Type");
  }
  if (fd < 0) QMIO_THROW(m_remoteAddress, "Socket Create Failed");
  AdoptDescriptor(fd);

  // Best effort: the user time-out only applies to TCP.
  const int userTimeout = kUserTimeoutMs;
  setsockopt(fd, kTcpLevel, kTcpUserTimeout, &userTimeout, sizeof(userTimeout));
  const int reuse = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));

  uint32_t address = 0;
  if (!ResolveHost(host, address)) QMIO_THROW(m_remoteAddress, "Socket Unknown Remote Host");
  sockaddr_in remote;
  std::memset(&remote, 0, sizeof(remote));
  remote.sin_family = AF_INET;
  remote.sin_port = htons(static_cast<uint16_t>(port));
  remote.sin_addr.s_addr = address;
  const int rc = connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof(remote));
  if (rc < 0) QMIO_THROW(m_remoteAddress, "Socket Connecting Failed");
  return rc;
}
