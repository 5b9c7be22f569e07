#ifndef QM_OAP_OAPRESPONSEBLOCK_H
#define QM_OAP_OAPRESPONSEBLOCK_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "OAPBlock.h"

// An OAP-response document as received from the server: the status of a
// request (class and code), its optional text, and for interactive classes
// the handset's reply. Read-only once parsed; never serialised by the driver.
class OAPResponseBlock : public OAPBlock {
 public:
  // A status class and code with the fixed text that describes the pair.
  class GenStatus {
   public:
    struct StatusResponse {
      int32_t type;
      int32_t code;
      const char* text;
    };
    // Every known (class, code) pair, searched from the first row.
    static const StatusResponse arrStatusResponses[];
    static const size_t statusResponseCount;

    int32_t type = 0;
    int32_t code = 0;

    // The text of the first row matching (type, code), or "Unknown Code".
    std::string GetMessage() const;
  };

  GenStatus status;
  std::string text;
  std::string service;
  std::string from;
  std::string serviceName;
  std::string dataResp;
  std::string userResponse;

  OAPResponseBlock();

  // Reads Status (Type and Code required), its Text, and for classes 4 and 5
  // the reply in TypeSpecific.
  void ParseXML(XmlReaderWriter::Node& root) override;
  ~OAPResponseBlock() override;

  // Reads From (required) and DataResp, or failing that UserResponse; only
  // for classes 4 and 5.
  void LoadTypeSpecific(XmlReaderWriter::Node& typeSpecific);
};

#endif
