#include "QmString.h"

#include <strings.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <sstream>
#include <vector>

std::string QmstringFormat(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string result = QmstringFormatV(format, args);
  va_end(args);
  return result;
}

std::string QmstringFormatV(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int needed = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (needed <= 0) return std::string();
  std::vector<char> buffer(static_cast<size_t>(needed) + 1);
  std::vsnprintf(buffer.data(), buffer.size(), format, args);
  return std::string(buffer.data(), static_cast<size_t>(needed));
}

namespace {
bool IsSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}
}  // namespace

std::string QmstringTrimLeft(const std::string& text) {
  size_t start = 0;
  while (start < text.size() && IsSpace(text[start])) ++start;
  return text.substr(start);
}

std::string QmstringTrimRight(const std::string& text) {
  size_t end = text.size();
  while (end > 0 && IsSpace(text[end - 1])) --end;
  return text.substr(0, end);
}

std::string QmstringTrim(const std::string& text) {
  return QmstringTrimLeft(QmstringTrimRight(text));
}

int QmstringCompareNoCase(const std::string& a, const std::string& b) {
  return strcasecmp(a.c_str(), b.c_str());
}

bool QmstringEqualsNoCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && QmstringCompareNoCase(a, b) == 0;
}

std::string QmstringReplaceAll(const std::string& text, const std::string& from,
                               const std::string& to) {
  if (from.empty()) return text;
  std::string result;
  size_t pos = 0;
  for (size_t hit; (hit = text.find(from, pos)) != std::string::npos; pos = hit + from.size()) {
    result.append(text, pos, hit - pos).append(to);
  }
  return result.append(text, pos, std::string::npos);
}

std::string QmstringSafeByteString(const unsigned char* data, size_t length) {
  std::string out;
  out.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = data[i];
    switch (c) {
      case '\r':
        out += "\\r";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\\':
        out += "\\\\";
        break;
      default:
        if (c >= 0x20 && c < 0x7f) {
          out += static_cast<char>(c);
        } else {
          char hex[5];
          std::snprintf(hex, sizeof(hex), "\\x%02X", c);
          out += hex;
        }
    }
  }
  return out;
}

std::string QmstringSafeByteString(const std::string& data) {
  return QmstringSafeByteString(reinterpret_cast<const unsigned char*>(data.data()), data.size());
}

std::string QmstringReplaceColon(const std::string& text) {
  std::string out;
  size_t pos = 0;
  while (true) {
    const size_t hit = text.find("%3", pos);
    if (hit == std::string::npos || hit + 2 >= text.size() ||
        (text[hit + 2] != 'a' && text[hit + 2] != 'A')) {
      break;
    }
    out.append(text, pos, hit - pos).append(":");
    pos = hit + 3;
  }
  return out.append(text, pos, std::string::npos);
}

unsigned int QmHexStrToUInt(const std::string& text) {
  // One stream per thread, reset for every call: setting up a new stream
  // (its locale above all) costs more than the read itself.
  thread_local std::istringstream stream;
  stream.clear();
  stream.str(text);
  unsigned int value = 0;
  stream >> std::hex >> value;
  return value;  // 0 when no hex digit was read, the maximum on overflow
}

void QmstringAppendUtf8(std::string& out, unsigned long codePoint) {
  if (codePoint < 0x80) {
    out += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    out += static_cast<char>(0xC0 | (codePoint >> 6));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    out += static_cast<char>(0xE0 | (codePoint >> 12));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (codePoint >> 18));
    out += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (codePoint & 0x3F));
  }
}
