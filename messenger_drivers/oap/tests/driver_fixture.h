#ifndef QM_OAP_TESTS_DRIVER_FIXTURE_H
#define QM_OAP_TESTS_DRIVER_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../../../runtime/tests/test_support.h"
#include "FakeOapServer.h"
#include "QmDriverLoader.h"
#include "QmReferenceJob.h"
#include "QmReferenceReportsManager.h"

// The plug-in loaded and its driver wired to a recording logger, a queue and
// a reports manager, as a host does it.
class DriverTest : public ::testing::Test {
 protected:
  using Status = QmMessengerReportsMngrInterface::ReportsStatus;

  void SetUp() override;
  void TearDown() override;

  // Runs Setup with the given listener port text on 127.0.0.1.
  bool SetupWithPort(const std::string& port);
  // Runs Setup on a free port, written with `blanks` on either side, and
  // remembers it in listenerPort.
  void SetupOnFreePort(const std::string& blanks = "");
  // A job addressed to the fake server.
  void Address(QmReferenceJob& job, int serverPort, const std::string& version = "3.0");
  // Jobs handed back so far, oldest first; the queue is emptied.
  std::vector<QmMessageFile*> DrainQueue();

  QmDriverLoader loader;
  QmProtocolDriverInterface* driver = nullptr;
  RecordingLogger logger;
  QmMessageQueue queue;
  QmReferenceReportsManager reports;
  int listenerPort = 0;
};

#endif
