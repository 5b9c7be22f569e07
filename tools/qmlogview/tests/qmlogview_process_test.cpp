// The qmlogview program run as a child process against log databases
// written by the log database processor and by a configured logger.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "QmLogSQLiteProcessor.h"
#include "QmsysEventLogInterface.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
const int kRunLimitMs = 20000;

int MillisLeft(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// qmlogview as a child with its output and error streams on pipes. Killed
// on destruction if still running.
class Viewer {
 public:
  explicit Viewer(const std::vector<std::string>& args) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    std::vector<std::string> all = {QMLOGVIEW_PATH};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& arg : all) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    if (posix_spawn(&m_pid, QMLOGVIEW_PATH, &actions, nullptr, argv.data(), environ) != 0) {
      m_pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    m_out = out[0];
    m_err = err[0];
  }

  ~Viewer() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
    if (m_out >= 0) close(m_out);
    if (m_err >= 0) close(m_err);
  }

  // Reads both streams until `stdoutHas` shows up on the output (or, with
  // an empty text, until both streams end) or the time is up.
  bool Pump(const std::string& stdoutHas, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
      if (!stdoutHas.empty() && out.find(stdoutHas) != std::string::npos) return true;
      if (m_out < 0 && m_err < 0) return stdoutHas.empty();
      pollfd fds[2] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
      if (poll(fds, 2, MillisLeft(deadline)) <= 0) return false;
      Drain(fds[0], m_out, out);
      Drain(fds[1], m_err, err);
    }
  }

  // Waits for the exit code; -1 when it does not end in time.
  int Finish(int timeoutMs = kRunLimitMs) {
    if (!Pump("", timeoutMs)) return -1;
    int status = 0;
    if (waitpid(m_pid, &status, 0) != m_pid) return -1;
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  void Signal(int number) { kill(m_pid, number); }

  std::string out;
  std::string err;

 private:
  static void Drain(const pollfd& fd, int& handle, std::string& text) {
    if (handle < 0 || (fd.revents & (POLLIN | POLLHUP | POLLERR)) == 0) return;
    char chunk[4096];
    const ssize_t n = read(handle, chunk, sizeof chunk);
    if (n > 0) {
      text.append(chunk, static_cast<size_t>(n));
    } else {
      close(handle);
      handle = -1;
    }
  }

  pid_t m_pid = -1;
  int m_out = -1;
  int m_err = -1;
};

struct Result {
  int code;
  std::string out;
  std::string err;
};

Result RunViewer(const std::vector<std::string>& args) {
  Viewer viewer(args);
  const int code = viewer.Finish();
  return {code, viewer.out, viewer.err};
}

// Table rows as the viewer writes them: 19-character time, module padded
// to the widest module shown (at least 6), level padded to 8.
std::string Row(const std::string& time, const std::string& module, size_t width,
                const std::string& level, const std::string& message) {
  return time + "  " + module + std::string(width - module.size(), ' ') + "  " + level +
         std::string(8 - level.size(), ' ') + "  " + message + "\n";
}

std::string Head(size_t width) {
  return "TIME                 MODULE" + std::string(width - 6, ' ') + "  LEVEL     MESSAGE\n";
}

// 2023-11-14 22:13:20 UTC.
const time_t kBase = 1700000000;

class LogViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);  // inherited by the viewer
    char pattern[] = "/tmp/qmlogview_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    m_dir = pattern;
    m_db = m_dir + "/log.db";
  }
  void TearDown() override { std::system(("rm -rf '" + m_dir + "'").c_str()); }

  // agent: INFO started, WARN disk low, ERROR write failed, DEBUG tick, at
  // base, +60, +120, +180; web.front-1: CRITICAL at +30, INFO at +90.
  void WriteSample() {
    QmLogSQLiteProcessor db(m_db, true);
    ASSERT_TRUE(db.writeLogRecord("agent", "started", kBase, 3, "agent.cpp", 10));
    ASSERT_TRUE(db.writeLogRecord("agent", "disk low", kBase + 60, 4, "agent.cpp", 11));
    ASSERT_TRUE(db.writeLogRecord("agent", "write failed", kBase + 120, 5, "agent.cpp", 12));
    ASSERT_TRUE(db.writeLogRecord("agent", "tick", kBase + 180, 2, "agent.cpp", 13));
    ASSERT_TRUE(db.writeLogRecord("web.front-1", "no route", kBase + 30, 6, "web.cpp", 5));
    ASSERT_TRUE(db.writeLogRecord("web.front-1", "request", kBase + 90, 3, "web.cpp", 6));
  }

  std::vector<std::string> Args(std::vector<std::string> more) {
    more.insert(more.begin(), {"--db", m_db});
    return more;
  }

  std::string m_dir;
  std::string m_db;
};

TEST_F(LogViewTest, ListsAndSortsEveryModuleInAnAlignedTable) {
  WriteSample();
  const Result r = RunViewer(Args({}));
  ASSERT_EQ(r.code, 0) << r.err;
  const size_t w = std::string("web.front-1").size();
  EXPECT_EQ(r.out, Head(w) + Row("2023-11-14 22:16:20", "agent", w, "DEBUG", "tick") +
                       Row("2023-11-14 22:15:20", "agent", w, "ERROR", "write failed") +
                       Row("2023-11-14 22:14:50", "web.front-1", w, "INFO", "request") +
                       Row("2023-11-14 22:14:20", "agent", w, "WARN", "disk low") +
                       Row("2023-11-14 22:13:50", "web.front-1", w, "CRITICAL", "no route") +
                       Row("2023-11-14 22:13:20", "agent", w, "INFO", "started") + "Page 1 of 1\n");
  const Result sorted = RunViewer(Args({"--sort", "module,level", "--levels", "3,4,6"}));
  EXPECT_EQ(sorted.out, Head(w) + Row("2023-11-14 22:13:20", "agent", w, "INFO", "started") +
                            Row("2023-11-14 22:14:20", "agent", w, "WARN", "disk low") +
                            Row("2023-11-14 22:14:50", "web.front-1", w, "INFO", "request") +
                            Row("2023-11-14 22:13:50", "web.front-1", w, "CRITICAL", "no route") +
                            "Page 1 of 1\n");
  const Result modules = RunViewer(Args({"--list-modules"}));
  EXPECT_EQ(modules.out, "agent\nweb.front-1\n");
}

TEST_F(LogViewTest, FiltersByLevelsMessageStartTimeAndDate) {
  WriteSample();
  const size_t w = 6;
  Result r = RunViewer(Args({"--module", "agent", "--level", "warn"}));
  EXPECT_EQ(r.out,
            Head(w) + Row("2023-11-14 22:14:20", "agent", w, "WARN", "disk low") + "Page 1 of 1\n");
  r = RunViewer(Args({"--module", "agent", "--levels", "2,ERROR"}));
  EXPECT_EQ(r.out, Head(w) + Row("2023-11-14 22:16:20", "agent", w, "DEBUG", "tick") +
                       Row("2023-11-14 22:15:20", "agent", w, "ERROR", "write failed") +
                       "Page 1 of 1\n");
  r = RunViewer(Args({"--module", "agent", "--message", "%fail%"}));
  EXPECT_EQ(r.out, Head(w) + Row("2023-11-14 22:15:20", "agent", w, "ERROR", "write failed") +
                       "Page 1 of 1\n");
  // Local time (UTC here) and epoch seconds name the same start.
  for (const std::string& since :
       std::vector<std::string>{"2023-11-14 22:15:20", std::to_string(kBase + 120)}) {
    r = RunViewer(Args({"--module", "agent", "--since", since}));
    EXPECT_EQ(r.out, Head(w) + Row("2023-11-14 22:16:20", "agent", w, "DEBUG", "tick") +
                         Row("2023-11-14 22:15:20", "agent", w, "ERROR", "write failed") +
                         "Page 1 of 1\n")
        << since;
  }
  r = RunViewer(Args({"--module", "agent", "--date", "11/14/2023 22:14:%"}));
  EXPECT_EQ(r.out,
            Head(w) + Row("2023-11-14 22:14:20", "agent", w, "WARN", "disk low") + "Page 1 of 1\n");
  r = RunViewer(Args({"--module", "agent", "--message", "nothing like this"}));
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "No matching log entries.\n");
}

// One module is paged by the database, several by the viewer: both must
// cut the same ordered list into the same pages.
TEST_F(LogViewTest, PagesOneModuleAndSeveralModulesAlike) {
  {
    QmLogSQLiteProcessor db(m_db, true);
    for (int i = 0; i < 7; ++i) {
      ASSERT_TRUE(db.writeLogRecord("solo", "s" + std::to_string(i), kBase + i, 3, "f", i));
      ASSERT_TRUE(
          db.writeLogRecord(i % 2 ? "odd" : "even", "m" + std::to_string(i), kBase + i, 4, "f", i));
    }
  }
  const size_t w = 6;
  Result r = RunViewer(Args({"--module", "solo", "--page-size", "3", "--page", "2"}));
  EXPECT_EQ(r.out, Head(w) + Row("2023-11-14 22:13:23", "solo", w, "INFO", "s3") +
                       Row("2023-11-14 22:13:22", "solo", w, "INFO", "s2") +
                       Row("2023-11-14 22:13:21", "solo", w, "INFO", "s1") + "Page 2 of 3\n");
  r = RunViewer(Args({"--module", "odd", "--module", "even", "--page-size", "3", "--page", "2"}));
  EXPECT_EQ(r.out, Head(w) + Row("2023-11-14 22:13:23", "odd", w, "WARN", "m3") +
                       Row("2023-11-14 22:13:22", "even", w, "WARN", "m2") +
                       Row("2023-11-14 22:13:21", "odd", w, "WARN", "m1") + "Page 2 of 3\n");
  r = RunViewer(Args({"--module", "solo", "--page-size", "3", "--page", "3"}));
  EXPECT_EQ(r.out, Head(w) + Row("2023-11-14 22:13:20", "solo", w, "INFO", "s0") + "Page 3 of 3\n");
  // The page count of a level list comes from the rows, of a single level
  // and a date pattern from the processor's count.
  r = RunViewer(Args({"--module", "solo", "--levels", "3", "--page-size", "2"}));
  EXPECT_NE(r.out.find("Page 1 of 4\n"), std::string::npos) << r.out;
  r = RunViewer(
      Args({"--module", "solo", "--level", "3", "--date", "%22:13:2%", "--page-size", "2"}));
  EXPECT_NE(r.out.find("Page 1 of 4\n"), std::string::npos) << r.out;
  r = RunViewer(Args({"--module", "solo", "--page-size", "3", "--page", "4"}));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("page 4 is past the last page (3)"), std::string::npos) << r.err;
  r = RunViewer(Args({"--module", "solo", "--page-size", "100000", "--page", "1000000000"}));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("past the last page (1)"), std::string::npos) << r.err;
}

TEST_F(LogViewTest, JsonLinesAreEscapedAndPageNotesGoToStandardError) {
  {
    QmLogSQLiteProcessor db(m_db, true);
    ASSERT_TRUE(db.writeLogRecord("agent", "say \"hi\"\\\nnext\tcaf\xe9", kBase, 7, "a\\b.cpp", 3));
  }
  const Result r = RunViewer(Args({"--json"}));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out,
            "{\"time\":1700000000,\"local_time\":\"2023-11-14 22:13:20\",\"module\":\"agent\","
            "\"level\":7,\"level_name\":\"FATAL\",\"message\":\"say \\\"hi\\\"\\\\\\nnext\\tcaf"
            "\\u00e9\",\"file\":\"a\\\\b.cpp\",\"line\":3}\n");
  EXPECT_EQ(r.err, "Page 1 of 1\n");
}

TEST_F(LogViewTest, FollowPrintsNewMatchingEntriesUntilSignalled) {
  QmLogSQLiteProcessor db(m_db, true);
  ASSERT_TRUE(db.writeLogRecord("agent", "old", kBase, 4, "f", 1));
  for (int signal : {SIGTERM, SIGINT}) {
    Viewer viewer(Args({"--follow", "--interval", "50", "--level", "4"}));
    // The head line comes once the stored entries have been passed over.
    ASSERT_TRUE(viewer.Pump("MESSAGE\n", kRunLimitMs)) << viewer.err;
    ASSERT_TRUE(db.writeLogRecord("agent", "first", kBase + 1, 4, "f", 2));
    ASSERT_TRUE(db.writeLogRecord("agent", "skipped", kBase + 2, 3, "f", 3));
    ASSERT_TRUE(viewer.Pump("first", kRunLimitMs)) << viewer.out;
    ASSERT_TRUE(db.writeLogRecord("newcomer", "from a new module", kBase + 3, 4, "f", 4));
    ASSERT_TRUE(viewer.Pump("from a new module", kRunLimitMs)) << viewer.out;
    ASSERT_TRUE(db.writeLogRecord("agent", "last", kBase + 4, 4, "f", 5));
    ASSERT_TRUE(viewer.Pump("last", kRunLimitMs)) << viewer.out;
    viewer.Signal(signal);
    EXPECT_EQ(viewer.Finish(), 0) << viewer.err;
    const size_t w = 12;
    EXPECT_EQ(viewer.out,
              Head(w) + Row("2023-11-14 22:13:21", "agent", w, "WARN", "first") +
                  Row("2023-11-14 22:13:23", "newcomer", w, "WARN", "from a new module") +
                  Row("2023-11-14 22:13:24", "agent", w, "WARN", "last"));
    ASSERT_TRUE(db.cleanAllModulesTable());
  }
}

TEST_F(LogViewTest, FollowWithStartTimeShowsStoredEntriesFirst) {
  QmLogSQLiteProcessor db(m_db, true);
  ASSERT_TRUE(db.writeLogRecord("agent", "before", kBase, 4, "f", 1));
  ASSERT_TRUE(db.writeLogRecord("agent", "after", kBase + 10, 4, "f", 2));
  Viewer viewer(Args(
      {"--follow", "--interval", "50", "--module", "agent", "--since", std::to_string(kBase + 5)}));
  ASSERT_TRUE(viewer.Pump("after", kRunLimitMs)) << viewer.err;
  ASSERT_TRUE(db.writeLogRecord("agent", "live", kBase + 20, 4, "f", 3));
  ASSERT_TRUE(viewer.Pump("live", kRunLimitMs)) << viewer.out;
  viewer.Signal(SIGTERM);
  EXPECT_EQ(viewer.Finish(), 0);
  EXPECT_EQ(viewer.out, Head(12) + Row("2023-11-14 22:13:30", "agent", 12, "WARN", "after") +
                            Row("2023-11-14 22:13:40", "agent", 12, "WARN", "live"));
}

TEST_F(LogViewTest, ReadsEntriesWrittenByAConfiguredSqliteLogger) {
  const std::string config = m_dir + "/config";
  ASSERT_EQ(system(("mkdir -p '" + config + "' '" + m_dir + "/logs'").c_str()), 0);
  std::ofstream(config + "/qmlogs.ini") << "[main]\nviewtest=db_logger\n\n"
                                        << "[db_logger]\nwriter=sqlite\nlevel=trace\n"
                                        << "dbfilename=" << m_db << "\n";
  QmsysEventLogInterface* logger = QmsysEventLogInterface::CreateInstance(
      "viewtest", QmsysEventLogInterface::SINGLE_THREADED, config, "viewproc.bin");
  ASSERT_NE(logger, nullptr);
  ASSERT_TRUE(logger->Start());
  EXPECT_TRUE(logger->WriteWarn("through the logger", __LINE__, __FILE__));
  EXPECT_TRUE(logger->WriteTrace("fine detail", __LINE__, __FILE__));
  logger->Stop();
  QmsysEventLogInterface::ReleaseAll();

  const Result r = RunViewer({"--config", config, "--module", "viewproc", "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("\"level_name\":\"WARN\",\"message\":\"through the logger\""),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("\"level_name\":\"TRACE\",\"message\":\"fine detail\""), std::string::npos);
  const Result named = RunViewer({"--config", config, "--logger", "db_logger", "--list-modules"});
  EXPECT_EQ(named.out, "viewproc\n");
  const Result wrong = RunViewer({"--config", config, "--logger", "common"});
  EXPECT_EQ(wrong.code, 1);
  EXPECT_NE(wrong.err.find("does not write to an SQLite database"), std::string::npos);
}

TEST_F(LogViewTest, RefusesUnknownModulesAndQuotes) {
  WriteSample();
  Result r = RunViewer(Args({"--module", "agent", "--module", "ghost"}));
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("unknown module 'ghost'"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("known: agent, web.front-1"), std::string::npos) << r.err;
  r = RunViewer(Args({"--message", "x' OR '1'='1"}));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("must not contain a single quote"), std::string::npos) << r.err;
}

TEST_F(LogViewTest, ReportsMissingBrokenAndLockedDatabases) {
  Result r = RunViewer(Args({}));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("log database not found: " + m_db), std::string::npos) << r.err;
  EXPECT_NE(access(m_db.c_str(), F_OK), 0) << "the viewer created the database";

  std::ofstream(m_db) << "this is not a database, just some text long enough to be read";
  r = RunViewer(Args({}));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("cannot open log database"), std::string::npos) << r.err;

  r = RunViewer({"--config", m_dir + "/nowhere"});
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("cannot read logging configuration"), std::string::npos) << r.err;

  // A rollback-journal database held under an exclusive transaction.
  const std::string locked = m_dir + "/locked.db";
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(locked.c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder,
                         "CREATE TABLE metatable (id INTEGER, module_name VARCHAR(50), "
                         "table_name VARCHAR(50)); BEGIN EXCLUSIVE; "
                         "INSERT INTO metatable VALUES (1, 'a', 'a');",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  r = RunViewer({"--db", locked});
  sqlite3_exec(holder, "ROLLBACK;", nullptr, nullptr, nullptr);
  sqlite3_close(holder);
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("log database is locked: " + locked), std::string::npos) << r.err;
}

}  // namespace
