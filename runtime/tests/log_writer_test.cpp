#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <thread>

#include <gtest/gtest.h>

#include "LockFile.h"
#include "QmconException.h"
#include "QmsysEventLogFileWriter.h"
#include "log_test_util.h"

// A concurrency exception reads as its message and source file (see Thrown).
inline std::string ThrownText(const QmconException& e) {
  return e.GetMsg() + " @ " + e.GetFile();
}

namespace {

using Writer = QmsysEventLogWriterInterface;
const time_t kTime = 1700000000;

// A file writer on `path` with the given settings, as the configuration
// file would set them.
void Configure(QmsysEventLogFileWriter& writer, const std::string& path, const char* bytes,
               const char* files, const char* perProcess) {
  writer.setParameter("filePath", path);
  writer.setParameter("bytesPerFiles", bytes);
  writer.setParameter("NUMFILES", files);
  writer.setParameter("perProcessFile", perProcess);
}

TEST(LogLevels, NamesAndTags) {
  // Spellings that strict parsing accepts for each level; unknown text is NONE.
  const char* spellings[] = {
      "verbose", "TRACE",          "debug", "infor|Info|INFORMATION", "Warning|WARNI|warn",
      "Error",   "criti|critical", "fatal"};
  const char* tags[] = {"NONE", "TRACE", "DEBUG", "INFO", "WARN", "ERROR", "CRITICAL", "FATAL"};
  for (int level = 0; level <= 7; ++level) {
    std::istringstream names(spellings[level]);
    for (std::string name; std::getline(names, name, '|');)
      EXPECT_EQ(level, Writer::getLogLevel(name, true)) << name;
    EXPECT_EQ(tags[level], Writer::getLogLevelString(level));
  }
  for (const char* text : {"verbose", "", "warnings"})
    EXPECT_EQ(Writer::LEVEL_WARN, Writer::getLogLevel(text, false)) << text;
  for (int outOfRange : {9, -1}) EXPECT_EQ(Writer::LEVEL_INFO, Writer::getLogLevel(outOfRange));
}

TEST(LogFileWriter, LineLayoutAndLineFeeds) {
  const std::string s = LogStampOf(kTime);
  const struct {
    const char *perProcess, *autoAppend, *process;
    Writer::LogLevel level;
    const char *message, *file;
    std::string text;
  } cases[] = {{"0", "1", "agent", Writer::LEVEL_INFO, "connected", "x.log",
                s + " agent [INFO] connected\n"},
               {"1", "1", "my agent", Writer::LEVEL_WARN, "hi", "my_agent.txt", s + " [WARN] hi\n"},
               {"1", "1", "p", Writer::LEVEL_INFO, "a\n  ", "p.txt", s + " [INFO] a\n  "},
               {"1", "1", "p", Writer::LEVEL_INFO, "b   ", "p.txt", s + " [INFO] b   \n"},
               {"1", "1", "p", Writer::LEVEL_INFO, "c\n", "p.txt", s + " [INFO] c\n"},
               {"1", "0", "p", Writer::LEVEL_INFO, "d", "p.txt", s + " [INFO] d"},
               {"1", "0", "p", Writer::LEVEL_NONE, "e", "p.txt", s + "  e"}};
  for (const auto& c : cases) {
    LogTempDir dir;
    QmsysEventLogFileWriter writer;
    Configure(writer, dir.file("x.log"), "100000", "3", c.perProcess);
    writer.setParameter("autoAppend", c.autoAppend);
    ASSERT_TRUE(writer(c.process, c.level, c.message, 1, "f", kTime));
    EXPECT_EQ(dir.file(c.file), writer.getTargetFile(c.process));
    EXPECT_EQ(c.text, LogReadFile(dir.file(c.file))) << c.message;
    EXPECT_EQ(c.perProcess[0] == '1' ? "" : c.text, LogReadFile(dir.file("x.log")));
  }
}

TEST(LogFileWriter, IncompleteSettingsLeaveItSilent) {
  LogTempDir dir;
  SystemLogCapture capture;
  const std::vector<std::map<std::string, std::string>> settings = {
      {{"filePath", dir.file("x.log")}, {"bytesPerFiles", "1000"}},
      {{"filePath", dir.file("x.log")}, {"bytesPerFiles", "0"}, {"numFiles", "3"}},
      {{"filePath", dir.file("no/dir/x.log")}, {"bytesPerFiles", "1000"}, {"numFiles", "3"}}};
  for (const auto& setting : settings) {
    QmsysEventLogFileWriter writer;
    for (const auto& entry : setting) writer.setParameter(entry.first, entry.second);
    EXPECT_FALSE(writer.isInitialized());
    EXPECT_FALSE(writer("p", Writer::LEVEL_FATAL, "x", 1, "f", 0));
  }
  EXPECT_EQ("", LogReadFile(dir.file("x.log")));
  EXPECT_TRUE(capture.contains("QmsysEventLogInterface::setFilePath", ""));
}

// Lines without their time stamp ("Archiving <path>" for rotation notes).
std::vector<std::string> Messages(const std::string& path) {
  std::vector<std::string> messages;
  for (const std::string& line : LogReadLines(path))
    messages.push_back(line.substr(std::min(line.find("Archiving "), line.find('['))));
  return messages;
}

TEST(LogFileWriter, RotationKeepsNumFilesArchivesNewestFirst) {
  for (unsigned files : {3u, 1u}) {
    LogTempDir dir;
    const std::string path = dir.file("rot.log");
    QmsysEventLogFileWriter writer;
    Configure(writer, path, "92", std::to_string(files).c_str(), "0");
    // Replays the rules: [0] is the live file, [i] archive i.
    std::vector<std::vector<std::string>> model(files + 1);
    size_t liveSize = 0;
    for (int i = 0; i < 25; ++i) {
      const std::string message = "message number " + std::to_string(i);
      ASSERT_TRUE(writer("p", Writer::LEVEL_INFO, message, 1, "f", kTime));
      if (liveSize >= 92) {  // tested before the line; two 46-byte lines reach it
        model[0].push_back("Archiving " + path);
        model.insert(model.begin(), std::vector<std::string>());
        model.resize(files + 1);
        liveSize = 0;
      }
      model[0].push_back("[INFO] " + message);
      liveSize += 19 + 3 + 7 + message.size() + 1;  // stamp, " p ", "[INFO] ", line feed
      for (unsigned n = 0; n <= files; ++n)
        EXPECT_EQ(model[n], Messages(n == 0 ? path : path + "." + std::to_string(n)))
            << files << " files, after line " << i << ", file " << n;
      EXPECT_FALSE(LogFileExists(path + "." + std::to_string(files + 1)));
    }
  }
}

TEST(LogLockFile, HeldLockFailsAfterItsAttempts) {
  LogTempDir dir;
  auto lockAgain = [&] { LockFile second(dir.file("x.lock"), 3, 1); };
  {
    LockFile held(dir.file("x.lock"));
    EXPECT_EQ("LockFile Creation Failed @ LockFile", Thrown<QmconException>(lockAgain));
  }
  EXPECT_EQ("<nothing thrown>", Thrown<QmconException>(lockAgain));  // released with its holder
}

TEST(LogFileWriter, ThreadsAndProcessesShareOneRotatingFile) {
  LogTempDir dir;
  const std::string log = dir.file("agent.log");
  const int kThreads = 3, kLines = 150;
  auto writeTagged = [&] {
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t)
      workers.emplace_back([&, t] {
        QmsysEventLogFileWriter writer;
        Configure(writer, log, "4096", "1000", "0");
        const std::string tag = "P" + std::to_string(getpid()) + "-T" + std::to_string(t) + "-";
        for (int i = 0; i < kLines; ++i)
          writer("proc", Writer::LEVEL_INFO, tag + std::to_string(i), 1, "f", 0);
      });
    for (auto& worker : workers) worker.join();
  };
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    writeTagged();
    _exit(0);
  }
  writeTagged();
  int status = 0;
  ASSERT_TRUE(waitpid(child, &status, 0) == child && WIFEXITED(status) && !WEXITSTATUS(status));

  std::vector<std::string> files{log};  // live file last, oldest archive first
  for (int i = 1; LogFileExists(log + "." + std::to_string(i)); ++i)
    files.insert(files.begin(), log + "." + std::to_string(i));
  ASSERT_GT(files.size(), 3u) << "no rotation happened";
  const std::regex line(std::string(kLogStamp) + R"( proc \[INFO\] P(\d+)-T(\d+)-(\d+))");
  std::map<std::string, int> next;  // "pid-thread" -> next expected number
  for (const std::string& file : files) {
    for (const std::string& text : LogReadLines(file)) {
      std::smatch match;
      if (LogLineMatches(text, "Archiving " + log)) continue;
      ASSERT_TRUE(std::regex_match(text, match, line)) << "torn line: " << text;
      ASSERT_EQ(next[match[1].str() + "-" + match[2].str()]++, std::stoi(match[3].str())) << text;
    }
  }
  ASSERT_EQ(static_cast<size_t>(2 * kThreads), next.size());
  for (const auto& writer : next) EXPECT_EQ(kLines, writer.second) << writer.first;
}

}  // namespace
