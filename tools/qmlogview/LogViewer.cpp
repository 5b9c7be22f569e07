#include "LogViewer.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "LogDatabaseLocator.h"
#include "QmDBProcessorFatalException.h"
#include "QmString.h"

namespace {

// Modules may appear while following, so the column has room to spare.
const size_t kFollowModuleWidth = 12;

const char* const kColumns = "id, module, timestamp, level, message, line, srcfile";

// Text for the inside of single quotes in SQL.
std::string Quoted(const std::string& text) {
  return QmstringReplaceAll(text, "'", "''");
}

// The ORDER BY keys of the options; rows equal in them are ordered by row
// id, newest first when the newest come first.
std::string OrderBy(const LogViewOptions& options) {
  std::string keys;
  if (options.sortByTime) keys += "timestamp DESC, ";
  if (options.sortByModule) keys += "module, ";
  if (options.sortByLevel) keys += "level, ";
  return " ORDER BY " + keys + (options.sortByTime ? "id DESC" : "id");
}

}  // namespace

LogViewer::LogViewer(const LogViewOptions& options, std::ostream& out, std::ostream& err)
    : m_options(options), m_out(out), m_err(err) {}

LogViewer::~LogViewer() = default;

int LogViewer::Fail(const std::string& message, int code) {
  m_err << "qmlogview: " << message << std::endl;
  return code;
}

int LogViewer::Run(const StopWaiter& waitForStop) {
  if (!m_options.configDir.empty()) {
    std::string error;
    if (!LogDatabaseLocator::Locate(m_options.configDir, m_options.loggerName, m_dbPath, error)) {
      return Fail(error, EXIT_ERROR);
    }
  } else {
    m_dbPath = m_options.dbPath;
  }
  if (!Open()) return EXIT_ERROR;
  if (m_options.listModules) return ListModules();
  if (!ResolveModules()) return EXIT_ERROR;
  return m_options.follow ? Follow(waitForStop) : ListPage();
}

bool LogViewer::OpenAs(QmLogSQLiteProcessor::OpenMode mode, int& code, std::string& reason) {
  try {
    m_processor = std::make_unique<QmLogSQLiteProcessor>(m_dbPath, true, mode);
    return true;
  } catch (const QmDBProcessorFatalException& e) {
    code = e.getErrorCode() & 0xFF;
    reason = e.getMessage();
    return false;
  }
}

// The database is opened read-only: a viewer never creates a database or
// changes one. A database in a folder this user may not write (another
// user's) cannot be shared with its writers when its write-ahead log needs
// files that cannot be made; it is then read as it stands on disk.
bool LogViewer::Open() {
  struct stat info {};
  if (stat(m_dbPath.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    Fail("log database not found: " + m_dbPath, EXIT_ERROR);
    return false;
  }
  int code = 0;
  std::string reason;
  if (OpenAs(QmLogSQLiteProcessor::READ_ONLY, code, reason)) return true;
  const bool unshareable = code == SQLITE_CANTOPEN || code == SQLITE_READONLY ||
                           code == SQLITE_PERM || code == SQLITE_IOERR;
  if (unshareable) {
    std::string immutableReason;
    if (OpenAs(QmLogSQLiteProcessor::READ_ONLY_IMMUTABLE, code, immutableReason)) {
      m_err << "qmlogview: note: " << m_dbPath << " cannot be read alongside its writers ("
            << reason << "); showing it as stored on disk, without entries still in its "
            << "write-ahead log" << std::endl;
      return true;
    }
  }
  if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
    Fail("log database is locked: " + m_dbPath + " (" + reason + ")", EXIT_ERROR);
  } else {
    Fail("cannot open log database " + m_dbPath + ": " + reason, EXIT_ERROR);
  }
  return false;
}

bool LogViewer::LoadKnownModules(std::vector<std::string>& modules) {
  QmLogDBProcessorInterface::EntrySet rows;
  if (!m_processor->executeSelectQuery("SELECT module_name FROM metatable ORDER BY module_name;",
                                       rows)) {
    Fail("cannot read the module list of " + m_dbPath + ": " + m_processor->getDBString(),
         EXIT_ERROR);
    return false;
  }
  modules.clear();
  for (const auto& row : rows) modules.push_back(row.module);
  return true;
}

bool LogViewer::ResolveModules() {
  std::vector<std::string> known;
  if (!LoadKnownModules(known)) return false;
  if (m_options.modules.empty()) {
    m_modules = known;
    return true;
  }
  for (const auto& module : m_options.modules) {
    if (std::find(known.begin(), known.end(), module) == known.end()) {
      std::string list;
      for (const auto& name : known) list += (list.empty() ? "" : ", ") + name;
      Fail("unknown module '" + module + "' in " + m_dbPath +
               " (known: " + (list.empty() ? "none" : list) + ")",
           EXIT_ERROR);
      return false;
    }
    if (std::find(m_modules.begin(), m_modules.end(), module) == m_modules.end()) {
      m_modules.push_back(module);
    }
  }
  return true;
}

int LogViewer::ListModules() {
  std::vector<std::string> known;
  if (!LoadKnownModules(known)) return EXIT_ERROR;
  for (const auto& module : known) m_out << module << "\n";
  m_out.flush();
  return EXIT_OK;
}

bool LogViewer::ModuleSelect(const std::string& module, long long afterId, long long upToId,
                             std::string& sql) {
  const std::string table = m_processor->getTableName(module);
  if (table.empty()) {
    m_err << "qmlogview: no table for module '" << module << "' in " << m_dbPath << std::endl;
    return false;
  }
  std::vector<std::string> conditions;
  if (!m_options.levels.empty()) {
    std::string list;
    for (int level : m_options.levels) list += (list.empty() ? "" : ", ") + std::to_string(level);
    conditions.push_back("level IN (" + list + ")");
  }
  if (m_options.level > 0) conditions.push_back("level = " + std::to_string(m_options.level));
  if (!m_options.messagePattern.empty()) {
    conditions.push_back("message LIKE '" + Quoted(m_options.messagePattern) + "'");
  }
  if (m_options.since > 0) {
    conditions.push_back("timestamp >= " + std::to_string(static_cast<long long>(m_options.since)));
  }
  if (!m_options.datePattern.empty()) {
    conditions.push_back("strftime('%m/%d/%Y %H:%M:%S',timestamp,'unixepoch','localtime') LIKE '" +
                         Quoted(m_options.datePattern) + "'");
  }
  if (afterId > 0) conditions.push_back("id > " + std::to_string(afterId));
  if (upToId > 0) conditions.push_back("id <= " + std::to_string(upToId));
  sql = std::string("SELECT ") + kColumns + " FROM " + table;
  for (size_t i = 0; i < conditions.size(); ++i) {
    sql += (i == 0 ? " WHERE " : " AND ") + conditions[i];
  }
  return true;
}

bool LogViewer::AllModulesSelect(std::string& sql) {
  sql.clear();
  for (const auto& module : m_modules) {
    std::string select;
    if (!ModuleSelect(module, 0, 0, select)) return false;
    sql += (sql.empty() ? "" : " UNION ALL ") + select;
  }
  return true;
}

bool LogViewer::Query(const std::string& sql, std::vector<LogEntry>& rows) {
  QmLogDBProcessorInterface::EntrySet entries;
  if (!m_processor->executeSelectQuery(sql, entries)) {
    m_err << "qmlogview: cannot read " << m_dbPath << ": " << m_processor->getDBString()
          << std::endl;
    return false;
  }
  rows.insert(rows.end(), entries.begin(), entries.end());
  return true;
}

// A one-column result comes back in the module field.
bool LogViewer::Count(const std::string& sql, long long& count) {
  std::vector<LogEntry> rows;
  if (!Query(sql, rows) || rows.empty()) return false;
  count = std::strtoll(rows.front().module.c_str(), nullptr, 10);
  return true;
}

int LogViewer::ListPage() {
  if (m_modules.empty()) {
    (m_options.json ? m_err : m_out) << "No matching log entries." << std::endl;
    return EXIT_OK;
  }
  std::string select;
  long long matching = 0;
  if (!AllModulesSelect(select) || !Count("SELECT COUNT(*) FROM (" + select + ");", matching)) {
    return EXIT_ERROR;
  }
  std::ostream& notes = m_options.json ? m_err : m_out;
  if (matching == 0) {
    notes << "No matching log entries." << std::endl;
    return EXIT_OK;
  }
  const long long pageSize = m_options.pageSize;
  const long long pages = (matching + pageSize - 1) / pageSize;
  if (m_options.page > pages) {
    return Fail("page " + std::to_string(m_options.page) + " is past the last page (" +
                    std::to_string(pages) + ")",
                EXIT_ERROR);
  }
  std::vector<LogEntry> rows;
  const long long offset = (m_options.page - 1LL) * pageSize;
  if (!Query(select + OrderBy(m_options) + " LIMIT " + std::to_string(pageSize) + " OFFSET " +
                 std::to_string(offset) + ";",
             rows)) {
    return EXIT_ERROR;
  }
  std::vector<std::string> shown;
  for (const auto& row : rows) shown.push_back(row.module);
  LogViewFormatter formatter(m_options.json, LogViewFormatter::ModuleWidth(shown));
  if (!m_options.json) m_out << formatter.Header() << "\n";
  Print(rows, formatter);
  notes << "Page " << m_options.page << " of " << pages << std::endl;
  return EXIT_OK;
}

void LogViewer::Print(const std::vector<LogEntry>& rows, const LogViewFormatter& formatter) {
  for (const auto& row : rows) m_out << formatter.Format(row) << "\n";
  m_out.flush();
}

// Row ids only grow (also across a truncation), so the rows not printed yet
// are those above the last id read, up to the highest id at this read.
bool LogViewer::ReadNewEntries(std::map<std::string, long long>& lastIds,
                               std::vector<LogEntry>& rows) {
  bool ok = true;
  for (auto& module : lastIds) {
    const std::string table = m_processor->getTableName(module.first);
    long long top = 0;
    std::string select;
    if (table.empty() || !Count("SELECT MAX(id) FROM " + table + ";", top)) {
      ok = false;
      continue;
    }
    if (top <= module.second) continue;
    if (!ModuleSelect(module.first, module.second, top, select) ||
        !Query(select + " ORDER BY id;", rows)) {
      ok = false;
      continue;
    }
    module.second = top;
  }
  std::stable_sort(rows.begin(), rows.end(),
                   [](const LogEntry& a, const LogEntry& b) { return a.time < b.time; });
  return ok;
}

// Without --module every module is followed, also those that appear later.
void LogViewer::AddNewModules(std::map<std::string, long long>& lastIds) {
  if (!m_options.modules.empty()) return;
  std::vector<std::string> known;
  if (!LoadKnownModules(known)) return;
  for (const auto& module : known) lastIds.emplace(module, 0);
}

int LogViewer::Follow(const StopWaiter& waitForStop) {
  std::map<std::string, long long> lastIds;
  for (const auto& module : m_modules) {
    long long top = 0;
    const std::string table = m_processor->getTableName(module);
    if (m_options.since == 0 &&
        (table.empty() || !Count("SELECT MAX(id) FROM " + table + ";", top))) {
      return EXIT_ERROR;
    }
    lastIds[module] = top;
  }
  LogViewFormatter formatter(
      m_options.json, std::max(kFollowModuleWidth, LogViewFormatter::ModuleWidth(m_modules)));
  if (!m_options.json) m_out << formatter.Header() << std::endl;
  do {
    AddNewModules(lastIds);
    std::vector<LogEntry> rows;
    ReadNewEntries(lastIds, rows);
    Print(rows, formatter);
  } while (!waitForStop(m_options.intervalMs));
  return EXIT_OK;
}
