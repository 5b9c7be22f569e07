// The codec: golden texts, round trips, the bounded HTTP encoder and base64.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "QmsysCodec.h"

// Every EncodeXmlData call here passes full = true: the one-way narrowing has its own executable.

namespace {

using Codec = std::function<std::string(const std::string&)>;
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

// `codec` with its flag argument bound.
Codec With(std::string (*codec)(const std::string&, bool), bool flag) {
  return [=](const std::string& text) { return codec(text, flag); };
}

// EncodeXmlText for a document declared with `encoding`.
Codec XmlText(const char* encoding, bool dataEntities) {
  return [=](const std::string& text) { return Q::EncodeXmlText(text, encoding, dataEntities); };
}

// Decodes a copy of `text` in place; `ok` receives the result flag.
std::string unbase64(const std::string& text, bool& ok) {
  std::vector<char> buffer(text.begin(), text.end());
  int length = static_cast<int>(buffer.size());
  ok = Q::DecodeBase64(buffer.data(), length);
  return std::string(buffer.data(), static_cast<size_t>(length));
}

// The decoders whose exact rules are the implementer's own are held to being inverses (below).
TEST(Codec, GoldenTexts) {
  const struct {
    Codec codec;
    std::vector<std::pair<std::string, std::string>> pairs;  // input, output
  } cases[] = {
      {Q::EncodeUrl, {{"a b-c.d", "a+b%2Dc%2Ed"}, {"Az09_~\xE9", "Az09_%7E%E9"}}},
      // A "%" with fewer than two characters after it empties the result.
      {Q::DecodeUrl,
       {{"a+b%2Dc%2ed%E9", "a b-c.d\xE9"}, {"a+b%2", ""}, {"abc%", ""}, {"%zz1", "%zz1"}}},
      {Q::EncodeName, {{"ab-1\xE9", "ab%2D1%FFFFFFE9"}}},
      {Q::EncodeFileName, {{"a b_\x80\x7F", "a%20b%5F%FFFFFF80%7F"}}},
      {With(Q::EncodeWebInputData, false),
       {{"&><'\"|\t\r\n ", "&amp;&gt;&lt;&#x27;&quot;&#x7C;&#x09;&#x0D;&#x0A;&nbsp;"},
        {"&lt;", "&amp;lt;"}}},
      {With(Q::EncodeWebInputData, true), {{"a&b c", "a&amp;b c"}}},
      // The ampersand is decoded last.
      {With(Q::DecodeWebInputData, false), {{"&amp;lt;&gt;&nbsp;", "&lt;> "}}},
      {With(Q::DecodeWebInputData, true), {{"a&nbsp;&#x7C;", "a&nbsp;|"}}},
      {With(Q::EncodeWebInputAndEscapeBackSlash, false), {{"a\\b c", "a\\\\b&nbsp;c"}}},
      {With(Q::EncodeXmlData, true),
       {{"&><'\"\t\n\r.", "&amp;&gt;&lt;&apos;&quot;&#x9;&#xa;&#xd;."}, {"&amp;", "&amp;amp;"}}},
      // Content escaping; UTF-8 text in a Latin-1 document, Latin-1 bytes (not
      // UTF-8: bad sequences, overlong forms, surrogates) in a UTF-8 one.
      {XmlText("UTF-8", false),
       {{"a<b&c>\r\n\t'\"", "a&lt;b&amp;c&gt;&#xd;\n\t'\""},
        {"Gr\xC3\xBC\xC3\x9Fo \xE2\x82\xAC", "Gr\xC3\xBC\xC3\x9Fo \xE2\x82\xAC"},
        {"Gr\xFC\xDFo", "Gr\xC3\xBC\xC3\x9Fo"},
        {"\xC0\xAF\xED\xA0\x80", "\xC3\x80\xC2\xAF\xC3\xAD\xC2\xA0\xC2\x80"},
        {std::string("a\x01z\0c\x7F\xEF\xBF\xBE", 9), "a?z?c\x7F?"}}},
      {XmlText("iso-8859-1", false),
       {{"Gr\xC3\xBC\xC3\x9Fo \xE2\x82\xAC \xF0\x9F\x98\x80\xF4\x8F\xBF\xBF&",
         "Gr\xFC\xDFo &#x20ac; &#x1f600;&#x10ffff;&amp;"},
        {"Gr\xFC\xDFo\x85\x1F", "Gr\xFC\xDFo\x85?"}}},
      {XmlText("UTF-8", true), {{"'\n\xFC", "&apos;&#xa;\xC3\xBC"}}},
      {Q::DecodeXmlData, {{"&amp;lt;&lt;&#xa;&#xd;&#x9;&apos;&quot;&gt;", "&lt;<\n\r\t'\">"}}},
      {With(Q::EncodeHTML, false),
       {{"a\r\nb\nc\"&#x0A;", "a<br>b<br>c&quot;&#x0A;"}, {"\r\r\n\n", "\r<br><br>"}}},
      {With(Q::EncodeHTML, true), {{"a\r\nb\nc\"&#x0A;", "a<br>b<br>c&quot;<br>"}}},
      {Q::DecodeHTML, {{"a<br>b<br><br>", "a\nb\n\n"}}},
      {Q::EncodeNewLineCharacters, {{"x\r\ny\n\"z\"", "x<br>y<br>\"z\""}}},
      {Q::EncodeMultiLineData, {{"a\r\nb\n\rc", "a<CR><LF>b<LF><CR>c"}}},
      {Q::DecodeMultiLineData, {{"a<CR><LF>b<LF><CR>c", "a\r\nb\n\rc"}}},
      {Q::EscapeJsonString, {{"a\\b\"c\nd\re\tf", "a\\\\b\\\"c\\nd\\re\\tf"}}},
      // Unknown or broken escapes are kept as written.
      {Q::UnescapeJsonString,
       {{"\\q\\u00zz\\u0041\\ud83d\\ude00\\n\\", "\\q\\u00zzA\xf0\x9f\x98\x80\n\\"}}},
      {Q::EscapeInternalJSON, {{"a\\\\b\\\"c\\n", "a\\\\\\\\b\\\\\\\"c\\n"}}},
      {Q::EncodeUnicodeCharacters, {{"\\u003cb\\u003e\\u003d", "<b>\\u003d"}}},
      {Q::EscapeBackslash, {{"a\\b\\\\", "a\\\\b\\\\\\\\"}}},
      {Q::EscapeTTSData, {{"Say \"it's\"\r\nnow", "Say itsnow"}}},
      {Q::EncodeDBFilterInput, {{"a_b\\c%", "a\\_b\\\\c%"}}}};
  for (const auto& c : cases)
    for (const auto& p : c.pairs) EXPECT_EQ(c.codec(p.first), p.second) << p.first;
}

TEST(Codec, RoundTrips) {
  std::string bytes;
  for (int c = 0; c < 256; ++c) bytes += static_cast<char>(c);
  EXPECT_EQ(Q::DecodeUrl(Q::EncodeUrl(bytes)), bytes);
  bytes += "FFFFFF12%";
  EXPECT_EQ(Q::DecodeName(Q::EncodeName(bytes)), bytes);
  EXPECT_EQ(Q::DecodeFileName(Q::EncodeFileName(bytes)), bytes);
  std::mt19937 rng(7);
  bool ok = false;
  for (int i = 0; i < 300; ++i) {
    const std::string web = randomText(rng, "&><'\"|\t\r\n ab;#x0AD7Cnbsp", 40);
    EXPECT_EQ(Q::DecodeWebInputData(Q::EncodeWebInputData(web, false), false), web);
    EXPECT_EQ(Q::DecodeWebInputData(Q::EncodeWebInputData(web, true), true), web);
    const std::string xml = randomText(rng, "&><'\"\t\n\r;ampltgx#9ad", 40);
    EXPECT_EQ(Q::DecodeXmlData(Q::EncodeXmlData(xml, true)), xml);
    for (bool quotes : {false, true}) EXPECT_EQ(Q::DecodeXmlData(Q::EncodeXML(xml, quotes)), xml);
    const std::string json = randomText(rng, "\\\"\n\r\tu0a/bf", 30);
    EXPECT_EQ(Q::UnescapeJsonString(Q::EscapeJsonString(json)), json);
    const std::string slashes = randomText(rng, "\\xy", 20);
    EXPECT_EQ(Q::UnescapeBackslash(Q::EscapeBackslash(slashes)), slashes);
    const std::string data = randomText(rng, bytes.substr(0, 256), 300);
    for (bool lineBreaks : {false, true})
      EXPECT_TRUE(unbase64(base64(data, lineBreaks), ok) == data && ok) << data.size();
    // Arbitrary bytes never decode to more than three quarters of their length.
    EXPECT_LE(unbase64(data, ok).size() * 4, data.size() * 3);
  }
}

TEST(Codec, HttpEncodesIntoCallerBufferWithinItsSize) {
  const struct {
    int size;
    const char* in;
    int written;
    const char* out;
  } cases[] = {{64, "a b/c.d_e", 11, "a%20b/c.d_e"},
               {64, "x\ny\r\nz\xE9", 24, "x%0D%0Ay%0D%0Az%FFFFFFE9"},
               {8, "abcdefghij", 4, "abcd"},      // stops once length + 4 reaches the size
               {12, "\xE9\xE9", 9, "%FFFFFFE9"},  // a wide piece that would not fit is left out
               {9, "\xE9", 0, ""},
               {4, "abc", 0, nullptr},  // nothing is done below 5 bytes or for empty input
               {10, "", 0, nullptr}};
  char buffer[65];
  for (const auto& c : cases) {
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(Q::QmhttpStrEncode(buffer, c.size, c.in), c.written) << c.in;
    const std::string out = c.out ? std::string(c.out) + '\0' : "";  // nothing else is touched
    EXPECT_EQ(std::string(buffer, sizeof buffer),
              out + std::string(sizeof buffer - out.size(), '#'));
  }
}

TEST(CodecBase64, VectorsLineBreaksAndLooseDecoding) {
  // clang-format off
  const struct {
    const char* bytes;
    const char* text;
    bool ok, encodes;
  } cases[] = {
      {"", "", true, true}, {"f", "Zg==", true, true}, {"fo", "Zm8=", true, true},
      {"foo", "Zm9v", true, true}, {"\xFB\xFF", "+/8=", true, true},
      // The decoder skips whitespace, flags foreign characters, stops at
      // padding and drops bits that fill no byte.
      {"Man", "TW Fu", true, false}, {"Man", "TW*Fu", false, false},
      {"Ma", "TWE=junk", true, false}, {"Ma", "TWE", true, false}, {"Man", "TWFuT", true, false}};
  // clang-format on
  bool ok = false;
  for (const auto& c : cases) {
    EXPECT_TRUE(!c.encodes || base64(c.bytes) == c.text) << c.bytes;
    EXPECT_EQ(unbase64(c.text, ok), c.bytes);
    EXPECT_EQ(ok, c.ok) << c.text;
  }
  std::string out = "stale";
  Q::EncodeBase64(nullptr, 5, out, false);
  EXPECT_EQ(out + base64("Man", true), "TWFu");
  const std::string line(57, 'a');  // 57 bytes make exactly 76 characters
  const std::string encodedLine = base64(line);
  ASSERT_EQ(encodedLine.size(), 76u);
  EXPECT_EQ(base64(line, true), encodedLine + "\r\n");
  EXPECT_EQ(base64(line + line + "a", true), encodedLine + "\r\n" + encodedLine + "\r\nYQ==");
  int empty = 0, negative = -3;
  char one = 'A';
  EXPECT_TRUE(Q::DecodeBase64(nullptr, empty) && !Q::DecodeBase64(&one, negative));
  EXPECT_EQ(negative, 0);
}

}  // namespace
