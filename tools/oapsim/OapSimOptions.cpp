#include "OapSimOptions.h"

#include <climits>
#include <functional>

#include "QmToolCommandLine.h"

namespace {

bool ParseInt(const std::string& text, long low, long high, int& value) {
  return QmToolCommandLine::ParseInt(text, low, high, value);
}

}  // namespace

std::string OapSimOptions::Usage() {
  return "Usage: oapsim [OPTION]...\n"
         "\n"
         "A stand-in OAP server with simulated handsets, for running and checking the OAP\n"
         "driver on one machine. Answers every request, keeps the messages per handset and\n"
         "plays the handsets: delivery reports and answers go to the driver's listener.\n"
         "\n"
         "Options:\n"
         "  --listen HOST:PORT     where to listen (default 127.0.0.1:0, any free port);\n"
         "                         the first output line is 'listening on HOST:PORT'\n"
         "  --allow-remote         allow a listen address and driver addresses beyond\n"
         "                         loopback (refused without it)\n"
         "  --status TYPE:CODE     answer every request with this status instead of 1:200\n"
         "  --silent               read requests but never answer; the connection stays\n"
         "                         open until the client gives up\n"
         "  --driver-host HOST     where 4.0 answers go (default 127.0.0.1); 3.0 requests\n"
         "                         name their listener themselves\n"
         "  --auto HANDSET=ACTION[,ACTION...]\n"
         "                         what a handset does with each new message, in order\n"
         "                         (repeatable); ACTION: deliver | option:N | text:WORDS\n"
         "                         (no commas in WORDS)\n"
         "  --auto-delay-ms N      pause before each scripted action (default 200)\n"
         "  --read-timeout-ms N    time a client has to send its request (default 5000)\n"
         "  --exit-after-ms N      stop after N ms (default: run until stopped)\n"
         "  -h, --help             show this text and exit\n"
         "      --version          show the version and exit\n"
         "\n"
         "Commands on standard input: deliver ID | answer ID N | text ID WORDS | list | quit.\n"
         "Message ids are shown as 0x and hexadecimal (0x1a0000); commands take that form\n"
         "or decimal. SIGINT, SIGTERM and quit stop the simulator with exit status 0;\n"
         "exit status 1 when it cannot listen, 2 for a bad command line.\n";
}

bool OapSimOptions::Parse(const std::vector<std::string>& args, std::string& error) {
  QmToolCommandLine line("oapsim");
  // An option whose value `parse` checks; a refusal names the value.
  auto checked = [&line](const char* name, std::function<bool(const std::string&)> parse) {
    line.Value(name, 0, [name, parse](const std::string& value, std::string& problem) {
      if (parse(value)) return true;
      problem = "bad value '" + value + "' for --" + name;
      return false;
    });
  };
  checked("listen", [this](const std::string& v) { return ParseListen(v); });
  checked("status", [this](const std::string& v) { return ParseStatus(v); });
  checked("driver-host", [this](const std::string& v) { return !(driverHost = v).empty(); });
  checked("auto", [this](const std::string& v) { return ParseAuto(v); });
  checked("auto-delay-ms",
          [this](const std::string& v) { return ParseInt(v, 0, INT_MAX, autoDelayMs); });
  checked("read-timeout-ms",
          [this](const std::string& v) { return ParseInt(v, 1, INT_MAX, readTimeoutMs); });
  checked("exit-after-ms",
          [this](const std::string& v) { return ParseInt(v, 0, INT_MAX, exitAfterMs); });
  line.Flag("silent", 0, [this](const std::string&, std::string&) { return silent = true; });
  line.Flag("allow-remote", 0,
            [this](const std::string&, std::string&) { return allowRemote = true; });
  if (!line.Parse(args, error)) return false;
  help = line.HelpAsked();
  version = line.VersionAsked();
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
