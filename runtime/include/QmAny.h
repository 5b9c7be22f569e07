#ifndef QM_RUNTIME_QMANY_H
#define QM_RUNTIME_QMANY_H

#include <string>

// A value held as text, converted on demand.
// QmAny(17ul).asString() == "17"; QmAny("42").asUInt() == 42.
class QmAny {
 public:
  QmAny() = default;
  QmAny(const std::string& text) : m_text(text) {}       // NOLINT: implicit by design
  QmAny(const char* text) : m_text(text ? text : "") {}  // NOLINT
  QmAny(int value);
  QmAny(unsigned int value);
  QmAny(long value);
  QmAny(unsigned long value);

  const std::string& asString() const { return m_text; }
  int asInt() const;
  unsigned int asUInt() const;
  long asLong() const;
  unsigned long asULong() const;

 private:
  std::string m_text;
};

#endif
