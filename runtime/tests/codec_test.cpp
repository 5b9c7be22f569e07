#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "QmsysCodec.h"

// This executable never narrows the shared XML table: every EncodeXmlData
// call here passes full = true. The narrowing has its own executable.

namespace {

std::string allBytes() {
  std::string text;
  for (int c = 0; c < 256; ++c) text += static_cast<char>(c);
  return text;
}

std::string randomText(std::mt19937& rng, const std::string& alphabet, size_t maxLength) {
  std::uniform_int_distribution<size_t> length(0, maxLength);
  std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1);
  std::string text(length(rng), ' ');
  for (char& c : text) c = alphabet[pick(rng)];
  return text;
}

std::string base64(const std::string& data, bool lineBreaks = false) {
  return QmsysCodec::EncodeBase64(reinterpret_cast<const unsigned char*>(data.data()),
                                  static_cast<int>(data.size()), lineBreaks);
}

// Decodes a copy of `text`; `ok` receives the result flag.
std::string unbase64(const std::string& text, bool& ok) {
  std::vector<char> buffer(text.begin(), text.end());
  int length = static_cast<int>(buffer.size());
  ok = QmsysCodec::DecodeBase64(buffer.data(), length);
  return std::string(buffer.data(), static_cast<size_t>(length));
}

TEST(CodecUrl, EncodesUnsafeBytesAndDecodesBack) {
  EXPECT_EQ(QmsysCodec::EncodeUrl("a b-c.d"), "a+b%2Dc%2Ed");
  EXPECT_EQ(QmsysCodec::EncodeUrl("Az09_~\xE9"), "Az09_%7E%E9");
  EXPECT_EQ(QmsysCodec::DecodeUrl("a+b%2Dc%2ed%E9"), "a b-c.d\xE9");
  EXPECT_EQ(QmsysCodec::DecodeUrl(QmsysCodec::EncodeUrl(allBytes())), allBytes());
}

TEST(CodecUrl, ShortPercentEmptiesResultOtherGarbageIsCopied) {
  EXPECT_EQ(QmsysCodec::DecodeUrl("a+b%2"), "");
  EXPECT_EQ(QmsysCodec::DecodeUrl("abc%"), "");
  EXPECT_EQ(QmsysCodec::DecodeUrl("%zz1"), "%zz1");
  EXPECT_EQ(QmsysCodec::DecodeUrl(""), "");
}

TEST(CodecName, HighBytesUseSignedEightDigitForm) {
  EXPECT_EQ(QmsysCodec::EncodeName("ab-1\xE9"), "ab%2D1%FFFFFFE9");
  EXPECT_EQ(QmsysCodec::EncodeFileName("a b_\x80\x7F"), "a%20b%5F%FFFFFF80%7F");
  EXPECT_EQ(QmsysCodec::DecodeName("ab%2D1%FFFFFFE9"), "ab-1\xE9");
  EXPECT_EQ(QmsysCodec::DecodeFileName("%e9%ffffff80"), "\xE9\x80");
  const std::string bytes = allBytes() + "FFFFFF12%";
  EXPECT_EQ(QmsysCodec::DecodeName(QmsysCodec::EncodeName(bytes)), bytes);
  EXPECT_EQ(QmsysCodec::DecodeFileName(QmsysCodec::EncodeFileName(bytes)), bytes);
  // Malformed escapes: a bad wide form falls back to two digits, the rest is copied.
  EXPECT_EQ(QmsysCodec::DecodeName("%G1%FFFFFFZZ%4"),
            "%G1\xFF"
            "FFFFZZ%4");
}

TEST(CodecHttp, EncodesIntoCallerBufferWithinItsSize) {
  char buffer[64];
  EXPECT_EQ(QmsysCodec::QmhttpStrEncode(buffer, sizeof buffer, "a b/c.d_e"), 11);
  EXPECT_STREQ(buffer, "a%20b/c.d_e");
  QmsysCodec::QmhttpStrEncode(buffer, sizeof buffer, "x\ny\r\nz\xE9");
  EXPECT_STREQ(buffer, "x%0D%0Ay%0D%0Az%FFFFFFE9");
  QmsysCodec::QmhttpStrEncode(buffer, sizeof buffer, "\n");
  EXPECT_STREQ(buffer, "%0D%0A");

  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(QmsysCodec::QmhttpStrEncode(buffer, 4, "abc"), 0);
  EXPECT_EQ(QmsysCodec::QmhttpStrEncode(buffer, 10, ""), 0);
  EXPECT_EQ(buffer[0], '#');

  // Stops once length + 4 reaches the size.
  EXPECT_EQ(QmsysCodec::QmhttpStrEncode(buffer, 8, "abcdefghij"), 4);
  EXPECT_STREQ(buffer, "abcd");
  // A wide piece that would not fit is left out; nothing past `size` is touched.
  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(QmsysCodec::QmhttpStrEncode(buffer, 12, "\xE9\xE9"), 9);
  EXPECT_STREQ(buffer, "%FFFFFFE9");
  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(QmsysCodec::QmhttpStrEncode(buffer, 9, "\xE9"), 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(buffer[1], '#');
}

TEST(CodecWeb, EncodesEveryTableCharacterAndDecodesBack) {
  EXPECT_EQ(QmsysCodec::EncodeWebInputData("a&b c", false), "a&amp;b&nbsp;c");
  EXPECT_EQ(QmsysCodec::EncodeWebInputData("a&b c", true), "a&amp;b c");
  EXPECT_EQ(QmsysCodec::EncodeWebInputData("&><'\"|\t\r\n ", false),
            "&amp;&gt;&lt;&#x27;&quot;&#x7C;&#x09;&#x0D;&#x0A;&nbsp;");
  EXPECT_EQ(QmsysCodec::EncodeWebInputData("&lt;", false), "&amp;lt;");
  EXPECT_EQ(QmsysCodec::DecodeWebInputData("&amp;lt;&gt;&nbsp;", false), "&lt;> ");
  EXPECT_EQ(QmsysCodec::DecodeWebInputData("a&nbsp;&#x7C;", true), "a&nbsp;|");
  EXPECT_EQ(QmsysCodec::EncodeWebInputAndEscapeBackSlash("a\\b c", false), "a\\\\b&nbsp;c");

  std::mt19937 rng(7);
  const std::string alphabet = "&><'\"|\t\r\n ab;#x0AD7Cnbsp";
  for (int i = 0; i < 300; ++i) {
    const std::string text = randomText(rng, alphabet, 40);
    EXPECT_EQ(QmsysCodec::DecodeWebInputData(QmsysCodec::EncodeWebInputData(text, false), false),
              text);
    EXPECT_EQ(QmsysCodec::DecodeWebInputData(QmsysCodec::EncodeWebInputData(text, true), true),
              text);
  }
}

TEST(CodecXml, FullTableEncodesEachCharacterIndependently) {
  EXPECT_EQ(QmsysCodec::EncodeXmlData("&><'\"\t\n\r.", true),
            "&amp;&gt;&lt;&apos;&quot;&#x9;&#xa;&#xd;.");
  EXPECT_EQ(QmsysCodec::EncodeXmlData("&amp;", true), "&amp;amp;");
  EXPECT_EQ(QmsysCodec::DecodeXmlData("&amp;lt;&lt;&#xa;&#xd;&#x9;&apos;&quot;&gt;"),
            "&lt;<\n\r\t'\">");
  EXPECT_EQ(QmsysCodec::EncodeXML("<a href=\"x\">it's & more</a>", false),
            "&lt;a href=\"x\"&gt;it's &amp; more&lt;/a&gt;");
  EXPECT_EQ(QmsysCodec::EncodeXML("\"'", true), "&quot;&apos;");

  std::mt19937 rng(11);
  const std::string alphabet = "&><'\"\t\n\r;ampltgx#9ad";
  for (int i = 0; i < 300; ++i) {
    const std::string text = randomText(rng, alphabet, 40);
    EXPECT_EQ(QmsysCodec::DecodeXmlData(QmsysCodec::EncodeXmlData(text, true)), text);
    EXPECT_EQ(QmsysCodec::DecodeXmlData(QmsysCodec::EncodeXML(text, true)), text);
  }
}

TEST(CodecHtml, LineBreaksAndQuotes) {
  EXPECT_EQ(QmsysCodec::EncodeHTML("a\r\nb\nc\"&#x0A;", false), "a<br>b<br>c&quot;&#x0A;");
  EXPECT_EQ(QmsysCodec::EncodeHTML("a\r\nb\nc\"&#x0A;", true), "a<br>b<br>c&quot;<br>");
  EXPECT_EQ(QmsysCodec::EncodeHTML("\r\r\n\n", false), "\r<br><br>");
  EXPECT_EQ(QmsysCodec::DecodeHTML("a<br>b<br><br>"), "a\nb\n\n");
  EXPECT_EQ(QmsysCodec::EncodeNewLineCharacters("x\r\ny\n\"z\""), "x<br>y<br>\"z\"");
  EXPECT_EQ(QmsysCodec::EncodeMultiLineData("a\r\nb\n\rc"), "a<CR><LF>b<LF><CR>c");
  EXPECT_EQ(QmsysCodec::DecodeMultiLineData("a<CR><LF>b<LF><CR>c"), "a\r\nb\n\rc");
}

TEST(CodecJson, EscapesAndUnescapes) {
  EXPECT_EQ(QmsysCodec::EscapeJsonString("a\\b\"c\nd\re\tf"), "a\\\\b\\\"c\\nd\\re\\tf");
  EXPECT_EQ(QmsysCodec::UnescapeJsonString("a\\\\b\\\"c\\nd\\re\\tf\\/\\b\\f"),
            "a\\b\"c\nd\re\tf/\b\f");
  EXPECT_EQ(QmsysCodec::UnescapeJsonString("\\u00e9\\u20AC\\ud83d\\ude00"),
            "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(QmsysCodec::UnescapeJsonString("\\ud83dx"), "\xEF\xBF\xBDx");
  EXPECT_EQ(QmsysCodec::UnescapeJsonString("\\u12 \\q end\\"), "\\u12 \\q end\\");

  std::mt19937 rng(3);
  const std::string alphabet = "\\\"\n\r\tu0a/bf";
  for (int i = 0; i < 300; ++i) {
    const std::string text = randomText(rng, alphabet, 30);
    EXPECT_EQ(QmsysCodec::UnescapeJsonString(QmsysCodec::EscapeJsonString(text)), text);
  }

  EXPECT_EQ(QmsysCodec::EscapeInternalJSON("a\\\\b\\\"c\\n"), "a\\\\\\\\b\\\\\\\"c\\n");
  EXPECT_EQ(QmsysCodec::EncodeUnicodeCharacters("\\u003cb\\u003e\\u003d"), "<b>\\u003d");
}

TEST(CodecMisc, BackslashSpeechAndFilterEscapes) {
  EXPECT_EQ(QmsysCodec::EscapeBackslash("a\\b\\\\"), "a\\\\b\\\\\\\\");
  EXPECT_EQ(QmsysCodec::UnescapeBackslash("a\\\\b\\c\\"), "a\\b\\c\\");
  const std::string backslashes = "\\x\\\\\\y\\";
  EXPECT_EQ(QmsysCodec::UnescapeBackslash(QmsysCodec::EscapeBackslash(backslashes)), backslashes);
  EXPECT_EQ(QmsysCodec::EscapeTTSData("Say \"it's\"\r\nnow"), "Say itsnow");
  EXPECT_EQ(QmsysCodec::EncodeDBFilterInput("a_b\\c%"), "a\\_b\\\\c%");
}

TEST(CodecBase64, Rfc4648Vectors) {
  const char* vectors[][2] = {{"", ""},
                              {"f", "Zg=="},
                              {"fo", "Zm8="},
                              {"foo", "Zm9v"},
                              {"foob", "Zm9vYg=="},
                              {"fooba", "Zm9vYmE="},
                              {"foobar", "Zm9vYmFy"}};
  for (const auto& vector : vectors) {
    EXPECT_EQ(base64(vector[0]), vector[1]);
    bool ok = false;
    EXPECT_EQ(unbase64(vector[1], ok), vector[0]);
    EXPECT_TRUE(ok);
  }
  EXPECT_EQ(base64("\xFB\xFF"), "+/8=");
  std::string out = "stale";
  QmsysCodec::EncodeBase64(nullptr, 5, out, false);
  EXPECT_EQ(out, "");
}

TEST(CodecBase64, LineBreaksAfterEverySeventySixCharacters) {
  const std::string line(57, 'a');  // 57 bytes make exactly 76 characters
  const std::string encodedLine = base64(line);
  ASSERT_EQ(encodedLine.size(), 76u);
  EXPECT_EQ(base64(line, true), encodedLine + "\r\n");
  EXPECT_EQ(base64(line + line + "a", true), encodedLine + "\r\n" + encodedLine + "\r\nYQ==");
  EXPECT_EQ(base64("Man", true), "TWFu");
}

TEST(CodecBase64, DecoderSkipsWhitespaceAndFlagsForeignCharacters) {
  bool ok = false;
  EXPECT_EQ(unbase64("TW Fu", ok), "Man");
  EXPECT_TRUE(ok);
  EXPECT_EQ(unbase64("TW*Fu", ok), "Man");
  EXPECT_FALSE(ok);
  EXPECT_EQ(unbase64("TWE=junk", ok), "Ma");
  EXPECT_TRUE(ok);
  EXPECT_EQ(unbase64("TWE", ok), "Ma");
  EXPECT_TRUE(ok);
  EXPECT_EQ(unbase64("TWFuT", ok), "Man");
  EXPECT_FALSE(ok);
  EXPECT_EQ(unbase64("", ok), "");
  EXPECT_TRUE(ok);

  int length = 0;
  EXPECT_TRUE(QmsysCodec::DecodeBase64(nullptr, length));
  length = -3;
  char one = 'A';
  EXPECT_FALSE(QmsysCodec::DecodeBase64(&one, length));
  EXPECT_EQ(length, 0);
}

TEST(CodecBase64, RandomRoundTripsAndGarbage) {
  std::mt19937 rng(42);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int size = 0; size < 300; ++size) {
    std::string data(static_cast<size_t>(size), '\0');
    for (char& c : data) c = static_cast<char>(byte(rng));
    for (bool lineBreaks : {false, true}) {
      bool ok = false;
      EXPECT_EQ(unbase64(base64(data, lineBreaks), ok), data);
      EXPECT_TRUE(ok);
    }
    // Arbitrary bytes never produce more than three quarters of their length.
    bool ok = true;
    const std::string decoded = unbase64(data, ok);
    EXPECT_LE(decoded.size() * 4, data.size() * 3);
  }
}

}  // namespace
