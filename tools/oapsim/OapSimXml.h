#ifndef QM_TOOLS_OAPSIM_OAPSIMXML_H
#define QM_TOOLS_OAPSIM_OAPSIMXML_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

// Element tree of one received XML document, read with expat. The simulator
// checks the driver's documents with this tree of its own instead of the
// driver's parsing classes, so that a fault there cannot hide itself. The
// document owns every element; elements own their children.
class OapSimXml {
 public:
  struct Element {
    std::string name;
    std::vector<std::pair<std::string, std::string>> attributes;
    std::string text;  // character data directly inside this element
    std::vector<std::unique_ptr<Element>> children;

    // First child of that name, or null.
    const Element* Child(const std::string& childName) const;
    std::vector<const Element*> Children(const std::string& childName) const;
    bool HasAttribute(const std::string& attributeName) const;
    std::string Attribute(const std::string& attributeName) const;
  };

  // Deepest nesting accepted; deeper documents are refused as malformed.
  static constexpr int kMaxDepth = 64;

  // Parses the whole text. False with Error() set when it is not well formed.
  bool Parse(const std::string& text);

  const std::string& Error() const { return m_error; }
  bool HasDeclaration() const { return m_hasDeclaration; }
  const std::string& DeclarationVersion() const { return m_declVersion; }
  const std::string& DeclarationEncoding() const { return m_declEncoding; }
  const Element* Root() const { return m_root.get(); }

 private:
  struct Builder;

  std::unique_ptr<Element> m_root;
  std::string m_error;
  bool m_hasDeclaration = false;
  std::string m_declVersion;
  std::string m_declEncoding;
};

#endif
