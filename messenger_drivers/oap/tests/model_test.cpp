// The message model: golden texts of every outgoing shape, written out from the
// protocol's layout rules; received documents (block kinds, identifiers,
// bodies, answers, the status table); and hostile or damaged input, which gives
// no block or a well-formed one, never a crash, hang or leak.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
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

const auto Opt = [](const char* text, const char* data, const char* call = "") {
  return MessageBody::Option{text, data, call, 0, ""};
};

// Expected texts, built from the layout rules.
const std::string kV3I = "<Body service=\"interactiveMessage\"><To>1234</To>\n";
const std::string kStatus = "<AvailabilityStatus/><DeliveryStatus/>";
const std::string kQ =
    "<Interactive_Message>\n<Message>\n<Body>Q</Body>\n<Indication>\n"
    "</Indication>\n<Priority>6</Priority>\n</Message>\n";
const std::string kUpdated =
    "<Interactive_Message>\n<Message>\n<Body>Q</Body>\n<Indication>\n"
    "<Intensity>None</Intensity>\n</Indication> \n</Message>\n<Update>\n</Update>\n";
const std::string kMode1 = "<Sticky_mode>mode1</Sticky_mode>\n";
const std::string kReset = "<Sticky_mode>reset</Sticky_mode>\n";
const std::string kClose = "</Interactive_Message>";

std::string V3Opt(int id, const std::string& text, const std::string& selection, char key) {
  return "<Option id=\"" + std::to_string(id) + "\">\n<Text>" + text + "</Text>\n<OnSelection>\n" +
         selection + "</OnSelection>\n<FuncKeyId>" + key + "</FuncKeyId>\n</Option>\n";
}
std::string V4Opt(int id, const std::string& text, char key, const std::string& selection) {
  return "<Option>\n<ID>" + std::to_string(id) + "</ID>\n<Text>" + text +
         "</Text>\n<Function_key_ID>" + key + "</Function_key_ID>\n<On_selection>\n" + selection +
         "</On_selection>\n</Option>\n";
}
const auto Resp = [](const std::string& d) { return "<DataResp>" + d + "</DataResp>\n"; };
const auto Data = [](const std::string& d) { return "<Data_response>" + d + "</Data_response>\n"; };
const auto Label = [](const std::string& l) {
  return "<User_response>\n<Text_label>" + l + "</Text_label>\n</User_response>\n";
};
const std::string kCall55 = "<Call_number>\n<Digits>5&amp;5</Digits>\n</Call_number>\n";
const std::string kCustomT = "<UserResponse>T</UserResponse>\n";

enum Kind { kV3, kV4, kV4Interactive };

TEST(ModelBody, GoldenSerialisations) {
  using B = MessageBody&;
  // clang-format off
  const struct { Kind kind; const char* text; std::function<void(B)> set; std::string expected; } cases[] = {
      // Version 3: a label without options adds no custom option.
      // Characters XML cannot carry are written as "?".
      {kV3, "Hello & bye\x01", [](B b) { b.userResponseLabel = "L"; },
       "<Body service=\"message\"><To>1234</To>\n<BodyText>Hello &amp; bye?</BodyText>\n"
       "<Priority>6</Priority>\n" + kStatus + "</Body>"},
      {kV3, "Hi", [](B b) { b.subjectText = "a<b>"; b.ttl = 30; b.priority = -1; },
       kV3I + "<SubjectText>a&lt;b&gt;</SubjectText>\n<BodyText>Hi</BodyText>\n" + kStatus +
           "<TTL>30</TTL>\n</Body>"},
      // Wiping options needs an update. Every text is escaped; UTF-8 is written as Latin-1.
      {kV3, "", [](B b) { b.wipeOptions = true; b.options = {Opt("Yes<\xC3\xBC\xE2\x82\xAC", "y&", "2>0"), Opt("No", "")}; },
       kV3I + "<BodyText></BodyText>\n<Priority>6</Priority>\n" + kStatus +
           V3Opt(1, "Yes&lt;\xFC&#x20ac;", "<CallNo method=\"\">2&gt;0</CallNo>\n" + Resp("y&amp;"), 'A') +
           V3Opt(2, "No", Resp(""), 'C') + "</Body>"},
      // One option plus the custom one make two: keys A and C.
      {kV3, "Q", [](B b) { b.priority = 0; b.options = {Opt("Ok", "1")}; b.userResponseLabel = "T"; b.to = "1<2"; },
       "<Body service=\"interactiveMessage\"><To>1&lt;2</To>\n<BodyText>Q</BodyText>\n" + kStatus +
           V3Opt(1, "Ok", Resp("1"), 'A') + V3Opt(2, "Custom", kCustomT, 'C') + "</Body>"},
      // An update keeps its options unless they are wiped; three choices: every key A.
      {kV3, "Q",
       [](B b) { b.updateOnlyExisting = true; b.options = {Opt("a", "1"), Opt("b", "2")}; b.userResponseLabel = "T"; },
       kV3I + "<BodyText>Q</BodyText>\n<Priority>6</Priority>\n<Update>OnlyExisting</Update>\n" +
           V3Opt(1, "a", Resp("1"), 'A') + V3Opt(2, "b", Resp("2"), 'A') + V3Opt(3, "Custom", kCustomT, 'A') +
           "</Body>"},
      {kV3, "N", [](B b) { b.updateOnlyExisting = b.wipeOptions = true; b.ttl = 10; b.options = {Opt("a", "g")}; b.userResponseLabel = "L"; },
       kV3I + "<BodyText>N</BodyText>\n<Priority>6</Priority>\n<Update>OnlyExisting</Update>\n</Body>"},
      // Version 4, plain (its defaults are pinned by the interactive rows).
      {kV4, "x>y",
       [](B b) { b.subjectText = "S&T"; b.beep = 2; b.intensity = "H<i"; b.urgent = true; b.colour = "R\xE9" "d<";
                 b.intervalTime = 10; b.numberOfRepetitions = 3; b.ttl = 60; b.priority = 1; },
       "<Message>\n<Subject>S&amp;T</Subject>\n<Body>x&gt;y</Body>\n<Indication>\n<Beep>2</Beep>\n"
       "<Intensity>H&lt;i</Intensity>\n<Urgent/>\n<Colour>R\xC3\xA9" "d&lt;</Colour>\n<Repetition>\n"
       "<Interval_time>10</Interval_time>\n<Number_of_repetitions>3</Number_of_repetitions>\n"
       "</Repetition>\n</Indication>\n<TTL>60</TTL>\n<Priority>1</Priority>\n</Message>"},
      // Version 4, interactive.
      // Two listed options take keys A and C whatever the custom one; no wipe
      // without an update. Every text is escaped; Latin-1 bytes become UTF-8.
      {kV4Interactive, "Q",
       [](B b) { b.wipeOptions = true; b.userResponseLabel = "L>"; b.options = {Opt("Yes", "y", "5&5"), Opt("No<\xFC", "n&")}; },
       kQ + V4Opt(1, "Yes", 'A', Data("y") + kCall55) + V4Opt(2, "No&lt;\xC3\xBC", 'C', Data("n&amp;")) +
           V4Opt(3, "Custom", 'A', Label("L&gt;")) + kClose},
      // Three options: all keys A, custom (always A), then a closing option.
      {kV4Interactive, "Q",
       [](B b) { b.sticky = true; b.userResponseLabel = "Say"; b.options = {Opt("a", "1", "5&5"), Opt("b", "2"), Opt("c", "3")}; },
       kQ + kMode1 + V4Opt(1, "a", 'A', Data("1") + kCall55 + kReset) + V4Opt(2, "b", 'A', Data("2") + kReset) +
           V4Opt(3, "c", 'A', Data("3") + kReset) + V4Opt(4, "Custom", 'A', Label("Say") + kReset) +
           V4Opt(5, "Close", 'C', kReset + "<Close_message/>\n") + kClose},
      {kV4Interactive, "Q",
       [](B b) { b.updateOnlyExisting = b.wipeOptions = b.sticky = true; b.options = {Opt("a", "1")}; b.userResponseLabel = "L"; },
       kUpdated + "<Option/>\n" + kClose},
      // No mode line on an update, the resets stay; one option plus the custom one: keys A and A.
      {kV4Interactive, "Q",
       [](B b) { b.updateOnlyExisting = b.sticky = true; b.options = {Opt("a", "")}; b.userResponseLabel = "L"; },
       kUpdated + V4Opt(1, "a", 'A', Data("") + kReset) + V4Opt(2, "Custom", 'A', Label("L") + kReset) + kClose},
      {kV4Interactive, "Q", [](B b) { b.userResponseLabel = "L"; }, kQ + kClose},
  };
  // clang-format on
  for (const auto& c : cases) {
    MessageBody v3;
    OAXMLMessageBody v4;
    OAXMLInterActiveMessageBody interactive;
    MessageBody& body = c.kind == kV3 ? v3 : c.kind == kV4 ? v4 : interactive;
    body.to = "1234";
    body.bodyText = c.text;
    c.set(body);
    EXPECT_EQ(body.Serialize(), c.expected);
  }
}

TEST(ModelBlock, RequestDocumentsEnvelopesAndRootNames) {
  std::unique_ptr<OAPBlock> block(OAPBlockFactory::GetBlock("OAP-request"));
  ASSERT_TRUE(block);
  block->version = "3.0";
  block->encoding = "ISO-8859-1";
  block->id = 255;
  auto* header = new OAPBlockHeader();
  header->ip = "127.0.0.1>";
  header->port = 9000;
  header->to = "5&5";
  header->fromNumber = "99<1\xE9";
  header->deliveryStatus = true;
  block->SetHeader(header);
  auto* body = new MessageBody();  // released through the body base
  body->to = "42";
  block->SetBody(body);
  EXPECT_EQ(
      block->Serialize(),
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
      "<OAP-request version=\"3.0\" id=\"ff\">\n<Header>\n<IP>127.0.0.1&gt;</IP>\n"
      "<Port>9000</Port>\n<To>5&amp;5</To>\n<FromEx>\n<Number>99&lt;1\xE9</Number>\n</FromEx>\n"
      "<DeliveryStatus/>\n</Header>\n<Body service=\"message\"><To>42</To>\n"
      "<BodyText></BodyText>\n<Priority>6</Priority>\n" +
          kStatus + "</Body></OAP-request>");

  // Version 4: an empty header (a negative port writes no line), the envelope
  // with its hexadecimal Id.
  OAPRequestBlock request;
  request.version = "4.0";
  request.encoding = "UTF-8";
  request.id = 0x1000;
  request.SetHeader(new OAPBlockHeader());
  request.header->port = -5;
  auto* envelope = new OAXMLService();
  auto* message = new OAXMLInterActiveMessageBody();
  message->bodyText = "B";
  message->priority = 0;
  envelope->id = 0xAB1;
  envelope->content = message;
  request.SetBody(envelope);
  EXPECT_EQ(
      request.Serialize(),
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"1000\">\n"
      "<Header>\n</Header>\n<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>ab1</Id>\n"
      "<Interactive_Message>\n<Message>\n<Body>B</Body>\n<Indication>\n</Indication>\n"
      "</Message>\n</Interactive_Message>\n</service>\n</Body>\n</OAP-request>");
}

// Received documents.
const auto Envelope = [](const std::string& content) {
  return "<OAP-request version=\"4.0\" id=\"1a\"><Body service=\"OA-XML\"><service v=\"1\">" +
         content + "</service></Body></OAP-request>";
};
const auto Reply = [](const std::string& a) {
  return "<Interactive_Message_Response>" + a + "</Interactive_Message_Response>";
};
const auto Answer = [](const std::string& a) { return Envelope("<Id>2B</Id>" + Reply(a)); };
const auto Response = [](const std::string& version, const std::string& status) {
  return "<OAP-response version=\"" + version + "\" id=\"a\">" + status + "</OAP-response>";
};

// Requests: version|id|header (with its IP)|body|service name|answer data,user.
// Responses: id|class/code|service|serviceName|text|from|dataResp|userResponse|status text.
std::string Describe(const OAPBlock& b) {
  if (b.GetType() == OAPBlock::Response) {
    const auto& r = dynamic_cast<const OAPResponseBlock&>(b);
    return std::to_string(r.GetID()) + "|" + std::to_string(r.status.type) + "/" +
           std::to_string(r.status.code) + "|" + r.service + "|" + r.serviceName + "|" + r.text +
           "|" + r.from + "|" + r.dataResp + "|" + r.userResponse + "|" + r.status.GetMessage();
  }
  auto* service = dynamic_cast<const OAXMLService*>(b.body);
  auto* answer =
      service ? dynamic_cast<const InterActiveMessageResponse*>(service->content) : nullptr;
  return b.GetServiceVersion() + "|" + std::to_string(b.GetID()) + "|" +
         (b.header ? "h" + b.header->ip : "-") + "|" + (b.body ? "b" : "-") + "|" +
         b.GetServiceName() + "|" +
         (answer ? answer->dataResponse + "," + answer->userResponse : "-");
}

TEST(ModelParse, RequestsAndResponses) {
  const auto typed = [&](const std::string& type, const std::string& specific) {
    return Response("4.0", "<Status><Code>200</Code><Type>" + type + "</Type><TypeSpecific>" +
                               specific + "</TypeSpecific></Status>");
  };
  const std::string fine = "<Type>1</Type><Code>200</Code><Text>fine</Text></Status>";
  const std::string answered = "4.0|43|-|b|InterActiveMessageResponse|";
  // clang-format off
  const struct { std::string text, expected; /* empty: no block */ } cases[] = {
      // The header's content is not read.
      {"<OAP-request version=\"4.0\" id=\"1a\"><Header><IP>x</IP></Header></OAP-request>",
       "4.0|26|h|-||-"},
      // Only OA-XML bodies are kept, by exact name.
      {"<OAP-request version=\"4.0\" id=\"5\"><Body service=\"oa-xml\"><service><Id>9</Id></service></Body></OAP-request>",
       "4.0|5|-|-||-"},
      // The envelope's Id replaces the block's, even when absent.
      {Envelope(""), "4.0|0|-|b||-"},
      {Answer("<Data_response>d</Data_response><User_response>u</User_response>"), answered + "d,"},
      {Answer("<User_response>typed text</User_response>"), answered + ",typed text"},
      // The second answer wins.
      {Envelope(Reply("<Data_response>1</Data_response>") + "<Id>3</Id>" +
                Reply("<Data_response>2</Data_response>")),
       "4.0|3|-|b|InterActiveMessageResponse|2,"},
      // Responses; the service attribute is read for version 3.0 only.
      {Response("3.0", "<Status service=\"message\">" + fine), "10|1/200|message|message|fine||||OK"},
      {Response("4.0", "<Status service=\"message\">" + fine), "10|1/200|||fine||||OK"},
      // Only classes 4 and 5 read TypeSpecific, where From is required and DataResp wins.
      {typed("5", "<From>301</From><DataResp>A</DataResp><UserResponse>B</UserResponse>"),
       "10|5/200||||301|A||Option selected"},
      {typed("4", "<UserResponse>B</UserResponse><From>7</From>"), "10|4/200||||7||B|Accepted"},
      {typed("3", "<DataResp>A</DataResp>"), "10|3/200|||||||Delivered"},
      {typed("5", "<DataResp>A</DataResp>"), ""},
      {Response("4.0", "<Status><Type>one</Type><Code>x</Code></Status>"),
       "10|0/0|||||||Unknown Code"},
      // Identifiers beyond every integer type give a block, never a crash; the
      // last Id counts and one that is no number reads as 0.
      {"<OAP-request version=\"4.0\" id=\"FFFFFFFFFFFFFFFFFFFF\"><Body service=\"OA-XML\"><service>"
       "<Id>123456789abcdef0123</Id><Id>zz</Id></service></Body></OAP-request>", "4.0|0|-|b||-"},
      // Numbers beyond 32 bits read as the nearest bound (not as 1/200 wrapped).
      {Response("4.0", "<Status><Type>4294967297</Type><Code>-4294967096</Code></Status>"),
       "10|2147483647/-2147483648|||||||Unknown Code"},
      // No block: unreadable, unknown or differently cased root, missing required parts.
      {Envelope("<Id>1</Id>").substr(0, 60), ""},
      {std::string("<OAP-request version=\"3.0\"/>") + '\0' + "x", ""},  // read to its full length
      {"<oap-request version=\"3.0\"/>", ""},
      {"<OAP-response id=\"1\"/>", ""},
      {"<OAP-request version=\"4.0\"><Body><service/></Body></OAP-request>", ""},
      {Response("4.0", "<Status><Code>200</Code></Status>"), ""},
      {Response("3.0", "<Status><Type>1</Type><Code>2</Code></Status>"), ""},  // no service
  };
  // clang-format on
  for (const auto& c : cases) {
    std::unique_ptr<OAPBlock> block(OAPBlock::Parse(c.text));
    EXPECT_EQ(block ? Describe(*block) : "", c.expected) << c.text;
  }
}

TEST(ModelStatus, TextsForKnownAndUnknownPairs) {
  // The stored table in its order, then pairs it does not know.
  // clang-format off
  const struct { int type, code; const char* text; } rows[] = {
      {1, 200, "OK"}, {1, 300, "Unknown error"}, {1, 301, "Try again"}, {1, 320, "Congestion"}, {1, 400, "Unknown error"},
      {1, 401, "Communication error (deprecated)"}, {1, 403, "Message not understood"}, {1, 404, "Address not understood"},
      {1, 405, "Addressee unknown (deprecated)"}, {1, 406, "Not supported"}, {1, 407, "Client not registered"},
      {1, 408, "OAP version mismatch"}, {2, 200, "Present"}, {2, 400, "General absent"}, {2, 401, "Do not disturb"},
      {2, 402, "Manual absent"}, {2, 403, "In meeting"}, {2, 404, "In storage rack"},
      {3, -99, "Message has not been delivered"}, {3, 200, "Delivered"}, {3, 300, "Unknown error"}, {3, 320, "Congestion"},
      {3, 400, "Unknown error"}, {3, 401, "Communication error"}, {3, 403, "Message not understood"},
      {3, 404, "Address not understood"}, {3, 405, "Deleted, too old"}, {3, 406, "Addressee is not reachable"},
      {3, 407, "Not supported"}, {3, 408, "Addressee unknown"}, {4, 200, "Accepted"}, {4, 400, "Rejected"},
      {5, 200, "Option selected"}, {5, 201, "Option selected but truncated data"},
      {5, 400, "No existing interactive message to update"}, {2, 405, "Unknown Code"}, {6, 200, "Unknown Code"},
      {0, 0, "Unknown Code"}, {-3, 99, "Unknown Code"}, {3, 157, "Unknown Code"}};
  // clang-format on
  for (const auto& row : rows) {
    OAPResponseBlock::GenStatus status;
    status.type = row.type;
    status.code = row.code;
    EXPECT_EQ(status.GetMessage(), row.text) << row.type << "/" << row.code;
  }
}

}  // namespace
