// Feeds arbitrary text to the one entry point for received OAP documents.
#include <cstddef>
#include <cstdint>
#include <string>

#include "OAPBlock.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OAPBlock* block = OAPBlock::Parse(std::string(reinterpret_cast<const char*>(data), size));
  if (block != nullptr) {
    block->GetServiceName();
    delete block;
  }
  return 0;
}
