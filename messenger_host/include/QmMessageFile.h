#ifndef QM_HOST_QMMESSAGEFILE_H
#define QM_HOST_QMMESSAGEFILE_H

#include <cstdint>
#include <list>
#include <string>

#include "QmMessengerReportsMngrInterface.h"

// One answer offered by an interactive message.
struct QmResponseChoice {
  int32_t Reserved1 = 0;  // not used by drivers
  std::string Text;       // the choice text
  std::string Value;      // call number, may be empty
  int32_t Reserved2 = 0;  // not used by drivers
  uint32_t Kind = 0;      // 0 and 1 ordinary answers; 2 and 3 special kinds
};

// The host's record of one message job. The host owns it; a driver reads and
// writes its fields in place and hands it back through the host's queue.
class QmMessageFile {
 public:
  virtual ~QmMessageFile() = default;

  virtual void SetStatusText(const std::string& text) = 0;
  virtual void SetErrorText(const std::string& text) = 0;
  virtual void SetTrackingReceipt(const std::string& receipt) = 0;
  // True when the status word was new for this job.
  virtual bool AddStatusOnce(const std::string& status) = 0;
  // True when this handset answer was not seen before for this job.
  virtual bool IsNewResponse(const std::string& response) = 0;
  // Index of the answer in ResponseChoices, negative when it is none of them.
  virtual int FindChoice(const std::string& response) = 0;
  virtual void SetCallerID(const std::string& callerId) = 0;

  std::string JobId;
  std::string DeviceId;
  std::string SubjectText;
  std::string MessageText;
  bool OapSettingsPresent = false;
  int32_t TtlMinutes = 0;
  bool IsInteractive = false;
  bool ExpectsResponse = false;
  QmMessengerReportsMngrInterface::ReportsStatus Status =
      QmMessengerReportsMngrInterface::NO_STATUS;
  int32_t StatusTime = 0;  // seconds since the epoch
  bool RequeueFlag = false;
  bool DeleteFlag = false;
  std::list<QmResponseChoice> ResponseChoices;
  std::string TrackingReceipt;
};

// The fields of an OAP job.
class QmOAPMessageFile : public QmMessageFile {
 public:
  bool DeliveredFlag = false;
  int32_t ServerPort = 0;
  std::string ServerHost;
  std::string OapVersion;
  bool Urgent = false;
  bool StickyMode = false;
  int32_t Priority = 0;
  int32_t AuxValue = 0;
  int32_t RepeatCount = 0;
  int32_t RepeatInterval = 0;
  std::string Colour;
  std::string Intensity;
  std::string CustomResponseLabel;
  std::string CallerIdDefault;
  std::string CallerIdPattern;
  std::string CallerIdFixed;
};

#endif
