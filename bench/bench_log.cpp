// Event logging: the file and SQLite writers beside raw loops doing the
// same file locking and appends, or the same SQLite inserts, and the cost
// of a call into the multi-threaded front end on the caller's thread.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>

#include "QmsysEventLogFileWriter.h"
#include "QmsysEventLogInterface.h"
#include "QmsysEventLogSQLiteWriter.h"
#include "paired.h"

namespace {

using Level = QmsysEventLogWriterInterface::LogLevel;

const char kMessage[] = "Handling request from Handset '4711' for Msg Tracking #1703936";
const char kModule[] = "bench";
const int kFrontEndCalls = 20000;

// A directory for the benchmark's log files, removed at process end.
class TempDir {
 public:
  static std::string Path(const std::string& name) {
    static TempDir dir;
    return dir.m_path + "/" + name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }

 private:
  TempDir() {
    char pattern[] = "/tmp/qmbench.XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    m_path = pattern;
  }
  std::string m_path;
};

// A file writer with one shared log file that never rotates in a run.
void Configure(QmsysEventLogWriterInterface& writer, const std::string& path) {
  writer.setParameter("bytesPerFiles", "4000000000");
  writer.setParameter("numFiles", "2");
  writer.setParameter("perProcessFile", "0");
  writer.setParameter("autoAppend", "1");
  writer.setParameter("filePath", path);
}

// Per line: lock the lock file (its own open file description), append the
// line the writer would write, close both.
class RawAppender {
 public:
  explicit RawAppender(const std::string& path) : m_path(path), m_lockPath(path + ".lock") {
    QmsysEventLogFileWriter formatter;
    formatter.setPerProcessFile(false);
    m_line = formatter.GetHeader(Level::LEVEL_INFO, kModule, 0) + kMessage + "\n";
  }

  bool operator()() const {
    const int lock = open(m_lockPath.c_str(), O_RDWR | O_CREAT, 0664);
    if (lock < 0) return false;
    struct flock region {};
    region.l_type = F_WRLCK;
    region.l_whence = SEEK_SET;
    bool written = fcntl(lock, F_OFD_SETLK, &region) == 0;
    FILE* stream = written ? std::fopen(m_path.c_str(), "a+") : nullptr;
    written =
        stream != nullptr && std::fwrite(m_line.data(), 1, m_line.size(), stream) == m_line.size();
    if (stream != nullptr) std::fclose(stream);
    close(lock);
    return written;
  }

 private:
  std::string m_path;
  std::string m_lockPath;
  std::string m_line;
};

// The same table and row, in the same journal mode, through one prepared
// insert with one row per statement and autocommit.
class RawInserter {
 public:
  explicit RawInserter(const std::string& path) {
    m_ready =
        sqlite3_open(path.c_str(), &m_db) == SQLITE_OK &&
        sqlite3_exec(m_db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr,
                     nullptr) == SQLITE_OK &&
        sqlite3_exec(m_db,
                     "CREATE TABLE IF NOT EXISTS bench (id INTEGER PRIMARY KEY AUTOINCREMENT, "
                     "module VARCHAR(50), timestamp INTEGER, level SMALLINT, message "
                     "VARCHAR(100), line INTEGER, srcfile VARCHAR(50));",
                     nullptr, nullptr, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(m_db,
                           "INSERT INTO bench (module, timestamp, level, message, line, srcfile) "
                           "VALUES (?, ?, ?, ?, ?, ?);",
                           -1, &m_insert, nullptr) == SQLITE_OK;
  }
  ~RawInserter() {
    sqlite3_finalize(m_insert);
    sqlite3_close(m_db);
  }
  RawInserter(const RawInserter&) = delete;
  RawInserter& operator=(const RawInserter&) = delete;

  bool operator()() {
    if (!m_ready) return false;
    sqlite3_bind_text(m_insert, 1, kModule, -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(m_insert, 2, static_cast<sqlite3_int64>(std::time(nullptr)));
    sqlite3_bind_int(m_insert, 3, Level::LEVEL_INFO);
    sqlite3_bind_text(m_insert, 4, kMessage, -1, SQLITE_TRANSIENT);
    sqlite3_bind_int(m_insert, 5, __LINE__);
    sqlite3_bind_text(m_insert, 6, __FILE__, -1, SQLITE_TRANSIENT);
    const bool done = sqlite3_step(m_insert) == SQLITE_DONE;
    sqlite3_reset(m_insert);
    return done;
  }

 private:
  sqlite3* m_db = nullptr;
  sqlite3_stmt* m_insert = nullptr;
  bool m_ready = false;
};

void BM_FileWriter(benchmark::State& state) {
  QmsysEventLogFileWriter writer;
  Configure(writer, TempDir::Path("writer.txt"));
  const RawAppender raw(TempDir::Path("raw.txt"));
  const std::string message = kMessage;
  PairedRun run;
  run.callsPerBlock = 100;
  run.subject = [&] { return writer(kModule, Level::LEVEL_INFO, message, __LINE__, __FILE__, 0); };
  run.baseline = [&] { return raw(); };
  run.failure = [] { return std::string("a line was not written"); };
  RunPaired(state, run);
}

void BM_SQLiteWriter(benchmark::State& state) {
  QmsysEventLogSQLiteWriter writer;
  RawInserter raw(TempDir::Path("raw.db"));
  const std::string message = kMessage;
  // The first line creates the module's table.
  const bool ready = writer.setParameter("dbfilename", TempDir::Path("writer.db")) &&
                     writer(kModule, Level::LEVEL_INFO, message, __LINE__, __FILE__, 0);
  PairedRun run;
  run.callsPerBlock = 100;
  run.subject = [&] {
    return ready && writer(kModule, Level::LEVEL_INFO, message, __LINE__, __FILE__, 0);
  };
  run.baseline = [&] { return raw(); };
  run.failure = [] { return std::string("a row was not stored"); };
  RunPaired(state, run);
}

// What a WriteInfo call costs the thread that makes it while the writer
// thread appends to a file; Stop() then writes out what is queued.
void BM_MultiThreadedFrontEnd(benchmark::State& state) {
  QmsysEventLogInterface* logger =
      QmsysEventLogInterface::CreateInstance("bench_mt", QmsysEventLogInterface::MULTI_THREADED,
                                             QmsysEventLogWriterInterface::FILE_WRITER, kModule);
  if (logger == nullptr || logger->GetWriter() == nullptr) {
    state.SkipWithError("no logger");
    return;
  }
  Configure(*logger->GetWriter(), TempDir::Path("front_end.txt"));
  logger->Start();
  const std::string message = kMessage;
  for (auto _ : state) logger->WriteInfo(message, __LINE__, __FILE__);
  logger->Stop();
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_FileWriter)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_SQLiteWriter)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_MultiThreadedFrontEnd)->UseRealTime()->Iterations(kFrontEndCalls);
