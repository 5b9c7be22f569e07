// qmlogview: lists and follows the entries of an SQLite log database.

#include <iostream>
#include <memory>

#include "LogViewOptions.h"
#include "LogViewer.h"
#include "QmToolCommandLine.h"
#include "QmToolStopSignals.h"

int main(int argc, char** argv) {
  LogViewOptions options;
  std::string error;
  if (!LogViewOptions::Parse(argc, argv, options, error)) {
    return QmToolCommandLine::BadUsage("qmlogview", error);
  }
  if (options.help || options.version) {
    std::cout << (options.help ? LogViewOptions::Usage()
                               : QmToolCommandLine::VersionText("qmlogview"));
    return LogViewer::EXIT_OK;
  }
  // Following, SIGINT and SIGTERM stay blocked and are taken while the
  // viewer waits between polls, so an interrupt ends it between two reads.
  std::unique_ptr<QmToolStopSignals> stop;
  if (options.follow) stop.reset(new QmToolStopSignals());
  LogViewer viewer(options, std::cout, std::cerr);
  return viewer.Run([&stop](int ms) { return stop->Wait(ms) != 0; });
}
