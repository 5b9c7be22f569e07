#include "QmReferenceReportsManager.h"

bool QmReferenceReportsManager::WriteReport(QmMessageFile* job, ReportsStatus status,
                                            const std::string& note) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_entries.push_back(Entry{job, status, note});
  return true;
}

std::vector<QmReferenceReportsManager::Entry> QmReferenceReportsManager::GetEntries() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_entries;
}
