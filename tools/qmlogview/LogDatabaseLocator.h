#ifndef QM_TOOLS_LOGDATABASELOCATOR_H
#define QM_TOOLS_LOGDATABASELOCATOR_H

#include <string>

// Finds the SQLite log database named in a logging configuration
// ("qmlogs.ini" in a configuration directory): the "dbfilename" (or
// "filename") of a logger section whose writer is "sqlite". Reads the file
// only; owns nothing.
class LogDatabaseLocator {
 public:
  // With a logger name, that logger's database; without, the one database
  // that the loggers named in "[main]" and "[common]" write to. False with a
  // reason in `error` when there is no such database or more than one.
  static bool Locate(const std::string& configDir, const std::string& loggerName, std::string& path,
                     std::string& error);
};

#endif
