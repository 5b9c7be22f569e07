#ifndef QM_RUNTIME_INIREADERWRITER_H
#define QM_RUNTIME_INIREADERWRITER_H

#include <cstdio>
#include <list>
#include <string>

#include "Qmobject.h"

class QmioFile;

// An INI file held as the ordered list of its non-empty lines: section heads
// ("[name]"), comments ("#...") and key lines ("key=value"). Heads are always
// passed with their brackets; heads and keys are compared without regard to
// case. Writing puts the list back in order, with one empty line before every
// head. The document owns its nodes; references to nodes stay valid until
// read(), reset() or destruction (removal only marks a node removed).
// Not shared between threads; cross-process safety comes from file locks.
class IniReaderWriter : public Qmobject {
 public:
  // One line of the file. Obtained by reference from the document, never copied.
  class Node {
   public:
    enum Kind { HEAD = 1, COMMENT = 2, KEY = 3 };

    Node(IniReaderWriter* owner, int kind, const std::string& key, const std::string& value);
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // On a head: the value of `key` in this section, assignable. A missing key
    // is added with an empty value at the end of the section. Throws
    // std::logic_error when this node is not a head.
    std::string& operator[](const std::string& key);

    int kind;
    std::string key;    // whole line for heads and comments, text before "=" for keys
    std::string value;  // key lines only
    bool removed = false;

   private:
    IniReaderWriter* m_owner;
  };

  IniReaderWriter(const std::string& path, bool readNow, bool lockOnAccess, bool waitForLock);
  IniReaderWriter(const char* path, bool readNow, bool lockOnAccess, bool waitForLock);
  ~IniReaderWriter() override;
  IniReaderWriter(const IniReaderWriter&) = delete;
  IniReaderWriter& operator=(const IniReaderWriter&) = delete;

  // Loads the file, replacing the present list. False when the file cannot be
  // opened or (with lock-on-access) not locked; the list is then unchanged.
  virtual bool read();
  // Writes the list to `path`, or to the document's own path when null.
  virtual bool write(std::string* path = nullptr);
  bool isFileLoaded() const { return m_loaded; }

  // The section head equal to `head`; appended at the end when missing.
  Node& operator[](const std::string& head);

  std::string getKeyValue(const std::string& head, const std::string& key) const;
  std::string getKeyValue(const std::string& head, const char* key) const;
  // Value and key of the section's index-th key line (0-based); "" past the end.
  std::string getKeyValue(const std::string& head, int index) const;
  std::string getKey(const std::string& head, int index) const;
  // Sets the value, adding the head and the key as needed.
  void setKeyValue(const std::string& head, const std::string& key, const std::string& value);

  bool isHeadPresent(const std::string& head) const;
  bool isKeyPresent(const std::string& head, const std::string& key) const;
  bool isValuePresent(const std::string& head, const std::string& key,
                      const std::string& value) const;
  bool isValuePresentInSection(const std::string& head, const std::string& value) const;

  // Each returns true when something was removed.
  bool removeKey(const std::string& head, const std::string& key);
  bool removeHead(const std::string& head);     // the head line only
  bool removeSection(const std::string& head);  // the head and its lines
  // Makes sure `head` exists and holds `key` (added with an empty value).
  // True when the head had to be created.
  bool createNewHead(const std::string& head, const std::string& key);
  // Drops every node; the document counts as not loaded.
  void reset();

  const std::string& getPath() const { return m_path; }

 protected:
  using NodeList = std::list<Node>;

  // Replaces the list with the lines read from `stream`.
  void parse(FILE* stream);
  // The live nodes in the file format.
  std::string format() const;
  // Takes a lock on `file` with the attempt rules of this class.
  bool lockForAccess(QmioFile& file, const std::string& mode) const;

  bool m_lockOnAccess;
  bool m_waitForLock;
  bool m_loaded = false;

 private:
  void addLine(const std::string& line);
  std::string& keyValueInSection(Node& head, const std::string& key);

  NodeList m_nodes;
  std::string m_path;
};

#endif
