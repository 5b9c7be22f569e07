#ifndef QM_OAP_OAPBLOCK_H
#define QM_OAP_OAPBLOCK_H

#include <cstdint>
#include <string>

#include "XmlReaderWriter.h"

class OAPBlockBody;
class OAPBlockHeader;

// One OAP document exchanged with the server: a request or a response. The
// block owns its header and its body and frees both when it is destroyed.
// Blocks are not copyable.
class OAPBlock {
 public:
  enum BlockType : int32_t { Request = 0, Response = 1 };

  BlockType type;
  std::string version;
  std::string reserved;
  std::string encoding;
  uint32_t id = 0;
  OAPBlockHeader* header = nullptr;
  OAPBlockBody* body = nullptr;

  explicit OAPBlock(BlockType blockType);
  OAPBlock(const OAPBlock&) = delete;
  OAPBlock& operator=(const OAPBlock&) = delete;

  virtual BlockType GetType() const;
  virtual uint32_t GetID() const;
  virtual std::string GetEncoding() const;
  virtual std::string GetServiceVersion() const;
  // The attached body's service name, or "" without a body.
  virtual std::string GetServiceName() const;
  // Fills the block from the root element of a received document.
  virtual void ParseXML(XmlReaderWriter::Node& root) = 0;
  // The block as XML text; the base writes nothing.
  virtual std::string Serialize();
  // Take ownership of the given pointer; a body or header already held is
  // left to whoever attached it.
  virtual void SetBody(OAPBlockBody* newBody);
  virtual void SetHeader(OAPBlockHeader* newHeader);
  virtual ~OAPBlock();

  // Turns received text into a new block owned by the caller. Returns null for
  // anything that is not a readable OAP-request or OAP-response; never throws.
  static OAPBlock* Parse(const std::string& text);
};

#endif
