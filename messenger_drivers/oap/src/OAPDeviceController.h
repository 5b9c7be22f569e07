#ifndef QM_OAP_OAPDEVICECONTROLLER_H
#define QM_OAP_OAPDEVICECONTROLLER_H

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "OAPMessageServiceHandler.h"
#include "OAPMessageStore.h"
#include "QmconLock.h"

class MessageBody;
class OAPBlock;
class OAPBlockBody;
class OAPClient;
class OAPResponseBlock;
class QmLogInterface;

// One handset: where its OAP server is, and the messages sent to it. The
// state of each message (by tracking number) lives in a message store that
// the registry shares among its controllers; a controller sees only the
// messages sent to its own address. Messages go out through the client set
// with SetClient, which the controller does not keep alive: once the client
// is gone, sends fail.
//
// Thread safety: the host's threads (sends, queries) and the listener's
// worker threads (inbound answers) use one controller at once. A lock makes
// each read-and-change of a message one step; it is never held across a
// network exchange. The address fields are fixed at construction.
//
// Ownership: a body handed to SendAMessage(OAPBlockBody*) belongs to the
// controller and is freed when the send returns; the store keeps a copy with
// the message when the server accepts it (so that the message can be updated
// later). A version 4.0 update is accepted under a fresh number, whose
// message shares the body of the message it updates.
//
// Every public operation traces its call through the client's logger; the
// overloads of SendAMessage that only hand on to another overload leave the
// lines to it, so each call writes one pair.
class OAPDeviceController {
 public:
  // What is known about one message.
  class MsgStatus {
   public:
    enum MsgState : int32_t { Pending = 0, Sent = 1, Delivered = 2 };

    // A copy of the body the message was sent from (null for messages sent
    // from a request).
    std::shared_ptr<MessageBody> body;
    MsgState state = Pending;
    // A final reply has arrived; later replies are ignored.
    bool closed = false;
    // Replies received and not yet collected by QueryResponse.
    std::list<std::string> responses;
  };

  // With no store given the controller keeps its messages in memory of its own.
  explicit OAPDeviceController(const std::string& deviceAddress,
                               std::shared_ptr<OAPMessageStore> store = nullptr);
  ~OAPDeviceController();
  OAPDeviceController(const OAPDeviceController&) = delete;
  OAPDeviceController& operator=(const OAPDeviceController&) = delete;

  // handset "@" host of a device address: the key of the controller made
  // from it.
  static std::string KeyOf(const std::string& deviceAddress);

  // Sends a message (or an update of a shown one) built from the body, which
  // the controller takes over (see above). Returns the tracking number the
  // server accepted, 0 when its answer is no response block. Throws
  // QmException "Dispatch Failure" when nothing usable came back (also for a
  // body that is no message, and without a client), the status text of any
  // answer other than code 200, and the socket's exceptions.
  unsigned long SendAMessage(OAPBlockBody* body);
  // The same for a body the caller keeps (it is not changed but for its id).
  unsigned long SendAMessage(const std::shared_ptr<MessageBody>& body);
  // Sends from a request (not owned). Never throws a QmException: every
  // failure gives 0.
  unsigned long SendAMessage(OAPMessageServiceHandler::OAPMsgServicePayLoadRequest* request);
  // Version 3.0 request sends of a plain and of an interactive message.
  unsigned long SendAMessage(const std::string& subject, const std::string& bodyText);
  unsigned long SendAMessage(const std::string& subject, const std::string& bodyText,
                             const std::list<std::string>& optionLabels);

  // Changes the state of a known message; unknown numbers are ignored.
  void SetStatus(uint32_t trackingNumber, MsgStatus::MsgState state);
  // A copy of the status when the number is known.
  bool GetStatus(uint32_t trackingNumber, MsgStatus& out) const;
  bool HasStatus(uint32_t trackingNumber) const;
  // Stores a handset reply and echoes it on the handset with an update of the
  // message. Option data carries a two-character prefix ("F:" marks a final
  // answer, which closes the message and removes its options); option data
  // shorter than two characters throws std::out_of_range. The update's
  // exceptions pass to the caller.
  void AddResponse(uint32_t trackingNumber, const std::string& text, bool isUserResponse);
  // Appends the reply to the shown text and sends the message again as an
  // update, with its options removed when `wipe` is set. Returns the send's
  // result; 0 when the message or its body is unknown.
  unsigned long WipeOptions(uint32_t trackingNumber, const std::string& replyText, bool wipe);
  // The replies that arrived since the last call, each returned once. An
  // unknown number gets an empty status.
  std::list<std::string> QueryResponse(const std::string& deviceAddress, uint32_t trackingNumber);

  void SetClient(std::weak_ptr<OAPClient> newClient);
  // The client, null once it is gone.
  std::shared_ptr<OAPClient> GetClient() const;
  void SetStore(std::shared_ptr<OAPMessageStore> store);
  std::shared_ptr<OAPMessageStore> GetStore() const;
  // The client's logger; null without a client or logger.
  QmLogInterface* GetLogger() const;

  // The device address as given: handset "@" host ":" port.
  std::string address;
  // The part before the first "@".
  std::string handset;
  // The OAP server host and port.
  std::string host;
  int port = 0;
  // handset "@" host: the address without its port.
  std::string key;

 private:
  using Message = OAPMessageStore::Message;

  void ParseDeviceAddress();
  // The message when it is known and was sent to this device.
  bool FindOwn(OAPMessageStore& store, uint32_t trackingNumber, Message* out) const;
  // The body the message shows (its own, or the one it shares).
  std::shared_ptr<const MessageBody> ShownBody(OAPMessageStore& store,
                                               const Message& message) const;
  // A message service handler working for this controller, owned by the caller.
  OAPServiceHandlerInterface* NewHandler();
  // Dispatches a built request (null: nothing to send) and evaluates the
  // answer. A new message is reserved as Pending while it is on its way; the
  // reservation is withdrawn unless the server accepts the message under the
  // request's number.
  unsigned long Exchange(OAPServiceHandlerInterface& handler, std::unique_ptr<OAPBlock> request,
                         const std::shared_ptr<MessageBody>& body, bool newMessage);
  // Sends a built block through the client; null when nothing usable came back.
  std::unique_ptr<OAPBlock> Dispatch(OAPBlock& request);
  // Lets the handler see the server's answer; a malformed reply in it is
  // logged and does not fail the send.
  void HandleAnswer(OAPServiceHandlerInterface& handler, OAPBlock* answer);
  // Adds a Pending status for a new message before it is dispatched, so that
  // delivery reports and replies racing the server's answer find it.
  bool ReserveStatus(uint32_t trackingNumber, const std::shared_ptr<MessageBody>& body);
  void WithdrawStatus(uint32_t trackingNumber);
  void AcceptStatus(uint32_t answerNumber, const std::shared_ptr<MessageBody>& body);
  // WipeOptions; with `storeReply` (a reply AddResponse takes) the reply is
  // kept first, closing the message when `wipe` is set, in the same change
  // of the store as the echoed text.
  unsigned long Echo(uint32_t trackingNumber, const std::string& replyText, bool wipe,
                     bool storeReply);
  // A new message of this device as the store keeps it.
  Message NewMessage(uint32_t trackingNumber, int32_t state,
                     const std::shared_ptr<MessageBody>& body) const;

  mutable QmconLock m_lock;
  // Guards the two references below, which the registry may replace.
  mutable std::mutex m_refs;
  std::weak_ptr<OAPClient> client;
  std::shared_ptr<OAPMessageStore> m_store;
};

#endif
