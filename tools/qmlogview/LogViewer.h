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

// The log viewer: opens the SQLite log database through the log database
// processor, checks the requested modules against its "metatable" and
// prints one page of matching entries, the module list, or (following)
// every new matching entry until told to stop. Owns the processor; writes
// results to `out` and problems to `err`.
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
  using ReadLogFilter = QmLogDBProcessorInterface::ReadLogFilter;

  bool Open();
  bool LoadKnownModules(std::vector<std::string>& modules);
  bool ResolveModules();
  int ListModules();
  int ListPage();
  int Follow(const StopWaiter& waitForStop);

  ReadLogFilter BaseFilter() const;
  bool ReadAll(const std::string& module, const ReadLogFilter& filter, std::vector<LogEntry>& rows);
  bool ReadSingleModulePage(std::vector<LogEntry>& rows, int& pages);
  bool ReadMergedPage(std::vector<LogEntry>& rows, int& pages);
  bool ReadNewEntries(std::map<std::string, size_t>& seen, std::vector<LogEntry>& rows);
  void AddNewModules(std::map<std::string, size_t>& seen);
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
