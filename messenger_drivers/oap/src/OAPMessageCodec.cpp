#include "OAPMessageCodec.h"

#include <cstdint>

#include "MessageBody.h"

namespace {

// The first number of an encoded body; another layout would take another value.
const uint32_t kBodyLayout = 1;

// Appends values: 32-bit numbers little-endian, flags as one byte, texts as
// their length and bytes. Each call returns true, so that one field list
// serves both directions (see Fields).
class Writer {
 public:
  bool Int(const uint32_t* value) {
    for (int shift = 0; shift < 32; shift += 8) m_bytes += static_cast<char>(*value >> shift);
    return true;
  }
  bool Int(const int32_t* value) {
    const auto bits = static_cast<uint32_t>(*value);
    return Int(&bits);
  }
  bool Flag(const bool* value) {
    m_bytes += *value ? '\1' : '\0';
    return true;
  }
  bool Text(const std::string* text) {
    const auto size = static_cast<uint32_t>(text->size());
    Int(&size);
    m_bytes += *text;
    return true;
  }
  std::string Take() { return std::move(m_bytes); }

 private:
  std::string m_bytes;
};

// Reads what Writer wrote; a read fails when the bytes run out.
class Reader {
 public:
  explicit Reader(const std::string& bytes) : m_bytes(bytes) {}

  bool Int(uint32_t* value) {
    if (m_bytes.size() - m_next < 4) return false;
    *value = 0;
    for (int shift = 0; shift < 32; shift += 8) {
      *value |= static_cast<uint32_t>(static_cast<uint8_t>(m_bytes[m_next++])) << shift;
    }
    return true;
  }
  bool Int(int32_t* value) {
    uint32_t bits = 0;
    if (!Int(&bits)) return false;
    *value = static_cast<int32_t>(bits);
    return true;
  }
  bool Flag(bool* value) {
    if (m_next >= m_bytes.size()) return false;
    *value = m_bytes[m_next++] != 0;
    return true;
  }
  bool Text(std::string* text) {
    uint32_t size = 0;
    if (!Int(&size) || m_bytes.size() - m_next < size) return false;
    text->assign(m_bytes, m_next, size);
    m_next += size;
    return true;
  }
  bool AtEnd() const { return m_next == m_bytes.size(); }

 private:
  const std::string& m_bytes;
  size_t m_next = 0;
};

template <typename Stream, typename Option>
bool OptionFields(Stream& s, Option& o) {
  return s.Text(&o.text) && s.Text(&o.dataResp) && s.Text(&o.callNo) && s.Int(&o.reserved1) &&
         s.Text(&o.reservedText);
}

// Every field of a body in one fixed order, written (Body const) or read.
template <typename Stream, typename Body>
bool Fields(Stream& s, Body& b) {
  return s.Text(&b.version) && s.Text(&b.serviceName) && s.Int(&b.id) && s.Text(&b.to) &&
         s.Text(&b.subjectText) && s.Text(&b.bodyText) && s.Int(&b.beep) && s.Flag(&b.urgent) &&
         s.Int(&b.reserved1) && s.Text(&b.intensity) && s.Text(&b.colour) && s.Int(&b.reserved2) &&
         s.Int(&b.intervalTime) && s.Int(&b.numberOfRepetitions) && s.Int(&b.priority) &&
         s.Int(&b.ttl) && s.Text(&b.reservedText) && s.Flag(&b.updateOnlyExisting) &&
         s.Flag(&b.wipeOptions) && s.Int(&b.auxValue) && s.Flag(&b.sticky) &&
         s.Text(&b.userResponseLabel) && s.Text(&b.fromNumber) && s.Flag(&b.replyHeaderAdded);
}

}  // namespace

std::string OAPMessageCodec::EncodeBody(const MessageBody& body) {
  Writer writer;
  writer.Int(&kBodyLayout);
  Fields(writer, body);
  const auto count = static_cast<uint32_t>(body.options.size());
  writer.Int(&count);
  for (const MessageBody::Option& option : body.options) OptionFields(writer, option);
  return writer.Take();
}

bool OAPMessageCodec::DecodeBody(const std::string& bytes, MessageBody* out) {
  Reader reader(bytes);
  uint32_t layout = 0, count = 0;
  if (!reader.Int(&layout) || layout != kBodyLayout || !Fields(reader, *out) ||
      !reader.Int(&count)) {
    return false;
  }
  out->options.clear();
  for (uint32_t i = 0; i < count; ++i) {
    MessageBody::Option option;
    if (!OptionFields(reader, option)) return false;
    out->options.push_back(std::move(option));
  }
  return reader.AtEnd();
}

std::string OAPMessageCodec::EncodeTexts(const std::list<std::string>& texts) {
  Writer writer;
  for (const std::string& text : texts) writer.Text(&text);
  return writer.Take();
}

bool OAPMessageCodec::DecodeTexts(const std::string& bytes, std::list<std::string>* out) {
  out->clear();
  Reader reader(bytes);
  while (!reader.AtEnd()) {
    std::string text;
    if (!reader.Text(&text)) return false;
    out->push_back(std::move(text));
  }
  return true;
}
