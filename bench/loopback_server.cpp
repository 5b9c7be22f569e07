#include "loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace {

const char kRequestEnd[] = "</OAP-request>";
const int kStopCheckMs = 100;
const int kReadLimit = 2000;
const int kReadTimeoutMs = 2000;
const int kCloseWaitMs = 5000;

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void SetReadTimeout(int fd, int ms) {
  timeval limit{ms / 1000, (ms % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

int Connect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  sockaddr_in address = Loopback(port);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool WriteAll(int fd, const std::string& text) {
  return send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// The id attribute of the document's root element, "" when there is none.
std::string RequestId(const std::string& request) {
  size_t start = request.find("<OAP-request");
  if (start == std::string::npos) return "";
  start = request.find("id=\"", start);
  if (start == std::string::npos) return "";
  start += 4;
  const size_t end = request.find('"', start);
  return end == std::string::npos ? "" : request.substr(start, end - start);
}

}  // namespace

std::string AcceptedResponse(const std::string& hexId) {
  return "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<OAP-response version=\"3.0\" id=\"" +
         hexId +
         "\"><Status service=\"message\"><Type>1</Type><Code>200</Code>"
         "<Text>Message accepted</Text></Status></OAP-response>";
}

LoopbackServer::LoopbackServer(Mode mode, int echoPort, std::string echoRequest)
    : m_mode(mode), m_echoPort(echoPort), m_echoRequest(std::move(echoRequest)) {
  m_listenFd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  if (m_listenFd < 0 ||
      bind(m_listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(m_listenFd, 64) != 0 ||
      getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (m_listenFd >= 0) close(m_listenFd);
    throw std::runtime_error("loopback server cannot listen");
  }
  m_port = ntohs(address.sin_port);
  m_thread = std::thread([this] { Serve(); });
}

LoopbackServer::~LoopbackServer() {
  m_stop = true;
  m_thread.join();
  close(m_listenFd);
}

std::string LoopbackServer::LastDocument() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_last;
}

void LoopbackServer::Serve() {
  while (!m_stop) {
    pollfd waiting{m_listenFd, POLLIN, 0};
    if (poll(&waiting, 1, kStopCheckMs) <= 0) continue;
    const int fd = accept(m_listenFd, nullptr, nullptr);
    if (fd < 0) continue;
    SetReadTimeout(fd, kReadTimeoutMs);
    ServeOne(fd);
    close(fd);
  }
}

void LoopbackServer::ServeOne(int fd) {
  std::string document;
  char buffer[4096];
  while (m_mode == Sink || document.find(kRequestEnd) == std::string::npos) {
    const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
    if (got <= 0) break;
    document.append(buffer, static_cast<size_t>(got));
  }
  // Recorded before the answer goes out: the client may look as soon as it
  // has read the answer.
  const std::string id = RequestId(document);
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_last.swap(document);
  }
  ++m_served;
  if (m_mode == Respond && WriteAll(fd, AcceptedResponse(id))) {
    // The client closes first, so the closed connection waits out its time
    // on the client's side, where a new connect knows about it. Closed here
    // first, thousands of them would linger on the server's side and now and
    // then turn a new connection from a reused port away for a second.
    while (recv(fd, buffer, sizeof buffer, 0) > 0) {
    }
  }
  if (m_mode == Sink && m_echoPort != 0) RawExchange(m_echoPort, m_echoRequest);
}

long RawExchange(int port, const std::string& request) {
  const int fd = Connect(port);
  if (fd < 0) return -1;
  long received = -1;
  if (WriteAll(fd, request)) {
    char buffer[kReadLimit];
    pollfd readable{fd, POLLIN, 0};
    if (poll(&readable, 1, kReadTimeoutMs) > 0) received = recv(fd, buffer, sizeof buffer, 0);
  }
  close(fd);
  return received;
}

bool PushDocument(int port, const std::string& document) {
  const int fd = Connect(port);
  if (fd < 0) return false;
  const bool written = WriteAll(fd, document);
  if (written) {
    shutdown(fd, SHUT_WR);
    char sink[256];
    pollfd closed{fd, POLLIN, 0};
    while (poll(&closed, 1, kCloseWaitMs) > 0 && recv(fd, sink, sizeof sink, 0) > 0) {
    }
  }
  close(fd);
  return written;
}

bool PushShort(int port, const std::string& document) {
  const int fd = Connect(port);
  if (fd < 0) return false;
  const bool written = WriteAll(fd, document);
  close(fd);
  return written;
}

long ResidentBytes() {
  long pages = 0;
  long resident = 0;
  FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr) return -1;
  const bool read = std::fscanf(statm, "%ld %ld", &pages, &resident) == 2;
  std::fclose(statm);
  return read ? resident * sysconf(_SC_PAGESIZE) : -1;
}
