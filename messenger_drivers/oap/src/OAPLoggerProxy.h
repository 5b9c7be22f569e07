#ifndef QM_OAP_OAPLOGGERPROXY_H
#define QM_OAP_OAPLOGGERPROXY_H

#include <shared_mutex>
#include <string>

#include "QmLogInterface.h"

// The logger the driver gives its components: it hands every line on to the
// host's logger while one is attached and writes nothing otherwise. The
// driver detaches the host's logger at Cleanup, after which the host may
// delete it: a worker still running then writes into the proxy, which is
// made once and kept for the life of the process, and never reaches the
// host's logger again.
//
// Thread-safe. Detach waits for the lines being handed on to be written.
class OAPLoggerProxy : public QmLogInterface {
 public:
  // The proxy of this plug-in, made on first use.
  static OAPLoggerProxy* Instance();

  void Attach(QmLogInterface* target);
  void Detach() { Attach(nullptr); }

  bool WriteTrace(const std::string& msg, int line, const char* file) override;
  bool WriteDebug(const std::string& msg, int line, const char* file) override;
  bool WriteInfo(const std::string& msg, int line, const char* file) override;
  bool WriteWarn(const std::string& msg, int line, const char* file) override;
  bool WriteError(const std::string& msg, int line, const char* file) override;
  bool WriteCritical(const std::string& msg, int line, const char* file) override;
  bool WriteFatal(const std::string& msg, int line, const char* file) override;
  void EnableThreadIdPrefix(bool enable) override;
  // LEVEL_NONE while detached.
  LogLevel GetLogLevel() override;
  std::string GetLoggerName() override;

 private:
  OAPLoggerProxy() = default;
  using Write = bool (QmLogInterface::*)(const std::string&, int, const char*);
  bool HandOn(Write write, const std::string& msg, int line, const char* file);

  std::shared_mutex m_mutex;
  QmLogInterface* m_target = nullptr;
};

#endif
