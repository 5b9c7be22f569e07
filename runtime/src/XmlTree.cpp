#include "XmlTree.h"

#include <expat.h>

#include <climits>
#include <new>
#include <utility>

namespace {

// Builds the element tree from expat's callbacks. Any failure inside a
// callback stops the parser, which makes the whole parse fail.
class TreeBuilder {
 public:
  TreeBuilder(XML_Parser parser, XmlTree& tree) : m_parser(parser), m_tree(tree) {
    XML_SetUserData(parser, this);
    XML_SetElementHandler(parser, &TreeBuilder::OnStart, &TreeBuilder::OnEnd);
    XML_SetCharacterDataHandler(parser, &TreeBuilder::OnText);
    XML_SetXmlDeclHandler(parser, &TreeBuilder::OnDeclaration);
    XML_SetParamEntityParsing(parser, XML_PARAM_ENTITY_PARSING_NEVER);
  }

 private:
  static TreeBuilder* Self(void* data) { return static_cast<TreeBuilder*>(data); }

  static void OnStart(void* data, const XML_Char* name, const XML_Char** attributes) {
    Self(data)->Guard([&](TreeBuilder& b) { b.StartElement(name, attributes); });
  }

  static void OnEnd(void* data, const XML_Char*) {
    Self(data)->Guard([](TreeBuilder& b) { b.EndElement(); });
  }

  static void OnText(void* data, const XML_Char* text, int length) {
    Self(data)->Guard([&](TreeBuilder& b) {
      if (b.m_current != nullptr) b.m_current->appendContents(text, static_cast<size_t>(length));
    });
  }

  static void OnDeclaration(void* data, const XML_Char* version, const XML_Char* encoding,
                            int standalone) {
    Self(data)->Guard(
        [&](TreeBuilder& b) { b.m_tree.setDeclaration(version, encoding, standalone); });
  }

  template <typename Action>
  void Guard(Action action) {
    if (m_failed) return;
    try {
      action(*this);
    } catch (const std::bad_alloc&) {
      Fail();
    }
  }

  void Fail() {
    m_failed = true;
    XML_StopParser(m_parser, XML_FALSE);
  }

  void StartElement(const XML_Char* name, const XML_Char** attributes) {
    if (++m_depth > XmlTree::kMaxDepth) {
      Fail();
      return;
    }
    auto element = std::make_unique<XmlElement>(name);
    // expat refuses a document that repeats an attribute name.
    for (int i = 0; attributes[i] != nullptr; i += 2) {
      element->appendAttribute(attributes[i], attributes[i + 1]);
    }
    if (m_current == nullptr) {
      m_current = element.get();
      m_tree.setRoot(std::move(element));
    } else {
      m_current = m_current->addChild(std::move(element));
    }
  }

  void EndElement() {
    --m_depth;
    m_current->trimContents();
    m_current = m_current->parent();
  }

  XML_Parser m_parser;
  XmlTree& m_tree;
  XmlElement* m_current = nullptr;
  int m_depth = 0;
  bool m_failed = false;
};

// Owns one expat parser for the length of a parse.
struct ParserDeleter {
  void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
};

}  // namespace

std::unique_ptr<XmlTree> XmlTree::Parse(const char* data, size_t length) {
  if (data == nullptr || length > static_cast<size_t>(INT_MAX)) return nullptr;
  std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate(nullptr));
  if (!parser) return nullptr;
  auto tree = std::make_unique<XmlTree>();
  TreeBuilder builder(parser.get(), *tree);
  if (XML_Parse(parser.get(), data, static_cast<int>(length), XML_TRUE) != XML_STATUS_OK) {
    return nullptr;
  }
  return tree->root() != nullptr ? std::move(tree) : nullptr;
}

bool XmlTree::setRoot(std::unique_ptr<XmlElement> root) {
  if (m_root) return false;
  m_root = std::move(root);
  return true;
}

void XmlTree::setDeclaration(const char* version, const char* encoding, int standalone) {
  m_hasVersion = version != nullptr;
  m_version = version != nullptr ? version : "";
  m_hasEncoding = encoding != nullptr;
  m_encoding = encoding != nullptr ? encoding : "";
  m_standalone = standalone;
}
