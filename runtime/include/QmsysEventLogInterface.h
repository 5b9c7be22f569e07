#ifndef QM_RUNTIME_QMSYSEVENTLOGINTERFACE_H
#define QM_RUNTIME_QMSYSEVENTLOGINTERFACE_H

#include <atomic>
#include <memory>
#include <string>

#include "QmLogInterface.h"
#include "QmsysEventLogWriterInterface.h"

class IniReaderWriter;

// The runtime's named logger. One object per module name lives in a
// process-wide registry of at most 15 loggers; each is configured from
// "qmlogs.ini" in a configuration directory, filters by level, optionally
// prefixes the calling thread's id and hands accepted lines to the writer
// it owns. The registry owns every registered logger; callers keep plain
// pointers and call Stop() when done, ReleaseAll() frees everything at
// process end. Nothing here throws to callers except GetInstance for an
// unknown module; faults go to the system log. The write operations may be
// called from any thread; configuration (initialize, setWriter) happens
// before the logger is shared.
class QmsysEventLogInterface : public QmLogInterface {
 public:
  enum LoggerType { SINGLE_THREADED = 0, MULTI_THREADED = 1 };
  // Older entry points take these in place of a level.
  enum Severity { SEVERITY_ERROR = 0, SEVERITY_CRITICAL = 1, SEVERITY_FATAL = 2 };
  enum TraceLevel { TRACE_TRACE = 0, TRACE_DEBUG = 1, TRACE_INFO = 2 };

  static const int kMaxLoggers = 15;

  // Repairs "qmlogs.ini" in `configDirectory` for the module, then returns
  // the module's registered logger, creating, configuring and registering
  // one when there is none. Null, with the reason in the system log, for an
  // empty module name, when the registry is full or when the logger cannot
  // be made.
  static QmsysEventLogInterface* CreateInstance(const std::string& moduleName, LoggerType type,
                                                const std::string& configDirectory,
                                                const std::string& processName);
  // Same, without a configuration file: the logger gets a fresh, still
  // unconfigured writer of `writerType` (see GetWriter) and level INFO.
  static QmsysEventLogInterface* CreateInstance(
      const std::string& moduleName, LoggerType type,
      QmsysEventLogWriterInterface::WriterTypes writerType, const std::string& processName);
  // The module's registered logger; throws a const char* text when none.
  static QmsysEventLogInterface* GetInstance(const std::string& moduleName, int line = 0,
                                             const char* file = nullptr);
  // The first registered logger; throws a const char* text when none.
  static QmsysEventLogInterface* GetInstance(int line, const char* file);
  static bool IsInstanceAvailable(const std::string& moduleName);
  // Stops and deletes every registered logger and empties the registry.
  static void ReleaseAll();

  // Configuration file helpers.
  static std::string getConfigFileName(const std::string& directory);
  // Log file path for `fileName` next to the configuration: the part of
  // `configPath` before its last "/config", then "/logs/"; with an explicit
  // `directory` the path is directory + "/" + fileName + "_log.txt".
  static std::string getLogDirPath(const std::string& configPath, const std::string& fileName,
                                   const std::string& directory = std::string());
  static bool generateConfigFile(const std::string& configPath, const std::string& moduleName);
  static bool checkAndRepairConfigFile(const std::string& configDirectory,
                                       const std::string& moduleName);
  // Value of `attribute` in the logger section that configures the module.
  static std::string getModuleAttributeValues(const std::string& configDirectory,
                                              const std::string& moduleName,
                                              const std::string& attribute);
  // Takes the module out of "[main]" and drops its logger section unless
  // another module still uses it ("[common]" always stays). The module then
  // logs through "[common]". False when the file cannot be read or written.
  static bool deleteLogger(const std::string& configDirectory, const std::string& moduleName);
  // Points the module's "[main]" entry at `loggerName`, creating that logger
  // section with the file-writer defaults when it does not exist yet.
  static bool updateLoggerName(const std::string& configDirectory, const std::string& moduleName,
                               const std::string& loggerName);
  // Deletes the module's own files in `directory`: its log file as
  // getLogDirPath names it ("<module>_logger.txt", "<module>(NN)_logger.txt",
  // "<module>_log.txt", each optionally with a ".<n>" before ".txt"), the
  // numbered archives of that file and its lock file. Files of other modules
  // stay, even when their names begin with this module's name.
  static bool DeleteLoggerFiles(const std::string& directory, const std::string& moduleName);

  explicit QmsysEventLogInterface(const std::string& moduleName);
  ~QmsysEventLogInterface() override;
  QmsysEventLogInterface(const QmsysEventLogInterface&) = delete;
  QmsysEventLogInterface& operator=(const QmsysEventLogInterface&) = delete;

  bool WriteTrace(const std::string& msg, int line, const char* file) override;
  bool WriteDebug(const std::string& msg, int line, const char* file) override;
  bool WriteInfo(const std::string& msg, int line, const char* file) override;
  bool WriteWarn(const std::string& msg, int line, const char* file) override;
  bool WriteError(const std::string& msg, int line, const char* file) override;
  bool WriteCritical(const std::string& msg, int line, const char* file) override;
  bool WriteFatal(const std::string& msg, int line, const char* file) override;
  void EnableThreadIdPrefix(bool enable) override;
  LogLevel GetLogLevel() override;
  std::string GetLoggerName() override;

  // The virtual operations below keep this order: hosts that were built
  // against this class call them by their place in the table.
  virtual QmsysEventLogWriterInterface* GetWriter();
  virtual void setLogLevel(QmsysEventLogWriterInterface::LogLevel level);
  virtual void SetLogLevel(QmLogInterface::LogLevel level);
  // Stores the configuration path and process name and loads the writer.
  virtual bool initialize(const std::string& configDirectory, const std::string& processName);
  virtual bool Start();
  virtual bool Stop();
  virtual bool IsAlive();

  // Hands one accepted line to the writer (front-end specific).
  virtual bool Print(QmsysEventLogWriterInterface::LogLevel level, const std::string& message,
                     int line, const char* file) = 0;

  // Older printf-style entry points: "<tag> <text>" at the given level.
  bool Print(const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));
  bool WriteInfo(const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));
  bool WriteError(Severity severity, const char* format, ...) __attribute__((format(printf, 3, 4)));
  bool WriteTrace(TraceLevel level, const char* format, ...) __attribute__((format(printf, 3, 4)));
  // Error line with " [System Library Error] " and the last system error.
  bool WriteSystemError(const char* tag, const char* format, ...)
      __attribute__((format(printf, 3, 4)));

 protected:
  // Reads the module's logger section and creates the writer; retried
  // while no writer exists, at most `attempts` times.
  bool loadWriterConfig(int attempts);
  void setWriter(std::unique_ptr<QmsysEventLogWriterInterface> writer);
  // The writer, shared with a front end's worker that may outlive a Stop.
  std::shared_ptr<QmsysEventLogWriterInterface> sharedWriter() const { return m_writer; }
  const std::string& getProcessName() const { return m_processName; }

 private:
  bool loadWriterConfigOnce();
  bool configureWriter(IniReaderWriter& ini, const std::string& section);
  bool writeAt(QmsysEventLogWriterInterface::LogLevel level, const std::string& msg, int line,
               const char* file);
  bool writeLegacy(QmsysEventLogWriterInterface::LogLevel level, const std::string& text);

  std::string m_configPath;
  std::string m_processName;
  std::shared_ptr<QmsysEventLogWriterInterface> m_writer;
  std::atomic<QmsysEventLogWriterInterface::LogLevel> m_level{
      QmsysEventLogWriterInterface::LEVEL_INFO};
  std::atomic<bool> m_alive{false};
  std::atomic<bool> m_threadIdPrefix{false};
  std::string m_loggerName;
};

#endif
