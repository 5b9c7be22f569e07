// Maintenance of the logging configuration file: removing a module's logger
// and pointing a module at another logger.
#include <gtest/gtest.h>

#include "IniReaderWriter.h"
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

TEST_F(LoggerConfigTest, DeleteLoggerKeepsSectionsOthersStillUse) {
  ASSERT_TRUE(Logger::deleteLogger(dir(), "modA"));
  ASSERT_TRUE(Logger::deleteLogger(dir(), "modC"));
  EXPECT_EQ("debug", level("modB"));  // modB still logs through "[shared]"
  EXPECT_FALSE(has("[own]"));
  EXPECT_EQ("warn", level("modA"));  // both now fall back to "[common]"
  EXPECT_EQ("warn", level("modC"));
  ASSERT_TRUE(Logger::deleteLogger(dir(), "modB"));
  EXPECT_FALSE(has("[shared]"));
  EXPECT_TRUE(Logger::deleteLogger(dir(), "unknown"));  // nothing to change
  EXPECT_TRUE(has("[common]"));
}

TEST_F(LoggerConfigTest, UpdateLoggerNameRepointsOrCreatesTheSectionAndMissingFilesFail) {
  ASSERT_TRUE(Logger::updateLoggerName(dir(), "modA", "own"));
  EXPECT_EQ("error", level("modA"));
  ASSERT_TRUE(Logger::updateLoggerName(dir(), "modD", "fresh_logger"));
  EXPECT_EQ("info", level("modD"));
  const std::string logPath = Logger::getModuleAttributeValues(dir(), "modD", "filePath");
  EXPECT_TRUE(LogFileExists(logPath)) << logPath;
  EXPECT_FALSE(Logger::updateLoggerName(dir(), "modD", ""));
  SystemLogCapture capture;  // edits of a missing file fail
  EXPECT_FALSE(Logger::deleteLogger(m_dir.file("none"), "modA"));
  EXPECT_FALSE(Logger::updateLoggerName(m_dir.file("none"), "modA", "x"));
  EXPECT_TRUE(capture.contains("QmsysEventLogInterface::deleteLogger", "qmlogs.ini"));
}

}  // namespace
