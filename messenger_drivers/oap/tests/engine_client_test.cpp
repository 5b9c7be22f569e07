// The client module and its inbound listener: tracking base, listener start
// and stop, leaving lines and the framing of inbound documents.
// What the listener does with them is tested through the plug-in; many host
// threads sending and querying while answers arrive are the load soak's.
#include <gtest/gtest.h>

#include "../../../runtime/tests/test_support.h"
#include "FakeOapServer.h"
#include "MessageBody.h"
#include "OAPBlockHeader.h"
#include "OAPClient.h"
#include "OAPDeviceRegistrar.h"
#include "OAPDocumentFramer.h"
#include "OAPLoggerProxy.h"
#include "OAPRequestBlock.h"

namespace {

using Log = QmLogInterface;

const auto kTrace = Log::LEVEL_TRACE;

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
  int leftPort = 0;
  {
    OAPClient dropped(0, "127.0.0.1");
    ASSERT_TRUE(dropped.Initialize(&logger, ""));
    EXPECT_EQ(dropped.GetStatus("1@nowhere:1", 5), 0);
    EXPECT_TRUE(dropped.QueryResponse("1@nowhere:1", 5).empty());
    EXPECT_EQ(OAPDeviceRegistrar::GetInstance()->GetDevice("1@nowhere:1", false), nullptr);
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
  OAPDocumentFramer invalid, endless;
  std::string document;
  invalid.Append("<OAX");
  EXPECT_EQ(invalid.Next(document), OAPDocumentFramer::kInvalid);
  endless.Append("<OAP-response>" + std::string(OAPDocumentFramer::kMaxDocument, ' ') +
                 "</OAP-response>");
  EXPECT_EQ(endless.Next(document), OAPDocumentFramer::kTooLong);
}

}  // namespace
