#include "QmProtocolDriverInterface.h"

#include <ctime>

#include "QmconCriticalSection.h"

namespace {

// Appends the job at the back of the host's queue while holding the queue's
// own lock, which the host's consumer takes as well.
void AppendToQueue(QmMessageQueue* queue, QmMessageFile* job) {
  QmconCriticalSection guard(queue->Lock.GetLockObj(), true, true, false);
  queue->Jobs.push_back(job);
}

}  // namespace

bool QmProtocolDriverInterface::PushBackMsgFile(QmMessageFile* job, ReportsStatus status, bool flag,
                                                const std::string& note) {
  if (MessageQueue == nullptr || job == nullptr) return false;
  if (status != QmMessengerReportsMngrInterface::NO_STATUS) {
    job->Status = status;
    job->StatusTime = static_cast<int32_t>(std::time(nullptr));
  } else {
    job->StatusTime = 0;
  }
  job->RequeueFlag = flag;
  job->DeleteFlag = false;
  job->SetStatusText(note);
  AppendToQueue(MessageQueue, job);
  return true;
}

bool QmProtocolDriverInterface::PushBackMsgFileForDeletion(QmMessageFile* job) {
  if (MessageQueue == nullptr || job == nullptr) return false;
  job->DeleteFlag = true;
  AppendToQueue(MessageQueue, job);
  return true;
}

bool QmProtocolDriverInterface::WriteMessageReport(QmMessageFile* job, ReportsStatus status,
                                                   const std::string& note) {
  if (ReportsManager == nullptr) return false;
  if (status != QmMessengerReportsMngrInterface::NO_STATUS && job != nullptr) job->Status = status;
  return ReportsManager->WriteReport(job, status, note);
}
