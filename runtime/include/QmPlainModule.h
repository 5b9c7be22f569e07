#ifndef QM_RUNTIME_QMPLAINMODULE_H
#define QM_RUNTIME_QMPLAINMODULE_H

#include <string>

#include "QmLogInterface.h"

// Base of the program's long-lived components: a logger and an
// initialise/finalise pair with hooks for the derived class. A logger passed
// in is not owned; one the module creates itself belongs to the event-log
// registry and is only stopped by Finalize.
class QmPlainModule {
 public:
  QmPlainModule() = default;
  virtual ~QmPlainModule();
  QmPlainModule(const QmPlainModule&) = delete;
  QmPlainModule& operator=(const QmPlainModule&) = delete;

  // Attaches `logger`, or creates one from `logConfigPath` when none is
  // passed and the module wants one; then runs InitializeSpecial.
  bool Initialize(QmLogInterface* logger, const std::string& logConfigPath);
  // Runs FinalizeSpecial and stops a logger the module created. Always true.
  bool Finalize();

  virtual bool InitializeSpecial() { return true; }
  virtual bool FinalizeSpecial() { return true; }
  virtual std::string GetRunningModuleName() = 0;
  virtual bool IsLoggerRequired() { return true; }

  QmLogInterface* GetLogger() const { return m_logger; }

 protected:
  QmLogInterface* m_logger = nullptr;
  bool m_ownsLogger = false;

 private:
  void CreateOwnLogger(const std::string& logConfigPath);
};

#endif
