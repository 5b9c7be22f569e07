// oapsim: a stand-in OAP server with simulated handsets, for running and
// checking the OAP driver end to end on one machine.

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "OapSimOptions.h"
#include "OapSimServer.h"
#include "QmToolCommandLine.h"
#include "QmToolStopSignals.h"

int main(int argc, char** argv) {
  QmToolStopSignals stop;
  OapSimOptions options;
  std::string error;
  if (!options.Parse(std::vector<std::string>(argv + 1, argv + argc), error)) {
    return QmToolCommandLine::BadUsage("oapsim", error);
  }
  if (options.help || options.version) {
    std::fputs(
        (options.help ? OapSimOptions::Usage() : QmToolCommandLine::VersionText("oapsim")).c_str(),
        stdout);
    return 0;
  }
  if (stop.Descriptor() < 0) {
    std::perror("oapsim: cannot watch for stop signals");
    return 1;
  }
  OapSimServer server(options, stdout);
  if (!server.Start(error)) {
    std::fprintf(stderr, "oapsim: %s\n", error.c_str());
    return 1;
  }
  server.Run(STDIN_FILENO, stop.Descriptor());
  return 0;
}
