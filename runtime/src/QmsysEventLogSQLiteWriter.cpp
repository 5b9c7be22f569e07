#include "QmsysEventLogSQLiteWriter.h"

#include <cstdlib>
#include <exception>

#include "QmLogSQLiteProcessor.h"
#include "QmString.h"
#include "QmsysSystemLog.h"

namespace {

const char* TextOr(const std::exception& e, const char* fallback) {
  const char* text = e.what();
  return (text != nullptr && *text != '\0') ? text : fallback;
}

}  // namespace

QmsysEventLogSQLiteWriter::QmsysEventLogSQLiteWriter() = default;

QmsysEventLogSQLiteWriter::~QmsysEventLogSQLiteWriter() = default;

bool QmsysEventLogSQLiteWriter::setParameter(const std::string& key, const std::string& value) {
  if (QmstringEqualsNoCase(key, "dbfilename") || QmstringEqualsNoCase(key, "filename")) {
    return setDbFileName(value);
  }
  if (QmstringEqualsNoCase(key, "truncate")) {
    return setMakeDbTruncateFlag(std::strtol(value.c_str(), nullptr, 10) != 0);
  }
  return false;
}

bool QmsysEventLogSQLiteWriter::setDbFileName(const std::string& name) {
  m_processor.reset();
  m_initialized = false;
  m_dbFileName = name;
  try {
    m_processor = std::make_unique<QmLogSQLiteProcessor>(name, true);
  } catch (const std::exception& e) {
    QmsysSystemLog::Write("QmsysEventLogSQLiteWriter::setDbFileName",
                          QmsysSystemLog::CATEGORY_ERROR, "%s",
                          TextOr(e, "Unable to initialize sqlite writer. Unknown error."));
    return false;
  }
  m_initialized = true;
  return !m_truncate || truncateTables();
}

bool QmsysEventLogSQLiteWriter::setMakeDbTruncateFlag(bool truncate) {
  m_truncate = truncate;
  if (!truncate || !m_processor) return true;
  return truncateTables();
}

bool QmsysEventLogSQLiteWriter::truncateTables() {
  if (m_processor->cleanAllModulesTable()) return true;
  const std::string& error = m_processor->getDBString();
  QmsysSystemLog::Write(
      "QmsysEventLogSQLiteWriter::setMakeDbTruncateFlag", QmsysSystemLog::CATEGORY_ERROR, "%s",
      error.empty() ? "Unable to truncate sqlite writer module's tables. Unknown error."
                    : error.c_str());
  return false;
}

std::string QmsysEventLogSQLiteWriter::getModuleName(const std::string& processName) {
  return processName.substr(0, processName.find('.'));
}

bool QmsysEventLogSQLiteWriter::operator()(const std::string& processName, LogLevel level,
                                           const std::string& message, int line, const char* file,
                                           time_t time) {
  if (!m_initialized) return false;
  try {
    const time_t used = getTimeStamp(time, nullptr);
    if (m_processor->writeLogRecord(getModuleName(processName), message, used,
                                    getLogLevelInt(level), file != nullptr ? file : "", line)) {
      return true;
    }
    const std::string& error = m_processor->getDBString();
    QmsysSystemLog::Write(
        "QmsysEventLogSQLiteWriter::operator()", QmsysSystemLog::CATEGORY_ERROR, "%s",
        error.empty() ? "Unable to write log entry. Unknown error." : error.c_str());
  } catch (const std::exception& e) {
    QmsysSystemLog::Write("QmsysEventLogSQLiteWriter::operator()", QmsysSystemLog::CATEGORY_ERROR,
                          "%s", TextOr(e, "Unable to write log entry. Unknown error."));
  }
  return false;
}
