#include "QmsysEventLogInterface.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "QmException.h"
#include "QmIniReaderWriterEx.h"
#include "QmString.h"
#include "QmconFunctions.h"
#include "QmioDirectory.h"
#include "QmsysEventLogMultiThreaded.h"
#include "QmsysEventLogSingleThreaded.h"
#include "QmsysSystemLog.h"

namespace {

const int kLoadAttempts = 25;
const char* const kMainHead = "[main]";
const char* const kCommonHead = "[common]";
const char* const kCommonLogger = "common";
const char* const kCommonLogFile = "common_logs";

// The process-wide table of named loggers, in registration order. Never
// destroyed, so loggers a process does not release stay reachable.
struct Registry {
  std::mutex mutex;
  std::vector<std::pair<std::string, std::unique_ptr<QmsysEventLogInterface>>> loggers;

  QmsysEventLogInterface* find(const std::string& name) const {
    for (const auto& entry : loggers) {
      if (entry.first == name) return entry.second.get();
    }
    return nullptr;
  }

  // Replaces a logger of the same name; fails when the table is full.
  bool add(const std::string& name, std::unique_ptr<QmsysEventLogInterface> logger) {
    for (auto& entry : loggers) {
      if (entry.first == name) {
        entry.second = std::move(logger);
        return true;
      }
    }
    if (loggers.size() >= static_cast<size_t>(QmsysEventLogInterface::kMaxLoggers)) return false;
    loggers.emplace_back(name, std::move(logger));
    return true;
  }
};

Registry& TheRegistry() {
  static Registry* registry = new Registry;
  return *registry;
}

bool FileExists(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0;
}

std::string SectionOf(const std::string& loggerName) {
  return "[" + loggerName + "]";
}

// The logger that configures the module: its "[main]" entry, else "common"
// when that section names a writer; empty when there is none.
std::string LoggerNameFor(const IniReaderWriter& ini, const std::string& moduleName) {
  const std::string name = ini.getKeyValue(kMainHead, moduleName);
  if (!name.empty()) return name;
  return ini.isKeyPresent(kCommonHead, "writer") ? kCommonLogger : std::string();
}

void SetMissingKey(IniReaderWriter& ini, const std::string& head, const std::string& key,
                   const std::string& value) {
  if (ini.getKeyValue(head, key).empty()) ini.setKeyValue(head, key, value);
}

// Writes the default keys of a file logger section where they are missing,
// optionally enters the module in "[main]", and creates the log file.
void CreateDefaultLogger(IniReaderWriter& ini, const std::string& configPath,
                         const std::string& moduleName, const std::string& loggerName,
                         const std::string& logFileName, bool addToMain) {
  const std::string head = SectionOf(loggerName);
  std::string logPath = ini.getKeyValue(head, "filePath");
  if (logPath.empty()) logPath = QmsysEventLogInterface::getLogDirPath(configPath, logFileName);
  SetMissingKey(ini, head, "writer", "file");
  SetMissingKey(ini, head, "level", "info");
  SetMissingKey(ini, head, "filePath", logPath);
  SetMissingKey(ini, head, "bytesPerFiles", "204800");
  SetMissingKey(ini, head, "numFiles", "20");
  SetMissingKey(ini, head, "autoAppend", "1");
  SetMissingKey(ini, head, "perProcessFile", "0");
  if (addToMain) ini.setKeyValue(kMainHead, moduleName, loggerName);
  QmioDirectory::Create(QmioDirectory::Of(logPath));
  if (!FileExists(logPath)) {
    FILE* file = fopen(logPath.c_str(), "w");
    if (file != nullptr) fclose(file);
  }
}

bool IsLoggerNameTaken(const IniReaderWriter& ini, const std::string& moduleName,
                       const std::string& loggerName) {
  return ini.isHeadPresent(SectionOf(loggerName)) &&
         ini.getKeyValue(kMainHead, moduleName) != loggerName;
}

// Adds a logger of the module's own ("<module>_logger", or with the first
// free counter when another module has that name) and enters it in "[main]".
void CreateLogger(IniReaderWriter& ini, const std::string& configPath,
                  const std::string& moduleName) {
  std::string name = moduleName + "_logger";
  for (int counter = 1; IsLoggerNameTaken(ini, moduleName, name) && counter < 100; ++counter) {
    name = QmstringFormat("%s(%02d)_logger", moduleName.c_str(), counter);
  }
  CreateDefaultLogger(ini, configPath, moduleName, name, name, true);
}

// The name a logger's default log file is made from.
std::string LogFileNameOf(const std::string& loggerName) {
  return loggerName == kCommonLogger ? kCommonLogFile : loggerName;
}

// Makes sure the module's logger section exists and names a writer, and
// that a file logger names its file and an SQLite logger its database (by
// default beside the configuration directory, in "logs").
bool RepairModuleLogger(IniReaderWriter& ini, const std::string& configPath,
                        const std::string& moduleName) {
  const std::string name = LoggerNameFor(ini, moduleName);
  if (name.empty()) {
    CreateLogger(ini, configPath, moduleName);
    return true;
  }
  const std::string head = SectionOf(name);
  const std::string writer = ini.getKeyValue(head, "writer");
  if (writer.empty()) {
    CreateDefaultLogger(ini, configPath, moduleName, name, LogFileNameOf(name), false);
    return true;
  }
  if (QmstringEqualsNoCase(writer, "file") && ini.getKeyValue(head, "filePath").empty()) {
    ini.setKeyValue(head, "filePath",
                    QmsysEventLogInterface::getLogDirPath(configPath, LogFileNameOf(name)));
    return true;
  }
  if (QmstringEqualsNoCase(writer, "sqlite") && ini.getKeyValue(head, "dbfilename").empty() &&
      ini.getKeyValue(head, "filename").empty()) {
    const std::string logPath =
        QmsysEventLogInterface::getLogDirPath(configPath, LogFileNameOf(name));
    ini.setKeyValue(head, "dbfilename", logPath.substr(0, logPath.size() - 4) + ".db");
    return true;
  }
  return false;
}

// True when a module other than `moduleName` names `loggerName` in "[main]".
bool IsLoggerShared(const IniReaderWriter& ini, const std::string& moduleName,
                    const std::string& loggerName) {
  for (int index = 0;; ++index) {
    const std::string key = ini.getKey(kMainHead, index);
    if (key.empty()) return false;
    if (key != moduleName && ini.getKeyValue(kMainHead, index) == loggerName) return true;
  }
}

// The module's registered logger, or a new one of `type`, set up by
// `configure` and registered; null when the registry is full.
QmsysEventLogInterface* FindOrRegister(
    const std::string& moduleName, QmsysEventLogInterface::LoggerType type,
    const std::function<void(QmsysEventLogInterface&)>& configure) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  if (QmsysEventLogInterface* found = registry.find(moduleName)) return found;
  if (registry.loggers.size() >= static_cast<size_t>(QmsysEventLogInterface::kMaxLoggers)) {
    QmsysSystemLog::Write("QmsysEventLogInterface::CreateInstance", QmsysSystemLog::CATEGORY_ERROR,
                          "Unable to register logger for module [%s]: registry is full.",
                          moduleName.c_str());
    return nullptr;
  }
  std::unique_ptr<QmsysEventLogInterface> logger;
  if (type == QmsysEventLogInterface::MULTI_THREADED) {
    logger = std::make_unique<QmsysEventLogMultiThreaded>(moduleName);
  } else {
    logger = std::make_unique<QmsysEventLogSingleThreaded>(moduleName);
  }
  configure(*logger);
  QmsysEventLogInterface* created = logger.get();
  registry.add(moduleName, std::move(logger));
  return created;
}

void ReportConfigFault(const char* function, const std::string& path) {
  QmsysSystemLog::Write(function, QmsysSystemLog::CATEGORY_ERROR, "Unable to open %s: %s",
                        path.c_str(), QmgetLastError().c_str());
}

// Runs `edit` on the configuration file under its exclusive lock and writes
// the file back when `edit` changed it.
template <typename Edit>
bool EditConfigFile(const std::string& configDirectory, const char* function, Edit edit) {
  const std::string configPath = QmsysEventLogInterface::getConfigFileName(configDirectory);
  QmIniReaderWriterEx ini(configPath, true, true);
  if (!ini.open(false) || !ini.lock(false) || !ini.read()) {
    ReportConfigFault(function, configPath);
    return false;
  }
  const bool written = !edit(ini, configPath) || ini.write();
  ini.close();
  return written;
}

// Consumes `prefix` at the front of `text`.
bool Take(const char*& text, const char* prefix) {
  const size_t length = strlen(prefix);
  if (strncmp(text, prefix, length) != 0) return false;
  text += length;
  return true;
}

// Consumes "." and one or more digits at the front of `text`.
bool TakeNumber(const char*& text) {
  if (text[0] != '.' || !isdigit(static_cast<unsigned char>(text[1]))) return false;
  for (++text; isdigit(static_cast<unsigned char>(*text));) ++text;
  return true;
}

// A log file, archive or lock file of the module whose file names begin
// with `stem`: stem[(NN)]_logger[.n].txt[.n][.lock] or the same with _log.
bool IsOwnLogFile(const char* name, const std::string& stem) {
  if (!Take(name, stem.c_str())) return false;
  if (name[0] == '(' && isdigit(static_cast<unsigned char>(name[1])) &&
      isdigit(static_cast<unsigned char>(name[2])) && name[3] == ')') {
    name += 4;
  }
  if (!Take(name, "_logger") && !Take(name, "_log")) return false;
  TakeNumber(name);
  if (!Take(name, ".txt")) return false;
  TakeNumber(name);
  Take(name, ".lock");
  return *name == '\0';
}

// The text of the exception being handled (call inside a catch block).
std::string CurrentExceptionText() {
  try {
    throw;
  } catch (const QmException& e) {
    return e.ToString();
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "Unknown error";
  }
}

// Runs `action`; whatever it throws is reported under `source` and makes
// the result false.
template <typename Action>
bool Guarded(const char* source, Action action) {
  try {
    return action();
  } catch (...) {
    QmsysSystemLog::Write(source, QmsysSystemLog::CATEGORY_ERROR, "%s",
                          CurrentExceptionText().c_str());
  }
  return false;
}

// Runs `create` unless the module name is empty; whatever it throws is
// reported and becomes a null logger.
template <typename Create>
QmsysEventLogInterface* CreateGuarded(const std::string& moduleName, Create create) {
  const char* const source = "QmsysEventLogInterface::CreateInstance";
  if (moduleName.empty()) {
    QmsysSystemLog::Write(source, QmsysSystemLog::CATEGORY_ERROR,
                          "Unable to create a logger without a module name.");
    return nullptr;
  }
  QmsysEventLogInterface* created = nullptr;
  Guarded(source, [&] {
    created = create();
    return true;
  });
  return created;
}

}  // namespace

// ---- registry --------------------------------------------------------------

QmsysEventLogInterface* QmsysEventLogInterface::CreateInstance(const std::string& moduleName,
                                                               LoggerType type,
                                                               const std::string& configDirectory,
                                                               const std::string& processName) {
  return CreateGuarded(moduleName, [&] {
    checkAndRepairConfigFile(configDirectory, moduleName);
    return FindOrRegister(moduleName, type, [&](QmsysEventLogInterface& logger) {
      logger.initialize(configDirectory, processName);
    });
  });
}

QmsysEventLogInterface* QmsysEventLogInterface::CreateInstance(
    const std::string& moduleName, LoggerType type,
    QmsysEventLogWriterInterface::WriterTypes writerType, const std::string& processName) {
  return CreateGuarded(moduleName, [&] {
    return FindOrRegister(moduleName, type, [&](QmsysEventLogInterface& logger) {
      logger.m_processName = processName;
      logger.setWriter(QmsysEventLogWriterInterface::CreateInstance(writerType));
    });
  });
}

QmsysEventLogInterface* QmsysEventLogInterface::GetInstance(const std::string& moduleName, int line,
                                                            const char* file) {
  {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    if (QmsysEventLogInterface* found = registry.find(moduleName)) return found;
  }
  static thread_local std::string text;
  if (line == 0 && file == nullptr) {
    text =
        QmstringFormat("QmsysEventLogInterface object for module [%s] is called before creation.",
                       moduleName.c_str());
  } else {
    text = QmstringFormat(
        "QmsysEventLogInterface object for module [%s] is called before creation @ line [%d] in "
        "file [%s].",
        moduleName.c_str(), line, file != nullptr ? file : "");
  }
  QmsysSystemLog::Write("QmsysEventLogInterface::GetInstance()", QmsysSystemLog::CATEGORY_ERROR,
                        "%s", text.c_str());
  throw text.c_str();
}

QmsysEventLogInterface* QmsysEventLogInterface::GetInstance(int line, const char* file) {
  {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    if (!registry.loggers.empty()) return registry.loggers.front().second.get();
  }
  static thread_local std::string text;
  text = QmstringFormat(
      "QmsysEventLogInterface object is called before creation @ line [%d] in file [%s].", line,
      file != nullptr ? file : "");
  QmsysSystemLog::Write("QmsysEventLogInterface::GetInstance()", QmsysSystemLog::CATEGORY_ERROR,
                        "%s", text.c_str());
  throw text.c_str();
}

bool QmsysEventLogInterface::IsInstanceAvailable(const std::string& moduleName) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  return registry.find(moduleName) != nullptr;
}

void QmsysEventLogInterface::ReleaseAll() {
  std::vector<std::pair<std::string, std::unique_ptr<QmsysEventLogInterface>>> released;
  {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    released.swap(registry.loggers);
  }
  for (auto& entry : released) entry.second->Stop();
}

// ---- configuration file ----------------------------------------------------

std::string QmsysEventLogInterface::getConfigFileName(const std::string& directory) {
  std::string path;
  for (size_t i = 0; i < directory.size(); ++i) {
    path += directory[i];
    if (directory[i] != '\\') continue;
    if (i + 1 < directory.size() && directory[i + 1] == '\\') {
      path += directory[++i];
    } else {
      path += '\\';
    }
  }
  if (path.empty() || path.back() != '/') path += "/";
  return path + "qmlogs.ini";
}

std::string QmsysEventLogInterface::getLogDirPath(const std::string& configPath,
                                                  const std::string& fileName,
                                                  const std::string& directory) {
  const std::string name = QmstringReplaceAll(fileName, " ", "_");
  if (!directory.empty()) return directory + "/" + name + "_log.txt";
  const size_t config = configPath.rfind("/config");
  const std::string base =
      config != std::string::npos ? configPath.substr(0, config) : QmioDirectory::Of(configPath);
  const std::string logDir = base + "/logs/";
  std::string path = QmstringFormat("%s%s.txt", logDir.c_str(), name.c_str());
  for (int index = 0; FileExists(path); ++index) {
    path = QmstringFormat("%s%s.%d.txt", logDir.c_str(), name.c_str(), index);
  }
  return path;
}

bool QmsysEventLogInterface::generateConfigFile(const std::string& configPath,
                                                const std::string& moduleName) {
  QmioDirectory::Create(QmioDirectory::Of(configPath));
  QmIniReaderWriterEx ini(configPath, true, true);
  if (!ini.open(true)) {
    ReportConfigFault("QmsysEventLogInterface::generateConfigFile", configPath);
    return false;
  }
  ini.lock(false);
  ini[kMainHead];
  CreateLogger(ini, configPath, moduleName);
  CreateDefaultLogger(ini, configPath, kCommonLogger, kCommonLogger, kCommonLogFile, false);
  const bool written = ini.write();
  ini.close();
  return written;
}

bool QmsysEventLogInterface::checkAndRepairConfigFile(const std::string& configDirectory,
                                                      const std::string& moduleName) {
  const std::string configPath = getConfigFileName(configDirectory);
  if (!FileExists(configPath)) return generateConfigFile(configPath, moduleName);
  return EditConfigFile(configDirectory, "QmsysEventLogInterface::checkAndRepairConfigFile",
                        [&](IniReaderWriter& ini, const std::string& path) {
                          bool changed = false;
                          if (!ini.isHeadPresent(kMainHead)) {
                            ini[kMainHead];
                            changed = true;
                          }
                          if (!ini.isHeadPresent(kCommonHead)) {
                            CreateDefaultLogger(ini, path, kCommonLogger, kCommonLogger,
                                                kCommonLogFile, false);
                            changed = true;
                          }
                          return RepairModuleLogger(ini, path, moduleName) || changed;
                        });
}

std::string QmsysEventLogInterface::getModuleAttributeValues(const std::string& configDirectory,
                                                             const std::string& moduleName,
                                                             const std::string& attribute) {
  QmIniReaderWriterEx ini(getConfigFileName(configDirectory), true, true);
  if (!ini.open(false) || !ini.lock(true) || !ini.read()) return std::string();
  const std::string name = LoggerNameFor(ini, moduleName);
  const std::string value =
      name.empty() ? std::string() : ini.getKeyValue(SectionOf(name), attribute);
  ini.close();
  return value;
}

bool QmsysEventLogInterface::deleteLogger(const std::string& configDirectory,
                                          const std::string& moduleName) {
  return EditConfigFile(configDirectory, "QmsysEventLogInterface::deleteLogger",
                        [&](IniReaderWriter& ini, const std::string&) {
                          const std::string name = ini.getKeyValue(kMainHead, moduleName);
                          if (!ini.removeKey(kMainHead, moduleName)) return false;
                          if (name != kCommonLogger && !IsLoggerShared(ini, moduleName, name)) {
                            ini.removeSection(SectionOf(name));
                          }
                          return true;
                        });
}

bool QmsysEventLogInterface::updateLoggerName(const std::string& configDirectory,
                                              const std::string& moduleName,
                                              const std::string& loggerName) {
  if (moduleName.empty() || loggerName.empty()) return false;
  return EditConfigFile(configDirectory, "QmsysEventLogInterface::updateLoggerName",
                        [&](IniReaderWriter& ini, const std::string& configPath) {
                          CreateDefaultLogger(ini, configPath, moduleName, loggerName, loggerName,
                                              true);
                          return true;
                        });
}

bool QmsysEventLogInterface::DeleteLoggerFiles(const std::string& directory,
                                               const std::string& moduleName) {
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) return false;
  const std::string stem = QmstringReplaceAll(moduleName, " ", "_");
  std::vector<std::string> doomed;
  while (dirent* entry = readdir(dir)) {
    if (!stem.empty() && IsOwnLogFile(entry->d_name, stem)) {
      doomed.push_back(directory + "/" + entry->d_name);
    }
  }
  closedir(dir);
  bool deleted = true;
  for (const std::string& path : doomed) deleted = (unlink(path.c_str()) == 0) && deleted;
  return deleted;
}

// ---- one logger ------------------------------------------------------------

QmsysEventLogInterface::QmsysEventLogInterface(const std::string& moduleName)
    : m_loggerName(moduleName) {}

QmsysEventLogInterface::~QmsysEventLogInterface() = default;

bool QmsysEventLogInterface::initialize(const std::string& configDirectory,
                                        const std::string& processName) {
  m_configPath = getConfigFileName(configDirectory);
  m_processName = processName;
  return Guarded("QmsysEventLogInterface::initialize",
                 [&] { return loadWriterConfig(kLoadAttempts); });
}

bool QmsysEventLogInterface::loadWriterConfig(int attempts) {
  for (int attempt = 0; attempt < attempts && !m_writer; ++attempt) loadWriterConfigOnce();
  return m_writer != nullptr;
}

bool QmsysEventLogInterface::loadWriterConfigOnce() {
  QmIniReaderWriterEx ini(m_configPath, true, true);
  if (!ini.open(false) || !ini.lock(true) || !ini.read()) {
    QmsysSystemLog::Write("QmsysEventLogInterface::loadWriterConfig",
                          QmsysSystemLog::CATEGORY_ERROR,
                          "Unable to load/read config/qmlogs.ini file.");
    return false;
  }
  const std::string name = LoggerNameFor(ini, m_loggerName);
  return !name.empty() && configureWriter(ini, SectionOf(name));
}

bool QmsysEventLogInterface::configureWriter(IniReaderWriter& ini, const std::string& section) {
  const std::string writerName = ini.getKeyValue(section, "writer");
  QmsysEventLogWriterInterface::WriterTypes type;
  if (QmstringEqualsNoCase(writerName, "sqlite")) {
    type = QmsysEventLogWriterInterface::SQLITE_WRITER;
  } else if (QmstringEqualsNoCase(writerName, "file")) {
    type = QmsysEventLogWriterInterface::FILE_WRITER;
  } else if (QmstringEqualsNoCase(writerName, "qtdebug")) {
    type = QmsysEventLogWriterInterface::QTDEBUG_WRITER;
  } else {
    return false;
  }
  std::unique_ptr<QmsysEventLogWriterInterface> writer =
      QmsysEventLogWriterInterface::CreateInstance(type);
  if (!writer) {
    QmsysSystemLog::Write("QmsysEventLogInterface::loadWriterConfig",
                          QmsysSystemLog::CATEGORY_ERROR,
                          "Error occurred while creating log writer.");
    return false;
  }
  setLogLevel(QmsysEventLogWriterInterface::getLogLevel(ini.getKeyValue(section, "level"), false));
  for (int index = 0;; ++index) {
    const std::string key = ini.getKey(section, index);
    if (key.empty()) break;
    if (QmstringEqualsNoCase(key, "writer") || QmstringEqualsNoCase(key, "level")) continue;
    writer->setParameter(key, ini.getKeyValue(section, index));
  }
  if (!writer->isInitialized()) {
    QmsysSystemLog::Write("QmsysEventLogInterface::loadWriterConfig",
                          QmsysSystemLog::CATEGORY_ERROR,
                          "Log writer initialization failed. Check qmlogs.ini");
  }
  setWriter(std::move(writer));
  return true;
}

void QmsysEventLogInterface::setWriter(std::unique_ptr<QmsysEventLogWriterInterface> writer) {
  m_writer = std::move(writer);
}

QmsysEventLogWriterInterface* QmsysEventLogInterface::GetWriter() {
  return m_writer.get();
}

bool QmsysEventLogInterface::Start() {
  m_alive = m_writer && m_writer->isInitialized();
  return m_alive;
}

bool QmsysEventLogInterface::Stop() {
  m_alive = false;
  return true;
}

bool QmsysEventLogInterface::IsAlive() {
  return m_alive;
}

void QmsysEventLogInterface::setLogLevel(QmsysEventLogWriterInterface::LogLevel level) {
  m_level = level;
}

void QmsysEventLogInterface::SetLogLevel(QmLogInterface::LogLevel level) {
  m_level = QmsysEventLogWriterInterface::getLogLevel(static_cast<int>(level));
}

QmLogInterface::LogLevel QmsysEventLogInterface::GetLogLevel() {
  return static_cast<QmLogInterface::LogLevel>(m_level.load());
}

std::string QmsysEventLogInterface::GetLoggerName() {
  return m_loggerName;
}

void QmsysEventLogInterface::EnableThreadIdPrefix(bool enable) {
  m_threadIdPrefix = enable;
}

// ---- writing ---------------------------------------------------------------

bool QmsysEventLogInterface::writeAt(QmsysEventLogWriterInterface::LogLevel level,
                                     const std::string& msg, int line, const char* file) {
  if (!m_alive) return false;
  if (level != QmsysEventLogWriterInterface::LEVEL_FATAL && m_level > level) return false;
  return Guarded("QmsysEventLogInterface::Print", [&] {
    if (!m_threadIdPrefix) return Print(level, msg, line, file);
    return Print(level, "[TID:" + std::to_string(GetMyThreadID()) + "] " + msg, line, file);
  });
}

bool QmsysEventLogInterface::WriteTrace(const std::string& msg, int line, const char* file) {
  return writeAt(QmsysEventLogWriterInterface::LEVEL_TRACE, msg, line, file);
}

bool QmsysEventLogInterface::WriteDebug(const std::string& msg, int line, const char* file) {
  return writeAt(QmsysEventLogWriterInterface::LEVEL_DEBUG, msg, line, file);
}

bool QmsysEventLogInterface::WriteInfo(const std::string& msg, int line, const char* file) {
  return writeAt(QmsysEventLogWriterInterface::LEVEL_INFO, msg, line, file);
}

bool QmsysEventLogInterface::WriteWarn(const std::string& msg, int line, const char* file) {
  return writeAt(QmsysEventLogWriterInterface::LEVEL_WARN, msg, line, file);
}

bool QmsysEventLogInterface::WriteError(const std::string& msg, int line, const char* file) {
  return writeAt(QmsysEventLogWriterInterface::LEVEL_ERROR, msg, line, file);
}

bool QmsysEventLogInterface::WriteCritical(const std::string& msg, int line, const char* file) {
  return writeAt(QmsysEventLogWriterInterface::LEVEL_CRITICAL, msg, line, file);
}

bool QmsysEventLogInterface::WriteFatal(const std::string& msg, int line, const char* file) {
  return writeAt(QmsysEventLogWriterInterface::LEVEL_FATAL, msg, line, file);
}

// ---- older printf-style entry points ----------------------------------------

bool QmsysEventLogInterface::writeLegacy(QmsysEventLogWriterInterface::LogLevel level,
                                         const std::string& text) {
  return writeAt(level, text, 0, "");
}

bool QmsysEventLogInterface::Print(const char* tag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = QmstringFormatV(format, args);
  va_end(args);
  return writeLegacy(QmsysEventLogWriterInterface::LEVEL_INFO,
                     QmstringFormat("%s %s", tag != nullptr ? tag : "", text.c_str()));
}

bool QmsysEventLogInterface::WriteInfo(const char* tag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = QmstringFormatV(format, args);
  va_end(args);
  return writeLegacy(QmsysEventLogWriterInterface::LEVEL_INFO,
                     QmstringFormat("%s %s", tag != nullptr ? tag : "", text.c_str()));
}

bool QmsysEventLogInterface::WriteError(Severity severity, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = QmstringFormatV(format, args);
  va_end(args);
  QmsysEventLogWriterInterface::LogLevel level = QmsysEventLogWriterInterface::LEVEL_ERROR;
  if (severity == SEVERITY_CRITICAL) level = QmsysEventLogWriterInterface::LEVEL_CRITICAL;
  if (severity == SEVERITY_FATAL) level = QmsysEventLogWriterInterface::LEVEL_FATAL;
  return writeLegacy(level, text);
}

bool QmsysEventLogInterface::WriteTrace(TraceLevel traceLevel, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = QmstringFormatV(format, args);
  va_end(args);
  QmsysEventLogWriterInterface::LogLevel level = QmsysEventLogWriterInterface::LEVEL_TRACE;
  if (traceLevel == TRACE_DEBUG) level = QmsysEventLogWriterInterface::LEVEL_DEBUG;
  if (traceLevel == TRACE_INFO) level = QmsysEventLogWriterInterface::LEVEL_INFO;
  return writeLegacy(level, text);
}

bool QmsysEventLogInterface::WriteSystemError(const char* tag, const char* format, ...) {
  const std::string systemError = QmgetLastError();
  va_list args;
  va_start(args, format);
  const std::string text = QmstringFormatV(format, args);
  va_end(args);
  return writeLegacy(QmsysEventLogWriterInterface::LEVEL_ERROR,
                     QmstringFormat("%s %s", tag != nullptr ? tag : "", text.c_str()) +
                         " [System Library Error] " + systemError);
}
