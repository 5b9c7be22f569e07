// The codec: the XML text escaping requests are written with, and the other encoders.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "QmsysCodec.h"

// Every EncodeXmlData call here passes full = true: the one-way narrowing has its own executable.

namespace {

using Q = QmsysCodec;

std::string randomText(std::mt19937& rng, const std::string& alphabet, size_t maxLength) {
  std::string text(rng() % (maxLength + 1), ' ');
  for (char& c : text) c = alphabet[rng() % alphabet.size()];
  return text;
}

std::string base64(const std::string& data, bool lineBreaks = false) {
  return Q::EncodeBase64(reinterpret_cast<const unsigned char*>(data.data()),
                         static_cast<int>(data.size()), lineBreaks);
}

// Decodes a copy of `text` in place; `ok` receives the result flag.
std::string unbase64(const std::string& text, bool& ok) {
  std::vector<char> buffer(text.begin(), text.end());
  int length = static_cast<int>(buffer.size());
  ok = Q::DecodeBase64(buffer.data(), length);
  return std::string(buffer.data(), static_cast<size_t>(length));
}

// Request texts: content escaping; UTF-8 text in a Latin-1 document, Latin-1
// bytes (not UTF-8: bad sequences, overlong forms, surrogates) in a UTF-8 one.
TEST(Codec, XmlTextOfRequests) {
  const struct {
    const char* encoding;
    bool dataEntities;
    std::string in, out;
  } cases[] = {
      {"UTF-8", false, "a<b&c>\r\n\t'\"", "a&lt;b&amp;c&gt;&#xd;\n\t'\""},
      {"UTF-8", false, "Gr\xC3\xBC\xC3\x9Fo \xE2\x82\xAC", "Gr\xC3\xBC\xC3\x9Fo \xE2\x82\xAC"},
      {"UTF-8", false, "Gr\xFC\xDFo", "Gr\xC3\xBC\xC3\x9Fo"},
      {"UTF-8", false, "\xC0\xAF\xED\xA0\x80", "\xC3\x80\xC2\xAF\xC3\xAD\xC2\xA0\xC2\x80"},
      {"UTF-8", false, std::string("a\x01z\0c\x7F\xEF\xBF\xBE", 9), "a?z?c\x7F?"},
      {"iso-8859-1", false, "Gr\xC3\xBC\xC3\x9Fo \xE2\x82\xAC \xF0\x9F\x98\x80\xF4\x8F\xBF\xBF&",
       "Gr\xFC\xDFo &#x20ac; &#x1f600;&#x10ffff;&amp;"},
      {"iso-8859-1", false, "Gr\xFC\xDFo\x85\x1F", "Gr\xFC\xDFo\x85?"},
      {"UTF-8", true, "'\n\xFC", "&apos;&#xa;\xC3\xBC"}};
  for (const auto& c : cases)
    EXPECT_EQ(Q::EncodeXmlText(c.in, c.encoding, c.dataEntities), c.out) << c.in;
}

// The encoders nothing in the system calls: each decoder inverts its encoder,
// base64 flags foreign characters and the HTTP encoder never writes past the
// caller's buffer.
TEST(Codec, OtherEncodersRoundTripAndStayWithinTheirBuffers) {
  EXPECT_EQ(Q::EncodeUrl("a b-c.d"), "a+b%2Dc%2Ed");
  EXPECT_EQ(base64("\xFB\xFF"), "+/8=");

  std::string bytes;
  for (int c = 0; c < 256; ++c) bytes += static_cast<char>(c);
  EXPECT_EQ(Q::DecodeUrl(Q::EncodeUrl(bytes)), bytes);
  EXPECT_EQ(Q::DecodeName(Q::EncodeName(bytes)), bytes);
  std::mt19937 rng(7);
  bool ok = false;
  for (int i = 0; i < 300; ++i) {
    const std::string web = randomText(rng, "&><'\"|\t\r\n ab;#x0AD7Cnbsp", 40);
    EXPECT_EQ(Q::DecodeWebInputData(Q::EncodeWebInputData(web, false), false), web);
    const std::string xml = randomText(rng, "&><'\"\t\n\r;ampltgx#9ad", 40);
    EXPECT_EQ(Q::DecodeXmlData(Q::EncodeXmlData(xml, true)), xml);
    const std::string data = randomText(rng, bytes, 300);
    for (bool lineBreaks : {false, true})
      EXPECT_TRUE(unbase64(base64(data, lineBreaks), ok) == data && ok) << data.size();
  }
  EXPECT_TRUE(unbase64("TW Fu", ok) == "Man" && ok);
  EXPECT_TRUE(unbase64("TW*Fu", ok) == "Man" && !ok);
  int negative = -3;
  char one = 'A';
  EXPECT_FALSE(Q::DecodeBase64(&one, negative));

  char buffer[16];
  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(Q::QmhttpStrEncode(buffer, 12, "\xE9\xE9"), 9);  // the second piece would not fit
  EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("%FFFFFFE9\0######", 16));
}

}  // namespace
