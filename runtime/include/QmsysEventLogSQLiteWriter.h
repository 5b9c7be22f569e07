#ifndef QM_RUNTIME_QMSYSEVENTLOGSQLITEWRITER_H
#define QM_RUNTIME_QMSYSEVENTLOGSQLITEWRITER_H

#include <memory>
#include <set>
#include <string>

#include "QmLogDBProcessorInterface.h"
#include "QmconLock.h"
#include "QmsysEventLogWriterInterface.h"

// Stores log lines as rows of an SQLite log database, one table per module
// (the process name up to its first full stop). Owns its database
// processor. The database does not rotate. Any number of threads may write
// through one writer. A database that cannot be opened (a missing folder
// is created first) is reported to the system log once and tried again at
// each following line until it opens.
class QmsysEventLogSQLiteWriter : public QmsysEventLogWriterInterface {
 public:
  QmsysEventLogSQLiteWriter();
  ~QmsysEventLogSQLiteWriter() override;

  // Keys, without regard to case: "dbfilename" or "filename", "truncate".
  bool setParameter(const std::string& key, const std::string& value) override;
  bool operator()(const std::string& processName, LogLevel level, const std::string& message,
                  int line, const char* file, time_t time) override;
  // A database file name is set.
  bool isInitialized() override;

  // Opens (creating) the database; false when it cannot be used now.
  bool setDbFileName(const std::string& name);
  // When set, the table of each module this writer stores lines for is
  // emptied before its first line; other modules' tables stay as they are.
  bool setMakeDbTruncateFlag(bool truncate);
  // Module under which a process's lines are stored: "agent.bin" -> "agent".
  static std::string getModuleName(const std::string& processName);

 private:
  bool openProcessor();
  bool truncateOnce(const std::string& module);

  QmconLock m_lock;  // guards everything below
  std::string m_dbFileName;
  bool m_truncate = false;
  bool m_initialized = false;
  std::unique_ptr<QmLogDBProcessorInterface> m_processor;
  std::set<std::string> m_truncated;  // modules emptied since the flag was set
  bool m_openFailureReported = false;
};

#endif
