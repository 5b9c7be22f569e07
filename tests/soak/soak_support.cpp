#include "soak_support.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <fstream>
#include <utility>

#include "../../runtime/tests/log_test_util.h"

namespace {

// Waits for data or the peer's close until the deadline.
bool WaitReadable(int fd, Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  pollfd entry{fd, POLLIN, 0};
  return left.count() > 0 && poll(&entry, 1, static_cast<int>(left.count())) > 0;
}

// Reads and drops everything until the peer closes (or the deadline).
void DrainUntilClosed(int fd, Clock::time_point deadline) {
  char sink[1024];
  while (WaitReadable(fd, deadline) && recv(fd, sink, sizeof sink, 0) > 0) {
  }
}

}  // namespace

Pusher::Pusher(int threads, const Push& push) {
  for (int t = 0; t < threads; ++t) {
    m_threads.emplace_back([this, push] {
      std::unique_lock<std::mutex> lock(m_mutex);
      for (;;) {
        m_changed.wait(lock, [&] { return m_closing || !m_documents.empty(); });
        if (m_documents.empty()) return;
        const std::string document = std::move(m_documents.front());
        m_documents.pop_front();
        lock.unlock();
        push(document);
        lock.lock();
        ++m_pushed;
        m_changed.notify_all();
      }
    });
  }
}

void Pusher::Add(std::string document) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_documents.push_back(std::move(document));
  m_changed.notify_all();
}

size_t Pusher::AwaitPushed(size_t count, int seconds) {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait_for(lock, std::chrono::seconds(seconds), [&] { return m_pushed >= count; });
  return m_pushed;
}

void Pusher::Stop(bool drop) {
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_closing = true;
    if (drop) m_documents.clear();
  }
  m_changed.notify_all();
  for (std::thread& thread : m_threads) thread.join();
  m_threads.clear();
}

LoopbackOapServer::LoopbackOapServer() : m_listenFd(socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address = FakeOapServer::Loopback(0);
  socklen_t length = sizeof address;
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  if (bind(m_listenFd, raw, length) != 0 || listen(m_listenFd, 128) != 0 ||
      getsockname(m_listenFd, raw, &length) != 0) {
    return;  // no port: the tests' sends fail
  }
  m_port = ntohs(address.sin_port);
  // Several threads wait on it: the one that loses the race for a
  // connection must not block in accept.
  fcntl(m_listenFd, F_SETFL, O_NONBLOCK);
  for (int t = 0; t < 8; ++t) m_threads.emplace_back(&LoopbackOapServer::Serve, this);
}

void LoopbackOapServer::Stop() {
  m_stop = true;
  for (std::thread& thread : m_threads) thread.join();
  m_threads.clear();
  close(std::exchange(m_listenFd, -1));  // nothing when already closed
}

std::map<std::string, size_t> LoopbackOapServer::Requests() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_messages;
}

void LoopbackOapServer::Serve() {
  while (!m_stop) {
    pollfd entry{m_listenFd, POLLIN, 0};
    const int fd = poll(&entry, 1, 50) > 0 ? accept(m_listenFd, nullptr, nullptr) : -1;
    if (fd < 0) continue;
    ServeOne(fd);
    close(fd);
  }
}

void LoopbackOapServer::ServeOne(int fd) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
  std::string request;
  char buffer[4096];
  while (request.find("</OAP-request>") == std::string::npos && WaitReadable(fd, deadline)) {
    const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
    if (got <= 0) return;
    request.append(buffer, static_cast<size_t>(got));
  }
  const std::string id = RequestId(request);
  if (m_counting) {
    // A version 4.0 update travels under a fresh id; its envelope names the
    // message it replaces.
    const size_t open = request.find("<Id>") + 4, close = request.find("</Id>");
    const std::string envelope =
        close != std::string::npos ? request.substr(open, close - open) : "";
    std::lock_guard<std::mutex> guard(m_mutex);
    ++m_messages[envelope.empty() ? id : envelope];
  }
  std::string answer = ResponseDoc(id, 1, 200);
  thread_local std::minstd_rand draws(std::random_device{}());
  if (m_garbage) answer = answer.substr(0, 80) + "\x01\x02<<&&>>";
  if (static_cast<int>(draws() % 100) < m_silentShare) {
    DrainUntilClosed(fd, deadline);  // nothing until the driver gives up
  } else {
    send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);  // a few hundred bytes: one write
  }
  shutdown(fd, SHUT_WR);
  DrainUntilClosed(fd, deadline);
}

size_t ThreadCount() {
  return static_cast<size_t>(FolderEntries("/proc/self/task"));
}

size_t DescriptorCount() {
  return static_cast<size_t>(FolderEntries("/proc/self/fd")) - 1;  // the folder read itself
}

long ResidentKiB() {
  std::ifstream status("/proc/self/status");
  std::string word;
  long kib = 0;
  while (status >> word && !(word == "VmRSS:" && status >> kib)) {
  }
  return kib;
}
