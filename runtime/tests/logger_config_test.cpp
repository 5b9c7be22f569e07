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
    LogWriteFile(configPath(),
                 "[main]\nmodA=shared\nmodB=shared\nmodC=own\n"
                 "[shared]\nwriter=file\nlevel=debug\n"
                 "[own]\nwriter=file\nlevel=error\n"
                 "[common]\nwriter=file\nlevel=warn\n");
  }
  std::string configPath() const { return Logger::getConfigFileName(m_dir.path()); }
  IniReaderWriter reread() const { return IniReaderWriter(configPath(), true, false, false); }

  LogTempDir m_dir;
};

TEST_F(LoggerConfigTest, DeleteLoggerKeepsSectionsOthersStillUse) {
  ASSERT_TRUE(Logger::deleteLogger(m_dir.path(), "modA"));
  ASSERT_TRUE(Logger::deleteLogger(m_dir.path(), "modC"));
  IniReaderWriter ini = reread();
  EXPECT_FALSE(ini.isKeyPresent("[main]", "modA"));
  EXPECT_FALSE(ini.isKeyPresent("[main]", "modC"));
  EXPECT_TRUE(ini.isHeadPresent("[shared]"));  // modB still logs through it
  EXPECT_FALSE(ini.isHeadPresent("[own]"));
  EXPECT_EQ("warn", Logger::getModuleAttributeValues(m_dir.path(), "modC", "level"));

  ASSERT_TRUE(Logger::deleteLogger(m_dir.path(), "modB"));
  EXPECT_FALSE(reread().isHeadPresent("[shared]"));
  EXPECT_TRUE(Logger::deleteLogger(m_dir.path(), "unknown"));  // nothing to change
  EXPECT_TRUE(reread().isHeadPresent("[common]"));
}

TEST_F(LoggerConfigTest, UpdateLoggerNameRepointsOrCreatesTheSection) {
  ASSERT_TRUE(Logger::updateLoggerName(m_dir.path(), "modA", "own"));
  EXPECT_EQ("error", Logger::getModuleAttributeValues(m_dir.path(), "modA", "level"));

  ASSERT_TRUE(Logger::updateLoggerName(m_dir.path(), "modD", "fresh_logger"));
  EXPECT_EQ("info", Logger::getModuleAttributeValues(m_dir.path(), "modD", "level"));
  const std::string logPath = Logger::getModuleAttributeValues(m_dir.path(), "modD", "filePath");
  EXPECT_TRUE(LogFileExists(logPath)) << logPath;
  EXPECT_FALSE(Logger::updateLoggerName(m_dir.path(), "modD", ""));
}

TEST(LoggerConfigMissingTest, EditsOfAMissingFileFail) {
  LogTempDir dir;
  SystemLogCapture capture;
  EXPECT_FALSE(Logger::deleteLogger(dir.path(), "modA"));
  EXPECT_FALSE(Logger::updateLoggerName(dir.path(), "modA", "x"));
  EXPECT_TRUE(capture.contains("QmsysEventLogInterface::deleteLogger", "qmlogs.ini"));
}

}  // namespace
