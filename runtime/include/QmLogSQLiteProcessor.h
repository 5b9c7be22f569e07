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
// names. Every operation holds the processor's lock, so any number of
// threads may share one processor. Other processes may share the file:
// creating the meta table and registering a module's table each happen in
// one write transaction, so processes that start together neither fail nor
// drop each other's rows (busy timeout and open retries cover their locks).
//
// Opened for writing, the database runs in WAL mode with
// synchronous=NORMAL so that frequent small inserts stay cheap. Opened
// read-only it is left exactly as it is: nothing is created and no setting
// of the file is changed.
class QmLogSQLiteProcessor : public QmLogDBProcessorInterface {
 public:
  enum OpenMode {
    READ_WRITE = 0,  // creates the file and the meta table when missing
    READ_ONLY = 1,   // the file and its meta table must exist
    // Read-only without locks or shared memory, for a database in a place
    // this process may not write; changes made while it is open (and a
    // write-ahead log not yet merged into the file) are not seen.
    READ_ONLY_IMMUTABLE = 2
  };

  // With openNow, opens and initialises at once and throws
  // QmDBProcessorFatalException with the SQLite code and text on failure.
  QmLogSQLiteProcessor(const std::string& databaseFile, bool openNow, OpenMode mode = READ_WRITE);
  ~QmLogSQLiteProcessor() override;
  QmLogSQLiteProcessor(const QmLogSQLiteProcessor&) = delete;
  QmLogSQLiteProcessor& operator=(const QmLogSQLiteProcessor&) = delete;

  bool openDatabase() override;
  bool initializeDatabase() override;
  bool closeDatabase() override;
  void interruptDatabase() override;
  bool isDatabaseOpened() override;
  bool isDatabaseInitialized() override;
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

  // The table registered for the module (the map is refreshed from
  // "metatable" first when the module is not in it); "" when none.
  std::string getTableName(const std::string& module);
  // In one write transaction: registers the module unless another process
  // did so meanwhile, dropping a stale unregistered table of that name and
  // creating the table. A name registered for another module gets a
  // numbered suffix. Throws QmDBProcessorFatalException on failure.
  void createModuleTable(const std::string& module, const std::string& table);
  bool createMetaTable();
  bool loadTablesFromMetatable();
  bool executeUpdateQuery(const std::string& sql, int& changes);
  // Rows are mapped by position: id, module, timestamp, level, message,
  // line, source file; further columns are ignored. A one-column result
  // fills the module field.
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
  std::string registerTable(const std::string& module, const std::string& table);
  sqlite3_stmt* insertStatement(const std::string& table);
  void applyPragmas();

  std::string m_databaseFile;
  OpenMode m_mode;
  bool m_opened = false;
  bool m_initialized = false;
  sqlite3* m_db = nullptr;
  std::map<std::string, std::string> m_tables;  // module -> table
  std::map<std::string, Statement> m_inserts;   // table -> prepared insert
};

#endif
