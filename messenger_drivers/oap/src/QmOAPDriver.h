#ifndef QM_OAP_QMOAPDRIVER_H
#define QM_OAP_QMOAPDRIVER_H

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "QmProtocolDriverInterface.h"

class OAPClient;
class OAPMessageStore;

// The OAP driver: turns host jobs into OAP messages sent through the
// OAPClient module and answers the host's two-way queries from the client's
// record of delivery reports and handset answers. It owns the client from
// Setup to Cleanup, and the message store (chosen with Configure) from the
// first Setup until it is deleted; the host owns every job record it passes
// in. Its components write through a logger proxy that Cleanup detaches from
// the host's logger.
//
// Thread safety: the host may call any operation from any thread, also
// while Cleanup runs. Every call other than Configure, Setup and Cleanup
// works with the client it found when it began, which stays alive until the
// call returns (Cleanup stops it first, so such a call fails quickly).
// Configure, Setup and Cleanup are serialised.
class QmOAPDriver : public QmProtocolDriverInterface {
 public:
  QmOAPDriver();
  ~QmOAPDriver() override;
  QmOAPDriver(const QmOAPDriver&) = delete;
  QmOAPDriver& operator=(const QmOAPDriver&) = delete;

  const char* GetName() override { return Name; }
  const char* GetVersion() override { return Version; }
  const char* GetProtocolName() override { return ProtocolName; }
  const char* GetCarrierName() override { return CarrierName; }
  bool Configure(std::map<std::string, std::string>& settings) override;
  bool Setup(QmMessengerInstConfBasic* conf) override;
  bool PeriodicEvent() override;
  bool ResetDevice() override;
  bool Send2WayRespQuery(QmMessageFile* job, ReportsStatus& status) override;
  bool SendAMessage(QmMessageFile* job, ReportsStatus& status) override;
  bool Cleanup() override;
  bool ProcessSignal() override;

  // "handset@host:port", or "handset@host" when withoutPort is set.
  std::string GetDeviceAddress(QmOAPMessageFile* job, bool withoutPort);
  // The caller number for the job (fixed, extracted by pattern, or the
  // default); also stored in the job.
  std::string GetCallerID(QmOAPMessageFile* job);

 private:
  // What Configure chose; used by the next Setup.
  struct StoreSettings {
    // "memory", or the path of an SQLite file.
    std::string where = "memory";
    int retentionMinutes = 4320;
    size_t limit = 1000000;
  };

  // Takes one setting into `settings`; false (with an error line) for a bad
  // value. Unknown keys are logged and ignored.
  bool ApplySetting(const std::string& key, const std::string& value, StoreSettings* settings);
  // The store of the settings: the one open when they name it, else a newly
  // opened one; a file that cannot be used gives a store in memory.
  std::shared_ptr<OAPMessageStore> OpenStore();
  // Hands the job to the client as a new message body; the tracking
  // number, or 0 when the server did not accept it.
  unsigned long DispatchJob(QmOAPMessageFile* job);
  // Stops the client and lets go of it.
  void FinalizeClient();
  // The client of the last Setup; null before it and after Cleanup.
  std::shared_ptr<OAPClient> CurrentClient();
  // The status a new handset answer reports: by the kind of the chosen
  // option, or REPLIED_WITH for free text.
  ReportsStatus StatusForAnswer(QmMessageFile* job, const std::string& answer);

  const char* Name;
  const char* ProtocolName;
  const char* Version;
  const char* CarrierName;
  std::shared_ptr<OAPClient> Client;  // guarded by m_clientMutex
  std::mutex m_clientMutex;
  // Serialises Configure, Setup and Cleanup.
  std::mutex m_lifecycle;
  StoreSettings m_settings;
  std::shared_ptr<OAPMessageStore> m_store;
  // The `where` setting m_store was opened for.
  std::string m_storeWhere;
};

#endif
