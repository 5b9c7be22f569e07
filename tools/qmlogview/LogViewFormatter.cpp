#include "LogViewFormatter.h"

#include <algorithm>

#include "QmString.h"
#include "QmsysEventLogWriterInterface.h"

namespace {

const size_t kTimeWidth = 19;  // "YYYY-MM-DD HH:MM:SS"
const size_t kLevelWidth = 8;  // "CRITICAL"
const char* const kGap = "  ";

std::string Pad(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

// Length of the valid UTF-8 sequence starting at `at`, 0 when there is none.
size_t Utf8SequenceLength(const std::string& text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  size_t length = 0;
  unsigned int minimum = 0;
  unsigned int code = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, minimum = 0x80, code = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, minimum = 0x800, code = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, minimum = 0x10000, code = lead & 0x07;
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) return 0;
    code = (code << 6) | (byte(at + i) & 0x3F);
  }
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  return (code < minimum || code > 0x10FFFF || surrogate) ? 0 : length;
}

}  // namespace

LogViewFormatter::LogViewFormatter(bool json, size_t moduleWidth)
    : m_json(json), m_moduleWidth(std::max(moduleWidth, std::string("MODULE").size())) {}

std::string LogViewFormatter::Header() const {
  if (m_json) return std::string();
  return Pad("TIME", kTimeWidth) + kGap + Pad("MODULE", m_moduleWidth) + kGap +
         Pad("LEVEL", kLevelWidth) + kGap + "MESSAGE";
}

std::string LogViewFormatter::Format(const LogEntry& entry) const {
  return m_json ? FormatJson(entry) : FormatRow(entry);
}

std::string LogViewFormatter::FormatRow(const LogEntry& entry) const {
  return Pad(LocalTime(entry.time), kTimeWidth) + kGap +
         Pad(TableEscape(entry.module), m_moduleWidth) + kGap +
         Pad(LevelName(entry.level), kLevelWidth) + kGap + TableEscape(entry.message);
}

std::string LogViewFormatter::FormatJson(const LogEntry& entry) const {
  return "{\"time\":" + std::to_string(static_cast<long long>(entry.time)) + ",\"local_time\":\"" +
         LocalTime(entry.time) + "\",\"module\":\"" + JsonEscape(entry.module) +
         "\",\"level\":" + std::to_string(entry.level) + ",\"level_name\":\"" +
         JsonEscape(LevelName(entry.level)) + "\",\"message\":\"" + JsonEscape(entry.message) +
         "\",\"file\":\"" + JsonEscape(entry.srcfile) +
         "\",\"line\":" + std::to_string(entry.line) + "}";
}

std::string LogViewFormatter::LocalTime(time_t time) {
  std::tm local{};
  if (localtime_r(&time, &local) == nullptr) return std::to_string(static_cast<long long>(time));
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

std::string LogViewFormatter::LevelName(int level) {
  if (level < QmLogInterface::LEVEL_NONE || level > QmLogInterface::LEVEL_FATAL) {
    return std::to_string(level);
  }
  return QmsysEventLogWriterInterface::getLogLevelString(level);
}

std::string LogViewFormatter::JsonEscape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const size_t length = Utf8SequenceLength(text, i);
      if (length > 0) {
        out.append(text, i, length);
        i += length;
      } else {
        out += QmstringFormat("\\u%04x", c);
        ++i;
      }
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          out += QmstringFormat("\\u%04x", c);
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  return out;
}

std::string LogViewFormatter::TableEscape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7F) {
      out += QmstringFormat("\\x%02X", c);
    } else {
      out += ch;
    }
  }
  return out;
}

size_t LogViewFormatter::ModuleWidth(const std::vector<std::string>& modules) {
  size_t width = 0;
  for (const auto& name : modules) width = std::max(width, TableEscape(name).size());
  return width;
}
