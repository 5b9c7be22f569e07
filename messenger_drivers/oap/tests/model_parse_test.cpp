// Received documents: block kinds, identifiers, bodies and answers, and the
// status table.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "InterActiveMessageResponse.h"
#include "OAPBlockFactory.h"
#include "OAPBlockHeader.h"
#include "OAPRequestBlock.h"
#include "OAPResponseBlock.h"
#include "OAXMLService.h"

namespace {

std::unique_ptr<OAPBlock> ParseText(const std::string& text) {
  return std::unique_ptr<OAPBlock>(OAPBlock::Parse(text));
}

std::unique_ptr<OAPResponseBlock> ParseResponse(const std::string& version,
                                                const std::string& status) {
  std::unique_ptr<OAPBlock> block =
      ParseText("<OAP-response version=\"" + version + "\" id=\"a\">" + status + "</OAP-response>");
  if (!block) return nullptr;
  EXPECT_EQ(block->GetType(), OAPBlock::Response);
  return std::unique_ptr<OAPResponseBlock>(static_cast<OAPResponseBlock*>(block.release()));
}

std::string Answer(const std::string& serviceContent) {
  return "<OAP-request version=\"4.0\" id=\"1a\"><Body service=\"OA-XML\"><service "
         "version=\"1.0\">" +
         serviceContent + "</service></Body></OAP-request>";
}

const InterActiveMessageResponse* AnswerOf(const OAPBlock& block) {
  auto* service = dynamic_cast<const OAXMLService*>(block.body);
  return service ? dynamic_cast<const InterActiveMessageResponse*>(service->content) : nullptr;
}

TEST(ModelFactory, RootNamesAreExactAndCaseSensitive) {
  for (const char* name :
       {"oap-request", "OAP-Response", "OAP-requests", "OAP", "OAP-request ", ""}) {
    EXPECT_EQ(std::unique_ptr<OAPBlock>(OAPBlockFactory::GetBlock(name)), nullptr) << name;
  }
  for (const char* root : {"oap-request", "OAP-Response", "OAP-requests", "Request"}) {
    EXPECT_EQ(ParseText(std::string("<") + root + " version=\"3.0\"/>"), nullptr) << root;
  }
  std::unique_ptr<OAPBlock> request(OAPBlockFactory::GetBlock("OAP-request"));
  std::unique_ptr<OAPBlock> response(OAPBlockFactory::GetBlock("OAP-response"));
  ASSERT_TRUE(request && response);
  EXPECT_EQ(request->GetType(), OAPBlock::Request);
  EXPECT_EQ(response->GetType(), OAPBlock::Response);
  EXPECT_NE(dynamic_cast<OAPResponseBlock*>(response.get()), nullptr);
  // Without header and body only the frame is written.
  EXPECT_EQ(request->Serialize(),
            "<?xml version=\"1.0\" encoding=\"\"?>\n<OAP-request version=\"\" id=\"0\">\n"
            "</OAP-request>");
  EXPECT_EQ(response->Serialize(), "");
  EXPECT_EQ(request->GetServiceName(), "");
}

TEST(ModelParseRequest, HexIdsFromRootAndEnvelope) {
  std::unique_ptr<OAPBlock> plain =
      ParseText("<OAP-request version=\"4.0\" id=\"1a\"><Header><IP>x</IP></Header></OAP-request>");
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->GetID(), 26u);
  EXPECT_EQ(plain->GetServiceVersion(), "4.0");
  ASSERT_NE(plain->header, nullptr);
  EXPECT_EQ(plain->header->ip, "");  // the header's content is not read
  EXPECT_EQ(plain->body, nullptr);

  std::unique_ptr<OAPBlock> answered =
      ParseText(Answer("<Id>2B</Id><Interactive_Message_Response><Data_response>ok</Data_response>"
                       "</Interactive_Message_Response>"));
  ASSERT_TRUE(answered);
  EXPECT_EQ(answered->GetID(), 43u);
  EXPECT_EQ(answered->header, nullptr);
  EXPECT_EQ(answered->GetServiceName(), "InterActiveMessageResponse");
  ASSERT_NE(AnswerOf(*answered), nullptr);
  EXPECT_EQ(AnswerOf(*answered)->dataResponse, "ok");

  std::unique_ptr<OAPBlock> noId = ParseText("<OAP-request version=\"3.0\"/>");
  ASSERT_TRUE(noId);
  EXPECT_EQ(noId->GetID(), 0u);
}

TEST(ModelParseRequest, OnlyOaXmlBodiesAreKept) {
  for (const char* service : {"message", "oa-xml", ""}) {
    std::unique_ptr<OAPBlock> block =
        ParseText(std::string("<OAP-request version=\"4.0\" id=\"5\"><Body service=\"") + service +
                  "\"><service><Id>9</Id></service></Body></OAP-request>");
    ASSERT_TRUE(block) << service;
    EXPECT_EQ(block->body, nullptr);
    EXPECT_EQ(block->GetServiceName(), "");
    EXPECT_EQ(block->GetID(), 5u);
  }
  // An envelope without an answer is routed nowhere.
  std::unique_ptr<OAPBlock> empty = ParseText(Answer("<Id>7</Id><Other/>"));
  ASSERT_TRUE(empty && empty->body);
  EXPECT_EQ(empty->GetID(), 7u);
  EXPECT_EQ(empty->GetServiceName(), "");
}

TEST(ModelParseRequest, AnswerPrefersDataResponse) {
  using Case = std::tuple<std::string, std::string, std::string>;
  const std::vector<Case> cases = {
      Case{"<Data_response>d</Data_response><User_response>u</User_response>", "d", ""},
      Case{"<User_response>u</User_response><Data_response>d</Data_response>", "d", ""},
      Case{"<User_response>typed text</User_response>", "", "typed text"},
      Case{"<Other>x</Other>", "", ""},
  };
  for (const Case& c : cases) {
    std::unique_ptr<OAPBlock> block = ParseText(Answer(
        "<Interactive_Message_Response>" + std::get<0>(c) + "</Interactive_Message_Response>"));
    ASSERT_TRUE(block) << std::get<0>(c);
    const InterActiveMessageResponse* answer = AnswerOf(*block);
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer->dataResponse, std::get<1>(c));
    EXPECT_EQ(answer->userResponse, std::get<2>(c));
  }
  // A second answer replaces the first.
  std::unique_ptr<OAPBlock> twice =
      ParseText(Answer("<Interactive_Message_Response><Data_response>1</Data_response></"
                       "Interactive_Message_Response>"
                       "<Id>3</Id>"
                       "<Interactive_Message_Response><Data_response>2</Data_response></"
                       "Interactive_Message_Response>"));
  ASSERT_TRUE(twice);
  EXPECT_EQ(AnswerOf(*twice)->dataResponse, "2");
  EXPECT_EQ(twice->GetID(), 3u);
}

TEST(ModelParseResponse, ServiceCopiedForVersion3Only) {
  const std::string status =
      "<Status service=\"message\"><Type>1</Type><Code>200</Code><Text>fine</Text></Status>";
  std::unique_ptr<OAPResponseBlock> v3 = ParseResponse("3.0", status);
  ASSERT_TRUE(v3);
  EXPECT_EQ(v3->service, "message");
  EXPECT_EQ(v3->serviceName, "message");
  EXPECT_EQ(v3->text, "fine");
  EXPECT_EQ(v3->GetID(), 10u);
  EXPECT_EQ(v3->status.GetMessage(), "OK");

  std::unique_ptr<OAPResponseBlock> v4 = ParseResponse("4.0", status);
  ASSERT_TRUE(v4);
  EXPECT_EQ(v4->service, "");
  EXPECT_EQ(v4->serviceName, "");
  EXPECT_EQ(v4->status.type, 1);
  EXPECT_EQ(v4->status.code, 200);
}

TEST(ModelParseResponse, TypeSpecificOnlyForClassesFourAndFive) {
  const std::string both =
      "<TypeSpecific><From>301</From><DataResp>A</DataResp><UserResponse>B</UserResponse>"
      "</TypeSpecific>";
  std::unique_ptr<OAPResponseBlock> selected =
      ParseResponse("4.0", "<Status><Type>5</Type><Code>200</Code>" + both + "</Status>");
  ASSERT_TRUE(selected);
  EXPECT_EQ(selected->from, "301");
  EXPECT_EQ(selected->dataResp, "A");
  EXPECT_EQ(selected->userResponse, "");

  std::unique_ptr<OAPResponseBlock> typed = ParseResponse(
      "4.0",
      "<Status><Code>200</Code><Type>4</Type><TypeSpecific><UserResponse>B</UserResponse>"
      "<From>7</From></TypeSpecific></Status>");
  ASSERT_TRUE(typed);
  EXPECT_EQ(typed->from, "7");
  EXPECT_EQ(typed->userResponse, "B");

  // Class 3 ignores TypeSpecific entirely, even without the required From.
  std::unique_ptr<OAPResponseBlock> delivered =
      ParseResponse("4.0",
                    "<Status><Type>3</Type><Code>200</Code><TypeSpecific><DataResp>A</DataResp>"
                    "</TypeSpecific></Status>");
  ASSERT_TRUE(delivered);
  EXPECT_EQ(delivered->dataResp, "");
  EXPECT_EQ(delivered->status.GetMessage(), "Delivered");

  EXPECT_FALSE(ParseResponse("4.0",
                             "<Status><Type>5</Type><Code>200</Code><TypeSpecific>"
                             "<DataResp>A</DataResp></TypeSpecific></Status>"));
}

TEST(ModelParseResponse, MissingStatusLeavesUnknownCode) {
  std::unique_ptr<OAPResponseBlock> block = ParseResponse("4.0", "<Other/>");
  ASSERT_TRUE(block);
  EXPECT_EQ(block->status.type, 0);
  EXPECT_EQ(block->status.code, 0);
  EXPECT_EQ(block->status.GetMessage(), "Unknown Code");
  EXPECT_EQ(block->text, "");
  EXPECT_EQ(block->body, nullptr);
}

TEST(ModelStatus, TextsForKnownAndUnknownPairs) {
  struct Row {
    int type, code;
    const char* text;
  };
  // The stored table in its order, then pairs it does not know.
  // clang-format off
  const Row rows[] = {
      {1, 200, "OK"}, {1, 300, "Unknown error"}, {1, 301, "Try again"}, {1, 320, "Congestion"},
      {1, 400, "Unknown error"}, {1, 401, "Communication error (deprecated)"},
      {1, 403, "Message not understood"}, {1, 404, "Address not understood"},
      {1, 405, "Addressee unknown (deprecated)"}, {1, 406, "Not supported"},
      {1, 407, "Client not registered"}, {1, 408, "OAP version mismatch"}, {2, 200, "Present"},
      {2, 400, "General absent"}, {2, 401, "Do not disturb"}, {2, 402, "Manual absent"},
      {2, 403, "In meeting"}, {2, 404, "In storage rack"},
      {3, -99, "Message has not been delivered"}, {3, 200, "Delivered"}, {3, 300, "Unknown error"},
      {3, 320, "Congestion"}, {3, 400, "Unknown error"}, {3, 401, "Communication error"},
      {3, 403, "Message not understood"}, {3, 404, "Address not understood"},
      {3, 405, "Deleted, too old"}, {3, 406, "Addressee is not reachable"},
      {3, 407, "Not supported"}, {3, 408, "Addressee unknown"}, {4, 200, "Accepted"},
      {4, 400, "Rejected"}, {5, 200, "Option selected"},
      {5, 201, "Option selected but truncated data"},
      {5, 400, "No existing interactive message to update"}, {2, 405, "Unknown Code"},
      {6, 200, "Unknown Code"}, {0, 0, "Unknown Code"}, {-3, 99, "Unknown Code"},
      {3, 157, "Unknown Code"}
  };
  // clang-format on
  const size_t stored = OAPResponseBlock::GenStatus::statusResponseCount;
  ASSERT_EQ(stored, 35u);
  for (size_t i = 0; i < sizeof(rows) / sizeof(rows[0]); ++i) {
    if (i < stored) {
      EXPECT_EQ(OAPResponseBlock::GenStatus::arrStatusResponses[i].type, rows[i].type) << i;
      EXPECT_EQ(OAPResponseBlock::GenStatus::arrStatusResponses[i].code, rows[i].code) << i;
    }
    OAPResponseBlock::GenStatus status;
    status.type = rows[i].type;
    status.code = rows[i].code;
    EXPECT_EQ(status.GetMessage(), rows[i].text) << status.type << "/" << status.code;
  }
  // A code read from the document reaches the negative row.
  std::unique_ptr<OAPResponseBlock> parsed =
      ParseResponse("3.0", "<Status service=\"s\"><Type>3</Type><Code>-99</Code></Status>");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->status.GetMessage(), "Message has not been delivered");
}

}  // namespace
