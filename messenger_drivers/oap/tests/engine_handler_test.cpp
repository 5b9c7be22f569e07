// Payload building and inbound handling of the message service, without a
// network: the device controller has a client that is never initialised. The
// envelopes of the built blocks are pinned by the controller's sends.
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
    answer->dataResponse = data;
    answer->userResponse = typed;
    auto* service = new OAXMLService();
    service->id = id;
    service->content = answer;
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

// Message bodies: each version copies its own settings and reports the
// number; the version must match exactly; nothing else is copied. (The 4.0
// update of a shown message is pinned by the client's WipeOptions.)
TEST_F(EngineHandlerTest, BodiesAreCopiedPerVersion) {
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
  // A version 3 update reuses the body's number and leaves the counter alone.
  source.updateOnlyExisting = source.wipeOptions = true;
  source.id = 17;
  block = Build(&source);
  EXPECT_EQ(block->id, 17u);
  EXPECT_EQ(client.TrackingBase.load(), 0x10001u);
  out = dynamic_cast<MessageBody*>(block->body);
  ASSERT_NE(out, nullptr);
  EXPECT_TRUE(out->updateOnlyExisting && out->wipeOptions);

  source = FullBody("4.0");
  block = Build(&source);
  EXPECT_EQ(source.id, 0x10001u);
  auto* service = dynamic_cast<OAXMLService*>(block->body);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->id, 0x10001u);
  auto* v4 = dynamic_cast<OAXMLInterActiveMessageBody*>(service->content);
  ASSERT_NE(v4, nullptr);
  EXPECT_EQ(std::make_tuple(v4->priority, v4->colour, v4->urgent, v4->numberOfRepetitions,
                            v4->intervalTime, v4->intensity, v4->sticky, v4->ttl, v4->auxValue,
                            v4->userResponseLabel, v4->beep, v4->to),
            std::make_tuple(2, std::string("red"), true, 4, 5, std::string("High"), true, 30, 7,
                            std::string("Type"), 0, std::string()));

  source = FullBody("4.0 ");
  EXPECT_EQ(Build(&source)->version, "3.0");
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
  EXPECT_EQ(loose.BuildPayLoad(&source), nullptr);
  OAPDeviceController clientless("1@h:1");
  loose.SetDeviceContext(&clientless);
  EXPECT_EQ(loose.BuildPayLoad(&source), nullptr);
  loose.Handle(nullptr);
}

// Server responses: delivery reports mark only known messages; option
// selections store the data (without its prefix) before any typed text.
// Inbound answers are stored until a final one closes the message.
TEST_F(EngineHandlerTest, ResponsesAndInboundAnswers) {
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

  // Inbound answers are stored; a final one closes the message.
  Query(9);
  Answer(9, "N:Maybe", "ignored");
  Answer(9, "", "free text");
  Answer(9, "F:No", "");
  Answer(9, "A:Late", "");
  EXPECT_EQ(Query(9), (Replies{"Maybe", "free text", "No"}));
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
