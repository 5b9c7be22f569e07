#ifndef QM_HOST_REFERENCE_QMREFERENCEREPORTSMANAGER_H
#define QM_HOST_REFERENCE_QMREFERENCEREPORTSMANAGER_H

#include <mutex>
#include <string>
#include <vector>

#include "QmMessengerReportsMngrInterface.h"

// The reference host's reports manager: keeps every report entry in memory
// in the order written. Entries point at jobs the host owns.
class QmReferenceReportsManager : public QmMessengerReportsMngrInterface {
 public:
  struct Entry {
    QmMessageFile* job;
    ReportsStatus status;
    std::string note;
  };

  bool WriteReport(QmMessageFile* job, ReportsStatus status, const std::string& note) override;

  std::vector<Entry> GetEntries() const;

 private:
  mutable std::mutex m_mutex;
  std::vector<Entry> m_entries;
};

#endif
