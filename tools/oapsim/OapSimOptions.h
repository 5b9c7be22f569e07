#ifndef QM_TOOLS_OAPSIM_OAPSIMOPTIONS_H
#define QM_TOOLS_OAPSIM_OAPSIMOPTIONS_H

#include <map>
#include <string>
#include <vector>

// The simulator's settings as given on its command line.
class OapSimOptions {
 public:
  // One scripted step of a simulated handset.
  struct Action {
    enum Kind { Deliver, Option, Text };
    Kind kind = Deliver;
    int option = 0;     // Option: the option number
    std::string words;  // Text: the typed answer
  };

  std::string listenHost = "127.0.0.1";
  int listenPort = 0;
  int statusType = 1;
  int statusCode = 200;
  bool silent = false;
  std::string driverHost = "127.0.0.1";
  std::map<std::string, std::vector<Action>> autoScripts;  // by handset
  int autoDelayMs = 200;
  int exitAfterMs = -1;  // -1: run until told to stop
  int readTimeoutMs = 5000;
  bool allowRemote = false;  // listen and reach drivers beyond loopback
  bool help = false;
  bool version = false;

  // Reads the arguments after the program name; false with `error` set on
  // a bad or unknown argument.
  bool Parse(const std::vector<std::string>& args, std::string& error);

  static std::string Usage();

  // "deliver", "option:N" or "text:WORDS".
  static bool ParseAction(const std::string& text, Action& action);

 private:
  bool ParseListen(const std::string& value);
  bool ParseStatus(const std::string& value);
  bool ParseAuto(const std::string& value);
};

#endif
