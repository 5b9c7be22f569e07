#include "QmioServerSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
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

bool IsResourceOrSocketError(int error) {
  switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
    case EBADF:
    case EINVAL:
    case ENOTSOCK:
    case EOPNOTSUPP:
      return true;
    default:
      return false;
  }
}

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

  // A restart binds again at once, even while connections the listener
  // closed itself still wait out their time on this port.
  const int reuse = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
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
  if (timeoutMs != -1) {
    pollfd entry{fd, POLLIN, 0};
    const int rc = QmPollRestarting(&entry, 1, timeoutMs);
    if (rc == 0) return nullptr;
    if (rc < 0 || (entry.revents & POLLNVAL)) {
      if (m_socket.load() < 0) return nullptr;  // shut down by another thread meanwhile
      QMIO_THROW(m_hostName, "Socket Select Failed");
    }
  }
  return DoAccept(fd);
}

QmioAcceptedSocket* QmioServerSocket::DoAccept(int descriptor) {
  sockaddr_in peer;
  socklen_t peerLength = sizeof(peer);
  std::memset(&peer, 0, sizeof(peer));
  int fd;
  do {
    fd = accept4(descriptor, reinterpret_cast<sockaddr*>(&peer), &peerLength, SOCK_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    // A peer that gave up before it was taken, or a socket shut down
    // meanwhile, yields nothing; running out of descriptors or memory, or a
    // socket that no longer listens, is a failure the caller must see
    // (the listening socket stays readable, so it would come back at once).
    if (m_socket.load() < 0 || !IsResourceOrSocketError(errno)) return nullptr;
    QMIO_THROW(m_hostName, "Socket Accept Failed");
  }
  char text[INET_ADDRSTRLEN] = {0};
  inet_ntop(AF_INET, &peer.sin_addr, text, sizeof(text));
  QmioAcceptedSocket* accepted = new QmioAcceptedSocket(fd, text);
  if (m_handler != nullptr) {
    m_handler->OnSocketEvent(accepted, QmioSocketEventHandler::EVENT_ACCEPTED, this);
  }
  return accepted;
}

bool QmioServerSocket::IsListening() const {
  const int fd = m_socket.load();
  int listening = 0;
  socklen_t length = sizeof(listening);
  return fd >= 0 && getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 &&
         listening != 0;
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
