#include "QmsysEventLogWriterInterface.h"

#include "QmString.h"
#include "QmsysEventLogFileWriter.h"
#include "QmsysEventLogSQLiteWriter.h"

namespace {

const char* const kLevelNames[] = {"NONE", "TRACE", "DEBUG",    "INFO",
                                   "WARN", "ERROR", "CRITICAL", "FATAL"};
const char* const kLevelTags[] = {"",       "[TRACE]", "[DEBUG]",    "[INFO]",
                                  "[WARN]", "[ERROR]", "[CRITICAL]", "[FATAL]"};

struct LevelAlias {
  const char* text;
  QmsysEventLogWriterInterface::LogLevel level;
};

const LevelAlias kLevelAliases[] = {
    {"trace", QmsysEventLogWriterInterface::LEVEL_TRACE},
    {"debug", QmsysEventLogWriterInterface::LEVEL_DEBUG},
    {"infor", QmsysEventLogWriterInterface::LEVEL_INFO},
    {"info", QmsysEventLogWriterInterface::LEVEL_INFO},
    {"information", QmsysEventLogWriterInterface::LEVEL_INFO},
    {"warni", QmsysEventLogWriterInterface::LEVEL_WARN},
    {"warn", QmsysEventLogWriterInterface::LEVEL_WARN},
    {"warning", QmsysEventLogWriterInterface::LEVEL_WARN},
    {"error", QmsysEventLogWriterInterface::LEVEL_ERROR},
    {"criti", QmsysEventLogWriterInterface::LEVEL_CRITICAL},
    {"critical", QmsysEventLogWriterInterface::LEVEL_CRITICAL},
    {"fatal", QmsysEventLogWriterInterface::LEVEL_FATAL},
};

bool IsValidLevel(int level) {
  return level >= QmsysEventLogWriterInterface::LEVEL_NONE &&
         level <= QmsysEventLogWriterInterface::LEVEL_FATAL;
}

}  // namespace

QmsysEventLogWriterInterface::~QmsysEventLogWriterInterface() = default;

std::unique_ptr<QmsysEventLogWriterInterface> QmsysEventLogWriterInterface::CreateInstance(
    WriterTypes type) {
  switch (type) {
    case FILE_WRITER:
      return std::make_unique<QmsysEventLogFileWriter>();
    case SQLITE_WRITER:
      return std::make_unique<QmsysEventLogSQLiteWriter>();
    default:
      return nullptr;
  }
}

QmsysEventLogWriterInterface::LogLevel QmsysEventLogWriterInterface::getLogLevel(int level) {
  return IsValidLevel(level) ? static_cast<LogLevel>(level) : LEVEL_INFO;
}

QmsysEventLogWriterInterface::LogLevel QmsysEventLogWriterInterface::getLogLevel(
    const std::string& text, bool strict) {
  for (const LevelAlias& alias : kLevelAliases) {
    if (QmstringEqualsNoCase(text, alias.text)) return alias.level;
  }
  return strict ? LEVEL_NONE : LEVEL_WARN;
}

std::string QmsysEventLogWriterInterface::getLogLevelString(int level) {
  return IsValidLevel(level) ? kLevelNames[level] : kLevelNames[LEVEL_NONE];
}

int QmsysEventLogWriterInterface::getLogLevelInt(LogLevel level) {
  return static_cast<int>(level);
}

std::string QmsysEventLogWriterInterface::getLevelTag(LogLevel level) {
  return IsValidLevel(level) ? kLevelTags[level] : kLevelTags[LEVEL_NONE];
}

time_t QmsysEventLogWriterInterface::getTimeStamp(time_t time, std::string* text) {
  const time_t used = time == 0 ? ::time(nullptr) : time;
  if (text != nullptr) {
    struct tm local {};
    localtime_r(&used, &local);
    *text = QmstringFormat("%02d/%02d/%d %02d:%02d:%02d", local.tm_mon + 1, local.tm_mday,
                           local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec);
  }
  return used;
}
