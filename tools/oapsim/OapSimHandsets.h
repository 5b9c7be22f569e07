#ifndef QM_TOOLS_OAPSIM_OAPSIMHANDSETS_H
#define QM_TOOLS_OAPSIM_OAPSIMHANDSETS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "OapSimDocument.h"

// The messages the simulated handsets have been shown, per handset and
// tracking number, with what each handset did with them. Owns its records;
// not thread-safe (the simulator serves everything from one thread).
class OapSimHandsets {
 public:
  struct Message {
    uint32_t tracking = 0;
    std::string handset;
    std::string version;
    std::string subject;
    std::string text;
    std::vector<OapSimDocument::Option> options;
    bool interactive = false;
    bool wiped = false;  // an update took the options away
    int updates = 0;
    std::string driverHost;  // where the handset sends reports and answers
    int driverPort = 0;
    bool delivered = false;
    std::vector<std::string> answers;
  };

  enum Outcome { Added, Reused, Updated, UnknownUpdate };

  // Stores an accepted request: a new message (Reused when its tracking
  // number was already shown on that handset) or an update of a shown one.
  Outcome Store(const OapSimDocument::Request& request, const std::string& driverHost);

  const Message* Find(uint32_t tracking) const;
  // Every message, handset by handset, in tracking order.
  std::vector<const Message*> All() const;

  void MarkDelivered(uint32_t tracking);
  void AddAnswer(uint32_t tracking, const std::string& answer);

  // "4.0 message 0x1a to 1234: subject 'Hi' text 'Hello' options [...] custom 'L'"
  static std::string Describe(const Message& message);
  // "4.0 update of 0x1a to 1234: options wiped, text now '...'"
  static std::string DescribeUpdate(const Message& message);
  // The options part: "options [1:Yes->N:Yes, 2:No->F:No] custom 'L'", or "".
  static std::string DescribeOptions(const std::vector<OapSimDocument::Option>& options);
  // Single-quoted text with line breaks and control characters made visible.
  static std::string Quote(const std::string& text);

 private:
  Message* FindMutable(uint32_t tracking);

  std::map<std::string, std::map<uint32_t, Message>> m_handsets;
};

#endif
