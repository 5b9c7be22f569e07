#include "QmsysSystemLog.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <vector>

#include "QmString.h"

namespace {

std::atomic<QmsysSystemLog::Listener> the_Listener{nullptr};

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
  const char* source = function != nullptr ? function : "";
  syslog(LOG_USER | ToPriority(category), "%s: %s", source, text.c_str());
  const Listener listener = the_Listener.load();
  if (listener != nullptr) listener(source, category, text);
}

void QmsysSystemLog::SetListener(Listener listener) {
  the_Listener = listener;
}
