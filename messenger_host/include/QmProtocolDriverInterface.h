#ifndef QM_HOST_QMPROTOCOLDRIVERINTERFACE_H
#define QM_HOST_QMPROTOCOLDRIVERINTERFACE_H

#include <map>
#include <string>

#include "QmLogInterface.h"
#include "QmMessageFile.h"
#include "QmMessageQueue.h"
#include "QmMessengerInstConfBasic.h"
#include "QmMessengerReportsMngrInterface.h"

// The host's driver base. The host calls a driver only through this vtable:
// the order of the virtual operations below is the calling contract and must
// not change. The host sets Logger, ReportsManager and MessageQueue after it
// gets the object and before any call; the driver never frees them.
class QmProtocolDriverInterface {
 public:
  using ReportsStatus = QmMessengerReportsMngrInterface::ReportsStatus;

  QmProtocolDriverInterface() = default;
  virtual ~QmProtocolDriverInterface() {}

  virtual const char* GetName() = 0;
  virtual const char* GetVersion() = 0;
  virtual const char* GetProtocolName() = 0;
  virtual const char* GetCarrierName() = 0;
  // The defaults are inline so that a host gets the class's type information
  // from this header alone.
  virtual bool Configure(std::map<std::string, std::string>& /*settings*/) { return true; }
  virtual bool Setup(QmMessengerInstConfBasic* /*conf*/) { return true; }
  virtual bool PeriodicEvent() { return true; }
  virtual bool ResetDevice() { return true; }
  virtual bool Send2WayRespQuery(QmMessageFile* /*job*/, ReportsStatus& /*status*/) { return true; }
  virtual bool SendAMessage(QmMessageFile* job, ReportsStatus& status) = 0;
  virtual bool Cleanup() { return true; }
  virtual bool ProcessSignal() { return true; }

  // Hands a job back to the host with a new status (0 keeps the status and
  // clears StatusTime). False when there is no queue or no job.
  bool PushBackMsgFile(QmMessageFile* job, ReportsStatus status, bool flag,
                       const std::string& note);
  // Hands a job back to the host for deletion.
  bool PushBackMsgFileForDeletion(QmMessageFile* job);
  // Writes one report entry through the reports manager.
  bool WriteMessageReport(QmMessageFile* job, ReportsStatus status, const std::string& note);

  QmLogInterface* Logger = nullptr;
  QmMessengerReportsMngrInterface* ReportsManager = nullptr;
  QmMessageQueue* MessageQueue = nullptr;  // set by the host
};

#endif
