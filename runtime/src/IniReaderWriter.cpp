#include "IniReaderWriter.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "QmString.h"
#include "QmconFunctions.h"
#include "QmioException.h"
#include "QmioFile.h"

namespace {

// The growing buffer getline reads into.
struct LineBuffer {
  LineBuffer() = default;
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;
  ~LineBuffer() { std::free(data); }
  char* data = nullptr;
  size_t capacity = 0;
};

// Lock attempts when the wait flag is set.
constexpr int kLockAttempts = 10;

bool isLive(const IniReaderWriter::Node& node, int kind) {
  return !node.removed && node.kind == kind;
}

// The live head equal to `head` (case-insensitive), or the end of the list.
template <typename List>
auto findHead(List& nodes, const std::string& head) -> decltype(nodes.begin()) {
  for (auto it = nodes.begin(); it != nodes.end(); ++it) {
    if (isLive(*it, IniReaderWriter::Node::HEAD) && QmstringEqualsNoCase(it->key, head)) {
      return it;
    }
  }
  return nodes.end();
}

// The first node after `head` that is a live head, or the end of the list.
template <typename List, typename Iterator>
Iterator sectionEnd(List& nodes, Iterator head) {
  for (++head; head != nodes.end(); ++head) {
    if (isLive(*head, IniReaderWriter::Node::HEAD)) break;
  }
  return head;
}

// Calls `visit` on each live key line of the section `head` until it returns true;
// returns the node it stopped at, or null.
template <typename List, typename Visit>
auto findInSection(List& nodes, const std::string& head, Visit visit) -> decltype(&*nodes.begin()) {
  auto first = findHead(nodes, head);
  if (first == nodes.end()) return nullptr;
  auto last = sectionEnd(nodes, first);
  for (auto it = std::next(first); it != last; ++it) {
    if (isLive(*it, IniReaderWriter::Node::KEY) && visit(*it)) return &*it;
  }
  return nullptr;
}

template <typename List>
auto findKey(List& nodes, const std::string& head, const std::string& key)
    -> decltype(&*nodes.begin()) {
  return findInSection(nodes, head, [&key](const IniReaderWriter::Node& node) {
    return QmstringEqualsNoCase(node.key, key);
  });
}

const IniReaderWriter::Node* keyAt(const std::list<IniReaderWriter::Node>& nodes,
                                   const std::string& head, int index) {
  if (index < 0) return nullptr;
  int seen = 0;
  return findInSection(nodes, head,
                       [&seen, index](const IniReaderWriter::Node&) { return seen++ == index; });
}

}  // namespace

IniReaderWriter::Node::Node(IniReaderWriter* owner, int kind, const std::string& key,
                            const std::string& value)
    : kind(kind), key(key), value(value), m_owner(owner) {}

std::string& IniReaderWriter::Node::operator[](const std::string& keyName) {
  if (kind != HEAD || removed) throw std::logic_error("INI node is not a section head");
  return m_owner->keyValueInSection(*this, keyName);
}

IniReaderWriter::IniReaderWriter(const std::string& path, bool readNow, bool lockOnAccess,
                                 bool waitForLock)
    : m_lockOnAccess(lockOnAccess), m_waitForLock(waitForLock), m_path(path) {
  if (readNow) read();
}

IniReaderWriter::IniReaderWriter(const char* path, bool readNow, bool lockOnAccess,
                                 bool waitForLock)
    : IniReaderWriter(std::string(path ? path : ""), readNow, lockOnAccess, waitForLock) {}

IniReaderWriter::~IniReaderWriter() = default;

bool IniReaderWriter::read() {
  try {
    QmioFile file(m_path);
    file.Open("r");
    if (m_lockOnAccess && !lockForAccess(file, "r")) return false;
    parse(file.GetStream());
    m_loaded = true;
    if (file.IsLocked()) file.Unlock();
    file.Close();
    return true;
  } catch (const QmException&) {
    return false;
  }
}

bool IniReaderWriter::write(std::string* path) {
  try {
    QmioFile file(path ? *path : m_path);
    file.Open("w");
    if (m_lockOnAccess && !lockForAccess(file, "w")) return false;
    file.Write(format());
    file.Flush();
    if (file.IsLocked()) file.Unlock();
    file.Close();
    return true;
  } catch (const QmException&) {
    return false;
  }
}

bool IniReaderWriter::lockForAccess(QmioFile& file, const std::string& mode) const {
  const int attempts = m_waitForLock ? kLockAttempts : 1;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    // The wait between attempts is random and deliberately unbounded.
    if (attempt > 0) Qmsleep(std::abs(std::rand()));
    try {
      file.Lock(mode, false);
      return true;
    } catch (const QmException&) {
      // held by somebody else; try again
    }
  }
  return false;
}

void IniReaderWriter::parse(FILE* stream) {
  m_nodes.clear();
  // Whole lines of any length; a line ends at its first NUL byte, if any.
  LineBuffer line;
  while (getline(&line.data, &line.capacity, stream) >= 0) addLine(QmstringTrim(line.data));
}

void IniReaderWriter::addLine(const std::string& line) {
  if (line.empty()) return;
  if (line[0] == '[') {
    m_nodes.emplace_back(this, Node::HEAD, line, "");
  } else if (line[0] == '#') {
    m_nodes.emplace_back(this, Node::COMMENT, line, "");
  } else {
    const std::string::size_type equals = line.find('=');
    if (equals == std::string::npos) {
      m_nodes.emplace_back(this, Node::KEY, line, "");
      return;
    }
    const std::string key = QmstringTrim(line.substr(0, equals));
    const std::string value = QmstringTrim(line.substr(equals + 1));
    if (key.empty() || value.empty()) return;
    m_nodes.emplace_back(this, Node::KEY, key, value);
  }
}

std::string IniReaderWriter::format() const {
  std::string text;
  for (const Node& node : m_nodes) {
    if (node.removed) continue;
    switch (node.kind) {
      case Node::HEAD:
        text += "\n" + node.key + "\n";
        break;
      case Node::COMMENT:
        text += node.key + "\n";
        break;
      default:
        text += node.key + "=" + node.value + "\n";
        break;
    }
  }
  return text;
}

IniReaderWriter::Node& IniReaderWriter::operator[](const std::string& head) {
  auto it = findHead(m_nodes, head);
  if (it != m_nodes.end()) return *it;
  if (head.empty() || head[0] != '[') {
    throw std::invalid_argument("INI section head must begin with '[': " + head);
  }
  return m_nodes.emplace_back(this, Node::HEAD, head, "");
}

std::string& IniReaderWriter::keyValueInSection(Node& head, const std::string& key) {
  auto first = m_nodes.begin();
  while (first != m_nodes.end() && &*first != &head) ++first;
  if (first == m_nodes.end()) throw std::logic_error("INI node belongs to another document");
  auto last = sectionEnd(m_nodes, first);
  for (auto it = std::next(first); it != last; ++it) {
    if (isLive(*it, Node::KEY) && QmstringEqualsNoCase(it->key, key)) return it->value;
  }
  if (key.empty()) throw std::invalid_argument("INI key must not be empty");
  return m_nodes.emplace(last, this, Node::KEY, key, "")->value;
}

std::string IniReaderWriter::getKeyValue(const std::string& head, const std::string& key) const {
  const Node* node = findKey(m_nodes, head, key);
  return node ? node->value : std::string();
}

std::string IniReaderWriter::getKeyValue(const std::string& head, const char* key) const {
  return key ? getKeyValue(head, std::string(key)) : std::string();
}

std::string IniReaderWriter::getKeyValue(const std::string& head, int index) const {
  const Node* node = keyAt(m_nodes, head, index);
  return node ? node->value : std::string();
}

std::string IniReaderWriter::getKey(const std::string& head, int index) const {
  const Node* node = keyAt(m_nodes, head, index);
  return node ? node->key : std::string();
}

void IniReaderWriter::setKeyValue(const std::string& head, const std::string& key,
                                  const std::string& value) {
  (*this)[head][key] = value;
}

bool IniReaderWriter::isHeadPresent(const std::string& head) const {
  return findHead(m_nodes, head) != m_nodes.end();
}

bool IniReaderWriter::isKeyPresent(const std::string& head, const std::string& key) const {
  return findKey(m_nodes, head, key) != nullptr;
}

bool IniReaderWriter::isValuePresent(const std::string& head, const std::string& key,
                                     const std::string& value) const {
  const Node* node = findKey(m_nodes, head, key);
  return node && QmstringEqualsNoCase(node->value, value);
}

bool IniReaderWriter::isValuePresentInSection(const std::string& head,
                                              const std::string& value) const {
  return findInSection(m_nodes, head, [&value](const Node& node) {
           return QmstringEqualsNoCase(node.value, value);
         }) != nullptr;
}

bool IniReaderWriter::removeKey(const std::string& head, const std::string& key) {
  Node* node = findKey(m_nodes, head, key);
  if (!node) return false;
  node->removed = true;
  return true;
}

bool IniReaderWriter::removeHead(const std::string& head) {
  auto it = findHead(m_nodes, head);
  if (it == m_nodes.end()) return false;
  it->removed = true;
  return true;
}

bool IniReaderWriter::removeSection(const std::string& head) {
  auto first = findHead(m_nodes, head);
  if (first == m_nodes.end()) return false;
  auto last = sectionEnd(m_nodes, first);
  for (auto it = first; it != last; ++it) it->removed = true;
  return true;
}

bool IniReaderWriter::createNewHead(const std::string& head, const std::string& key) {
  const bool created = !isHeadPresent(head);
  (*this)[head][key];
  return created;
}

void IniReaderWriter::reset() {
  m_nodes.clear();
  m_loaded = false;
}
