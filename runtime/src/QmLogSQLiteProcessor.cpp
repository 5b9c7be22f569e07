#include "QmLogSQLiteProcessor.h"

#include <sqlite3.h>

#include <cstdlib>

#include "QmDBProcessorFatalException.h"
#include "QmString.h"
#include "QmconCriticalSection.h"
#include "QmconFunctions.h"

namespace {

const int kOpenAttempts = 50;
const int kOpenRetryMs = 500;
const int kBusyTimeoutMs = 3000;

const char* const kCreateMetaTable =
    "CREATE TABLE IF NOT EXISTS metatable (id INTEGER, module_name VARCHAR(50), table_name "
    "VARCHAR(50));";
const char* const kLoadMetaTable =
    "SELECT module_name, table_name FROM metatable ORDER BY module_name;";

// Text inside single quotes in SQL: a quote is doubled.
std::string Quoted(const std::string& text) {
  return QmstringReplaceAll(text, "'", "''");
}

std::string CreateTableSQL(const std::string& table) {
  return "CREATE TABLE " + table +
         " (id INTEGER PRIMARY KEY AUTOINCREMENT, module VARCHAR(50), timestamp INTEGER, level "
         "SMALLINT, message VARCHAR(100), line INTEGER, srcfile VARCHAR(50));";
}

std::string InsertSQL(const std::string& table) {
  return "INSERT INTO " + table +
         " (module, timestamp, level, message, line, srcfile) VALUES (?, ?, ?, ?, ?, ?);";
}

// The name SQLite opens: the path itself, or for an immutable database a
// URI with the characters that URIs reserve escaped.
std::string OpenName(const std::string& path, QmLogSQLiteProcessor::OpenMode mode) {
  if (mode != QmLogSQLiteProcessor::READ_ONLY_IMMUTABLE) return path;
  std::string uri = "file:";
  for (const char c : path) {
    if (c == '%' || c == '?' || c == '#') {
      uri += QmstringFormat("%%%02X", static_cast<unsigned char>(c));
    } else {
      uri += c;
    }
  }
  return uri + "?immutable=1";
}

int OpenFlags(QmLogSQLiteProcessor::OpenMode mode) {
  switch (mode) {
    case QmLogSQLiteProcessor::READ_ONLY:
      return SQLITE_OPEN_READONLY;
    case QmLogSQLiteProcessor::READ_ONLY_IMMUTABLE:
      return SQLITE_OPEN_READONLY | SQLITE_OPEN_URI;
    default:
      return SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  }
}

std::string Cell(char** result, int index) {
  const char* text = result[index];
  return text != nullptr ? text : "";
}

long long CellNumber(char** result, int index) {
  const char* text = result[index];
  return text != nullptr ? std::strtoll(text, nullptr, 10) : 0;
}

// The owner of a sqlite3_get_table result.
class TableResult {
 public:
  ~TableResult() { sqlite3_free_table(m_result); }
  char*** out() { return &m_result; }
  char** get() const { return m_result; }

 private:
  char** m_result = nullptr;
};

}  // namespace

void QmLogSQLiteProcessor::StatementDeleter::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

QmLogSQLiteProcessor::QmLogSQLiteProcessor(const std::string& databaseFile, bool openNow,
                                           OpenMode mode)
    : m_databaseFile(databaseFile), m_mode(mode) {
  if (!openNow) return;
  if (!openDatabase() || !initializeDatabase()) {
    const int code = getDBError();
    const std::string text = getDBString();
    closeDatabase();
    throw QmDBProcessorFatalException(code, text);
  }
}

QmLogSQLiteProcessor::~QmLogSQLiteProcessor() {
  closeDatabase();
}

bool QmLogSQLiteProcessor::keepError(int code) {
  setDBError(code, m_db != nullptr ? sqlite3_errmsg(m_db) : sqlite3_errstr(code));
  return false;
}

bool QmLogSQLiteProcessor::openDatabase() {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  if (m_opened) return true;
  const std::string name = OpenName(m_databaseFile, m_mode);
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    const int rc = sqlite3_open_v2(name.c_str(), &m_db, OpenFlags(m_mode), nullptr);
    if (rc == SQLITE_OK) {
      m_opened = true;
      applyPragmas();
      clearDBError();
      return true;
    }
    keepError(rc);
    sqlite3_close(m_db);
    m_db = nullptr;
    if (rc != SQLITE_BUSY && rc != SQLITE_LOCKED) break;
    Qmsleep(kOpenRetryMs);
  }
  return false;
}

// WAL lets readers and the writer proceed together and, with
// synchronous=NORMAL, avoids a disk sync per logged line. A reader leaves
// the file's settings alone.
void QmLogSQLiteProcessor::applyPragmas() {
  sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
  if (m_mode != READ_WRITE) return;
  execute("PRAGMA journal_mode=WAL;");
  execute("PRAGMA synchronous=NORMAL;");
}

bool QmLogSQLiteProcessor::initializeDatabase() {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  if (!m_opened) return false;
  const int rc = sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
  if (rc != SQLITE_OK) return keepError(rc);
  if (m_mode == READ_WRITE && !createMetaTable()) return false;
  if (!loadTablesFromMetatable()) return false;
  m_initialized = true;
  return true;
}

bool QmLogSQLiteProcessor::closeDatabase() {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  m_inserts.clear();
  m_tables.clear();
  m_initialized = false;
  if (m_db == nullptr) return true;
  const int rc = sqlite3_close(m_db);
  m_db = nullptr;
  m_opened = false;
  return rc == SQLITE_OK;
}

// Meant to be called from another thread while an operation runs, so it
// does not wait for the lock.
void QmLogSQLiteProcessor::interruptDatabase() {
  if (m_db != nullptr) sqlite3_interrupt(m_db);
}

bool QmLogSQLiteProcessor::isDatabaseOpened() {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  return m_opened;
}

bool QmLogSQLiteProcessor::isDatabaseInitialized() {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  return m_initialized;
}

bool QmLogSQLiteProcessor::isTableExists(const std::string& table) {
  EntrySet rows;
  return executeSelectQuery(
             "SELECT name FROM sqlite_master WHERE type='table' AND name='" + Quoted(table) + "';",
             rows) &&
         !rows.empty();
}

bool QmLogSQLiteProcessor::execute(const std::string& sql) {
  int changes = 0;
  return executeUpdateQuery(sql, changes);
}

bool QmLogSQLiteProcessor::executeUpdateQuery(const std::string& sql, int& changes) {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  changes = 0;
  if (m_db == nullptr) return keepError(SQLITE_MISUSE);
  char* error = nullptr;
  const int rc = sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &error);
  if (rc != SQLITE_OK) {
    setDBError(rc, error != nullptr ? error : sqlite3_errmsg(m_db));
    sqlite3_free(error);
    return false;
  }
  changes = sqlite3_changes(m_db);
  return true;
}

bool QmLogSQLiteProcessor::executeSelectQuery(const std::string& sql, EntrySet& entries) {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  if (m_db == nullptr) return keepError(SQLITE_MISUSE);
  TableResult result;
  int rows = 0;
  int columns = 0;
  char* error = nullptr;
  const int rc = sqlite3_get_table(m_db, sql.c_str(), result.out(), &rows, &columns, &error);
  if (rc != SQLITE_OK) {
    setDBError(rc, error != nullptr ? error : sqlite3_errmsg(m_db));
    sqlite3_free(error);
    return false;
  }
  for (int row = 1; row <= rows; ++row) {
    const int base = row * columns;
    LogEntry entry;
    if (columns > 1) entry.module = Cell(result.get(), base + 1);
    if (columns > 2) entry.time = static_cast<time_t>(CellNumber(result.get(), base + 2));
    if (columns > 3) entry.level = static_cast<int>(CellNumber(result.get(), base + 3));
    if (columns > 4) entry.message = Cell(result.get(), base + 4);
    if (columns > 5) entry.line = static_cast<int>(CellNumber(result.get(), base + 5));
    if (columns > 6) entry.srcfile = Cell(result.get(), base + 6);
    if (columns == 1) entry.module = Cell(result.get(), base);
    entries.add(entry);
  }
  return true;
}

// Several processes may create the meta table at once: the existence test
// is part of the statement.
bool QmLogSQLiteProcessor::createMetaTable() {
  return execute(kCreateMetaTable);
}

bool QmLogSQLiteProcessor::loadTablesFromMetatable() {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  if (m_db == nullptr) return keepError(SQLITE_MISUSE);
  TableResult result;
  int rows = 0;
  int columns = 0;
  char* error = nullptr;
  const int rc = sqlite3_get_table(m_db, kLoadMetaTable, result.out(), &rows, &columns, &error);
  if (rc != SQLITE_OK) {
    setDBError(rc, error != nullptr ? error : sqlite3_errmsg(m_db));
    sqlite3_free(error);
    return false;
  }
  m_tables.clear();
  for (int row = 1; row <= rows; ++row) {
    m_tables[Cell(result.get(), row * columns)] = Cell(result.get(), row * columns + 1);
  }
  return true;
}

void QmLogSQLiteProcessor::createModuleTable(const std::string& module, const std::string& table) {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  std::string registered;
  const bool created = execute("BEGIN IMMEDIATE;") &&
                       !(registered = registerTable(module, table)).empty() && execute("COMMIT;");
  if (!created) {
    const int code = getDBError();
    const std::string text = getDBString();
    if (m_db != nullptr && !sqlite3_get_autocommit(m_db)) execute("ROLLBACK;");
    loadTablesFromMetatable();
    setDBError(code, text);
    throw QmDBProcessorFatalException(
        code, "Unable to create module [" + module + "] table [" + table + "]. " + text);
  }
  m_tables[module] = registered;
}

// Inside the write transaction: the registration as it stands now decides.
std::string QmLogSQLiteProcessor::registerTable(const std::string& module,
                                                const std::string& table) {
  if (!loadTablesFromMetatable()) return std::string();
  const auto found = m_tables.find(module);
  if (found != m_tables.end()) return found->second;
  std::string name = table;
  for (int suffix = 2;; ++suffix) {
    bool taken = false;
    for (const auto& entry : m_tables) taken = taken || entry.second == name;
    if (!taken) break;
    name = table + "_" + std::to_string(suffix);
  }
  execute("DROP TABLE " + name + ";");  // a stale table nobody registered; usually absent
  if (!execute(CreateTableSQL(name)) ||
      !execute("INSERT INTO metatable (module_name, table_name) VALUES ('" + Quoted(module) +
               "', '" + Quoted(name) + "');")) {
    return std::string();
  }
  return name;
}

std::string QmLogSQLiteProcessor::tableOf(const std::string& module) {
  const auto found = m_tables.find(module);
  return found != m_tables.end() ? found->second : convModuleName2TableName(module);
}

std::string QmLogSQLiteProcessor::getTableName(const std::string& module) {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  if (m_tables.count(module) == 0) loadTablesFromMetatable();
  const auto found = m_tables.find(module);
  return found != m_tables.end() ? found->second : std::string();
}

std::string QmLogSQLiteProcessor::findOrCreateTable(const std::string& module) {
  const auto found = m_tables.find(module);
  if (found != m_tables.end()) return found->second;
  createModuleTable(module, convModuleName2TableName(module));
  return m_tables[module];
}

sqlite3_stmt* QmLogSQLiteProcessor::insertStatement(const std::string& table) {
  const auto cached = m_inserts.find(table);
  if (cached != m_inserts.end()) return cached->second.get();
  sqlite3_stmt* statement = nullptr;
  const int rc = sqlite3_prepare_v2(m_db, InsertSQL(table).c_str(), -1, &statement, nullptr);
  if (rc != SQLITE_OK) {
    sqlite3_finalize(statement);
    keepError(rc);
    return nullptr;
  }
  m_inserts[table] = Statement(statement);
  return statement;
}

bool QmLogSQLiteProcessor::writeLogRecord(const std::string& module, const std::string& message,
                                          time_t time, int level, const std::string& file,
                                          int line) {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  if (!m_initialized) return keepError(SQLITE_MISUSE);
  sqlite3_stmt* statement = insertStatement(findOrCreateTable(module));
  if (statement == nullptr) return false;
  sqlite3_bind_text(statement, 1, module.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_bind_int64(statement, 2, static_cast<sqlite3_int64>(time));
  sqlite3_bind_int(statement, 3, level);
  sqlite3_bind_text(statement, 4, message.c_str(), -1, SQLITE_TRANSIENT);
  sqlite3_bind_int(statement, 5, line);
  sqlite3_bind_text(statement, 6, file.c_str(), -1, SQLITE_TRANSIENT);
  const int rc = sqlite3_step(statement);
  if (rc != SQLITE_DONE) keepError(rc);
  sqlite3_reset(statement);
  return rc == SQLITE_DONE;
}

bool QmLogSQLiteProcessor::cleanModuleTable(const std::string& module) {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  const std::string table = getTableName(module);
  if (table.empty()) return true;  // nothing stored yet
  return execute("DELETE FROM " + table + ";");
}

bool QmLogSQLiteProcessor::cleanAllModulesTable() {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  bool cleaned = true;
  for (const auto& entry : m_tables) {
    cleaned = execute("DELETE FROM " + entry.second + ";") && cleaned;
  }
  return cleaned;
}

bool QmLogSQLiteProcessor::readLogRecord(EntrySet& entries, const std::string& module,
                                         const ReadLogFilter& filter) {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  const std::string condition = getSQLCondition(filter);
  if (filter.datePattern.empty()) return readLogRecord(entries, module, condition);
  return executeSelectQuery(
      "SELECT *,strftime('%m/%d/%Y %H:%M:%S',timestamp,'unixepoch','localtime') AS tempcol "
      "FROM " +
          tableOf(module) + " " + condition + ";",
      entries);
}

bool QmLogSQLiteProcessor::readLogRecord(EntrySet& entries, const std::string& module,
                                         const std::string& condition) {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  return executeSelectQuery("SELECT * FROM " + tableOf(module) + " " + condition + ";", entries);
}

int QmLogSQLiteProcessor::getNumberOfPages(const std::string& module, int pageSize, int level,
                                           const std::string& messagePattern,
                                           const std::string& datePattern) {
  QmconCriticalSection guard(&dbLock(), true, true, false);
  EntrySet rows;
  if (!executeSelectQuery(getPageCountSQL(tableOf(module), level, messagePattern, datePattern),
                          rows) ||
      rows.empty()) {
    return -1;
  }
  const int records = rows[0].line;  // COUNT(*) is the sixth column
  if (pageSize < 1) return records;
  return (records + pageSize - 1) / pageSize;
}
