#include "OAPBlock.h"

#include <climits>
#include <memory>
#include <vector>

#include "OAPBlockBody.h"
#include "OAPBlockFactory.h"
#include "OAPBlockHeader.h"
#include "QmString.h"

OAPBlock::OAPBlock(BlockType blockType) : type(blockType) {}

OAPBlock::BlockType OAPBlock::GetType() const {
  return type;
}

uint32_t OAPBlock::GetID() const {
  return id;
}

std::string OAPBlock::GetEncoding() const {
  return encoding;
}

std::string OAPBlock::GetServiceVersion() const {
  return version;
}

std::string OAPBlock::GetServiceName() const {
  return body != nullptr ? body->GetServiceName() : std::string();
}

std::string OAPBlock::Serialize() {
  return std::string();
}

void OAPBlock::SetBody(OAPBlockBody* newBody) {
  body = newBody;
}

void OAPBlock::SetHeader(OAPBlockHeader* newHeader) {
  header = newHeader;
}

OAPBlock::~OAPBlock() {
  delete header;
  delete body;
}

namespace {

// Reads the document and builds the block; node errors propagate as
// exceptions, a document that does not parse or has an unknown root yields
// null.
std::unique_ptr<OAPBlock> BuildBlock(const std::string& text) {
  if (text.size() > UINT_MAX) return nullptr;
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back('\0');
  XmlReaderWriter document;
  if (!document.readFrom(buffer.data(), static_cast<unsigned>(text.size()))) return nullptr;
  XmlReaderWriter::Node root = document.getRootNode();
  const std::string rootName = root.name();
  const std::string version = root.attributeValue("version");
  std::unique_ptr<OAPBlock> block(OAPBlockFactory::GetBlock(rootName));
  if (!block) return nullptr;
  block->version = version;
  if (root.isAttribute("id")) {
    const std::string idText = root.attributeValue("id");
    block->id = QmHexStrToUInt(idText);
  }
  block->ParseXML(root);
  return block;
}

}  // namespace

OAPBlock* OAPBlock::Parse(const std::string& text) {
  try {
    return BuildBlock(text).release();
  } catch (...) {
    return nullptr;
  }
}
