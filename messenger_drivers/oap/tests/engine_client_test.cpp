// The client module: tracking base, listener start and stop, lookups
// without a controller, DispatchPayLoad's leaving line and WipeOptions.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "FakeOapServer.h"
#include "MessageBody.h"
#include "OAPBlockHeader.h"
#include "OAPClient.h"
#include "OAPDeviceRegistrar.h"
#include "OAPRequestBlock.h"
#include "QmconFunctions.h"
#include "engine_test_support.h"

namespace {

// The runtime's signal handlers and socket layer, once for the process.
class RuntimeEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { InitialLib(); }
};
::testing::Environment* const kRuntime =
    ::testing::AddGlobalTestEnvironment(new RuntimeEnvironment);

bool CanConnect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return ok;
}

class EngineClientTest : public ::testing::Test {
 protected:
  ~EngineClientTest() override { OAPDeviceRegistrar::Release(); }
  RecordingLogger logger;
};

TEST_F(EngineClientTest, TrackingBaseIsARandomMultipleOf65536) {
  for (int i = 0; i < 20; ++i) {
    OAPClient client(1, "");
    const uint32_t base = client.TrackingBase.load();
    EXPECT_EQ(base % 65536u, 0u);
    EXPECT_GE(base, 65536u);
    EXPECT_LE(base, 65535u * 65536u);
    EXPECT_EQ(client.NextTrackingNumber(), base);
    EXPECT_EQ(client.NextTrackingNumber(), base + 1);
  }
  OAPClient client(1, "");
  EXPECT_EQ(client.GetRunningModuleName(), "Qm OAP Client");
  EXPECT_EQ(client.GetListeningPort(), -1);
}

TEST_F(EngineClientTest, LookupsOfUnknownDevicesCreateNoController) {
  OAPClient client(0, "127.0.0.1");
  ASSERT_TRUE(client.Initialize(&logger, ""));
  EXPECT_EQ(client.GetStatus("1@nowhere:1", 5), 0);
  EXPECT_TRUE(client.QueryResponse("1@nowhere:1", 5).empty());
  EXPECT_EQ(OAPDeviceRegistrar::GetInstance()->GetDevice("1@nowhere:1", false), nullptr);
  client.WipeOptions(5);  // no controller knows it: nothing is sent
  EXPECT_EQ(client.SendAMessage(nullptr), 0u);
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_TRACE, "Leaving OAPClient::GetStatus() with 0."));
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_TRACE,
                         "Leaving OAPClient::SendAMessage() with Failure(0)."));
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_TRACE, "Leaving OAPClient::WipeOptions()."));
  client.Finalize();
}

TEST_F(EngineClientTest, ListenerRunsBetweenInitializeAndFinalize) {
  OAPClient client(0, "127.0.0.1");
  ASSERT_TRUE(client.Initialize(&logger, ""));
  const int first = client.GetListeningPort();
  // Starting again replaces the running listener.
  ASSERT_TRUE(client.InitializeSpecial());
  const int port = client.GetListeningPort();
  ASSERT_GT(port, 0);
  if (port != first) {
    EXPECT_FALSE(CanConnect(first));
  }
  EXPECT_TRUE(CanConnect(port));
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_TRACE,
                         "Leaving OAPClient::InitializeSpecial() with TRUE."));
  EXPECT_TRUE(client.Finalize());
  EXPECT_TRUE(
      logger.Has(RecordingLogger::LEVEL_TRACE, "Leaving OAPClient::FinalizeSpecial() with TRUE."));
  EXPECT_EQ(client.GetListeningPort(), -1);
  EXPECT_FALSE(CanConnect(port));
  client.Finalize();  // a second stop finds no listener

  // A client dropped without Finalize still stops its listener.
  int leftPort = 0;
  {
    OAPClient dropped(0, "127.0.0.1");
    ASSERT_TRUE(dropped.Initialize(&logger, ""));
    leftPort = dropped.GetListeningPort();
    ASSERT_TRUE(SendInbound(leftPort, "<OAP-response/>"));
  }
  EXPECT_FALSE(CanConnect(leftPort));
}

TEST_F(EngineClientTest, ListenerOnABusyPortFailsWithItsTextAndIsStillReleased) {
  FakeOapServer occupant;
  OAPClient client(occupant.Port(), "127.0.0.1");
  EXPECT_FALSE(client.Initialize(&logger, ""));
  EXPECT_TRUE(logger.Has(
      RecordingLogger::LEVEL_ERROR,
      "Failed to Start OAP Listener on '127.0.0.1:" + std::to_string(occupant.Port()) + "'"));
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_TRACE,
                         "Leaving OAPClient::InitializeSpecial() with FALSE."));
  client.Finalize();
  EXPECT_TRUE(
      logger.Has(RecordingLogger::LEVEL_TRACE, "Leaving OAPClient::FinalizeSpecial() with FALSE."));
}

TEST_F(EngineClientTest, DispatchLeavingLineIsInvertedByDesign) {
  FakeOapServer server;
  OAPClient client(0, "127.0.0.1");
  ASSERT_TRUE(client.Initialize(&logger, ""));
  server.Queue(
      FakeOapServer::Answer("<?xml version=\"1.0\"?>\n<OAP-response version=\"3.0\" "
                            "id=\"ff\"><Status service=\"message\"><Type>1</Type>"
                            "<Code>200</Code></Status></OAP-response>"));
  server.Queue(FakeOapServer::Answer(std::string("<OAP-resp\0onse/>", 16)));

  OAPRequestBlock request;
  request.version = "3.0";
  request.encoding = "ISO-8859-1";
  request.SetHeader(new OAPBlockHeader());
  request.SetBody(new MessageBody());
  std::unique_ptr<OAPBlock> answer(client.DispatchPayLoad("127.0.0.1", server.Port(), &request));
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->GetID(), 255u);
  EXPECT_EQ(logger.Count(RecordingLogger::LEVEL_TRACE,
                         "Leaving OAPClient::DispatchPayLoad() with FALSE."),
            1u);
  // The text ends at the first NUL byte read.
  answer.reset(client.DispatchPayLoad("127.0.0.1", server.Port(), &request));
  EXPECT_EQ(answer, nullptr);
  EXPECT_EQ(
      logger.Count(RecordingLogger::LEVEL_TRACE, "Leaving OAPClient::DispatchPayLoad() with TRUE."),
      1u);
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_TRACE, "<= <?xml"));

  // A block that cannot be written is not sent at all.
  OAPRequestBlock empty;
  EXPECT_EQ(client.DispatchPayLoad("127.0.0.1", server.Port(), &empty), nullptr);
  EXPECT_EQ(client.DispatchPayLoad("127.0.0.1", server.Port(), nullptr), nullptr);
  EXPECT_EQ(server.Requests().size(), 2u);
  client.Finalize();
}

TEST_F(EngineClientTest, WipeOptionsSendsAVersion4UpdateOfTheShownMessage) {
  FakeOapServer server;
  OAPClient client(4321, "127.0.0.1");
  client.TrackingBase = 0x30000;
  const std::string address = "77@127.0.0.1:" + std::to_string(server.Port());
  server.Queue(
      FakeOapServer::Answer("<OAP-response version=\"3.0\" id=\"30000\"><Status "
                            "service=\"message\"><Type>1</Type><Code>200</Code>"
                            "</Status></OAP-response>"));
  server.Queue(FakeOapServer::Answer(
      "<OAP-response version=\"4.0\" id=\"30001\"><Status><Type>1</Type><Code>200</Code>"
      "</Status></OAP-response>"));
  auto* body = new MessageBody();
  body->to = address;
  body->bodyText = "Pick one";
  body->options.push_back({"Yes", "N:Yes", "", 0, ""});
  ASSERT_EQ(client.SendAMessage(body), 0x30000u);

  client.WipeOptions(0x30000);
  ASSERT_EQ(server.Requests().size(), 2u);
  EXPECT_EQ(server.Requests()[1],
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-request version=\"4.0\" id=\"30001\">\n"
            "<Header>\n<Port>4321</Port>\n<To>77</To>\n<DeliveryStatus/>\n</Header>\n"
            "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>30000</Id>\n"
            "<Interactive_Message>\n<Message>\n<Indication>\n<Intensity>None</Intensity>\n"
            "</Indication> \n</Message>\n<Update>\n</Update>\n</Interactive_Message>\n"
            "</service>\n</Body>\n</OAP-request>");
  // The shown message keeps its state and its body.
  EXPECT_EQ(client.GetStatus(address, 0x30000), 1);

  // A failing update is logged, not raised (the server hangs up unanswered).
  OAPClient other(0, "127.0.0.1");
  ASSERT_TRUE(other.Initialize(&logger, ""));
  other.WipeOptions(0x30000);
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_ERROR, "Exception occurred [Socket is closed]"));
  other.Finalize();
}

}  // namespace
