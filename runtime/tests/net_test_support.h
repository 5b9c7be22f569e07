#ifndef QM_RUNTIME_TESTS_NET_TEST_SUPPORT_H
#define QM_RUNTIME_TESTS_NET_TEST_SUPPORT_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "QmLogInterface.h"
#include "QmconFunctions.h"
#include "QmioException.h"
#include "log_test_util.h"

// An I/O exception reads as its message and path (see Thrown).
inline std::string ThrownText(const QmioException& e) {
  return e.GetMsg() + " @ " + e.GetPath();
}

// Starts the runtime once for the whole test process.
struct RuntimeEnvironment : ::testing::Environment {
  void SetUp() override { ASSERT_TRUE(InitialLib()); }
};
inline ::testing::Environment* const g_runtimeEnvironment =
    ::testing::AddGlobalTestEnvironment(new RuntimeEnvironment);

// Logger that keeps every line with its level, safe for several threads.
class RecordingLogger : public QmLogInterface {
 public:
  void EnableThreadIdPrefix(bool) override {}
  LogLevel GetLogLevel() override { return LEVEL_TRACE; }
  std::string GetLoggerName() override { return "recording"; }
#define QM_RECORD(Name, Level)                                 \
  bool Name(const std::string& m, int, const char*) override { \
    return Add(Level, m);                                      \
  }
  QM_RECORD(WriteTrace, LEVEL_TRACE)
  QM_RECORD(WriteDebug, LEVEL_DEBUG)
  QM_RECORD(WriteInfo, LEVEL_INFO)
  QM_RECORD(WriteWarn, LEVEL_WARN)
  QM_RECORD(WriteError, LEVEL_ERROR)
  QM_RECORD(WriteCritical, LEVEL_CRITICAL)
  QM_RECORD(WriteFatal, LEVEL_FATAL)
#undef QM_RECORD
  // Lines containing `text`, at `level` (LEVEL_NONE: at any level).
  int Count(LogLevel level, const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::count_if(m_lines.begin(), m_lines.end(), [&](const auto& line) {
      return (level == LEVEL_NONE || line.first == level) &&
             line.second.find(text) != std::string::npos;
    });
  }

 private:
  bool Add(LogLevel level, const std::string& msg) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.emplace_back(level, msg);
    return true;
  }
  mutable std::mutex m_mutex;
  std::vector<std::pair<LogLevel, std::string>> m_lines;
};

// Polls `done` every few milliseconds until it holds or `limitMs` passes.
inline bool WaitUntil(const std::function<bool()>& done, int limitMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(5)))
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}

// A plain loopback client, independent of the classes under test.
class RawClient {
 public:
  explicit RawClient(int port) : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) Close();
  }
  ~RawClient() { Close(); }
  bool Connected() const { return m_fd >= 0; }
  void Close() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
  }
  bool Send(const std::string& data) {
    return send(m_fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
  }
  // Up to `size` bytes within the limit; "" on time-out or end of stream.
  std::string Receive(size_t size, int limitMs) {
    pollfd p{m_fd, POLLIN, 0};
    std::string buffer(size, '\0');
    const ssize_t rc = poll(&p, 1, limitMs) > 0 ? recv(m_fd, &buffer[0], size, 0) : 0;
    return buffer.substr(0, rc > 0 ? static_cast<size_t>(rc) : 0);
  }
  // True when the peer closes within the limit.
  bool SeesClose(int limitMs) {
    char byte;
    for (pollfd p{m_fd, POLLIN, 0}; poll(&p, 1, limitMs) > 0;)
      if (recv(m_fd, &byte, 1, 0) <= 0) return true;
    return false;
  }

 private:
  int m_fd = -1;
};

#endif
