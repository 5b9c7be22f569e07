#ifndef QM_RUNTIME_TESTS_TEST_SUPPORT_H
#define QM_RUNTIME_TESTS_TEST_SUPPORT_H

// What the runtime, driver, soak and tool tests share: a logger that records
// what it is given, and a bounded wait for states nothing signals.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "QmLogInterface.h"

// A logger that records every line with its level and source name, safe for
// several threads, and lets a test wait until some line was written.
class RecordingLogger : public QmLogInterface {
 public:
  void EnableThreadIdPrefix(bool) override {}
  LogLevel GetLogLevel() override { return LEVEL_TRACE; }
  std::string GetLoggerName() override { return "recording"; }

  // Lines at `level` (LEVEL_NONE: at any level) that contain `part` (that
  // are exactly `part` if `whole`).
  size_t Count(LogLevel level, const std::string& part, bool whole = false) {
    std::lock_guard<std::mutex> guard(m_mutex);
    size_t count = 0;
    for (const Line& line : m_lines) count += Matches(line, level, part, whole) ? 1 : 0;
    return count;
  }
  bool Has(LogLevel level, const std::string& part) { return Count(level, part) > 0; }
  // Every line written from the given source name, in order.
  std::vector<std::string> TextsFrom(const std::string& file) {
    std::lock_guard<std::mutex> guard(m_mutex);
    std::vector<std::string> texts;
    for (const Line& line : m_lines) {
      if (line.file == file) texts.push_back(line.text);
    }
    return texts;
  }
  // Scans each line once, so that waiting on a busy log stays cheap.
  bool WaitFor(LogLevel level, const std::string& part, size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    size_t scanned = 0, found = 0;
    return m_added.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
      for (; scanned < m_lines.size(); ++scanned) {
        found += Matches(m_lines[scanned], level, part, false) ? 1 : 0;
      }
      return found >= count;
    });
  }

#define QM_RECORDING_WRITE(Name, Level)                          \
  bool Name(const std::string& m, int, const char* f) override { \
    return Add(Level, m, f);                                     \
  }
  QM_RECORDING_WRITE(WriteTrace, LEVEL_TRACE)
  QM_RECORDING_WRITE(WriteDebug, LEVEL_DEBUG)
  QM_RECORDING_WRITE(WriteInfo, LEVEL_INFO)
  QM_RECORDING_WRITE(WriteWarn, LEVEL_WARN)
  QM_RECORDING_WRITE(WriteError, LEVEL_ERROR)
  QM_RECORDING_WRITE(WriteCritical, LEVEL_CRITICAL)
  QM_RECORDING_WRITE(WriteFatal, LEVEL_FATAL)
#undef QM_RECORDING_WRITE

 private:
  struct Line {
    LogLevel level;
    std::string text, file;
  };
  static bool Matches(const Line& line, LogLevel level, const std::string& part, bool whole) {
    return (level == LEVEL_NONE || line.level == level) &&
           (whole ? line.text == part : line.text.find(part) != std::string::npos);
  }
  bool Add(LogLevel level, const std::string& text, const char* file) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_lines.push_back({level, text, file != nullptr ? file : ""});
    m_added.notify_all();
    return true;
  }

  std::mutex m_mutex;
  std::condition_variable m_added;
  std::vector<Line> m_lines;
};

// Polls `done` every few milliseconds until it holds or `limitMs` passes,
// for states nothing signals.
inline bool WaitUntil(const std::function<bool()>& done, int limitMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(5)))
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}

#endif
