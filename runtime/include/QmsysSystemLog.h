#ifndef QM_RUNTIME_QMSYSSYSTEMLOG_H
#define QM_RUNTIME_QMSYSSYSTEMLOG_H

#include <string>

// Thin wrapper over the system log, used by the logging classes for their
// own faults (they cannot log through themselves). Each entry names the
// function that raised it and a category. A process may also register one
// listener that receives every entry, e.g. to mirror faults on a console.
class QmsysSystemLog {
 public:
  enum Category { CATEGORY_INFO = 0, CATEGORY_WARNING = 1, CATEGORY_ERROR = 2 };
  using Listener = void (*)(const std::string& function, Category category,
                            const std::string& text);

  // Formats like printf and writes "<function>: <text>" to the system log.
  static void Write(const char* function, Category category, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  // nullptr removes the listener.
  static void SetListener(Listener listener);
};

#endif
