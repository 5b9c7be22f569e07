#include "OapSimXml.h"

#include <expat.h>

#include <climits>

// Parser callbacks: builds the tree while expat reads, and stops the parse
// when the nesting gets too deep.
struct OapSimXml::Builder {
  OapSimXml* document = nullptr;
  XML_Parser parser = nullptr;
  std::vector<Element*> open;
  bool tooDeep = false;

  static void OnDeclaration(void* self, const XML_Char* version, const XML_Char* encoding,
                            int /*standalone*/) {
    auto* builder = static_cast<Builder*>(self);
    builder->document->m_hasDeclaration = version != nullptr;
    builder->document->m_declVersion = version ? version : "";
    builder->document->m_declEncoding = encoding ? encoding : "";
  }

  static void OnStart(void* self, const XML_Char* name, const XML_Char** attributes) {
    auto* builder = static_cast<Builder*>(self);
    if (static_cast<int>(builder->open.size()) >= kMaxDepth) {
      builder->tooDeep = true;
      XML_StopParser(builder->parser, XML_FALSE);
      return;
    }
    auto element = std::make_unique<Element>();
    element->name = name;
    for (int i = 0; attributes[i] != nullptr; i += 2) {
      element->attributes.emplace_back(attributes[i], attributes[i + 1]);
    }
    Element* raw = element.get();
    if (builder->open.empty()) {
      builder->document->m_root = std::move(element);
    } else {
      builder->open.back()->children.push_back(std::move(element));
    }
    builder->open.push_back(raw);
  }

  static void OnEnd(void* self, const XML_Char* /*name*/) {
    static_cast<Builder*>(self)->open.pop_back();
  }

  static void OnText(void* self, const XML_Char* text, int length) {
    auto* builder = static_cast<Builder*>(self);
    if (!builder->open.empty()) builder->open.back()->text.append(text, length);
  }
};

const OapSimXml::Element* OapSimXml::Element::Child(const std::string& childName) const {
  for (const auto& child : children) {
    if (child->name == childName) return child.get();
  }
  return nullptr;
}

std::vector<const OapSimXml::Element*> OapSimXml::Element::Children(
    const std::string& childName) const {
  std::vector<const Element*> found;
  for (const auto& child : children) {
    if (child->name == childName) found.push_back(child.get());
  }
  return found;
}

bool OapSimXml::Element::HasAttribute(const std::string& attributeName) const {
  for (const auto& attribute : attributes) {
    if (attribute.first == attributeName) return true;
  }
  return false;
}

std::string OapSimXml::Element::Attribute(const std::string& attributeName) const {
  for (const auto& attribute : attributes) {
    if (attribute.first == attributeName) return attribute.second;
  }
  return "";
}

bool OapSimXml::Parse(const std::string& text) {
  m_root.reset();
  m_error.clear();
  m_hasDeclaration = false;
  m_declVersion.clear();
  m_declEncoding.clear();
  if (text.size() > static_cast<size_t>(INT_MAX)) {
    m_error = "document too large";
    return false;
  }

  std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> parser(XML_ParserCreate(nullptr),
                                                                 XML_ParserFree);
  if (!parser) {
    m_error = "cannot create XML parser";
    return false;
  }
  Builder builder;
  builder.document = this;
  builder.parser = parser.get();
  XML_SetUserData(parser.get(), &builder);
  XML_SetXmlDeclHandler(parser.get(), &Builder::OnDeclaration);
  XML_SetElementHandler(parser.get(), &Builder::OnStart, &Builder::OnEnd);
  XML_SetCharacterDataHandler(parser.get(), &Builder::OnText);

  if (XML_Parse(parser.get(), text.data(), static_cast<int>(text.size()), XML_TRUE) ==
      XML_STATUS_OK) {
    return true;
  }
  if (builder.tooDeep) {
    m_error = "elements nested more than " + std::to_string(kMaxDepth) + " deep";
  } else {
    m_error = std::string(XML_ErrorString(XML_GetErrorCode(parser.get()))) + " at line " +
              std::to_string(XML_GetCurrentLineNumber(parser.get()));
  }
  m_root.reset();
  return false;
}
