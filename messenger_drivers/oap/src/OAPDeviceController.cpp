#include "OAPDeviceController.h"

#include <cstdlib>
#include <exception>
#include <functional>
#include <utility>

#include "MessageBody.h"
#include "OAPBlock.h"
#include "OAPClient.h"
#include "OAPMemoryMessageStore.h"
#include "OAPResponseBlock.h"
#include "OAPTracer.h"
#include "QmException.h"
#include "QmLogInterface.h"
#include "QmString.h"
#include "QmconCriticalSection.h"

namespace {

const char kSource[] = "messenger_drivers/oap/src/OAPDeviceController";
const int kCodeOk = 200;
const char kFinalPrefix[] = "F:";
const char kReplyHeading[] = "\r\n\r\nYou replied:\r\n";
const char kReplyMarker[] = "\r\n-->>";

// Runs an action when the scope is left, unless dismissed first.
class ScopeExit {
 public:
  explicit ScopeExit(std::function<void()> action) : m_action(std::move(action)) {}
  ~ScopeExit() {
    if (m_action) m_action();
  }
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;
  void Dismiss() { m_action = nullptr; }

 private:
  std::function<void()> m_action;
};

}  // namespace

OAPDeviceController::OAPDeviceController(const std::string& deviceAddress,
                                         std::shared_ptr<OAPMessageStore> store)
    : address(deviceAddress),
      m_store(store != nullptr ? std::move(store) : std::make_shared<OAPMemoryMessageStore>()) {
  ParseDeviceAddress();
}

OAPDeviceController::~OAPDeviceController() = default;

void OAPDeviceController::ParseDeviceAddress() {
  const std::string::size_type at = address.find('@');
  if (at == std::string::npos) return;
  handset = address.substr(0, at);
  key = handset;
  if (at + 1 >= address.size()) return;
  host = address.substr(at + 1);
  const std::string::size_type colon = host.find(':');
  if (colon != std::string::npos) {
    port = static_cast<int>(std::strtol(host.c_str() + colon + 1, nullptr, 10));
    host.erase(colon);
  }
  key = handset + "@" + host;
}

std::string OAPDeviceController::KeyOf(const std::string& deviceAddress) {
  const std::string::size_type at = deviceAddress.find('@');
  if (at == std::string::npos) return "";
  return deviceAddress.substr(0, deviceAddress.find(':', at + 1));
}

void OAPDeviceController::SetClient(std::weak_ptr<OAPClient> newClient) {
  std::lock_guard<std::mutex> guard(m_refs);
  client = std::move(newClient);
}

std::shared_ptr<OAPClient> OAPDeviceController::GetClient() const {
  std::lock_guard<std::mutex> guard(m_refs);
  return client.lock();
}

void OAPDeviceController::SetStore(std::shared_ptr<OAPMessageStore> store) {
  std::lock_guard<std::mutex> guard(m_refs);
  m_store = std::move(store);
}

std::shared_ptr<OAPMessageStore> OAPDeviceController::GetStore() const {
  std::lock_guard<std::mutex> guard(m_refs);
  return m_store;
}

QmLogInterface* OAPDeviceController::GetLogger() const {
  const std::shared_ptr<OAPClient> current = GetClient();
  return current != nullptr ? current->GetLogger() : nullptr;
}

bool OAPDeviceController::FindOwn(OAPMessageStore& store, uint32_t trackingNumber,
                                  Message* out) const {
  return store.Find(trackingNumber, out) && out->address == address;
}

std::shared_ptr<const MessageBody> OAPDeviceController::ShownBody(OAPMessageStore& store,
                                                                  const Message& message) const {
  if (message.bodyOf == 0) return message.body;
  Message shared;
  return store.Find(message.bodyOf, &shared) ? shared.body : nullptr;
}

OAPDeviceController::Message OAPDeviceController::NewMessage(
    uint32_t trackingNumber, int32_t state, const std::shared_ptr<MessageBody>& body) const {
  Message message;
  message.tracking = trackingNumber;
  message.address = address;
  message.state = state;
  message.created = OAPMessageStore::Now();
  if (body != nullptr) message.body = std::make_shared<const MessageBody>(*body);
  return message;
}

unsigned long OAPDeviceController::SendAMessage(OAPBlockBody* body) {
  auto* message = dynamic_cast<MessageBody*>(body);
  if (message == nullptr) {
    delete body;
    return SendAMessage(std::shared_ptr<MessageBody>());
  }
  return SendAMessage(std::shared_ptr<MessageBody>(message));
}

unsigned long OAPDeviceController::SendAMessage(const std::shared_ptr<MessageBody>& body) {
  // A send that throws leaves with 0.
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::SendAMessage", "0");
  if (body == nullptr) QM_THROW("Dispatch Failure");
  std::unique_ptr<OAPServiceHandlerInterface> handler(NewHandler());
  std::unique_ptr<OAPBlock> request(handler->BuildPayLoad(body.get()));
  const unsigned long tracking =
      Exchange(*handler, std::move(request), body, !body->updateOnlyExisting);
  trace.SetResult(std::to_string(tracking));
  return tracking;
}

unsigned long OAPDeviceController::Exchange(OAPServiceHandlerInterface& handler,
                                            std::unique_ptr<OAPBlock> request,
                                            const std::shared_ptr<MessageBody>& body,
                                            bool newMessage) {
  if (request == nullptr) QM_THROW("Dispatch Failure");
  const uint32_t tracking = request->GetID();
  // Withdrawn again on every way out but the server's acceptance.
  const bool reserved = newMessage && ReserveStatus(tracking, body);
  ScopeExit withdraw([this, tracking, reserved] {
    if (reserved) WithdrawStatus(tracking);
  });

  std::unique_ptr<OAPBlock> answer = Dispatch(*request);
  request.reset();
  if (answer == nullptr) QM_THROW("Dispatch Failure");
  HandleAnswer(handler, answer.get());
  auto* response = dynamic_cast<OAPResponseBlock*>(answer.get());
  if (response == nullptr) return 0;
  if (response->status.code != kCodeOk) QM_THROW(response->status.GetMessage());

  AcceptStatus(response->GetID(), body);
  // Accepted under another number: the request's number stays unknown.
  if (response->GetID() == tracking) withdraw.Dismiss();
  return response->GetID();
}

unsigned long OAPDeviceController::SendAMessage(
    OAPMessageServiceHandler::OAPMsgServicePayLoadRequest* request) {
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::SendAMessage", "0");
  unsigned long tracking = 0;
  try {
    std::unique_ptr<OAPServiceHandlerInterface> handler(NewHandler());
    std::unique_ptr<OAPBlock> block(handler->BuildPayLoad(request));
    tracking = Exchange(*handler, std::move(block), nullptr, true);
  } catch (const QmException& e) {
    QM_LOG(GetLogger(), Error, kSource,
           QmstringFormat("Exception occurred [%s]", e.GetMsg().c_str()));
  }
  trace.SetResult(std::to_string(tracking));
  return tracking;
}

unsigned long OAPDeviceController::SendAMessage(const std::string& subject,
                                                const std::string& bodyText) {
  return SendAMessage(subject, bodyText, std::list<std::string>());
}

unsigned long OAPDeviceController::SendAMessage(const std::string& subject,
                                                const std::string& bodyText,
                                                const std::list<std::string>& optionLabels) {
  OAPMessageServiceHandler::OAPMsgServicePayLoadRequest request("", subject, bodyText,
                                                                optionLabels);
  return SendAMessage(&request);
}

OAPServiceHandlerInterface* OAPDeviceController::NewHandler() {
  OAPServiceHandlerInterface* handler =
      OAPServiceHandlerInterface::GetServiceHandler("Message", "");
  handler->SetDeviceContext(this);
  return handler;
}

std::unique_ptr<OAPBlock> OAPDeviceController::Dispatch(OAPBlock& request) {
  const std::shared_ptr<OAPClient> current = GetClient();
  if (current == nullptr || request.header == nullptr || request.body == nullptr) return nullptr;
  return std::unique_ptr<OAPBlock>(current->DispatchPayLoad(host, port, &request));
}

void OAPDeviceController::HandleAnswer(OAPServiceHandlerInterface& handler, OAPBlock* answer) {
  try {
    handler.Handle(answer);
  } catch (const std::exception& e) {
    QM_LOG(GetLogger(), Error, kSource,
           QmstringFormat("Failed to handle answer for Msg Tracking #%lu [%s]",
                          static_cast<unsigned long>(answer->GetID()), e.what()));
  }
}

bool OAPDeviceController::ReserveStatus(uint32_t trackingNumber,
                                        const std::shared_ptr<MessageBody>& body) {
  return GetStore()->Add(NewMessage(trackingNumber, MsgStatus::Pending, body));
}

void OAPDeviceController::WithdrawStatus(uint32_t trackingNumber) {
  GetStore()->Forget(trackingNumber);
}

void OAPDeviceController::AcceptStatus(uint32_t answerNumber,
                                       const std::shared_ptr<MessageBody>& body) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  const std::shared_ptr<OAPMessageStore> store = GetStore();
  Message known;
  if (!store->Find(answerNumber, &known)) {
    // An update accepted under a number of its own shows the message it
    // updates: the new number shares that message's body.
    const bool sharing = body != nullptr && body->updateOnlyExisting && body->id != answerNumber;
    Message message = NewMessage(answerNumber, MsgStatus::Sent, sharing ? nullptr : body);
    if (sharing) message.bodyOf = body->id;
    store->Add(message);
  } else if (known.state == MsgStatus::Pending) {
    // Our own reservation (or an entry nothing was known about): the server
    // has now accepted the message. A state reached meanwhile stays.
    if (known.body == nullptr && known.bodyOf == 0 && body != nullptr) {
      store->SetBody(answerNumber, *body);
    }
    store->SetState(answerNumber, MsgStatus::Sent);
  }
}

void OAPDeviceController::SetStatus(uint32_t trackingNumber, MsgStatus::MsgState state) {
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::SetStatus");
  QmconCriticalSection guard(&m_lock, true, true, false);
  const std::shared_ptr<OAPMessageStore> store = GetStore();
  Message message;
  if (FindOwn(*store, trackingNumber, &message)) store->SetState(trackingNumber, state);
}

bool OAPDeviceController::GetStatus(uint32_t trackingNumber, MsgStatus& out) const {
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::GetStatus", "FALSE");
  const std::shared_ptr<OAPMessageStore> store = GetStore();
  Message message;
  if (!FindOwn(*store, trackingNumber, &message)) return false;
  out.state = static_cast<MsgStatus::MsgState>(message.state);
  out.closed = message.closed;
  out.responses = message.responses;
  const std::shared_ptr<const MessageBody> body = ShownBody(*store, message);
  out.body = body != nullptr ? std::make_shared<MessageBody>(*body) : nullptr;
  trace.SetResult("TRUE");
  return true;
}

bool OAPDeviceController::HasStatus(uint32_t trackingNumber) const {
  Message message;
  return FindOwn(*GetStore(), trackingNumber, &message);
}

void OAPDeviceController::AddResponse(uint32_t trackingNumber, const std::string& text,
                                      bool isUserResponse) {
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::AddResponse");
  if (text.empty()) return;
  std::string reply;
  bool final = false;
  {
    QmconCriticalSection guard(&m_lock, true, true, false);
    Message message;
    if (!FindOwn(*GetStore(), trackingNumber, &message) || message.closed) return;
    if (isUserResponse) {
      reply = text;
    } else {
      reply = text.substr(2);  // std::out_of_range for data shorter than its prefix
      final = text.compare(0, 2, kFinalPrefix) == 0;
    }
  }
  Echo(trackingNumber, reply, final, true);
}

unsigned long OAPDeviceController::WipeOptions(uint32_t trackingNumber,
                                               const std::string& replyText, bool wipe) {
  return Echo(trackingNumber, replyText, wipe, false);
}

unsigned long OAPDeviceController::Echo(uint32_t trackingNumber, const std::string& replyText,
                                        bool wipe, bool storeReply) {
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::WipeOptions", "0");
  std::shared_ptr<MessageBody> body;
  {
    QmconCriticalSection guard(&m_lock, true, true, false);
    const std::shared_ptr<OAPMessageStore> store = GetStore();
    Message message;
    if (!FindOwn(*store, trackingNumber, &message)) return 0;
    const std::shared_ptr<const MessageBody> shown = ShownBody(*store, message);
    if (shown != nullptr) {
      body = std::make_shared<MessageBody>(*shown);
      body->updateOnlyExisting = true;
      body->wipeOptions = wipe;
      if (!body->replyHeaderAdded) {
        body->bodyText += kReplyHeading;
        body->replyHeaderAdded = true;
      }
      body->bodyText += kReplyMarker + replyText;
    }
    // A reply is kept together with the text that echoes it, and a final one
    // closes the message before the echo goes out, so that a second final
    // answer racing this one is ignored. A shared body is the other
    // message's to keep.
    const bool ownBody = message.bodyOf == 0;
    if (storeReply &&
        !store->AddResponse(trackingNumber, replyText, wipe, ownBody ? body.get() : nullptr)) {
      return 0;
    }
    if (body == nullptr) return 0;
    if (!storeReply || !ownBody) store->SetBody(ownBody ? trackingNumber : message.bodyOf, *body);
  }
  const unsigned long tracking = SendAMessage(body);
  trace.SetResult(std::to_string(tracking));
  return tracking;
}

std::list<std::string> OAPDeviceController::QueryResponse(const std::string& /*deviceAddress*/,
                                                          uint32_t trackingNumber) {
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::QueryResponse", "0");
  std::list<std::string> replies;
  {
    QmconCriticalSection guard(&m_lock, true, true, false);
    const std::shared_ptr<OAPMessageStore> store = GetStore();
    Message message;
    if (!store->Find(trackingNumber, &message)) {
      store->Add(NewMessage(trackingNumber, MsgStatus::Pending, nullptr));
    } else if (message.address == address) {
      store->TakeResponses(trackingNumber, &replies);
    }
  }
  trace.SetResult(std::to_string(replies.size()));
  return replies;
}
