#include <sys/stat.h>

#include <thread>

#include <gtest/gtest.h>

#include "IniReaderWriter.h"
#include "QmconFunctions.h"
#include "QmsysEventLogSingleThreaded.h"
#include "log_test_util.h"

namespace {

using Logger = QmsysEventLogInterface;
using Writer = QmsysEventLogWriterInterface;

// The lines of `path`, which must match the `rests` after their time stamps.
void ExpectLines(const std::string& path, const std::vector<std::string>& rests) {
  const auto lines = LogReadLines(path);
  ASSERT_EQ(rests.size(), lines.size()) << path;
  for (size_t i = 0; i < lines.size(); ++i)
    EXPECT_TRUE(LogLineMatches(lines[i], rests[i])) << lines[i];
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
  // A file logger section writing to `file` under the temp root.
  std::string fileSection(const std::string& name, const std::string& level,
                          const std::string& file) const {
    return "[" + name + "]\nwriter=file\nlevel=" + level + "\nfilePath=" + m_root.file(file) +
           "\nbytesPerFiles=100000\nnumFiles=2\nperProcessFile=0\n";
  }
  LogTempDir m_root;
};

TEST(LogConfigNames, ConfigFileAndLogPaths) {
  EXPECT_EQ("/a/b/qmlogs.ini", Logger::getConfigFileName("/a/b"));
  EXPECT_EQ("/a/b/qmlogs.ini", Logger::getConfigFileName("/a/b/"));
  EXPECT_EQ("c:\\\\x\\\\y/qmlogs.ini", Logger::getConfigFileName("c:\\x\\\\y"));
  EXPECT_EQ("/d/my_name_log.txt", Logger::getLogDirPath("/c/qmlogs.ini", "my name", "/d"));
  LogTempDir root;
  // Deleting a module's files takes its logs, archives and locks, nothing else.
  const std::vector<std::string> own = {"modA_logger.txt", "modA_logger.txt.1",
                                        "modA_logger.txt.lock", "modA(01)_logger.0.txt.12",
                                        "modA_log.txt"};
  const std::vector<std::string> others = {"modAB_logger.txt", "modA_logger.txt.x", "x.txt.lock",
                                           "modA_logger.csv", "modA.txt"};
  for (const auto& files : {own, others})
    for (const std::string& f : files) LogWriteFile(root.file(f), "x");
  EXPECT_TRUE(Logger::DeleteLoggerFiles(root.path(), "modA"));
  for (const std::string& f : own) EXPECT_FALSE(LogFileExists(root.file(f))) << f;
  for (const std::string& f : others) EXPECT_TRUE(LogFileExists(root.file(f))) << f;
  EXPECT_FALSE(Logger::DeleteLoggerFiles(root.file("missing"), "modA"));
}

TEST_F(LogFrontEndTest, FreshConfigurationDirectoryGetsDefaultsAndALogFile) {
  const std::string fresh = m_root.file("work/config");  // does not exist yet
  Logger* logger = Logger::CreateInstance("modA", Logger::SINGLE_THREADED, fresh, "agent");
  ASSERT_NE(nullptr, logger);
  IniReaderWriter ini(fresh + "/qmlogs.ini", true, false, false);
  ASSERT_TRUE(ini.isFileLoaded());
  EXPECT_EQ("modA_logger", ini.getKeyValue("[main]", "modA"));
  const std::string logPath = m_root.file("work/logs/modA_logger.txt");
  const std::pair<const char*, std::string> defaults[] = {
      {"writer", "file"}, {"level", "info"},   {"filePath", logPath},  {"bytesPerFiles", "204800"},
      {"numFiles", "20"}, {"autoAppend", "1"}, {"perProcessFile", "0"}};
  for (const auto& d : defaults) EXPECT_EQ(d.second, ini.getKeyValue("[modA_logger]", d.first));
  EXPECT_EQ(m_root.file("work/logs/common_logs.txt"), ini.getKeyValue("[common]", "filePath"));
  EXPECT_TRUE(LogFileExists(m_root.file("work/logs/common_logs.txt")));
  ASSERT_TRUE(logger->Start());
  EXPECT_TRUE(logger->WriteInfo("hello", __LINE__, "test"));
  ExpectLines(logPath, {R"(agent \[INFO\] hello)"});
  // A damaged file is repaired with the same defaults.
  Logger::ReleaseAll();
  LogWriteFile(fresh + "/qmlogs.ini", std::string("\x01\x02 garbage\n[[broken\n=\nkey only\n", 31));
  logger = Logger::CreateInstance("modE", Logger::SINGLE_THREADED, fresh, "agent");
  ASSERT_TRUE(logger != nullptr && logger->Start());
  EXPECT_TRUE(logger->WriteInfo("works", 1, "f"));  // through the restored "[common]"
  IniReaderWriter repaired(fresh + "/qmlogs.ini", true, false, false);
  EXPECT_TRUE(repaired.isHeadPresent("[main]"));
  ExpectLines(repaired.getKeyValue("[common]", "filePath"), {R"(agent \[INFO\] works)"});
}

TEST_F(LogFrontEndTest, UnusableWritersAreReportedAndAModuleWithoutLoggerIsRepaired) {
  SystemLogCapture capture;
  // modD has no section, and another module already uses the name it would get.
  LogWriteFile(configFile(),
               "[main]\nmodQ=qt\nmodF=half\nmodB=modD_logger\n[qt]\nwriter=qtdebug\n"
               "[half]\nwriter=file\n" +
                   fileSection("modD_logger", "debug", "custom.log") + "[common]\nlevel=info\n");
  const std::string where = "QmsysEventLogInterface::loadWriterConfig";
  QmsysEventLogSingleThreaded qt("modQ"), half("modF"), nofile("modX"), bare("modD");
  EXPECT_FALSE(qt.initialize(configDir(), "agent"));
  EXPECT_TRUE(capture.contains(where, "Error occurred while creating log writer."));
  EXPECT_TRUE(half.initialize(configDir(), "agent"));
  EXPECT_TRUE(capture.contains(where, "Log writer initialization failed. Check qmlogs.ini"));
  EXPECT_FALSE(half.Start());
  EXPECT_FALSE(nofile.initialize(m_root.file("nowhere"), "agent"));
  EXPECT_TRUE(capture.contains(where, "Unable to load/read config/qmlogs.ini file."));
  EXPECT_FALSE(bare.initialize(configDir(), "agent"));
  EXPECT_FALSE(bare.WriteFatal("nowhere", 1, "f"));
  // Creating it through the registry repairs the file with a logger of its own.
  Logger* logger = Logger::CreateInstance("modD", Logger::SINGLE_THREADED, configDir(), "agent");
  ASSERT_TRUE(logger != nullptr && logger->Start());
  IniReaderWriter ini(configFile(), true, false, false);
  EXPECT_EQ("modD(01)_logger", ini.getKeyValue("[main]", "modD"));
  EXPECT_EQ("modD_logger", ini.getKeyValue("[main]", "modB"));
  EXPECT_TRUE(logger->WriteInfo("repaired", 1, "f"));
  ExpectLines(ini.getKeyValue("[modD(01)_logger]", "filePath"), {R"(agent \[INFO\] repaired)"});
  EXPECT_EQ("", LogReadFile(m_root.file("custom.log")));
}

TEST_F(LogFrontEndTest, RegistryHoldsFifteenLoggersMadeConcurrently) {
  auto create = [](const std::string& name, Logger::LoggerType type) {
    return Logger::CreateInstance(name, type, Writer::FILE_WRITER, "agent");
  };
  Logger* first = create("first", Logger::SINGLE_THREADED);
  std::vector<Logger*> shared(13), own(13);  // with "first" and "shared", 15 in all
  std::vector<std::thread> threads;
  for (int t = 0; t < 13; ++t)
    threads.emplace_back([&, t] {
      shared[t] = create("shared", Logger::SINGLE_THREADED);
      own[t] = create("m" + std::to_string(t), Logger::MULTI_THREADED);
    });
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 13; ++t) EXPECT_TRUE(shared[0] == shared[t] && own[t] != nullptr);
  EXPECT_EQ(own[3], create("m3", Logger::SINGLE_THREADED));
  EXPECT_EQ(nullptr, create("m15", Logger::SINGLE_THREADED));
  EXPECT_TRUE(first == Logger::GetInstance(1, "f.cpp") && own[12] == Logger::GetInstance("m12"));
  Logger::ReleaseAll();
  EXPECT_EQ("QmsysEventLogInterface object for module [m12] is called before creation.",
            Thrown<const char*>([] { Logger::GetInstance("m12"); }));
  SystemLogCapture capture;  // an empty name is refused, with the reason, not thrown
  EXPECT_EQ(nullptr, Logger::CreateInstance("", Logger::SINGLE_THREADED, configDir(), "agent"));
  EXPECT_TRUE(capture.contains("QmsysEventLogInterface::CreateInstance", "module name"));
}

// Calls the operation in place `slot` of the logger's virtual table.
template <typename Result, typename... Args>
Result CallSlot(Logger& logger, int slot, Args... args) {
  void** table = *reinterpret_cast<void***>(&logger);
  return reinterpret_cast<Result (*)(Logger*, Args...)>(table[slot])(&logger, args...);
}

// Hosts built against the logger call it by places in its virtual table:
// the seven writes, EnableThreadIdPrefix, GetLogLevel, GetLoggerName, the
// destructor's two entries, then GetWriter, setLogLevel, SetLogLevel,
// initialize, Start, Stop, IsAlive and Print.
TEST_F(LogFrontEndTest, OperationsKeepTheirPlacesInTheVirtualTableAndLevelsFilter) {
  using Text = const std::string&;
  LogWriteFile(configFile(), "[main]\nslots=own\n" + fileSection("own", "error", "slots.log"));
  QmsysEventLogSingleThreaded logger("slots");
  ASSERT_TRUE((CallSlot<bool, Text, Text>(logger, 15, configDir(), "agent")));
  EXPECT_EQ(logger.GetWriter(), CallSlot<Writer*>(logger, 12));
  EXPECT_FALSE(CallSlot<bool>(logger, 18));
  ASSERT_TRUE(CallSlot<bool>(logger, 16));
  EXPECT_TRUE(CallSlot<bool>(logger, 18));
  EXPECT_EQ("slots", CallSlot<std::string>(logger, 9));
  EXPECT_EQ(QmLogInterface::LEVEL_ERROR, CallSlot<QmLogInterface::LogLevel>(logger, 8));
  CallSlot<void, Writer::LogLevel>(logger, 13, Writer::LEVEL_FATAL);
  EXPECT_FALSE(logger.WriteCritical("below", 1, "f"));
  CallSlot<void, QmLogInterface::LogLevel>(logger, 14, QmLogInterface::LEVEL_NONE);
  EXPECT_EQ(QmLogInterface::LEVEL_NONE, logger.GetLogLevel());
  for (int slot = 0; slot < 7; ++slot) {
    EXPECT_TRUE(
        (CallSlot<bool, Text, int, const char*>(logger, slot, "w" + std::to_string(slot), 1, "f")));
  }
  EXPECT_TRUE((CallSlot<bool, Writer::LogLevel, Text, int, const char*>(
      logger, 19, Writer::LEVEL_DEBUG, "printed", 1, "f")));
  EXPECT_TRUE(logger.WriteInfo("Tag", "n=%d", 5));  // the older printf-style entry points
  EXPECT_TRUE(logger.Print("P", "m=%d", 6));
  EXPECT_TRUE(logger.WriteTrace(Logger::TRACE_DEBUG, "d=%d", 7));
  EXPECT_TRUE(logger.WriteError(Logger::SEVERITY_CRITICAL, "bad %s", "thing"));
  CallSlot<void, bool>(logger, 7, true);
  EXPECT_TRUE(logger.WriteInfo("prefixed", 1, "f"));
  EXPECT_TRUE(CallSlot<bool>(logger, 17));
  EXPECT_FALSE(logger.IsAlive() || logger.WriteFatal("stopped", 1, "f"));
  const std::string tid = std::to_string(GetMyThreadID());
  ExpectLines(
      m_root.file("slots.log"),
      {R"(agent \[TRACE\] w0)", R"(agent \[DEBUG\] w1)", R"(agent \[INFO\] w2)",
       R"(agent \[WARN\] w3)", R"(agent \[ERROR\] w4)", R"(agent \[CRITICAL\] w5)",
       R"(agent \[FATAL\] w6)", R"(agent \[DEBUG\] printed)", R"(agent \[INFO\] Tag n=5)",
       R"(agent \[INFO\] P m=6)", R"(agent \[DEBUG\] d=7)", R"(agent \[CRITICAL\] bad thing)",
       R"(agent \[INFO\] \[TID:)" + tid + R"(\] prefixed)"});
}

TEST_F(LogFrontEndTest, MultiThreadedWritesEveryLineOnceInOrderAndRestarts) {
  LogWriteFile(configFile(), "[main]\nmt=own\n" + fileSection("own", "info", "mt.log"));
  Logger* logger = Logger::CreateInstance("mt", Logger::MULTI_THREADED, configDir(), "agent");
  ASSERT_TRUE(logger != nullptr && logger->Start());
  const int kThreads = 4, kLines = 250;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([logger, t] {
      for (int i = 0; i < kLines; ++i)
        logger->WriteInfo("T" + std::to_string(t) + "-" + std::to_string(i), i, "mt.cpp");
    });
  for (auto& thread : threads) thread.join();
  for (int round = 0; round < 2; ++round) {  // a stop drains the queue
    EXPECT_TRUE(logger->Stop() && !logger->WriteInfo("after stop", 1, "f"));
    ASSERT_TRUE(logger->Start());
    EXPECT_TRUE(logger->WriteInfo("T4-" + std::to_string(round), 1, "f"));
  }
  EXPECT_TRUE(logger->Stop());
  const std::regex line(std::string(kLogStamp) + R"( agent \[INFO\] T(\d+)-(\d+))");
  std::vector<int> next(kThreads + 1, 0);
  for (const std::string& text : LogReadLines(m_root.file("mt.log"))) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, line)) << text;
    ASSERT_EQ(next[std::stoi(match[1].str())]++, std::stoi(match[2].str())) << text;
  }
  EXPECT_EQ(std::vector<int>({kLines, kLines, kLines, kLines, 2}), next);
}

}  // namespace
