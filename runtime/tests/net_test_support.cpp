#include "net_test_support.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "QmconFunctions.h"

namespace {

// Installs the runtime's signal handlers once for the whole test process.
class RuntimeEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { ASSERT_TRUE(InitialLib()); }
};

::testing::Environment* const g_runtime =
    ::testing::AddGlobalTestEnvironment(new RuntimeEnvironment);

}  // namespace

bool RecordingLogger::Add(LogLevel level, const std::string& msg) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.emplace_back(level, msg);
  return true;
}

int RecordingLogger::Count(LogLevel level, const std::string& text) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  int count = 0;
  for (const auto& line : m_lines) {
    if ((level == LEVEL_NONE || line.first == level) && line.second.find(text) != std::string::npos)
      ++count;
  }
  return count;
}

bool WaitUntil(const std::function<bool()>& done, int limitMs) {
  const auto start = std::chrono::steady_clock::now();
  while (!done()) {
    if (ElapsedMs(start) > limitMs) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

long ElapsedMs(std::chrono::steady_clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now() - start)
                               .count());
}

RawClient::RawClient(int port) : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) Close();
}

RawClient::~RawClient() {
  Close();
}

void RawClient::Close() {
  if (m_fd >= 0) close(m_fd);
  m_fd = -1;
}

bool RawClient::Send(const std::string& data) {
  return send(m_fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

std::string RawClient::Receive(size_t size, int limitMs) {
  pollfd p{m_fd, POLLIN, 0};
  if (poll(&p, 1, limitMs) <= 0) return "";
  std::string buffer(size, '\0');
  const ssize_t rc = recv(m_fd, &buffer[0], size, 0);
  return rc > 0 ? buffer.substr(0, static_cast<size_t>(rc)) : "";
}

bool RawClient::SeesClose(int limitMs) {
  const auto start = std::chrono::steady_clock::now();
  for (long left = limitMs; left > 0; left = limitMs - ElapsedMs(start)) {
    pollfd p{m_fd, POLLIN, 0};
    char byte;
    if (poll(&p, 1, static_cast<int>(left)) <= 0) return false;
    if (recv(m_fd, &byte, 1, 0) <= 0) return true;
  }
  return false;
}
