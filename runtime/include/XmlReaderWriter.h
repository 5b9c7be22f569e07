#ifndef QM_RUNTIME_XMLREADERWRITER_H
#define QM_RUNTIME_XMLREADERWRITER_H

#include <memory>
#include <string>
#include <vector>

#include "XmlElement.h"
#include "XmlTree.h"

class QmioFile;

// One XML document held as an element tree, with an exception-based node API
// over it and the runtime's own writer. The document owns its tree and, when
// bound to a path, its file object. Document-level operations return false on
// failure; node operations throw XmlReaderWriter::NodeException.
//
// A document is read-only unless made mutable (open flag 8, open(.., true),
// createDocument or setMutable(true)); in a mutable document lookups of
// missing children and attributes create them instead of throwing.
class XmlReaderWriter {
 public:
  // Flag bits of the path constructor and open(int).
  enum OpenFlags {
    OPEN_FILE = 1,      // open the file ("r+")
    OPEN_CREATE = 2,    // open with "w+" instead
    OPEN_TRUNCATE = 4,  // truncate to length 0 after opening
    OPEN_MUTABLE = 8,   // make the document mutable
    OPEN_LOCK = 16,     // take a shared lock, waiting for it
    OPEN_READ = 32,     // (constructor) read the file after opening
    OPEN_UNLOCK = 64    // (constructor) unlock again after the read
  };

  // The error of a node operation; carries only its formatted message.
  class NodeException {
   public:
    NodeException();
    // printf-style; the message is cut at 2047 bytes.
    explicit NodeException(const char* format, ...) __attribute__((format(printf, 2, 3)));
    const std::string& getMessage() const { return m_message; }

   private:
    std::string m_message;
  };

  // The text of one thing in the tree: an element's name or contents, or an
  // attribute's name or value. Converting reads the tree; assigning writes
  // into the tree. Note that the copy assignment is such a write (the other
  // string's text is stored through this one's handles); to keep a
  // NodeString, copy-construct it. Valid while the element or attribute
  // lives.
  class NodeString {
   public:
    enum Kind { KIND_NONE = 0, KIND_ELEMENT = 1, KIND_ATTRIBUTE = 2 };
    enum Part { PART_NONE = 0, PART_NAME = 1, PART_VALUE = 2 };

    NodeString() = default;  // refers to nothing
    NodeString(unsigned kind, XmlElement* element, XmlElement::Attribute* attribute, unsigned part);
    NodeString(const NodeString&) = default;

    // The tree's own text, or null when the part is absent.
    operator char*() const;
    operator std::string() const;    // "" when absent
    operator int() const;            // strtol, base 10; absent is 0
    operator long() const;           // strtol, base 10; absent is 0
    operator unsigned int() const;   // strtoul, base 10; absent is 0
    operator unsigned long() const;  // strtoul, base 10; absent is 0
    operator double() const;         // strtod; absent is 0
    operator float() const;          // strtod; absent is 0
    // False when absent, empty, or "false", "0" or "no" in any letter case.
    operator bool() const;

    // Both absent, or equal text.
    bool operator==(const char* text) const;
    bool operator==(const std::string& text) const;
    bool operator!=(const char* text) const { return !(*this == text); }
    bool operator!=(const std::string& text) const { return !(*this == text); }
    bool operator==(bool value) const;
    bool operator==(int value) const;
    bool operator==(long value) const;
    bool operator==(float value) const;
    bool operator==(double value) const;

    NodeString& operator=(const std::string& text);
    NodeString& operator=(const char* text);     // null throws
    NodeString& operator=(int value);            // "%d"
    NodeString& operator=(long value);           // "%ld"
    NodeString& operator=(unsigned long value);  // "%lu"
    // Written with "%hu": only the low 16 bits are kept, so 70000 is stored
    // as 4464. Stored documents depend on this narrowing; keep it.
    NodeString& operator=(unsigned int value);
    NodeString& operator=(double value);  // "%f"
    NodeString& operator=(float value);   // "%f"
    NodeString& operator=(bool value);    // "true" / "false"
    NodeString& operator=(const NodeString& other);

   private:
    // Throws "NULL node string." when this refers to nothing.
    void requireTarget() const;
    char* data() const;
    void store(const std::string& text, const char* failure);
    NodeString& storeNumber(const char* text);

    std::string m_text;
    unsigned m_kind = KIND_NONE;
    XmlElement* m_element = nullptr;
    XmlElement::Attribute* m_attribute = nullptr;
    unsigned m_part = PART_NONE;
  };

  // A handle on one element; never owns the document. A detached node (the
  // default-constructed one and those made by Node(name, value) or
  // getDummyNode) is not part of any tree: it shares ownership of its own
  // element among its copies, and only name, value, hasValue, isValue,
  // comparison and toString work on it. Nodes stay valid while the document
  // and the element live; deleting a child invalidates nodes on it.
  class Node {
   public:
    Node();
    Node(const std::string& name, const std::string& value);
    static Node getDummyNode(const std::string& name, const std::string& value);

    // Children. Lookups set the child cursor.
    Node operator[](const std::string& name);
    Node operator[](unsigned index);
    Node getChildNode(int index);
    Node getChildNode(const std::string& name, int index);
    Node childNode();
    bool nextChildNode();
    bool hasChild(const std::string& name) const;
    bool isChild(const std::string& name) const { return hasChild(name); }
    unsigned getChildrenCount() const;
    unsigned getSameChildrenCount(const std::string& name) const;

    Node parentNode() const;
    bool isParentNode() const;
    // An empty name means the adjacent sibling.
    Node rightSibling(const std::string& name) const;
    Node leftSibling(const std::string& name) const;
    bool isRightSibling(const std::string& name) const;
    bool isLeftSibling(const std::string& name) const;

    NodeString name() const;
    NodeString value() const;
    bool hasValue() const;
    bool isValue(const std::string& value) const;
    bool isChildValue(const std::string& name, const std::string& value) const;

    // Attributes. Lookups set the attribute cursor.
    NodeString attributeValue(const std::string& name);
    NodeString attributeValue(int index);
    NodeString attributeName(int index);
    NodeString attributeValue() const;
    NodeString attributeName() const;
    bool nextAttribute();
    bool isAttribute(const std::string& name) const;
    bool isAttributeValue(const std::string& name, const std::string& value) const;
    unsigned getAttributeCount() const;

    // Changes.
    Node addChild(const std::string& name, const std::string& value);
    bool addAttribute(const std::string& name, const std::string& value);
    bool delAttribute(const std::string& name);
    bool delAttribute(const std::string& name, const std::string& value);
    void delAllAttributes();
    bool delChild(const std::string& name);
    bool delChild(const std::string& name, const std::string& value);
    bool delChild(int index);
    unsigned delSameChildren(const std::string& name);
    void delAllChildren();

    bool operator==(const std::string& name) const;
    // Names, contents and attributes equal; children are not compared.
    bool operator==(const Node& other) const;

    // The element and its subtree, from depth 0, without declaration.
    std::string toString() const;

   private:
    friend class XmlReaderWriter;
    Node(XmlReaderWriter* document, XmlElement* element);

    // The element of a node in a tree; throws for a detached node.
    XmlElement* attached() const;
    // The element of any node; throws when there is none.
    XmlElement* element() const;
    bool isMutable() const;
    Node childAt(XmlElement* child);
    XmlElement* appendChild(const std::string& name, const char* value);
    XmlElement* findChild(const std::string& name, int index) const;
    XmlElement* findSibling(const std::string& name, bool right) const;
    bool removeChild(XmlElement* child);

    XmlReaderWriter* m_document = nullptr;
    XmlElement* m_element = nullptr;
    bool m_detached = true;
    std::shared_ptr<XmlElement> m_ownedElement;
    XmlElement* m_childCursor = nullptr;
    XmlElement::Attribute* m_attributeCursor = nullptr;
  };

  XmlReaderWriter();
  // Binds the document to `path` and acts on the OPEN_FILE, OPEN_READ and
  // OPEN_UNLOCK bits of `flags` (the other bits go to open).
  XmlReaderWriter(const std::string& path, int flags);
  ~XmlReaderWriter();
  XmlReaderWriter(const XmlReaderWriter&) = delete;
  XmlReaderWriter& operator=(const XmlReaderWriter&) = delete;

  // File binding.
  bool open(int flags);
  bool open(bool create, bool makeMutable);
  bool lock(bool shared, bool wait);
  bool unlock();
  bool isFileLocked() const { return m_fileLocked; }
  bool read();
  // Writes toString's bytes to `path`, or to the bound file when empty.
  bool write(const std::string& path = std::string());
  bool close();
  bool isFileOpened() const { return m_fileOpened; }
  bool isFileLoaded() const { return m_fileLoaded; }

  // Parses `length` bytes of `buffer`, replacing the present tree.
  bool readFrom(char* buffer, unsigned length);
  // The declaration and the tree, as bytes of the encoding the document
  // declares (see XmlOutputEncoding; UTF-8 when it declares none or one
  // this writer does not know, and then so declared). False when there is
  // no tree or a name in it cannot be written.
  bool toString(std::string& out) const;

  bool createDocument();
  bool createRootNode(const std::string& name);
  bool isDocumentPresent() const { return m_tree != nullptr; }
  void setMutable(bool makeMutable) { m_mutable = makeMutable; }
  bool isMutable() const { return m_mutable; }

  Node getRootNode();
  // A path names the root first and then one child name per level.
  Node getNode(const std::vector<std::string>& path);
  Node getNode(int count, ...);
  bool isNode(const std::vector<std::string>& path);
  bool isNode(int count, ...);
  Node createDocumentPath(const std::vector<std::string>& path);
  Node createDocumentPath(int count, ...);

  // True when `text` (at an ampersand) starts a character or entity
  // reference that must not be escaped again: "&#" digits ";" or "&" letters
  // and digits ";". "&#x..." references are not recognised.
  static bool isEncodedSequence(const char* text);
  // Escapes & > < ' " for contents and attribute values, leaving encoded
  // sequences untouched.
  static std::string encodeSpecialChar(const char* text);
  // The writer's layout of one element and its subtree at `depth`, in
  // UTF-8, as Node::toString gives it.
  static void serializeElement(const XmlElement* element, int depth, std::string& out);

 private:
  void resetFile();
  bool parse(const char* data, size_t length);

  std::unique_ptr<XmlTree> m_tree;
  bool m_mutable = false;
  std::unique_ptr<QmioFile> m_file;
  std::string m_path;
  bool m_fileOpened = false;
  bool m_fileLoaded = false;
  bool m_fileLocked = false;
};

#endif
