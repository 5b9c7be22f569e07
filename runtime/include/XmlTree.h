#ifndef QM_RUNTIME_XMLTREE_H
#define QM_RUNTIME_XMLTREE_H

#include <cstddef>
#include <memory>
#include <string>

#include "XmlElement.h"

// A parsed or built XML document: the root element (owned) and what the XML
// declaration said about version, encoding and standalone. Parsing goes
// through expat in one call over the whole buffer, ignores whitespace-only
// text, never loads external entities and refuses documents nested deeper
// than kMaxDepth. The tree always holds UTF-8 text.
class XmlTree {
 public:
  static const int kMaxDepth = 4096;

  // Standalone as the declaration gave it: absent, "no" or "yes".
  enum Standalone { STANDALONE_ABSENT = -1, STANDALONE_NO = 0, STANDALONE_YES = 1 };

  XmlTree() = default;
  XmlTree(const XmlTree&) = delete;
  XmlTree& operator=(const XmlTree&) = delete;

  // The tree of a well-formed document, or null when the text does not parse.
  static std::unique_ptr<XmlTree> Parse(const char* data, size_t length);

  XmlElement* root() const { return m_root.get(); }
  // Installs the root element; false when the tree already has one.
  bool setRoot(std::unique_ptr<XmlElement> root);

  // Null when the declaration did not give the value.
  const char* version() const { return m_hasVersion ? m_version.c_str() : nullptr; }
  const char* encoding() const { return m_hasEncoding ? m_encoding.c_str() : nullptr; }
  int standalone() const { return m_standalone; }

  void setDeclaration(const char* version, const char* encoding, int standalone);

 private:
  std::unique_ptr<XmlElement> m_root;
  std::string m_version;
  std::string m_encoding;
  bool m_hasVersion = false;
  bool m_hasEncoding = false;
  int m_standalone = STANDALONE_ABSENT;
};

#endif
