#include "QmioServerSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "QmconFunctions.h"
#include "QmioAcceptedSocket.h"
#include "QmioException.h"
#include "QmioSocket.h"
#include "QmioSocketEventHandler.h"

namespace {

const int kBacklog = 128;

}  // namespace

QmioServerSocket::~QmioServerSocket() {
  const int fd = m_socket.exchange(-1);
  if (fd >= 0) close(fd);
}

void QmioServerSocket::Listen(const std::string& host, int port, bool noDelay) {
  sockaddr_in local;
  std::memset(&local, 0, sizeof(local));
  local.sin_family = AF_INET;
  local.sin_port = htons(static_cast<uint16_t>(port));
  if (host.empty()) {
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    m_hostName = "localhost";
  } else {
    uint32_t address = 0;
    if (!QmioSocket::ResolveHost(host, address)) QMIO_THROW(host, "Socket Unknown Host");
    local.sin_addr.s_addr = address;
    m_hostName = host;
  }

  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) QMIO_THROW(m_hostName, "Socket Create Failed");
  const int previous = m_socket.exchange(fd);
  if (previous >= 0) close(previous);

  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) < 0) {
    QMIO_THROW(m_hostName, "Socket Bind Failed");
  }
  if (noDelay) {
    const int on = -1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  if (listen(fd, kBacklog) < 0) QMIO_THROW(m_hostName, "Socket Listen Failed");
}

QmioAcceptedSocket* QmioServerSocket::Accept(int timeoutMs) {
  const int fd = m_socket.load();
  if (fd < 0) return nullptr;  // shut down
  if (timeoutMs == -1) return DoAccept(fd);
  // select cannot watch descriptors outside its fixed-size sets.
  if (fd >= FD_SETSIZE) QMIO_THROW(m_hostName, "Socket Select Failed");

  fd_set readSet;
  FD_ZERO(&readSet);
  FD_SET(fd, &readSet);
  timeval limit;
  limit.tv_sec = timeoutMs / 1000;
  limit.tv_usec = (timeoutMs % 1000) * 1000;
  const int rc = select(fd + 1, &readSet, nullptr, nullptr, &limit);
  if (rc > 0) return DoAccept(fd);
  if (rc == 0 || errno == EINTR) return nullptr;
  if (m_socket.load() < 0) return nullptr;  // shut down by another thread meanwhile
  QMIO_THROW(m_hostName, "Socket Select Failed");
}

QmioAcceptedSocket* QmioServerSocket::DoAccept(int descriptor) {
  sockaddr_in peer;
  socklen_t peerLength = sizeof(peer);
  std::memset(&peer, 0, sizeof(peer));
  const int fd = accept(descriptor, reinterpret_cast<sockaddr*>(&peer), &peerLength);
  // A failed accept (the socket was shut down meanwhile, or the peer gave up
  // before being taken) yields nothing rather than a socket without descriptor.
  if (fd < 0) return nullptr;
  char text[INET_ADDRSTRLEN] = {0};
  inet_ntop(AF_INET, &peer.sin_addr, text, sizeof(text));
  QmioAcceptedSocket* accepted = new QmioAcceptedSocket(fd, text);
  if (m_handler != nullptr) {
    m_handler->OnSocketEvent(accepted, QmioSocketEventHandler::EVENT_ACCEPTED, this);
  }
  return accepted;
}

bool QmioServerSocket::Shutdown() {
  const int fd = m_socket.exchange(-1);
  if (fd >= 0) {
    shutdown(fd, SHUT_RD);
    close(fd);
  }
  return true;
}

int QmioServerSocket::GetPort() const {
  const int fd = m_socket.load();
  if (fd < 0) return -1;
  sockaddr_in local;
  socklen_t length = sizeof(local);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return -1;
  return ntohs(local.sin_port);
}
