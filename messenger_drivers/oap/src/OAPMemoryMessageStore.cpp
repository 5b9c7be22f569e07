#include "OAPMemoryMessageStore.h"

#include "MessageBody.h"

OAPMemoryMessageStore::~OAPMemoryMessageStore() = default;

OAPMessageStore::Message* OAPMemoryMessageStore::Lookup(uint32_t tracking) {
  auto found = m_messages.find(tracking);
  return found != m_messages.end() ? &found->second : nullptr;
}

bool OAPMemoryMessageStore::Add(const Message& message) {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (!m_messages.emplace(message.tracking, message).second) return false;
  m_age.emplace_back(message.created, message.tracking);
  return true;
}

bool OAPMemoryMessageStore::SetState(uint32_t tracking, int32_t state) {
  std::lock_guard<std::mutex> guard(m_mutex);
  Message* message = Lookup(tracking);
  if (message == nullptr) return false;
  message->state = state;
  return true;
}

bool OAPMemoryMessageStore::AddResponse(uint32_t tracking, const std::string& reply, bool close,
                                        const MessageBody* body) {
  auto copy = body != nullptr ? std::make_shared<const MessageBody>(*body) : nullptr;
  std::lock_guard<std::mutex> guard(m_mutex);
  Message* message = Lookup(tracking);
  if (message == nullptr || message->closed) return false;
  message->responses.push_back(reply);
  message->closed = close;
  if (copy != nullptr) message->body = std::move(copy);
  return true;
}

bool OAPMemoryMessageStore::SetBody(uint32_t tracking, const MessageBody& body) {
  auto copy = std::make_shared<const MessageBody>(body);
  std::lock_guard<std::mutex> guard(m_mutex);
  Message* message = Lookup(tracking);
  if (message == nullptr) return false;
  message->body = std::move(copy);
  return true;
}

bool OAPMemoryMessageStore::TakeResponses(uint32_t tracking, std::list<std::string>* replies) {
  replies->clear();
  std::lock_guard<std::mutex> guard(m_mutex);
  Message* message = Lookup(tracking);
  if (message == nullptr) return false;
  replies->swap(message->responses);
  return true;
}

bool OAPMemoryMessageStore::Find(uint32_t tracking, Message* out) {
  std::lock_guard<std::mutex> guard(m_mutex);
  const Message* message = Lookup(tracking);
  if (message == nullptr) return false;
  *out = *message;
  return true;
}

void OAPMemoryMessageStore::Forget(uint32_t tracking) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_messages.erase(tracking);
}

bool OAPMemoryMessageStore::AnyInRange(uint32_t first, uint32_t last) {
  std::lock_guard<std::mutex> guard(m_mutex);
  auto found = m_messages.lower_bound(first);
  return found != m_messages.end() && found->first <= last;
}

size_t OAPMemoryMessageStore::Expire(int64_t createdBefore, size_t keep, size_t batch) {
  std::lock_guard<std::mutex> guard(m_mutex);
  size_t removed = 0;
  while (!m_age.empty() && removed < batch) {
    const std::pair<int64_t, uint32_t> oldest = m_age.front();
    auto found = m_messages.find(oldest.second);
    const bool current = found != m_messages.end() && found->second.created == oldest.first;
    if (current && oldest.first >= createdBefore && m_messages.size() <= keep) break;
    m_age.pop_front();
    if (!current) continue;
    m_messages.erase(found);
    ++removed;
  }
  return removed;
}

size_t OAPMemoryMessageStore::Count() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_messages.size();
}
