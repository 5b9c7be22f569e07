#ifndef QM_OAP_TESTS_ENGINE_TEST_SUPPORT_H
#define QM_OAP_TESTS_ENGINE_TEST_SUPPORT_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "QmLogInterface.h"
#include "inbound_sender.h"

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

#endif
