// oapsim: a stand-in OAP server with simulated handsets, for running and
// checking the OAP driver end to end on one machine.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "OapSimOptions.h"
#include "OapSimServer.h"

namespace {

int g_stopPipe[2] = {-1, -1};

void OnStopSignal(int) {
  const char byte = 's';
  const ssize_t ignored = write(g_stopPipe[1], &byte, 1);
  (void)ignored;
}

bool InstallStopSignals() {
  if (pipe2(g_stopPipe, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  OapSimOptions options;
  std::string error;
  if (!options.Parse(argc, argv, error)) {
    std::fputs(OapSimOptions::Usage().c_str(), error.empty() ? stdout : stderr);
    if (error.empty()) return 0;
    std::fprintf(stderr, "oapsim: %s\n", error.c_str());
    return 2;
  }
  if (!InstallStopSignals()) {
    std::perror("oapsim: cannot install signal handlers");
    return 1;
  }
  OapSimServer server(options, stdout);
  if (!server.Start(error)) {
    std::fprintf(stderr, "oapsim: %s\n", error.c_str());
    return 1;
  }
  server.Run(STDIN_FILENO, g_stopPipe[0]);
  return 0;
}
