#ifndef QM_RUNTIME_QMSYSEVENTLOGSINGLETHREADED_H
#define QM_RUNTIME_QMSYSEVENTLOGSINGLETHREADED_H

#include <string>

#include "QmsysEventLogInterface.h"

// Logger front end that writes each accepted line in the caller's thread.
// It adds no locking: the writer serialises concurrent lines itself.
class QmsysEventLogSingleThreaded : public QmsysEventLogInterface {
 public:
  explicit QmsysEventLogSingleThreaded(const std::string& moduleName);
  ~QmsysEventLogSingleThreaded() override;

  using QmsysEventLogInterface::Print;
  bool Print(QmsysEventLogWriterInterface::LogLevel level, const std::string& message, int line,
             const char* file) override;
};

#endif
