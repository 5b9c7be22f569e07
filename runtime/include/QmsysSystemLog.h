#ifndef QM_RUNTIME_QMSYSSYSTEMLOG_H
#define QM_RUNTIME_QMSYSSYSTEMLOG_H

#include <functional>
#include <string>

// Thin wrapper over the system log, used by the logging classes for their
// own faults (they cannot log through themselves). Each entry names the
// function that raised it and a category. An entry repeated with the same
// function and text within a minute is held back and counted; the next one
// written after that minute carries the count. A process may also register
// one listener that receives every entry written, e.g. to show faults on a
// console. Safe to use from any thread.
class QmsysSystemLog {
 public:
  enum Category { CATEGORY_INFO = 0, CATEGORY_WARNING = 1, CATEGORY_ERROR = 2 };
  using Listener =
      std::function<void(const std::string& function, Category category, const std::string& text)>;

  // Formats like printf and writes "<function>: <text>" to the system log.
  static void Write(const char* function, Category category, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  // An empty listener removes it. The listener runs on the writing thread
  // and must not write to the system log itself.
  static void SetListener(Listener listener);
};

#endif
