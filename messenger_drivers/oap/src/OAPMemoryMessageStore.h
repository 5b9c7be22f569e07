#ifndef QM_OAP_OAPMEMORYMESSAGESTORE_H
#define QM_OAP_OAPMEMORYMESSAGESTORE_H

#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "OAPMessageStore.h"

// The message store kept in memory: what the process knows is lost when it
// ends. Bounded only by Expire, which the owner calls (see OAPMessageSweeper).
// Thread-safe; one lock guards everything.
class OAPMemoryMessageStore : public OAPMessageStore {
 public:
  OAPMemoryMessageStore() = default;
  ~OAPMemoryMessageStore() override;

  bool Add(const Message& message) override;
  bool SetState(uint32_t tracking, int32_t state) override;
  bool AddResponse(uint32_t tracking, const std::string& reply, bool close,
                   const MessageBody* body) override;
  bool SetBody(uint32_t tracking, const MessageBody& body) override;
  bool TakeResponses(uint32_t tracking, std::list<std::string>* replies) override;
  bool Find(uint32_t tracking, Message* out) override;
  void Forget(uint32_t tracking) override;
  bool AnyInRange(uint32_t first, uint32_t last) override;
  size_t Expire(int64_t createdBefore, size_t keep, size_t batch) override;
  size_t Count() override;

 private:
  // The message under `tracking`, null when unknown. Called with the lock held.
  Message* Lookup(uint32_t tracking);

  std::mutex m_mutex;
  std::map<uint32_t, Message> m_messages;
  // (created, tracking) in the order messages were added, which is the order
  // of their time stamps; entries of messages forgotten meanwhile are
  // skipped when they come up.
  std::deque<std::pair<int64_t, uint32_t>> m_age;
};

#endif
