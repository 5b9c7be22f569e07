// qmhost: the reference host program. Loads an OAP driver plug-in, sends the
// jobs given on the command line and reports what the driver hands back.

#include <iostream>
#include <string>
#include <vector>

#include "QmHostOptions.h"
#include "QmHostRunner.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  QmHostOptions options;
  std::string error;
  if (!QmHostOptions::Parse(args, &options, &error)) {
    std::cerr << "qmhost: error: " << error << "\n\n" << QmHostOptions::Usage();
    return QmHostRunner::EXIT_BAD_ARGUMENTS;
  }
  if (options.help) {
    std::cout << QmHostOptions::Usage();
    return QmHostRunner::EXIT_COMPLETE;
  }
  QmHostRunner runner(options, std::cout, std::cerr);
  return runner.Run();
}
