// Log writers: the rotating file, its lock, the SQLite database and its processor.
#include <sqlite3.h>

#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "LockFile.h"
#include "QmDBProcessorFatalException.h"
#include "QmLogSQLiteProcessor.h"
#include "QmconException.h"
#include "QmsysEventLogFileWriter.h"
#include "QmsysEventLogSQLiteWriter.h"
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
  // Settings (no numFiles when null); whether the writer works; what the system log must hold.
  const struct {
    std::string path;
    const char *bytes, *files;
    bool works;
    const char* logged;
  } cases[] = {
      {path, "2048", nullptr, false, ""},
      {path, "0", "3", false, ""},
      {dir.file("plain/x.log"), "1024", "3", false, "Can Not Create Log Directory"},
      {path, "100", "3", true, "bytesPerFiles (at least 1024) is out of range; using 204800"},
      {path, "1024", "-1", true, "numFiles (1 to 1000) is out of range; using 20"},
      {path, "2k", "1001", true, ""}};
  for (const auto& c : cases) {
    QmsysEventLogFileWriter writer;
    writer.setParameter("filePath", c.path);
    writer.setParameter("bytesPerFiles", c.bytes);
    if (c.files != nullptr) writer.setParameter("numFiles", c.files);
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
// reason, once per text.
TEST(LogFileWriter, FaultsAreReportedOncePerText) {
  LogTempDir dir;
  ASSERT_EQ(0, symlink("/dev/full", dir.file("full.log").c_str()));
  SystemLogCapture capture;
  QmsysEventLogFileWriter full;
  Configure(full, dir.file("full.log"), "1024", "3", "0");
  ASSERT_TRUE(full.isInitialized());
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(full("p", Writer::LEVEL_INFO, "lost", 1, "f", 0));
  EXPECT_EQ(1u, capture.count("QmsysEventLogFileWriter::DoWork", "No space left on device"));

  // The archive's name is taken by a folder that is not empty: the rename
  // is told as failed.
  const std::string stuck = dir.file("stuck.log");
  std::filesystem::create_directories(stuck + ".1/inside");
  QmsysEventLogFileWriter blocked;
  Configure(blocked, stuck, "1024", "1", "0");
  for (int i = 0; i < 3; ++i) blocked("p", Writer::LEVEL_INFO, std::string(600, 'x'), 1, "f", 0);
  EXPECT_TRUE(capture.contains("QmsysEventLog::Archive", "Can not rename log file from '" + stuck +
                                                             "' to '" + stuck + ".1'"));
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
    const long before = FolderEntries("/proc/self/fd");
    EXPECT_EQ("LockFile Creation Failed @ LockFile", Thrown<QmconException>(lockAgain));
    // Each refused attempt closed its descriptor.
    EXPECT_EQ(FolderEntries("/proc/self/fd"), before);
  }
  EXPECT_EQ("<nothing thrown>", Thrown<QmconException>(lockAgain));  // released with its holder
}

using Db = QmLogDBProcessorInterface;
using Filter = Db::ReadLogFilter;

// The messages of the module's rows that `filter` selects, in result order.
std::vector<std::string> Messages(QmLogSQLiteProcessor& db, const std::string& module,
                                  const Filter& filter = Filter()) {
  Db::EntrySet rows;
  EXPECT_TRUE(db.readLogRecord(rows, module, filter)) << db.getDBString();
  std::vector<std::string> messages;
  for (size_t i = 0; i < rows.size(); ++i) messages.push_back(rows[i].message);
  return messages;
}

TEST(LogDbText, TableNamesAndConditions) {
  EXPECT_EQ("my_module_x_1", Db::convModuleName2TableName("my.module-x 1"));
  // Filters by: modules, levels, message, level, start time, date; sorts by time (descending),
  // module, level; limit, offset.
  const std::pair<Filter, const char*> conditions[] = {
      {{{}, {}, "", 0, 0, "", false, false, false, 0, -5}, " LIMIT -1 OFFSET 0 "},
      {{{}, {}, "", 0, 4102444800, "", false, false, true, 0, 0},  // 2100-01-01
       "WHERE  timestamp>=4102444800 ORDER BY level LIMIT -1 OFFSET 0 "},
      {{{"a", "b"}, {3, 5}, "%x%", 2, 100, "11/%", true, true, true, 10, 20},
       "WHERE module IN ('a', 'b') AND level IN (3, 5) AND message LIKE '%x%' AND level = 2 "
       " AND timestamp>=100 AND tempcol LIKE '11/%' ORDER BY timestamp DESC, module, level"
       " LIMIT 10 OFFSET 20 "}};
  for (const auto& c : conditions) EXPECT_EQ(c.second, Db::getSQLCondition(c.first));
}

class LogDbTest : public ::testing::Test {
 protected:
  std::string db() const { return m_dir.file("log.db"); }
  LogTempDir m_dir;
};

TEST_F(LogDbTest, RowsRoundTripFilterAndReplaceAStaleTable) {
  sqlite3* raw = nullptr;  // a table of another shape under the name the module gets
  sqlite3_open(db().c_str(), &raw);
  const char* stale = "CREATE TABLE other_mod (junk TEXT); INSERT INTO other_mod VALUES ('x');";
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(raw, stale, nullptr, nullptr, nullptr));
  sqlite3_close(raw);
  auto write = [&](auto&& db, int i) {
    return db.writeLogRecord("other.mod", "m" + std::to_string(i), kTime + i, 1 + i, "src.cpp",
                             10 * i);
  };
  ASSERT_TRUE(write(QmLogSQLiteProcessor(db(), true), 0));
  QmLogSQLiteProcessor processor(db(), true);  // the registration survives reopening
  for (int i = 1; i < 5; ++i) ASSERT_TRUE(write(processor, i)) << processor.getDBString();
  Db::EntrySet rows;
  ASSERT_TRUE(processor.readLogRecord(rows, "other.mod", Filter()));
  ASSERT_EQ(5u, rows.size());
  const auto& r = rows[3];
  EXPECT_TRUE(r.module == "other.mod" && r.time == kTime + 3 && r.level == 4 && r.line == 30 &&
              r.srcfile == "src.cpp");
  using Texts = std::vector<std::string>;
  EXPECT_EQ((Texts{"m3", "m1"}),
            Messages(processor, "other.mod", {{}, {2, 4}, "", 0, 0, "", true, false, false, 0, 0}));
  EXPECT_EQ(Texts{"m2"},
            Messages(processor, "other.mod",
                     {{}, {}, "", 0, 0, LogStampOf(kTime + 2), false, false, false, 0, 0}));
  // A module whose table name is taken gets a table of its own.
  ASSERT_TRUE(processor.writeLogRecord("other-mod", "own", kTime, 1, "f", 1));
  EXPECT_EQ("other_mod_2", processor.getTableName("other-mod"));
  QmLogSQLiteProcessor early(db(), true);  // learns of "late" from the metatable
  ASSERT_TRUE(processor.writeLogRecord("late", "x", kTime, 1, "f", 1));
  EXPECT_EQ("late", early.getTableName("late"));
  EXPECT_EQ(std::vector<std::string>{"own"}, Messages(processor, "other-mod"));
  ASSERT_TRUE(processor.cleanModuleTable("other.mod"));
  EXPECT_TRUE(Messages(processor, "other.mod").empty());
}

TEST_F(LogDbTest, WaitsForAnotherConnectionHoldingTheDatabase) {
  QmLogSQLiteProcessor processor(db(), true);
  ASSERT_TRUE(processor.writeLogRecord("agent", "before", 1, 3, "f", 1));
  std::promise<bool> locked;
  std::thread holder([&] {
    sqlite3* handle = nullptr;
    sqlite3_open(db().c_str(), &handle);
    locked.set_value(sqlite3_exec(handle, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr) == 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));  // the time it holds the lock
    sqlite3_exec(handle, "COMMIT;", nullptr, nullptr, nullptr);
    sqlite3_close(handle);
  });
  ASSERT_TRUE(locked.get_future().get());
  EXPECT_TRUE(processor.writeLogRecord("agent", "after", 2, 3, "f", 2)) << processor.getDBString();
  holder.join();
  EXPECT_EQ(2u, Messages(processor, "agent").size());
}

TEST_F(LogDbTest, UnusableDatabaseThrowsOrFailsAndTheWriterRetriesAtItsNextLine) {
  LogWriteFile(m_dir.file("plain"), "");  // a file where a directory would have to be
  EXPECT_THROW(QmLogSQLiteProcessor(m_dir.file("plain/log.db"), true), QmDBProcessorFatalException);
  EXPECT_THROW(QmLogSQLiteProcessor(db(), true, QmLogSQLiteProcessor::READ_ONLY),
               QmDBProcessorFatalException);
  EXPECT_FALSE(LogFileExists(db())) << "a reader created the database";
  QmLogSQLiteProcessor unopened(db(), false);
  EXPECT_FALSE(unopened.writeLogRecord("agent", "x", 1, 1, "f", 1));

  SystemLogCapture capture;
  QmsysEventLogSQLiteWriter writer;
  EXPECT_FALSE(writer.setDbFileName(m_dir.file("plain/sub/log.db")));
  EXPECT_TRUE(writer.isInitialized());  // configured: each line tries again
  EXPECT_FALSE(writer("agent", Writer::LEVEL_INFO, "x", 1, "f", 0));
  EXPECT_EQ(1u, capture.count("QmsysEventLogSQLiteWriter::setDbFileName", ""));
  std::filesystem::remove(m_dir.file("plain"));  // the folder can be made now
  EXPECT_TRUE(writer("agent", Writer::LEVEL_INFO, "y", 1, "f", 0));
  QmLogSQLiteProcessor written(m_dir.file("plain/sub/log.db"), true);
  EXPECT_EQ(std::vector<std::string>{"y"}, Messages(written, "agent"));
}

TEST_F(LogDbTest, SqliteWriterTimesAndTruncatesOnlyItsOwnModule) {
  ASSERT_TRUE(QmLogSQLiteProcessor(db(), true).writeLogRecord("other", "kept", 1, 3, "f", 1));
  QmsysEventLogSQLiteWriter writer;
  ASSERT_TRUE(writer.setParameter("DBFileName", db()));
  const time_t before = time(nullptr);
  ASSERT_TRUE(writer("agent", Writer::LEVEL_WARN, "now", 12, "w.cpp", 0));
  ASSERT_TRUE(writer("agent", Writer::LEVEL_FATAL, "then", 1, nullptr, 1234));
  QmLogSQLiteProcessor reader(db(), true);
  Db::EntrySet rows;
  ASSERT_TRUE(reader.readLogRecord(rows, "agent", std::string()));
  ASSERT_EQ(2u, rows.size());
  EXPECT_TRUE(rows[0].level == 4 && rows[0].time >= before && rows[0].time <= time(nullptr));
  EXPECT_TRUE(rows[1].level == 7 && rows[1].time == 1234);
  // The table of each module the writer stores is emptied before its next line, once.
  ASSERT_TRUE(writer.setParameter("truncate", "1"));
  for (const char* text : {"first", "second"})
    ASSERT_TRUE(writer("agent.bin", Writer::LEVEL_INFO, text, 1, "f", 0));
  EXPECT_EQ((std::vector<std::string>{"first", "second"}), Messages(reader, "agent"));
  EXPECT_EQ(std::vector<std::string>{"kept"}, Messages(reader, "other"));
}

}  // namespace
