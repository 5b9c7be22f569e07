#ifndef QM_HOST_REFERENCE_QMREFERENCEJOB_H
#define QM_HOST_REFERENCE_QMREFERENCEJOB_H

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "QmMessageFile.h"

// The reference host's OAP job record. The host owns it; a driver fills it in
// place. The texts a driver sets through the virtual operations are kept
// behind a mutex so the host may read them while a driver thread writes.
class QmReferenceJob : public QmOAPMessageFile {
 public:
  // The status and text of one hand-back. A driver hands a job back by
  // setting Status and then the status text, so each status text marks one
  // hand-back even when the job is queued twice before the host looks.
  struct StatusChange {
    int status;
    std::string text;
  };

  // Also records the current Status with the text as one StatusChange.
  void SetStatusText(const std::string& text) override;
  void SetErrorText(const std::string& text) override;
  void SetTrackingReceipt(const std::string& receipt) override;
  bool AddStatusOnce(const std::string& status) override;
  bool IsNewResponse(const std::string& response) override;
  // Index of the choice whose text (as given, or with its "%3a" escapes
  // turned into ':' as it is shown on the handset) equals the answer; -1
  // when none does.
  int FindChoice(const std::string& response) override;
  void SetCallerID(const std::string& callerId) override;

  std::string GetStatusText() const;
  std::string GetErrorText() const;
  std::string GetTrackingReceipt() const;
  std::string GetCallerID() const;
  // The status changes recorded since the last call, oldest first.
  std::vector<StatusChange> TakeStatusChanges();

 private:
  mutable std::mutex m_mutex;
  std::string m_statusText;
  std::string m_errorText;
  std::string m_callerId;
  std::set<std::string> m_statusWords;
  std::set<std::string> m_responses;
  std::vector<StatusChange> m_changes;
};

#endif
