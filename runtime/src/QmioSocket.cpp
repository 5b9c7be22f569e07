#include "QmioSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "QmString.h"
#include "QmconFunctions.h"
#include "QmioException.h"
#include "QmioSocketEventHandler.h"

namespace {

const char* const kSource = "QmioSocket";
const unsigned char kNoByte = 255;
const int kLineGrowth = 512;
const unsigned int kFormatBufferSize = 4096;
const size_t kTillChunk = 1022;

}  // namespace

int QmPollRestarting(pollfd* entries, unsigned int count, int timeoutMs) {
  if (timeoutMs < -1) timeoutMs = 0;
  if (timeoutMs == -1) {
    int rc;
    do {
      rc = poll(entries, count, -1);
    } while (rc < 0 && errno == EINTR);
    return rc;
  }
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const int rc = poll(entries, count, timeoutMs);
    if (rc >= 0 || errno != EINTR) return rc;
    // Interrupted by a signal: wait on for the time that is left.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    timeoutMs = left.count() > 0 ? static_cast<int>(left.count()) : 0;
  }
}

QmioSocket::QmioSocket() : m_lastActive(time(nullptr)) {}

QmioSocket::~QmioSocket() {
  delete m_handler;
  m_handler = nullptr;
  QmioSocket::Close();
}

void QmioSocket::Close() {
  // The descriptor is forgotten once closed, so that a second Close (or the
  // destructor) cannot close a number another thread has been given since.
  if (m_socket >= 0) close(m_socket);
  m_socket = -1;
}

void QmioSocket::AdoptDescriptor(int fd) {
  Close();
  m_socket = fd;
}

bool QmioSocket::InitialLibrary() {
  return true;
}

bool QmioSocket::CloseLibrary() {
  return true;
}

QmioSocket::SocketStatus QmioSocket::Wait(bool read, bool write, int timeoutMs) {
  if (m_socket < 0) return SOCKET_FAILED;
  pollfd entry{m_socket, static_cast<short>((read ? POLLIN : 0) | (write ? POLLOUT : 0)), 0};
  const int rc = QmPollRestarting(&entry, 1, timeoutMs);
  if (rc < 0) return SOCKET_FAILED;
  if (rc == 0) return SOCKET_TIMEOUT;
  if (entry.revents & POLLNVAL) return SOCKET_FAILED;
  // A hang-up or error makes the socket readable: the read that follows
  // reports the close or the failure.
  if (read && (entry.revents & (POLLIN | POLLHUP | POLLERR))) return SOCKET_READ_READY;
  if (write && (entry.revents & POLLOUT)) return SOCKET_WRITE_READY;
  return SOCKET_FAILED;
}

int QmioSocket::Read(unsigned char* buffer, unsigned int size, int timeoutMs, SocketStatus& status,
                     bool quiet) {
  status = SOCKET_READ_READY;
  // Without a time to wait, a read that would block is the time-out itself.
  const int flags = (timeoutMs == 0 || timeoutMs < -1) ? MSG_DONTWAIT : 0;
  if (timeoutMs > 0) {
    status = Wait(true, false, timeoutMs);
    if (status != SOCKET_READ_READY) return -1;
  }
  ssize_t received;
  do {
    received = recv(m_socket, buffer, size, flags);
  } while (received < 0 && errno == EINTR);
  if (received < 0 && flags != 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
    status = SOCKET_TIMEOUT;
    return -1;
  }
  m_lastActive = time(nullptr);
  if (received < 0) {
    status = SOCKET_FAILED;
    QMIO_THROW(m_remoteAddress, "Socket Read Error");
  }
  if (received == 0) {
    status = SOCKET_FAILED;
    QMIO_THROW(m_remoteAddress, "Socket is closed");
  }
  status = SOCKET_DONE;
  if (m_logger != nullptr && !quiet) {
    QM_LOG(m_logger, Trace, kSource,
           "=> " + QmstringSafeByteString(buffer, static_cast<size_t>(received)));
  }
  return static_cast<int>(received);
}

unsigned char QmioSocket::ReadChar(int timeoutMs, SocketStatus& status, bool quiet) {
  unsigned char byte = 0;
  return Read(&byte, 1, timeoutMs, status, quiet) == 1 ? byte : kNoByte;
}

std::string QmioSocket::ReadLine(int timeoutMs, SocketStatus& status) {
  std::string line;
  for (;;) {
    const unsigned char byte = ReadChar(timeoutMs, status, false);
    if (status == SOCKET_TIMEOUT || status == SOCKET_FAILED) break;
    line.push_back(static_cast<char>(byte));
    if (byte == '\n') break;
  }
  return line;
}

std::string QmioSocket::ReadLine(SocketStatus& status, int maxLength) {
  std::string line;
  status = SOCKET_DONE;
  if (maxLength <= 0) return line;
  size_t reserved = static_cast<size_t>(maxLength);
  line.reserve(reserved);
  for (;;) {
    char byte = 0;
    ssize_t rc;
    do {
      rc = recv(m_socket, &byte, 1, 0);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) {
      status = SOCKET_FAILED;
      break;
    }
    if (rc == 0 || byte == '\n') break;
    if (byte == '\r' || byte == '\0') continue;
    if (line.size() == reserved) {
      reserved += kLineGrowth;
      line.reserve(reserved);
    }
    line.push_back(byte);
  }
  return line;
}

std::string QmioSocket::ReadTill(unsigned char* terminator, int timeoutMs, SocketStatus& status) {
  std::string result;
  status = SOCKET_DONE;
  if (terminator == nullptr || terminator[0] == '\0') return result;
  std::string chunk;
  chunk.reserve(kTillChunk);
  size_t matched = 0;
  while (terminator[matched] != '\0') {
    const unsigned char byte = ReadChar(timeoutMs, status, true);
    if (status == SOCKET_TIMEOUT || status == SOCKET_FAILED) break;
    chunk.push_back(static_cast<char>(byte));
    if (chunk.size() == kTillChunk) {
      result += chunk;
      chunk.clear();
    }
    if (byte == terminator[matched]) {
      ++matched;
    } else {
      matched = (byte == terminator[0]) ? 1 : 0;
    }
  }
  result += chunk;
  if (m_logger != nullptr && !result.empty()) {
    QM_LOG(m_logger, Trace, kSource, "=> " + QmstringSafeByteString(result));
  }
  return result;
}

int QmioSocket::Write(unsigned char* data, unsigned int size) {
  if (m_logger != nullptr && size > 0) {
    QM_LOG(m_logger, Trace, kSource, "<= " + QmstringSafeByteString(data, size));
  }
  m_lastActive = time(nullptr);
  unsigned int sent = 0;
  while (sent < size) {
    // MSG_NOSIGNAL: a peer that went away must not raise SIGPIPE.
    const ssize_t rc = send(m_socket, data + sent, size - sent, MSG_NOSIGNAL);
    if (rc < 0 && errno == EINTR) continue;
    if (rc < 0) QMIO_THROW(m_remoteAddress, "Socket Write Error");
    sent += static_cast<unsigned int>(rc);
  }
  return static_cast<int>(sent);
}

int QmioSocket::Write(const std::string& data) {
  std::string copy(data);
  return Write(reinterpret_cast<unsigned char*>(&copy[0]), static_cast<unsigned int>(copy.size()));
}

int QmioSocket::WriteFormat(const char* format, ...) {
  if (format == nullptr) return 0;
  char buffer[kFormatBufferSize];
  std::memset(buffer, 0, sizeof(buffer));
  va_list args;
  va_start(args, format);
  const int formatted = vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  if (formatted <= 0) return 0;
  const unsigned int length =
      formatted < static_cast<int>(kFormatBufferSize) ? formatted : kFormatBufferSize - 1;
  return Write(reinterpret_cast<unsigned char*>(buffer), length);
}

bool QmioSocket::SetNonBlockingMode() {
  return fcntl(m_socket, F_SETFL, O_NONBLOCK) == 0;
}

int QmioSocket::QmAsciiToPort(char* service, char* protocol) {
  servent entry;
  servent* found = nullptr;
  char scratch[1024];
  if (getservbyname_r(service, protocol, &entry, scratch, sizeof(scratch), &found) != 0 ||
      found == nullptr) {
    return -1;
  }
  return ntohs(static_cast<uint16_t>(found->s_port));
}

int QmioSocket::GetErrorCode() {
  return errno;
}

bool QmioSocket::SetEventHandler(QmioSocketEventHandler* handler) {
  if (m_handler != nullptr) return false;
  m_handler = handler;
  return true;
}

bool QmioSocket::ResolveHost(const std::string& host, uint32_t& address) {
  // A dotted address needs no resolver (whose configuration glibc reloads
  // under a lock of its own, and which may be slow).
  in_addr dotted{};
  if (inet_pton(AF_INET, host.c_str(), &dotted) == 1) {
    address = dotted.s_addr;
    return true;
  }
  hostent entry;
  hostent* found = nullptr;
  int hostError = 0;
  std::vector<char> scratch(2048);
  for (;;) {
    const int rc =
        gethostbyname_r(host.c_str(), &entry, scratch.data(), scratch.size(), &found, &hostError);
    if (rc != ERANGE) break;
    scratch.resize(scratch.size() * 2);
  }
  if (found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr) {
    return false;
  }
  std::memcpy(&address, found->h_addr_list[0], sizeof(address));
  return true;
}
