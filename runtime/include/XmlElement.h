#ifndef QM_RUNTIME_XMLELEMENT_H
#define QM_RUNTIME_XMLELEMENT_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

// One element of an XML element tree: a name, optional text contents, its
// attributes in document order and its children in order, with a pointer to
// its parent. An element owns its attributes and its children; the parent
// pointer does not own. Destroying an element frees its whole subtree without
// recursion, so arbitrarily deep trees cannot exhaust the stack.
class XmlElement {
 public:
  // One name="value" pair of an element; owned by the element.
  class Attribute {
   public:
    Attribute(const std::string& name, const std::string& value) : m_name(name), m_value(value) {}
    const std::string& name() const { return m_name; }
    const std::string& value() const { return m_value; }
    // Writable pointers into the stored texts, valid until the next change.
    char* nameData() { return &m_name[0]; }
    char* valueData() { return &m_value[0]; }
    void setName(const std::string& name) { m_name = name; }
    void setValue(const std::string& value) { m_value = value; }

   private:
    std::string m_name;
    std::string m_value;
  };

  explicit XmlElement(const std::string& name);
  ~XmlElement();
  XmlElement(const XmlElement&) = delete;
  XmlElement& operator=(const XmlElement&) = delete;

  const std::string& name() const { return m_name; }
  char* nameData() { return &m_name[0]; }
  void setName(const std::string& name) { m_name = name; }

  // Contents: null when the element has none.
  char* contents();
  const char* contents() const;
  bool hasContents() const { return m_hasContents; }
  // A null text removes the contents; any other text (even "") is stored.
  void setContents(const char* text);
  // Used while parsing: character data is appended in document order and,
  // when the element ends, trimmed; nothing left means no contents.
  void appendContents(const char* text, size_t length);
  void trimContents();

  XmlElement* parent() const { return m_parent; }
  // Position among the parent's children (0 for an element without parent).
  size_t indexInParent() const { return m_indexInParent; }
  size_t childCount() const { return m_children.size(); }
  XmlElement* child(size_t index) const;
  // The siblings in the parent's child list, or null at either end and for
  // an element without a parent.
  XmlElement* nextSibling() const;
  XmlElement* previousSibling() const;
  // Appends `child` (taking ownership) and returns it.
  XmlElement* addChild(std::unique_ptr<XmlElement> child);
  // Frees the child at `index`; false when there is none.
  bool removeChild(size_t index);
  void removeAllChildren();

  size_t attributeCount() const { return m_attributes.size(); }
  Attribute* attribute(size_t index) const;
  Attribute* findAttribute(const std::string& name) const;
  // Sets the attribute, replacing the value of an existing one of that name
  // in place; returns it.
  Attribute* setAttribute(const std::string& name, const std::string& value);
  // Appends an attribute without looking for one of that name, for a parser
  // that has already refused duplicate names; returns it.
  Attribute* appendAttribute(const std::string& name, const std::string& value);
  // The attribute after `current` (the first one when `current` is null),
  // or null at the end.
  Attribute* nextAttribute(const Attribute* current) const;
  bool removeAttribute(const Attribute* attribute);
  void removeAllAttributes() { m_attributes.clear(); }

 private:
  void renumberChildrenFrom(size_t index);

  std::string m_name;
  std::string m_contents;
  bool m_hasContents = false;
  XmlElement* m_parent = nullptr;
  size_t m_indexInParent = 0;
  std::vector<std::unique_ptr<XmlElement>> m_children;
  std::vector<std::unique_ptr<Attribute>> m_attributes;
};

#endif
