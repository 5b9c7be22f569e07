#ifndef QM_HOST_QMMESSENGERREPORTSMNGRINTERFACE_H
#define QM_HOST_QMMESSENGERREPORTSMNGRINTERFACE_H

#include <string>

class QmMessageFile;

// The host's reports manager. Its first slot writes one report entry.
class QmMessengerReportsMngrInterface {
 public:
  // Job states. Only the numbers are part of the contract with drivers.
  enum ReportsStatus {
    NO_STATUS = 0,
    SENDING = 2,             // set at the start of every send; stays when it fails
    SENT = 3,                // the server accepted the message
    REPLIED = 4,             // the handset chose an ordinary answer
    REPLIED_WITH = 5,        // the handset answered with text matching no choice
    DELIVERED = 6,           // the handset reported the message delivered
    REPLIED_SPECIAL_A = 15,  // the handset chose an answer of kind 2
    REPLIED_SPECIAL_B = 16   // the handset chose an answer of kind 3
  };

  virtual bool WriteReport(QmMessageFile* job, ReportsStatus status, const std::string& note) = 0;
  virtual ~QmMessengerReportsMngrInterface() = default;
};

#endif
