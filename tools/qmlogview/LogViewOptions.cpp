#include "LogViewOptions.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <tuple>

#include "QmString.h"
#include "QmToolCommandLine.h"
#include "QmsysEventLogWriterInterface.h"

namespace {

const int kMaxPageSize = 100000;

bool ParseInt(const std::string& text, long low, long high, int& value) {
  return QmToolCommandLine::ParseInt(text, low, high, value);
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
      {"db",
       [](const std::string& v, LogViewOptions& o, std::string&) {
         o.dbPath = v;
         return true;
       }},
      {"config",
       [](const std::string& v, LogViewOptions& o, std::string&) {
         o.configDir = v;
         return true;
       }},
      {"logger",
       [](const std::string& v, LogViewOptions& o, std::string&) {
         o.loggerName = v;
         return true;
       }},
      {"module",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         if (v.empty()) {
           e = "--module needs a module name";
           return false;
         }
         o.modules.push_back(v);
         return CheckNoQuote("module name", v, e);
       }},
      {"level",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         o.level = LogViewOptions::ParseLevel(v);
         if (o.level == 0) e = "bad level '" + v + "' (use 1..7 or TRACE..FATAL)";
         return o.level != 0;
       }},
      {"levels",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         std::string bad;
         if (ParseLevelList(v, o.levels, bad)) return true;
         e = "bad level '" + bad + "' in --levels (use 1..7 or TRACE..FATAL)";
         return false;
       }},
      {"message",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         o.messagePattern = v;
         return CheckNoQuote("--message pattern", v, e);
       }},
      {"date",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         o.datePattern = v;
         return CheckNoQuote("--date pattern", v, e);
       }},
      {"since",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         o.since = LogViewOptions::ParseTime(v);
         if (o.since < 0) e = "bad --since time '" + v + "' (use 'YYYY-MM-DD HH:MM:SS' or seconds)";
         return o.since >= 0;
       }},
      {"sort",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         std::string bad;
         if (ParseSortKeys(v, o, bad)) return true;
         e = "bad sort key '" + bad + "' (use time, module or level)";
         return false;
       }},
      {"page",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         if (ParseInt(v, 1, 1000000000L, o.page)) return true;
         e = "bad page number '" + v + "' (must be 1 or more)";
         return false;
       }},
      {"page-size",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         if (ParseInt(v, 1, kMaxPageSize, o.pageSize)) return true;
         e = "bad page size '" + v + "' (must be 1 to " + std::to_string(kMaxPageSize) + ")";
         return false;
       }},
      {"interval",
       [](const std::string& v, LogViewOptions& o, std::string& e) {
         if (ParseInt(v, 10, 60000, o.intervalMs)) return true;
         e = "bad interval '" + v + "' (must be 10 to 60000 ms)";
         return false;
       }},
  };
  return handlers;
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
  int number = 0;
  if (AllDigits(text)) return ParseInt(text, 1, 7, number) ? number : 0;
  return QmsysEventLogWriterInterface::getLogLevelInt(
      QmsysEventLogWriterInterface::getLogLevel(text, true));
}

long LogViewOptions::ParseTime(const std::string& text) {
  int seconds = 0;
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
  QmToolCommandLine line("qmlogview");
  for (const auto& [name, handler] : ValueOptions()) {
    line.Value(name, 0, [&options, handler = handler](const std::string& v, std::string& e) {
      return handler(v, options, e);
    });
  }
  for (const auto& [name, shortName, flag] : std::vector<std::tuple<const char*, char, bool*>>{
           {"json", 0, &options.json},
           {"follow", 'f', &options.follow},
           {"list-modules", 0, &options.listModules}}) {
    line.Flag(name, shortName,
              [flag = flag](const std::string&, std::string&) { return *flag = true; });
  }
  if (!line.Parse(std::vector<std::string>(argv + std::min(argc, 1), argv + argc), error)) {
    return false;
  }
  options.help = line.HelpAsked();
  options.version = line.VersionAsked();
  if (!options.sortByTime && !options.sortByModule && !options.sortByLevel) {
    options.sortByTime = true;
  }
  return options.help || options.version || CheckCombination(options, error);
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
         "  -f, --follow         print matching entries as they arrive, oldest first, until\n"
         "                       SIGINT or SIGTERM; with --since, stored entries from that\n"
         "                       time on come first\n"
         "  --interval MS        follow polling period in milliseconds (default 500)\n"
         "  -h, --help           show this text and exit\n"
         "      --version        show the version and exit\n"
         "\n"
         "Exit status: 0 success, 1 database or data error (missing or locked database,\n"
         "unknown module, page past the end), 2 bad command line.\n";
}
