#ifndef QM_TOOLS_COMMON_QMTOOLTRACKINGID_H
#define QM_TOOLS_COMMON_QMTOOLTRACKINGID_H

#include <cstdint>
#include <string>

// How the tools show and read a message's tracking number (the request id
// on the wire, the job's tracking receipt): shown as "0x" and lower-case
// hexadecimal, read as decimal or as "0x" hexadecimal.
class QmToolTrackingId {
 public:
  static std::string Format(uint32_t id);
  // False for anything but a whole decimal or "0x" hexadecimal number that
  // fits 32 bits.
  static bool Parse(const std::string& text, uint32_t& id);
  // A tracking receipt (decimal text) shown as Format does; empty stays
  // empty, anything unreadable is shown as it is.
  static std::string FormatReceipt(const std::string& receipt);
};

#endif
