// What the simulator refuses: received OAP-requests, values on its command
// line and message ids out of range. Its program's run covers the rest.

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>

#include "OapSimDocument.h"
#include "OapSimOptions.h"
#include "QmToolTrackingId.h"
#include "oapsim_test_documents.h"

namespace {

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
