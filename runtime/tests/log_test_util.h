#ifndef QM_RUNTIME_TESTS_LOG_TEST_UTIL_H
#define QM_RUNTIME_TESTS_LOG_TEST_UTIL_H

#include <stdlib.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "QmException.h"
#include "QmsysSystemLog.h"

// A fresh directory under /tmp, removed with its contents at scope end.
struct LogTempDir {
  LogTempDir() {
    char pattern[] = "/tmp/qmlogtest.XXXXXX";
    dir = mkdtemp(pattern) != nullptr ? pattern : "";
  }
  ~LogTempDir() { std::filesystem::remove_all(dir, ignored); }
  const std::string& path() const { return dir; }
  std::string file(const std::string& name) const { return dir + "/" + name; }
  std::string dir;
  std::error_code ignored;
};

inline std::string LogReadFile(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline std::vector<std::string> LogReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

inline void LogWriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline bool LogFileExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// How many entries a folder holds, e.g. /proc/self/fd or /proc/self/task.
inline long FolderEntries(const std::string& folder) {
  const std::filesystem::directory_iterator entries(folder);
  return std::distance(begin(entries), end(entries));
}

// The local time stamp that starts every logged line: "%m/%d/%Y %H:%M:%S".
const char* const kLogStamp = R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d)";

inline std::string LogStampOf(time_t time) {
  struct tm local {};
  char text[32];
  strftime(text, sizeof(text), "%m/%d/%Y %H:%M:%S", localtime_r(&time, &local));
  return text;
}

// True when `line` is a time stamp, a space and then matches `rest`.
inline bool LogLineMatches(const std::string& line, const std::string& rest) {
  return std::regex_match(line, std::regex(std::string(kLogStamp) + " " + rest));
}

// What `call` throws as an E: a thrown text, or an exception's message (and
// for I/O exceptions its path); "<nothing thrown>" when it returns.
inline std::string ThrownText(const char* text) {
  return text;
}
inline std::string ThrownText(const QmException& e) {
  return e.GetMsg();
}
template <typename E, typename Call>
std::string Thrown(Call call) {
  try {
    call();
  } catch (const E& e) {
    return ThrownText(e);
  }
  return "<nothing thrown>";
}

// Collects what the logging classes send to the system log while alive.
class SystemLogCapture {
 public:
  SystemLogCapture() {
    std::lock_guard<std::mutex> lock(s_mutex);
    s_entries.clear();
    QmsysSystemLog::SetListener(&Record);
  }
  ~SystemLogCapture() { QmsysSystemLog::SetListener(nullptr); }
  // Entries from `function` that contain `text`.
  size_t count(const std::string& function, const std::string& text) const {
    std::lock_guard<std::mutex> lock(s_mutex);
    size_t found = 0;
    for (const auto& e : s_entries)
      found += e.first == function && e.second.find(text) != std::string::npos;
    return found;
  }
  bool contains(const std::string& function, const std::string& text) const {
    return count(function, text) > 0;
  }

 private:
  static void Record(const std::string& function, QmsysSystemLog::Category,
                     const std::string& text) {
    std::lock_guard<std::mutex> lock(s_mutex);
    s_entries.emplace_back(function, text);
  }
  static inline std::mutex s_mutex;
  static inline std::vector<std::pair<std::string, std::string>> s_entries;
};

#endif
