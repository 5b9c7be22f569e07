#include "LogViewer.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>

#include "LogDatabaseLocator.h"
#include "QmDBProcessorFatalException.h"

namespace {

// Modules may appear while following, so the column has room to spare.
const size_t kFollowModuleWidth = 12;

// Ordering of merged rows, the same keys and precedence as the SQL ORDER BY
// of the processor: newest first, then module, then level.
bool Before(const QmLogDBProcessorInterface::LogEntry& a,
            const QmLogDBProcessorInterface::LogEntry& b, const LogViewOptions& options) {
  if (options.sortByTime && a.time != b.time) return a.time > b.time;
  if (options.sortByModule && a.module != b.module) return a.module < b.module;
  if (options.sortByLevel && a.level != b.level) return a.level < b.level;
  return false;
}

int PagesFor(size_t rows, int pageSize) {
  return static_cast<int>((rows + static_cast<size_t>(pageSize) - 1) /
                          static_cast<size_t>(pageSize));
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

// The processor would create a missing file, so its absence is checked
// first: a viewer never makes a database.
bool LogViewer::Open() {
  struct stat info {};
  if (stat(m_dbPath.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    Fail("log database not found: " + m_dbPath, EXIT_ERROR);
    return false;
  }
  try {
    m_processor = std::make_unique<QmLogSQLiteProcessor>(m_dbPath, true);
  } catch (const QmDBProcessorFatalException& e) {
    const int code = e.getErrorCode() & 0xFF;
    if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
      Fail("log database is locked: " + m_dbPath + " (" + e.getMessage() + ")", EXIT_ERROR);
    } else {
      Fail("cannot open log database " + m_dbPath + ": " + e.getMessage(), EXIT_ERROR);
    }
    return false;
  }
  return true;
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

QmLogDBProcessorInterface::ReadLogFilter LogViewer::BaseFilter() const {
  ReadLogFilter filter;
  filter.levels = m_options.levels;
  filter.messagePattern = m_options.messagePattern;
  filter.level = m_options.level;
  filter.startTime = m_options.since;
  filter.datePattern = m_options.datePattern;
  return filter;
}

bool LogViewer::ReadAll(const std::string& module, const ReadLogFilter& filter,
                        std::vector<LogEntry>& rows) {
  QmLogDBProcessorInterface::EntrySet entries;
  if (!m_processor->readLogRecord(entries, module, filter)) {
    m_err << "qmlogview: cannot read module '" << module << "': " << m_processor->getDBString()
          << std::endl;
    return false;
  }
  rows.insert(rows.end(), entries.begin(), entries.end());
  return true;
}

// One module: the database sorts and cuts the page; the page count comes
// from the processor when it can express the filter, else from the rows.
bool LogViewer::ReadSingleModulePage(std::vector<LogEntry>& rows, int& pages) {
  const std::string& module = m_modules.front();
  ReadLogFilter filter = BaseFilter();
  filter.sortByTimeDesc = m_options.sortByTime;
  filter.sortByModule = m_options.sortByModule;
  filter.sortByLevel = m_options.sortByLevel;
  filter.limit = m_options.pageSize;
  // A page far past the end must not overflow; it is reported as such.
  const long long offset = static_cast<long long>(m_options.page - 1) * m_options.pageSize;
  filter.offset = static_cast<int>(std::min<long long>(offset, INT_MAX));
  if (!ReadAll(module, filter, rows)) return false;
  if (m_options.levels.empty() && m_options.since == 0) {
    pages = m_processor->getNumberOfPages(module, m_options.pageSize, m_options.level,
                                          m_options.messagePattern, m_options.datePattern);
    if (pages >= 0) return true;
    m_err << "qmlogview: cannot count entries of module '" << module
          << "': " << m_processor->getDBString() << std::endl;
    return false;
  }
  std::vector<LogEntry> all;
  if (!ReadAll(module, BaseFilter(), all)) return false;
  pages = PagesFor(all.size(), m_options.pageSize);
  return true;
}

// Several modules live in several tables: their rows are merged and sorted
// here with the same keys, then cut into pages.
bool LogViewer::ReadMergedPage(std::vector<LogEntry>& rows, int& pages) {
  std::vector<LogEntry> all;
  for (const auto& module : m_modules) {
    if (!ReadAll(module, BaseFilter(), all)) return false;
  }
  std::stable_sort(all.begin(), all.end(), [this](const LogEntry& a, const LogEntry& b) {
    return Before(a, b, m_options);
  });
  pages = PagesFor(all.size(), m_options.pageSize);
  const size_t first = static_cast<size_t>(m_options.page - 1) * m_options.pageSize;
  if (first < all.size()) {
    const size_t last = std::min(all.size(), first + static_cast<size_t>(m_options.pageSize));
    rows.assign(all.begin() + static_cast<long>(first), all.begin() + static_cast<long>(last));
  }
  return true;
}

int LogViewer::ListPage() {
  std::vector<LogEntry> rows;
  int pages = 0;
  const bool read = m_modules.empty() || (m_modules.size() == 1 ? ReadSingleModulePage(rows, pages)
                                                                : ReadMergedPage(rows, pages));
  if (!read) return EXIT_ERROR;
  std::ostream& notes = m_options.json ? m_err : m_out;
  if (pages == 0) {
    notes << "No matching log entries." << std::endl;
    return EXIT_OK;
  }
  if (m_options.page > pages) {
    return Fail("page " + std::to_string(m_options.page) + " is past the last page (" +
                    std::to_string(pages) + ")",
                EXIT_ERROR);
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

// Module tables only grow at the end, so the rows that match a filter keep
// their places in table order and the ones not yet printed are those past
// the count already seen.
bool LogViewer::ReadNewEntries(std::map<std::string, size_t>& seen, std::vector<LogEntry>& rows) {
  bool ok = true;
  for (auto& module : seen) {
    ReadLogFilter filter = BaseFilter();
    filter.offset = static_cast<int>(module.second);
    const size_t before = rows.size();
    if (!ReadAll(module.first, filter, rows)) {
      ok = false;
      continue;
    }
    module.second += rows.size() - before;
  }
  std::stable_sort(rows.begin(), rows.end(),
                   [](const LogEntry& a, const LogEntry& b) { return a.time < b.time; });
  return ok;
}

// Without --module every module is followed, also those that appear later.
void LogViewer::AddNewModules(std::map<std::string, size_t>& seen) {
  if (!m_options.modules.empty()) return;
  std::vector<std::string> known;
  if (!LoadKnownModules(known)) return;
  for (const auto& module : known) seen.emplace(module, 0);
}

int LogViewer::Follow(const StopWaiter& waitForStop) {
  std::map<std::string, size_t> seen;
  for (const auto& module : m_modules) {
    std::vector<LogEntry> existing;
    if (m_options.since == 0 && !ReadAll(module, BaseFilter(), existing)) return EXIT_ERROR;
    seen[module] = existing.size();
  }
  LogViewFormatter formatter(
      m_options.json, std::max(kFollowModuleWidth, LogViewFormatter::ModuleWidth(m_modules)));
  if (!m_options.json) m_out << formatter.Header() << std::endl;
  do {
    AddNewModules(seen);
    std::vector<LogEntry> rows;
    ReadNewEntries(seen, rows);
    Print(rows, formatter);
  } while (!waitForStop(m_options.intervalMs));
  return EXIT_OK;
}
