#ifndef QM_RUNTIME_TESTS_NET_TEST_SUPPORT_H
#define QM_RUNTIME_TESTS_NET_TEST_SUPPORT_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "QmconFunctions.h"
#include "QmioException.h"
#include "log_test_util.h"
#include "test_support.h"

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
