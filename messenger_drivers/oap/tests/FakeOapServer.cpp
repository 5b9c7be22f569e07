#include "FakeOapServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace {

// Every wait of the server is bounded by this.
const int kConnectionLimitMs = 5000;
const int kPollSliceMs = 50;
const int kSplitPauseMs = 300;
const char kRequestEnd[] = "</OAP-request>";

using Clock = std::chrono::steady_clock;

int MillisLeft(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Waits for the descriptor to become readable; false on time-out or stop.
bool WaitReadable(int fd, Clock::time_point deadline, const std::atomic<bool>& stop) {
  while (!stop.load()) {
    int left = MillisLeft(deadline);
    if (left == 0) return false;
    pollfd entry{fd, POLLIN, 0};
    int ready = poll(&entry, 1, left < kPollSliceMs ? left : kPollSliceMs);
    if (ready > 0) return true;
  }
  return false;
}

void SendAll(int fd, const std::string& text) {
  size_t sent = 0;
  while (sent < text.size()) {
    ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<size_t>(n);
  }
}

}  // namespace

FakeOapServer::FakeOapServer() {
  m_listenFd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (m_listenFd < 0 || bind(m_listenFd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(m_listenFd, 64) != 0 ||
      getsockname(m_listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("fake OAP server cannot listen");
  }
  m_port = ntohs(address.sin_port);
  m_acceptThread = std::thread(&FakeOapServer::AcceptLoop, this);
}

FakeOapServer::~FakeOapServer() {
  m_stop.store(true);
  m_acceptThread.join();
  for (std::thread& worker : m_workers) worker.join();
  close(m_listenFd);
}

void FakeOapServer::Queue(const Reply& reply) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_script.push_back(reply);
}

void FakeOapServer::SetResponder(Responder responder) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_responder = std::move(responder);
}

std::vector<std::string> FakeOapServer::Requests() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_requests;
}

bool FakeOapServer::WaitForRequests(size_t count, int timeoutMs) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return m_requests.size() >= count; });
}

void FakeOapServer::AcceptLoop() {
  while (!m_stop.load()) {
    pollfd entry{m_listenFd, POLLIN, 0};
    if (poll(&entry, 1, kPollSliceMs) <= 0) continue;
    int fd = accept(m_listenFd, nullptr, nullptr);
    if (fd < 0) continue;
    m_workers.emplace_back(&FakeOapServer::Serve, this, fd);
  }
}

FakeOapServer::Reply FakeOapServer::NextReply(const std::string& request) {
  Responder responder;
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_requests.push_back(request);
    m_changed.notify_all();
    if (!m_script.empty()) {
      Reply next = m_script.front();
      m_script.pop_front();
      return next;
    }
    responder = m_responder;
  }
  return responder ? responder(request) : Close();
}

void FakeOapServer::Serve(int fd) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kConnectionLimitMs);
  std::string request;
  char buffer[4096];
  while (request.find(kRequestEnd) == std::string::npos && WaitReadable(fd, deadline, m_stop)) {
    ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    request.append(buffer, static_cast<size_t>(n));
  }
  const Reply reply = NextReply(request);
  switch (reply.kind) {
    case Reply::kAnswer:
      SendAll(fd, reply.first);
      break;
    case Reply::kSplit:
      SendAll(fd, reply.first);
      std::this_thread::sleep_for(std::chrono::milliseconds(kSplitPauseMs));
      SendAll(fd, reply.second);
      break;
    case Reply::kSilent:
      // Until the client gives up and closes (or the time limit).
      while (WaitReadable(fd, deadline, m_stop) && recv(fd, buffer, sizeof buffer, 0) > 0) {
      }
      break;
    case Reply::kClose:
      break;
  }
  // Let the client close first so that it always sees the whole answer.
  shutdown(fd, SHUT_WR);
  while (WaitReadable(fd, deadline, m_stop) && recv(fd, buffer, sizeof buffer, 0) > 0) {
  }
  close(fd);
}
