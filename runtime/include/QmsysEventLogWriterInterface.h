#ifndef QM_RUNTIME_QMSYSEVENTLOGWRITERINTERFACE_H
#define QM_RUNTIME_QMSYSEVENTLOGWRITERINTERFACE_H

#include <ctime>
#include <memory>
#include <string>

#include "QmLogInterface.h"
#include "Qmobject.h"

// A log writer: turns one accepted log call into stored text. The front end
// owns its writer, configures it key by key through setParameter and then
// calls it once per line. Writers never throw; their faults go to the
// system log and the call returns false.
class QmsysEventLogWriterInterface : public Qmobject {
 public:
  // Same values as QmLogInterface::LogLevel.
  enum LogLevel {
    LEVEL_NONE = QmLogInterface::LEVEL_NONE,
    LEVEL_TRACE = QmLogInterface::LEVEL_TRACE,
    LEVEL_DEBUG = QmLogInterface::LEVEL_DEBUG,
    LEVEL_INFO = QmLogInterface::LEVEL_INFO,
    LEVEL_WARN = QmLogInterface::LEVEL_WARN,
    LEVEL_ERROR = QmLogInterface::LEVEL_ERROR,
    LEVEL_CRITICAL = QmLogInterface::LEVEL_CRITICAL,
    LEVEL_FATAL = QmLogInterface::LEVEL_FATAL
  };
  // Type 1 names a debugger-console writer that this library does not have.
  enum WriterTypes { FILE_WRITER = 0, QTDEBUG_WRITER = 1, SQLITE_WRITER = 5 };

  ~QmsysEventLogWriterInterface() override;

  virtual bool setParameter(const std::string& key, const std::string& value) = 0;
  // Writes one line; `time` is seconds since the epoch, 0 meaning now.
  virtual bool operator()(const std::string& processName, LogLevel level,
                          const std::string& message, int line, const char* file, time_t time) = 0;
  virtual bool isInitialized() = 0;

  // A new writer of the given type, or null for a type this library lacks.
  static std::unique_ptr<QmsysEventLogWriterInterface> CreateInstance(WriterTypes type);

  // 0..7 map to themselves, anything else to INFO.
  static LogLevel getLogLevel(int level);
  // Case-insensitive level name; unknown text is NONE when strict, else WARN.
  static LogLevel getLogLevel(const std::string& text, bool strict);
  // "NONE" .. "FATAL"; unknown numbers give "NONE".
  static std::string getLogLevelString(int level);
  static int getLogLevelInt(LogLevel level);
  // "[TRACE]" .. "[FATAL]"; NONE and unknown levels have an empty tag.
  static std::string getLevelTag(LogLevel level);
  // Local time of `time` (0: now) as "MM/DD/YYYY hh:mm:ss" into *text when
  // given; returns the time used.
  static time_t getTimeStamp(time_t time, std::string* text);
};

#endif
