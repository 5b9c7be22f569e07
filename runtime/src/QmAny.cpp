#include "QmAny.h"

#include <cstdlib>

QmAny::QmAny(int value) : m_text(std::to_string(value)) {}
QmAny::QmAny(unsigned int value) : m_text(std::to_string(value)) {}
QmAny::QmAny(long value) : m_text(std::to_string(value)) {}
QmAny::QmAny(unsigned long value) : m_text(std::to_string(value)) {}

int QmAny::asInt() const {
  return static_cast<int>(std::strtol(m_text.c_str(), nullptr, 10));
}

unsigned int QmAny::asUInt() const {
  return static_cast<unsigned int>(std::strtoul(m_text.c_str(), nullptr, 10));
}

long QmAny::asLong() const {
  return std::strtol(m_text.c_str(), nullptr, 10);
}

unsigned long QmAny::asULong() const {
  return std::strtoul(m_text.c_str(), nullptr, 10);
}
