// Inbound handling of the message service without a network (the device
// controller's client is never initialised). What it builds is pinned by the
// model's serialisations and the driver's send tests.
#include <gtest/gtest.h>

#include <tuple>

#include "InterActiveMessageResponse.h"
#include "OAPClient.h"
#include "OAPDeviceController.h"
#include "OAPMessageServiceHandler.h"
#include "OAPRequestBlock.h"
#include "OAPResponseBlock.h"
#include "OAXMLService.h"

namespace {

using MsgStatus = OAPDeviceController::MsgStatus;
using Replies = std::list<std::string>;

class EngineHandlerTest : public ::testing::Test {
 protected:
  EngineHandlerTest()
      : client(std::make_shared<OAPClient>(4321, "127.0.0.1")), device("1234@127.0.0.1:9") {
    device.SetClient(client);
    handler.SetDeviceContext(&device);
  }

  // A response block as the server would send it.
  void Respond(uint32_t id, int type, int code, const std::string& data, const std::string& typed) {
    OAPResponseBlock response;
    response.id = id;
    std::tie(response.status.type, response.status.code) = std::make_pair(type, code);
    std::tie(response.dataResp, response.userResponse) = std::make_pair(data, typed);
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

  std::shared_ptr<OAPClient> client;
  OAPDeviceController device;
  OAPMessageServiceHandler handler;
};

// Server responses: delivery reports mark only known messages; option
// selections store the data (without its prefix) before any typed text.
// Inbound answers are stored until a final one closes the message.
TEST_F(EngineHandlerTest, ResponsesAndInboundAnswers) {
  Query(5);
  MsgStatus status;
  Respond(5, 3, 405, "", "");
  EXPECT_TRUE(device.GetStatus(5, status) && status.state == MsgStatus::Pending);
  Respond(5, 3, 200, "", "");
  Respond(6, 3, 200, "", "");
  EXPECT_TRUE(device.GetStatus(5, status) && status.state == MsgStatus::Delivered);
  EXPECT_FALSE(device.GetStatus(6, status));

  Respond(5, 5, 200, "A:Yes", "typed");
  Respond(5, 5, 200, "", "typed");
  Respond(5, 5, 200, "", "");
  Respond(5, 1, 200, "A:No", "");
  EXPECT_EQ(Query(5), (Replies{"Yes", "typed"}));
  Respond(5, 5, 200, "F:", "");
  EXPECT_EQ(Query(5), (Replies{""}));

  // Inbound answers are stored; a final one closes the message.
  Query(9);
  Answer(9, "N:Maybe", "ignored");
  Answer(9, "F:No", "");
  EXPECT_EQ(Query(9), (Replies{"Maybe", "No"}));
  EXPECT_TRUE(device.GetStatus(9, status) && status.closed);

  // Requests that are no OA-XML answer, and answers for unknown numbers.
  OAPRequestBlock bodiless;
  bodiless.id = 9;
  handler.Handle(&bodiless);
  Answer(10, "A:Yes", "");
  EXPECT_FALSE(device.GetStatus(10, status));
  EXPECT_TRUE(Query(9).empty());
}

}  // namespace
