#include "OAPLoggerProxy.h"

#include <mutex>

OAPLoggerProxy* OAPLoggerProxy::Instance() {
  // Never deleted: workers left running may write into it at any time.
  static OAPLoggerProxy* const proxy = new OAPLoggerProxy();
  return proxy;
}

void OAPLoggerProxy::Attach(QmLogInterface* target) {
  std::unique_lock<std::shared_mutex> guard(m_mutex);
  m_target = target;
}

bool OAPLoggerProxy::HandOn(Write write, const std::string& msg, int line, const char* file) {
  std::shared_lock<std::shared_mutex> guard(m_mutex);
  return m_target != nullptr && (m_target->*write)(msg, line, file);
}

bool OAPLoggerProxy::WriteTrace(const std::string& msg, int line, const char* file) {
  return HandOn(&QmLogInterface::WriteTrace, msg, line, file);
}

bool OAPLoggerProxy::WriteDebug(const std::string& msg, int line, const char* file) {
  return HandOn(&QmLogInterface::WriteDebug, msg, line, file);
}

bool OAPLoggerProxy::WriteInfo(const std::string& msg, int line, const char* file) {
  return HandOn(&QmLogInterface::WriteInfo, msg, line, file);
}

bool OAPLoggerProxy::WriteWarn(const std::string& msg, int line, const char* file) {
  return HandOn(&QmLogInterface::WriteWarn, msg, line, file);
}

bool OAPLoggerProxy::WriteError(const std::string& msg, int line, const char* file) {
  return HandOn(&QmLogInterface::WriteError, msg, line, file);
}

bool OAPLoggerProxy::WriteCritical(const std::string& msg, int line, const char* file) {
  return HandOn(&QmLogInterface::WriteCritical, msg, line, file);
}

bool OAPLoggerProxy::WriteFatal(const std::string& msg, int line, const char* file) {
  return HandOn(&QmLogInterface::WriteFatal, msg, line, file);
}

void OAPLoggerProxy::EnableThreadIdPrefix(bool enable) {
  std::shared_lock<std::shared_mutex> guard(m_mutex);
  if (m_target != nullptr) m_target->EnableThreadIdPrefix(enable);
}

QmLogInterface::LogLevel OAPLoggerProxy::GetLogLevel() {
  std::shared_lock<std::shared_mutex> guard(m_mutex);
  return m_target != nullptr ? m_target->GetLogLevel() : LEVEL_NONE;
}

std::string OAPLoggerProxy::GetLoggerName() {
  std::shared_lock<std::shared_mutex> guard(m_mutex);
  return m_target != nullptr ? m_target->GetLoggerName() : std::string();
}
