#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "IniReaderWriter.h"
#include "QmLogSQLiteProcessor.h"
#include "QmconFunctions.h"
#include "QmsysEventLogInterface.h"
#include "QmsysEventLogSingleThreaded.h"
#include "log_test_util.h"

namespace {

using Logger = QmsysEventLogInterface;
using Writer = QmsysEventLogWriterInterface;

const char* const kStamp = R"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d)";

bool MatchesLine(const std::string& text, const std::string& rest) {
  return std::regex_match(text, std::regex(std::string(kStamp) + " " + rest));
}

class LogFrontEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Logger::ReleaseAll();
    mkdir(configDir().c_str(), 0775);
  }
  void TearDown() override { Logger::ReleaseAll(); }

  std::string configDir() const { return m_root.file("config"); }
  std::string configFile() const { return configDir() + "/qmlogs.ini"; }
  std::string writeConfig(const std::string& text) const {
    LogWriteFile(configFile(), text);
    return configDir();
  }
  // A file logger section writing to `file` under the temp root.
  std::string fileSection(const std::string& name, const std::string& level,
                          const std::string& file) const {
    return "[" + name + "]\nwriter=file\nlevel=" + level + "\nfilePath=" + m_root.file(file) +
           "\nbytesPerFiles=100000\nnumFiles=2\nperProcessFile=0\n";
  }
  // A started logger that writes through a file writer to `file`.
  Logger* fileLogger(const std::string& module, Logger::LoggerType type,
                     const std::string& file) const {
    Logger* logger = Logger::CreateInstance(module, type, Writer::FILE_WRITER, "agent");
    if (logger == nullptr) return nullptr;
    logger->GetWriter()->setParameter("filePath", m_root.file(file));
    logger->GetWriter()->setParameter("bytesPerFiles", "1000000");
    logger->GetWriter()->setParameter("numFiles", "2");
    logger->GetWriter()->setParameter("perProcessFile", "0");
    logger->Start();
    return logger;
  }

  LogTempDir m_root;
};

TEST(LogConfigNames, ConfigFileNameDoublesSingleBackslashes) {
  EXPECT_EQ("/a/b/qmlogs.ini", Logger::getConfigFileName("/a/b"));
  EXPECT_EQ("/a/b/qmlogs.ini", Logger::getConfigFileName("/a/b/"));
  EXPECT_EQ("c:\\\\x\\\\y/qmlogs.ini", Logger::getConfigFileName("c:\\x\\\\y"));
}

TEST(LogConfigNames, LogPathsBesideTheConfigDirectory) {
  LogTempDir root;
  const std::string config = root.file("config/qmlogs.ini");
  EXPECT_EQ(root.file("logs/my_name.txt"), Logger::getLogDirPath(config, "my name"));
  mkdir(root.file("logs").c_str(), 0775);
  LogWriteFile(root.file("logs/my_name.txt"), "");
  EXPECT_EQ(root.file("logs/my_name.0.txt"), Logger::getLogDirPath(config, "my name"));
  LogWriteFile(root.file("logs/my_name.0.txt"), "");
  EXPECT_EQ(root.file("logs/my_name.1.txt"), Logger::getLogDirPath(config, "my name"));
  EXPECT_EQ("/d/my_name_log.txt", Logger::getLogDirPath(config, "my name", "/d"));
}

TEST_F(LogFrontEndTest, FreshConfigurationDirectoryGetsDefaultsAndALogFile) {
  const std::string fresh = m_root.file("work/config");  // does not exist yet
  Logger* logger = Logger::CreateInstance("modA", Logger::SINGLE_THREADED, fresh, "agent");
  ASSERT_NE(nullptr, logger);
  EXPECT_EQ("modA", logger->GetLoggerName());

  IniReaderWriter ini(fresh + "/qmlogs.ini", true, false, false);
  ASSERT_TRUE(ini.isFileLoaded());
  EXPECT_EQ("modA_logger", ini.getKeyValue("[main]", "modA"));
  const std::string logPath = m_root.file("work/logs/modA_logger.txt");
  EXPECT_EQ("file", ini.getKeyValue("[modA_logger]", "writer"));
  EXPECT_EQ("info", ini.getKeyValue("[modA_logger]", "level"));
  EXPECT_EQ(logPath, ini.getKeyValue("[modA_logger]", "filePath"));
  EXPECT_EQ("204800", ini.getKeyValue("[modA_logger]", "bytesPerFiles"));
  EXPECT_EQ("20", ini.getKeyValue("[modA_logger]", "numFiles"));
  EXPECT_EQ("1", ini.getKeyValue("[modA_logger]", "autoAppend"));
  EXPECT_EQ("0", ini.getKeyValue("[modA_logger]", "perProcessFile"));
  EXPECT_EQ(m_root.file("work/logs/common_logs.txt"), ini.getKeyValue("[common]", "filePath"));
  EXPECT_TRUE(LogFileExists(m_root.file("work/logs/common_logs.txt")));

  ASSERT_TRUE(logger->Start());
  EXPECT_EQ(QmLogInterface::LEVEL_INFO, logger->GetLogLevel());
  EXPECT_TRUE(logger->WriteInfo("hello", __LINE__, "test"));
  EXPECT_FALSE(logger->WriteDebug("hidden", __LINE__, "test"));
  const auto lines = LogReadLines(logPath);
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(MatchesLine(lines[0], R"(agent \[INFO\] hello)")) << lines[0];

  EXPECT_EQ(logger, Logger::CreateInstance("modA", Logger::SINGLE_THREADED, fresh, "agent"));
  EXPECT_EQ(logger, Logger::GetInstance("modA"));
}

TEST_F(LogFrontEndTest, ModuleFoundThroughMain) {
  const std::string text = "[main]\nmodB=custom\n" + fileSection("custom", "debug", "custom.log") +
                           fileSection("common", "info", "common.log");
  Logger* logger =
      Logger::CreateInstance("modB", Logger::SINGLE_THREADED, writeConfig(text), "agent");
  ASSERT_NE(nullptr, logger);
  ASSERT_TRUE(logger->Start());
  EXPECT_EQ(QmLogInterface::LEVEL_DEBUG, logger->GetLogLevel());
  EXPECT_TRUE(logger->WriteDebug("through main", 1, "f"));
  const auto lines = LogReadLines(m_root.file("custom.log"));
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(MatchesLine(lines[0], R"(agent \[DEBUG\] through main)")) << lines[0];
  EXPECT_EQ("", LogReadFile(m_root.file("common.log")));
  EXPECT_EQ("debug", Logger::getModuleAttributeValues(configDir(), "modB", "level"));
  EXPECT_EQ("info", Logger::getModuleAttributeValues(configDir(), "other", "level"));
}

TEST_F(LogFrontEndTest, ModuleMissingFromMainUsesCommon) {
  const std::string text = "[main]\nmodB=custom\n" + fileSection("custom", "debug", "custom.log") +
                           fileSection("common", "error", "common.log");
  Logger* logger =
      Logger::CreateInstance("modC", Logger::SINGLE_THREADED, writeConfig(text), "agent");
  ASSERT_NE(nullptr, logger);
  ASSERT_TRUE(logger->Start());
  EXPECT_FALSE(logger->WriteWarn("below threshold", 1, "f"));
  EXPECT_TRUE(logger->WriteError("through common", 1, "f"));
  const auto lines = LogReadLines(m_root.file("common.log"));
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(MatchesLine(lines[0], R"(agent \[ERROR\] through common)")) << lines[0];
  EXPECT_EQ("", LogReadFile(m_root.file("custom.log")));
}

TEST_F(LogFrontEndTest, ModuleWithoutAnyLoggerStaysSilentUntilRepaired) {
  // Another module already uses the name the new logger would get.
  const std::string text = "[main]\nmodB=modD_logger\n" +
                           fileSection("modD_logger", "debug", "custom.log") +
                           "[common]\nlevel=info\n";
  writeConfig(text);
  QmsysEventLogSingleThreaded bare("modD");
  EXPECT_FALSE(bare.initialize(configDir(), "agent"));
  EXPECT_EQ(nullptr, bare.GetWriter());
  EXPECT_FALSE(bare.Start());
  EXPECT_FALSE(bare.WriteFatal("nowhere", 1, "f"));

  // Creating it through the registry repairs the file with a logger of its own.
  Logger* logger = Logger::CreateInstance("modD", Logger::SINGLE_THREADED, configDir(), "agent");
  ASSERT_NE(nullptr, logger);
  ASSERT_TRUE(logger->Start());
  IniReaderWriter ini(configFile(), true, false, false);
  EXPECT_EQ("modD(01)_logger", ini.getKeyValue("[main]", "modD"));
  EXPECT_EQ("modD_logger", ini.getKeyValue("[main]", "modB"));
  EXPECT_TRUE(logger->WriteInfo("repaired", 1, "f"));
  const auto lines = LogReadLines(ini.getKeyValue("[modD(01)_logger]", "filePath"));
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(MatchesLine(lines[0], R"(agent \[INFO\] repaired)")) << lines[0];
}

TEST_F(LogFrontEndTest, MisspeltLevelMeansWarn) {
  const std::string text = "[main]\nmodB=custom\n" + fileSection("custom", "verbose", "c.log") +
                           fileSection("common", "info", "common.log");
  Logger* logger =
      Logger::CreateInstance("modB", Logger::SINGLE_THREADED, writeConfig(text), "agent");
  ASSERT_NE(nullptr, logger);
  logger->Start();
  EXPECT_EQ(QmLogInterface::LEVEL_WARN, logger->GetLogLevel());
  EXPECT_FALSE(logger->WriteInfo("no", 1, "f"));
  EXPECT_TRUE(logger->WriteWarn("yes", 1, "f"));
}

TEST_F(LogFrontEndTest, DamagedConfigurationIsRepairedWithDefaults) {
  writeConfig(std::string("\x01\x02 garbage\n[[broken\n=\nkey only\n", 31));
  Logger* logger = Logger::CreateInstance("modE", Logger::SINGLE_THREADED, configDir(), "agent");
  ASSERT_NE(nullptr, logger);
  IniReaderWriter ini(configFile(), true, false, false);
  EXPECT_TRUE(ini.isHeadPresent("[main]"));
  EXPECT_TRUE(ini.isHeadPresent("[common]"));
  // The restored "[common]" names a writer, so the module logs through it.
  EXPECT_EQ("file", ini.getKeyValue("[common]", "writer"));
  EXPECT_EQ("", ini.getKeyValue("[main]", "modE"));
  ASSERT_TRUE(logger->Start());
  EXPECT_TRUE(logger->WriteInfo("works", 1, "f"));
  const auto lines = LogReadLines(ini.getKeyValue("[common]", "filePath"));
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(MatchesLine(lines[0], R"(agent \[INFO\] works)")) << lines[0];
}

TEST_F(LogFrontEndTest, UnusableWritersAreReported) {
  SystemLogCapture capture;
  const std::string text =
      "[main]\nmodQ=qt\nmodF=half\n[qt]\nwriter=qtdebug\n[half]\nwriter=file\nfilePath=" +
      m_root.file("half.log") + "\nbytesPerFiles=100\n" + fileSection("common", "info", "c.log");
  writeConfig(text);
  QmsysEventLogSingleThreaded qt("modQ");
  EXPECT_FALSE(qt.initialize(configDir(), "agent"));
  EXPECT_TRUE(capture.contains("QmsysEventLogInterface::loadWriterConfig",
                               "Error occurred while creating log writer."));

  QmsysEventLogSingleThreaded half("modF");
  EXPECT_TRUE(half.initialize(configDir(), "agent"));
  EXPECT_TRUE(capture.contains("QmsysEventLogInterface::loadWriterConfig",
                               "Log writer initialization failed. Check qmlogs.ini"));
  EXPECT_FALSE(half.Start());
  EXPECT_FALSE(half.WriteFatal("silent", 1, "f"));
  EXPECT_EQ("", LogReadFile(m_root.file("half.log")));

  QmsysEventLogSingleThreaded nofile("modX");
  EXPECT_FALSE(nofile.initialize(m_root.file("nowhere"), "agent"));
  EXPECT_TRUE(capture.contains("QmsysEventLogInterface::loadWriterConfig",
                               "Unable to load/read config/qmlogs.ini file."));
}

TEST_F(LogFrontEndTest, SqliteWriterFromConfiguration) {
  const std::string db = m_root.file("logs.db");
  const std::string text = "[main]\nmodS=sq\n[sq]\nwriter=SQLite\nlevel=trace\ndbfilename=" + db +
                           "\n" + fileSection("common", "info", "c.log");
  Logger* logger =
      Logger::CreateInstance("modS", Logger::SINGLE_THREADED, writeConfig(text), "agent.bin");
  ASSERT_NE(nullptr, logger);
  ASSERT_TRUE(logger->Start());
  EXPECT_TRUE(logger->WriteTrace("stored", 77, "src.cpp"));
  QmLogSQLiteProcessor reader(db, true);
  QmLogDBProcessorInterface::EntrySet rows;
  ASSERT_TRUE(reader.readLogRecord(rows, "agent", std::string()));
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("stored", rows[0].message);
  EXPECT_EQ(1, rows[0].level);
  EXPECT_EQ(77, rows[0].line);
  EXPECT_EQ("src.cpp", rows[0].srcfile);
}

TEST_F(LogFrontEndTest, RegistryHoldsFifteenLoggers) {
  EXPECT_THROW(Logger::GetInstance(10, "f.cpp"), const char*);
  std::vector<Logger*> made;
  for (int i = 0; i < Logger::kMaxLoggers; ++i) {
    made.push_back(Logger::CreateInstance("m" + std::to_string(i), Logger::SINGLE_THREADED,
                                          Writer::FILE_WRITER, "agent"));
    ASSERT_NE(nullptr, made.back());
  }
  EXPECT_EQ(made[3],
            Logger::CreateInstance("m3", Logger::MULTI_THREADED, Writer::FILE_WRITER, "x"));
  EXPECT_EQ(nullptr,
            Logger::CreateInstance("m15", Logger::SINGLE_THREADED, Writer::FILE_WRITER, "agent"));
  EXPECT_FALSE(Logger::IsInstanceAvailable("m15"));
  EXPECT_TRUE(Logger::IsInstanceAvailable("m14"));
  EXPECT_EQ(made[0], Logger::GetInstance(1, "f.cpp"));
  try {
    Logger::GetInstance("m15", 12, "x.cpp");
    FAIL() << "unknown module did not throw";
  } catch (const char* text) {
    EXPECT_STREQ(
        "QmsysEventLogInterface object for module [m15] is called before creation @ line [12] in "
        "file [x.cpp].",
        text);
  }
  try {
    Logger::GetInstance("m15");
    FAIL() << "unknown module did not throw";
  } catch (const char* text) {
    EXPECT_STREQ("QmsysEventLogInterface object for module [m15] is called before creation.", text);
  }
  Logger::ReleaseAll();
  EXPECT_FALSE(Logger::IsInstanceAvailable("m0"));
  try {
    Logger::GetInstance(10, "f.cpp");
    FAIL() << "empty registry did not throw";
  } catch (const char* text) {
    EXPECT_STREQ(
        "QmsysEventLogInterface object is called before creation @ line [10] in file [f.cpp].",
        text);
  }
}

TEST_F(LogFrontEndTest, ConcurrentCreationYieldsOneLoggerPerName) {
  std::vector<Logger*> shared(8, nullptr);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&shared, t] {
      shared[t] =
          Logger::CreateInstance("shared", Logger::SINGLE_THREADED, Writer::FILE_WRITER, "agent");
      Logger::CreateInstance("own" + std::to_string(t), Logger::MULTI_THREADED, Writer::FILE_WRITER,
                             "agent");
    });
  }
  for (auto& thread : threads) thread.join();
  for (Logger* logger : shared) EXPECT_EQ(shared[0], logger);
  for (int t = 0; t < 8; ++t) EXPECT_TRUE(Logger::IsInstanceAvailable("own" + std::to_string(t)));
}

TEST_F(LogFrontEndTest, ThresholdsAliveFlagAndThreadPrefix) {
  Logger* logger =
      Logger::CreateInstance("lv", Logger::SINGLE_THREADED, Writer::FILE_WRITER, "agent");
  ASSERT_NE(nullptr, logger);
  EXPECT_FALSE(logger->WriteFatal("not started", 1, "f"));
  logger = fileLogger("lv", Logger::SINGLE_THREADED, "lv.log");
  ASSERT_TRUE(logger->IsAlive());

  logger->setLogLevel(Writer::LEVEL_ERROR);
  EXPECT_FALSE(logger->WriteWarn("w", 1, "f"));
  EXPECT_TRUE(logger->WriteError("e", 1, "f"));
  EXPECT_TRUE(logger->WriteCritical("c", 1, "f"));
  logger->SetLogLevel(QmLogInterface::LEVEL_FATAL);
  EXPECT_FALSE(logger->WriteCritical("c", 1, "f"));
  EXPECT_TRUE(logger->WriteFatal("f", 1, "f"));
  logger->setLogLevel(Writer::LEVEL_NONE);
  EXPECT_TRUE(logger->WriteTrace("t", 1, "f"));

  logger->EnableThreadIdPrefix(true);
  EXPECT_TRUE(logger->WriteInfo("x", 1, "f"));
  logger->EnableThreadIdPrefix(false);
  EXPECT_TRUE(logger->Stop());
  EXPECT_FALSE(logger->IsAlive());
  EXPECT_FALSE(logger->WriteFatal("stopped", 1, "f"));

  const auto lines = LogReadLines(m_root.file("lv.log"));
  ASSERT_EQ(5u, lines.size());
  EXPECT_TRUE(MatchesLine(lines[0], R"(agent \[ERROR\] e)"));
  EXPECT_TRUE(MatchesLine(lines[1], R"(agent \[CRITICAL\] c)"));
  EXPECT_TRUE(MatchesLine(lines[2], R"(agent \[FATAL\] f)"));
  EXPECT_TRUE(MatchesLine(lines[3], R"(agent \[TRACE\] t)"));
  EXPECT_TRUE(MatchesLine(lines[4],
                          R"(agent \[INFO\] \[TID:)" + std::to_string(GetMyThreadID()) + R"(\] x)"))
      << lines[4];
}

TEST_F(LogFrontEndTest, OlderPrintfStyleEntryPoints) {
  Logger* logger = fileLogger("old", Logger::SINGLE_THREADED, "old.log");
  ASSERT_NE(nullptr, logger);
  logger->setLogLevel(Writer::LEVEL_TRACE);
  EXPECT_TRUE(logger->WriteInfo("Tag", "n=%d", 5));
  EXPECT_TRUE(logger->Print("Tag", "%s!", "hi"));
  EXPECT_TRUE(logger->WriteError(Logger::SEVERITY_CRITICAL, "bad %s", "thing"));
  EXPECT_TRUE(logger->WriteTrace(Logger::TRACE_DEBUG, "dbg %d", 1));
  errno = ENOENT;
  EXPECT_TRUE(logger->WriteSystemError("Sys", "open %s", "x"));
  const auto lines = LogReadLines(m_root.file("old.log"));
  ASSERT_EQ(5u, lines.size());
  EXPECT_TRUE(MatchesLine(lines[0], R"(agent \[INFO\] Tag n=5)")) << lines[0];
  EXPECT_TRUE(MatchesLine(lines[1], R"(agent \[INFO\] Tag hi!)")) << lines[1];
  EXPECT_TRUE(MatchesLine(lines[2], R"(agent \[CRITICAL\] bad thing)")) << lines[2];
  EXPECT_TRUE(MatchesLine(lines[3], R"(agent \[DEBUG\] dbg 1)")) << lines[3];
  EXPECT_NE(std::string::npos, lines[4].find("[ERROR] Sys open x [System Library Error] " +
                                             std::string(strerror(ENOENT))))
      << lines[4];
}

TEST_F(LogFrontEndTest, MultiThreadedWritesEveryLineOnceInOrder) {
  Logger* logger = fileLogger("mt", Logger::MULTI_THREADED, "mt.log");
  ASSERT_NE(nullptr, logger);
  ASSERT_TRUE(logger->IsAlive());
  const int kThreads = 4;
  const int kLines = 250;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([logger, t] {
      for (int i = 0; i < kLines; ++i) {
        logger->WriteInfo("T" + std::to_string(t) + "-" + std::to_string(i), i, "mt.cpp");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(logger->Stop());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_FALSE(logger->WriteInfo("after stop", 1, "f"));

  const std::regex line(std::string(kStamp) + R"( agent \[INFO\] T(\d+)-(\d+))");
  std::vector<int> next(kThreads, 0);
  int total = 0;
  for (const std::string& text : LogReadLines(m_root.file("mt.log"))) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, line)) << text;
    const int t = std::stoi(match[1].str());
    ASSERT_EQ(next[t], std::stoi(match[2].str())) << text;
    ++next[t];
    ++total;
  }
  EXPECT_EQ(kThreads * kLines, total);
}

TEST_F(LogFrontEndTest, MultiThreadedStopIsPromptAndRestartable) {
  Logger* logger = fileLogger("mt2", Logger::MULTI_THREADED, "mt2.log");
  ASSERT_NE(nullptr, logger);
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(logger->Start());
    EXPECT_TRUE(logger->WriteInfo("round " + std::to_string(round), 1, "f"));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(logger->Stop());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  }
  EXPECT_EQ(3u, LogReadLines(m_root.file("mt2.log")).size());
}

TEST_F(LogFrontEndTest, DeleteLoggerFilesRemovesLogsAndLocks) {
  for (const char* name : {"modA_logger.txt", "modA_logger.txt.1", "x.txt.lock", "other.txt"}) {
    LogWriteFile(m_root.file(name), "x");
  }
  EXPECT_TRUE(Logger::DeleteLoggerFiles(m_root.path(), "modA"));
  EXPECT_FALSE(LogFileExists(m_root.file("modA_logger.txt")));
  EXPECT_FALSE(LogFileExists(m_root.file("modA_logger.txt.1")));
  EXPECT_FALSE(LogFileExists(m_root.file("x.txt.lock")));
  EXPECT_TRUE(LogFileExists(m_root.file("other.txt")));
  EXPECT_FALSE(Logger::DeleteLoggerFiles(m_root.file("missing"), "modA"));
}

}  // namespace
