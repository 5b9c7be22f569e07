// Logging under load and faults: threads and processes sharing one SQLite
// log or one rotating file, a writer killed mid-run and a stuck worker at
// Stop. Each figure is printed as "[ soak ] ...".
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <regex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "LockFile.h"
#include "QmLogSQLiteProcessor.h"
#include "QmsysEventLogFileWriter.h"
#include "QmsysEventLogMultiThreaded.h"
#include "QmsysEventLogSingleThreaded.h"
#include "log_test_util.h"
#include "test_support.h"

namespace {

using Clock = std::chrono::steady_clock;
using Level = QmsysEventLogWriterInterface::LogLevel;

// Sanitizer builds run each case a few times instead of twenty (the
// rotating file, with 32 writers polling one lock, once).
#ifdef QM_SOAK_SANITIZED
const int kRuns = 3;
const int kRotatingRuns = 1;
#else
const int kRuns = 20;
const int kRotatingRuns = 20;
#endif

double MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// A configuration directory whose "[main]" maps every module to one logger.
void WriteConfig(const LogTempDir& dir, const std::string& section) {
  mkdir(dir.file("config").c_str(), 0775);
  LogWriteFile(dir.file("config/qmlogs.ini"), "[common]\n" + section);
}

// Runs `body` in `count` child processes that start together once every
// child exists; the child's exit status is what `body` returns. Returns the
// children's exit statuses, 128 plus the signal for a child killed.
template <typename Body>
std::vector<int> RunProcesses(int count, Body body) {
  int gate[2];
  if (pipe(gate) != 0) return {};
  std::vector<pid_t> children;
  for (int i = 0; i < count; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      close(gate[1]);
      char byte;  // waits until the parent closes its end
      while (read(gate[0], &byte, 1) < 0 && errno == EINTR) {
      }
      _exit(body(i));
    }
    children.push_back(child);
  }
  close(gate[0]);
  close(gate[1]);  // releases every child at once
  std::vector<int> statuses;
  for (pid_t child : children) {
    int status = -1;
    waitpid(child, &status, 0);
    statuses.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  }
  return statuses;
}

// Six processes with two threads each open a database that does not exist
// yet and write at once through one logger per process; processes 0 and 3
// are one module, and so on, so that modules are registered both by one
// process alone and by two at once.
TEST(SoakLog, ProcessesAndThreadsShareOneSqliteLog) {
  const int kProcesses = 6, kModules = 3, kThreads = 2, kRows = 500;
  double slowest = 0;
  for (int run = 0; run < kRuns; ++run) {
    LogTempDir dir;
    WriteConfig(dir, "writer=sqlite\nlevel=info\ndbfilename=" + dir.file("log.db") + "\n");
    const Clock::time_point start = Clock::now();
    const auto statuses = RunProcesses(kProcesses, [&](int index) {
      QmsysEventLogSingleThreaded logger("soak");
      const std::string module = "writer" + std::to_string(index % kModules);
      if (!logger.initialize(dir.file("config"), module) || !logger.Start()) return 100;
      std::atomic<int> refused{0};
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
          const std::string tag = std::to_string(index) + "-" + std::to_string(t) + "-";
          for (int i = 0; i < kRows; ++i)
            refused += !logger.WriteInfo(tag + std::to_string(i), i, "f");
        });
      }
      for (auto& thread : threads) thread.join();
      return std::min(refused.load(), 99);
    });
    slowest = std::max(slowest, MillisecondsSince(start));
    ASSERT_EQ(statuses, std::vector<int>(kProcesses, 0));
    // Every row in the one table registered for its module.
    QmLogSQLiteProcessor reader(dir.file("log.db"), true, QmLogSQLiteProcessor::READ_ONLY);
    std::set<std::string> messages;
    for (int m = 0; m < kModules; ++m) {
      QmLogSQLiteProcessor::EntrySet rows;
      ASSERT_TRUE(reader.readLogRecord(rows, "writer" + std::to_string(m), std::string()));
      for (const auto& row : rows) messages.insert(row.message);
    }
    ASSERT_EQ(static_cast<size_t>(kProcesses * kThreads * kRows), messages.size()) << "run " << run;
  }
  std::cout << "[ soak ] " << kRuns << " runs of " << kProcesses << " processes x " << kThreads
            << " threads x " << kRows << " rows on a fresh SQLite log, every row stored; "
            << "slowest run " << slowest << " ms" << std::endl;
}

// Eight processes with four threads each write one file that rotates every
// 4 KiB. The first process is killed (SIGKILL, by one of its threads) while
// its other threads write; the others must finish, and every line written
// must be found once, whole, in order per writer.
TEST(SoakLog, ProcessesShareOneRotatingFileAndSurviveAKilledWriter) {
  const int kProcesses = 8, kThreads = 4, kLines = 40;
  const std::regex line(std::string(kLogStamp) + R"( soak \[INFO\] P(\d+)-T(\d+)-(\d+))");
  double slowest = 0;
  for (int run = 0; run < kRotatingRuns; ++run) {
    LogTempDir dir;
    const std::string log = dir.file("shared.log");
    const Clock::time_point start = Clock::now();
    const auto statuses = RunProcesses(kProcesses, [&](int index) {
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
          QmsysEventLogFileWriter writer;
          writer.setParameter("filePath", log);
          writer.setParameter("bytesPerFiles", "4096");
          writer.setParameter("numFiles", "1000");
          writer.setParameter("perProcessFile", "0");
          const std::string tag = "P" + std::to_string(index) + "-T" + std::to_string(t) + "-";
          for (int i = 0; i < kLines; ++i) {
            writer("soak", Level::LEVEL_INFO, tag + std::to_string(i), 1, "f", 0);
            if (index == 0 && t == 0 && i == kLines / 4) raise(SIGKILL);
          }
        });
      }
      for (auto& thread : threads) thread.join();
      return 0;
    });
    slowest = std::max(slowest, MillisecondsSince(start));
    std::vector<int> expected(kProcesses, 0);
    expected[0] = 128 + SIGKILL;
    ASSERT_EQ(statuses, expected);

    std::vector<std::string> files;  // oldest archive first, the live file last
    for (int i = 1; LogFileExists(log + "." + std::to_string(i)); ++i)
      files.insert(files.begin(), log + "." + std::to_string(i));
    files.push_back(log);
    std::map<std::string, int> next;  // "process-thread" -> next number expected
    for (const std::string& file : files) {
      for (const std::string& text : LogReadLines(file)) {
        std::smatch match;
        if (LogLineMatches(text, "Archiving " + log)) continue;
        ASSERT_TRUE(std::regex_match(text, match, line)) << "torn line: " << text;
        ASSERT_EQ(next[match[1].str() + "-" + match[2].str()]++, std::stoi(match[3].str())) << text;
      }
    }
    for (int w = kThreads; w < kProcesses * kThreads; ++w) {
      const std::string writer = std::to_string(w / kThreads) + "-" + std::to_string(w % kThreads);
      EXPECT_EQ(kLines, next[writer]) << writer;
    }
  }
  std::cout << "[ soak ] " << kRotatingRuns << " runs of " << kProcesses << " processes x "
            << kThreads << " threads x " << kLines
            << " lines on one file rotating every 4 KiB, one writer "
            << "killed: every line once, none torn; slowest run " << slowest << " ms" << std::endl;
}

// A worker stuck in a write at Stop: Stop returns after its bound, counts the
// lines it gives up, and the logger can be deleted while the worker still
// runs; the worker ends on its own once the write goes through.
TEST(SoakLog, StopReturnsWhileTheWorkerIsStuckAndTheLoggerMayBeDeleted) {
  LogTempDir dir;
  const std::string log = dir.file("stuck.log");
  WriteConfig(dir, "writer=file\nlevel=info\nfilePath=" + log +
                       "\nbytesPerFiles=4096\nnumFiles=3\nperProcessFile=0\n");
  SystemLogCapture capture;
  auto logger = std::make_unique<QmsysEventLogMultiThreaded>("soak");
  ASSERT_TRUE(logger->initialize(dir.file("config"), "soak") && logger->Start());
  auto holder = std::make_unique<LockFile>(log + ".lock");  // the worker waits for it
  for (int i = 0; i < 6; ++i) ASSERT_TRUE(logger->WriteInfo("line " + std::to_string(i), 1, "f"));
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(logger->Stop());
  const double stopMs = MillisecondsSince(start);
  EXPECT_LT(stopMs, 15000.0);
  // The worker had taken the first line; the other five were given up.
  EXPECT_TRUE(capture.contains("QmsysEventLogMultiThreaded::Stop", "5 queued lines dropped"));
  logger.reset();
  holder.reset();
  ASSERT_TRUE(WaitUntil([&] { return !LogReadLines(log).empty(); }, 30000));
  ASSERT_EQ(1u, LogReadLines(log).size());
  EXPECT_TRUE(LogLineMatches(LogReadLines(log)[0], R"(soak \[INFO\] line 0)"));
  std::cout << "[ soak ] Stop with a stuck worker returned in " << stopMs << " ms" << std::endl;
}

}  // namespace
