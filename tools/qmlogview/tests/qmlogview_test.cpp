// The viewer program against log databases written by the log database
// processor or by a logger configured for SQLite: its command line, tables,
// pages, escaping and refusals, following a database, another user's database.

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "../../../runtime/tests/log_test_util.h"
#include "../../oapsim/tests/child_process.h"
#include "LogViewer.h"
#include "QmLogSQLiteProcessor.h"
#include "QmsysEventLogInterface.h"

namespace {

TEST(LogViewOptionsTest, RefusesBadValuesCombinationsAndQuotesThatWouldReachSql) {
  for (const char* line :
       {"--level loud", "--levels 4,,5", "--page 0", "--page-size -1", "--sort size",
        "--since yesterday", "--bogus", "--page", "--json=1", "--config dir", "--logger l",
        "--level 4 --levels 5", "--follow --list-modules", "--message o'clock", "--module o'"}) {
    SCOPED_TRACE(line);
    std::istringstream words(std::string("--db x.db ") + line);
    ChildProcess refused(QMLOGVIEW_PATH, {std::istream_iterator<std::string>(words), {}});
    EXPECT_EQ(refused.Finish(), LogViewer::EXIT_USAGE);
    EXPECT_FALSE(refused.err.empty());
    EXPECT_TRUE(!strchr(line, '\'') || refused.err.find("single quote") != std::string::npos);
  }
}

// The table as the viewer writes it: 19-character time, module padded to
// the widest module shown (at least 6), level padded to 8. Rows are
// {time of 2023-11-14, module, level, message}.
std::string Table(size_t width, const std::vector<std::vector<std::string>>& rows,
                  const std::string& footer = "Page 1 of 1\n") {
  std::string text =
      "TIME                 MODULE" + std::string(width - 6, ' ') + "  LEVEL     MESSAGE\n";
  for (const auto& r : rows) {
    text += "2023-11-14 " + r[0] + "  " + r[1] + std::string(width - r[1].size(), ' ') + "  " +
            r[2] + std::string(8 - r[2].size(), ' ') + "  " + r[3] + "\n";
  }
  return text + footer;
}

const time_t kBase = 1700000000;  // 2023-11-14 22:13:20 UTC

class LogViewTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("TZ", "UTC", 1); }  // the viewer shows times in UTC

  // agent: INFO started, WARN disk low, ERROR write failed, DEBUG tick and
  // tock at +0, +60, +120, +180 s; web.front-1: CRITICAL at +30, INFO at +90.
  void WriteSample() {
    QmLogSQLiteProcessor db(m_db, true);
    const std::vector<std::tuple<const char*, const char*, int, int>> entries{
        {"agent", "started", 0, 3},        {"agent", "disk low", 60, 4},
        {"agent", "write failed", 120, 5}, {"agent", "tick", 180, 2},
        {"agent", "tock", 180, 2},         {"web.front-1", "no route", 30, 6},
        {"web.front-1", "request", 90, 3}};
    for (const auto& [module, message, at, level] : entries) {
      ASSERT_TRUE(db.writeLogRecord(module, message, kBase + at, level, "src.cpp", at));
    }
  }

  // One run of the viewer and what it must print, its exit status and a
  // text its error stream must hold.
  struct Run {
    std::vector<std::string> args;
    std::string out;
    int code = 0;
    std::string errorHas = "";
  };
  // The test's database is read unless the run names its own (--db or --config).
  void Expect(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
      std::vector<std::string> args = run.args;
      if (args.empty() || (args[0] != "--db" && args[0] != "--config")) {
        args.insert(args.begin(), {"--db", m_db});
      }
      SCOPED_TRACE(args.back());
      ChildProcess result(QMLOGVIEW_PATH, args);
      EXPECT_EQ(result.Finish(), run.code) << result.err;
      EXPECT_EQ(result.out, run.out);
      EXPECT_NE(result.err.find(run.errorHas), std::string::npos) << result.err;
    }
  }

  LogTempDir m_folder;
  const std::string m_db = m_folder.file("log.db");
};

// Pages cut all modules as one list; entries of one second are ordered by
// when they were stored.
TEST_F(LogViewTest, ListsFiltersSortsAndPagesAllModulesAsOneList) {
  WriteSample();
  const std::vector<std::string> tick{"22:16:20", "agent", "DEBUG", "tick"};
  const std::vector<std::string> tock{"22:16:20", "agent", "DEBUG", "tock"};
  const std::vector<std::string> failed{"22:15:20", "agent", "ERROR", "write failed"};
  const std::vector<std::string> disk{"22:14:20", "agent", "WARN", "disk low"};
  const std::vector<std::string> started{"22:13:20", "agent", "INFO", "started"};
  const std::vector<std::string> request{"22:14:50", "web.front-1", "INFO", "request"};
  const std::vector<std::string> route{"22:13:50", "web.front-1", "CRITICAL", "no route"};
  const size_t w = 11;
  Expect({
      {{}, Table(w, {tock, tick, failed, request, disk, route, started})},
      {{"--module", "agent", "--level", "warn"}, Table(6, {disk})},
      {{"--sort", "module,level", "--levels", "Information,4,criti"},
       Table(w, {started, disk, request, route})},
      {{"--list-modules"}, "agent\nweb.front-1\n"},
      {{"--page-size", "4", "--page", "2"}, Table(w, {disk, route, started}, "Page 2 of 2\n")},
      {{"--page-size=100000", "--page=1000000000"},
       "",
       1,
       "page 1000000000 is past the last page (1)"},
      {{"--level", "debug", "--sort", "module"}, Table(6, {tick, tock})},
      {{"--module", "agent", "--message", "%fail%"}, Table(6, {failed})},
      {{"--module", "agent", "--since", "2023-11-14 22:15:20"}, Table(6, {tock, tick, failed})},
      {{"--module", "agent", "--date", "11/14/2023 22:14:%"}, Table(6, {disk})},
      {{"--module", "agent", "--message", "nothing like this"}, "No matching log entries.\n"},
  });
}

// Line breaks and control bytes are escaped in both forms. In JSON, UTF-8
// passes and the bytes of an over-long form, a lone continuation byte, a
// truncated sequence and a surrogate are read as ISO-8859-1.
TEST_F(LogViewTest, EntriesStayOnOneLineInTablesAndJson) {
  const std::string odd =
      " \xc3\xa9\xe2\x82\xac\xf0\x9f\x93\x9f \xc0\xaf \x80z \xe2\x82 \xed\xa0\x80";
  ASSERT_TRUE(QmLogSQLiteProcessor(m_db, true)
                  .writeLogRecord("agent", "say \"hi\"\\\nnext\tcaf\xe9\x1f\r/\b\f\x7f" + odd,
                                  kBase, 7, "a\\b.cpp", 3));
  const std::string json =
      "{\"time\":1700000000,\"local_time\":\"2023-11-14 22:13:20\",\"module\":\"agent\","
      "\"level\":7,\"level_name\":\"FATAL\",\"message\":\"say \\\"hi\\\"\\\\\\nnext\\tcaf"
      "\\u00e9\\u001f\\r/\\b\\f\\u007f \xc3\xa9\xe2\x82\xac\xf0\x9f\x93\x9f \\u00c0\\u00af "
      "\\u0080z \\u00e2\\u0082 \\u00ed\\u00a0\\u0080\",\"file\":\"a\\\\b.cpp\",\"line\":3}\n";
  const std::string row = "say \"hi\"\\\\nnext\\tcaf\xe9\\x1F\\r/\\x08\\x0C\\x7F" + odd;
  Expect({{{}, Table(6, {{"22:13:20", "agent", "FATAL", row}})},
          {{"--json"}, json, 0, "Page 1 of 1\n"}});
}

// Entries written by a logger configured for SQLite, read back through the
// logging configuration that names its database.
TEST_F(LogViewTest, ReadsEntriesWrittenByAConfiguredSqliteLogger) {
  const std::string config = m_folder.file("config");
  ASSERT_EQ(mkdir(config.c_str(), 0755), 0);
  const std::string section = "writer=sqlite\nlevel=trace\ndbfilename=" + m_db + "\n";
  LogWriteFile(config + "/qmlogs.ini", "[main]\nviewtest=db_logger\n\n[db_logger]\n" + section);
  QmsysEventLogInterface* logger = QmsysEventLogInterface::CreateInstance(
      "viewtest", QmsysEventLogInterface::SINGLE_THREADED, config, "viewproc.bin");
  ASSERT_NE(logger, nullptr);
  ASSERT_TRUE(logger->Start());
  EXPECT_TRUE(logger->WriteTrace("fine detail", __LINE__, __FILE__));
  logger->Stop();
  QmsysEventLogInterface::ReleaseAll();

  ChildProcess json(QMLOGVIEW_PATH, {"--config", config, "--logger", "db_logger", "--json"});
  EXPECT_EQ(json.Finish(), 0) << json.err;
  EXPECT_NE(json.out.find("\"module\":\"viewproc\",\"level\":1,\"level_name\":\"TRACE\","
                          "\"message\":\"fine detail\""),
            std::string::npos);
  Expect(
      {{{"--config", config, "--logger", "common"}, "", 1, "does not write to an SQLite database"},
       {{"--config", m_folder.file("nowhere")}, "", 1, "cannot read logging configuration"}});
}

TEST_F(LogViewTest, RefusesBadRequestsAndMissingBrokenOrLockedDatabases) {
  Expect({{{}, "", 1, "log database not found: " + m_db}});
  EXPECT_NE(access(m_db.c_str(), F_OK), 0) << "the viewer created the database";
  WriteSample();
  const std::string ghost = "unknown module 'ghost' in " + m_db + " (known: agent, web.front-1)";
  Expect({{{"--module", "agent", "--module", "ghost"}, "", 1, ghost}});
  LogWriteFile(m_db, "this is not a database, just some text long enough to be read");
  Expect({{{}, "", 1, "cannot open log database"}});

  // A rollback-journal database held under an exclusive transaction.
  const std::string locked = m_folder.file("locked.db");
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(locked.c_str(), &holder), SQLITE_OK);
  const auto Exec = [&holder](const char* sql) {
    return sqlite3_exec(holder, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
  };
  ASSERT_TRUE(
      Exec("CREATE TABLE metatable (id INTEGER, module_name VARCHAR(50), table_name VARCHAR(50)); "
           "BEGIN EXCLUSIVE; INSERT INTO metatable VALUES (1, 'a', 'a');"));
  Expect({{{"--db", locked}, "", 1, "log database is locked: " + locked}});
  // Once free it is read, and left in the journal mode it has.
  ASSERT_TRUE(Exec("ROLLBACK"));
  sqlite3_close(holder);
  Expect({{{"--db", locked}, "No matching log entries.\n"}});
  // Byte 18 of the file: 1 for a rollback journal, 2 for a write-ahead log.
  EXPECT_EQ(LogReadFile(locked).at(18), 1);
}

// Without a start time only entries written after the start are shown; with
// one the stored entries from then on come first.
TEST_F(LogViewTest, FollowPrintsNewMatchingEntriesUntilSignalled) {
  QmLogSQLiteProcessor db(m_db, true);
  const std::vector<std::vector<std::string>> fresh{
      {"22:13:31", "agent", "WARN", "first"},
      {"22:13:33", "newcomer", "WARN", "from a new module"},
      {"22:13:34", "agent", "WARN", "last"}};
  for (int signal : {SIGTERM, SIGINT}) {
    ASSERT_TRUE(db.writeLogRecord("agent", "old", kBase, 4, "f", 1));
    ASSERT_TRUE(db.writeLogRecord("agent", "stored", kBase + 10, 4, "f", 2));
    std::vector<std::string> args{"--db", m_db, "--follow", "--interval", "50", "--level", "4"};
    if (signal == SIGINT) args.insert(args.end(), {"--since", std::to_string(kBase + 5)});
    ChildProcess viewer(QMLOGVIEW_PATH, args);
    // The head line comes once the stored entries have been passed over.
    ASSERT_NE(viewer.WaitFor("MESSAGE"), "") << viewer.err;
    // Each entry shown is waited for before the next is written.
    time_t at = kBase + 10;
    for (const std::string text : {"first", "skipped", "from a new module", "last"}) {
      const bool shown = text != "skipped";  // INFO, below the level asked for
      ASSERT_TRUE(db.writeLogRecord(text == "from a new module" ? "newcomer" : "agent", text, ++at,
                                    shown ? 4 : 3, "f", 1));
      EXPECT_TRUE(!shown || viewer.WaitFor(text) != "") << text << " not shown: " << viewer.out;
    }
    viewer.Signal(signal);
    EXPECT_EQ(viewer.Finish(), 0) << viewer.err;
    auto rows = fresh;
    if (signal == SIGINT) rows.insert(rows.begin(), {"22:13:30", "agent", "WARN", "stored"});
    EXPECT_EQ(viewer.out, Table(12, rows, ""));
    ASSERT_TRUE(db.cleanAllModulesTable());
  }
}

// A database in a folder the viewer's user may not write: read with its
// writer's open write-ahead log, and as stored once the writer is gone.
// Run as the user "nobody" when the test runs as root.
TEST_F(LogViewTest, ReadsADatabaseOfAnotherUser) {
  const bool root = geteuid() == 0;
  std::vector<std::string> args{QMLOGVIEW_PATH, "--db", m_db, "--module", "agent"};
  if (root) args.insert(args.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups"});
  const std::string table =
      Table(6, {{"22:13:21", "agent", "INFO", "second"}, {"22:13:20", "agent", "INFO", "first"}});
  auto writer = std::make_unique<QmLogSQLiteProcessor>(m_db, true);
  ASSERT_TRUE(writer->writeLogRecord("agent", "first", kBase, 3, "f", 1));
  ASSERT_TRUE(writer->writeLogRecord("agent", "second", kBase + 1, 3, "f", 2));
  // Alongside its writer, then alone.
  for (const std::string warning : {"", "showing it as stored on disk"}) {
    chmod(m_folder.path().c_str(), root ? 0755 : 0555);
    ChildProcess run(root ? "/usr/bin/setpriv" : QMLOGVIEW_PATH,
                     {args.begin() + !root, args.end()});
    EXPECT_EQ(run.Finish(), 0) << run.err;
    EXPECT_EQ(run.out, table);
    EXPECT_TRUE(warning.empty() ? run.err.empty() : run.err.find(warning) != std::string::npos)
        << run.err;
    chmod(m_folder.path().c_str(), 0755);
    writer.reset();
  }
}

}  // namespace
