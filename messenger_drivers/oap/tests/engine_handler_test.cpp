// Inbound handling of the message service without a network (the device
// controller's client is never initialised). What it stores from answers and
// reports is pinned through the plug-in's send tests; here the reports and
// answers that must change nothing.
#include <gtest/gtest.h>

#include <tuple>

#include "OAPClient.h"
#include "OAPDeviceController.h"
#include "OAPMessageServiceHandler.h"
#include "OAPResponseBlock.h"

namespace {

using MsgStatus = OAPDeviceController::MsgStatus;

class EngineHandlerTest : public ::testing::Test {
 protected:
  EngineHandlerTest()
      : client(std::make_shared<OAPClient>(4321, "127.0.0.1")), device("1234@127.0.0.1:9") {
    device.SetClient(client);
    handler.SetDeviceContext(&device);
  }

  // A response block as the server would send it.
  void Respond(uint32_t id, int type, int code, const std::string& data) {
    OAPResponseBlock response;
    response.id = id;
    std::tie(response.status.type, response.status.code) = std::make_pair(type, code);
    response.dataResp = data;
    handler.Handle(&response);
  }

  std::shared_ptr<OAPClient> client;
  OAPDeviceController device;
  OAPMessageServiceHandler handler;
};

// A delivery report other than 200 leaves the message pending; an answer for
// a number nothing was sent under is ignored.
TEST_F(EngineHandlerTest, FailedReportsAndUnknownNumbersChangeNothing) {
  device.QueryResponse(device.address, 5);  // an empty status for the number
  MsgStatus status;
  Respond(5, 3, 405, "");
  EXPECT_TRUE(device.GetStatus(5, status) && status.state == MsgStatus::Pending);
  Respond(6, 5, 200, "A:Yes");
  EXPECT_FALSE(device.GetStatus(6, status));
}

}  // namespace
