#ifndef QM_OAP_OAPBLOCKFACTORY_H
#define QM_OAP_OAPBLOCKFACTORY_H

#include <string>

class OAPBlock;

// Picks the block class for a document's root element name.
class OAPBlockFactory {
 public:
  // A new block owned by the caller: OAPResponseBlock for "OAP-response",
  // OAPRequestBlock for "OAP-request" (exact, case-sensitive); null otherwise.
  static OAPBlock* GetBlock(const std::string& rootName);
};

#endif
