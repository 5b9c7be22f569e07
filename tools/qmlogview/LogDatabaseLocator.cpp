#include "LogDatabaseLocator.h"

#include <unistd.h>

#include <algorithm>
#include <vector>

#include "IniReaderWriter.h"
#include "QmString.h"
#include "QmsysEventLogInterface.h"

namespace {

// The database file of a logger section, "" when it does not write to one.
std::string DatabaseOf(const IniReaderWriter& ini, const std::string& logger) {
  const std::string head = "[" + logger + "]";
  if (!QmstringEqualsNoCase(QmstringTrim(ini.getKeyValue(head, "writer")), "sqlite")) return "";
  std::string file = QmstringTrim(ini.getKeyValue(head, "dbfilename"));
  if (file.empty()) file = QmstringTrim(ini.getKeyValue(head, "filename"));
  return file;
}

// Every logger that some module uses: the values of "[main]" and "common".
std::vector<std::string> ConfiguredLoggers(const IniReaderWriter& ini) {
  std::vector<std::string> loggers;
  for (int i = 0;; ++i) {
    if (ini.getKey("[main]", i).empty()) break;
    const std::string logger = QmstringTrim(ini.getKeyValue("[main]", i));
    if (!logger.empty() && std::find(loggers.begin(), loggers.end(), logger) == loggers.end()) {
      loggers.push_back(logger);
    }
  }
  if (std::find(loggers.begin(), loggers.end(), "common") == loggers.end()) {
    loggers.push_back("common");
  }
  return loggers;
}

}  // namespace

bool LogDatabaseLocator::Locate(const std::string& configDir, const std::string& loggerName,
                                std::string& path, std::string& error) {
  const std::string configFile = QmsysEventLogInterface::getConfigFileName(configDir);
  if (access(configFile.c_str(), R_OK) != 0) {
    error = "cannot read logging configuration " + configFile;
    return false;
  }
  IniReaderWriter ini(configFile, true, false, false);
  if (!ini.isFileLoaded()) {
    error = "cannot read logging configuration " + configFile;
    return false;
  }
  if (!loggerName.empty()) {
    path = DatabaseOf(ini, loggerName);
    if (path.empty())
      error =
          "logger '" + loggerName + "' in " + configFile + " does not write to an SQLite database";
    return !path.empty();
  }
  std::vector<std::string> files;
  std::vector<std::string> owners;
  for (const auto& logger : ConfiguredLoggers(ini)) {
    const std::string file = DatabaseOf(ini, logger);
    if (file.empty() || std::find(files.begin(), files.end(), file) != files.end()) continue;
    files.push_back(file);
    owners.push_back(logger);
  }
  if (files.size() == 1) {
    path = files.front();
    return true;
  }
  if (files.empty()) {
    error = "no logger in " + configFile + " writes to an SQLite database";
  } else {
    std::string names;
    for (const auto& owner : owners) names += (names.empty() ? "" : ", ") + owner;
    error = "several SQLite log databases in " + configFile + "; choose one with --logger (" +
            names + ")";
  }
  return false;
}
