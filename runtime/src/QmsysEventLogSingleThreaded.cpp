#include "QmsysEventLogSingleThreaded.h"

QmsysEventLogSingleThreaded::QmsysEventLogSingleThreaded(const std::string& moduleName)
    : QmsysEventLogInterface(moduleName) {}

QmsysEventLogSingleThreaded::~QmsysEventLogSingleThreaded() = default;

bool QmsysEventLogSingleThreaded::Print(QmsysEventLogWriterInterface::LogLevel level,
                                        const std::string& message, int line, const char* file) {
  QmsysEventLogWriterInterface* writer = GetWriter();
  if (writer == nullptr) return false;
  return (*writer)(getProcessName(), level, message, line, file, 0);
}
