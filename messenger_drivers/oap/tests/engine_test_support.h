#ifndef QM_OAP_TESTS_ENGINE_TEST_SUPPORT_H
#define QM_OAP_TESTS_ENGINE_TEST_SUPPORT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "QmLogInterface.h"

// A logger that records every line with its level, and lets a test wait
// until a line containing some text has been written a number of times.
class RecordingLogger : public QmLogInterface {
 public:
  struct Line {
    LogLevel level;
    std::string text;
  };

  bool WriteTrace(const std::string& m, int, const char*) override { return Add(LEVEL_TRACE, m); }
  bool WriteDebug(const std::string& m, int, const char*) override { return Add(LEVEL_DEBUG, m); }
  bool WriteInfo(const std::string& m, int, const char*) override { return Add(LEVEL_INFO, m); }
  bool WriteWarn(const std::string& m, int, const char*) override { return Add(LEVEL_WARN, m); }
  bool WriteError(const std::string& m, int, const char*) override { return Add(LEVEL_ERROR, m); }
  bool WriteCritical(const std::string& m, int, const char*) override {
    return Add(LEVEL_CRITICAL, m);
  }
  bool WriteFatal(const std::string& m, int, const char*) override { return Add(LEVEL_FATAL, m); }
  void EnableThreadIdPrefix(bool) override {}
  LogLevel GetLogLevel() override { return LEVEL_TRACE; }
  std::string GetLoggerName() override { return "recording"; }

  // Lines at `level` that contain `part`.
  size_t Count(LogLevel level, const std::string& part) {
    std::lock_guard<std::mutex> guard(m_mutex);
    size_t count = 0;
    for (const Line& line : m_lines) {
      if (line.level == level && line.text.find(part) != std::string::npos) ++count;
    }
    return count;
  }
  bool Has(LogLevel level, const std::string& part) { return Count(level, part) > 0; }
  // Scans each line once, so that waiting on a busy log stays cheap.
  bool WaitFor(LogLevel level, const std::string& part, size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    size_t scanned = 0;
    size_t found = 0;
    return m_added.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
      for (; scanned < m_lines.size(); ++scanned) {
        const Line& line = m_lines[scanned];
        if (line.level == level && line.text.find(part) != std::string::npos) ++found;
      }
      return found >= count;
    });
  }

 private:
  bool Add(LogLevel level, const std::string& text) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_lines.push_back({level, text});
    m_added.notify_all();
    return true;
  }

  std::mutex m_mutex;
  std::condition_variable m_added;
  std::vector<Line> m_lines;
};

// Plays the OAP server's side of an inbound connection: connects to the
// listener on 127.0.0.1, writes the document and closes. False when the
// connection could not be made.
inline bool SendInbound(int port, const std::string& document) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            send(fd, document.data(), document.size(), MSG_NOSIGNAL) ==
                static_cast<ssize_t>(document.size());
  close(fd);
  return ok;
}

#endif
