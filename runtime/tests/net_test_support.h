#ifndef QM_RUNTIME_TESTS_NET_TEST_SUPPORT_H
#define QM_RUNTIME_TESTS_NET_TEST_SUPPORT_H

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "QmLogInterface.h"

// Logger that keeps every line with its level, safe for several threads.
class RecordingLogger : public QmLogInterface {
 public:
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
  void EnableThreadIdPrefix(bool) override {}
  LogLevel GetLogLevel() override {
    return LEVEL_TRACE;
  }
  std::string GetLoggerName() override {
    return "recording";
  }

  // Lines containing `text`, at `level` (LEVEL_NONE: at any level).
  int Count(LogLevel level, const std::string& text) const;

 private:
  bool Add(LogLevel level, const std::string& msg);

  mutable std::mutex m_mutex;
  std::vector<std::pair<LogLevel, std::string>> m_lines;
};

// Polls `done` every few milliseconds until it holds or `limitMs` passes.
bool WaitUntil(const std::function<bool()>& done, int limitMs);
long ElapsedMs(std::chrono::steady_clock::time_point start);

// A plain loopback client, independent of the classes under test.
class RawClient {
 public:
  explicit RawClient(int port);  // connects to 127.0.0.1:port
  ~RawClient();
  bool Connected() const { return m_fd >= 0; }
  bool Send(const std::string& data);
  // Up to `size` bytes within the limit; "" on time-out or end of stream.
  std::string Receive(size_t size, int limitMs);
  // True when the peer closes within the limit.
  bool SeesClose(int limitMs);
  void Close();

 private:
  int m_fd = -1;
};

#endif
