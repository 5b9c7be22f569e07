#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>

#include <gtest/gtest.h>

#include "QmDBProcessorFatalException.h"
#include "QmLogSQLiteProcessor.h"
#include "QmsysEventLogSQLiteWriter.h"
#include "log_test_util.h"

namespace {

using Filter = QmLogDBProcessorInterface::ReadLogFilter;
using EntrySet = QmLogDBProcessorInterface::EntrySet;

const char* const kCountPrefix =
    "SELECT  strftime('%m/%d/%Y %H:%M:%S',timestamp,'unixepoch','localtime') entry_time, "
    "message, level,'4','5',COUNT(*) as records,'7' FROM ";

// Runs one statement on its own connection, outside the processor.
void RawExec(const std::string& db, const std::string& sql) {
  sqlite3* handle = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(db.c_str(), &handle));
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, nullptr)) << sql;
  sqlite3_close(handle);
}

std::string LocalText(time_t time) {
  struct tm local {};
  localtime_r(&time, &local);
  char text[32];
  strftime(text, sizeof(text), "%m/%d/%Y %H:%M:%S", &local);
  return text;
}

TEST(LogDbText, TableNamesReplaceDotsSpacesAndDashes) {
  EXPECT_EQ("my_module_x_1", QmLogDBProcessorInterface::convModuleName2TableName("my.module-x 1"));
  EXPECT_EQ("plain", QmLogDBProcessorInterface::convModuleName2TableName("plain"));
}

TEST(LogDbText, ConditionWithoutFiltersIsOnlyPaging) {
  Filter filter;
  EXPECT_EQ(" LIMIT -1 OFFSET 0 ", QmLogDBProcessorInterface::getSQLCondition(filter));
  filter.limit = 0;
  filter.offset = -5;
  EXPECT_EQ(" LIMIT -1 OFFSET 0 ", QmLogDBProcessorInterface::getSQLCondition(filter));
  filter.limit = 7;
  filter.offset = 3;
  EXPECT_EQ(" LIMIT 7 OFFSET 3 ", QmLogDBProcessorInterface::getSQLCondition(filter));
}

TEST(LogDbText, ConditionJoinsEveryFilterInOrder) {
  Filter filter;
  filter.modules = {"a", "b"};
  filter.levels = {3, 5};
  filter.messagePattern = "%x%";
  filter.level = 2;
  filter.startTime = 100;
  filter.datePattern = "11/%";
  filter.sortByTimeDesc = filter.sortByModule = filter.sortByLevel = true;
  filter.limit = 10;
  filter.offset = 20;
  EXPECT_EQ(
      "WHERE module IN ('a', 'b') AND level IN (3, 5) AND message LIKE '%x%' AND level = 2 "
      " AND timestamp>=100 AND tempcol LIKE '11/%' ORDER BY timestamp DESC, module, level"
      " LIMIT 10 OFFSET 20 ",
      QmLogDBProcessorInterface::getSQLCondition(filter));
}

TEST(LogDbText, StartTimeAsFirstConditionHasNoAnd) {
  Filter filter;
  filter.startTime = 100;
  filter.sortByLevel = true;
  EXPECT_EQ("WHERE  timestamp>=100 ORDER BY level LIMIT -1 OFFSET 0 ",
            QmLogDBProcessorInterface::getSQLCondition(filter));
}

TEST(LogDbText, PageCountSelect) {
  EXPECT_EQ(std::string(kCountPrefix) + "t ;",
            QmLogDBProcessorInterface::getPageCountSQL("t", 0, "", ""));
  EXPECT_EQ(std::string(kCountPrefix) + "t WHERE level=3 AND message LIKE '%a%' ;",
            QmLogDBProcessorInterface::getPageCountSQL("t", 3, "%a%", ""));
  EXPECT_EQ(std::string(kCountPrefix) + "t WHERE entry_time LIKE '11/%' ;",
            QmLogDBProcessorInterface::getPageCountSQL("t", 0, "", "11/%"));
}

class LogDbTest : public ::testing::Test {
 protected:
  std::string db() const { return m_dir.file("log.db"); }
  LogTempDir m_dir;
};

TEST_F(LogDbTest, RowsRoundTripWithTheirFields) {
  QmLogSQLiteProcessor processor(db(), true);
  ASSERT_TRUE(processor.isDatabaseInitialized());
  const time_t base = 1700000000;
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(processor.writeLogRecord("other.mod", "message " + std::to_string(i), base + i,
                                         1 + i, "src.cpp", 10 * i))
        << processor.getDBString();
  }
  EXPECT_TRUE(processor.isTableExists("other_mod"));

  EntrySet rows;
  ASSERT_TRUE(processor.readLogRecord(rows, "other.mod", Filter()));
  ASSERT_EQ(5u, rows.size());
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ("other.mod", rows[i].module);
    EXPECT_EQ(base + i, rows[i].time);
    EXPECT_EQ(1 + i, rows[i].level);
    EXPECT_EQ("message " + std::to_string(i), rows[i].message);
    EXPECT_EQ(10 * i, rows[i].line);
    EXPECT_EQ("src.cpp", rows[i].srcfile);
  }

  Filter filter;
  filter.levels = {2, 4};
  filter.sortByTimeDesc = true;
  rows.free();
  ASSERT_TRUE(processor.readLogRecord(rows, "other.mod", filter));
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ("message 3", rows[0].message);
  EXPECT_EQ("message 1", rows[1].message);

  filter = Filter();
  filter.limit = 2;
  filter.offset = 3;
  rows.free();
  ASSERT_TRUE(processor.readLogRecord(rows, "other.mod", filter));
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ("message 3", rows[0].message);

  filter = Filter();
  filter.datePattern = LocalText(base + 2);
  rows.free();
  ASSERT_TRUE(processor.readLogRecord(rows, "other.mod", filter)) << processor.getDBString();
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("message 2", rows[0].message);

  EXPECT_EQ(3, processor.getNumberOfPages("other.mod", 2, 0, "", ""));
  EXPECT_EQ(1, processor.getNumberOfPages("other.mod", 2, 4, "", ""));
  EXPECT_EQ(1, processor.getNumberOfPages("other.mod", 10, 0, "%age 1", ""));
}

TEST_F(LogDbTest, RegistrationSurvivesReopening) {
  {
    QmLogSQLiteProcessor processor(db(), true);
    ASSERT_TRUE(processor.writeLogRecord("a-b", "first", 1, 3, "f", 1));
  }
  QmLogSQLiteProcessor processor(db(), true);
  ASSERT_TRUE(processor.writeLogRecord("a-b", "second", 2, 3, "f", 2));
  EntrySet rows;
  ASSERT_TRUE(processor.readLogRecord(rows, "a-b", std::string()));
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ("first", rows[0].message);
  EXPECT_EQ("second", rows[1].message);

  ASSERT_TRUE(processor.cleanModuleTable("a-b"));
  rows.free();
  ASSERT_TRUE(processor.readLogRecord(rows, "a-b", std::string()));
  EXPECT_TRUE(rows.empty());
}

TEST_F(LogDbTest, StaleTableOfTheSameNameIsDroppedOnFirstUse) {
  RawExec(db(), "CREATE TABLE agent (junk TEXT); INSERT INTO agent VALUES ('stale');");
  QmLogSQLiteProcessor processor(db(), true);
  ASSERT_TRUE(processor.writeLogRecord("agent", "fresh", 5, 3, "f", 7)) << processor.getDBString();
  EntrySet rows;
  ASSERT_TRUE(processor.readLogRecord(rows, "agent", std::string()));
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ("fresh", rows[0].message);

  EntrySet registered;
  ASSERT_TRUE(processor.executeSelectQuery(
      "SELECT id, table_name FROM metatable WHERE module_name='agent';", registered));
  ASSERT_EQ(1u, registered.size());
  EXPECT_EQ("agent", registered[0].module);
}

TEST_F(LogDbTest, WaitsForAnotherProcessHoldingTheDatabase) {
  QmLogSQLiteProcessor processor(db(), true);
  ASSERT_TRUE(processor.writeLogRecord("agent", "before", 1, 3, "f", 1));

  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    sqlite3* handle = nullptr;
    sqlite3_open(db().c_str(), &handle);
    const int rc = sqlite3_exec(handle, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr);
    const char flag = rc == SQLITE_OK ? 'y' : 'n';
    (void)!write(ready[1], &flag, 1);
    usleep(600 * 1000);
    sqlite3_exec(handle, "COMMIT;", nullptr, nullptr, nullptr);
    sqlite3_close(handle);
    _exit(0);
  }
  char flag = 0;
  ASSERT_EQ(1, read(ready[0], &flag, 1));
  ASSERT_EQ('y', flag);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(processor.writeLogRecord("agent", "after", 2, 3, "f", 2)) << processor.getDBString();
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(200));
  int status = 0;
  waitpid(child, &status, 0);
  close(ready[0]);
  close(ready[1]);

  EntrySet rows;
  ASSERT_TRUE(processor.readLogRecord(rows, "agent", std::string()));
  EXPECT_EQ(2u, rows.size());
}

TEST_F(LogDbTest, UnusableDatabaseThrowsWithCode) {
  try {
    QmLogSQLiteProcessor processor(m_dir.file("missing/dir/log.db"), true);
    FAIL() << "opening a database in a missing directory succeeded";
  } catch (const QmDBProcessorFatalException& e) {
    EXPECT_NE(0, e.getErrorCode());
    EXPECT_FALSE(e.getMessage().empty());
  }
  QmLogSQLiteProcessor unopened(db(), false);
  EXPECT_FALSE(unopened.isDatabaseOpened());
  EXPECT_FALSE(unopened.writeLogRecord("agent", "x", 1, 1, "f", 1));
  EXPECT_NE(0, unopened.getDBError());
  unopened.clearDBError();
  EXPECT_EQ(0, unopened.getDBError());
}

TEST_F(LogDbTest, SqliteWriterStoresUnderProcessNameUpToFirstDot) {
  QmsysEventLogSQLiteWriter writer;
  EXPECT_FALSE(writer.isInitialized());
  EXPECT_FALSE(writer("agent.bin", QmsysEventLogWriterInterface::LEVEL_WARN, "x", 1, "f", 0));
  ASSERT_TRUE(writer.setParameter("DBFileName", db()));
  ASSERT_TRUE(writer.isInitialized());

  const time_t before = time(nullptr);
  ASSERT_TRUE(
      writer("agent.bin.x", QmsysEventLogWriterInterface::LEVEL_WARN, "careful", 12, "w.cpp", 0));
  ASSERT_TRUE(
      writer("agent.bin", QmsysEventLogWriterInterface::LEVEL_FATAL, "fixed", 1, nullptr, 1234));

  QmLogSQLiteProcessor reader(db(), true);
  EntrySet rows;
  ASSERT_TRUE(reader.readLogRecord(rows, "agent", std::string()));
  ASSERT_EQ(2u, rows.size());
  EXPECT_EQ("agent", rows[0].module);
  EXPECT_EQ(4, rows[0].level);
  EXPECT_EQ("careful", rows[0].message);
  EXPECT_EQ(12, rows[0].line);
  EXPECT_GE(rows[0].time, before);
  EXPECT_LE(rows[0].time, time(nullptr));
  EXPECT_EQ(1234, rows[1].time);
  EXPECT_EQ(7, rows[1].level);

  ASSERT_TRUE(writer.setParameter("truncate", "1"));
  rows.free();
  ASSERT_TRUE(reader.readLogRecord(rows, "agent", std::string()));
  EXPECT_TRUE(rows.empty());
}

TEST_F(LogDbTest, SqliteWriterOnBadPathStaysUninitialised) {
  SystemLogCapture capture;
  QmsysEventLogSQLiteWriter writer;
  EXPECT_FALSE(writer.setDbFileName(m_dir.file("no/such/dir.db")));
  EXPECT_FALSE(writer.isInitialized());
  EXPECT_FALSE(writer("agent", QmsysEventLogWriterInterface::LEVEL_INFO, "x", 1, "f", 0));
  EXPECT_TRUE(capture.contains("QmsysEventLogSQLiteWriter::setDbFileName", ""));
}

}  // namespace
