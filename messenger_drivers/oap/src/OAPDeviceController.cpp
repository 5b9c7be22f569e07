#include "OAPDeviceController.h"

#include <cstdlib>
#include <exception>
#include <functional>
#include <utility>

#include "MessageBody.h"
#include "OAPBlock.h"
#include "OAPClient.h"
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

OAPDeviceController::OAPDeviceController(const std::string& deviceAddress)
    : address(deviceAddress) {
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

QmLogInterface* OAPDeviceController::GetLogger() const {
  OAPClient* current = client.load();
  return current != nullptr ? current->GetLogger() : nullptr;
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
  std::unique_ptr<OAPBlock> request;
  bool update = false;
  {
    // A kept body takes the handset's replies on the listener's threads.
    QmconCriticalSection guard(&m_lock, true, true, false);
    request.reset(handler->BuildPayLoad(body.get()));
    update = body->updateOnlyExisting;
  }
  const unsigned long tracking = Exchange(*handler, std::move(request), body, !update);
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
  OAPClient* current = client.load();
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
  QmconCriticalSection guard(&m_lock, true, true, false);
  MsgStatus status;
  status.body = body;
  return statuses.emplace(trackingNumber, status).second;
}

void OAPDeviceController::WithdrawStatus(uint32_t trackingNumber) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  statuses.erase(trackingNumber);
}

void OAPDeviceController::AcceptStatus(uint32_t answerNumber,
                                       const std::shared_ptr<MessageBody>& body) {
  QmconCriticalSection guard(&m_lock, true, true, false);
  auto found = statuses.find(answerNumber);
  if (found == statuses.end()) {
    MsgStatus status;
    status.body = body;
    status.state = MsgStatus::Sent;
    statuses.emplace(answerNumber, status);
  } else if (found->second.state == MsgStatus::Pending) {
    // Our own reservation (or an entry nothing was known about): the server
    // has now accepted the message. A state reached meanwhile stays.
    found->second.state = MsgStatus::Sent;
    if (found->second.body == nullptr) found->second.body = body;
  }
}

void OAPDeviceController::SetStatus(uint32_t trackingNumber, MsgStatus::MsgState state) {
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::SetStatus");
  QmconCriticalSection guard(&m_lock, true, true, false);
  auto found = statuses.find(trackingNumber);
  if (found != statuses.end()) found->second.state = state;
}

bool OAPDeviceController::GetStatus(uint32_t trackingNumber, MsgStatus& out) const {
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::GetStatus", "FALSE");
  QmconCriticalSection guard(&m_lock, true, true, false);
  auto found = statuses.find(trackingNumber);
  if (found == statuses.end()) return false;
  out = found->second;
  // The kept body changes with every echoed reply; hand out a snapshot.
  if (out.body != nullptr) out.body = std::make_shared<MessageBody>(*out.body);
  trace.SetResult("TRUE");
  return true;
}

bool OAPDeviceController::HasStatus(uint32_t trackingNumber) const {
  QmconCriticalSection guard(&m_lock, true, true, false);
  return statuses.count(trackingNumber) != 0;
}

void OAPDeviceController::AddResponse(uint32_t trackingNumber, const std::string& text,
                                      bool isUserResponse) {
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::AddResponse");
  if (text.empty()) return;
  std::string reply;
  bool final = false;
  {
    QmconCriticalSection guard(&m_lock, true, true, false);
    auto found = statuses.find(trackingNumber);
    if (found == statuses.end() || found->second.closed) return;
    if (isUserResponse) {
      reply = text;
    } else {
      reply = text.substr(2);  // std::out_of_range for data shorter than its prefix
      final = text.compare(0, 2, kFinalPrefix) == 0;
    }
    found->second.responses.push_back(reply);
    // Closed together with storing the reply, so that a second final answer
    // racing this one is ignored.
    if (final) found->second.closed = true;
  }
  WipeOptions(trackingNumber, reply, final);
}

unsigned long OAPDeviceController::WipeOptions(uint32_t trackingNumber,
                                               const std::string& replyText, bool wipe) {
  OAPTracer trace(GetLogger(), kSource, __LINE__, "OAPDeviceController::WipeOptions", "0");
  std::shared_ptr<MessageBody> body;
  {
    QmconCriticalSection guard(&m_lock, true, true, false);
    auto found = statuses.find(trackingNumber);
    if (found == statuses.end() || found->second.body == nullptr) return 0;
    body = found->second.body;
    body->updateOnlyExisting = true;
    body->wipeOptions = wipe;
    if (!body->replyHeaderAdded) {
      body->bodyText += kReplyHeading;
      body->replyHeaderAdded = true;
    }
    body->bodyText += kReplyMarker + replyText;
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
    replies.swap(statuses[trackingNumber].responses);
  }
  trace.SetResult(std::to_string(replies.size()));
  return replies;
}
