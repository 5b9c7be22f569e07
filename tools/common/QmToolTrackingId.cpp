#include "QmToolTrackingId.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

std::string QmToolTrackingId::Format(uint32_t id) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(id));
  return text;
}

bool QmToolTrackingId::Parse(const std::string& text, uint32_t& id) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const std::string digits = hex ? text.substr(2) : text;
  if (digits.empty() || digits.size() > 10) return false;
  for (char c : digits) {
    if (!(hex ? std::isxdigit(static_cast<unsigned char>(c))
              : std::isdigit(static_cast<unsigned char>(c))))
      return false;
  }
  errno = 0;
  const unsigned long long value = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
  if (errno != 0 || value > UINT32_MAX) return false;
  id = static_cast<uint32_t>(value);
  return true;
}

std::string QmToolTrackingId::FormatReceipt(const std::string& receipt) {
  uint32_t id = 0;
  if (receipt.empty() || receipt.compare(0, 2, "0x") == 0 || !Parse(receipt, id)) return receipt;
  return Format(id);
}
