#ifndef QM_RUNTIME_TESTS_LOG_TEST_UTIL_H
#define QM_RUNTIME_TESTS_LOG_TEST_UTIL_H

#include <ftw.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "QmsysSystemLog.h"

// A fresh directory under /tmp, removed with its contents at scope end.
class LogTempDir {
 public:
  LogTempDir() {
    char pattern[] = "/tmp/qmlogtest.XXXXXX";
    const char* made = mkdtemp(pattern);
    m_path = made != nullptr ? made : "";
  }
  ~LogTempDir() {
    if (!m_path.empty()) nftw(m_path.c_str(), &RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
  }
  const std::string& path() const { return m_path; }
  std::string file(const std::string& name) const { return m_path + "/" + name; }

 private:
  static int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
  }
  std::string m_path;
};

inline std::string LogReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::vector<std::string> LogReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

inline void LogWriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

inline bool LogFileExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// Collects what the logging classes send to the system log while alive.
class SystemLogCapture {
 public:
  SystemLogCapture() {
    std::lock_guard<std::mutex> lock(Mutex());
    Entries().clear();
    QmsysSystemLog::SetListener(&Record);
  }
  ~SystemLogCapture() { QmsysSystemLog::SetListener(nullptr); }

  // True when an entry from `function` contains `text`.
  bool contains(const std::string& function, const std::string& text) const {
    std::lock_guard<std::mutex> lock(Mutex());
    for (const auto& entry : Entries()) {
      if (entry.first == function && entry.second.find(text) != std::string::npos) return true;
    }
    return false;
  }

 private:
  static void Record(const std::string& function, QmsysSystemLog::Category,
                     const std::string& text) {
    std::lock_guard<std::mutex> lock(Mutex());
    Entries().emplace_back(function, text);
  }
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }
  static std::vector<std::pair<std::string, std::string>>& Entries() {
    static std::vector<std::pair<std::string, std::string>> entries;
    return entries;
  }
};

#endif
