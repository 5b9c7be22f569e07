#include <gtest/gtest.h>

#include <string>

#include "QmAny.h"
#include "QmException.h"
#include "QmString.h"
#include "QmconException.h"
#include "QmioException.h"

namespace {

TEST(ExceptionTest, ToStringFormats) {
  const QmioException io("10.0.0.1:7000", "QmioSocket", 3, "Socket Connecting Failed", "refused");
  const std::pair<std::string, std::string> cases[] = {
      {QmException("QmioSocket", 12, "Socket is closed", "Success").ToString(),
       "Exception raised! File[QmioSocket] Line[12] Msg[Socket is closed] SysMsg[Success]"},
      {io.ToString(),
       "Exception raised! IO path[10.0.0.1:7000] File[QmioSocket] Line[3] "
       "Msg[Socket Connecting Failed] SysMsg[refused]"},
      // The file's name only, however the build named it.
      {QmconException(42, "/build/runtime/src/QmconEvent.cpp", 7, "Lock failed", "Invalid argument")
           .ToString(),
       "Exception raised! ThreadID[42] File[QmconEvent.cpp] Line[7] Msg[Lock failed] "
       "SysMsg[Invalid argument]"},
      {io.GetPath(), "10.0.0.1:7000"},
      {io.what(), "Socket Connecting Failed"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.first, c.second);
}

TEST(StringHelpersTest, TextAndNumberConversions) {
  const unsigned char raw[] = {'O', 'K', '\r', '\n', 0x00, 0xE9, '\\'};
  using std::to_string;
  const auto hex = [](const char* text) { return to_string(QmHexStrToUInt(text)); };
  const std::pair<std::string, std::string> cases[] = {
      {QmstringReplaceColon("Yes%3aNo%3AMaybe"), "Yes:No:Maybe"},
      {QmstringReplaceColon("a%3ab%3Bc%3ad"), "a:b%3Bc%3ad"},  // stops at another escape
      {QmstringReplaceColon("ends%3"), "ends%3"},
      {QmstringTrim(" \t a b \r\n"), "a b"},
      {QmstringReplaceAll("a b c", " ", "_"), "a_b_c"},
      {QmstringFormat("%s-%05d", "x", 42), "x-00042"},
      {QmstringSafeByteString(raw, sizeof(raw)), "OK\\r\\n\\x00\\xE9\\\\"},
      {QmAny(4294967295ul).asString(), "4294967295"},
      {hex("1a") + "," + hex("2B") + "," + hex("ff zz"), "26,43,255"},
      {hex("zz") + "," + hex("") + "," + hex("123456789"), "0,0,4294967295"},
      {to_string(QmAny("4294967295").asUInt()) + "," + to_string(QmAny("junk").asUInt()),
       "4294967295,0"},
      {to_string(QmAny(std::string("-12")).asInt()), "-12"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.first, c.second);
  EXPECT_EQ(QmstringFormat("%s", std::string(5000, 'z').c_str()).size(), 5000u);
  EXPECT_TRUE(QmstringEqualsNoCase("[Main]", "[main]") && !QmstringEqualsNoCase("main", "mains"));
}

}  // namespace
