#ifndef QM_OAP_TESTS_FAKEOAPSERVER_H
#define QM_OAP_TESTS_FAKEOAPSERVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// Documents as the server writes them, spelled out literally.
inline std::string Response3(const std::string& hexId, const std::string& status) {
  return "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<OAP-response version=\"3.0\" id=\"" +
         hexId + "\"><Status service=\"message\">" + status + "</Status></OAP-response>";
}
inline std::string ResponseDoc(const std::string& hexId, int type, int code) {
  return Response3(
      hexId, "<Type>" + std::to_string(type) + "</Type><Code>" + std::to_string(code) + "</Code>");
}
// A version 3.0 answer from a handset: `element` is <DataResp> or <UserResponse>.
inline std::string OptionAnswer(const std::string& hexId, const std::string& element) {
  return Response3(hexId, "<Type>5</Type><Code>200</Code><TypeSpecific><From>1234</From>" +
                              element + "</TypeSpecific>");
}
// A version 4.0 inbound answer: `element` is <Data_response> or <User_response>.
inline std::string Answer4(const std::string& hexId, const std::string& element) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"1\">"
         "<Header/><Body service=\"OA-XML\"><service version=\"1.0\"><Id>" +
         hexId + "</Id><Interactive_Message_Response>" + element +
         "</Interactive_Message_Response></service></Body></OAP-request>";
}
// The id attribute of a request's start tag (lower-case hexadecimal).
inline std::string RequestId(const std::string& request) {
  size_t start = request.find("id=\"", request.find("<OAP-request"));
  if (start == std::string::npos) return "";
  start += 4;
  return request.substr(start, request.find('"', start) - start);
}

// A small OAP server for tests on 127.0.0.1 (ephemeral port), written on raw
// sockets and independent of the model classes. Each connection is served on
// a thread of its own: the server reads one request (up to its closing tag),
// records it and answers with the next scripted reply, else accepts it
// (class 1, code 200, the request's id). Every wait is bounded by five seconds.
class FakeOapServer {
 public:
  // `text` (nothing when empty). The server closes its side after answering,
  // unless it stays silent until the client gives up.
  struct Reply {
    std::string text;
    bool silent = false;
  };
  FakeOapServer() {
    m_listenFd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    if (m_listenFd < 0 || bind(m_listenFd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(m_listenFd, 64) != 0 ||
        getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("fake OAP server cannot listen");
    }
    m_port = ntohs(address.sin_port);
    m_acceptThread = std::thread([this] {
      while (!m_stop) {
        pollfd entry{m_listenFd, POLLIN, 0};
        int fd = poll(&entry, 1, 50) > 0 ? accept(m_listenFd, nullptr, nullptr) : -1;
        if (fd >= 0) m_workers.emplace_back([this, fd] { Serve(fd); });
      }
    });
  }
  ~FakeOapServer() {
    m_stop = true;
    m_acceptThread.join();
    for (std::thread& worker : m_workers) worker.join();
    close(m_listenFd);
  }

  int Port() const { return m_port; }
  void Queue(const Reply& reply) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_script.push_back(reply);
  }
  std::vector<std::string> Requests() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_requests;
  }
  bool WaitForRequests(size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return m_requests.size() >= count; });
  }

  static sockaddr_in Loopback(int port) {
    return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  }

 private:
  // Waits for the descriptor to become readable; false on time-out or stop.
  bool WaitReadable(int fd, std::chrono::steady_clock::time_point deadline) {
    while (!m_stop && std::chrono::steady_clock::now() < deadline) {
      pollfd entry{fd, POLLIN, 0};
      if (poll(&entry, 1, 50) > 0) return true;
    }
    return false;
  }
  void Serve(int fd) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::string request;
    char buffer[4096];
    ssize_t n = 0;
    while (request.find("</OAP-request>") == std::string::npos && WaitReadable(fd, deadline) &&
           (n = recv(fd, buffer, sizeof buffer, 0)) > 0)
      request.append(buffer, static_cast<size_t>(n));
    Reply reply{ResponseDoc(RequestId(request), 1, 200)};
    {
      std::lock_guard<std::mutex> guard(m_mutex);
      m_requests.push_back(request);
      m_changed.notify_all();
      if (!m_script.empty()) {
        reply = m_script.front();
        m_script.pop_front();
      }
    }
    send(fd, reply.text.data(), reply.text.size(), MSG_NOSIGNAL);
    // Let the client close first, so that it always sees the whole answer.
    if (!reply.silent) shutdown(fd, SHUT_WR);
    while (WaitReadable(fd, deadline) && recv(fd, buffer, sizeof buffer, 0) > 0) continue;
    close(fd);
  }

  int m_listenFd = -1;
  int m_port = 0;
  std::atomic<bool> m_stop{false};
  std::thread m_acceptThread;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Reply> m_script;
  std::vector<std::string> m_requests;
  std::vector<std::thread> m_workers;
};

inline std::string Hex(unsigned long value) {
  char text[32];
  std::snprintf(text, sizeof text, "%lx", value);
  return text;
}
// A port on 127.0.0.1 that nothing listens on at the moment.
inline int UnusedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = FakeOapServer::Loopback(0);
  socklen_t length = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), length);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}
// A connection to `port` on 127.0.0.1, not inherited by child processes; -1
// when it cannot be made.
inline int ConnectLoopback(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = FakeOapServer::Loopback(port);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}
inline bool CanConnect(int port) {
  const int fd = ConnectLoopback(port);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

// Plays the OAP server's side of an inbound connection: connects to the
// listener, writes the document, half-closes and waits (at most five
// seconds) until the driver has closed its end, so that the caller knows the
// document was taken. A connection the driver closed before it read anything
// (to make room, while this sender stalled past the grace time) is found
// closed before the write or reset after it; the document then goes again on
// a new connection, as a server would send it, counted in `resent`. False
// when no connection took it.
inline bool SendInbound(int port, const std::string& document, std::atomic<int>* resent = nullptr) {
  for (int attempt = 0; attempt < 10; ++attempt) {
    const int fd = ConnectLoopback(port);
    if (fd < 0) return false;
    // The driver never writes back: readable before the write means closed.
    pollfd entry{fd, POLLIN, 0};
    const bool written = poll(&entry, 1, 0) == 0 &&
                         send(fd, document.data(), document.size(), MSG_NOSIGNAL) ==
                             static_cast<ssize_t>(document.size()) &&
                         shutdown(fd, SHUT_WR) == 0;
    char sink[64];
    const bool closed = written && poll(&entry, 1, 5000) > 0;
    const ssize_t end = closed ? recv(fd, sink, sizeof sink, 0) : -1;
    close(fd);
    // Taken, or no answer from the driver at all (no second try then: the
    // document may have been taken).
    if (end == 0 || (written && !closed)) return end == 0;
    if (resent != nullptr) ++*resent;
  }
  return false;
}

#endif
