#include <sqlite3.h>

#include <chrono>
#include <ctime>
#include <functional>
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

// A default filter changed by `set`.
Filter With(const std::function<void(Filter&)>& set) {
  Filter filter;
  set(filter);
  return filter;
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

TEST(LogDbText, TableNamesConditionsAndPageCounts) {
  EXPECT_EQ("my_module_x_1", Db::convModuleName2TableName("my.module-x 1"));
  EXPECT_EQ(" LIMIT -1 OFFSET 0 ", Db::getSQLCondition(Filter()));
  EXPECT_EQ(" LIMIT -1 OFFSET 0 ",
            Db::getSQLCondition(With([](Filter& f) { f.limit = 0, f.offset = -5; })));
  EXPECT_EQ(" LIMIT 7 OFFSET 3 ",
            Db::getSQLCondition(With([](Filter& f) { f.limit = 7, f.offset = 3; })));
  EXPECT_EQ("WHERE  timestamp>=100 ORDER BY level LIMIT -1 OFFSET 0 ",
            Db::getSQLCondition(With([](Filter& f) { f.startTime = 100, f.sortByLevel = true; })));
  EXPECT_EQ(
      "WHERE module IN ('a', 'b') AND level IN (3, 5) AND message LIKE '%x%' AND level = 2 "
      " AND timestamp>=100 AND tempcol LIKE '11/%' ORDER BY timestamp DESC, module, level"
      " LIMIT 10 OFFSET 20 ",
      Db::getSQLCondition(With([](Filter& f) {
        f.modules = {"a", "b"}, f.levels = {3, 5}, f.messagePattern = "%x%", f.level = 2;
        f.startTime = 100, f.datePattern = "11/%", f.limit = 10, f.offset = 20;
        f.sortByTimeDesc = f.sortByModule = f.sortByLevel = true;
      })));
  const std::string count =
      "SELECT  strftime('%m/%d/%Y %H:%M:%S',timestamp,'unixepoch','localtime') entry_time, "
      "message, level,'4','5',COUNT(*) as records,'7' FROM t ";
  EXPECT_EQ(count + ";", Db::getPageCountSQL("t", 0, "", ""));
  EXPECT_EQ(count + "WHERE level=3 AND message LIKE '%a%' ;",
            Db::getPageCountSQL("t", 3, "%a%", ""));
  EXPECT_EQ(count + "WHERE entry_time LIKE '11/%' ;", Db::getPageCountSQL("t", 0, "", "11/%"));
}

class LogDbTest : public ::testing::Test {
 protected:
  std::string db() const { return m_dir.file("log.db"); }
  LogTempDir m_dir;
};

TEST_F(LogDbTest, RowsRoundTripAndFilter) {
  QmLogSQLiteProcessor processor(db(), true);
  const time_t base = 1700000000;
  for (int i = 0; i < 5; ++i)
    ASSERT_TRUE(processor.writeLogRecord("other.mod", "m" + std::to_string(i), base + i, 1 + i,
                                         "src.cpp", 10 * i))
        << processor.getDBString();
  EXPECT_TRUE(processor.isTableExists("other_mod"));
  Db::EntrySet rows;
  ASSERT_TRUE(processor.readLogRecord(rows, "other.mod", Filter()));
  ASSERT_EQ(5u, rows.size());
  const auto& row = rows[3];
  EXPECT_EQ("other.mod|1700000003|4|30|src.cpp", row.module + "|" + std::to_string(row.time) + "|" +
                                                     std::to_string(row.level) + "|" +
                                                     std::to_string(row.line) + "|" + row.srcfile);
  using Texts = std::vector<std::string>;
  EXPECT_EQ((Texts{"m3", "m1"}), Messages(processor, "other.mod", With([](Filter& f) {
                                            f.levels = {2, 4}, f.sortByTimeDesc = true;
                                          })));
  EXPECT_EQ(Texts{"m2"}, Messages(processor, "other.mod",
                                  With([&](Filter& f) { f.datePattern = LogStampOf(base + 2); })));
  EXPECT_EQ(3, processor.getNumberOfPages("other.mod", 2, 0, "", ""));
  EXPECT_EQ(1, processor.getNumberOfPages("other.mod", 2, 4, "", ""));
  EXPECT_EQ(1, processor.getNumberOfPages("other.mod", 10, 0, "%1", ""));
}

TEST_F(LogDbTest, TablesAreRegisteredOnceAndStaleOnesReplaced) {
  RawExec(db(), "CREATE TABLE a_b (junk TEXT); INSERT INTO a_b VALUES ('stale');");
  {
    QmLogSQLiteProcessor processor(db(), true);
    ASSERT_TRUE(processor.writeLogRecord("a-b", "first", 1, 3, "f", 1)) << processor.getDBString();
  }
  QmLogSQLiteProcessor processor(db(), true);  // the registration survives reopening
  ASSERT_TRUE(processor.writeLogRecord("a-b", "second", 2, 3, "f", 2));
  EXPECT_EQ((std::vector<std::string>{"first", "second"}), Messages(processor, "a-b"));
  Db::EntrySet registered;
  ASSERT_TRUE(processor.executeSelectQuery(
      "SELECT id, table_name FROM metatable WHERE module_name='a-b';", registered));
  EXPECT_EQ(1u, registered.size());
  ASSERT_TRUE(processor.cleanModuleTable("a-b"));
  EXPECT_TRUE(Messages(processor, "a-b").empty());
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
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(processor.writeLogRecord("agent", "after", 2, 3, "f", 2)) << processor.getDBString();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  holder.join();
  EXPECT_EQ(2u, Messages(processor, "agent").size());
}

TEST_F(LogDbTest, UnusableDatabaseThrowsOrFails) {
  EXPECT_THROW(QmLogSQLiteProcessor(m_dir.file("missing/dir/log.db"), true),
               QmDBProcessorFatalException);
  QmLogSQLiteProcessor unopened(db(), false);
  EXPECT_FALSE(unopened.writeLogRecord("agent", "x", 1, 1, "f", 1));
  EXPECT_NE(0, unopened.getDBError());
  SystemLogCapture capture;
  QmsysEventLogSQLiteWriter bad;
  EXPECT_FALSE(bad.setDbFileName(m_dir.file("no/such/dir.db")));
  EXPECT_FALSE(bad("agent", QmsysEventLogWriterInterface::LEVEL_INFO, "x", 1, "f", 0));
  EXPECT_TRUE(capture.contains("QmsysEventLogSQLiteWriter::setDbFileName", ""));
}

TEST_F(LogDbTest, SqliteWriterTimesAndTruncates) {
  QmsysEventLogSQLiteWriter writer;
  ASSERT_TRUE(writer.setParameter("DBFileName", db()));
  const time_t before = time(nullptr);
  ASSERT_TRUE(writer("agent", QmsysEventLogWriterInterface::LEVEL_WARN, "now", 12, "w.cpp", 0));
  ASSERT_TRUE(writer("agent", QmsysEventLogWriterInterface::LEVEL_FATAL, "then", 1, nullptr, 1234));
  QmLogSQLiteProcessor reader(db(), true);
  Db::EntrySet rows;
  ASSERT_TRUE(reader.readLogRecord(rows, "agent", std::string()));
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ(4, rows[0].level);
  EXPECT_TRUE(rows[0].time >= before && rows[0].time <= time(nullptr)) << rows[0].time;
  EXPECT_EQ(1234, rows[1].time);
  EXPECT_EQ(7, rows[1].level);
  ASSERT_TRUE(writer.setParameter("truncate", "1"));
  EXPECT_TRUE(Messages(reader, "agent").empty());
}

}  // namespace
