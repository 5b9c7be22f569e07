#ifndef QM_TOOLS_LOGVIEWOPTIONS_H
#define QM_TOOLS_LOGVIEWOPTIONS_H

#include <string>
#include <vector>

// The log viewer's command line: where the database is, what to select, how
// to order, page and print it. Parse() validates everything that can be
// checked without the database, including that no text that ends up inside
// SQL carries a single quote.
class LogViewOptions {
 public:
  std::string dbPath;                // --db FILE
  std::string configDir;             // --config DIR (the directory holding qmlogs.ini)
  std::string loggerName;            // --logger NAME (a logger section of qmlogs.ini)
  std::vector<std::string> modules;  // --module NAME, repeatable; empty: all
  bool listModules = false;
  int level = 0;               // --level: one level only, 0 for any
  std::vector<int> levels;     // --levels: a set of levels
  std::string messagePattern;  // --message, SQL LIKE
  std::string datePattern;     // --date, SQL LIKE over "MM/DD/YYYY hh:mm:ss"
  long since = 0;              // --since, seconds since the epoch
  bool sortByTime = false;
  bool sortByModule = false;
  bool sortByLevel = false;
  int page = 1;
  int pageSize = 20;
  bool json = false;
  bool follow = false;
  int intervalMs = 500;  // --interval, follow mode polling period
  bool help = false;
  bool version = false;

  // Fills `options` from the arguments (argv[0] is the program); on failure
  // returns false with a one-line reason in `error`. --help and --version
  // end the parse and need nothing else.
  static bool Parse(int argc, const char* const* argv, LogViewOptions& options, std::string& error);
  // The --help text.
  static std::string Usage();
  // A level given as a number 1..7 or a level name; 0 when neither.
  static int ParseLevel(const std::string& text);
  // "YYYY-MM-DD HH:MM:SS" or "YYYY-MM-DD" in local time, or epoch seconds;
  // -1 when the text is neither.
  static long ParseTime(const std::string& text);
};

#endif
