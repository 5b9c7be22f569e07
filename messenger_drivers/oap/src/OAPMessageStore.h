#ifndef QM_OAP_OAPMESSAGESTORE_H
#define QM_OAP_OAPMESSAGESTORE_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <list>
#include <memory>
#include <string>

class MessageBody;

// The state of every message the driver has sent and not yet forgotten, by
// tracking number: the device it went to, what is known about it, the
// replies not yet collected and the body it was sent from (kept so that a
// reply can be echoed with an update of the shown message).
//
// Implementations keep it in memory or in a file; the interface names no
// storage types so that other kinds of store can be added. Every operation is
// one atomic step, safe for concurrent use by the host's threads and the
// listener's workers; a caller that needs several steps to be seen as one
// (read, then change) serialises them itself. Bodies handed out are shared
// and never changed in place: a new body replaces the kept one.
class OAPMessageStore {
 public:
  // One message. `state` holds OAPDeviceController::MsgStatus::MsgState.
  struct Message {
    uint32_t tracking = 0;
    // The device address the message went to: handset "@" host ":" port.
    std::string address;
    int32_t state = 0;
    // A final reply has arrived; later replies are ignored.
    bool closed = false;
    // Replies received and not yet collected.
    std::list<std::string> responses;
    // The body the message was sent from; null for none or when it shares
    // the body of the message `bodyOf`.
    std::shared_ptr<const MessageBody> body;
    // The message whose body this one shares: a version 4.0 update travels
    // under a number of its own but shows the updated message. 0 for none.
    uint32_t bodyOf = 0;
    // When the message was recorded, in seconds since the epoch.
    int64_t created = 0;
  };

  // The state of a message that is reserved while it is being sent: only
  // messages past it must survive a restart.
  static const int32_t kPending = 0;

  OAPMessageStore() = default;
  virtual ~OAPMessageStore();
  OAPMessageStore(const OAPMessageStore&) = delete;
  OAPMessageStore& operator=(const OAPMessageStore&) = delete;

  // Records a new message; false (and nothing changed) when its number is
  // known already.
  virtual bool Add(const Message& message) = 0;
  // Changes the state of a known message.
  virtual bool SetState(uint32_t tracking, int32_t state) = 0;
  // Appends a reply, closes the message when `close` is set and, with a body
  // (null for none), keeps it as the message's body, all in one change: the
  // text that echoes the reply goes with it. False for an unknown or closed
  // message.
  virtual bool AddResponse(uint32_t tracking, const std::string& reply, bool close,
                           const MessageBody* body) = 0;
  // Replaces the body of a known message.
  virtual bool SetBody(uint32_t tracking, const MessageBody& body) = 0;
  // Moves the replies not yet collected into `replies` (emptied first).
  virtual bool TakeResponses(uint32_t tracking, std::list<std::string>* replies) = 0;
  // A copy of the message; false when it is unknown.
  virtual bool Find(uint32_t tracking, Message* out) = 0;
  virtual void Forget(uint32_t tracking) = 0;
  // Whether any message has a number from `first` to `last`.
  virtual bool AnyInRange(uint32_t first, uint32_t last) = 0;
  // Removes at most `batch` messages, oldest first: those recorded before
  // `createdBefore`, and the oldest beyond the first `keep`. Returns how many.
  virtual size_t Expire(int64_t createdBefore, size_t keep, size_t batch) = 0;
  virtual size_t Count() = 0;

  // The time stamps of `created`.
  static int64_t Now() { return static_cast<int64_t>(std::time(nullptr)); }
};

#endif
