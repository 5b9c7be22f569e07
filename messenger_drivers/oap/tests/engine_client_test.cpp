// The client module and its inbound listener: tracking base, listener start
// and stop, leaving lines, WipeOptions and the framing of inbound documents.
// What the listener does with them is tested through the plug-in; many host
// threads sending and querying while answers arrive are the load soak's.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "../../../runtime/tests/recording_logger.h"
#include "FakeOapServer.h"
#include "MessageBody.h"
#include "OAPBlockHeader.h"
#include "OAPClient.h"
#include "OAPDeviceRegistrar.h"
#include "OAPDocumentFramer.h"
#include "OAPLoggerProxy.h"
#include "OAPRequestBlock.h"
#include "QmException.h"
#include "QmconFunctions.h"

namespace {

using Log = QmLogInterface;

using Replies = std::list<std::string>;
const auto kTrace = Log::LEVEL_TRACE;

// The runtime's signal handlers and socket layer, once for the process.
class RuntimeEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { InitialLib(); }
};
::testing::Environment* const kRuntime =
    ::testing::AddGlobalTestEnvironment(new RuntimeEnvironment);

MessageBody* NewBody(const std::string& to, const std::string& version, bool interactive) {
  auto* body = new MessageBody();
  body->to = to;
  body->version = version;
  body->bodyText = "Question";
  if (interactive) body->options = {{"Yes", "N:Yes", "", 0, ""}, {"No", "F:No", "", 0, ""}};
  return body;
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
    EXPECT_TRUE(base % 65536u == 0 && base >= 65536u && base <= 65535u * 65536u) << base;
    EXPECT_EQ(client.NextTrackingNumber(), base);
    EXPECT_EQ(client.NextTrackingNumber(), base + 1);
  }
  // 0 reads as a failed send: the counter passes over it when it wraps.
  OAPClient wrapping(1, "");
  wrapping.TrackingBase = UINT32_MAX;
  EXPECT_EQ(wrapping.NextTrackingNumber(), UINT32_MAX);
  EXPECT_EQ(wrapping.NextTrackingNumber(), 1u);
}

// The proxy the driver hands its components: lines reach the attached logger
// and nothing else; once detached it writes nothing.
TEST_F(EngineClientTest, LoggerProxyHandsLinesOnOnlyWhileAttached) {
  OAPLoggerProxy* proxy = OAPLoggerProxy::Instance();
  EXPECT_FALSE(proxy->WriteError("before", 1, "here"));
  proxy->Attach(&logger);
  EXPECT_TRUE(proxy->WriteTrace("one", 1, "here") && proxy->WriteFatal("two", 2, "there"));
  proxy->Detach();
  EXPECT_FALSE(proxy->WriteInfo("after", 3, "here"));
  EXPECT_EQ(proxy->GetLogLevel(), Log::LEVEL_NONE);
  EXPECT_EQ(logger.TextsFrom("here"), std::vector<std::string>{"one"});
  EXPECT_EQ(logger.Count(Log::LEVEL_FATAL, "two", true), 1u);
}

// Lookups of unknown devices create no controller; a client dropped without
// Finalize still stops its listener.
TEST_F(EngineClientTest, ListenerRunsBetweenInitializeAndFinalize) {
  OAPClient client(0, "127.0.0.1");
  ASSERT_TRUE(client.Initialize(&logger, ""));
  EXPECT_EQ(client.GetStatus("1@nowhere:1", 5), 0);
  EXPECT_TRUE(client.QueryResponse("1@nowhere:1", 5).empty());
  EXPECT_EQ(OAPDeviceRegistrar::GetInstance()->GetDevice("1@nowhere:1", false), nullptr);
  EXPECT_TRUE(client.Finalize());

  int leftPort = 0;
  {
    OAPClient dropped(0, "127.0.0.1");
    ASSERT_TRUE(dropped.Initialize(&logger, ""));
    leftPort = dropped.GetListeningPort();
    ASSERT_TRUE(SendInbound(leftPort, "<OAP-response/>"));
  }
  EXPECT_FALSE(CanConnect(leftPort));
}

TEST_F(EngineClientTest, DispatchLeavingLineIsInvertedByDesign) {
  FakeOapServer server;
  OAPClient client(0, "127.0.0.1");
  ASSERT_TRUE(client.Initialize(&logger, ""));
  server.Queue({ResponseDoc("ff", 1, 200)});
  server.Queue({std::string("<OAP-resp\0onse/>", 16)});

  OAPRequestBlock request;
  request.version = "3.0";
  request.encoding = "ISO-8859-1";
  request.SetHeader(new OAPBlockHeader());
  request.SetBody(new MessageBody());
  std::unique_ptr<OAPBlock> answer(client.DispatchPayLoad("127.0.0.1", server.Port(), &request));
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->GetID(), 255u);
  EXPECT_EQ(logger.Count(kTrace, "Leaving OAPClient::DispatchPayLoad() with FALSE.", true), 1u);
  // The text ends at the first NUL byte read.
  answer.reset(client.DispatchPayLoad("127.0.0.1", server.Port(), &request));
  EXPECT_EQ(answer, nullptr);
  EXPECT_EQ(logger.Count(kTrace, "Leaving OAPClient::DispatchPayLoad() with TRUE.", true), 1u);

  // A block that cannot be written is not sent at all.
  OAPRequestBlock empty;
  EXPECT_EQ(client.DispatchPayLoad("127.0.0.1", server.Port(), &empty), nullptr);
  EXPECT_EQ(server.Requests().size(), 2u);
  client.Finalize();
}

TEST_F(EngineClientTest, WipeOptionsSendsAVersion4UpdateOfTheShownMessage) {
  FakeOapServer server;
  server.Queue({ResponseDoc("30000", 1, 200)});
  server.Queue({ResponseDoc("30001", 1, 200)});
  auto client = std::make_shared<OAPClient>(4321, "127.0.0.1");
  client->TrackingBase = 0x30000;
  const std::string address = "77@127.0.0.1:" + std::to_string(server.Port());
  ASSERT_EQ(client->SendAMessage(NewBody(address, "3.0", true)), 0x30000u);

  client->WipeOptions(0x30000);
  ASSERT_EQ(server.Requests().size(), 2u);
  const std::string update = server.Requests()[1];
  for (const char* part :
       {"encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"30001\">\n<Header>\n"
        "<Port>4321</Port>\n<To>77</To>\n<DeliveryStatus/>\n</Header>\n",
        "<Id>30000</Id>\n<Interactive_Message>\n", "<Update>\n</Update>\n</Interactive_Message>"})
    EXPECT_NE(update.find(part), std::string::npos) << update;
  EXPECT_EQ(update.find("<Option"), std::string::npos);
  // The shown message keeps its state.
  EXPECT_EQ(client->GetStatus(address, 0x30000), 1);

  // A failing update is logged, not raised (the server hangs up unanswered).
  server.Queue({});
  auto other = std::make_shared<OAPClient>(0, "127.0.0.1");
  ASSERT_TRUE(other->Initialize(&logger, ""));
  other->WipeOptions(0x30000);
  EXPECT_TRUE(logger.Has(Log::LEVEL_ERROR, "Exception occurred [Socket is closed]"));
  other->Finalize();
}

// The framing routine alone: a stream of documents comes out the same
// wherever it is cut into two reads; what cannot begin a document, or goes on
// past 64 KiB, is refused.
TEST(EngineFramerTest, DocumentsComeOutWholeWhereverTheStreamIsCut) {
  const std::string first = ResponseDoc("1", 3, 200);
  const std::string second =
      "<?xml version=\"1.0\"?><!-- a --><OAP-request id=\"2\"><Body/></OAP-request\n >";
  const std::string third =
      Answer4("3", "<Data_response>N:" + std::string(2000, 'x') + "</Data_response>");
  const std::string stream =
      "\r\n" + first + std::string("\0\0 ", 3) + second + "\xEF\xBB\xBF" + third + "<OAP-resp";
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    OAPDocumentFramer framer;
    std::vector<std::string> documents;
    std::string document;
    for (const std::string& piece : {stream.substr(0, cut), stream.substr(cut)}) {
      framer.Append(piece);
      OAPDocumentFramer::Result result;
      while ((result = framer.Next(document)) == OAPDocumentFramer::kDocument) {
        documents.push_back(document);
      }
      ASSERT_EQ(result, OAPDocumentFramer::kNeedMore) << cut;  // a part, never refused
    }
    ASSERT_EQ(documents, (std::vector<std::string>{first, second, third})) << cut;
    ASSERT_EQ(framer.TakeRest(), "<OAP-resp") << cut;
  }
  const std::string endless = "<OAP-response>" + std::string(OAPDocumentFramer::kMaxDocument, ' ');
  const struct {
    std::string bytes;
    OAPDocumentFramer::Result result;
  } refused[] = {
      {"<OAX", OAPDocumentFramer::kInvalid},
      {endless + "</OAP-response>", OAPDocumentFramer::kTooLong},
  };
  for (const auto& c : refused) {
    OAPDocumentFramer framer;
    std::string document;
    framer.Append(c.bytes);
    EXPECT_EQ(framer.Next(document), c.result) << c.bytes.substr(0, 20);
  }
}

}  // namespace
