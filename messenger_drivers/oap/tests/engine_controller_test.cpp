// Device controllers against the fake OAP server: address parsing, the
// registry, the failures of an exchange, the echo of handset replies with its
// envelope, the client's wiping of options, and the reports and answers the
// message service hands them that must change nothing (the envelopes of new
// messages are pinned through the plug-in, the body texts by the model's
// tests).
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <tuple>

#include "../../../runtime/tests/test_support.h"
#include "FakeOapServer.h"
#include "MessageBody.h"
#include "OAPClient.h"
#include "OAPDeviceController.h"
#include "OAPDeviceRegistrar.h"
#include "OAPMemoryMessageStore.h"
#include "OAPMessageServiceHandler.h"
#include "OAPResponseBlock.h"
#include "QmException.h"

namespace {

using MsgStatus = OAPDeviceController::MsgStatus;
using Replies = std::list<std::string>;

// The text of the QmException the call raises ("" when none).
std::string Failure(const std::function<void()>& call) {
  try {
    call();
  } catch (const QmException& e) {
    return e.GetMsg();
  }
  return "";
}

TEST(EngineDeviceAddressTest, SplitsHandsetHostAndPort) {
  // clang-format off
  const struct { const char *address, *handset, *host; int port; const char* key; } cases[] = {
      {"1234@server:7000", "1234", "server", 7000, "1234@server"}, {"1@s", "1", "s", 0, "1@s"},
      {"1@a:1:2", "1", "a", 1, "1@a"}, {"1234@", "1234", "", 0, "1234"}, {"@h:5", "", "h", 5, "@h"},
      {"no-at-sign", "", "", 0, ""}};
  // clang-format on
  for (const auto& c : cases) {
    OAPDeviceController device(c.address);
    EXPECT_EQ(
        std::make_tuple(device.handset, device.host, device.port, device.key),
        std::make_tuple(std::string(c.handset), std::string(c.host), c.port, std::string(c.key)))
        << c.address;
  }
}

// Controllers are made on demand; a number is found by the controller that
// asked for it, also by a query that names the handset without the port, and
// from a store kept over a restart; cleared, the registry forgets them.
TEST(EngineDeviceRegistrarTest, CreatesOnDemandAndFindsByTrackingNumber) {
  OAPDeviceRegistrar* registry = OAPDeviceRegistrar::GetInstance();
  EXPECT_EQ(registry->GetDevice("1@b:1", false), nullptr);
  OAPDeviceRegistrar::Device b = registry->GetDevice("1@b:1", true);
  OAPDeviceRegistrar::Device b2 = registry->GetDevice("1@b:2", true);
  EXPECT_EQ(registry->GetDevice("1@b:1", true), b);
  b->QueryResponse(b->address, 43);
  b2->QueryResponse(b2->address, 45);
  EXPECT_EQ(registry->GetDeviceByTrackingID(43), b);
  EXPECT_EQ(registry->GetDeviceByTrackingID(44), nullptr);
  EXPECT_EQ(registry->GetDevice("1@b", false), nullptr);
  EXPECT_EQ(registry->GetDevice("1@b", 45u), b2);
  EXPECT_EQ(registry->GetDevice("1@b", 43u), b);
  EXPECT_EQ(registry->GetDevice("1@c", 43u), nullptr);

  auto store = std::make_shared<OAPMemoryMessageStore>();
  OAPMessageStore::Message kept;
  kept.tracking = 46;
  kept.address = "1@d:3";
  ASSERT_TRUE(store->Add(kept));
  registry->SetStore(store);
  OAPDeviceRegistrar::Device d = registry->GetDevice("1@d", 46u);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->address, "1@d:3");
  EXPECT_EQ(registry->GetDeviceByTrackingID(46), d);
  registry->Clear();
  EXPECT_EQ(registry->GetDeviceByTrackingID(46), nullptr);
  EXPECT_TRUE(d->HasStatus(46));  // a controller still held stays usable
  OAPDeviceRegistrar::Release();
}

// A client with a known tracking base against the fake server, which accepts
// each request under its own number unless a reply is queued.
class EngineControllerTest : public ::testing::Test {
 protected:
  EngineControllerTest() : client(std::make_shared<OAPClient>(4321, "127.0.0.1")) {
    client->TrackingBase = 0x20000;
    address = "1234@127.0.0.1:" + std::to_string(server.Port());
  }
  ~EngineControllerTest() override { OAPDeviceRegistrar::Release(); }

  MessageBody* NewBody(const std::string& version, bool interactive = false) {
    auto* body = new MessageBody();
    body->to = address;
    body->version = version;
    body->subjectText = "Q";
    body->bodyText = "Question";
    if (interactive) body->options = {{"Yes", "N:Yes", "", 0, ""}, {"No", "F:No", "", 0, ""}};
    return body;
  }
  OAPDeviceRegistrar::Device Device() {
    return OAPDeviceRegistrar::GetInstance()->GetDevice(address, false);
  }

  FakeOapServer server;
  std::shared_ptr<OAPClient> client;
  std::string address;
  RecordingLogger logger;
};

TEST_F(EngineControllerTest, FailedExchangesRaiseTheirTextAndKeepNothing) {
  const struct {
    FakeOapServer::Reply reply;
    const char* error;
  } cases[] = {
      {{ResponseDoc("20000", 1, 407)}, "Client not registered"},
      {{"this is no document"}, "Dispatch Failure"},
      {{"", true}, "Dispatch Failure"},
      {{}, "Socket is closed"},
  };
  for (const auto& c : cases) {
    server.Queue(c.reply);
    const uint32_t number = client->TrackingBase.load();
    EXPECT_EQ(Failure([&] { client->SendAMessage(NewBody("3.0")); }), c.error);
    MsgStatus status;
    EXPECT_FALSE(Device()->GetStatus(number, status)) << c.error;
  }
  EXPECT_EQ(server.Requests().size(), sizeof cases / sizeof cases[0]);

  // An answer longer than one read is a whole document (white space after the
  // declaration pads it); an answer that is no response gives no number.
  std::string padded = ResponseDoc("20007", 1, 200);
  server.Queue({padded.insert(padded.find("<OAP-response"), std::string(2100, ' '))});
  EXPECT_EQ(client->SendAMessage(NewBody("3.0")), 0x20007u);
  server.Queue({"<?xml version=\"1.0\"?>\n<OAP-request version=\"3.0\" id=\"20008\"/>"});
  EXPECT_EQ(client->SendAMessage(NewBody("3.0")), 0u);
  // Accepted under another number: only that number is known, and an answer
  // to the request's number is dropped.
  server.Queue({ResponseDoc("2abcd", 1, 200)});
  EXPECT_EQ(client->SendAMessage(NewBody("3.0", true)), 0x2abcdu);
  MsgStatus status;
  EXPECT_FALSE(Device()->GetStatus(0x20009, status));
  Device()->AddResponse(0x20009, "N:Yes", false);
  EXPECT_EQ(server.Requests().size(), sizeof cases / sizeof cases[0] + 3);
  EXPECT_TRUE(Device()->GetStatus(0x2abcd, status));
}

TEST_F(EngineControllerTest, RepliesAreEchoedOnceAndFinalOneCloses) {
  ASSERT_EQ(client->SendAMessage(NewBody("3.0", true)), 0x20000u);
  OAPDeviceRegistrar::Device device = Device();
  const std::string echo =
      "<BodyText>Question&#xd;&#xa;&#xd;&#xa;You replied:&#xd;&#xa;&#xd;&#xa;--&gt;&gt;Yes";
  const std::string update = "</BodyText>\n<Priority>6</Priority>\n<Update>OnlyExisting</Update>\n";

  device->AddResponse(0x20000, "N:Yes", false);
  ASSERT_EQ(server.Requests().size(), 2u);
  std::string request = server.Requests()[1];
  EXPECT_EQ(RequestId(request), "20000");  // an update travels under the message's number
  EXPECT_NE(request.find(echo + update + "<Option id=\"1\">"), std::string::npos) << request;

  device->AddResponse(0x20000, "F:No", false);
  ASSERT_EQ(server.Requests().size(), 3u);
  request = server.Requests()[2];
  EXPECT_NE(request.find(echo + "&#xd;&#xa;--&gt;&gt;No" + update + "</Body>"), std::string::npos)
      << request;

  // Closed: later replies are neither stored nor echoed.
  device->AddResponse(0x20000, "typed", true);
  device->AddResponse(0x20000, "", true);
  EXPECT_EQ(server.Requests().size(), 3u);
  EXPECT_EQ(client->QueryResponse(address, 0x20000), (Replies{"Yes", "No"}));
  MsgStatus status;
  ASSERT_TRUE(device->GetStatus(0x20000, status));
  EXPECT_TRUE(status.closed);
  EXPECT_EQ(status.state, MsgStatus::Sent);

  // A failed echo passes its error on but keeps the reply.
  server.Queue({ResponseDoc("20001", 1, 200)});
  server.Queue({ResponseDoc("20001", 5, 400)});
  ASSERT_EQ(client->SendAMessage(NewBody("3.0", true)), 0x20001u);
  EXPECT_EQ(Failure([&] { device->AddResponse(0x20001, "typed", true); }),
            "No existing interactive message to update");
  EXPECT_EQ(client->QueryResponse(address, 0x20001), (Replies{"typed"}));
  EXPECT_EQ(client->GetStatus(address, 0x20001), MsgStatus::Sent);
}

// A version 4.0 echo travels under a fresh number that shares the message's
// body: replies to either number extend the one text.
TEST_F(EngineControllerTest, Version4EchoNumbersShareTheMessage) {
  ASSERT_EQ(client->SendAMessage(NewBody("4.0", true)), 0x20000u);
  Device()->AddResponse(0x20000, "N:Yes", false);
  Device()->AddResponse(0x20001, "N:Later", false);
  ASSERT_EQ(server.Requests().size(), 3u);
  const std::string update = server.Requests()[2];
  EXPECT_NE(update.find("<Id>20000</Id>"), std::string::npos) << update;
  EXPECT_NE(update.find("--&gt;&gt;Yes&#xd;&#xa;--&gt;&gt;Later</Body>"), std::string::npos)
      << update;
  MsgStatus first, second;
  ASSERT_TRUE(Device()->GetStatus(0x20000, first) && Device()->GetStatus(0x20001, second));
  EXPECT_EQ(first.body->bodyText, second.body->bodyText);
  EXPECT_EQ(second.state, MsgStatus::Sent);
}

TEST_F(EngineControllerTest, WipeOptionsSendsAVersion4UpdateOfTheShownMessage) {
  ASSERT_EQ(client->SendAMessage(NewBody("3.0", true)), 0x20000u);
  client->WipeOptions(0x20000);
  ASSERT_EQ(server.Requests().size(), 2u);
  const std::string update = server.Requests()[1];
  for (const char* part :
       {"encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"20001\">\n<Header>\n"
        "<Port>4321</Port>\n<To>1234</To>\n<DeliveryStatus/>\n</Header>\n",
        "<Id>20000</Id>\n<Interactive_Message>\n", "<Update>\n</Update>\n</Interactive_Message>"})
    EXPECT_NE(update.find(part), std::string::npos) << update;
  EXPECT_EQ(update.find("<Option"), std::string::npos);
  // The shown message keeps its state.
  EXPECT_EQ(client->GetStatus(address, 0x20000), MsgStatus::Sent);

  // A failing update is logged, not raised (the server hangs up unanswered).
  server.Queue({});
  auto other = std::make_shared<OAPClient>(0, "127.0.0.1");
  ASSERT_TRUE(other->Initialize(&logger, ""));
  other->WipeOptions(0x20000);
  EXPECT_TRUE(logger.Has(QmLogInterface::LEVEL_ERROR, "Exception occurred [Socket is closed]"));
  other->Finalize();
}

// A delivery report other than 200 leaves the message pending; an answer for
// a number nothing was sent under is ignored.
TEST_F(EngineControllerTest, FailedReportsAndUnknownNumbersChangeNothing) {
  OAPDeviceController device(address);
  device.SetClient(client);
  OAPMessageServiceHandler handler;
  handler.SetDeviceContext(&device);
  device.QueryResponse(device.address, 5);  // an empty status for the number
  OAPResponseBlock response;
  response.id = 5;
  std::tie(response.status.type, response.status.code) = std::make_pair(3, 405);
  handler.Handle(&response);
  MsgStatus status;
  EXPECT_TRUE(device.GetStatus(5, status) && status.state == MsgStatus::Pending);
  response.id = 6;
  std::tie(response.status.type, response.status.code, response.dataResp) =
      std::make_tuple(5, 200, "A:Yes");
  handler.Handle(&response);
  EXPECT_FALSE(device.GetStatus(6, status));
}

}  // namespace
