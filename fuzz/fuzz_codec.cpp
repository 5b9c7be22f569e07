// Runs every decoder of the codec, and the XML text encoder that reads
// arbitrary bytes as UTF-8 or Latin-1, over arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "QmsysCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  QmsysCodec::DecodeUrl(text);
  QmsysCodec::DecodeXmlData(text);
  QmsysCodec::DecodeWebInputData(text, false);
  QmsysCodec::DecodeName(text);
  QmsysCodec::UnescapeJsonString(text);
  QmsysCodec::EncodeXmlText(text, "ISO-8859-1", false);
  QmsysCodec::EncodeXmlText(text, "UTF-8", true);
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back('\0');
  int length = static_cast<int>(size);
  QmsysCodec::DecodeBase64(buffer.data(), length);
  if (length < 0 || static_cast<size_t>(length) > size) __builtin_trap();
  return 0;
}
