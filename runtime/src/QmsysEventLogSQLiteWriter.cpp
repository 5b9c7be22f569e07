#include "QmsysEventLogSQLiteWriter.h"

#include <cstdlib>
#include <exception>

#include "QmLogSQLiteProcessor.h"
#include "QmString.h"
#include "QmconCriticalSection.h"
#include "QmioDirectory.h"
#include "QmsysSystemLog.h"

namespace {

const char* TextOr(const std::exception& e, const char* fallback) {
  const char* text = e.what();
  return (text != nullptr && *text != '\0') ? text : fallback;
}

void Report(const char* function, const std::string& text, const char* fallback) {
  QmsysSystemLog::Write(function, QmsysSystemLog::CATEGORY_ERROR, "%s",
                        text.empty() ? fallback : text.c_str());
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

bool QmsysEventLogSQLiteWriter::isInitialized() {
  QmconCriticalSection guard(&m_lock, true, true, false);
  return m_initialized;
}

bool QmsysEventLogSQLiteWriter::setDbFileName(const std::string& name) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  m_processor.reset();
  m_dbFileName = name;
  m_initialized = !name.empty();
  m_truncated.clear();
  m_openFailureReported = false;
  return m_initialized && openProcessor();
}

bool QmsysEventLogSQLiteWriter::setMakeDbTruncateFlag(bool truncate) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  m_truncate = truncate;
  m_truncated.clear();
  return true;
}

// Called with the lock held. The first failure since the name was set is
// reported; the following ones would only repeat it.
bool QmsysEventLogSQLiteWriter::openProcessor() {
  const char* const fallback = "Unable to initialize sqlite writer. Unknown error.";
  try {
    QmioDirectory::Create(QmioDirectory::Of(m_dbFileName));
    m_processor = std::make_unique<QmLogSQLiteProcessor>(m_dbFileName, true);
    m_openFailureReported = false;
    return true;
  } catch (const std::exception& e) {
    if (!m_openFailureReported) {
      Report("QmsysEventLogSQLiteWriter::setDbFileName", TextOr(e, fallback), fallback);
    }
  } catch (...) {
    if (!m_openFailureReported) Report("QmsysEventLogSQLiteWriter::setDbFileName", "", fallback);
  }
  m_openFailureReported = true;
  return false;
}

// Called with the lock held.
bool QmsysEventLogSQLiteWriter::truncateOnce(const std::string& module) {
  if (!m_truncate || m_truncated.count(module) != 0) return true;
  if (!m_processor->cleanModuleTable(module)) {
    Report("QmsysEventLogSQLiteWriter::setMakeDbTruncateFlag", m_processor->getDBString(),
           "Unable to truncate sqlite writer module's tables. Unknown error.");
    return false;
  }
  m_truncated.insert(module);
  return true;
}

std::string QmsysEventLogSQLiteWriter::getModuleName(const std::string& processName) {
  return processName.substr(0, processName.find('.'));
}

bool QmsysEventLogSQLiteWriter::operator()(const std::string& processName, LogLevel level,
                                           const std::string& message, int line, const char* file,
                                           time_t time) {
  const char* const source = "QmsysEventLogSQLiteWriter::operator()";
  const char* const fallback = "Unable to write log entry. Unknown error.";
  try {
    QmconCriticalSection guard(&m_lock, true, true, false);
    if (!m_initialized || (!m_processor && !openProcessor())) return false;
    const std::string module = getModuleName(processName);
    truncateOnce(module);
    const time_t used = getTimeStamp(time, nullptr);
    if (m_processor->writeLogRecord(module, message, used, getLogLevelInt(level),
                                    file != nullptr ? file : "", line)) {
      return true;
    }
    Report(source, m_processor->getDBString(), fallback);
  } catch (const std::exception& e) {
    Report(source, TextOr(e, fallback), fallback);
  } catch (...) {
    Report(source, "", fallback);
  }
  return false;
}
