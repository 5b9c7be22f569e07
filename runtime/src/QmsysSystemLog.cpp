#include "QmsysSystemLog.h"

#include <syslog.h>

#include <chrono>
#include <cstdarg>
#include <iterator>
#include <map>
#include <mutex>
#include <utility>

#include "QmString.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::chrono::seconds kRepeatWindow(60);
// Beyond this many remembered texts, those outside the window are forgotten.
const size_t kMaxRemembered = 1024;

struct Repeats {
  Clock::time_point written;  // when the text last went to the system log
  int heldBack = 0;           // repeats since then
};

// Shared by every thread: the listener and the recently written texts.
struct SystemLogState {
  std::mutex mutex;
  QmsysSystemLog::Listener listener;
  std::map<std::string, Repeats> recent;  // function + '\n' + text

  // The text to write now (with the count of held-back repeats), or false
  // when this entry is a repeat within the window.
  bool admit(const std::string& key, const std::string& text, std::string* out) {
    const Clock::time_point now = Clock::now();
    auto found = recent.find(key);
    if (found != recent.end() && now - found->second.written < kRepeatWindow) {
      ++found->second.heldBack;
      return false;
    }
    if (found == recent.end()) {
      forgetOld(now);
      found = recent.emplace(key, Repeats()).first;
    }
    *out = text;
    if (found->second.heldBack > 0) {
      *out +=
          QmstringFormat(" (repeated %d more times in the last minute)", found->second.heldBack);
    }
    found->second = Repeats{now, 0};
    return true;
  }

  void forgetOld(Clock::time_point now) {
    if (recent.size() < kMaxRemembered) return;
    for (auto it = recent.begin(); it != recent.end();) {
      it = now - it->second.written >= kRepeatWindow ? recent.erase(it) : std::next(it);
    }
  }
};

SystemLogState& State() {
  static SystemLogState* state = new SystemLogState;  // never destroyed: used until exit
  return *state;
}

int ToPriority(QmsysSystemLog::Category category) {
  switch (category) {
    case QmsysSystemLog::CATEGORY_INFO:
      return LOG_INFO;
    case QmsysSystemLog::CATEGORY_WARNING:
      return LOG_WARNING;
    default:
      return LOG_ERR;
  }
}

}  // namespace

void QmsysSystemLog::Write(const char* function, Category category, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string text = QmstringFormatV(format, args);
  va_end(args);
  const std::string source = function != nullptr ? function : "";
  std::string written;
  Listener listener;
  {
    SystemLogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.admit(source + '\n' + text, text, &written)) return;
    listener = state.listener;
  }
  syslog(LOG_USER | ToPriority(category), "%s: %s", source.c_str(), written.c_str());
  if (listener) listener(source, category, written);
}

void QmsysSystemLog::SetListener(Listener listener) {
  SystemLogState& state = State();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.listener = std::move(listener);
}
