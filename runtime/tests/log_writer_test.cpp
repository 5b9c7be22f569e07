#include <unistd.h>

#include <map>

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

TEST(LogFileWriter, IncompleteOrOutOfRangeSettings) {
  LogTempDir dir;
  LogWriteFile(dir.file("plain"), "");  // a file where a directory would have to be
  SystemLogCapture capture;
  const std::string path = dir.file("x.log");
  // Settings; whether the writer works; what the system log must then hold.
  const struct {
    std::map<std::string, std::string> settings;
    bool works;
    const char* logged;
  } cases[] = {
      {{{"filePath", path}, {"bytesPerFiles", "2048"}}, false, ""},
      {{{"filePath", path}, {"bytesPerFiles", "0"}, {"numFiles", "3"}}, false, ""},
      {{{"filePath", dir.file("plain/x.log")}, {"bytesPerFiles", "1024"}, {"numFiles", "3"}},
       false,
       "Can Not Create Log Directory"},
      {{{"filePath", path}, {"bytesPerFiles", "100"}, {"numFiles", "3"}},
       true,
       "bytesPerFiles (at least 1024) is out of range; using 204800"},
      {{{"filePath", path}, {"bytesPerFiles", "1024"}, {"numFiles", "-1"}},
       true,
       "numFiles (1 to 1000) is out of range; using 20"},
      {{{"filePath", path}, {"bytesPerFiles", "2k"}, {"numFiles", "1001"}}, true, ""}};
  for (const auto& c : cases) {
    QmsysEventLogFileWriter writer;
    for (const auto& entry : c.settings) writer.setParameter(entry.first, entry.second);
    EXPECT_TRUE(c.works == writer.isInitialized() &&
                c.works == writer("p", Writer::LEVEL_FATAL, "x", 1, "f", 0))
        << c.logged;
    const char* source =
        c.works ? "QmsysEventLogFileWriter::setParameter" : "QmsysEventLogInterface::setFilePath";
    EXPECT_TRUE(!*c.logged || capture.contains(source, c.logged)) << c.logged;
  }
  // A bytesPerFiles of 100 fell back to the default: three lines, no rotation.
  EXPECT_TRUE(LogReadLines(dir.file("p.txt")).size() == 3u && !LogFileExists(dir.file("p.txt.1")));
}

// Storage faults: each failing line returns false; the system log gets the
// reason, once per text. A lock file that cannot be made fails at once.
TEST(LogFileWriter, FaultsAreReportedOncePerText) {
  LogTempDir dir;
  ASSERT_EQ(0, symlink("/dev/full", dir.file("full.log").c_str()));
  SystemLogCapture capture;
  QmsysEventLogFileWriter full;
  Configure(full, dir.file("full.log"), "1024", "3", "0");
  ASSERT_TRUE(full.isInitialized());
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(full("p", Writer::LEVEL_INFO, "lost", 1, "f", 0));
  EXPECT_EQ(1u, capture.count("QmsysEventLogFileWriter::DoWork", "No space left on device"));

  QmsysEventLogFileWriter gone;
  Configure(gone, dir.file("sub/x.log"), "1024", "3", "0");
  std::filesystem::remove_all(dir.file("sub"));  // the directory vanished after configuration
  EXPECT_FALSE(gone("p", Writer::LEVEL_INFO, "x", 1, "f", 0));
  EXPECT_EQ(1u, capture.count("QmsysEventLogFileWriter::DoWork",
                              "LockFile Creation Failed] SysMsg[No such file or directory"));
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
    Configure(writer, path, "1024", std::to_string(files).c_str(), "0");
    // Replays the rules: [0] is the live file, [i] archive i.
    std::vector<std::vector<std::string>> model(files + 1);
    size_t liveSize = 0;
    for (int i = 0; i < 25; ++i) {
      const std::string message = std::string(500, '.') + "message number " + std::to_string(i);
      ASSERT_TRUE(writer("p", Writer::LEVEL_INFO, message, 1, "f", kTime));
      if (liveSize >= 1024) {  // tested before the line; two lines reach it
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
  // Also when the lock file got descriptor 0, as in a host without stdin.
  const int stdinCopy = dup(0);
  close(0);
  { LockFile held(dir.file("x.lock")); }
  EXPECT_EQ("<nothing thrown>", Thrown<QmconException>(lockAgain));
  dup2(stdinCopy, 0);
  close(stdinCopy);
}

}  // namespace
