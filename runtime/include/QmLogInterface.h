#ifndef QM_RUNTIME_QMLOGINTERFACE_H
#define QM_RUNTIME_QMLOGINTERFACE_H

#include <string>

// The logging interface every part of the system writes through. The host
// passes its own implementation to the driver; the runtime's is
// QmsysEventLogInterface. Slot order is part of the host contract.
class QmLogInterface {
 public:
  enum LogLevel {
    LEVEL_NONE = 0,
    LEVEL_TRACE = 1,
    LEVEL_DEBUG = 2,
    LEVEL_INFO = 3,
    LEVEL_WARN = 4,
    LEVEL_ERROR = 5,
    LEVEL_CRITICAL = 6,
    LEVEL_FATAL = 7
  };

  // Each takes the message, the source line and the source file name and
  // returns true when the line was handed on.
  virtual bool WriteTrace(const std::string& msg, int line, const char* file) = 0;
  virtual bool WriteDebug(const std::string& msg, int line, const char* file) = 0;
  virtual bool WriteInfo(const std::string& msg, int line, const char* file) = 0;
  virtual bool WriteWarn(const std::string& msg, int line, const char* file) = 0;
  virtual bool WriteError(const std::string& msg, int line, const char* file) = 0;
  virtual bool WriteCritical(const std::string& msg, int line, const char* file) = 0;
  virtual bool WriteFatal(const std::string& msg, int line, const char* file) = 0;
  virtual void EnableThreadIdPrefix(bool enable) = 0;
  virtual LogLevel GetLogLevel() = 0;
  virtual std::string GetLoggerName() = 0;
  virtual ~QmLogInterface() = default;
};

// Writes through `logger` when one is attached; `level` is Trace, Debug,
// Info, Warn, Error, Critical or Fatal and `file` the source name to record.
#define QM_LOG(logger, level, file, msg)                                      \
  do {                                                                        \
    if ((logger) != nullptr) (logger)->Write##level((msg), __LINE__, (file)); \
  } while (0)

#endif
