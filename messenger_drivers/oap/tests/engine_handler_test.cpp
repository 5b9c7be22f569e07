// Payload building and inbound handling of the message service, without a
// network: the device controller has a client that is never initialised.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "InterActiveMessageResponse.h"
#include "MessageBody.h"
#include "OAPBlockHeader.h"
#include "OAPClient.h"
#include "OAPDeviceController.h"
#include "OAPMessageServiceHandler.h"
#include "OAPRequestBlock.h"
#include "OAPResponseBlock.h"
#include "OAXMLInterActiveMessageBody.h"
#include "OAXMLService.h"

namespace {

using Request = OAPMessageServiceHandler::OAPMsgServicePayLoadRequest;
using MsgStatus = OAPDeviceController::MsgStatus;

class EngineHandlerTest : public ::testing::Test {
 protected:
  EngineHandlerTest() : client(4321, "127.0.0.1"), device("1234@127.0.0.1:9") {
    client.TrackingBase = 0x10000;
    device.SetClient(&client);
    handler.SetDeviceContext(&device);
  }

  std::unique_ptr<OAPBlock> Build(OAPBlockBody* body) {
    return std::unique_ptr<OAPBlock>(handler.BuildPayLoad(body));
  }
  std::unique_ptr<OAPBlock> Build(Request* request) {
    return std::unique_ptr<OAPBlock>(handler.BuildPayLoad(request));
  }

  // A source body with every copied and every not-copied setting changed.
  static MessageBody FullBody(const std::string& version) {
    MessageBody body;
    body.version = version;
    body.subjectText = "Subject";
    body.bodyText = "Text";
    body.options.push_back({"Yes", "N:Yes", "", 0, ""});
    body.ttl = 30;
    body.auxValue = 7;
    body.userResponseLabel = "Type";
    body.priority = 2;
    body.beep = 3;
    body.colour = "red";
    body.urgent = true;
    body.numberOfRepetitions = 4;
    body.intervalTime = 5;
    body.intensity = "High";
    body.sticky = true;
    body.fromNumber = "555";
    return body;
  }

  // A response block as the server would send it.
  static std::unique_ptr<OAPResponseBlock> Response(uint32_t id, int type, int code,
                                                    const std::string& data,
                                                    const std::string& typed) {
    auto response = std::make_unique<OAPResponseBlock>();
    response->id = id;
    response->status.type = type;
    response->status.code = code;
    response->dataResp = data;
    response->userResponse = typed;
    return response;
  }

  // An inbound OA-XML answer request.
  static std::unique_ptr<OAPBlock> Answer(uint32_t id, const std::string& data,
                                          const std::string& typed) {
    auto block = std::make_unique<OAPRequestBlock>();
    block->id = id;
    auto answer = std::make_unique<InterActiveMessageResponse>();
    answer->dataResponse = data;
    answer->userResponse = typed;
    auto service = std::make_unique<OAXMLService>();
    service->id = id;
    service->content = answer.release();
    block->SetBody(service.release());
    return block;
  }

  // Creates an empty status for the number (body-less, so no echo is sent).
  void Known(uint32_t id) { device.QueryResponse(device.address, id); }

  std::list<std::string> Replies(uint32_t id) { return device.QueryResponse(device.address, id); }

  OAPClient client;
  OAPDeviceController device;
  OAPMessageServiceHandler handler;
};

TEST_F(EngineHandlerTest, Version3RequestIsWrittenWithListenerAddressAndFreshNumber) {
  Request request("", "Subj", "Text", {"Yes", "No"});
  auto block = Build(&request);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(client.TrackingBase.load(), 0x10001u);
  // The option labels are not used in this shape.
  EXPECT_EQ(block->Serialize(),
            "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
            "<OAP-request version=\"3.0\" id=\"10000\">\n"
            "<Header>\n<IP>127.0.0.1</IP>\n<Port>4321</Port>\n</Header>\n"
            "<Body service=\"message\"><To>1234</To>\n"
            "<SubjectText>Subj</SubjectText>\n<BodyText>Text</BodyText>\n"
            "<Priority>6</Priority>\n<AvailabilityStatus/><DeliveryStatus/></Body>"
            "</OAP-request>");
}

TEST_F(EngineHandlerTest, Version4RequestPicksBodyKindByOptionsAndDropsLabels) {
  Request interactive("4.0", "Subj", "Text", {"Yes"});
  auto block = Build(&interactive);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->Serialize(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-request version=\"4.0\" id=\"10000\">\n"
            "<Header>\n<Port>4321</Port>\n<To>1234</To>\n</Header>\n"
            "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n"
            "<Interactive_Message>\n<Message>\n<Subject>Subj</Subject>\n<Body>Text</Body>\n"
            "<Indication>\n</Indication>\n<Priority>6</Priority>\n</Message>\n"
            "</Interactive_Message>\n</service>\n</Body>\n</OAP-request>");

  Request plain("4.0", "Subj", "Text", {});
  block = Build(&plain);
  auto* service = dynamic_cast<OAXMLService*>(block->body);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->id, 0u);
  EXPECT_EQ(block->id, 0x10001u);
  EXPECT_NE(dynamic_cast<OAXMLMessageBody*>(service->content), nullptr);
  EXPECT_EQ(dynamic_cast<OAXMLInterActiveMessageBody*>(service->content), nullptr);
}

TEST_F(EngineHandlerTest, Version3BodyCopiesItsListAndReportsTheNumber) {
  MessageBody source = FullBody("3.0");
  auto block = Build(&source);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->version, "3.0");
  EXPECT_EQ(block->encoding, "ISO-8859-1");
  EXPECT_EQ(block->id, 0x10000u);
  EXPECT_EQ(source.id, 0x10000u);
  EXPECT_EQ(block->header->ip, "127.0.0.1");
  EXPECT_EQ(block->header->port, 4321);
  EXPECT_FALSE(block->header->deliveryStatus);

  auto* out = dynamic_cast<MessageBody*>(block->body);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->to, "1234");
  EXPECT_EQ(out->subjectText, "Subject");
  EXPECT_EQ(out->bodyText, "Text");
  ASSERT_EQ(out->options.size(), 1u);
  EXPECT_EQ(out->options[0].dataResp, "N:Yes");
  EXPECT_EQ(out->ttl, 30);
  EXPECT_EQ(out->auxValue, 7);
  EXPECT_EQ(out->userResponseLabel, "Type");
  EXPECT_EQ(out->priority, 6);  // not copied
  EXPECT_EQ(out->colour, "");
  EXPECT_FALSE(out->sticky);
}

TEST_F(EngineHandlerTest, Version3UpdateReusesTheBodyNumberAndKeepsTheCounter) {
  MessageBody source = FullBody("3.0");
  source.updateOnlyExisting = true;
  source.wipeOptions = true;
  source.id = 17;
  auto block = Build(&source);
  EXPECT_EQ(block->id, 17u);
  EXPECT_EQ(client.TrackingBase.load(), 0x10000u);
  auto* out = dynamic_cast<MessageBody*>(block->body);
  ASSERT_NE(out, nullptr);
  EXPECT_TRUE(out->updateOnlyExisting);
  EXPECT_TRUE(out->wipeOptions);
}

TEST_F(EngineHandlerTest, Version4BodyCopiesPresentationAndNamesTheMessageInTheEnvelope) {
  MessageBody source = FullBody("4.0");
  auto block = Build(&source);
  EXPECT_EQ(block->encoding, "UTF-8");
  EXPECT_EQ(block->id, 0x10000u);
  EXPECT_EQ(source.id, 0x10000u);
  EXPECT_EQ(block->header->to, "1234");
  EXPECT_EQ(block->header->ip, "");
  EXPECT_EQ(block->header->fromNumber, "555");
  EXPECT_TRUE(block->header->deliveryStatus);

  auto* service = dynamic_cast<OAXMLService*>(block->body);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->id, 0x10000u);
  auto* out = dynamic_cast<OAXMLInterActiveMessageBody*>(service->content);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->priority, 2);
  EXPECT_EQ(out->colour, "red");
  EXPECT_TRUE(out->urgent);
  EXPECT_EQ(out->numberOfRepetitions, 4);
  EXPECT_EQ(out->intervalTime, 5);
  EXPECT_EQ(out->intensity, "High");
  EXPECT_TRUE(out->sticky);
  EXPECT_EQ(out->ttl, 30);
  EXPECT_EQ(out->auxValue, 7);
  EXPECT_EQ(out->userResponseLabel, "Type");
  EXPECT_EQ(out->beep, 0);  // not copied
  EXPECT_EQ(out->to, "");
}

TEST_F(EngineHandlerTest, Version4UpdateTravelsUnderAFreshNumber) {
  MessageBody source;
  source.version = "4.0";
  source.updateOnlyExisting = true;
  source.wipeOptions = true;
  source.id = 17;
  auto block = Build(&source);
  EXPECT_EQ(block->id, 0x10000u);
  EXPECT_EQ(client.TrackingBase.load(), 0x10001u);
  EXPECT_EQ(source.id, 17u);
  auto* service = dynamic_cast<OAXMLService*>(block->body);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->id, 17u);
  // An update is always interactive, even without options.
  auto* out = dynamic_cast<OAXMLInterActiveMessageBody*>(service->content);
  ASSERT_NE(out, nullptr);
  EXPECT_TRUE(out->updateOnlyExisting);
  EXPECT_TRUE(out->wipeOptions);
  EXPECT_NE(block->Serialize().find("<Id>11</Id>\n"), std::string::npos);
}

TEST_F(EngineHandlerTest, VersionMustMatchExactlyAndOnlyMessageBodiesAreCopied) {
  MessageBody blank = FullBody("4.0 ");
  EXPECT_EQ(Build(&blank)->version, "3.0");

  MessageBody plain;
  plain.version = "4.0";
  auto block = Build(&plain);
  auto* service = dynamic_cast<OAXMLService*>(block->body);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(dynamic_cast<OAXMLInterActiveMessageBody*>(service->content), nullptr);

  InterActiveMessageResponse foreign;
  foreign.version = "4.0";
  block = Build(&foreign);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->body, nullptr);
  foreign.version = "3.0";
  EXPECT_EQ(Build(&foreign)->body, nullptr);

  OAPServicePayLoadRequest bare("3.0");
  EXPECT_EQ(handler.BuildPayLoad(&bare), nullptr);

  // Without a device that has a client nothing can be built.
  OAPMessageServiceHandler loose;
  EXPECT_EQ(loose.BuildPayLoad(&plain), nullptr);
  OAPDeviceController clientless("1@h:1");
  loose.SetDeviceContext(&clientless);
  EXPECT_EQ(loose.BuildPayLoad(&plain), nullptr);
  loose.Handle(nullptr);
}

TEST_F(EngineHandlerTest, DeliveryReportsMarkOnlyKnownMessagesDelivered) {
  Known(5);
  handler.Handle(Response(5, 3, 405, "", "").get());
  MsgStatus status;
  ASSERT_TRUE(device.GetStatus(5, status));
  EXPECT_EQ(status.state, MsgStatus::Pending);

  handler.Handle(Response(5, 3, 200, "", "").get());
  handler.Handle(Response(6, 3, 200, "", "").get());
  ASSERT_TRUE(device.GetStatus(5, status));
  EXPECT_EQ(status.state, MsgStatus::Delivered);
  EXPECT_FALSE(device.GetStatus(6, status));
}

TEST_F(EngineHandlerTest, OptionSelectionsStoreDataBeforeTypedText) {
  Known(5);
  handler.Handle(Response(5, 5, 200, "A:Yes", "typed").get());
  handler.Handle(Response(5, 5, 200, "", "typed").get());
  handler.Handle(Response(5, 5, 200, "", "").get());
  handler.Handle(Response(5, 1, 200, "A:No", "").get());
  EXPECT_EQ(Replies(5), (std::list<std::string>{"Yes", "typed"}));
  EXPECT_TRUE(Replies(5).empty());

  EXPECT_THROW(handler.Handle(Response(5, 5, 200, "X", "").get()), std::out_of_range);
  handler.Handle(Response(5, 5, 200, "F:", "").get());
  EXPECT_EQ(Replies(5), (std::list<std::string>{""}));
}

TEST_F(EngineHandlerTest, InboundAnswersAreStoredAndFinalOnesClose) {
  Known(9);
  handler.Handle(Answer(9, "N:Maybe", "ignored").get());
  handler.Handle(Answer(9, "", "free text").get());
  handler.Handle(Answer(9, "F:No", "").get());
  handler.Handle(Answer(9, "A:Late", "").get());
  EXPECT_EQ(Replies(9), (std::list<std::string>{"Maybe", "free text", "No"}));
  MsgStatus status;
  ASSERT_TRUE(device.GetStatus(9, status));
  EXPECT_TRUE(status.closed);

  // Requests that are no OA-XML answer, and answers for unknown numbers.
  OAPRequestBlock bodiless;
  bodiless.id = 9;
  handler.Handle(&bodiless);
  handler.Handle(Answer(10, "A:Yes", "").get());
  EXPECT_FALSE(device.GetStatus(10, status));
  EXPECT_TRUE(Replies(9).empty());
}

}  // namespace
