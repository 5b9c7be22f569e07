// The message model: golden texts of every outgoing shape, written out from the
// protocol's layout rules; received documents (block kinds, identifiers,
// bodies, answers, the status table); and hostile or damaged input, which gives
// no block or a well-formed one, never a crash, hang or leak.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <string>

#include "InterActiveMessageResponse.h"
#include "MessageBody.h"
#include "OAPBlockFactory.h"
#include "OAPBlockHeader.h"
#include "OAPRequestBlock.h"
#include "OAPResponseBlock.h"
#include "OAXMLInterActiveMessageBody.h"
#include "OAXMLMessageBody.h"
#include "OAXMLService.h"

namespace {

MessageBody::Option Opt(const std::string& text, const std::string& data,
                        const std::string& callNo = "") {
  MessageBody::Option option;
  option.text = text;
  option.dataResp = data;
  option.callNo = callNo;
  return option;
}

TEST(ModelHeader, WritesOnlyPresentLines) {
  OAPBlockHeader header;
  header.port = -5;
  EXPECT_EQ(header.Serialize(), "<Header>\n</Header>\n");
  header.ip = "10.1.2.3";
  header.port = 7001;
  header.to = "55";
  header.fromNumber = "99<1";
  header.deliveryStatus = true;
  EXPECT_EQ(header.Serialize(),
            "<Header>\n<IP>10.1.2.3</IP>\n<Port>7001</Port>\n<To>55</To>\n"
            "<FromEx>\n<Number>99<1</Number>\n</FromEx>\n<DeliveryStatus/>\n</Header>\n");
}

enum Kind { kV3, kV4, kV4Interactive };
const std::string kV3Interactive = "<Body service=\"interactiveMessage\"><To>1234</To>\n";
const std::string kQ =
    "<Interactive_Message>\n<Message>\n<Body>Q</Body>\n<Indication>\n"
    "</Indication>\n<Priority>6</Priority>\n</Message>\n";
const std::string kUpdated =
    "<Interactive_Message>\n<Message>\n<Body>Q</Body>\n<Indication>\n"
    "<Intensity>None</Intensity>\n</Indication> \n</Message>\n"
    "<Update>\n</Update>\n";
const std::string kEnd = "</On_selection>\n</Option>\n";
const std::string kReset = "<Sticky_mode>reset</Sticky_mode>\n" + kEnd;
const std::string kMode1 = "<Sticky_mode>mode1</Sticky_mode>\n";
const std::string kClose = "</Interactive_Message>";

// The opening lines of an interactive option, up to its selection.
std::string V4Opt(int id, const std::string& text, char key) {
  return "<Option>\n<ID>" + std::to_string(id) + "</ID>\n<Text>" + text +
         "</Text>\n<Function_key_ID>" + key + "</Function_key_ID>\n<On_selection>\n";
}
std::string Data(const std::string& d) {
  return "<Data_response>" + d + "</Data_response>\n";
}
std::string Label(const std::string& l) {
  return "<User_response>\n<Text_label>" + l + "</Text_label>\n</User_response>\n";
}

std::string Serialize(Kind kind, const char* text, const std::function<void(MessageBody&)>& set) {
  MessageBody v3;
  OAXMLMessageBody v4;
  OAXMLInterActiveMessageBody interactive;
  MessageBody& body = kind == kV3 ? v3 : kind == kV4 ? v4 : interactive;
  body.to = "1234";
  body.bodyText = text;
  set(body);
  return body.Serialize();
}

TEST(ModelBody, GoldenSerialisations) {
  const struct {
    Kind kind;
    const char* text;
    std::function<void(MessageBody&)> set;
    std::string expected;
  } cases[] = {
      {kV3, "Hello & bye", [](MessageBody&) {},
       "<Body service=\"message\"><To>1234</To>\n<BodyText>Hello &amp; bye</BodyText>\n"
       "<Priority>6</Priority>\n<AvailabilityStatus/><DeliveryStatus/></Body>"},
      {kV3, "Hi", [](MessageBody& b) { b.subjectText = "a<b>", b.ttl = 30, b.priority = 0; },
       kV3Interactive + "<SubjectText>a&lt;b&gt;</SubjectText>\n<BodyText>Hi</BodyText>\n"
                        "<AvailabilityStatus/><DeliveryStatus/><TTL>30</TTL>\n</Body>"},
      {kV3, "",
       [](MessageBody& b) {
         b.options = {Opt("Yes<", "y", "200"), Opt("No", "")};
       },
       kV3Interactive +
           "<BodyText></BodyText>\n<Priority>6</Priority>\n"
           "<AvailabilityStatus/><DeliveryStatus/><Option id=\"1\">\n<Text>Yes<</Text>\n"
           "<OnSelection>\n<CallNo method=\"\">200</CallNo>\n<DataResp>y</DataResp>\n"
           "</OnSelection>\n<FuncKeyId>A</FuncKeyId>\n</Option>\n<Option id=\"2\">\n"
           "<Text>No</Text>\n<OnSelection>\n<DataResp></DataResp>\n</OnSelection>\n"
           "<FuncKeyId>C</FuncKeyId>\n</Option>\n</Body>"},
      {kV3, "Q",
       [](MessageBody& b) {
         b.priority = 0, b.options = {Opt("Ok", "1")}, b.userResponseLabel = "T";
       },
       kV3Interactive +
           "<BodyText>Q</BodyText>\n<AvailabilityStatus/><DeliveryStatus/>"
           "<Option id=\"1\">\n<Text>Ok</Text>\n<OnSelection>\n<DataResp>1</DataResp>\n"
           "</OnSelection>\n<FuncKeyId>A</FuncKeyId>\n</Option>\n<Option id=\"2\">\n"
           "<Text>Custom</Text>\n<OnSelection>\n<UserResponse>T</UserResponse>\n"
           "</OnSelection>\n<FuncKeyId>C</FuncKeyId>\n</Option>\n</Body>"},
      {kV3, "New",
       [](MessageBody& b) {
         b.updateOnlyExisting = b.wipeOptions = true;
         b.ttl = 10, b.options = {Opt("Gone", "g")}, b.userResponseLabel = "L";
       },
       kV3Interactive + "<BodyText>New</BodyText>\n<Priority>6</Priority>\n"
                        "<Update>OnlyExisting</Update>\n</Body>"},
      {kV3, "x", [](MessageBody& b) { b.priority = -1, b.userResponseLabel = "L"; },
       "<Body service=\"message\"><To>1234</To>\n<BodyText>x</BodyText>\n"
       "<AvailabilityStatus/><DeliveryStatus/></Body>"},
      {kV4, "Hi", [](MessageBody&) {},
       "<Message>\n<Body>Hi</Body>\n<Indication>\n</Indication>\n<Priority>6</Priority>\n</"
       "Message>"},
      {kV4, "", [](MessageBody& b) { b.priority = 0, b.numberOfRepetitions = 1; },
       "<Message>\n<Indication>\n</Indication>\n</Message>"},  // a single showing: no repetition
      {kV4, "x>y",
       [](MessageBody& b) {
         b.subjectText = "S&T", b.beep = 2, b.intensity = "High", b.urgent = true;
         b.colour = "Red", b.intervalTime = 10, b.numberOfRepetitions = 3, b.ttl = 60;
         b.priority = 1;
       },
       "<Message>\n<Subject>S&amp;T</Subject>\n<Body>x&gt;y</Body>\n<Indication>\n"
       "<Beep>2</Beep>\n<Intensity>High</Intensity>\n<Urgent/>\n<Colour>Red</Colour>\n"
       "<Repetition>\n<Interval_time>10</Interval_time>\n"
       "<Number_of_repetitions>3</Number_of_repetitions>\n</Repetition>\n"
       "</Indication>\n<TTL>60</TTL>\n<Priority>1</Priority>\n</Message>"},
      {kV4, "",
       [](MessageBody& b) {
         b.subjectText = "S", b.updateOnlyExisting = true, b.ttl = 60, b.beep = 3;
       },
       "<Message>\n<Subject>S</Subject>\n<Indication>\n<Intensity>None</Intensity>\n"
       "</Indication> \n</Message>"},
      {kV4Interactive, "Q",
       [](MessageBody& b) {
         b.sticky = true, b.options = {Opt("Yes", "y", "55"), Opt("No<", "n")};
       },
       kQ + kMode1 + V4Opt(1, "Yes", 'A') + Data("y") +
           "<Call_number>\n<Digits>55</Digits>\n</Call_number>\n" + kReset + V4Opt(2, "No<", 'C') +
           Data("n") + kReset + kClose},
      {kV4Interactive, "Q",  // three options, then the custom and close ones
       [](MessageBody& b) {
         b.options = {Opt("a", "1"), Opt("b", "2"), Opt("c", "3")}, b.userResponseLabel = "Say";
       },
       kQ + V4Opt(1, "a", 'A') + Data("1") + kEnd + V4Opt(2, "b", 'A') + Data("2") + kEnd +
           V4Opt(3, "c", 'A') + Data("3") + kEnd + V4Opt(4, "Custom", 'A') + Label("Say") + kEnd +
           V4Opt(5, "Close", 'C') + "<Close_message/>\n" + kEnd + kClose},
      {kV4Interactive, "Q",
       [](MessageBody& b) {
         b.sticky = true, b.options = {Opt("Ok", "")}, b.userResponseLabel = "L";
       },
       kQ + kMode1 + V4Opt(1, "Ok", 'A') + Data("") + kReset + V4Opt(2, "Custom", 'A') +
           Label("L") + kReset + kClose},
      {kV4Interactive, "Q",
       [](MessageBody& b) {
         b.updateOnlyExisting = b.wipeOptions = b.sticky = true;
         b.options = {Opt("a", "1")}, b.userResponseLabel = "L";
       },
       kUpdated + "<Option/>\n" + kClose},
      {kV4Interactive, "Q",  // no mode line on an update, resets stay on the options
       [](MessageBody& b) { b.updateOnlyExisting = b.sticky = true, b.options = {Opt("a", "1")}; },
       kUpdated + V4Opt(1, "a", 'A') + Data("1") + kReset + kClose},
      {kV4Interactive, "Q", [](MessageBody& b) { b.userResponseLabel = "L"; }, kQ + kClose},
  };
  for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
    EXPECT_EQ(Serialize(cases[i].kind, cases[i].text, cases[i].set), cases[i].expected) << i;
  }
  // Three choices plus the custom one: every key is "A".
  const std::string text = Serialize(kV3, "Q", [](MessageBody& b) {
    b.options = {Opt("Ok", "1"), Opt("Two", "2")}, b.userResponseLabel = "T";
  });
  EXPECT_EQ(text.find("<FuncKeyId>C</FuncKeyId>"), std::string::npos);
  EXPECT_NE(text.find("<Option id=\"3\">\n<Text>Custom</Text>"), std::string::npos);
}

TEST(ModelBlock, DocumentsAndEnvelopes) {
  OAXMLService service;
  auto* content = new OAXMLMessageBody();
  content->priority = 0;
  service.content = content;
  const std::string inner = "<Message>\n<Indication>\n</Indication>\n</Message>\n";
  EXPECT_EQ(service.Serialize(), "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n" + inner +
                                     "</service>\n</Body>\n");

  OAPBlock* block = OAPBlockFactory::GetBlock("OAP-request");
  ASSERT_NE(block, nullptr);
  block->version = "3.0";
  block->encoding = "ISO-8859-1";
  block->id = 255;
  auto* header = new OAPBlockHeader();
  header->ip = "127.0.0.1";
  header->port = 9000;
  block->SetHeader(header);
  auto* body = new MessageBody();
  body->to = "42";
  body->options = {Opt("a", "1")};  // released through the body base
  block->SetBody(body);
  EXPECT_EQ(block->Serialize(),
            "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
            "<OAP-request version=\"3.0\" id=\"ff\">\n<Header>\n"
            "<IP>127.0.0.1</IP>\n<Port>9000</Port>\n</Header>\n" +
                body->Serialize() + "</OAP-request>");
  delete block;

  OAPRequestBlock request;
  request.version = "4.0";
  request.encoding = "UTF-8";
  request.id = 0x1000;
  request.SetHeader(new OAPBlockHeader());
  auto* envelope = new OAXMLService();
  envelope->id = 0xAB1;
  auto* message = new OAXMLInterActiveMessageBody();
  message->bodyText = "B";
  message->priority = 0;
  envelope->content = message;
  request.SetBody(envelope);
  EXPECT_EQ(
      request.Serialize(),
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"1000\">\n"
      "<Header>\n</Header>\n<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>ab1</Id>\n"
      "<Interactive_Message>\n<Message>\n<Body>B</Body>\n<Indication>\n</Indication>\n"
      "</Message>\n</Interactive_Message>\n</service>\n</Body>\n</OAP-request>");
  EXPECT_EQ(request.GetServiceName(), "MessageBody");
}

std::unique_ptr<OAPBlock> ParseText(const std::string& text) {
  return std::unique_ptr<OAPBlock>(OAPBlock::Parse(text));
}

std::unique_ptr<OAPResponseBlock> ParseResponse(const std::string& version,
                                                const std::string& status) {
  std::unique_ptr<OAPBlock> block =
      ParseText("<OAP-response version=\"" + version + "\" id=\"a\">" + status + "</OAP-response>");
  EXPECT_TRUE(!block || block->GetType() == OAPBlock::Response);
  return std::unique_ptr<OAPResponseBlock>(static_cast<OAPResponseBlock*>(block.release()));
}

std::string Answer(const std::string& serviceContent) {
  return "<OAP-request version=\"4.0\" id=\"1a\"><Body service=\"OA-XML\"><service "
         "version=\"1.0\">" +
         serviceContent + "</service></Body></OAP-request>";
}

std::string Response(const std::string& answer) {
  return "<Interactive_Message_Response>" + answer + "</Interactive_Message_Response>";
}

const InterActiveMessageResponse* AnswerOf(const OAPBlock& block) {
  auto* service = dynamic_cast<const OAXMLService*>(block.body);
  return service ? dynamic_cast<const InterActiveMessageResponse*>(service->content) : nullptr;
}

TEST(ModelFactory, RootNamesAreExactAndCaseSensitive) {
  for (const char* name :
       {"oap-request", "OAP-Response", "OAP-requests", "Request", "OAP-request "}) {
    EXPECT_EQ(std::unique_ptr<OAPBlock>(OAPBlockFactory::GetBlock(name)), nullptr) << name;
    const bool spaced = name == std::string("OAP-request ");  // a valid root once parsed
    EXPECT_TRUE(spaced || !ParseText(std::string("<") + name + " version=\"3.0\"/>")) << name;
  }
  std::unique_ptr<OAPBlock> request(OAPBlockFactory::GetBlock("OAP-request"));
  std::unique_ptr<OAPBlock> response(OAPBlockFactory::GetBlock("OAP-response"));
  ASSERT_TRUE(request && response);
  EXPECT_EQ(request->GetType(), OAPBlock::Request);
  EXPECT_NE(dynamic_cast<OAPResponseBlock*>(response.get()), nullptr);
  // Without header and body only the frame is written.
  EXPECT_EQ(request->Serialize(),
            "<?xml version=\"1.0\" encoding=\"\"?>\n<OAP-request version=\"\" id=\"0\">\n"
            "</OAP-request>");
  EXPECT_EQ(response->Serialize() + request->GetServiceName(), "");
}

TEST(ModelParseRequest, IdsBodiesAndAnswers) {
  std::unique_ptr<OAPBlock> plain =
      ParseText("<OAP-request version=\"4.0\" id=\"1a\"><Header><IP>x</IP></Header></OAP-request>");
  ASSERT_TRUE(plain && plain->header);
  EXPECT_EQ(plain->GetServiceVersion(), "4.0");
  EXPECT_EQ(plain->header->ip, "");  // the header's content is not read
  const auto other = [](const char* service) {
    return std::string("<OAP-request version=\"4.0\" id=\"5\"><Body service=\"") + service +
           "\"><service><Id>9</Id></service></Body></OAP-request>";
  };
  const std::string answered = "InterActiveMessageResponse";
  const auto answer = [](const std::string& a) { return Answer("<Id>2B</Id>" + Response(a)); };
  // clang-format off
  const struct {
    std::string text;
    unsigned id;
    bool body;  // only OA-XML bodies are kept
    std::string service;
    const char *data, *user;  // null: no answer
  } cases[] = {
      {"<OAP-request version=\"4.0\" id=\"1a\"><Header/></OAP-request>", 26, false, "", nullptr,
       nullptr},
      {"<OAP-request version=\"3.0\"/>", 0, false, "", nullptr, nullptr},
      {other("message"), 5, false, "", nullptr, nullptr},
      {other("oa-xml"), 5, false, "", nullptr, nullptr},
      {other(""), 5, false, "", nullptr, nullptr},
      {Answer("<Id>7</Id><Other/>"), 7, true, "", nullptr, nullptr},  // routed nowhere
      {answer("<Data_response>d</Data_response><User_response>u</User_response>"), 43, true,
       answered, "d", ""},
      {answer("<User_response>u</User_response><Data_response>d</Data_response>"), 43, true,
       answered, "d", ""},
      {answer("<User_response>typed text</User_response>"), 43, true, answered, "", "typed text"},
      {answer("<Other>x</Other>"), 43, true, answered, "", ""},
      // The second answer wins.
      {Answer(Response("<Data_response>1</Data_response>") + "<Id>3</Id>" +
              Response("<Data_response>2</Data_response>")), 3, true, answered, "2", ""},
  };
  // clang-format on
  for (const auto& c : cases) {
    std::unique_ptr<OAPBlock> block = ParseText(c.text);
    ASSERT_TRUE(block) << c.text;
    EXPECT_EQ(block->GetID(), c.id) << c.text;
    EXPECT_EQ(block->body != nullptr, c.body) << c.text;
    EXPECT_EQ(block->GetServiceName(), c.service) << c.text;
    const InterActiveMessageResponse* answer = AnswerOf(*block);
    ASSERT_EQ(answer != nullptr, c.data != nullptr) << c.text;
    if (answer) {
      EXPECT_EQ(answer->dataResponse + "|" + answer->userResponse,
                std::string(c.data) + "|" + c.user);
    }
  }
}

TEST(ModelParseResponse, ServiceAndTypeSpecificFields) {
  const std::string status =
      "<Status service=\"message\"><Type>1</Type><Code>200</Code><Text>fine</Text></Status>";
  std::unique_ptr<OAPResponseBlock> v3 = ParseResponse("3.0", status);
  ASSERT_TRUE(v3);
  EXPECT_EQ(v3->service + "|" + v3->serviceName + "|" + v3->text, "message|message|fine");
  EXPECT_EQ(v3->GetID(), 10u);
  std::unique_ptr<OAPResponseBlock> v4 = ParseResponse("4.0", status);  // service: version 3 only
  ASSERT_TRUE(v4);
  EXPECT_EQ(v4->service + v4->serviceName, "");
  EXPECT_EQ(v4->status.GetMessage(), "OK");

  const char* cases[][3] = {
      // type, TypeSpecific, from|data|user: only classes 4 and 5 read it
      {"5", "<From>301</From><DataResp>A</DataResp><UserResponse>B</UserResponse>", "301|A|"},
      {"4", "<UserResponse>B</UserResponse><From>7</From>", "7||B"},
      {"3", "<DataResp>A</DataResp>", "||"},  // even without the required From
      {"5", "<DataResp>A</DataResp>", nullptr}};
  for (const auto& c : cases) {
    std::unique_ptr<OAPResponseBlock> block =
        ParseResponse("4.0", std::string("<Status><Code>200</Code><Type>") + c[0] +
                                 "</Type><TypeSpecific>" + c[1] + "</TypeSpecific></Status>");
    ASSERT_EQ(block != nullptr, c[2] != nullptr) << c[1];
    if (block) {
      EXPECT_EQ(block->from + "|" + block->dataResp + "|" + block->userResponse, c[2]);
    }
  }
  std::unique_ptr<OAPResponseBlock> none = ParseResponse("4.0", "<Other/>");
  ASSERT_TRUE(none);
  EXPECT_EQ(none->status.type + none->status.code, 0);
  EXPECT_EQ(none->status.GetMessage(), "Unknown Code");
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
  ASSERT_EQ(OAPResponseBlock::GenStatus::statusResponseCount, 35u);
  for (const Row& row : rows) {
    OAPResponseBlock::GenStatus status;
    status.type = row.type;
    status.code = row.code;
    EXPECT_EQ(status.GetMessage(), row.text) << status.type << "/" << status.code;
  }
  // A code read from the document reaches the negative row.
  std::unique_ptr<OAPResponseBlock> parsed =
      ParseResponse("3.0", "<Status service=\"s\"><Type>3</Type><Code>-99</Code></Status>");
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->status.GetMessage(), "Message has not been delivered");
}

const char kResponse[] =
    "<OAP-response version=\"3.0\" id=\"1f\"><Status service=\"message\"><Type>5</Type>"
    "<Code>200</Code><Text>t</Text><TypeSpecific><From>1</From><DataResp>x</DataResp>"
    "</TypeSpecific></Status></OAP-response>";
const char kRequest[] =
    "<OAP-request version=\"4.0\" id=\"1a\"><Header/><Body service=\"OA-XML\">"
    "<service version=\"1.0\"><Id>2b</Id><Interactive_Message_Response>"
    "<User_response>hello</User_response></Interactive_Message_Response></service></Body>"
    "</OAP-request>";

TEST(ModelHostile, RejectedOrWellDefined) {
  std::string bomb = "<!DOCTYPE OAP-request [<!ENTITY e0 \"xxxxxxxxxx\">";
  for (int level = 1; level < 10; ++level) {
    bomb += "<!ENTITY e" + std::to_string(level) + " \"";
    for (int i = 0; i < 10; ++i) bomb += "&e" + std::to_string(level - 1) + ";";
    bomb += "\">";
  }
  std::string nested = "<OAP-request version=\"4.0\" id=\"1\"><Body service=\"OA-XML\"><service>";
  for (int i = 0; i < 3000; ++i) nested.insert(nested.size() - i * 5, "<Id></Id>");
  const std::string v4 = "<OAP-response version=\"4.0\"><Status>";
  const std::string end = "</Status></OAP-response>";
  const struct {
    std::string text;
    bool accepted;
  } cases[] = {
      {"", false},
      {"hello there", false},
      {std::string(kResponse).substr(0, 60), false},
      {std::string(kRequest, sizeof(kRequest) - 10), false},
      {"<OAP-request version=\"3.0\"/><OAP-request version=\"3.0\"/>", false},
      {"<OAP-reply version=\"3.0\"><Status/></OAP-reply>", false},
      {"<OAP-response id=\"1\"/>", false},
      {v4 + "<Code>200</Code>" + end, false},
      {v4 + "<Type>1</Type>" + end, false},
      {"<OAP-response version=\"3.0\"><Status><Type>1</Type><Code>2</Code>" + end, false},
      {"<OAP-request version=\"4.0\"><Body><service/></Body></OAP-request>", false},
      {v4 + "<Type>1</Type><Code>200</Code><Text>\xC3\x28\xFF</Text>" + end, false},
      {bomb + "]><OAP-request version=\"3.0\"><Body service=\"&e9;\"/></OAP-request>", false},
      {std::string("<OAP-request version=\"3.0\">\0</OAP-request>", 42), false},
      {"<OAP-request version=\"4.0\" id=\"FFFFFFFFFFFFFFFFFFFF\"><Body service=\"OA-XML\">"
       "<service><Id>123456789abcdef0123</Id><Id>zz</Id></service></Body></OAP-request>",
       true},
      {nested + "</service></Body></OAP-request>", true},
      {"<OAP-request version=\"3.0\"><X><Y/></X><Body service=\"x\"/></OAP-request>", true},
  };
  for (const auto& c : cases) EXPECT_EQ(ParseText(c.text) != nullptr, c.accepted) << c.text;

  std::unique_ptr<OAPResponseBlock> odd =
      ParseResponse("4.0", "<Status><Type>one</Type><Code>x</Code></Status>");
  ASSERT_TRUE(odd);
  EXPECT_EQ(odd->status.GetMessage(), "Unknown Code");
  std::unique_ptr<OAPBlock> latin = ParseText(
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><OAP-response version=\"3.0\" id=\"2\">"
      "<Status service=\"m\"><Type>1</Type><Code>200</Code><Text>caf\xE9</Text></Status>"
      "</OAP-response>");
  ASSERT_TRUE(latin);  // text arrives as UTF-8 whatever the document's encoding
  EXPECT_EQ(static_cast<OAPResponseBlock*>(latin.get())->text, "caf\xC3\xA9");
}

// Random damage to valid documents: every result is either null or a block
// that can be queried and destroyed.
TEST(ModelHostile, MutatedDocumentsNeverCrash) {
  std::mt19937 random(20240611u);
  const std::string seeds[] = {kResponse, kRequest};
  const std::string alphabet = "<>/=\"&;x \n\xFF";
  int parsed = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string text = seeds[round % 2];
    for (int e = 0, edits = 1 + static_cast<int>(random() % 4); e < edits && !text.empty(); ++e) {
      const size_t at = random() % text.size();
      const unsigned op = random() % 4;
      if (op == 0) text[at] = alphabet[random() % alphabet.size()];
      if (op == 1) text.erase(at, 1 + random() % 8);
      if (op == 2) text.insert(at, text.substr(random() % text.size(), 1 + random() % 12));
      if (op == 3) text.resize(at);
    }
    std::unique_ptr<OAPBlock> block(OAPBlock::Parse(text));
    if (!block) continue;
    ++parsed;
    EXPECT_TRUE(block->GetType() == OAPBlock::Request || block->GetType() == OAPBlock::Response);
    block->GetServiceName();
    block->GetID();
  }
  EXPECT_GT(parsed, 0);  // some mutations keep the document valid: both outcomes were exercised
  EXPECT_LT(parsed, 3000);
}

}  // namespace
