#include "QmReferenceJob.h"

#include "QmString.h"

void QmReferenceJob::SetStatusText(const std::string& text) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_statusText = text;
  m_changes.push_back(StatusChange{Status, text});
}

void QmReferenceJob::SetErrorText(const std::string& text) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_errorText = text;
}

void QmReferenceJob::SetTrackingReceipt(const std::string& receipt) {
  std::lock_guard<std::mutex> guard(m_mutex);
  TrackingReceipt = receipt;
}

bool QmReferenceJob::AddStatusOnce(const std::string& status) {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_statusWords.insert(status).second;
}

bool QmReferenceJob::IsNewResponse(const std::string& response) {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_responses.insert(response).second;
}

int QmReferenceJob::FindChoice(const std::string& response) {
  std::lock_guard<std::mutex> guard(m_mutex);
  int index = 0;
  for (const QmResponseChoice& choice : ResponseChoices) {
    if (choice.Text == response || QmstringReplaceColon(choice.Text) == response) return index;
    ++index;
  }
  return -1;
}

void QmReferenceJob::SetCallerID(const std::string& callerId) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_callerId = callerId;
}

std::string QmReferenceJob::GetStatusText() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_statusText;
}

std::string QmReferenceJob::GetErrorText() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_errorText;
}

std::string QmReferenceJob::GetTrackingReceipt() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return TrackingReceipt;
}

std::string QmReferenceJob::GetCallerID() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_callerId;
}

std::vector<QmReferenceJob::StatusChange> QmReferenceJob::TakeStatusChanges() {
  std::lock_guard<std::mutex> guard(m_mutex);
  std::vector<StatusChange> changes;
  changes.swap(m_changes);
  return changes;
}
