#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "LockFile.h"
#include "QmconException.h"
#include "QmsysEventLogFileWriter.h"
#include "log_test_util.h"

namespace {

using Writer = QmsysEventLogWriterInterface;

const char* const kStamp = R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d)";

std::string ExpectedStamp(time_t time) {
  struct tm local {};
  localtime_r(&time, &local);
  char text[96];
  snprintf(text, sizeof(text), "%02d/%02d/%d %02d:%02d:%02d", local.tm_mon + 1, local.tm_mday,
           local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec);
  return text;
}

// A file writer on `path` with the given settings, as the configuration
// file would set them.
void Configure(QmsysEventLogFileWriter& writer, const std::string& path, const char* bytes,
               const char* files, const char* perProcess) {
  writer.setParameter("filePath", path);
  writer.setParameter("bytesPerFiles", bytes);
  writer.setParameter("NUMFILES", files);
  writer.setParameter("perProcessFile", perProcess);
}

TEST(LogLevels, NamesParseWithoutRegardToCase) {
  EXPECT_EQ(Writer::LEVEL_TRACE, Writer::getLogLevel("TRACE", true));
  EXPECT_EQ(Writer::LEVEL_DEBUG, Writer::getLogLevel("debug", true));
  for (const char* info : {"infor", "Info", "INFORMATION"}) {
    EXPECT_EQ(Writer::LEVEL_INFO, Writer::getLogLevel(info, true)) << info;
  }
  for (const char* warn : {"Warning", "WARNI", "warn"}) {
    EXPECT_EQ(Writer::LEVEL_WARN, Writer::getLogLevel(warn, true)) << warn;
  }
  EXPECT_EQ(Writer::LEVEL_ERROR, Writer::getLogLevel("Error", true));
  EXPECT_EQ(Writer::LEVEL_CRITICAL, Writer::getLogLevel("criti", true));
  EXPECT_EQ(Writer::LEVEL_CRITICAL, Writer::getLogLevel("critical", true));
  EXPECT_EQ(Writer::LEVEL_FATAL, Writer::getLogLevel("fatal", true));
}

TEST(LogLevels, UnknownTextIsNoneWhenStrictAndWarnOtherwise) {
  EXPECT_EQ(Writer::LEVEL_NONE, Writer::getLogLevel("verbose", true));
  EXPECT_EQ(Writer::LEVEL_WARN, Writer::getLogLevel("verbose", false));
  EXPECT_EQ(Writer::LEVEL_WARN, Writer::getLogLevel("", false));
  EXPECT_EQ(Writer::LEVEL_WARN, Writer::getLogLevel("warnings", false));
}

TEST(LogLevels, NumbersNamesAndTags) {
  for (int level = 0; level <= 7; ++level) EXPECT_EQ(level, Writer::getLogLevel(level));
  EXPECT_EQ(Writer::LEVEL_INFO, Writer::getLogLevel(9));
  EXPECT_EQ(Writer::LEVEL_INFO, Writer::getLogLevel(-1));
  const char* names[] = {"NONE", "TRACE", "DEBUG", "INFO", "WARN", "ERROR", "CRITICAL", "FATAL"};
  for (int level = 0; level <= 7; ++level) {
    EXPECT_EQ(names[level], Writer::getLogLevelString(level));
    EXPECT_EQ(level == 0 ? std::string() : "[" + std::string(names[level]) + "]",
              Writer::getLevelTag(Writer::getLogLevel(level)));
    EXPECT_EQ(level, Writer::getLogLevelInt(Writer::getLogLevel(level)));
  }
  EXPECT_EQ(QmLogInterface::LEVEL_CRITICAL, static_cast<int>(Writer::LEVEL_CRITICAL));
}

TEST(LogLevels, TimeStampIsLocalTime) {
  std::string text;
  EXPECT_EQ(1700000000, Writer::getTimeStamp(1700000000, &text));
  EXPECT_EQ(ExpectedStamp(1700000000), text);
  const time_t now = Writer::getTimeStamp(0, &text);
  EXPECT_LE(std::abs(now - time(nullptr)), 2);
  EXPECT_TRUE(std::regex_match(text, std::regex(kStamp))) << text;
}

class LogFileWriterTest : public ::testing::Test {
 protected:
  std::string log() const { return m_dir.file("agent.log"); }
  LogTempDir m_dir;
};

TEST_F(LogFileWriterTest, LineWithProcessName) {
  QmsysEventLogFileWriter writer;
  Configure(writer, log(), "100000", "3", "0");
  ASSERT_TRUE(writer.isInitialized());
  ASSERT_TRUE(writer("agent", Writer::LEVEL_INFO, "connected", 10, "a.cpp", 1700000000));
  ASSERT_TRUE(writer("agent", Writer::LEVEL_ERROR, "failed", 11, "a.cpp", 0));
  const auto lines = LogReadLines(log());
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(ExpectedStamp(1700000000) + " agent [INFO] connected", lines[0]);
  EXPECT_TRUE(
      std::regex_match(lines[1], std::regex(std::string(kStamp) + R"( agent \[ERROR\] failed)")))
      << lines[1];
}

TEST_F(LogFileWriterTest, PerProcessFileLeavesNameOut) {
  QmsysEventLogFileWriter writer;
  Configure(writer, log(), "100000", "3", "1");
  ASSERT_TRUE(writer("my agent", Writer::LEVEL_WARN, "hi", 1, "a.cpp", 1700000000));
  EXPECT_EQ(m_dir.file("my_agent.txt"), writer.getTargetFile("my agent"));
  EXPECT_EQ(ExpectedStamp(1700000000) + " [WARN] hi\n", LogReadFile(m_dir.file("my_agent.txt")));
  EXPECT_EQ("", LogReadFile(log()));
}

TEST_F(LogFileWriterTest, AutoAppendLooksAtTrailingWhitespace) {
  QmsysEventLogFileWriter writer;
  Configure(writer, log(), "100000", "3", "1");
  writer("p", Writer::LEVEL_INFO, "a\n  ", 1, "f", 1700000000);
  writer("p", Writer::LEVEL_INFO, "b   ", 1, "f", 1700000000);
  writer("p", Writer::LEVEL_INFO, "c\n", 1, "f", 1700000000);
  writer.setParameter("autoAppend", "0");
  writer("p", Writer::LEVEL_INFO, "d", 1, "f", 1700000000);
  writer("p", Writer::LEVEL_NONE, "e", 1, "f", 1700000000);
  const std::string stamp = ExpectedStamp(1700000000);
  EXPECT_EQ(stamp + " [INFO] a\n  " + stamp + " [INFO] b   \n" + stamp + " [INFO] c\n" + stamp +
                " [INFO] d" + stamp + "  e",
            LogReadFile(m_dir.file("p.txt")));
}

TEST_F(LogFileWriterTest, UninitialisedWriterStaysSilent) {
  QmsysEventLogFileWriter noFiles;
  noFiles.setParameter("filePath", log());
  noFiles.setParameter("bytesPerFiles", "1000");
  EXPECT_FALSE(noFiles.isInitialized());
  EXPECT_FALSE(noFiles("p", Writer::LEVEL_FATAL, "x", 1, "f", 0));

  QmsysEventLogFileWriter zeroBytes;
  Configure(zeroBytes, log(), "0", "3", "0");
  EXPECT_FALSE(zeroBytes.isInitialized());
  EXPECT_FALSE(zeroBytes("p", Writer::LEVEL_FATAL, "x", 1, "f", 0));
  EXPECT_EQ("", LogReadFile(log()));

  SystemLogCapture capture;
  QmsysEventLogFileWriter badPath;
  Configure(badPath, m_dir.file("missing/dir/x.log"), "1000", "3", "0");
  EXPECT_FALSE(badPath.isInitialized());
  EXPECT_TRUE(capture.contains("QmsysEventLogInterface::setFilePath", ""));
}

// Replays the rotation rules on lists of message lines and compares the
// files with the model after every write.
class RotationModel {
 public:
  RotationModel(const std::string& path, size_t bytes, unsigned files)
      : m_path(path), m_bytes(bytes), m_files(files), m_archives(files) {}

  // `line` as Messages() shows it, `bytes` its size in the file.
  void write(const std::string& line, size_t bytes) {
    if (m_liveSize >= m_bytes) {
      m_live.push_back("Archiving " + m_path);
      for (unsigned i = m_files - 1; i >= 1; --i) m_archives[i] = m_archives[i - 1];
      m_archives[0] = m_live;
      m_live.clear();
      m_liveSize = 0;
    }
    m_live.push_back(line);
    m_liveSize += bytes;
  }

  void check() const {
    EXPECT_EQ(m_live, Messages(m_path));
    for (unsigned i = 1; i <= m_files; ++i) {
      EXPECT_EQ(m_archives[i - 1], Messages(m_path + "." + std::to_string(i))) << i;
    }
    EXPECT_FALSE(LogFileExists(m_path + "." + std::to_string(m_files + 1)));
  }

 private:
  // Lines without their time stamp ("Archiving <path>" for rotation notes).
  static std::vector<std::string> Messages(const std::string& path) {
    std::vector<std::string> messages;
    for (const std::string& line : LogReadLines(path)) {
      const size_t archiving = line.find("Archiving ");
      messages.push_back(archiving != std::string::npos ? line.substr(archiving)
                                                        : line.substr(line.find('[')));
    }
    return messages;
  }

  std::string m_path;
  size_t m_bytes;
  unsigned m_files;
  std::vector<std::string> m_live;
  size_t m_liveSize = 0;
  std::vector<std::vector<std::string>> m_archives;
};

TEST_F(LogFileWriterTest, RotationKeepsNumFilesArchivesNewestFirst) {
  for (unsigned files : {3u, 1u}) {
    SCOPED_TRACE(files);
    LogTempDir dir;
    const std::string path = dir.file("rot.log");
    QmsysEventLogFileWriter writer;
    Configure(writer, path, "100", std::to_string(files).c_str(), "0");
    RotationModel model(path, 100, files);
    for (int i = 0; i < 25; ++i) {
      const std::string message = "message number " + std::to_string(i);
      ASSERT_TRUE(writer("p", Writer::LEVEL_INFO, message, 1, "f", 1700000000));
      // Size: stamp (19), " p " (3), "[INFO] " (7), the message, a line feed.
      model.write("[INFO] " + message, 19 + 3 + 7 + message.size() + 1);
      model.check();
    }
  }
}

TEST(LogLockFile, HeldLockFailsAfterItsAttempts) {
  LogTempDir dir;
  const std::string path = dir.file("x.lock");
  {
    LockFile held(path);
    EXPECT_TRUE(LogFileExists(path));
    try {
      LockFile second(path, 3, 1);
      FAIL() << "a held lock was taken twice";
    } catch (const QmconException& e) {
      EXPECT_EQ("LockFile Creation Failed", e.GetMsg());
      EXPECT_EQ("LockFile", e.GetFile());
    }
  }
  LockFile again(path, 3, 1);  // released by the first holder's end
  EXPECT_THROW(LockFile(std::string(), 3, 1), QmconException);
}

// Writes `lines` numbered lines tagged with the process and thread.
void WriteTagged(const std::string& path, int threads, int lines) {
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&path, t, lines] {
      QmsysEventLogFileWriter writer;
      Configure(writer, path, "4096", "1000", "0");
      for (int i = 0; i < lines; ++i) {
        writer("proc", Writer::LEVEL_INFO,
               "P" + std::to_string(getpid()) + "-T" + std::to_string(t) + "-" + std::to_string(i),
               1, "f", 0);
      }
    });
  }
  for (auto& worker : workers) worker.join();
}

TEST_F(LogFileWriterTest, ThreadsAndProcessesShareOneRotatingFile) {
  const int kThreads = 3;
  const int kLines = 150;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    WriteTagged(log(), kThreads, kLines);
    _exit(0);
  }
  WriteTagged(log(), kThreads, kLines);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  // Oldest archive first, live file last.
  std::vector<std::string> files;
  for (int i = 1; LogFileExists(log() + "." + std::to_string(i)); ++i) {
    files.insert(files.begin(), log() + "." + std::to_string(i));
  }
  ASSERT_GT(files.size(), 2u) << "no rotation happened";
  files.push_back(log());

  const std::regex line(std::string(kStamp) + R"( proc \[INFO\] P(\d+)-T(\d+)-(\d+))");
  const std::regex note(std::string(kStamp) + " Archiving " + log());
  std::map<std::string, int> next;  // "pid-thread" -> next expected number
  int total = 0;
  for (const std::string& file : files) {
    for (const std::string& text : LogReadLines(file)) {
      std::smatch match;
      if (std::regex_match(text, note)) continue;
      ASSERT_TRUE(std::regex_match(text, match, line)) << "torn line: " << text;
      const std::string writer = match[1].str() + "-" + match[2].str();
      ASSERT_EQ(next[writer], std::stoi(match[3].str())) << "lost or repeated: " << text;
      ++next[writer];
      ++total;
    }
  }
  EXPECT_EQ(2 * kThreads * kLines, total);
  EXPECT_EQ(static_cast<size_t>(2 * kThreads), next.size());
}

}  // namespace
