#include "XmlElement.h"

#include <utility>

namespace {

bool IsXmlSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

}  // namespace

XmlElement::XmlElement(const std::string& name) : m_name(name) {}

XmlElement::~XmlElement() {
  // Flatten the subtree into a work list so that every element is destroyed
  // with no children left, whatever the depth.
  std::vector<std::unique_ptr<XmlElement>> pending = std::move(m_children);
  while (!pending.empty()) {
    std::unique_ptr<XmlElement> element = std::move(pending.back());
    pending.pop_back();
    for (auto& child : element->m_children) {
      pending.push_back(std::move(child));
    }
    element->m_children.clear();
  }
}

char* XmlElement::contents() {
  return m_hasContents ? &m_contents[0] : nullptr;
}

const char* XmlElement::contents() const {
  return m_hasContents ? m_contents.c_str() : nullptr;
}

void XmlElement::setContents(const char* text) {
  m_hasContents = text != nullptr;
  m_contents = text != nullptr ? text : "";
}

void XmlElement::appendContents(const char* text, size_t length) {
  m_contents.append(text, length);
  m_hasContents = true;
}

void XmlElement::trimContents() {
  size_t begin = 0;
  size_t end = m_contents.size();
  while (begin < end && IsXmlSpace(m_contents[begin])) ++begin;
  while (end > begin && IsXmlSpace(m_contents[end - 1])) --end;
  m_contents = m_contents.substr(begin, end - begin);
  m_hasContents = !m_contents.empty();
}

XmlElement* XmlElement::child(size_t index) const {
  return index < m_children.size() ? m_children[index].get() : nullptr;
}

XmlElement* XmlElement::nextSibling() const {
  return m_parent != nullptr ? m_parent->child(m_indexInParent + 1) : nullptr;
}

XmlElement* XmlElement::previousSibling() const {
  if (m_parent == nullptr || m_indexInParent == 0) return nullptr;
  return m_parent->child(m_indexInParent - 1);
}

XmlElement* XmlElement::addChild(std::unique_ptr<XmlElement> child) {
  child->m_parent = this;
  child->m_indexInParent = m_children.size();
  m_children.push_back(std::move(child));
  return m_children.back().get();
}

bool XmlElement::removeChild(size_t index) {
  if (index >= m_children.size()) return false;
  m_children.erase(m_children.begin() + static_cast<std::ptrdiff_t>(index));
  renumberChildrenFrom(index);
  return true;
}

void XmlElement::removeAllChildren() {
  // Moving the children into a temporary element reuses its flat teardown.
  XmlElement holder("");
  holder.m_children = std::move(m_children);
  m_children.clear();
}

void XmlElement::renumberChildrenFrom(size_t index) {
  for (size_t i = index; i < m_children.size(); ++i) {
    m_children[i]->m_indexInParent = i;
  }
}

XmlElement::Attribute* XmlElement::attribute(size_t index) const {
  return index < m_attributes.size() ? m_attributes[index].get() : nullptr;
}

XmlElement::Attribute* XmlElement::findAttribute(const std::string& name) const {
  for (const auto& attribute : m_attributes) {
    if (attribute->name() == name) return attribute.get();
  }
  return nullptr;
}

XmlElement::Attribute* XmlElement::setAttribute(const std::string& name, const std::string& value) {
  Attribute* existing = findAttribute(name);
  if (existing != nullptr) {
    existing->setValue(value);
    return existing;
  }
  return appendAttribute(name, value);
}

XmlElement::Attribute* XmlElement::appendAttribute(const std::string& name,
                                                   const std::string& value) {
  m_attributes.push_back(std::make_unique<Attribute>(name, value));
  return m_attributes.back().get();
}

XmlElement::Attribute* XmlElement::nextAttribute(const Attribute* current) const {
  if (current == nullptr) return attribute(0);
  for (size_t i = 0; i < m_attributes.size(); ++i) {
    if (m_attributes[i].get() == current) return attribute(i + 1);
  }
  return nullptr;
}

bool XmlElement::removeAttribute(const Attribute* attribute) {
  for (auto it = m_attributes.begin(); it != m_attributes.end(); ++it) {
    if (it->get() == attribute) {
      m_attributes.erase(it);
      return true;
    }
  }
  return false;
}
