#ifndef QM_RUNTIME_QMSYSEVENTLOGSQLITEWRITER_H
#define QM_RUNTIME_QMSYSEVENTLOGSQLITEWRITER_H

#include <memory>
#include <string>

#include "QmLogDBProcessorInterface.h"
#include "QmsysEventLogWriterInterface.h"

// Stores log lines as rows of an SQLite log database, one table per module
// (the process name up to its first full stop). Owns its database
// processor. The database does not rotate.
class QmsysEventLogSQLiteWriter : public QmsysEventLogWriterInterface {
 public:
  QmsysEventLogSQLiteWriter();
  ~QmsysEventLogSQLiteWriter() override;

  // Keys, without regard to case: "dbfilename" or "filename", "truncate".
  bool setParameter(const std::string& key, const std::string& value) override;
  bool operator()(const std::string& processName, LogLevel level, const std::string& message,
                  int line, const char* file, time_t time) override;
  bool isInitialized() override { return m_initialized; }

  // Opens (creating) the database; false when it cannot be used.
  bool setDbFileName(const std::string& name);
  // When set, the tables of the database are emptied (now when the
  // database is open, otherwise as soon as it is).
  bool setMakeDbTruncateFlag(bool truncate);
  // Module under which a process's lines are stored: "agent.bin" -> "agent".
  static std::string getModuleName(const std::string& processName);

 private:
  bool truncateTables();

  std::string m_dbFileName;
  bool m_truncate = false;
  bool m_initialized = false;
  std::unique_ptr<QmLogDBProcessorInterface> m_processor;
};

#endif
