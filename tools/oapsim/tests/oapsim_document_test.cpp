// The simulator's own check of received OAP-requests and the documents it
// writes back.

#include <gtest/gtest.h>

#include <string>

#include "OapSimDocument.h"
#include "OapSimReply.h"
#include "oapsim_test_documents.h"

namespace {

TEST(OapSimDocumentTest, AcceptsInteractive30Message) {
  OapSimDocument::Request request;
  const auto verdict = OapSimDocument::Check(kInteractive30, request);
  ASSERT_TRUE(verdict.ok) << verdict.error;
  EXPECT_EQ(request.version, "3.0");
  EXPECT_EQ(request.tracking, 0x1au);
  EXPECT_EQ(request.handset, "1234");
  EXPECT_EQ(request.listenerIp, "127.0.0.1");
  EXPECT_EQ(request.listenerPort, 7001);
  EXPECT_TRUE(request.interactive);
  EXPECT_TRUE(request.deliveryStatus);
  EXPECT_FALSE(request.update);
  EXPECT_EQ(request.subject, "Hi <there>");
  EXPECT_EQ(request.text, "Caf\xc3\xa9 open?");  // Latin-1 input read as UTF-8
  EXPECT_TRUE(request.warnings.empty());
  ASSERT_EQ(request.options.size(), 2u);
  EXPECT_EQ(request.options[0].kind, OapSimDocument::Option::Data);
  EXPECT_EQ(request.options[0].dataResp, "N:Yes");
  EXPECT_EQ(request.options[0].callNo, "555");
  EXPECT_EQ(request.options[1].kind, OapSimDocument::Option::Custom);
  EXPECT_EQ(request.options[1].label, "Other");
  EXPECT_EQ(request.options[1].key, "C");
}

TEST(OapSimDocumentTest, AcceptsPlainAndUpdate30Messages) {
  const std::string plain =
      "<?xml version=\"1.0\" encoding=\"iso-8859-1\"?>\n<OAP-request version=\"3.0\" id=\"ff\">\n"
      "<Header>\n<IP>127.0.0.1</IP>\n<Port>7001</Port>\n</Header>\n"
      "<Body service=\"message\"><To>1234</To>\n<BodyText>Hello</BodyText>\n"
      "<Priority>6</Priority>\n<AvailabilityStatus/><DeliveryStatus/></Body></OAP-request>";
  OapSimDocument::Request request;
  ASSERT_TRUE(OapSimDocument::Check(plain, request).ok);
  EXPECT_FALSE(request.interactive);
  EXPECT_EQ(request.tracking, 255u);
  EXPECT_TRUE(request.options.empty());

  const std::string update =
      Replace(kInteractive30, "<AvailabilityStatus/><DeliveryStatus/><TTL>300</TTL>",
              "<Update>OnlyExisting</Update>");
  ASSERT_TRUE(OapSimDocument::Check(update, request).ok);
  EXPECT_TRUE(request.update);
  EXPECT_EQ(request.tracking, 0x1au);
}

TEST(OapSimDocumentTest, AcceptsInteractive40MessageWithEveryOptionKind) {
  OapSimDocument::Request request;
  const auto verdict = OapSimDocument::Check(kInteractive40, request);
  ASSERT_TRUE(verdict.ok) << verdict.error;
  EXPECT_EQ(request.version, "4.0");
  EXPECT_EQ(request.handset, "5678");
  EXPECT_EQ(request.listenerPort, 7002);
  EXPECT_EQ(request.fromNumber, "42");
  EXPECT_TRUE(request.hasEnvelopeId);
  EXPECT_EQ(request.tracking, 0x1a0001u);
  EXPECT_EQ(request.text, "Caf\xc3\xa9?");
  ASSERT_EQ(request.options.size(), 5u);
  EXPECT_EQ(request.options[1].dataResp, "F:No");
  EXPECT_EQ(request.options[3].kind, OapSimDocument::Option::Custom);
  EXPECT_EQ(request.options[3].label, "Say");
  EXPECT_EQ(request.options[4].kind, OapSimDocument::Option::Close);
  EXPECT_TRUE(request.warnings.empty());
}

TEST(OapSimDocumentTest, Update40NamesTheReplacedMessageInTheEnvelope) {
  OapSimDocument::Request request;
  const auto verdict = OapSimDocument::Check(kWipeUpdate40, request);
  ASSERT_TRUE(verdict.ok) << verdict.error;
  EXPECT_TRUE(request.update);
  EXPECT_TRUE(request.wipeOptions);
  EXPECT_TRUE(request.options.empty());
  EXPECT_EQ(request.id, 0x1a0002u);
  EXPECT_EQ(request.tracking, 0x1a0001u);
  EXPECT_EQ(request.text, "Lunch?\n\nYou replied:\n-->>No");
}

TEST(OapSimDocumentTest, PlainMessage40WithoutEnvelopeIdIsTrackedByRequestId) {
  const std::string plain =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"20000\">\n"
      "<Header>\n<Port>7002</Port>\n<To>5678</To>\n</Header>\n"
      "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Message>\n<Body>Hi</Body>\n"
      "<Indication>\n</Indication>\n<Priority>6</Priority>\n</Message>\n</service>\n</Body>\n"
      "</OAP-request>";
  OapSimDocument::Request request;
  ASSERT_TRUE(OapSimDocument::Check(plain, request).ok);
  EXPECT_FALSE(request.interactive);
  EXPECT_FALSE(request.hasEnvelopeId);
  EXPECT_EQ(request.tracking, 0x20000u);
}

struct BadCase {
  const char* name;
  std::string text;
  const char* error;
  int code;
};

TEST(OapSimDocumentTest, RejectsMalformedRequestsWithReason) {
  std::string deep = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  for (int i = 0; i < 80; ++i) deep += "<a>";
  const std::string option =
      "<Option>\n<ID>1</ID>\n<Text>Yes</Text>\n<Function_key_ID>A</Function_key_ID>\n"
      "<On_selection>\n<Data_response>N:Yes</Data_response>\n</On_selection>\n</Option>\n";
  const BadCase cases[] = {
      {"truncated", kInteractive40.substr(0, 200), "malformed XML", 403},
      {"too deep", deep, "nested more than", 403},
      {"no declaration", kInteractive40.substr(kInteractive40.find('\n') + 1), "no XML declaration",
       403},
      {"3.0 as UTF-8", Replace(Replace(kInteractive30, "ISO-8859-1", "UTF-8"), "\xe9", "e"),
       "expected ISO-8859-1", 403},
      {"4.0 as Latin-1", Replace(kWipeUpdate40, "UTF-8", "ISO-8859-1"), "expected UTF-8", 403},
      {"root case",
       Replace(Replace(kWipeUpdate40, "<OAP-request ", "<oap-request "), "</OAP-request>",
               "</oap-request>"),
       "not OAP-request", 403},
      {"version", Replace(kWipeUpdate40, "version=\"4.0\"", "version=\"5.0\""),
       "unsupported OAP version '5.0'", 408},
      {"upper-case id", Replace(kInteractive30, "id=\"1a\"", "id=\"1A\""),
       "not lower-case hexadecimal", 403},
      {"padded id", Replace(kInteractive30, "id=\"1a\"", "id=\"001a\""), "leading zeros", 403},
      {"long id", Replace(kInteractive30, "id=\"1a\"", "id=\"100000000\""), "32 bits", 403},
      {"no header", Replace(kInteractive30, "Header>", "Heading>"), "has no Header", 403},
      {"3.0 no IP", Replace(kInteractive30, "<IP>127.0.0.1</IP>", ""), "has no IP", 403},
      {"port 0", Replace(kInteractive30, "<Port>7001</Port>", "<Port>0</Port>"), "Header Port",
       403},
      {"4.0 no To", Replace(kWipeUpdate40, "<To>5678</To>", ""), "has no To", 403},
      {"3.0 service", Replace(kInteractive30, "interactiveMessage", "OA-XML"),
       "expected message or interactiveMessage", 403},
      {"3.0 options on plain", Replace(kInteractive30, "interactiveMessage", "message"),
       "must have service interactiveMessage", 403},
      {"3.0 no BodyText", Replace(kInteractive30, "<BodyText>Caf\xe9 open?</BodyText>", ""),
       "has no BodyText", 403},
      {"3.0 option numbering", Replace(kInteractive30, "<Option id=\"2\">", "<Option id=\"3\">"),
       "option 2 has id '3'", 403},
      {"3.0 both answers",
       Replace(kInteractive30, "<DataResp>N:Yes</DataResp>",
               "<DataResp>N:Yes</DataResp><UserResponse>x</UserResponse>"),
       "exactly one of DataResp and UserResponse", 403},
      {"3.0 update value",
       Replace(kInteractive30, "<Priority>6</Priority>", "<Update>Always</Update>"),
       "expected OnlyExisting", 403},
      {"4.0 service", Replace(kWipeUpdate40, "\"OA-XML\"", "\"message\""), "expected OA-XML", 403},
      {"4.0 update without Id", Replace(kWipeUpdate40, "<Id>1a0001</Id>", ""),
       "update without envelope Id", 403},
      {"4.0 two kinds",
       Replace(kInteractive40, "</Interactive_Message>", "</Interactive_Message><Message/>"),
       "exactly one of Message and Interactive_Message", 403},
      {"4.0 wipe outside update",
       Replace(kInteractive40, "<Sticky_mode>mode1</Sticky_mode>", "<Option/>"),
       "empty Option outside an update", 403},
      {"4.0 wipe and options", Replace(kWipeUpdate40, "<Option/>", "<Option/>" + option),
       "wipes the options but also lists some", 403},
      {"4.0 option key",
       Replace(kInteractive40, "<Function_key_ID>C</Function_key_ID>",
               "<Function_key_ID>c</Function_key_ID>"),
       "function key 'c'", 403},
      {"4.0 close and data",
       Replace(kInteractive40, "<Close_message/>",
               "<Close_message/><Data_response>x</Data_response>"),
       "exactly one of Data_response, User_response and Close_message", 403},
  };
  for (const BadCase& bad : cases) {
    OapSimDocument::Request request;
    const auto verdict = OapSimDocument::Check(bad.text, request);
    EXPECT_FALSE(verdict.ok) << bad.name;
    EXPECT_NE(verdict.error.find(bad.error), std::string::npos)
        << bad.name << ": " << verdict.error;
    EXPECT_EQ(verdict.code, bad.code) << bad.name;
  }
}

TEST(OapSimDocumentTest, EnvelopeIdDifferingFromRequestIdIsWarnedAbout) {
  OapSimDocument::Request request;
  ASSERT_TRUE(
      OapSimDocument::Check(Replace(kInteractive40, "<Id>1a0001</Id>", "<Id>7</Id>"), request).ok);
  EXPECT_EQ(request.tracking, 7u);
  ASSERT_EQ(request.warnings.size(), 1u);
  EXPECT_NE(request.warnings[0].find("differs"), std::string::npos);
}

TEST(OapSimDocumentTest, Utf8TextInLatin1DocumentIsWarnedAbout) {
  OapSimDocument::Request request;
  ASSERT_TRUE(OapSimDocument::Check(Replace(kInteractive30, "\xe9", "\xc3\xa9"), request).ok);
  ASSERT_EQ(request.warnings.size(), 1u);
  EXPECT_NE(request.warnings[0].find("looks like UTF-8"), std::string::npos);
}

TEST(OapSimReplyTest, ResponsesFollowTheServerShape) {
  EXPECT_EQ(OapSimReply::Response("4.0", "1a0000", 1, 200),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-response version=\"4.0\" id=\"1a0000\">\n<Status>\n<Type>1</Type>\n"
            "<Code>200</Code>\n</Status>\n</OAP-response>");
  EXPECT_EQ(OapSimReply::Response("3.0", "1a", 1, 403, "Message not understood"),
            "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
            "<OAP-response version=\"3.0\" id=\"1a\">\n<Status service=\"message\">\n"
            "<Type>1</Type>\n<Code>403</Code>\n<Text>Message not understood</Text>\n"
            "</Status>\n</OAP-response>");
  EXPECT_EQ(OapSimReply::DeliveryReport("4.0", "b"),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-response version=\"4.0\" id=\"b\">\n<Status>\n<Type>3</Type>\n"
            "<Code>200</Code>\n</Status>\n</OAP-response>");
}

TEST(OapSimReplyTest, AnswersCarryTheChoiceInTheVersionsShape) {
  EXPECT_EQ(OapSimReply::Answer("3.0", "1a", "1234", "Caf\xc3\xa9 & <b>", true),
            "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
            "<OAP-response version=\"3.0\" id=\"1a\">\n<Status service=\"message\">\n"
            "<Type>5</Type>\n<Code>200</Code>\n<TypeSpecific>\n<From>1234</From>\n"
            "<UserResponse>Caf\xe9 &amp; &lt;b&gt;</UserResponse>\n</TypeSpecific>\n</Status>\n"
            "</OAP-response>");
  EXPECT_EQ(OapSimReply::Answer("4.0", "1a0001", "5678", "F:No", false),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-request version=\"4.0\" id=\"1a0001\">\n<Body service=\"OA-XML\">\n"
            "<service version=\"1.0\">\n<Id>1a0001</Id>\n<Interactive_Message_Response>\n"
            "<Data_response>F:No</Data_response>\n</Interactive_Message_Response>\n</service>\n"
            "</Body>\n</OAP-request>");
  EXPECT_EQ(OapSimReply::ToLatin1("a\xe2\x82\xac\xc3\xbc"), "a?\xfc");
}

}  // namespace
