#include "driver_fixture.h"

#include <cstdio>

#include "QmconCriticalSection.h"

void DriverTest::SetUp() {
  ASSERT_TRUE(loader.Load(QM_DRIVER_PATH)) << loader.GetError();
  driver = loader.GetDriverInstance();
  ASSERT_NE(driver, nullptr);
  driver->Logger = &logger;
  driver->ReportsManager = &reports;
  driver->MessageQueue = &queue;
}

void DriverTest::TearDown() {
  if (driver != nullptr) {
    driver->Cleanup();
    loader.ReleaseDriverInstance(driver);
  }
}

bool DriverTest::SetupWithPort(const std::string& port) {
  QmMessengerInstConfBasic conf;
  std::snprintf(conf.ListenerPort, sizeof(conf.ListenerPort), "%s", port.c_str());
  std::snprintf(conf.ListenerAddress, sizeof(conf.ListenerAddress), "127.0.0.1");
  return driver->Setup(&conf);
}

void DriverTest::SetupOnFreePort(const std::string& blanks) {
  // The port is free when picked; another process may take it before the
  // listener binds, so a few attempts are made.
  for (int attempt = 0; attempt < 5; ++attempt) {
    listenerPort = UnusedPort();
    if (SetupWithPort(blanks + std::to_string(listenerPort) + blanks)) return;
  }
  FAIL() << "no listener port could be bound";
}

void DriverTest::Address(QmReferenceJob& job, int serverPort, const std::string& version) {
  job.JobId = "job-1";
  job.DeviceId = "4711";
  job.ServerHost = "127.0.0.1";
  job.ServerPort = serverPort;
  job.OapVersion = version;
  job.SubjectText = "Subject";
  job.MessageText = "Hello";
}

std::vector<QmMessageFile*> DriverTest::DrainQueue() {
  QmconCriticalSection guard(queue.Lock.GetLockObj(), true, true, false);
  std::vector<QmMessageFile*> jobs(queue.Jobs.begin(), queue.Jobs.end());
  queue.Jobs.clear();
  return jobs;
}
