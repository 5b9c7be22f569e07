// The simulator's parts in process, for what the program's run does not pass
// through: its check of received OAP-requests, the documents it writes back,
// what its handsets keep, its command line and message ids.

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>

#include "OapSimDocument.h"
#include "OapSimHandsets.h"
#include "OapSimOptions.h"
#include "OapSimReply.h"
#include "QmToolTrackingId.h"
#include "oapsim_test_documents.h"

namespace {

OapSimDocument::Request Accepted(const std::string& text) {
  OapSimDocument::Request request;
  const auto verdict = OapSimDocument::Check(text, request);
  EXPECT_TRUE(verdict.ok) << verdict.error;
  return request;
}

// Requests the program's run does not send, each summed up on one line: the
// message it concerns, whether it asks, updates or wipes, its option count and
// the start of each warning.
TEST(OapSimDocumentTest, AcceptedRequestsAreReadWhole) {
  std::string plain30 =
      kInteractive30.substr(0, kInteractive30.find("<Option")) + "</Body></OAP-request>";
  plain30 = Replace(Replace(plain30, "interactiveMessage", "message"), "ISO-8859-1", "iso-8859-1");
  const std::string plain40 =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"20000\">\n"
      "<Header>\n<Port>7002</Port>\n<To>5678</To>\n</Header>\n<Body service=\"OA-XML\">\n"
      "<service version=\"1.0\">\n<Message>\n<Body>Hi</Body>\n<Indication>\n</Indication>\n"
      "</Message>\n</service>\n</Body>\n</OAP-request>";
  const std::vector<std::pair<std::string, std::string>> cases{
      {plain30, "1a 1234 o0"},
      {plain40, "20000 5678 o0"},
      {Replace(kInteractive30, "<AvailabilityStatus/><DeliveryStatus/><TTL>300</TTL>",
               "<Update>OnlyExisting</Update>"),
       "1a 1234 ask update o2"},
      // An envelope Id differing from the request id, UTF-8 text in a Latin-1 document.
      {Replace(kInteractive40, "<Id>1a0001</Id>", "<Id>7</Id>"),
       "7 5678 ask o3; envelope Id 7 differ"},
      {Replace(kInteractive30, "\xe9", "\xc3\xa9"), "1a 1234 ask o2; ISO-8859-1 document "},
  };
  for (const auto& c : cases) {
    const OapSimDocument::Request r = Accepted(c.first);
    std::string summary = OapSimDocument::HexId(r.tracking) + " " + r.handset +
                          (r.interactive ? " ask" : "") + (r.update ? " update" : "") +
                          (r.wipeOptions ? " wipe" : "") + " o" + std::to_string(r.options.size());
    for (const std::string& warning : r.warnings) summary += "; " + warning.substr(0, 20);
    EXPECT_EQ(summary, c.second);
  }
}

// Malformed XML and an unknown version are refused in the program's run.
TEST(OapSimDocumentTest, RejectsMalformedRequestsWithReason) {
  std::string deep = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  for (int i = 0; i < 80; ++i) deep += "<a>";
  const auto In30 = [](auto from, auto to) { return Replace(kInteractive30, from, to); };
  const auto In40 = [](auto from, auto to) { return Replace(kInteractive40, from, to); };
  const auto Wipe40 = [](auto from, auto to) { return Replace(kWipeUpdate40, from, to); };
  const std::vector<std::pair<std::string, const char*>> cases{
      {deep, "nested more than"},
      {kInteractive40.substr(kInteractive40.find('\n') + 1), "no XML declaration"},
      {Replace(In30("ISO-8859-1", "UTF-8"), "\xe9", "e"), "expected ISO-8859-1"},
      {Replace(Wipe40("<OAP-request ", "<oap-request "), "</OAP-request>", "</oap-request>"),
       "not OAP-request"},
      {In30("id=\"1a\"", "id=\"1A\""), "not lower-case hexadecimal"},
      {In30("id=\"1a\"", "id=\"001a\""), "leading zeros"},
      {In30("id=\"1a\"", "id=\"100000000\""), "32 bits"},
      {In30("<IP>127.0.0.1</IP>", ""), "has no IP"},
      {In30("<Port>7001</Port>", "<Port>0</Port>"), "Header Port"},
      {In30("interactiveMessage", "OA-XML"), "expected message or interactiveMessage"},
      {In30("interactiveMessage", "message"), "must have service interactiveMessage"},
      {In30("<Option id=\"2\">", "<Option id=\"3\">"), "option 2 has id '3'"},
      {In30("</DataResp>", "</DataResp><UserResponse>x</UserResponse>"),
       "exactly one of DataResp and UserResponse"},
      {In30("<Priority>6</Priority>", "<Update>Always</Update>"), "expected OnlyExisting"},
      {Wipe40("<Id>1a0001</Id>", ""), "update without envelope Id"},
      {In40("</Interactive_Message>", "</Interactive_Message><Message/>"),
       "exactly one of Message and Interactive_Message"},
      {In40("<Sticky_mode>mode1</Sticky_mode>", "<Option/>"), "empty Option outside an update"},
      {In40("</Interactive_Message>", "<Update/><Option/></Interactive_Message>"),
       "wipes the options but also lists some"},
      {In40("<Function_key_ID>C<", "<Function_key_ID>c<"), "function key 'c'"},
      {In40("<Close_message/>", "<Close_message/><Data_response>x</Data_response>"),
       "exactly one of Data_response, User_response and Close_message"},
  };
  for (const auto& [text, error] : cases) {
    SCOPED_TRACE(error);
    OapSimDocument::Request request;
    const auto verdict = OapSimDocument::Check(text, request);
    EXPECT_FALSE(verdict.ok);
    EXPECT_NE(verdict.error.find(error), std::string::npos) << verdict.error;
    EXPECT_EQ(verdict.code, OapSimDocument::kNotUnderstood);
  }
}

TEST(OapSimReplyTest, RepliesFollowTheVersionsShape) {
  EXPECT_EQ(OapSimReply::Response("3.0", "1a", 1, 403, "Message not understood"),
            "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
            "<OAP-response version=\"3.0\" id=\"1a\">\n<Status service=\"message\">\n"
            "<Type>1</Type>\n<Code>403</Code>\n<Text>Message not understood</Text>\n"
            "</Status>\n</OAP-response>");
  EXPECT_EQ(OapSimReply::Answer("4.0", "1a0001", "5678", "F:No", false),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-request version=\"4.0\" id=\"1a0001\">\n<Body service=\"OA-XML\">\n"
            "<service version=\"1.0\">\n<Id>1a0001</Id>\n<Interactive_Message_Response>\n"
            "<Data_response>F:No</Data_response>\n</Interactive_Message_Response>\n</service>\n"
            "</Body>\n</OAP-request>");
  EXPECT_EQ(OapSimReply::ToLatin1("a\xe2\x82\xac\xc3\xbc"), "a?\xfc");
}

TEST(OapSimHandsetsTest, KeepsAndUpdatesMessagesReusedNumbersStartAfresh) {
  OapSimHandsets handsets;
  EXPECT_EQ(handsets.Store(Accepted(kInteractive30), "127.0.0.1"), OapSimHandsets::Added);
  const OapSimHandsets::Message& shown = *handsets.Find(0x1a);
  EXPECT_EQ(OapSimHandsets::Describe(shown),
            "3.0 message 0x1a to 1234: subject 'Hi <there>' text 'Caf\xc3\xa9 open?' "
            "options [1:Yes->N:Yes call 555] custom 'Other'");
  EXPECT_EQ(OapSimHandsets::Quote("a\r\nb\tc\x01\rd"), "'a\\nb\\tc?\\rd'");
  handsets.MarkDelivered(0x1a);
  // The 3.0 shape has no wipe marker: an update without options wipes them.
  OapSimDocument::Request bare = Accepted(kInteractive30);
  bare.update = true;
  bare.options.clear();
  bare.text = "Bye";
  EXPECT_EQ(handsets.Store(bare, "127.0.0.1"), OapSimHandsets::Updated);
  EXPECT_TRUE(shown.wiped && shown.text == "Bye" && shown.updates == 1 && shown.delivered);
  handsets.AddAnswer(0x1a, "N:Yes");
  EXPECT_EQ(handsets.Store(Accepted(kInteractive30), "127.0.0.1"), OapSimHandsets::Reused);
  const OapSimHandsets::Message* fresh = handsets.Find(0x1a);
  EXPECT_TRUE(!fresh->delivered && !fresh->wiped && fresh->answers.empty());
}

// The command line parser's own refusals are pinned by the viewer's tests;
// ids in commands by the program's run, their range here.
TEST(OapSimOptionsTest, RefusesBadValuesAndMessageIdsOutOfRange) {
  for (const char* line : {"--listen 127.0.0.1", "--status 200", "--auto 1234=jump"}) {
    std::istringstream words(line);
    OapSimOptions refused;
    std::string error;
    EXPECT_FALSE(refused.Parse({std::istream_iterator<std::string>(words), {}}, error)) << line;
    EXPECT_NE(error.find("bad value"), std::string::npos) << error;
  }
  uint32_t id = 0;
  EXPECT_TRUE(QmToolTrackingId::Parse("4294967295", id) && id == ~0u);
  for (const char* bad : {"0x", "4294967296", "0x100000000", "+5"}) {
    EXPECT_FALSE(QmToolTrackingId::Parse(bad, id)) << bad;
  }
}

}  // namespace
