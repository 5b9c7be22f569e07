#include <sqlite3.h>

#include <chrono>
#include <ctime>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "QmDBProcessorFatalException.h"
#include "QmLogSQLiteProcessor.h"
#include "QmsysEventLogSQLiteWriter.h"
#include "log_test_util.h"

namespace {

using Db = QmLogDBProcessorInterface;
using Filter = Db::ReadLogFilter;

// Runs one statement on a connection of its own.
void RawExec(const std::string& db, const std::string& sql) {
  sqlite3* handle = nullptr;
  sqlite3_open(db.c_str(), &handle);
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr)) << sql;
  sqlite3_close(handle);
}

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
      {Filter(), " LIMIT -1 OFFSET 0 "},
      {{{}, {}, "", 0, 0, "", false, false, false, 0, -5}, " LIMIT -1 OFFSET 0 "},
      {{{}, {}, "", 0, 0, "", false, false, false, 7, 3}, " LIMIT 7 OFFSET 3 "},
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
  RawExec(db(), "CREATE TABLE other_mod (junk TEXT); INSERT INTO other_mod VALUES ('stale');");
  const time_t base = 1700000000;
  auto write = [&](auto&& db, int i) {
    return db.writeLogRecord("other.mod", "m" + std::to_string(i), base + i, 1 + i, "src.cpp",
                             10 * i);
  };
  ASSERT_TRUE(write(QmLogSQLiteProcessor(db(), true), 0));
  QmLogSQLiteProcessor processor(db(), true);  // the registration survives reopening
  for (int i = 1; i < 5; ++i) ASSERT_TRUE(write(processor, i)) << processor.getDBString();
  EXPECT_TRUE(processor.isTableExists("other_mod"));
  Db::EntrySet rows;
  ASSERT_TRUE(processor.readLogRecord(rows, "other.mod", Filter()));
  ASSERT_EQ(5u, rows.size());
  const auto& r = rows[3];
  EXPECT_TRUE(r.module == "other.mod" && r.time == base + 3 && r.level == 4 && r.line == 30 &&
              r.srcfile == "src.cpp");
  using Texts = std::vector<std::string>;
  EXPECT_EQ((Texts{"m3", "m1"}),
            Messages(processor, "other.mod", {{}, {2, 4}, "", 0, 0, "", true, false, false, 0, 0}));
  EXPECT_EQ(Texts{"m2"},
            Messages(processor, "other.mod",
                     {{}, {}, "", 0, 0, LogStampOf(base + 2), false, false, false, 0, 0}));
  EXPECT_EQ(3, processor.getNumberOfPages("other.mod", 2, 0, "", ""));
  EXPECT_EQ(1, processor.getNumberOfPages("other.mod", 2, 4, "", ""));
  EXPECT_EQ(1, processor.getNumberOfPages("other.mod", 1, 0, "m3", LogStampOf(base + 3)));
  // A module whose table name is taken gets a table of its own.
  ASSERT_TRUE(processor.writeLogRecord("other-mod", "own", base, 1, "f", 1));
  EXPECT_EQ("other_mod_2", processor.getTableName("other-mod"));
  QmLogSQLiteProcessor early(db(), true);  // learns of "late" from the metatable
  ASSERT_TRUE(processor.writeLogRecord("late", "x", base, 1, "f", 1));
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
  EXPECT_NE(0, unopened.getDBError());

  SystemLogCapture capture;
  QmsysEventLogSQLiteWriter writer;
  EXPECT_FALSE(writer.setDbFileName(m_dir.file("plain/sub/log.db")));
  EXPECT_TRUE(writer.isInitialized());  // configured: each line tries again
  EXPECT_FALSE(writer("agent", QmsysEventLogWriterInterface::LEVEL_INFO, "x", 1, "f", 0));
  EXPECT_EQ(1u, capture.count("QmsysEventLogSQLiteWriter::setDbFileName", ""));
  EXPECT_EQ(0u, capture.count("QmsysEventLogSQLiteWriter::setDbFileName", "Unknown error"));
  std::filesystem::remove(m_dir.file("plain"));  // the folder can be made now
  EXPECT_TRUE(writer("agent", QmsysEventLogWriterInterface::LEVEL_INFO, "y", 1, "f", 0));
  QmLogSQLiteProcessor written(m_dir.file("plain/sub/log.db"), true);
  EXPECT_EQ(std::vector<std::string>{"y"}, Messages(written, "agent"));
}

TEST_F(LogDbTest, SqliteWriterTimesAndTruncatesOnlyItsOwnModule) {
  ASSERT_TRUE(QmLogSQLiteProcessor(db(), true).writeLogRecord("other", "kept", 1, 3, "f", 1));
  QmsysEventLogSQLiteWriter writer;
  ASSERT_TRUE(writer.setParameter("DBFileName", db()));
  const time_t before = time(nullptr);
  ASSERT_TRUE(writer("agent", QmsysEventLogWriterInterface::LEVEL_WARN, "now", 12, "w.cpp", 0));
  ASSERT_TRUE(writer("agent", QmsysEventLogWriterInterface::LEVEL_FATAL, "then", 1, nullptr, 1234));
  QmLogSQLiteProcessor reader(db(), true);
  Db::EntrySet rows;
  ASSERT_TRUE(reader.readLogRecord(rows, "agent", std::string()));
  ASSERT_EQ(2u, rows.size());
  EXPECT_TRUE(rows[0].level == 4 && rows[0].time >= before && rows[0].time <= time(nullptr));
  EXPECT_TRUE(rows[1].level == 7 && rows[1].time == 1234);
  // The table of each module the writer stores is emptied before its next line, once.
  ASSERT_TRUE(writer.setParameter("truncate", "1"));
  for (const char* text : {"first", "second"})
    ASSERT_TRUE(writer("agent.bin", QmsysEventLogWriterInterface::LEVEL_INFO, text, 1, "f", 0));
  EXPECT_EQ((std::vector<std::string>{"first", "second"}), Messages(reader, "agent"));
  EXPECT_EQ(std::vector<std::string>{"kept"}, Messages(reader, "other"));
}

}  // namespace
