#include "XmlReaderWriter.h"

#include <strings.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "QmioException.h"
#include "QmioFile.h"
#include "XmlOutputEncoding.h"

namespace {

const char kNotInTree[] = "Not an actual node in the XML tree.";
const char kNoElement[] = "NULL node or node name.";
const char kNoChild[] = "Unable to find child node.";
const char kNoDocument[] = "NULL XML document object";
const char kAddFailed[] = "Unable to add new node.";
const char kTextAssignFailed[] = "Unwanted exception at node string assignment.";
const char kNumberAssignFailed[] = "Unwanted exception at node int assignment.";

bool IsAsciiDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsAsciiAlnum(char c) {
  return IsAsciiDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Element contents as text; absent contents read as "".
std::string ContentsOf(const XmlElement* element) {
  const char* contents = element->contents();
  return contents != nullptr ? contents : "";
}

bool HasNonEmptyContents(const XmlElement* element) {
  const char* contents = element->contents();
  return contents != nullptr && contents[0] != '\0';
}

// The child at `index` among the children named `name`, or null.
XmlElement* FindNamedChild(const XmlElement* parent, const std::string& name, int index) {
  if (index < 0) return nullptr;
  int seen = 0;
  for (size_t i = 0; i < parent->childCount(); ++i) {
    XmlElement* child = parent->child(i);
    if (child->name() == name && seen++ == index) return child;
  }
  return nullptr;
}

std::vector<std::string> CollectPath(int count, va_list args) {
  std::vector<std::string> path;
  for (int i = 0; i < count; ++i) {
    const char* name = va_arg(args, const char*);
    path.emplace_back(name != nullptr ? name : "");
  }
  return path;
}

// The writer's walk over one element and its subtree, building UTF-8 text
// held to what `encoding` can carry. `writable` turns false at a name that
// cannot be written.
class TreeWriter {
 public:
  TreeWriter(const XmlOutputEncoding& encoding, std::string& out)
      : m_encoding(encoding), m_out(out) {}
  bool writable() const { return m_writable; }

  // Iterative walk: each frame is an element whose opening tag is written,
  // with the index of its next child to write.
  void write(const XmlElement* element, int depth) {
    struct Frame {
      const XmlElement* element;
      size_t nextChild;
      int depth;
    };
    std::vector<Frame> open;
    if (openTag(element, depth)) open.push_back({element, 0, depth});
    while (!open.empty()) {
      Frame& top = open.back();
      if (top.nextChild < top.element->childCount()) {
        const XmlElement* child = top.element->child(top.nextChild++);
        const int childDepth = top.depth + 1;
        if (openTag(child, childDepth)) open.push_back({child, 0, childDepth});
      } else {
        closeTag(top.element, top.depth);
        open.pop_back();
      }
    }
  }

 private:
  void name(const std::string& text) {
    if (!m_encoding.appendName(text, m_out)) m_writable = false;
  }

  void text(const char* raw) {
    m_encoding.appendText(XmlReaderWriter::encodeSpecialChar(raw), m_out);
  }

  // Writes the opening tag; true when the element still needs its children
  // and closing tag written.
  bool openTag(const XmlElement* element, int depth) {
    m_out.append(static_cast<size_t>(depth) * 2, ' ');
    m_out += '<';
    name(element->name());
    for (size_t i = 0; i < element->attributeCount(); ++i) {
      const XmlElement::Attribute* attribute = element->attribute(i);
      m_out += ' ';
      name(attribute->name());
      m_out += "=\"";
      text(attribute->value().c_str());
      m_out += '"';
    }
    if (HasNonEmptyContents(element)) {
      m_out += '>';
      return true;
    }
    if (element->childCount() == 0 && element->parent() != nullptr) {
      m_out += "/>\n";
      return false;
    }
    m_out += ">\n";
    return true;
  }

  void closeTag(const XmlElement* element, int depth) {
    if (HasNonEmptyContents(element)) {
      text(element->contents());
    } else {
      m_out.append(static_cast<size_t>(depth) * 2, ' ');
    }
    m_out += "</";
    name(element->name());
    m_out += ">\n";
  }

  const XmlOutputEncoding& m_encoding;
  std::string& m_out;
  bool m_writable = true;
};

void WriteWholeFile(QmioFile& file, const std::string& text) {
  file.Flush();
  file.Truncate(0);
  std::fseek(file.GetStream(), 0, SEEK_SET);
  file.Write(text);
  file.Flush();
}

}  // namespace

// ---------------------------------------------------------------------------
// NodeException

XmlReaderWriter::NodeException::NodeException() : m_message("Some error occurred.") {}

XmlReaderWriter::NodeException::NodeException(const char* format, ...) {
  if (format == nullptr) return;
  char buffer[2048] = {};
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  m_message = buffer;
}

// ---------------------------------------------------------------------------
// NodeString

XmlReaderWriter::NodeString::NodeString(unsigned kind, XmlElement* element,
                                        XmlElement::Attribute* attribute, unsigned part)
    : m_kind(kind), m_element(element), m_attribute(attribute), m_part(part) {
  const char* text = data();
  m_text = text != nullptr ? text : "";
}

void XmlReaderWriter::NodeString::requireTarget() const {
  if (m_kind == KIND_NONE || (m_element == nullptr && m_attribute == nullptr) ||
      m_part == PART_NONE) {
    throw NodeException("NULL node string.");
  }
}

char* XmlReaderWriter::NodeString::data() const {
  if (m_kind == KIND_ELEMENT && m_element != nullptr) {
    if (m_part == PART_NAME) return m_element->nameData();
    if (m_part == PART_VALUE) return m_element->contents();
  }
  if (m_kind == KIND_ATTRIBUTE && m_attribute != nullptr) {
    if (m_part == PART_NAME) return m_attribute->nameData();
    if (m_part == PART_VALUE) return m_attribute->valueData();
  }
  return nullptr;
}

XmlReaderWriter::NodeString::operator char*() const {
  requireTarget();
  return data();
}

XmlReaderWriter::NodeString::operator std::string() const {
  const char* text = *this;
  return text != nullptr ? text : "";
}

XmlReaderWriter::NodeString::operator int() const {
  return static_cast<int>(long(*this));
}

XmlReaderWriter::NodeString::operator long() const {
  const char* text = *this;
  return text != nullptr ? std::strtol(text, nullptr, 10) : 0;
}

XmlReaderWriter::NodeString::operator unsigned int() const {
  return static_cast<unsigned int>((unsigned long)(*this));
}

XmlReaderWriter::NodeString::operator unsigned long() const {
  const char* text = *this;
  return text != nullptr ? std::strtoul(text, nullptr, 10) : 0;
}

XmlReaderWriter::NodeString::operator double() const {
  const char* text = *this;
  return text != nullptr ? std::strtod(text, nullptr) : 0.0;
}

XmlReaderWriter::NodeString::operator float() const {
  return static_cast<float>(double(*this));
}

XmlReaderWriter::NodeString::operator bool() const {
  const char* text = *this;
  if (text == nullptr || text[0] == '\0') return false;
  return strcasecmp(text, "false") != 0 && strcmp(text, "0") != 0 && strcasecmp(text, "no") != 0;
}

bool XmlReaderWriter::NodeString::operator==(const char* text) const {
  const char* own = *this;
  if (own == nullptr || text == nullptr) return own == text;
  return std::strcmp(own, text) == 0;
}

bool XmlReaderWriter::NodeString::operator==(const std::string& text) const {
  return *this == text.c_str();
}

bool XmlReaderWriter::NodeString::operator==(bool value) const {
  return bool(*this) == value;
}

bool XmlReaderWriter::NodeString::operator==(int value) const {
  return int(*this) == value;
}

bool XmlReaderWriter::NodeString::operator==(long value) const {
  return long(*this) == value;
}

bool XmlReaderWriter::NodeString::operator==(float value) const {
  return float(*this) == value;
}

bool XmlReaderWriter::NodeString::operator==(double value) const {
  return double(*this) == value;
}

void XmlReaderWriter::NodeString::store(const std::string& text, const char* failure) {
  requireTarget();
  if (m_kind == KIND_ELEMENT && m_element != nullptr && m_part == PART_NAME) {
    m_element->setName(text);
  } else if (m_kind == KIND_ELEMENT && m_element != nullptr && m_part == PART_VALUE) {
    m_element->setContents(text.c_str());
  } else if (m_kind == KIND_ATTRIBUTE && m_attribute != nullptr && m_part == PART_NAME) {
    m_attribute->setName(text);
  } else if (m_kind == KIND_ATTRIBUTE && m_attribute != nullptr && m_part == PART_VALUE) {
    m_attribute->setValue(text);
  } else {
    throw NodeException("%s", failure);
  }
  m_text = text;
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::storeNumber(const char* text) {
  store(text, kNumberAssignFailed);
  return *this;
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::operator=(const std::string& text) {
  store(text, kTextAssignFailed);
  return *this;
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::operator=(const char* text) {
  requireTarget();
  if (text == nullptr) throw NodeException("NULL assignment to node string Lvalue.");
  store(text, kTextAssignFailed);
  return *this;
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::operator=(int value) {
  char buffer[100];
  std::snprintf(buffer, sizeof buffer, "%d", value);
  return storeNumber(buffer);
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::operator=(long value) {
  char buffer[100];
  std::snprintf(buffer, sizeof buffer, "%ld", value);
  return storeNumber(buffer);
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::operator=(unsigned long value) {
  char buffer[100];
  std::snprintf(buffer, sizeof buffer, "%lu", value);
  return storeNumber(buffer);
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::operator=(unsigned int value) {
  // "%hu" keeps the low 16 bits only; stored documents rely on that.
  char buffer[100];
  std::snprintf(buffer, sizeof buffer, "%hu", static_cast<unsigned short>(value));
  return storeNumber(buffer);
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::operator=(double value) {
  char buffer[100];
  std::snprintf(buffer, sizeof buffer, "%f", value);
  return storeNumber(buffer);
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::operator=(float value) {
  return *this = static_cast<double>(value);
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::operator=(bool value) {
  return storeNumber(value ? "true" : "false");
}

XmlReaderWriter::NodeString& XmlReaderWriter::NodeString::operator=(const NodeString& other) {
  const std::string text = other;
  store(text, kTextAssignFailed);
  return *this;
}

// ---------------------------------------------------------------------------
// Node

XmlReaderWriter::Node::Node() = default;

XmlReaderWriter::Node::Node(const std::string& name, const std::string& value)
    : m_ownedElement(std::make_shared<XmlElement>(name)) {
  m_element = m_ownedElement.get();
  if (!value.empty()) m_element->setContents(value.c_str());
}

XmlReaderWriter::Node::Node(XmlReaderWriter* document, XmlElement* element)
    : m_document(document), m_element(element), m_detached(false) {}

XmlReaderWriter::Node XmlReaderWriter::Node::getDummyNode(const std::string& name,
                                                          const std::string& value) {
  return Node(name, value);
}

XmlElement* XmlReaderWriter::Node::attached() const {
  if (m_detached || m_document == nullptr || m_element == nullptr) {
    throw NodeException("%s", kNotInTree);
  }
  return m_element;
}

XmlElement* XmlReaderWriter::Node::element() const {
  if (m_element == nullptr) throw NodeException("%s", kNoElement);
  return m_element;
}

bool XmlReaderWriter::Node::isMutable() const {
  return m_document != nullptr && m_document->isMutable();
}

XmlReaderWriter::Node XmlReaderWriter::Node::childAt(XmlElement* child) {
  m_childCursor = child;
  return Node(m_document, child);
}

XmlElement* XmlReaderWriter::Node::appendChild(const std::string& name, const char* value) {
  XmlElement* parent = attached();
  if (name.empty()) throw NodeException("%s", kAddFailed);
  auto child = std::make_unique<XmlElement>(name);
  if (value != nullptr && value[0] != '\0') child->setContents(value);
  return parent->addChild(std::move(child));
}

XmlElement* XmlReaderWriter::Node::findChild(const std::string& name, int index) const {
  return FindNamedChild(attached(), name, index);
}

XmlElement* XmlReaderWriter::Node::findSibling(const std::string& name, bool right) const {
  const XmlElement* from = attached();
  XmlElement* sibling = right ? from->nextSibling() : from->previousSibling();
  while (sibling != nullptr && !name.empty() && sibling->name() != name) {
    sibling = right ? sibling->nextSibling() : sibling->previousSibling();
  }
  return sibling;
}

bool XmlReaderWriter::Node::removeChild(XmlElement* child) {
  if (child == m_childCursor) m_childCursor = nullptr;
  return attached()->removeChild(child->indexInParent());
}

XmlReaderWriter::Node XmlReaderWriter::Node::operator[](const std::string& name) {
  XmlElement* child = findChild(name, 0);
  if (child != nullptr) return childAt(child);
  if (isMutable()) return childAt(appendChild(name, nullptr));
  throw NodeException("Unable to find child node '%s'.", name.c_str());
}

XmlReaderWriter::Node XmlReaderWriter::Node::operator[](unsigned index) {
  XmlElement* child = attached()->child(index);
  if (child == nullptr) throw NodeException("%s", kNoChild);
  return childAt(child);
}

XmlReaderWriter::Node XmlReaderWriter::Node::getChildNode(int index) {
  attached();
  if (index < 0) throw NodeException("%s", kNoChild);
  return (*this)[static_cast<unsigned>(index)];
}

XmlReaderWriter::Node XmlReaderWriter::Node::getChildNode(const std::string& name, int index) {
  XmlElement* child = findChild(name, index);
  if (child != nullptr) return childAt(child);
  if (isMutable()) return childAt(appendChild(name, nullptr));
  throw NodeException("%s", kNoChild);
}

XmlReaderWriter::Node XmlReaderWriter::Node::childNode() {
  XmlElement* parent = attached();
  if (parent->childCount() == 0) throw NodeException("NULL child node.");
  if (m_childCursor == nullptr) m_childCursor = parent->child(0);
  return Node(m_document, m_childCursor);
}

bool XmlReaderWriter::Node::nextChildNode() {
  XmlElement* parent = attached();
  m_childCursor = m_childCursor != nullptr ? m_childCursor->nextSibling() : parent->child(0);
  return m_childCursor != nullptr;
}

bool XmlReaderWriter::Node::hasChild(const std::string& name) const {
  return findChild(name, 0) != nullptr;
}

unsigned XmlReaderWriter::Node::getChildrenCount() const {
  return static_cast<unsigned>(attached()->childCount());
}

unsigned XmlReaderWriter::Node::getSameChildrenCount(const std::string& name) const {
  const XmlElement* parent = attached();
  unsigned count = 0;
  for (size_t i = 0; i < parent->childCount(); ++i) {
    if (parent->child(i)->name() == name) ++count;
  }
  return count;
}

XmlReaderWriter::Node XmlReaderWriter::Node::parentNode() const {
  XmlElement* parent = attached()->parent();
  if (parent == nullptr) throw NodeException("Root node, NULL parent.");
  return Node(m_document, parent);
}

bool XmlReaderWriter::Node::isParentNode() const {
  return attached()->parent() != nullptr;
}

XmlReaderWriter::Node XmlReaderWriter::Node::rightSibling(const std::string& name) const {
  if (attached()->nextSibling() == nullptr) throw NodeException("Last node, NULL next sibling.");
  XmlElement* sibling = findSibling(name, true);
  if (sibling == nullptr) throw NodeException("NULL next sibling with given name.");
  return Node(m_document, sibling);
}

XmlReaderWriter::Node XmlReaderWriter::Node::leftSibling(const std::string& name) const {
  if (attached()->previousSibling() == nullptr) {
    throw NodeException("First node, NULL previous sibling.");
  }
  XmlElement* sibling = findSibling(name, false);
  if (sibling == nullptr) throw NodeException("NULL previous sibling with given name.");
  return Node(m_document, sibling);
}

bool XmlReaderWriter::Node::isRightSibling(const std::string& name) const {
  return findSibling(name, true) != nullptr;
}

bool XmlReaderWriter::Node::isLeftSibling(const std::string& name) const {
  return findSibling(name, false) != nullptr;
}

XmlReaderWriter::NodeString XmlReaderWriter::Node::name() const {
  return NodeString(NodeString::KIND_ELEMENT, element(), nullptr, NodeString::PART_NAME);
}

XmlReaderWriter::NodeString XmlReaderWriter::Node::value() const {
  return NodeString(NodeString::KIND_ELEMENT, element(), nullptr, NodeString::PART_VALUE);
}

bool XmlReaderWriter::Node::hasValue() const {
  return element()->hasContents();
}

bool XmlReaderWriter::Node::isValue(const std::string& value) const {
  return ContentsOf(element()) == value;
}

bool XmlReaderWriter::Node::isChildValue(const std::string& name, const std::string& value) const {
  const XmlElement* child = findChild(name, 0);
  return child != nullptr && ContentsOf(child) == value;
}

XmlReaderWriter::NodeString XmlReaderWriter::Node::attributeValue(const std::string& name) {
  XmlElement* owner = attached();
  XmlElement::Attribute* attribute = owner->findAttribute(name);
  if (attribute == nullptr) {
    if (!isMutable()) throw NodeException("No attribute by given name.");
    if (name.empty()) throw NodeException("Unable to create new attribute by given name.");
    attribute = owner->setAttribute(name, "");
  }
  m_attributeCursor = attribute;
  return NodeString(NodeString::KIND_ATTRIBUTE, owner, attribute, NodeString::PART_VALUE);
}

XmlReaderWriter::NodeString XmlReaderWriter::Node::attributeValue(int index) {
  XmlElement* owner = attached();
  XmlElement::Attribute* attribute =
      index >= 0 ? owner->attribute(static_cast<size_t>(index)) : nullptr;
  if (attribute == nullptr) throw NodeException("No attribute at given index.");
  m_attributeCursor = attribute;
  return NodeString(NodeString::KIND_ATTRIBUTE, owner, attribute, NodeString::PART_VALUE);
}

XmlReaderWriter::NodeString XmlReaderWriter::Node::attributeName(int index) {
  attributeValue(index);
  return NodeString(NodeString::KIND_ATTRIBUTE, m_element, m_attributeCursor,
                    NodeString::PART_NAME);
}

XmlReaderWriter::NodeString XmlReaderWriter::Node::attributeValue() const {
  XmlElement* owner = attached();
  if (m_attributeCursor == nullptr) throw NodeException("No attribute.");
  return NodeString(NodeString::KIND_ATTRIBUTE, owner, m_attributeCursor, NodeString::PART_VALUE);
}

XmlReaderWriter::NodeString XmlReaderWriter::Node::attributeName() const {
  XmlElement* owner = attached();
  if (m_attributeCursor == nullptr) throw NodeException("No attribute.");
  return NodeString(NodeString::KIND_ATTRIBUTE, owner, m_attributeCursor, NodeString::PART_NAME);
}

bool XmlReaderWriter::Node::nextAttribute() {
  m_attributeCursor = attached()->nextAttribute(m_attributeCursor);
  return m_attributeCursor != nullptr;
}

bool XmlReaderWriter::Node::isAttribute(const std::string& name) const {
  return attached()->findAttribute(name) != nullptr;
}

bool XmlReaderWriter::Node::isAttributeValue(const std::string& name,
                                             const std::string& value) const {
  const XmlElement::Attribute* attribute = attached()->findAttribute(name);
  return attribute != nullptr && attribute->value() == value;
}

unsigned XmlReaderWriter::Node::getAttributeCount() const {
  return static_cast<unsigned>(attached()->attributeCount());
}

XmlReaderWriter::Node XmlReaderWriter::Node::addChild(const std::string& name,
                                                      const std::string& value) {
  return Node(m_document, appendChild(name, value.c_str()));
}

bool XmlReaderWriter::Node::addAttribute(const std::string& name, const std::string& value) {
  XmlElement* owner = attached();
  if (name.empty()) return false;
  owner->setAttribute(name, value);
  return true;
}

bool XmlReaderWriter::Node::delAttribute(const std::string& name) {
  XmlElement* owner = attached();
  XmlElement::Attribute* attribute = owner->findAttribute(name);
  if (attribute == nullptr) return false;
  if (attribute == m_attributeCursor) m_attributeCursor = nullptr;
  return owner->removeAttribute(attribute);
}

bool XmlReaderWriter::Node::delAttribute(const std::string& name, const std::string& value) {
  return isAttributeValue(name, value) && delAttribute(name);
}

void XmlReaderWriter::Node::delAllAttributes() {
  attached()->removeAllAttributes();
  m_attributeCursor = nullptr;
}

bool XmlReaderWriter::Node::delChild(const std::string& name) {
  XmlElement* child = findChild(name, 0);
  return child != nullptr && removeChild(child);
}

bool XmlReaderWriter::Node::delChild(const std::string& name, const std::string& value) {
  const XmlElement* parent = attached();
  for (size_t i = 0; i < parent->childCount(); ++i) {
    XmlElement* child = parent->child(i);
    if (child->name() == name && ContentsOf(child) == value) return removeChild(child);
  }
  return false;
}

bool XmlReaderWriter::Node::delChild(int index) {
  const XmlElement* parent = attached();
  if (index < 0) throw NodeException("Child node index out of bound.");
  XmlElement* child = parent->child(static_cast<size_t>(index));
  return child != nullptr && removeChild(child);
}

unsigned XmlReaderWriter::Node::delSameChildren(const std::string& name) {
  unsigned removed = 0;
  while (delChild(name)) ++removed;
  return removed;
}

void XmlReaderWriter::Node::delAllChildren() {
  attached()->removeAllChildren();
  m_childCursor = nullptr;
}

bool XmlReaderWriter::Node::operator==(const std::string& name) const {
  return element()->name() == name;
}

bool XmlReaderWriter::Node::operator==(const Node& other) const {
  const XmlElement* mine = element();
  const XmlElement* theirs = other.element();
  if (mine->name() != theirs->name() || ContentsOf(mine) != ContentsOf(theirs) ||
      mine->attributeCount() != theirs->attributeCount()) {
    return false;
  }
  for (size_t i = 0; i < mine->attributeCount(); ++i) {
    const XmlElement::Attribute* attribute = mine->attribute(i);
    const XmlElement::Attribute* match = theirs->findAttribute(attribute->name());
    if (match == nullptr || match->value() != attribute->value()) return false;
  }
  return true;
}

std::string XmlReaderWriter::Node::toString() const {
  std::string out;
  serializeElement(element(), 0, out);
  return out;
}

// ---------------------------------------------------------------------------
// XmlReaderWriter

XmlReaderWriter::XmlReaderWriter() = default;

XmlReaderWriter::XmlReaderWriter(const std::string& path, int flags)
    : m_file(std::make_unique<QmioFile>(path)), m_path(path) {
  if ((flags & OPEN_FILE) != 0 && !open(flags)) return;
  if ((flags & OPEN_READ) != 0 && !read()) return;
  if ((flags & OPEN_UNLOCK) != 0 && m_fileOpened && m_fileLocked) unlock();
}

XmlReaderWriter::~XmlReaderWriter() {
  if (m_fileOpened) {
    try {
      m_file->Flush();
    } catch (const QmioException&) {
      // The file object's destructor still closes the file.
    }
  }
}

bool XmlReaderWriter::open(int flags) {
  if ((flags & OPEN_FILE) == 0 || m_fileOpened || !m_file) return false;
  try {
    m_file->Open((flags & OPEN_CREATE) != 0 ? "w+" : "r+");
    if ((flags & OPEN_TRUNCATE) != 0) m_file->Truncate(0);
    if ((flags & OPEN_LOCK) != 0) {
      m_file->Lock("r", true);
      m_fileLocked = true;
    }
  } catch (const QmioException&) {
    resetFile();
    return false;
  }
  if ((flags & OPEN_MUTABLE) != 0) m_mutable = true;
  m_fileOpened = true;
  return true;
}

bool XmlReaderWriter::open(bool create, bool makeMutable) {
  return open(OPEN_FILE | (create ? OPEN_CREATE : 0) | (makeMutable ? OPEN_MUTABLE : 0));
}

void XmlReaderWriter::resetFile() {
  // A fresh file object on the same path drops whatever the failed open left.
  m_file = std::make_unique<QmioFile>(m_path);
  m_fileLocked = false;
}

bool XmlReaderWriter::lock(bool shared, bool wait) {
  if (!m_fileOpened) return false;
  if (m_fileLocked) return true;
  try {
    m_file->Lock(shared ? "r" : "w", wait);
  } catch (const QmioException&) {
    return false;
  }
  m_fileLocked = true;
  return true;
}

bool XmlReaderWriter::unlock() {
  if (!m_fileOpened) return false;
  if (!m_fileLocked) return true;
  try {
    m_file->Unlock();
  } catch (const QmioException&) {
    return false;
  }
  m_fileLocked = false;
  return true;
}

bool XmlReaderWriter::read() {
  if (!m_fileOpened || m_file->GetStream() == nullptr) return false;
  m_tree.reset();
  m_fileLoaded = false;
  FILE* stream = m_file->GetStream();
  if (std::fseek(stream, 0, SEEK_SET) != 0) return false;
  std::string text;
  char chunk[8192];
  size_t got = 0;
  while ((got = std::fread(chunk, 1, sizeof chunk, stream)) > 0) text.append(chunk, got);
  if (std::ferror(stream) != 0) {
    std::clearerr(stream);
    return false;
  }
  std::clearerr(stream);
  m_fileLoaded = parse(text.data(), text.size());
  return m_fileLoaded;
}

bool XmlReaderWriter::readFrom(char* buffer, unsigned length) {
  return parse(buffer, length);
}

bool XmlReaderWriter::parse(const char* data, size_t length) {
  m_tree.reset();
  m_tree = XmlTree::Parse(data, length);
  return m_tree != nullptr;
}

bool XmlReaderWriter::write(const std::string& path) {
  std::string text;
  if (!toString(text)) return false;
  try {
    if (!path.empty()) {
      QmioFile target(path);
      target.Open("w");
      WriteWholeFile(target, text);
      target.Close();
      return true;
    }
    if (!m_fileOpened) return false;
    WriteWholeFile(*m_file, text);
  } catch (const QmioException&) {
    return false;
  }
  return true;
}

bool XmlReaderWriter::toString(std::string& out) const {
  if (!m_tree) return false;
  const XmlOutputEncoding encoding(m_tree->encoding());
  const char* version = m_tree->version();
  std::string text = "<?xml version=\"";
  text += version != nullptr ? version : "1.0";
  text += "\" encoding=\"" + encoding.declaredName() + "\" standalone=\"";
  text += m_tree->standalone() > 0 ? "yes" : "no";
  text += "\"?>\n\n";
  TreeWriter writer(encoding, text);
  if (m_tree->root() != nullptr) writer.write(m_tree->root(), 0);
  if (!writer.writable()) return false;
  out = encoding.encode(text);
  return true;
}

bool XmlReaderWriter::close() {
  if (!m_fileOpened) return false;
  try {
    m_file->Flush();
    m_file->Close();
  } catch (const QmioException&) {
    // The file object is dropped below either way.
  }
  m_file.reset();
  m_fileOpened = false;
  m_fileLoaded = false;
  m_fileLocked = false;
  return true;
}

bool XmlReaderWriter::createDocument() {
  m_mutable = true;
  if (m_tree) return false;
  m_tree = std::make_unique<XmlTree>();
  return true;
}

bool XmlReaderWriter::createRootNode(const std::string& name) {
  if (!m_tree || name.empty()) return false;
  return m_tree->setRoot(std::make_unique<XmlElement>(name));
}

XmlReaderWriter::Node XmlReaderWriter::getRootNode() {
  if (!m_tree || m_tree->root() == nullptr) throw NodeException("%s", kNoDocument);
  return Node(this, m_tree->root());
}

XmlReaderWriter::Node XmlReaderWriter::getNode(const std::vector<std::string>& path) {
  Node node = getRootNode();
  for (size_t i = 1; i < path.size(); ++i) {
    XmlElement* child = node.findChild(path[i], 0);
    if (child == nullptr) throw NodeException("Node not present");
    node = Node(this, child);
  }
  return node;
}

XmlReaderWriter::Node XmlReaderWriter::getNode(int count, ...) {
  va_list args;
  va_start(args, count);
  std::vector<std::string> path = CollectPath(count, args);
  va_end(args);
  return getNode(path);
}

bool XmlReaderWriter::isNode(const std::vector<std::string>& path) {
  if (!m_tree || m_tree->root() == nullptr) return false;
  const XmlElement* element = m_tree->root();
  for (size_t i = 1; i < path.size() && element != nullptr; ++i) {
    element = FindNamedChild(element, path[i], 0);
  }
  return element != nullptr;
}

bool XmlReaderWriter::isNode(int count, ...) {
  va_list args;
  va_start(args, count);
  std::vector<std::string> path = CollectPath(count, args);
  va_end(args);
  return isNode(path);
}

XmlReaderWriter::Node XmlReaderWriter::createDocumentPath(const std::vector<std::string>& path) {
  if (!m_tree) throw NodeException("%s", kNoDocument);
  if (m_tree->root() == nullptr && (path.empty() || !createRootNode(path[0]))) {
    throw NodeException("%s", kAddFailed);
  }
  Node node = getRootNode();
  for (size_t i = 1; i < path.size(); ++i) {
    XmlElement* child = node.findChild(path[i], 0);
    node = Node(this, child != nullptr ? child : node.appendChild(path[i], nullptr));
  }
  return node;
}

XmlReaderWriter::Node XmlReaderWriter::createDocumentPath(int count, ...) {
  va_list args;
  va_start(args, count);
  std::vector<std::string> path = CollectPath(count, args);
  va_end(args);
  return createDocumentPath(path);
}

bool XmlReaderWriter::isEncodedSequence(const char* text) {
  if (text == nullptr || text[0] != '&') return false;
  const char* p = text + 1;
  if (*p == '#') {
    ++p;
    if (*p == 'x') return false;
    while (IsAsciiDigit(*p)) ++p;
    return *p == ';';
  }
  const char* nameStart = p;
  while (IsAsciiAlnum(*p)) ++p;
  return p != nameStart && *p == ';';
}

std::string XmlReaderWriter::encodeSpecialChar(const char* text) {
  std::string out;
  if (text == nullptr) return out;
  for (const char* p = text; *p != '\0'; ++p) {
    switch (*p) {
      case '&':
        out += isEncodedSequence(p) ? "&" : "&amp;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '\'':
        out += "&apos;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += *p;
    }
  }
  return out;
}

void XmlReaderWriter::serializeElement(const XmlElement* element, int depth, std::string& out) {
  TreeWriter(XmlOutputEncoding(nullptr), out).write(element, depth);
}
