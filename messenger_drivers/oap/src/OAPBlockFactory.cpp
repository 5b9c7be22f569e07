#include "OAPBlockFactory.h"

#include "OAPRequestBlock.h"
#include "OAPResponseBlock.h"

OAPBlock* OAPBlockFactory::GetBlock(const std::string& rootName) {
  if (rootName == "OAP-response") return new OAPResponseBlock();
  if (rootName == "OAP-request") return new OAPRequestBlock();
  return nullptr;
}
