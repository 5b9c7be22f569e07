// Payload building and inbound handling of the message service, without a
// network: the device controller has a client that is never initialised. The
// envelopes of body-built blocks are pinned by the controller's sends.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <tuple>

#include "InterActiveMessageResponse.h"
#include "MessageBody.h"
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
using Replies = std::list<std::string>;

class EngineHandlerTest : public ::testing::Test {
 protected:
  EngineHandlerTest() : client(4321, "127.0.0.1"), device("1234@127.0.0.1:9") {
    client.TrackingBase = 0x10000;
    device.SetClient(&client);
    handler.SetDeviceContext(&device);
  }

  template <typename Source>
  std::unique_ptr<OAPBlock> Build(Source* source) {
    return std::unique_ptr<OAPBlock>(handler.BuildPayLoad(source));
  }
  template <typename Content>
  static Content* Inside(const OAPBlock& block) {
    auto* service = dynamic_cast<OAXMLService*>(block.body);
    return service != nullptr ? dynamic_cast<Content*>(service->content) : nullptr;
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
    return body;
  }

  // A response block as the server would send it.
  void Respond(uint32_t id, int type, int code, const std::string& data, const std::string& typed) {
    OAPResponseBlock response;
    response.id = id;
    response.status.type = type;
    response.status.code = code;
    response.dataResp = data;
    response.userResponse = typed;
    handler.Handle(&response);
  }
  // An inbound OA-XML answer request.
  void Answer(uint32_t id, const std::string& data, const std::string& typed) {
    OAPRequestBlock block;
    block.id = id;
    auto* answer = new InterActiveMessageResponse();
    answer->dataResponse = data, answer->userResponse = typed;
    auto* service = new OAXMLService();
    service->id = id, service->content = answer;
    block.SetBody(service);
    handler.Handle(&block);
  }
  // Reads the stored replies; the first call creates an empty status for the
  // number (body-less, so no echo is sent).
  Replies Query(uint32_t id) { return device.QueryResponse(device.address, id); }

  OAPClient client;
  OAPDeviceController device;
  OAPMessageServiceHandler handler;
};

// Requests built from texts: the header per version, no option labels (a 4.0
// request with labels is an empty interactive message); the bodies' texts are
// pinned by the model's tests.
TEST_F(EngineHandlerTest, RequestsAreWrittenPerVersionWithoutOptionLabels) {
  const std::string v4 =
      "encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"10000\">\n<Header>\n<Port>4321"
      "</Port>\n<To>1234</To>\n</Header>\n<Body service=\"OA-XML\">\n<service version=\"1.0\">\n";
  struct Case {
    const char* version;
    size_t labels;
    std::string present, absent;
  } cases[] = {
      {"", 2,
       "encoding=\"ISO-8859-1\"?>\n<OAP-request version=\"3.0\" id=\"10000\">\n<Header>\n<IP>"
       "127.0.0.1</IP>\n<Port>4321</Port>\n</Header>\n<Body service=\"message\"><To>1234</To>\n",
       "<Option"},
      {"4.0", 1, v4 + "<Interactive_Message>\n<Message>\n<Subject>Subj", "<Option"},
      {"4.0", 0, v4 + "<Message>\n<Subject>Subj", "<Interactive_Message>"},
  };
  for (Case& c : cases) {
    client.TrackingBase = 0x10000;
    Request request(c.version, "Subj", "Text", std::list<std::string>(c.labels, "Yes"));
    auto block = Build(&request);
    ASSERT_NE(block, nullptr);
    const std::string text = block->Serialize();
    EXPECT_NE(text.find(c.present), std::string::npos) << text;
    EXPECT_EQ(text.find(c.absent), std::string::npos) << text;
    EXPECT_EQ(client.TrackingBase.load(), 0x10001u);
  }
}

TEST_F(EngineHandlerTest, Version3BodyCopiesItsListAndReportsTheNumber) {
  MessageBody source = FullBody("3.0");
  auto block = Build(&source);
  EXPECT_EQ(block->id, 0x10000u);
  EXPECT_EQ(source.id, 0x10000u);
  auto* out = dynamic_cast<MessageBody*>(block->body);
  ASSERT_NE(out, nullptr);
  ASSERT_EQ(out->options.size(), 1u);
  EXPECT_EQ(out->options[0].dataResp, "N:Yes");
  // Copied, then not copied.
  EXPECT_EQ(std::make_tuple(out->ttl, out->auxValue, out->userResponseLabel, out->priority,
                            out->colour, out->sticky),
            std::make_tuple(30, 7, std::string("Type"), 6, std::string(), false));

  // An update reuses the body's number and leaves the counter alone.
  source.updateOnlyExisting = source.wipeOptions = true;
  source.id = 17;
  block = Build(&source);
  EXPECT_EQ(block->id, 17u);
  EXPECT_EQ(client.TrackingBase.load(), 0x10001u);
  out = dynamic_cast<MessageBody*>(block->body);
  ASSERT_NE(out, nullptr);
  EXPECT_TRUE(out->updateOnlyExisting && out->wipeOptions);
}

TEST_F(EngineHandlerTest, Version4BodyCopiesPresentationAndNamesTheMessageInTheEnvelope) {
  MessageBody source = FullBody("4.0");
  auto block = Build(&source);
  EXPECT_EQ(source.id, 0x10000u);
  EXPECT_EQ(dynamic_cast<OAXMLService*>(block->body)->id, 0x10000u);
  auto* out = Inside<OAXMLInterActiveMessageBody>(*block);
  ASSERT_NE(out, nullptr);
  // Copied, then not copied.
  EXPECT_EQ(std::make_tuple(out->priority, out->colour, out->urgent, out->numberOfRepetitions,
                            out->intervalTime, out->intensity, out->sticky, out->ttl, out->auxValue,
                            out->userResponseLabel, out->beep, out->to),
            std::make_tuple(2, std::string("red"), true, 4, 5, std::string("High"), true, 30, 7,
                            std::string("Type"), 0, std::string()));

  // An update travels under a fresh number, names the shown one inside and is
  // always interactive, even without options.
  MessageBody update;
  update.version = "4.0";
  update.updateOnlyExisting = update.wipeOptions = true;
  update.id = 17;
  block = Build(&update);
  EXPECT_EQ(block->id, 0x10001u);
  EXPECT_EQ(update.id, 17u);
  EXPECT_EQ(dynamic_cast<OAXMLService*>(block->body)->id, 17u);
  out = Inside<OAXMLInterActiveMessageBody>(*block);
  ASSERT_NE(out, nullptr);
  EXPECT_TRUE(out->updateOnlyExisting && out->wipeOptions);
  EXPECT_NE(block->Serialize().find("<Id>11</Id>\n"), std::string::npos);
}

TEST_F(EngineHandlerTest, VersionMustMatchExactlyAndOnlyMessageBodiesAreCopied) {
  MessageBody blank = FullBody("4.0 ");
  EXPECT_EQ(Build(&blank)->version, "3.0");
  MessageBody plain;
  plain.version = "4.0";
  auto block = Build(&plain);
  EXPECT_NE(Inside<OAXMLMessageBody>(*block), nullptr);
  EXPECT_EQ(Inside<OAXMLInterActiveMessageBody>(*block), nullptr);

  InterActiveMessageResponse foreign;
  for (const char* version : {"4.0", "3.0"}) {
    foreign.version = version;
    block = Build(&foreign);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->body, nullptr);
  }
  OAPServicePayLoadRequest bare("3.0");
  EXPECT_EQ(Build(&bare), nullptr);

  // Without a device that has a client nothing can be built.
  OAPMessageServiceHandler loose;
  EXPECT_EQ(loose.BuildPayLoad(&plain), nullptr);
  OAPDeviceController clientless("1@h:1");
  loose.SetDeviceContext(&clientless);
  EXPECT_EQ(loose.BuildPayLoad(&plain), nullptr);
  loose.Handle(nullptr);
}

// Server responses: delivery reports mark only known messages; option
// selections store the data (without its prefix) before any typed text.
TEST_F(EngineHandlerTest, ResponsesMarkDeliveryAndStoreSelections) {
  Query(5);
  MsgStatus status;
  Respond(5, 3, 405, "", "");
  ASSERT_TRUE(device.GetStatus(5, status));
  EXPECT_EQ(status.state, MsgStatus::Pending);
  Respond(5, 3, 200, "", "");
  Respond(6, 3, 200, "", "");
  ASSERT_TRUE(device.GetStatus(5, status));
  EXPECT_EQ(status.state, MsgStatus::Delivered);
  EXPECT_FALSE(device.GetStatus(6, status));

  Respond(5, 5, 200, "A:Yes", "typed");
  Respond(5, 5, 200, "", "typed");
  Respond(5, 5, 200, "", "");
  Respond(5, 1, 200, "A:No", "");
  EXPECT_EQ(Query(5), (Replies{"Yes", "typed"}));
  EXPECT_TRUE(Query(5).empty());
  EXPECT_THROW(Respond(5, 5, 200, "X", ""), std::out_of_range);
  Respond(5, 5, 200, "F:", "");
  EXPECT_EQ(Query(5), (Replies{""}));
}

TEST_F(EngineHandlerTest, InboundAnswersAreStoredAndFinalOnesClose) {
  Query(9);
  Answer(9, "N:Maybe", "ignored");
  Answer(9, "", "free text");
  Answer(9, "F:No", "");
  Answer(9, "A:Late", "");
  EXPECT_EQ(Query(9), (Replies{"Maybe", "free text", "No"}));
  MsgStatus status;
  ASSERT_TRUE(device.GetStatus(9, status));
  EXPECT_TRUE(status.closed);

  // Requests that are no OA-XML answer, and answers for unknown numbers.
  OAPRequestBlock bodiless;
  bodiless.id = 9;
  handler.Handle(&bodiless);
  Answer(10, "A:Yes", "");
  EXPECT_FALSE(device.GetStatus(10, status));
  EXPECT_TRUE(Query(9).empty());
}

}  // namespace
