// Runs every decoder of the codec over arbitrary text.
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
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back('\0');
  int length = static_cast<int>(size);
  QmsysCodec::DecodeBase64(buffer.data(), length);
  if (length < 0 || static_cast<size_t>(length) > size) __builtin_trap();
  return 0;
}
