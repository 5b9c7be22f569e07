#include "OapSimOptions.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iterator>

namespace {

bool ParseInt(const std::string& text, long min, long max, int& value) {
  if (text.empty() || text.size() > 11) return false;
  char* end = nullptr;
  const long number = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || number < min || number > max) return false;
  value = static_cast<int>(number);
  return true;
}

}  // namespace

std::string OapSimOptions::Usage() {
  return "usage: oapsim [--listen 127.0.0.1:PORT] [--status TYPE:CODE] [--silent]\n"
         "              [--driver-host HOST] [--auto HANDSET=ACTION[,ACTION...]]...\n"
         "              [--auto-delay-ms N] [--read-timeout-ms N] [--exit-after-ms N]\n"
         "  ACTION: deliver | option:N | text:WORDS (no commas in WORDS)\n"
         "  commands on standard input: deliver ID | answer ID N | text ID WORDS | list | quit\n";
}

bool OapSimOptions::Parse(int argc, const char* const* argv, std::string& error) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--help") {
      error.clear();
      return false;
    }
    if (name == "--silent") {
      silent = true;
      continue;
    }
    static const char* const kValued[] = {"--listen",       "--status",        "--driver-host",
                                          "--auto",         "--auto-delay-ms", "--read-timeout-ms",
                                          "--exit-after-ms"};
    if (std::find(std::begin(kValued), std::end(kValued), name) == std::end(kValued)) {
      error = "unknown argument " + name;
      return false;
    }
    if (i + 1 >= argc) {
      error = "missing value after " + name;
      return false;
    }
    const std::string value = argv[++i];
    bool ok = true;
    if (name == "--listen") {
      ok = ParseListen(value);
    } else if (name == "--status") {
      ok = ParseStatus(value);
    } else if (name == "--driver-host") {
      ok = !value.empty();
      driverHost = value;
    } else if (name == "--auto") {
      ok = ParseAuto(value);
    } else if (name == "--auto-delay-ms") {
      ok = ParseInt(value, 0, INT_MAX, autoDelayMs);
    } else if (name == "--read-timeout-ms") {
      ok = ParseInt(value, 1, INT_MAX, readTimeoutMs);
    } else {
      ok = ParseInt(value, 0, INT_MAX, exitAfterMs);
    }
    if (!ok) {
      error = "bad value '" + value + "' for " + name;
      return false;
    }
  }
  return true;
}

bool OapSimOptions::ParseListen(const std::string& value) {
  const size_t colon = value.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  listenHost = value.substr(0, colon);
  return ParseInt(value.substr(colon + 1), 0, 65535, listenPort);
}

bool OapSimOptions::ParseStatus(const std::string& value) {
  const size_t colon = value.find(':');
  if (colon == std::string::npos) return false;
  return ParseInt(value.substr(0, colon), INT_MIN, INT_MAX, statusType) &&
         ParseInt(value.substr(colon + 1), INT_MIN, INT_MAX, statusCode);
}

bool OapSimOptions::ParseAuto(const std::string& value) {
  const size_t equals = value.find('=');
  if (equals == std::string::npos || equals == 0) return false;
  std::vector<Action> script;
  size_t start = equals + 1;
  while (true) {
    const size_t comma = value.find(',', start);
    Action action;
    if (!ParseAction(value.substr(start, comma - start), action)) return false;
    script.push_back(action);
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  autoScripts[value.substr(0, equals)] = script;
  return true;
}

bool OapSimOptions::ParseAction(const std::string& text, Action& action) {
  if (text == "deliver") {
    action.kind = Action::Deliver;
    return true;
  }
  if (text.compare(0, 7, "option:") == 0) {
    action.kind = Action::Option;
    return ParseInt(text.substr(7), 1, INT_MAX, action.option);
  }
  if (text.compare(0, 5, "text:") == 0 && text.size() > 5) {
    action.kind = Action::Text;
    action.words = text.substr(5);
    return true;
  }
  return false;
}
