#ifndef QM_TOOLS_QMHOST_QMHOSTOPTIONS_H
#define QM_TOOLS_QMHOST_QMHOSTOPTIONS_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "QmMessageFile.h"

// The reference host's command line: where the plug-in and the work
// directory are, the driver's listener, the query cycle and the jobs to
// send. Parse fills a plain value; nothing here talks to the driver.
class QmHostOptions {
 public:
  // One job as given after --job.
  struct Job {
    std::string id;
    std::string handset;
    std::string serverHost;
    int32_t serverPort = 0;
    std::string oapVersion = "3.0";
    std::string subject;
    std::string text;
    std::vector<QmResponseChoice> choices;
    std::string customLabel;
    bool interactive = false;
    bool settingsPresent = false;
    int32_t ttlMinutes = 0;
    int32_t priority = 6;  // the message default when only other settings are given
    bool urgent = false;
    bool sticky = false;
    std::string colour;
    std::string intensity;
    int32_t repeat = 0;
    int32_t repeatInterval = 0;
    std::string callerPattern;
    std::string callerDefault;
    std::string callerFixed;
    std::set<int> expected;
  };

  // Fills `out` from the arguments after the program name. False with a
  // message in `error` for anything malformed or missing; --help and
  // --version end the parse and need nothing else.
  static bool Parse(const std::vector<std::string>& args, QmHostOptions* out, std::string* error);
  static std::string Usage();
  // SENDING, SENT, ... for the host's report statuses; "UNKNOWN" otherwise.
  static std::string StatusName(int status);
  // A status given by name or by number; false when it is neither.
  static bool ParseStatus(const std::string& text, int* status);

  bool help = false;
  bool version = false;
  std::string plugin;
  std::string workdir;
  // The driver's message store; empty: a file in the work directory.
  std::string statePath;
  std::string listenPort;
  std::string listenAddress = "127.0.0.1";
  int pollMs = 200;
  int durationMs = 10000;
  bool untilExpected = false;
  std::vector<Job> jobs;
};

#endif
