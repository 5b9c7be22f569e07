#include "XmlOutputEncoding.h"

#include <strings.h>

#include <cstring>

#include "QmString.h"

namespace {

const unsigned long kReplacement = 0xFFFD;

struct KnownEncoding {
  const char* name;
  int form;
  unsigned long limit;
};

// The characters XML 1.0 allows in a document.
bool IsXmlChar(unsigned long c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

bool IsAsciiLetter(unsigned long c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Name characters below U+0100 as the parser takes them; above, every
// character XML allows.
bool IsNameStart(unsigned long c) {
  if (c < 0x80) return IsAsciiLetter(c) || c == '_' || c == ':';
  if (c < 0x100)
    return c == 0xAA || c == 0xB5 || c == 0xBA || (c >= 0xC0 && c != 0xD7 && c != 0xF7);
  return IsXmlChar(c);
}

bool IsNameChar(unsigned long c) {
  return IsNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == 0xB7;
}

// Decodes the UTF-8 character at text[at], moving `at` past it. A byte that
// starts no well-formed character is taken alone, as ISO-8859-1.
unsigned long Decode(const std::string& text, size_t& at) {
  const unsigned char lead = static_cast<unsigned char>(text[at]);
  size_t length = 0;
  unsigned long c = 0;
  unsigned long least = 0;
  if (lead < 0x80) {
    ++at;
    return lead;
  } else if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, c = lead & 0x1F, least = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, c = lead & 0x0F, least = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, c = lead & 0x07, least = 0x10000;
  }
  if (length == 0 || at + length > text.size()) {
    ++at;
    return lead;
  }
  for (size_t i = 1; i < length; ++i) {
    const unsigned char next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) {
      ++at;
      return lead;
    }
    c = (c << 6) | (next & 0x3F);
  }
  if (c < least || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
    ++at;
    return lead;
  }
  at += length;
  return c;
}

void AppendUtf16Unit(unsigned long unit, bool bigEndian, std::string& out) {
  const char high = static_cast<char>((unit >> 8) & 0xFF);
  const char low = static_cast<char>(unit & 0xFF);
  out += bigEndian ? high : low;
  out += bigEndian ? low : high;
}

}  // namespace

XmlOutputEncoding::XmlOutputEncoding(const char* name) : m_declaredName("UTF-8") {
  static const KnownEncoding kKnown[] = {
      {"UTF-8", UTF8, 0x10FFFF},       {"UTF-16", UTF16_BOM, 0x10FFFF},
      {"UTF-16LE", UTF16LE, 0x10FFFF}, {"UTF-16BE", UTF16BE, 0x10FFFF},
      {"ISO-8859-1", LATIN1, 0xFF},    {"US-ASCII", ASCII, 0x7F}};
  if (name == nullptr) return;
  for (const KnownEncoding& known : kKnown) {
    if (strcasecmp(name, known.name) == 0) {
      m_form = static_cast<Form>(known.form);
      m_limit = known.limit;
      m_declaredName = name;
    }
  }
}

bool XmlOutputEncoding::appendName(const std::string& name, std::string& out) const {
  bool valid = !name.empty();
  for (size_t at = 0; at < name.size();) {
    const bool first = at == 0;
    const unsigned long c = Decode(name, at);
    valid = valid && c <= m_limit && (first ? IsNameStart(c) : IsNameChar(c));
    QmstringAppendUtf8(out, c);
  }
  return valid;
}

void XmlOutputEncoding::appendText(const std::string& text, std::string& out) const {
  for (size_t at = 0; at < text.size();) {
    unsigned long c = Decode(text, at);
    if (!IsXmlChar(c)) c = kReplacement;
    if (c <= m_limit) {
      QmstringAppendUtf8(out, c);
    } else {
      out += "&#" + std::to_string(c) + ";";
    }
  }
}

std::string XmlOutputEncoding::encode(const std::string& utf8) const {
  if (m_form == UTF8) return utf8;
  std::string out;
  if (m_form == UTF16_BOM) out += "\xFF\xFE";
  for (size_t at = 0; at < utf8.size();) {
    const unsigned long c = Decode(utf8, at);
    if (m_form == LATIN1 || m_form == ASCII) {
      out += static_cast<char>(c);  // appendName and appendText kept it within the limit
    } else if (c < 0x10000) {
      AppendUtf16Unit(c, m_form == UTF16BE, out);
    } else {
      AppendUtf16Unit(0xD800 + ((c - 0x10000) >> 10), m_form == UTF16BE, out);
      AppendUtf16Unit(0xDC00 + ((c - 0x10000) & 0x3FF), m_form == UTF16BE, out);
    }
  }
  return out;
}
