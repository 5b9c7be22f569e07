// Inbound answers through the real listener: delivery reports and option
// answers of version 3.0, OA-XML answers of version 4.0, final answers that
// wipe the options, and payloads that must be dropped.
#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <string>
#include <thread>

#include "FakeOapServer.h"
#include "MessageBody.h"
#include "OAPClient.h"
#include "OAPDeviceRegistrar.h"
#include "QmException.h"
#include "engine_test_support.h"

namespace {

const int kWaitMs = 10000;
const char kLeftOnData[] = "Leaving OAPConnectionHandler::OnData";

std::string Response3(const std::string& idHex, const std::string& status) {
  return "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<OAP-response version=\"3.0\" id=\"" +
         idHex + "\"><Status service=\"message\">" + status + "</Status></OAP-response>";
}

std::string OptionAnswer3(const std::string& idHex, const std::string& data) {
  return Response3(idHex,
                   "<Type>5</Type><Code>200</Code><TypeSpecific><From>1234</From>"
                   "<DataResp>" +
                       data + "</DataResp></TypeSpecific>");
}

std::string Answer4(const std::string& idHex, const std::string& element) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"1\">"
         "<Header/><Body service=\"OA-XML\"><service version=\"1.0\"><Id>" +
         idHex + "</Id><Interactive_Message_Response>" + element +
         "</Interactive_Message_Response></service></Body></OAP-request>";
}

class EngineListenerTest : public ::testing::Test {
 protected:
  EngineListenerTest() : client(0, "127.0.0.1") {
    client.TrackingBase = 0x40000;
    address = "1234@127.0.0.1:" + std::to_string(server.Port());
    // Every send and every echo of a reply is accepted.
    server.SetResponder([](const std::string&) {
      return FakeOapServer::Answer(Response3("40000", "<Type>1</Type><Code>200</Code>"));
    });
  }
  ~EngineListenerTest() override {
    client.Finalize();
    OAPDeviceRegistrar::Release();
  }

  void SetUp() override {
    ASSERT_TRUE(client.Initialize(&logger, ""));
    port = client.GetListeningPort();
    auto* body = new MessageBody();
    body->to = address;
    body->bodyText = "Question";
    body->options.push_back({"Yes", "N:Yes", "", 0, ""});
    body->options.push_back({"No", "F:No", "", 0, ""});
    ASSERT_EQ(client.SendAMessage(body), 0x40000u);
  }

  // Delivers one inbound document and waits until the listener is done with it.
  void Deliver(const std::string& document) {
    ASSERT_TRUE(SendInbound(port, document));
    ASSERT_TRUE(logger.WaitFor(RecordingLogger::LEVEL_TRACE, kLeftOnData, ++delivered, kWaitMs));
  }

  std::list<std::string> Replies() { return client.QueryResponse(address, 0x40000); }

  RecordingLogger logger;
  FakeOapServer server;
  OAPClient client;
  std::string address;
  int port = 0;
  size_t delivered = 0;
};

TEST_F(EngineListenerTest, AnswersReachTheControllerAndTheFinalOneClosesTheMessage) {
  Deliver(Response3("40000", "<Type>3</Type><Code>200</Code>"));
  EXPECT_EQ(client.GetStatus(address, 0x40000), 2);
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_INFO,
                         "Handling request from Handset '1234' for Msg Tracking #262144"));
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_DEBUG,
                         "Processing incoming paylaod [<?xml version=\"1.0\" encoding=\"ISO"));

  Deliver(OptionAnswer3("40000", "N:Yes"));
  EXPECT_EQ(Replies(), (std::list<std::string>{"Yes"}));
  ASSERT_EQ(server.Requests().size(), 2u);
  EXPECT_NE(server.Requests()[1].find("--&gt;&gt;Yes</BodyText>"), std::string::npos);
  EXPECT_NE(server.Requests()[1].find("<Option id=\"1\">"), std::string::npos);

  Deliver(Answer4("40000", "<Data_response>F:No</Data_response>"));
  ASSERT_EQ(server.Requests().size(), 3u);
  const std::string wipe = server.Requests()[2];
  EXPECT_NE(wipe.find("--&gt;&gt;Yes&#xd;&#xa;--&gt;&gt;No</BodyText>"), std::string::npos);
  EXPECT_NE(wipe.find("<Update>OnlyExisting</Update>\n</Body>"), std::string::npos);
  EXPECT_EQ(wipe.find("<Option"), std::string::npos);

  Deliver(Answer4("40000", "<User_response>too late</User_response>"));
  EXPECT_EQ(server.Requests().size(), 3u);
  EXPECT_EQ(Replies(), (std::list<std::string>{"No"}));
  EXPECT_EQ(client.GetStatus(address, 0x40000), 2);
}

TEST_F(EngineListenerTest, UnknownNumbersGarbageAndBadOptionDataAreDropped) {
  Deliver(OptionAnswer3("12345", "A:Yes"));
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_WARN,
                         "Couldn't find device controller by Trackign ID '74565'"));
  Deliver("this is <not an OAP document");
  Deliver(std::string("<OAP-request version=\"4.0\"\0", 27));
  EXPECT_EQ(logger.Count(RecordingLogger::LEVEL_WARN, "not an OAP block"), 2u);
  EXPECT_EQ(OAPDeviceRegistrar::GetInstance()->GetDeviceByTrackingID(0), nullptr);

  // Option data too short for its prefix is logged; the listener goes on.
  Deliver(OptionAnswer3("40000", "X"));
  EXPECT_TRUE(logger.Has(RecordingLogger::LEVEL_ERROR,
                         "Failed to handle request for Msg Tracking #262144"));
  Deliver(Answer4("40000", "<User_response>still here</User_response>"));
  EXPECT_EQ(Replies(), (std::list<std::string>{"still here"}));
  EXPECT_EQ(server.Requests().size(), 2u);
}

TEST_F(EngineListenerTest, AnswersAreNotHeldUpByAnotherMessagesSlowDispatch) {
  server.Queue(FakeOapServer::Silent());
  std::atomic<bool> sendDone{false};
  std::thread slowSend([&] {
    auto* body = new MessageBody();
    body->to = address;
    body->bodyText = "slow";
    EXPECT_THROW(client.SendAMessage(body), QmException);
    sendDone = true;
  });
  ASSERT_TRUE(server.WaitForRequests(2, kWaitMs));
  // The slow send now waits up to two seconds for an answer that never comes.
  Deliver(Response3("40000", "<Type>3</Type><Code>200</Code>"));
  EXPECT_FALSE(sendDone.load());
  EXPECT_EQ(client.GetStatus(address, 0x40000), 2);
  slowSend.join();
}

TEST_F(EngineListenerTest, TwoConnectionsAnsweringAtOnceBothArrive) {
  std::thread first(
      [&] { SendInbound(port, Answer4("40000", "<User_response>a</User_response>")); });
  std::thread second(
      [&] { SendInbound(port, Answer4("40000", "<User_response>b</User_response>")); });
  first.join();
  second.join();
  ASSERT_TRUE(logger.WaitFor(RecordingLogger::LEVEL_TRACE, kLeftOnData, 2, kWaitMs));
  std::list<std::string> replies = Replies();
  replies.sort();
  EXPECT_EQ(replies, (std::list<std::string>{"a", "b"}));
  EXPECT_TRUE(server.WaitForRequests(3, kWaitMs));
}

}  // namespace
