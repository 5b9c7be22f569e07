// Many host threads send and query while the listener's workers deliver
// delivery reports and answers for the same controllers: no answer may be
// lost or duplicated and no tracking number issued twice.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "FakeOapServer.h"
#include "MessageBody.h"
#include "OAPClient.h"
#include "OAPDeviceRegistrar.h"
#include "QmString.h"
#include "engine_test_support.h"

namespace {

const int kHostThreads = 4;
const int kMessagesPerThread = 10;
const int kWaitMs = 60000;

// The tracking number (hex) of a request, read from its start tag.
std::string RequestId(const std::string& request) {
  const std::string marker = "\" id=\"";
  std::string::size_type start = request.find(marker);
  if (start == std::string::npos) return "0";
  start += marker.size();
  return request.substr(start, request.find('"', start) - start);
}

std::string Response3(const std::string& idHex, const std::string& status) {
  return "<OAP-response version=\"3.0\" id=\"" + idHex + "\"><Status service=\"message\">" +
         status + "</Status></OAP-response>";
}

std::string TypedAnswer(const std::string& idHex, bool version4) {
  if (!version4) {
    return Response3(idHex,
                     "<Type>5</Type><Code>200</Code><TypeSpecific><From>1</From>"
                     "<UserResponse>reply-" +
                         idHex + "</UserResponse></TypeSpecific>");
  }
  return "<OAP-request version=\"4.0\" id=\"1\"><Body service=\"OA-XML\"><service><Id>" + idHex +
         "</Id><Interactive_Message_Response><User_response>reply-" + idHex +
         "</User_response></Interactive_Message_Response></service></Body></OAP-request>";
}

std::string Address(int thread, int serverPort) {
  return std::to_string(1000 + thread % 2) + "@127.0.0.1:" + std::to_string(serverPort);
}

TEST(EngineConcurrencyTest, SendsQueriesAndInboundAnswersInterleaveSafely) {
  RecordingLogger logger;
  FakeOapServer server;
  OAPClient client(0, "127.0.0.1");
  ASSERT_TRUE(client.Initialize(&logger, ""));
  const int listenerPort = client.GetListeningPort();
  std::atomic<int> inboundFailures{0};
  server.SetResponder([&](const std::string& request) {
    const std::string id = RequestId(request);
    // The handset reports delivery and answers every new message before the
    // server's acceptance reaches the driver.
    if (request.find("<Update>") == std::string::npos) {
      const bool version4 = request.find("version=\"4.0\"") != std::string::npos;
      if (!SendInbound(listenerPort, Response3(id, "<Type>3</Type><Code>200</Code>")) ||
          !SendInbound(listenerPort, TypedAnswer(id, version4))) {
        ++inboundFailures;
      }
    }
    return FakeOapServer::Answer(Response3(id, "<Type>1</Type><Code>200</Code>"));
  });

  // Per host thread: the numbers it got and the replies it collected.
  std::vector<std::vector<uint32_t>> numbers(kHostThreads);
  std::vector<std::map<uint32_t, std::vector<std::string>>> replies(kHostThreads);
  std::atomic<int> sendFailures{0};
  std::vector<std::thread> hosts;
  for (int t = 0; t < kHostThreads; ++t) {
    hosts.emplace_back([&, t] {
      const std::string address = Address(t, server.Port());
      for (int m = 0; m < kMessagesPerThread; ++m) {
        auto* body = new MessageBody();
        body->to = address;
        body->version = (m % 2 == 0) ? "3.0" : "4.0";
        body->options.push_back({"Yes", "N:Yes", "", 0, ""});
        try {
          numbers[t].push_back(static_cast<uint32_t>(client.SendAMessage(body)));
        } catch (...) {
          ++sendFailures;
        }
        for (uint32_t n : numbers[t]) {
          for (const std::string& r : client.QueryResponse(address, n)) replies[t][n].push_back(r);
          client.GetStatus(address, n);
        }
      }
    });
  }
  for (std::thread& h : hosts) h.join();
  ASSERT_EQ(sendFailures.load(), 0);
  EXPECT_EQ(inboundFailures.load(), 0);

  const size_t total = kHostThreads * kMessagesPerThread;
  ASSERT_TRUE(logger.WaitFor(RecordingLogger::LEVEL_TRACE, "Leaving OAPConnectionHandler::OnData",
                             2 * total, kWaitMs));
  std::set<uint32_t> unique;
  for (int t = 0; t < kHostThreads; ++t) {
    for (uint32_t n : numbers[t]) {
      unique.insert(n);
      for (const std::string& r : client.QueryResponse(Address(t, server.Port()), n)) {
        replies[t][n].push_back(r);
      }
      EXPECT_EQ(replies[t][n], std::vector<std::string>{QmstringFormat("reply-%x", n)});
      EXPECT_EQ(client.GetStatus(Address(t, server.Port()), n), 2) << n;
    }
  }
  EXPECT_EQ(unique.size(), total);
  EXPECT_EQ(unique.count(0), 0u);
  client.Finalize();
  EXPECT_EQ(logger.Count(RecordingLogger::LEVEL_WARN, ""), 0u);
  OAPDeviceRegistrar::Release();
}

}  // namespace
