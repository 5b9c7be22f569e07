// The logging configuration file: the documented examples as written, and
// its maintenance (removing a module's logger, pointing a module at another
// logger).
#include <sys/stat.h>

#include <set>

#include <gtest/gtest.h>

#include "IniReaderWriter.h"
#include "QmLogSQLiteProcessor.h"
#include "QmsysEventLogInterface.h"
#include "log_test_util.h"

namespace {

using Logger = QmsysEventLogInterface;

class LoggerConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogWriteFile(Logger::getConfigFileName(dir()),
                 "[main]\nmodA=shared\nmodB=shared\nmodC=own\n[shared]\nwriter=file\nlevel=debug\n"
                 "[own]\nwriter=file\nlevel=error\n[common]\nwriter=file\nlevel=warn\n");
  }
  const std::string& dir() const { return m_dir.path(); }
  bool has(const std::string& head) const {
    return IniReaderWriter(Logger::getConfigFileName(dir()), true, false, false)
        .isHeadPresent(head);
  }
  std::string level(const std::string& module) const {
    return Logger::getModuleAttributeValues(dir(), module, "level");
  }
  LogTempDir m_dir;
};

// Deleting a module's logger keeps the sections other modules still use;
// repointing a module creates the section it names when there is none.
TEST_F(LoggerConfigTest, DeleteAndRepointEditOnlyWhatTheyMust) {
  ASSERT_TRUE(Logger::updateLoggerName(dir(), "modA", "own"));
  EXPECT_EQ("error", level("modA"));
  ASSERT_TRUE(Logger::deleteLogger(dir(), "modA"));
  EXPECT_TRUE(has("[own]") && level("modA") == "warn");  // modC's; modA falls back to "[common]"
  ASSERT_TRUE(Logger::deleteLogger(dir(), "modB"));
  EXPECT_TRUE(!has("[shared]") && has("[common]"));
  ASSERT_TRUE(Logger::updateLoggerName(dir(), "modD", "fresh_logger"));
  EXPECT_EQ("info", level("modD"));
  SystemLogCapture capture;  // edits of a missing file fail
  EXPECT_FALSE(Logger::deleteLogger(m_dir.file("none"), "modA"));
  EXPECT_TRUE(capture.contains("QmsysEventLogInterface::deleteLogger", "qmlogs.ini"));
}

// The first "ini" block of README's logging section.
std::string ReadmeExample() {
  const std::string readme = LogReadFile(QM_SOURCE_DIR "/README.md");
  const size_t section = readme.find("\n## Logging");
  const size_t begin = readme.find("```ini\n", section);
  const size_t end = readme.find("```\n", begin + 7);
  EXPECT_TRUE(section != std::string::npos && begin != std::string::npos &&
              end != std::string::npos);
  return readme.substr(begin + 7, end - begin - 7);
}

// README's example and the shipped sample, copied as they are into a work
// folder's configuration: qmhost's lines reach the database, another
// module's the common file, and nothing else appears.
TEST(LoggingExamples, WorkWhenCopiedAsTheyAre) {
  const std::string examples[] = {ReadmeExample(),
                                  LogReadFile(QM_SOURCE_DIR "/config/qmlogs.ini.sample")};
  for (const std::string& example : examples) {
    LogTempDir work;
    ASSERT_EQ(0, mkdir(work.file("config").c_str(), 0775));
    LogWriteFile(work.file("config/qmlogs.ini"), example);
    Logger* host =
        Logger::CreateInstance("qmhost", Logger::SINGLE_THREADED, work.file("config"), "qmhost");
    Logger* other =
        Logger::CreateInstance("other", Logger::MULTI_THREADED, work.file("config"), "other");
    ASSERT_TRUE(host != nullptr && host->Start() && other != nullptr && other->Start());
    EXPECT_TRUE(host->WriteDebug("host line", 1, "t") && !host->WriteTrace("below", 1, "t"));
    EXPECT_TRUE(other->WriteWarn("other line", 1, "t") && !other->WriteInfo("below", 1, "t"));
    Logger::ReleaseAll();
    {
      QmLogSQLiteProcessor db(work.file("logs/qmhost_logger.db"), true,
                              QmLogSQLiteProcessor::READ_ONLY);
      QmLogDBProcessorInterface::EntrySet rows;
      ASSERT_TRUE(db.readLogRecord(rows, "qmhost", std::string()));
      ASSERT_EQ(1u, rows.size());
      EXPECT_EQ("host line", rows[0].message);
    }
    const auto lines = LogReadLines(work.file("logs/common_logs.txt"));
    EXPECT_TRUE(lines.size() == 1u && LogLineMatches(lines[0], R"(other \[WARN\] other line)"));
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(work.file("logs"))) {
      const std::string name = entry.path().filename();
      if (name.find(".db-") == std::string::npos) files.insert(name);  // not the -wal, -shm files
    }
    EXPECT_EQ(
        (std::set<std::string>{"common_logs.txt", "common_logs.txt.lock", "qmhost_logger.db"}),
        files);
  }
}

}  // namespace
