#ifndef QM_TOOLS_COMMON_QMTOOLCOMMANDLINE_H
#define QM_TOOLS_COMMON_QMTOOLCOMMANDLINE_H

#include <functional>
#include <string>
#include <vector>

// The command-line conventions of the project's tools: long options read
// with getopt_long in the order given ("--name value" or "--name=value"),
// -h/--help and --version in every tool, and one wording for mistakes.
// A tool registers its options with a handler each, then parses once.
// Not thread-safe: getopt_long keeps its state in process globals.
class QmToolCommandLine {
 public:
  // Receives an option's value ("" for a flag); false with `error` set
  // refuses the command line.
  using Handler = std::function<bool(const std::string& value, std::string& error)>;

  explicit QmToolCommandLine(std::string program);

  // An option without a value; `shortName` 0 for none.
  void Flag(const std::string& name, char shortName, Handler handler);
  // An option with a value.
  void Value(const std::string& name, char shortName, Handler handler);
  // Consulted when --version is given; may refuse it (for a tool where the
  // word once meant something else).
  void GuardVersion(Handler guard);

  // Runs the handlers in command-line order over `args` (the arguments
  // after the program name). Stops at --help or --version. False with a
  // one-line `error` for an unknown option, a missing or unexpected value,
  // a stray argument or a refusal by a handler.
  bool Parse(const std::vector<std::string>& args, std::string& error);
  bool HelpAsked() const { return m_help; }
  bool VersionAsked() const { return m_version; }

  // "PROGRAM (QM OAP gateway) VERSION" and the licence, for --version.
  static std::string VersionText(const std::string& program);
  // Prints "PROGRAM: ERROR" and the pointer to --help on standard error;
  // returns the exit status of a bad command line, 2.
  static int BadUsage(const std::string& program, const std::string& error);
  // A whole-text decimal number within [low, high].
  static bool ParseInt(const std::string& text, long low, long high, int& value);

 private:
  struct Entry {
    std::string name;
    char shortName;
    bool takesValue;
    Handler handler;
  };

  void Add(const std::string& name, char shortName, bool takesValue, Handler handler);

  std::string m_program;
  std::vector<Entry> m_entries;
  Handler m_versionGuard;
  bool m_help = false;
  bool m_version = false;
};

#endif
