#include "OAPMessageServiceHandler.h"

#include "InterActiveMessageResponse.h"
#include "MessageBody.h"
#include "OAPBlock.h"
#include "OAPBlockFactory.h"
#include "OAPBlockHeader.h"
#include "OAPClient.h"
#include "OAPDeviceController.h"
#include "OAPResponseBlock.h"
#include "OAPTracer.h"
#include "OAXMLInterActiveMessageBody.h"
#include "OAXMLMessageBody.h"
#include "OAXMLService.h"

namespace {

const char kSource[] = "messenger_drivers/oap/src/OAPMessageServiceHandler";
const char kFalse[] = "FALSE";
const char kVersion4[] = "4.0";
const char kAnswerService[] = "InterActiveMessageResponse";
const int kClassDelivery = 3;
const int kClassOptionSelected = 5;
const int kCodeOk = 200;

// Settings that every shape built from a body takes over from its source.
void CopyCommonSettings(const MessageBody& from, MessageBody& to) {
  to.subjectText = from.subjectText;
  to.bodyText = from.bodyText;
  to.options = from.options;
  to.ttl = from.ttl;
  to.auxValue = from.auxValue;
  to.userResponseLabel = from.userResponseLabel;
}

}  // namespace

OAPMessageServiceHandler::OAPMsgServicePayLoadRequest::OAPMsgServicePayLoadRequest(
    const std::string& requestVersion, const std::string& subjectText, const std::string& bodyText,
    const std::list<std::string>& optionLabels)
    : OAPServicePayLoadRequest(requestVersion),
      subject(subjectText),
      body(bodyText),
      options(optionLabels) {}

OAPMessageServiceHandler::OAPMsgServicePayLoadRequest::~OAPMsgServicePayLoadRequest() = default;

OAPMessageServiceHandler::~OAPMessageServiceHandler() = default;

std::shared_ptr<OAPClient> OAPMessageServiceHandler::Client() const {
  return deviceContext != nullptr ? deviceContext->GetClient() : nullptr;
}

QmLogInterface* OAPMessageServiceHandler::Logger() const {
  return deviceContext != nullptr ? deviceContext->GetLogger() : nullptr;
}

std::unique_ptr<OAPBlock> OAPMessageServiceHandler::StartBlock(bool version4) const {
  std::unique_ptr<OAPBlock> block(OAPBlockFactory::GetBlock("OAP-request"));
  block->version = version4 ? "4.0" : "3.0";
  block->encoding = version4 ? "UTF-8" : "ISO-8859-1";
  auto header = std::make_unique<OAPBlockHeader>();
  header->port = Client()->Port;
  block->SetHeader(header.release());
  return block;
}

OAPBlock* OAPMessageServiceHandler::BuildPayLoad(OAPServicePayLoadRequest* request) {
  OAPTracer trace(Logger(), kSource, __LINE__, "OAPMessageServiceHandler::BuildPayLoad", kFalse);
  auto* message = dynamic_cast<OAPMsgServicePayLoadRequest*>(request);
  if (message == nullptr || Client() == nullptr) return nullptr;
  OAPBlock* block =
      message->GetVersion() == kVersion4 ? BuildV4PayLoad(message) : BuildV3PayLoad(message);
  trace.SetResult("TRUE");
  return block;
}

OAPBlock* OAPMessageServiceHandler::BuildPayLoad(OAPBlockBody* body) {
  OAPTracer trace(Logger(), kSource, __LINE__, "OAPMessageServiceHandler::BuildPayLoad", kFalse);
  if (body == nullptr || Client() == nullptr) return nullptr;
  OAPBlock* block = body->version == kVersion4 ? BuildV4PayLoad(body) : BuildV3PayLoad(body);
  trace.SetResult("TRUE");
  return block;
}

OAPBlock* OAPMessageServiceHandler::BuildV3PayLoad(OAPMsgServicePayLoadRequest* request) {
  OAPTracer trace(Logger(), kSource, __LINE__, "OAPMessageServiceHandler::BuildV3PayLoad");
  std::unique_ptr<OAPBlock> block = StartBlock(false);
  block->id = Client()->NextTrackingNumber();
  block->header->ip = Client()->Address;
  auto body = std::make_unique<MessageBody>();
  body->to = deviceContext->handset;
  body->subjectText = request->subject;
  body->bodyText = request->body;
  block->SetBody(body.release());
  return block.release();
}

OAPBlock* OAPMessageServiceHandler::BuildV3PayLoad(OAPBlockBody* body) {
  OAPTracer trace(Logger(), kSource, __LINE__, "OAPMessageServiceHandler::BuildV3PayLoad");
  std::unique_ptr<OAPBlock> block = StartBlock(false);
  block->header->ip = Client()->Address;
  auto* source = dynamic_cast<MessageBody*>(body);
  if (source == nullptr) return block.release();

  auto message = std::make_unique<MessageBody>();
  message->to = deviceContext->handset;
  if (source->updateOnlyExisting) {
    // An update is sent under the number of the message it replaces.
    block->id = source->id;
  } else {
    block->id = Client()->NextTrackingNumber();
    source->id = block->id;
  }
  message->updateOnlyExisting = source->updateOnlyExisting;
  message->wipeOptions = source->wipeOptions;
  CopyCommonSettings(*source, *message);
  block->SetBody(message.release());
  return block.release();
}

OAPBlock* OAPMessageServiceHandler::BuildV4PayLoad(OAPMsgServicePayLoadRequest* request) {
  OAPTracer trace(Logger(), kSource, __LINE__, "OAPMessageServiceHandler::BuildV4PayLoad");
  std::unique_ptr<OAPBlock> block = StartBlock(true);
  block->id = Client()->NextTrackingNumber();
  block->header->to = deviceContext->handset;

  std::unique_ptr<MessageBody> content;
  if (request->options.empty()) {
    content = std::make_unique<OAXMLMessageBody>();
  } else {
    content = std::make_unique<OAXMLInterActiveMessageBody>();
  }
  content->subjectText = request->subject;
  content->bodyText = request->body;

  auto service = std::make_unique<OAXMLService>();
  service->content = content.release();
  block->SetBody(service.release());
  return block.release();
}

OAPBlock* OAPMessageServiceHandler::BuildV4PayLoad(OAPBlockBody* body) {
  OAPTracer trace(Logger(), kSource, __LINE__, "OAPMessageServiceHandler::BuildV4PayLoad");
  std::unique_ptr<OAPBlock> block = StartBlock(true);
  block->id = Client()->NextTrackingNumber();
  block->header->to = deviceContext->handset;
  block->header->deliveryStatus = true;
  auto* source = dynamic_cast<MessageBody*>(body);
  if (source == nullptr) return block.release();

  const bool update = source->updateOnlyExisting;
  std::unique_ptr<MessageBody> content;
  if (!update && source->options.empty()) {
    content = std::make_unique<OAXMLMessageBody>();
  } else {
    content = std::make_unique<OAXMLInterActiveMessageBody>();
    content->updateOnlyExisting = source->updateOnlyExisting;
    content->wipeOptions = source->wipeOptions;
  }
  CopyCommonSettings(*source, *content);
  content->colour = source->colour;
  content->urgent = source->urgent;
  content->numberOfRepetitions = source->numberOfRepetitions;
  content->intervalTime = source->intervalTime;
  content->intensity = source->intensity;
  content->priority = source->priority;
  content->sticky = source->sticky;
  block->header->fromNumber = source->fromNumber;

  auto service = std::make_unique<OAXMLService>();
  service->content = content.release();
  if (update) {
    // The envelope names the message being replaced; the block itself
    // travels under a fresh number.
    service->id = source->id;
  } else {
    service->id = block->id;
    source->id = block->id;
  }
  block->SetBody(service.release());
  return block.release();
}

void OAPMessageServiceHandler::Handle(OAPBlock* block) {
  OAPTracer trace(Logger(), kSource, __LINE__, "OAPMessageServiceHandler::Handle");
  if (block == nullptr || deviceContext == nullptr) return;
  if (block->GetType() == OAPBlock::Response) {
    auto* response = dynamic_cast<OAPResponseBlock*>(block);
    if (response != nullptr) HandleResponse(*response);
  } else if (block->GetType() == OAPBlock::Request) {
    HandleRequest(*block);
  }
}

void OAPMessageServiceHandler::HandleResponse(const OAPResponseBlock& response) {
  if (response.status.type == kClassDelivery && response.status.code == kCodeOk) {
    deviceContext->SetStatus(response.GetID(), OAPDeviceController::MsgStatus::Delivered);
  } else if (response.status.type == kClassOptionSelected) {
    if (!response.dataResp.empty()) {
      deviceContext->AddResponse(response.GetID(), response.dataResp, false);
    } else if (!response.userResponse.empty()) {
      deviceContext->AddResponse(response.GetID(), response.userResponse, true);
    }
  }
}

void OAPMessageServiceHandler::HandleRequest(const OAPBlock& request) {
  if (request.GetServiceName() != kAnswerService) return;
  auto* service = dynamic_cast<OAXMLService*>(request.body);
  if (service == nullptr) return;
  auto* answer = dynamic_cast<InterActiveMessageResponse*>(service->content);
  if (answer == nullptr) return;
  if (!answer->dataResponse.empty()) {
    deviceContext->AddResponse(request.GetID(), answer->dataResponse, false);
  } else if (!answer->userResponse.empty()) {
    deviceContext->AddResponse(request.GetID(), answer->userResponse, true);
  }
}
