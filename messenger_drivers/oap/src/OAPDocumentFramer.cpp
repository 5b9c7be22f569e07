#include "OAPDocumentFramer.h"

#include <algorithm>
#include <cstring>

namespace {

const char kByteOrderMark[] = "\xEF\xBB\xBF";
const std::size_t kByteOrderMarkSize = 3;
// A document begins with one of these (compared for as many bytes as are
// there).
const char* const kBeginnings[] = {"<?", "<!", "<OAP-request", "<OAP-response"};
// Both root end tags share this beginning; the root name follows.
const char kEndTagStart[] = "</OAP-re";
const char* const kRootNames[] = {"OAP-request", "OAP-response"};

bool IsSeparator(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\0';
}

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Whether `text` and `prefix` agree on the bytes that both have.
bool AgreesWith(const std::string& text, const char* prefix) {
  const std::size_t length = std::min(text.size(), std::strlen(prefix));
  return text.compare(0, length, prefix, length) == 0;
}

}  // namespace

OAPDocumentFramer::Result OAPDocumentFramer::Next(std::string& document) {
  DropSeparators();
  if (m_buffer.empty()) return kNeedMore;
  if (!CanBeginDocument()) return kInvalid;
  const std::size_t end = FindDocumentEnd();
  if (end == std::string::npos) return m_buffer.size() > kMaxDocument ? kTooLong : kNeedMore;
  if (end > kMaxDocument) return kTooLong;
  document.assign(m_buffer, 0, end);
  m_buffer.erase(0, end);
  m_scanned = 0;
  return kDocument;
}

std::string OAPDocumentFramer::TakeRest() {
  DropSeparators();
  std::string rest;
  rest.swap(m_buffer);
  m_scanned = 0;
  return rest;
}

bool OAPDocumentFramer::HasRest() {
  DropSeparators();
  return !m_buffer.empty();
}

void OAPDocumentFramer::DropSeparators() {
  std::size_t start = 0;
  for (;;) {
    while (start < m_buffer.size() && IsSeparator(m_buffer[start])) ++start;
    if (m_buffer.compare(start, kByteOrderMarkSize, kByteOrderMark) != 0) break;
    start += kByteOrderMarkSize;
  }
  if (start == 0) return;
  m_buffer.erase(0, start);
  m_scanned = m_scanned > start ? m_scanned - start : 0;
}

bool OAPDocumentFramer::CanBeginDocument() const {
  // A byte-order mark still arriving.
  if (m_buffer.size() < kByteOrderMarkSize && AgreesWith(m_buffer, kByteOrderMark)) return true;
  for (const char* beginning : kBeginnings) {
    if (AgreesWith(m_buffer, beginning)) return true;
  }
  return false;
}

std::size_t OAPDocumentFramer::FindDocumentEnd() {
  const std::size_t tagLength = sizeof(kEndTagStart) - 1;
  for (std::size_t at = m_buffer.find(kEndTagStart, m_scanned); at != std::string::npos;
       at = m_buffer.find(kEndTagStart, at + 1)) {
    for (const char* name : kRootNames) {
      const std::size_t nameAt = at + 2;
      const std::size_t nameLength = std::strlen(name);
      if (m_buffer.size() < nameAt + nameLength) {
        m_scanned = at;  // the tag is still arriving
        return std::string::npos;
      }
      if (m_buffer.compare(nameAt, nameLength, name) != 0) continue;
      std::size_t close = nameAt + nameLength;
      while (close < m_buffer.size() && IsSpace(m_buffer[close])) ++close;
      if (close == m_buffer.size()) {
        m_scanned = at;
        return std::string::npos;
      }
      if (m_buffer[close] == '>') return close + 1;
    }
  }
  // An end tag may begin in the last bytes; look at them again next time.
  m_scanned = m_buffer.size() > tagLength ? m_buffer.size() - tagLength : 0;
  return std::string::npos;
}
