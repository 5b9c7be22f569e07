// qmhost: the reference host program. Loads an OAP driver plug-in, sends the
// jobs given on the command line and reports what the driver hands back.

#include <iostream>
#include <string>
#include <vector>

#include "QmHostOptions.h"
#include "QmHostRunner.h"
#include "QmToolCommandLine.h"
#include "QmToolStopSignals.h"

int main(int argc, char** argv) {
  // Before the plug-in is loaded: every thread it starts inherits the mask,
  // so SIGINT and SIGTERM reach only the runner's wait.
  QmToolStopSignals stop;
  QmHostOptions options;
  std::string error;
  if (!QmHostOptions::Parse(std::vector<std::string>(argv + 1, argv + argc), &options, &error)) {
    return QmToolCommandLine::BadUsage("qmhost", error);
  }
  if (options.help || options.version) {
    std::cout << (options.help ? QmHostOptions::Usage() : QmToolCommandLine::VersionText("qmhost"));
    return QmHostRunner::EXIT_COMPLETE;
  }
  QmHostRunner runner(options, stop, std::cout, std::cerr);
  return runner.Run();
}
