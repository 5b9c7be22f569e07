#include "QmPlainModule.h"

#include "QmsysEventLogInterface.h"

QmPlainModule::~QmPlainModule() = default;

bool QmPlainModule::Initialize(QmLogInterface* logger, const std::string& logConfigPath) {
  if (!IsLoggerRequired()) {
    if (logger != nullptr) {
      m_logger = logger;
      m_ownsLogger = false;
    }
  } else {
    m_logger = logger;
    m_ownsLogger = false;
    if (logger == nullptr && !logConfigPath.empty()) CreateOwnLogger(logConfigPath);
  }
  return InitializeSpecial();
}

void QmPlainModule::CreateOwnLogger(const std::string& logConfigPath) {
  QmsysEventLogInterface* created = QmsysEventLogInterface::CreateInstance(
      GetRunningModuleName(), QmsysEventLogInterface::SINGLE_THREADED, logConfigPath, "");
  // A logger that does not start stays with the registry that made it (the
  // registry owns every logger it hands out); the module goes on without one.
  if (created != nullptr && created->Start()) {
    m_logger = created;
    m_ownsLogger = true;
  }
}

bool QmPlainModule::Finalize() {
  FinalizeSpecial();
  if (m_ownsLogger && m_logger != nullptr) {
    static_cast<QmsysEventLogInterface*>(m_logger)->Stop();
  }
  return true;
}
