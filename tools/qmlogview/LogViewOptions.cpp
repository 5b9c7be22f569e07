#include "LogViewOptions.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>

#include "QmString.h"
#include "QmsysEventLogWriterInterface.h"

namespace {

const int kMaxPageSize = 100000;

// Whole-text decimal number within [low, high].
bool ParseInt(const std::string& text, long low, long high, long& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long parsed = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || parsed < low || parsed > high) return false;
  value = parsed;
  return true;
}

bool AllDigits(const std::string& text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// The text is copied into SQL unchanged, so it must not end the quoted
// string early.
bool CheckNoQuote(const std::string& what, const std::string& text, std::string& error) {
  if (text.find('\'') == std::string::npos) return true;
  error = what + " must not contain a single quote ('): " + text;
  return false;
}

// Reads "a,b,c" into levels; false at the first entry that is no level.
bool ParseLevelList(const std::string& text, std::vector<int>& levels, std::string& bad) {
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    const std::string item = QmstringTrim(text.substr(start, comma - start));
    const int level = LogViewOptions::ParseLevel(item);
    if (level == 0) {
      bad = item;
      return false;
    }
    levels.push_back(level);
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

bool ParseSortKeys(const std::string& text, LogViewOptions& options, std::string& bad) {
  size_t start = 0;
  while (true) {
    const size_t comma = text.find(',', start);
    const std::string key = QmstringTrim(text.substr(start, comma - start));
    if (QmstringEqualsNoCase(key, "time")) {
      options.sortByTime = true;
    } else if (QmstringEqualsNoCase(key, "module")) {
      options.sortByModule = true;
    } else if (QmstringEqualsNoCase(key, "level")) {
      options.sortByLevel = true;
    } else {
      bad = key;
      return false;
    }
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

// One option taking a value: stores it, or explains why it cannot.
using ValueHandler = std::function<bool(const std::string&, LogViewOptions&, std::string&)>;

const std::map<std::string, ValueHandler>& ValueOptions() {
  static const std::map<std::string, ValueHandler> handlers = {
      {"--db",
       [](const std::string& v, LogViewOptions& o, std::string&) {
         o.dbPath = v;
         return true;
       }},
      {"--config",
       [](const std::string& v, LogViewOptions& o, std::string&) {
         o.configDir = v;
         return true;
       }},
      {"--logger",
       [](const std::string& v, LogViewOptions& o, std::string&) {
         o.loggerName = v;
         return true;
       }},
      {"--module",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         if (v.empty()) {
           e = "--module needs a module name";
           return false;
         }
         o.modules.push_back(v);
         return CheckNoQuote("module name", v, e);
       }},
      {"--level",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         o.level = LogViewOptions::ParseLevel(v);
         if (o.level == 0) e = "bad level '" + v + "' (use 1..7 or TRACE..FATAL)";
         return o.level != 0;
       }},
      {"--levels",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         std::string bad;
         if (ParseLevelList(v, o.levels, bad)) return true;
         e = "bad level '" + bad + "' in --levels (use 1..7 or TRACE..FATAL)";
         return false;
       }},
      {"--message",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         o.messagePattern = v;
         return CheckNoQuote("--message pattern", v, e);
       }},
      {"--date",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         o.datePattern = v;
         return CheckNoQuote("--date pattern", v, e);
       }},
      {"--since",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         o.since = LogViewOptions::ParseTime(v);
         if (o.since < 0) e = "bad --since time '" + v + "' (use 'YYYY-MM-DD HH:MM:SS' or seconds)";
         return o.since >= 0;
       }},
      {"--sort",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         std::string bad;
         if (ParseSortKeys(v, o, bad)) return true;
         e = "bad sort key '" + bad + "' (use time, module or level)";
         return false;
       }},
      {"--page",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         long n = 0;
         if (!ParseInt(v, 1, 1000000000L, n)) {
           e = "bad page number '" + v + "' (must be 1 or more)";
           return false;
         }
         o.page = static_cast<int>(n);
         return true;
       }},
      {"--page-size",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         long n = 0;
         if (!ParseInt(v, 1, kMaxPageSize, n)) {
           e = "bad page size '" + v + "' (must be 1 to " + std::to_string(kMaxPageSize) + ")";
           return false;
         }
         o.pageSize = static_cast<int>(n);
         return true;
       }},
      {"--interval",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         long n = 0;
         if (!ParseInt(v, 10, 60000, n)) {
           e = "bad interval '" + v + "' (must be 10 to 60000 ms)";
           return false;
         }
         o.intervalMs = static_cast<int>(n);
         return true;
       }},
  };
  return handlers;
}

bool ParseFlag(const std::string& name, LogViewOptions& options) {
  if (name == "--json") {
    options.json = true;
  } else if (name == "--follow" || name == "-f") {
    options.follow = true;
  } else if (name == "--list-modules") {
    options.listModules = true;
  } else if (name == "--help" || name == "-h") {
    options.help = true;
  } else {
    return false;
  }
  return true;
}

bool CheckCombination(const LogViewOptions& options, std::string& error) {
  if (options.dbPath.empty() == options.configDir.empty()) {
    error = "give exactly one of --db FILE or --config DIR";
    return false;
  }
  if (!options.loggerName.empty() && options.configDir.empty()) {
    error = "--logger needs --config DIR";
    return false;
  }
  if (options.level != 0 && !options.levels.empty()) {
    error = "--level and --levels cannot be combined";
    return false;
  }
  if (options.follow && options.listModules) {
    error = "--follow and --list-modules cannot be combined";
    return false;
  }
  return true;
}

}  // namespace

int LogViewOptions::ParseLevel(const std::string& text) {
  long number = 0;
  if (AllDigits(text)) return ParseInt(text, 1, 7, number) ? static_cast<int>(number) : 0;
  return QmsysEventLogWriterInterface::getLogLevelInt(
      QmsysEventLogWriterInterface::getLogLevel(text, true));
}

long LogViewOptions::ParseTime(const std::string& text) {
  long seconds = 0;
  if (AllDigits(text)) return ParseInt(text, 0, 0x7fffffffL, seconds) ? seconds : -1;
  std::tm fields{};
  int consumed = 0;
  const int parsed = std::sscanf(text.c_str(), "%4d-%2d-%2d%n %2d:%2d:%2d%n", &fields.tm_year,
                                 &fields.tm_mon, &fields.tm_mday, &consumed, &fields.tm_hour,
                                 &fields.tm_min, &fields.tm_sec, &consumed);
  if ((parsed != 3 && parsed != 6) || static_cast<size_t>(consumed) != text.size()) return -1;
  std::tm wanted = fields;
  fields.tm_year -= 1900;
  fields.tm_mon -= 1;
  fields.tm_isdst = -1;
  const std::time_t result = std::mktime(&fields);
  // mktime normalises 31 April into 1 May; such dates are refused.
  if (result < 0 || fields.tm_year + 1900 != wanted.tm_year || fields.tm_mon + 1 != wanted.tm_mon ||
      fields.tm_mday != wanted.tm_mday || fields.tm_hour != wanted.tm_hour ||
      fields.tm_min != wanted.tm_min || fields.tm_sec != wanted.tm_sec) {
    return -1;
  }
  return static_cast<long>(result);
}

bool LogViewOptions::Parse(int argc, const char* const* argv, LogViewOptions& options,
                           std::string& error) {
  for (int i = 1; i < argc; ++i) {
    std::string name = argv[i];
    std::string value;
    bool inlineValue = false;
    const size_t equals = name.find('=');
    if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
      value = name.substr(equals + 1);
      name = name.substr(0, equals);
      inlineValue = true;
    }
    const auto handler = ValueOptions().find(name);
    if (handler == ValueOptions().end()) {
      if (inlineValue || !ParseFlag(name, options)) {
        error = "unknown option '" + std::string(argv[i]) + "' (see --help)";
        return false;
      }
      continue;
    }
    if (!inlineValue) {
      if (i + 1 >= argc) {
        error = name + " needs a value";
        return false;
      }
      value = argv[++i];
    }
    if (!handler->second(value, options, error)) return false;
  }
  if (!options.sortByTime && !options.sortByModule && !options.sortByLevel) {
    options.sortByTime = true;
  }
  return options.help || CheckCombination(options, error);
}

std::string LogViewOptions::Usage() {
  return "Usage: qmlogview (--db FILE | --config DIR [--logger NAME]) [options]\n"
         "\n"
         "Lists the entries of an SQLite log database, one page at a time, or follows it.\n"
         "\n"
         "Database:\n"
         "  --db FILE            the log database file\n"
         "  --config DIR         take the database from DIR/qmlogs.ini: the dbfilename of the\n"
         "                       one logger section with writer=sqlite\n"
         "  --logger NAME        with --config: use the logger section [NAME]\n"
         "\n"
         "Selection:\n"
         "  --module NAME        show module NAME (repeatable; default: every module)\n"
         "  --list-modules       print the modules stored in the database and exit\n"
         "  --level N|NAME       only entries of exactly this level (1..7 or TRACE, DEBUG,\n"
         "                       INFO, WARN, ERROR, CRITICAL, FATAL)\n"
         "  --levels L1,L2,...   only entries of one of these levels\n"
         "  --message PATTERN    only messages matching the SQL LIKE pattern (% and _)\n"
         "  --since TIME         only entries at or after TIME: 'YYYY-MM-DD HH:MM:SS' or\n"
         "                       'YYYY-MM-DD' in local time, or seconds since the epoch\n"
         "  --date PATTERN       SQL LIKE pattern over the local time written as\n"
         "                       'MM/DD/YYYY hh:mm:ss', e.g. '11/14/2023%'\n"
         "  Patterns and module names must not contain a single quote.\n"
         "\n"
         "Order and pages:\n"
         "  --sort KEYS          time (newest first), module, level; several as a comma\n"
         "                       list, time before module before level (default: time)\n"
         "  --page N             the page to show (default 1)\n"
         "  --page-size N        entries per page (default 20)\n"
         "\n"
         "Output:\n"
         "  --json               one JSON object per entry and line; page notes go to stderr\n"
         "  --follow, -f         print matching entries as they arrive, oldest first, until\n"
         "                       SIGINT or SIGTERM; with --since, stored entries from that\n"
         "                       time on come first\n"
         "  --interval MS        follow polling period in milliseconds (default 500)\n"
         "  --help, -h           this text\n"
         "\n"
         "Exit status: 0 success, 1 database or data error (missing or locked database,\n"
         "unknown module, page past the end), 2 bad command line.\n";
}
