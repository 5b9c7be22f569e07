#include "QmsysCodec.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "QmString.h"

namespace {

const char kHexDigits[] = "0123456789ABCDEF";
const char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// Output characters per base64 line when line breaks are asked for.
constexpr int kBase64LineLength = 76;

struct Entity {
  char character;
  const char* text;
};

// XML data characters in table order; the first three are the narrowed set.
constexpr Entity kXmlEntities[] = {{'&', "&amp;"},   {'>', "&gt;"},   {'<', "&lt;"},
                                   {'\'', "&apos;"}, {'"', "&quot;"}, {'\t', "&#x9;"},
                                   {'\n', "&#xa;"},  {'\r', "&#xd;"}};
constexpr int kXmlEntityCount = sizeof kXmlEntities / sizeof kXmlEntities[0];
constexpr int kXmlNarrowedCount = 3;
// The five characters XML itself reserves.
constexpr int kXmlAttributeCount = 5;
// What element content needs escaped so that a parser reads it back as it
// was: the markup characters, and the carriage return, which a parser would
// otherwise read as a line feed.
constexpr Entity kXmlContentEntities[] = {
    {'&', "&amp;"}, {'>', "&gt;"}, {'<', "&lt;"}, {'\r', "&#xd;"}};
constexpr int kXmlContentEntityCount = sizeof kXmlContentEntities / sizeof kXmlContentEntities[0];
// Written in place of a character that XML 1.0 does not allow in a document.
constexpr char kXmlReplacement = '?';

// Shared by every thread of the process; once set it stays set.
std::atomic<bool> g_xmlTableNarrowed{false};

// Web input entities in decoding order: ampersand last so that decoding
// never forms a new entity.
constexpr Entity kWebEntities[] = {
    {'>', "&gt;"},    {'<', "&lt;"},    {'\'', "&#x27;"}, {'"', "&quot;"}, {'|', "&#x7C;"},
    {'\t', "&#x09;"}, {'\r', "&#x0D;"}, {'\n', "&#x0A;"}, {' ', "&nbsp;"}, {'&', "&amp;"}};
constexpr int kWebEntityCount = sizeof kWebEntities / sizeof kWebEntities[0];

bool isAsciiLetterOrDigit(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Two hex digits at text[pos] as a byte value, or -1.
int hexByteAt(const std::string& text, std::string::size_type pos) {
  if (pos + 2 > text.size()) return -1;
  const int high = hexValue(text[pos]);
  const int low = hexValue(text[pos + 1]);
  return (high < 0 || low < 0) ? -1 : high * 16 + low;
}

// "%" and the hex value of the byte read as a signed char: "%2D", "%FFFFFFE9".
std::string signedPercent(char c) {
  char piece[16];
  std::snprintf(piece, sizeof piece, "%%%02X",
                static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(c))));
  return piece;
}

std::string encodeAlnumOnly(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (isAsciiLetterOrDigit(static_cast<unsigned char>(c))) {
      out += c;
    } else {
      out += signedPercent(c);
    }
  }
  return out;
}

// Reverses encodeAlnumOnly: "%FFFFFFXX" (a byte of 0x80 or more) and "%XX".
std::string decodeSignedPercent(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::string::size_type i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    const int wide = hexByteAt(text, i + 7);
    if (wide >= 0 && QmstringEqualsNoCase(text.substr(i + 1, 6), "FFFFFF")) {
      out += static_cast<char>(wide);
      i += 8;
      continue;
    }
    const int narrow = hexByteAt(text, i + 1);
    if (narrow >= 0) {
      out += static_cast<char>(narrow);
      i += 2;
    } else {
      out += '%';
    }
  }
  return out;
}

// Each character found among the first `count` entries of `table` becomes its
// entity; `skip` (when not 0) is left as it is.
std::string encodeEntities(const std::string& text, const Entity* table, int count, char skip = 0) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const Entity* match = nullptr;
    for (int i = 0; i < count && !match; ++i) {
      if (table[i].character == c && c != skip) match = &table[i];
    }
    if (match) {
      out += match->text;
    } else {
      out += c;
    }
  }
  return out;
}

// Replaces every entity of `table`, in table order, by its character.
std::string decodeEntities(std::string text, const Entity* table, int count, char skip = 0) {
  for (int i = 0; i < count; ++i) {
    if (table[i].character == skip) continue;
    text = QmstringReplaceAll(text, table[i].text, std::string(1, table[i].character));
  }
  return text;
}

// The length of the well-formed UTF-8 sequence at text[pos] (shortest form,
// no surrogates, at most U+10FFFF) with its code point, or 0.
std::string::size_type utf8SequenceAt(const std::string& text, std::string::size_type pos,
                                      unsigned long* codePoint) {
  const unsigned char lead = static_cast<unsigned char>(text[pos]);
  std::string::size_type length = 0;
  unsigned long cp = 0, lowest = 0;
  if (lead < 0x80) {
    *codePoint = lead;
    return 1;
  } else if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, cp = lead & 0x1F, lowest = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, cp = lead & 0x0F, lowest = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, cp = lead & 0x07, lowest = 0x10000;
  } else {
    return 0;
  }
  if (pos + length > text.size()) return 0;
  for (std::string::size_type i = 1; i < length; ++i) {
    const unsigned char next = static_cast<unsigned char>(text[pos + i]);
    if ((next & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (next & 0x3F);
  }
  if (cp < lowest || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  *codePoint = cp;
  return length;
}

bool isUtf8(const std::string& text) {
  unsigned long cp = 0;
  for (std::string::size_type pos = 0; pos < text.size();) {
    const std::string::size_type length = utf8SequenceAt(text, pos, &cp);
    if (length == 0) return false;
    pos += length;
  }
  return true;
}

// The characters XML 1.0 allows in a document.
bool isXmlCharacter(unsigned long cp) {
  return cp == 0x9 || cp == 0xA || cp == 0xD || (cp >= 0x20 && cp <= 0xD7FF) ||
         (cp >= 0xE000 && cp <= 0xFFFD) || (cp >= 0x10000 && cp <= 0x10FFFF);
}

// The code unit of "\uXXXX" at text[pos], or -1.
long unicodeEscapeAt(const std::string& text, std::string::size_type pos) {
  if (pos + 6 > text.size() || text[pos] != '\\' || text[pos + 1] != 'u') return -1;
  const int high = hexByteAt(text, pos + 2);
  const int low = hexByteAt(text, pos + 4);
  return (high < 0 || low < 0) ? -1 : high * 256L + low;
}

// Decodes "\uXXXX" (and a following low surrogate) at text[pos]; returns the
// characters consumed, 0 when there is no valid escape.
std::string::size_type decodeUnicodeEscape(const std::string& text, std::string::size_type pos,
                                           std::string& out) {
  const long unit = unicodeEscapeAt(text, pos);
  if (unit < 0) return 0;
  if (unit >= 0xD800 && unit <= 0xDBFF) {
    const long low = unicodeEscapeAt(text, pos + 6);
    if (low >= 0xDC00 && low <= 0xDFFF) {
      QmstringAppendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
      return 12;
    }
  }
  const bool loneSurrogate = unit >= 0xD800 && unit <= 0xDFFF;
  QmstringAppendUtf8(out, loneSurrogate ? 0xFFFD : static_cast<unsigned long>(unit));
  return 6;
}

char jsonEscapedCharacter(char c) {
  switch (c) {
    case '\\':
      return '\\';
    case '"':
      return '"';
    case '/':
      return '/';
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    case 'b':
      return '\b';
    case 'f':
      return '\f';
    default:
      return 0;
  }
}

int base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool isBase64Whitespace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

}  // namespace

std::string QmsysCodec::EncodeUrl(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == ' ') {
      out += '+';
    } else if (c == '_' || isAsciiLetterOrDigit(byte)) {
      out += c;
    } else {
      out += '%';
      out += kHexDigits[byte >> 4];
      out += kHexDigits[byte & 0x0F];
    }
  }
  return out;
}

std::string QmsysCodec::DecodeUrl(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::string::size_type i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '+') {
      out += ' ';
    } else if (c != '%') {
      out += c;
    } else if (i + 2 >= text.size()) {
      return std::string();
    } else {
      const int byte = hexByteAt(text, i + 1);
      if (byte < 0) {
        out += c;
      } else {
        out += static_cast<char>(byte);
        i += 2;
      }
    }
  }
  return out;
}

std::string QmsysCodec::EncodeName(const std::string& text) {
  return encodeAlnumOnly(text);
}

std::string QmsysCodec::EncodeFileName(const std::string& text) {
  return encodeAlnumOnly(text);
}

std::string QmsysCodec::DecodeName(const std::string& text) {
  return decodeSignedPercent(text);
}

std::string QmsysCodec::DecodeFileName(const std::string& text) {
  return decodeSignedPercent(text);
}

int QmsysCodec::QmhttpStrEncode(char* dst, int size, const char* src) {
  if (!dst || !src || size < 5 || *src == '\0') return 0;
  int length = 0;
  for (const char* p = src; *p != '\0' && length + 4 < size; ++p) {
    std::string piece;
    if (*p == '\n' && (p == src || p[-1] != '\r')) piece = "%0D";
    const unsigned char byte = static_cast<unsigned char>(*p);
    if (isAsciiLetterOrDigit(byte) || *p == '/' || *p == '_' || *p == '.') {
      piece += *p;
    } else {
      piece += signedPercent(*p);
    }
    if (length + static_cast<int>(piece.size()) >= size) break;
    std::memcpy(dst + length, piece.data(), piece.size());
    length += static_cast<int>(piece.size());
  }
  dst[length] = '\0';
  return length;
}

std::string QmsysCodec::EncodeWebInputData(const std::string& text, bool keepSpaces) {
  return encodeEntities(text, kWebEntities, kWebEntityCount, keepSpaces ? ' ' : 0);
}

std::string QmsysCodec::DecodeWebInputData(const std::string& text, bool keepSpaces) {
  return decodeEntities(text, kWebEntities, kWebEntityCount, keepSpaces ? ' ' : 0);
}

std::string QmsysCodec::EncodeWebInputAndEscapeBackSlash(const std::string& text, bool keepSpaces) {
  return EscapeBackslash(EncodeWebInputData(text, keepSpaces));
}

std::string QmsysCodec::EncodeXmlData(const std::string& text, bool full) {
  if (!full) g_xmlTableNarrowed.store(true);
  return encodeEntities(text, kXmlEntities,
                        g_xmlTableNarrowed.load() ? kXmlNarrowedCount : kXmlEntityCount);
}

std::string QmsysCodec::DecodeXmlData(const std::string& text) {
  // Ampersand (the first entry) is decoded last so no new entity appears.
  return decodeEntities(decodeEntities(text, kXmlEntities + 1, kXmlEntityCount - 1), kXmlEntities,
                        1);
}

std::string QmsysCodec::EncodeXML(const std::string& text, bool forAttribute) {
  return encodeEntities(text, kXmlEntities, forAttribute ? kXmlAttributeCount : kXmlNarrowedCount);
}

std::string QmsysCodec::EncodeXmlText(const std::string& text, const std::string& encoding,
                                      bool dataEntities) {
  // Most texts are printable ASCII without a character to escape.
  const auto asItIs = [dataEntities](char c) {
    return c >= 0x20 && c < 0x7F && c != '&' && c != '<' && c != '>' &&
           !(dataEntities && (c == '\'' || c == '"'));
  };
  if (std::all_of(text.begin(), text.end(), asItIs)) return text;
  // The data entities as EncodeXmlData(text, true) uses them, narrowing included.
  const Entity* table = dataEntities ? kXmlEntities : kXmlContentEntities;
  const int count = !dataEntities               ? kXmlContentEntityCount
                    : g_xmlTableNarrowed.load() ? kXmlNarrowedCount
                                                : kXmlEntityCount;
  const bool utf8 = isUtf8(text);
  const bool latin1 = QmstringEqualsNoCase(encoding, "ISO-8859-1");
  std::string out;
  out.reserve(text.size());
  for (std::string::size_type pos = 0; pos < text.size();) {
    unsigned long cp = static_cast<unsigned char>(text[pos]);
    pos += utf8 ? utf8SequenceAt(text, pos, &cp) : 1;
    const Entity* entity = std::find_if(table, table + count, [cp](const Entity& candidate) {
      return static_cast<unsigned char>(candidate.character) == cp;
    });
    if (entity != table + count) {
      out += entity->text;
      continue;
    }
    if (!isXmlCharacter(cp)) cp = kXmlReplacement;
    if (cp < 0x80 || (latin1 && cp <= 0xFF)) {
      out += static_cast<char>(cp);
    } else if (latin1) {
      char reference[32];
      std::snprintf(reference, sizeof reference, "&#x%lx;", cp);
      out += reference;
    } else {
      QmstringAppendUtf8(out, cp);
    }
  }
  return out;
}

std::string QmsysCodec::EncodeHTML(const std::string& text, bool flag) {
  std::string out = EncodeNewLineCharacters(text);
  if (flag) out = QmstringReplaceAll(out, "&#x0A;", "<br>");
  return QmstringReplaceAll(out, "\"", "&quot;");
}

std::string QmsysCodec::DecodeHTML(const std::string& text) {
  return QmstringReplaceAll(text, "<br>", "\n");
}

std::string QmsysCodec::EncodeNewLineCharacters(const std::string& text) {
  return QmstringReplaceAll(QmstringReplaceAll(text, "\r\n", "<br>"), "\n", "<br>");
}

std::string QmsysCodec::EncodeMultiLineData(const std::string& text) {
  return QmstringReplaceAll(QmstringReplaceAll(text, "\r", "<CR>"), "\n", "<LF>");
}

std::string QmsysCodec::DecodeMultiLineData(const std::string& text) {
  return QmstringReplaceAll(QmstringReplaceAll(text, "<CR>", "\r"), "<LF>", "\n");
}

std::string QmsysCodec::EscapeJsonString(const std::string& text) {
  std::string out = QmstringReplaceAll(text, "\\", "\\\\");
  out = QmstringReplaceAll(out, "\"", "\\\"");
  out = QmstringReplaceAll(out, "\n", "\\n");
  out = QmstringReplaceAll(out, "\r", "\\r");
  return QmstringReplaceAll(out, "\t", "\\t");
}

std::string QmsysCodec::UnescapeJsonString(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::string::size_type i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 >= text.size()) {
      out += text[i];
      continue;
    }
    const char escaped = jsonEscapedCharacter(text[i + 1]);
    if (escaped) {
      out += escaped;
      ++i;
      continue;
    }
    const std::string::size_type used = decodeUnicodeEscape(text, i, out);
    if (used > 0) {
      i += used - 1;
    } else {
      out += text[i];  // unknown escape: kept as written
    }
  }
  return out;
}

std::string QmsysCodec::EscapeInternalJSON(const std::string& text) {
  std::string out;
  out.reserve(text.size() * 2);
  for (std::string::size_type i = 0; i < text.size(); ++i) {
    const char next = i + 1 < text.size() ? text[i + 1] : '\0';
    if (text[i] == '\\' && next == '\\') {
      out += "\\\\\\\\";
      ++i;
    } else if (text[i] == '\\' && next == '"') {
      out += "\\\\\\\"";
      ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string QmsysCodec::EncodeUnicodeCharacters(const std::string& text) {
  return QmstringReplaceAll(QmstringReplaceAll(text, "\\u003c", "<"), "\\u003e", ">");
}

std::string QmsysCodec::EscapeBackslash(const std::string& text) {
  return QmstringReplaceAll(text, "\\", "\\\\");
}

std::string QmsysCodec::UnescapeBackslash(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::string::size_type i = 0; i < text.size(); ++i) {
    out += text[i];
    if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '\\') ++i;
  }
  return out;
}

std::string QmsysCodec::EscapeTTSData(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c != '\'' && c != '"' && c != '\r' && c != '\n') out += c;
  }
  return out;
}

std::string QmsysCodec::EncodeDBFilterInput(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c == '_' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

void QmsysCodec::EncodeBase64(const unsigned char* data, int length, std::string& out,
                              bool lineBreaks) {
  out.clear();
  if (!data || length <= 0) return;
  out.reserve((length + 2) / 3 * 4 + (lineBreaks ? length / 57 * 2 + 2 : 0));
  int lineLength = 0;
  for (int i = 0; i < length; i += 3) {
    const int remaining = length - i;
    unsigned long group = static_cast<unsigned long>(data[i]) << 16;
    if (remaining > 1) group |= static_cast<unsigned long>(data[i + 1]) << 8;
    if (remaining > 2) group |= data[i + 2];
    out += kBase64Alphabet[(group >> 18) & 0x3F];
    out += kBase64Alphabet[(group >> 12) & 0x3F];
    out += remaining > 1 ? kBase64Alphabet[(group >> 6) & 0x3F] : '=';
    out += remaining > 2 ? kBase64Alphabet[group & 0x3F] : '=';
    lineLength += 4;
    if (lineBreaks && lineLength == kBase64LineLength) {
      out += "\r\n";
      lineLength = 0;
    }
  }
}

std::string QmsysCodec::EncodeBase64(const unsigned char* data, int length, bool lineBreaks) {
  std::string out;
  EncodeBase64(data, length, out, lineBreaks);
  return out;
}

bool QmsysCodec::DecodeBase64(char* buffer, int& length) {
  if (length < 0 || (!buffer && length > 0)) {
    length = 0;
    return false;
  }
  bool clean = true;
  int produced = 0;
  int bits = 0;
  unsigned int accumulator = 0;
  // Output never overtakes input: four symbols yield at most three bytes.
  for (int i = 0; i < length; ++i) {
    const char c = buffer[i];
    if (isBase64Whitespace(c)) continue;
    if (c == '=') break;
    const int value = base64Value(c);
    if (value < 0) {
      clean = false;
      continue;
    }
    accumulator = ((accumulator << 6) | static_cast<unsigned int>(value)) & 0xFFFFFF;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      buffer[produced++] = static_cast<char>((accumulator >> bits) & 0xFF);
    }
  }
  length = produced;
  return clean;
}
