#ifndef QM_RUNTIME_QMLOGSQLITEPROCESSOR_H
#define QM_RUNTIME_QMLOGSQLITEPROCESSOR_H

#include <map>
#include <memory>
#include <string>

#include "QmLogDBProcessorInterface.h"

struct sqlite3;
struct sqlite3_stmt;

// The log database on SQLite 3. Owns the connection and one cached
// prepared insert per module table; "metatable" maps module names to table
// names. The database runs in WAL mode with synchronous=NORMAL so that
// frequent small inserts stay cheap. One object serves one writer at a time;
// other processes may share the file (busy timeout and open retries).
class QmLogSQLiteProcessor : public QmLogDBProcessorInterface {
 public:
  // With openNow, opens and initialises at once and throws
  // QmDBProcessorFatalException with the SQLite code and text on failure.
  QmLogSQLiteProcessor(const std::string& databaseFile, bool openNow);
  ~QmLogSQLiteProcessor() override;
  QmLogSQLiteProcessor(const QmLogSQLiteProcessor&) = delete;
  QmLogSQLiteProcessor& operator=(const QmLogSQLiteProcessor&) = delete;

  bool openDatabase() override;
  bool initializeDatabase() override;
  bool closeDatabase() override;
  void interruptDatabase() override;
  bool isDatabaseOpened() override { return m_opened; }
  bool isDatabaseInitialized() override { return m_initialized; }
  bool isTableExists(const std::string& table) override;

  // Throws QmDBProcessorFatalException when a new module's table cannot be
  // created; other failures return false with the error kept.
  bool writeLogRecord(const std::string& module, const std::string& message, time_t time, int level,
                      const std::string& file, int line) override;
  bool cleanModuleTable(const std::string& module) override;
  bool cleanAllModulesTable() override;
  bool readLogRecord(EntrySet& entries, const std::string& module,
                     const ReadLogFilter& filter) override;
  bool readLogRecord(EntrySet& entries, const std::string& module,
                     const std::string& condition) override;
  int getNumberOfPages(const std::string& module, int pageSize, int level,
                       const std::string& messagePattern, const std::string& datePattern) override;

  // Drops any table of that name, creates it and registers it for the
  // module; throws QmDBProcessorFatalException on failure.
  void createModuleTable(const std::string& module, const std::string& table);
  bool createMetaTable();
  bool loadTablesFromMetatable();
  bool executeUpdateQuery(const std::string& sql, int& changes);
  // Rows are mapped by position: id, module, timestamp, level, message,
  // line, source file; further columns are ignored.
  bool executeSelectQuery(const std::string& sql, EntrySet& entries);

 private:
  struct StatementDeleter {
    void operator()(sqlite3_stmt* statement) const;
  };
  using Statement = std::unique_ptr<sqlite3_stmt, StatementDeleter>;

  bool keepError(int code);
  bool execute(const std::string& sql);
  std::string tableOf(const std::string& module);
  std::string findOrCreateTable(const std::string& module);
  sqlite3_stmt* insertStatement(const std::string& table);
  void applyPragmas();

  std::string m_databaseFile;
  bool m_opened = false;
  bool m_initialized = false;
  sqlite3* m_db = nullptr;
  std::map<std::string, std::string> m_tables;  // module -> table
  std::map<std::string, Statement> m_inserts;   // table -> prepared insert
};

#endif
