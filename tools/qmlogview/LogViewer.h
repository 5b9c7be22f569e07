#ifndef QM_TOOLS_LOGVIEWER_H
#define QM_TOOLS_LOGVIEWER_H

#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "LogViewFormatter.h"
#include "LogViewOptions.h"
#include "QmLogSQLiteProcessor.h"

// The log viewer: opens the SQLite log database read-only through the log
// database processor, checks the requested modules against its
// "metatable" and prints one page of matching entries, the module list, or
// (following) every new matching entry until told to stop. Selecting,
// sorting and paging happen in SQL over all the modules' tables at once, so
// a page costs what it shows, not what the tables hold. Owns the processor;
// writes results to `out` and notes and problems to `err`.
class LogViewer {
 public:
  enum ExitCode { EXIT_OK = 0, EXIT_ERROR = 1, EXIT_USAGE = 2 };
  // Waits up to the given milliseconds; true when the viewer should stop.
  using StopWaiter = std::function<bool(int)>;

  LogViewer(const LogViewOptions& options, std::ostream& out, std::ostream& err);
  ~LogViewer();
  LogViewer(const LogViewer&) = delete;
  LogViewer& operator=(const LogViewer&) = delete;

  // Does what the options ask for and returns the process exit code.
  int Run(const StopWaiter& waitForStop);

 private:
  using LogEntry = QmLogDBProcessorInterface::LogEntry;

  bool Open();
  bool OpenAs(QmLogSQLiteProcessor::OpenMode mode, int& code, std::string& reason);
  bool LoadKnownModules(std::vector<std::string>& modules);
  bool ResolveModules();
  int ListModules();
  int ListPage();
  int Follow(const StopWaiter& waitForStop);

  // The select of one module's matching rows (id first, then the columns
  // of a log entry), limited to ids above `afterId` when it is positive.
  bool ModuleSelect(const std::string& module, long long afterId, long long upToId,
                    std::string& sql);
  // The selects of every module shown, joined with UNION ALL.
  bool AllModulesSelect(std::string& sql);
  bool Query(const std::string& sql, std::vector<LogEntry>& rows);
  bool Count(const std::string& sql, long long& count);
  bool ReadNewEntries(std::map<std::string, long long>& lastIds, std::vector<LogEntry>& rows);
  void AddNewModules(std::map<std::string, long long>& lastIds);
  void Print(const std::vector<LogEntry>& rows, const LogViewFormatter& formatter);
  int Fail(const std::string& message, int code);

  const LogViewOptions& m_options;
  std::ostream& m_out;
  std::ostream& m_err;
  std::string m_dbPath;
  std::unique_ptr<QmLogSQLiteProcessor> m_processor;
  std::vector<std::string> m_modules;  // the modules being shown
};

#endif
