// Device controllers against the fake OAP server: address parsing, the
// exchanges of plain and interactive sends in both versions, the failures of
// an exchange, and the echo of handset replies.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "FakeOapServer.h"
#include "MessageBody.h"
#include "OAPClient.h"
#include "OAPDeviceController.h"
#include "OAPDeviceRegistrar.h"
#include "QmException.h"

namespace {

using MsgStatus = OAPDeviceController::MsgStatus;

const char kDecl3[] = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n";
const char kDecl4[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
const char kHeader3[] = "<Header>\n<IP>127.0.0.1</IP>\n<Port>4321</Port>\n</Header>\n";

// An OAP-response document with the given status, written out literally.
std::string ResponseDoc(const std::string& version, const std::string& idHex, int type, int code) {
  return std::string(version == "4.0" ? kDecl4 : kDecl3) + "<OAP-response version=\"" + version +
         "\" id=\"" + idHex + "\"><Status" + (version == "4.0" ? "" : " service=\"message\"") +
         "><Type>" + std::to_string(type) + "</Type><Code>" + std::to_string(code) +
         "</Code></Status></OAP-response>";
}

std::string RequestStart(const std::string& version, const std::string& idHex) {
  return std::string(version == "4.0" ? kDecl4 : kDecl3) + "<OAP-request version=\"" + version +
         "\" id=\"" + idHex + "\">\n";
}

// The two listed options Yes ("N:Yes") and No ("F:No") in the 3.0 shape.
const char kOptions3[] =
    "<Option id=\"1\">\n<Text>Yes</Text>\n<OnSelection>\n<DataResp>N:Yes</DataResp>\n"
    "</OnSelection>\n<FuncKeyId>A</FuncKeyId>\n</Option>\n"
    "<Option id=\"2\">\n<Text>No</Text>\n<OnSelection>\n<DataResp>F:No</DataResp>\n"
    "</OnSelection>\n<FuncKeyId>C</FuncKeyId>\n</Option>\n";

// A port on which nothing listens.
int ClosedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), length);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

TEST(EngineDeviceAddressTest, SplitsHandsetHostAndPort) {
  struct Case {
    const char* address;
    const char* handset;
    const char* host;
    int port;
    const char* key;
  };
  const Case cases[] = {
      {"1234@server:7000", "1234", "server", 7000, "1234@server"},
      {"1234@server", "1234", "server", 0, "1234@server"},
      {"1234@server:70x", "1234", "server", 70, "1234@server"},
      {"1234@server:x", "1234", "server", 0, "1234@server"},
      {"1234@a:1:2", "1234", "a", 1, "1234@a"},
      {"1234@", "1234", "", 0, "1234"},
      {"@h:5", "", "h", 5, "@h"},
      {"no-at-sign", "", "", 0, ""},
  };
  for (const Case& c : cases) {
    OAPDeviceController device(c.address);
    EXPECT_EQ(device.address, c.address);
    EXPECT_EQ(device.handset, c.handset) << c.address;
    EXPECT_EQ(device.host, c.host) << c.address;
    EXPECT_EQ(device.port, c.port) << c.address;
    EXPECT_EQ(device.key, c.key) << c.address;
    EXPECT_EQ(device.GetClient(), nullptr);
  }
}

TEST(EngineDeviceRegistrarTest, CreatesOnDemandAndFindsByTrackingNumber) {
  OAPDeviceRegistrar* registry = OAPDeviceRegistrar::GetInstance();
  EXPECT_EQ(registry, OAPDeviceRegistrar::GetInstance());
  EXPECT_EQ(registry->GetDevice("1@b:1", false), nullptr);
  OAPDeviceController* b = registry->GetDevice("1@b:1", true);
  OAPDeviceController* a = registry->GetDevice("1@a:1", true);
  EXPECT_EQ(registry->GetDevice("1@b:1", false), b);
  EXPECT_EQ(registry->GetDevice("1@b:1", true), b);
  b->QueryResponse(b->address, 42);
  a->QueryResponse(a->address, 42);
  b->QueryResponse(b->address, 43);
  EXPECT_EQ(registry->GetDeviceByTrackingID(42), a);  // address order
  EXPECT_EQ(registry->GetDeviceByTrackingID(43), b);
  EXPECT_EQ(registry->GetDeviceByTrackingID(44), nullptr);
  OAPDeviceRegistrar::Release();
  EXPECT_EQ(OAPDeviceRegistrar::GetInstance()->GetDevice("1@b:1", false), nullptr);
  OAPDeviceRegistrar::Release();
}

class EngineControllerTest : public ::testing::Test {
 protected:
  EngineControllerTest() : client(4321, "127.0.0.1") {
    client.TrackingBase = 0x20000;
    address = "1234@127.0.0.1:" + std::to_string(server.Port());
  }
  ~EngineControllerTest() override { OAPDeviceRegistrar::Release(); }

  // Sends through the client and returns the exception text ("" when none).
  std::string SendFailure(MessageBody* body) {
    try {
      client.SendAMessage(body);
    } catch (const QmException& e) {
      return e.GetMsg();
    }
    return "";
  }

  MessageBody* NewBody(const std::string& version) {
    auto* body = new MessageBody();
    body->to = address;
    body->version = version;
    body->subjectText = "Q";
    body->bodyText = "Question";
    return body;
  }
  MessageBody* NewInteractive(const std::string& version) {
    MessageBody* body = NewBody(version);
    body->options.push_back({"Yes", "N:Yes", "", 0, ""});
    body->options.push_back({"No", "F:No", "", 0, ""});
    return body;
  }
  OAPDeviceController* Device() {
    return OAPDeviceRegistrar::GetInstance()->GetDevice(address, false);
  }

  FakeOapServer server;
  OAPClient client;
  std::string address;
};

TEST_F(EngineControllerTest, PlainVersion3SendIsWrittenExactlyAndKeptAsSent) {
  server.Queue(FakeOapServer::Answer(ResponseDoc("3.0", "20000", 1, 200)));
  MessageBody* body = NewBody("3.0");
  body->bodyText = "Hello <you>";
  EXPECT_EQ(client.SendAMessage(body), 0x20000u);
  ASSERT_EQ(server.Requests().size(), 1u);
  EXPECT_EQ(server.Requests()[0],
            RequestStart("3.0", "20000") + kHeader3 +
                "<Body service=\"message\"><To>1234</To>\n<SubjectText>Q</SubjectText>\n"
                "<BodyText>Hello &lt;you&gt;</BodyText>\n<Priority>6</Priority>\n"
                "<AvailabilityStatus/><DeliveryStatus/></Body></OAP-request>");
  EXPECT_EQ(client.GetStatus(address, 0x20000), MsgStatus::Sent);
  MsgStatus status;
  ASSERT_TRUE(Device()->GetStatus(0x20000, status));
  ASSERT_NE(status.body, nullptr);
  EXPECT_EQ(status.body->bodyText, "Hello <you>");
}

TEST_F(EngineControllerTest, InteractiveVersion3SendListsItsOptions) {
  server.Queue(FakeOapServer::Answer(ResponseDoc("3.0", "20000", 1, 200)));
  EXPECT_EQ(client.SendAMessage(NewInteractive("3.0")), 0x20000u);
  EXPECT_EQ(server.Requests().at(0),
            RequestStart("3.0", "20000") + kHeader3 +
                "<Body service=\"interactiveMessage\"><To>1234</To>\n"
                "<SubjectText>Q</SubjectText>\n<BodyText>Question</BodyText>\n"
                "<Priority>6</Priority>\n<AvailabilityStatus/><DeliveryStatus/>" +
                kOptions3 + "</Body></OAP-request>");
}

TEST_F(EngineControllerTest, PlainVersion4SendUsesTheEnvelope) {
  server.Queue(FakeOapServer::Answer(ResponseDoc("4.0", "20000", 1, 200)));
  MessageBody* body = NewBody("4.0");
  body->fromNumber = "555";
  body->urgent = true;
  EXPECT_EQ(client.SendAMessage(body), 0x20000u);
  EXPECT_EQ(server.Requests().at(0),
            RequestStart("4.0", "20000") +
                "<Header>\n<Port>4321</Port>\n<To>1234</To>\n<FromEx>\n<Number>555</Number>\n"
                "</FromEx>\n<DeliveryStatus/>\n</Header>\n"
                "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>20000</Id>\n"
                "<Message>\n<Subject>Q</Subject>\n<Body>Question</Body>\n<Indication>\n"
                "<Urgent/>\n</Indication>\n<Priority>6</Priority>\n</Message>\n"
                "</service>\n</Body>\n</OAP-request>");
}

TEST_F(EngineControllerTest, InteractiveVersion4SendListsItsOptions) {
  server.Queue(FakeOapServer::Answer(ResponseDoc("4.0", "20000", 1, 200)));
  EXPECT_EQ(client.SendAMessage(NewInteractive("4.0")), 0x20000u);
  EXPECT_EQ(server.Requests().at(0),
            RequestStart("4.0", "20000") +
                "<Header>\n<Port>4321</Port>\n<To>1234</To>\n<DeliveryStatus/>\n</Header>\n"
                "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>20000</Id>\n"
                "<Interactive_Message>\n<Message>\n<Subject>Q</Subject>\n<Body>Question</Body>\n"
                "<Indication>\n</Indication>\n<Priority>6</Priority>\n</Message>\n"
                "<Option>\n<ID>1</ID>\n<Text>Yes</Text>\n<Function_key_ID>A</Function_key_ID>\n"
                "<On_selection>\n<Data_response>N:Yes</Data_response>\n</On_selection>\n"
                "</Option>\n"
                "<Option>\n<ID>2</ID>\n<Text>No</Text>\n<Function_key_ID>C</Function_key_ID>\n"
                "<On_selection>\n<Data_response>F:No</Data_response>\n</On_selection>\n"
                "</Option>\n</Interactive_Message>\n</service>\n</Body>\n</OAP-request>");
}

TEST_F(EngineControllerTest, FailedExchangesRaiseTheirTextAndKeepNothing) {
  const std::string accepted = ResponseDoc("3.0", "20000", 1, 200);
  std::string oversized = accepted;
  oversized.insert(oversized.find("<OAP-response"), std::string(2100, ' '));
  struct Case {
    FakeOapServer::Reply reply;
    const char* error;
  };
  const Case cases[] = {
      {FakeOapServer::Answer(ResponseDoc("3.0", "20000", 1, 407)), "Client not registered"},
      {FakeOapServer::Answer(ResponseDoc("3.0", "20000", 2, 405)), "Unknown Code"},
      {FakeOapServer::Answer("this is no document"), "Dispatch Failure"},
      {FakeOapServer::Answer(oversized), "Dispatch Failure"},
      {FakeOapServer::Split(accepted.substr(0, 60), accepted.substr(60)), "Dispatch Failure"},
      {FakeOapServer::Silent(), "Dispatch Failure"},
      {FakeOapServer::Close(), "Socket is closed"},
  };
  for (const Case& c : cases) {
    server.Queue(c.reply);
    const uint32_t number = client.TrackingBase.load();
    EXPECT_EQ(SendFailure(NewBody("3.0")), c.error);
    MsgStatus status;
    EXPECT_FALSE(Device()->GetStatus(number, status)) << c.error;
  }
  EXPECT_EQ(server.Requests().size(), sizeof cases / sizeof cases[0]);

  // The same answer that was cut above is accepted when it fits.
  server.Queue(FakeOapServer::Answer(ResponseDoc("3.0", "20007", 1, 200)));
  EXPECT_EQ(client.SendAMessage(NewBody("3.0")), 0x20007u);
}

TEST_F(EngineControllerTest, UnreachableServerRaisesTheSocketError) {
  MessageBody* body = NewBody("3.0");
  body->to = "1234@127.0.0.1:" + std::to_string(ClosedPort());
  EXPECT_EQ(SendFailure(body), "Socket Connecting Failed");
}

TEST_F(EngineControllerTest, AnswerThatIsNoResponseGivesZero) {
  server.Queue(
      FakeOapServer::Answer(std::string(kDecl3) + "<OAP-request version=\"3.0\" id=\"20000\"/>"));
  EXPECT_EQ(client.SendAMessage(NewBody("3.0")), 0u);
}

TEST_F(EngineControllerTest, RequestSendsReportFailureAsZero) {
  OAPDeviceController* device = OAPDeviceRegistrar::GetInstance()->GetDevice(address, true);
  device->SetClient(&client);
  server.Queue(FakeOapServer::Answer(ResponseDoc("3.0", "20000", 1, 200)));
  server.Queue(FakeOapServer::Answer(ResponseDoc("3.0", "20001", 1, 407)));
  server.Queue(FakeOapServer::Answer("garbage"));
  EXPECT_EQ(device->SendAMessage("Subj", "Text"), 0x20000u);
  EXPECT_EQ(device->SendAMessage("Subj", "Text", {"Yes"}), 0u);
  EXPECT_EQ(device->SendAMessage("Subj", "Text"), 0u);
  EXPECT_EQ(client.GetStatus(address, 0x20000), MsgStatus::Sent);
  EXPECT_EQ(client.GetStatus(address, 0x20001), MsgStatus::Pending);

  OAPDeviceController unreachable("1@127.0.0.1:" + std::to_string(ClosedPort()));
  unreachable.SetClient(&client);
  EXPECT_EQ(unreachable.SendAMessage("Subj", "Text"), 0u);
  OAPDeviceController clientless(address);
  EXPECT_EQ(clientless.SendAMessage("Subj", "Text"), 0u);
  EXPECT_THROW(clientless.SendAMessage(NewBody("3.0")), QmException);
}

TEST_F(EngineControllerTest, RepliesAreEchoedOnceWithHeadingAndFinalOneWipesAndCloses) {
  server.Queue(FakeOapServer::Answer(ResponseDoc("3.0", "20000", 1, 200)));
  server.Queue(FakeOapServer::Answer(ResponseDoc("3.0", "20000", 1, 200)));
  server.Queue(FakeOapServer::Answer(ResponseDoc("3.0", "20000", 1, 200)));
  ASSERT_EQ(client.SendAMessage(NewInteractive("3.0")), 0x20000u);
  OAPDeviceController* device = Device();

  device->AddResponse(0x20000, "N:Yes", false);
  const std::string echoed =
      "Question&#xd;&#xa;&#xd;&#xa;You replied:&#xd;&#xa;&#xd;&#xa;--&gt;&gt;Yes";
  const std::string start = RequestStart("3.0", "20000") + kHeader3 +
                            "<Body service=\"interactiveMessage\"><To>1234</To>\n"
                            "<SubjectText>Q</SubjectText>\n<BodyText>";
  ASSERT_EQ(server.Requests().size(), 2u);
  EXPECT_EQ(server.Requests()[1], start + echoed +
                                      "</BodyText>\n<Priority>6</Priority>\n"
                                      "<Update>OnlyExisting</Update>\n" +
                                      kOptions3 + "</Body></OAP-request>");

  device->AddResponse(0x20000, "F:No", false);
  ASSERT_EQ(server.Requests().size(), 3u);
  EXPECT_EQ(server.Requests()[2], start + echoed +
                                      "&#xd;&#xa;--&gt;&gt;No</BodyText>\n<Priority>6</Priority>\n"
                                      "<Update>OnlyExisting</Update>\n</Body></OAP-request>");

  // Closed: later replies are neither stored nor echoed.
  device->AddResponse(0x20000, "typed", true);
  device->AddResponse(0x20000, "", true);
  EXPECT_EQ(server.Requests().size(), 3u);
  EXPECT_EQ(client.QueryResponse(address, 0x20000), (std::list<std::string>{"Yes", "No"}));
  EXPECT_TRUE(client.QueryResponse(address, 0x20000).empty());
  MsgStatus status;
  ASSERT_TRUE(device->GetStatus(0x20000, status));
  EXPECT_TRUE(status.closed);
  EXPECT_EQ(status.state, MsgStatus::Sent);
}

TEST_F(EngineControllerTest, FailedEchoPassesItsErrorButKeepsTheReply) {
  server.Queue(FakeOapServer::Answer(ResponseDoc("3.0", "20000", 1, 200)));
  server.Queue(FakeOapServer::Answer(ResponseDoc("3.0", "20000", 5, 400)));
  ASSERT_EQ(client.SendAMessage(NewInteractive("3.0")), 0x20000u);
  try {
    Device()->AddResponse(0x20000, "typed", true);
    ADD_FAILURE() << "the refused update must raise";
  } catch (const QmException& e) {
    EXPECT_EQ(e.GetMsg(), "No existing interactive message to update");
  }
  EXPECT_EQ(client.QueryResponse(address, 0x20000), (std::list<std::string>{"typed"}));
  EXPECT_EQ(client.GetStatus(address, 0x20000), MsgStatus::Sent);
}

}  // namespace
