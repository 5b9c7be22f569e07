// Parses arbitrary bytes as an XML document and serialises what was read.
// Re-reading the output is not required: the writer copies text that looks
// like an entity or character reference unescaped.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "XmlReaderWriter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<char> buffer(data, data + size);
  XmlReaderWriter document;
  if (document.readFrom(buffer.data(), static_cast<unsigned>(buffer.size()))) {
    std::string text;
    if (!document.toString(text) || text.empty()) __builtin_trap();
    document.getRootNode().toString();
  }
  return 0;
}
