#ifndef QM_TOOLS_LOGVIEWFORMATTER_H
#define QM_TOOLS_LOGVIEWFORMATTER_H

#include <ctime>
#include <string>
#include <vector>

#include "QmLogDBProcessorInterface.h"

// Turns log entries into the viewer's output: an aligned table with local
// timestamps and level names, or one JSON object per line. Holds only the
// choice of format and the table's module column width.
class LogViewFormatter {
 public:
  using LogEntry = QmLogDBProcessorInterface::LogEntry;

  // `moduleWidth` is the least width of the module column in table form.
  LogViewFormatter(bool json, size_t moduleWidth);

  // The table head line ("" in JSON form).
  std::string Header() const;
  // One entry as one output line, without the line feed.
  std::string Format(const LogEntry& entry) const;

  // Local time as "YYYY-MM-DD HH:MM:SS".
  static std::string LocalTime(time_t time);
  // "TRACE" .. "FATAL", "NONE" for 0, the number for anything else.
  static std::string LevelName(int level);
  // The text as the inside of a JSON string. Valid UTF-8 passes through;
  // any byte that is not part of a valid UTF-8 sequence is read as
  // ISO-8859-1 and written as \u00XX.
  static std::string JsonEscape(const std::string& text);
  // The text on one table line: line feeds, carriage returns and tabs as
  // \n \r \t, other control bytes as \xHH.
  static std::string TableEscape(const std::string& text);
  // Width of the module column wide enough for every name given.
  static size_t ModuleWidth(const std::vector<std::string>& modules);

 private:
  std::string FormatJson(const LogEntry& entry) const;
  std::string FormatRow(const LogEntry& entry) const;

  bool m_json;
  size_t m_moduleWidth;
};

#endif
