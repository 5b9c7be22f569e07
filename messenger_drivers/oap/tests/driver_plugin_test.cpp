#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <set>

#include "driver_fixture.h"

namespace {

using Level = QmLogInterface::LogLevel;

// A driver object the plug-in never made.
class ForeignDriver : public QmProtocolDriverInterface {
 public:
  const char* GetName() override { return "foreign"; }
  const char* GetVersion() override { return "0"; }
  const char* GetProtocolName() override { return "foreign"; }
  const char* GetCarrierName() override { return "foreign"; }
  bool SendAMessage(QmMessageFile*, ReportsStatus&) override { return false; }
};

bool Connectable(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return connected;
}

TEST(DriverPlugin, ExportsExactlyTheTwoEntryPoints) {
  void* handle = dlopen(QM_DRIVER_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  EXPECT_NE(dlsym(handle, "GetDriverInstance"), nullptr);
  EXPECT_NE(dlsym(handle, "ReleaseDriverInstance"), nullptr);
  EXPECT_EQ(dlsym(handle, "InitialLib"), nullptr);
  dlclose(handle);

  FILE* nm = popen("nm -D --defined-only " QM_DRIVER_PATH, "r");
  ASSERT_NE(nm, nullptr);
  std::set<std::string> names;
  char line[512];
  while (fgets(line, sizeof(line), nm) != nullptr) {
    char type = 0;
    char name[400] = {0};
    // "<address> <type> <name>"
    if (sscanf(line, "%*s %c %399s", &type, name) == 2) names.insert(name);
  }
  ASSERT_EQ(pclose(nm), 0);
  EXPECT_EQ(names, (std::set<std::string>{"GetDriverInstance", "ReleaseDriverInstance"}));
}

TEST_F(DriverTest, OneDriverUntilReleased) {
  EXPECT_EQ(loader.GetDriverInstance(), driver);
  EXPECT_EQ(driver->Logger, &logger);

  ForeignDriver foreign;
  loader.ReleaseDriverInstance(&foreign);
  loader.ReleaseDriverInstance(nullptr);
  EXPECT_EQ(loader.GetDriverInstance(), driver);
  EXPECT_EQ(driver->Logger, &logger);

  loader.ReleaseDriverInstance(driver);
  driver = loader.GetDriverInstance();
  ASSERT_NE(driver, nullptr);
  // A fresh object starts without logger and reports manager.
  EXPECT_EQ(driver->Logger, nullptr);
  EXPECT_EQ(driver->ReportsManager, nullptr);
  driver->MessageQueue = &queue;
}

TEST_F(DriverTest, NamesItselfThroughTheHostSlots) {
  EXPECT_STREQ(driver->GetName(), "OAP");
  EXPECT_STREQ(driver->GetVersion(), "3.x/4.x");
  EXPECT_STREQ(driver->GetProtocolName(), "Open Access Protocol (OAP)");
  EXPECT_STREQ(driver->GetCarrierName(), "*");
  EXPECT_TRUE(logger.TextsFrom("QmOAPDriver").empty());
}

TEST_F(DriverTest, HousekeepingOperationsTraceAndSucceed) {
  std::map<std::string, std::string> settings{{"ignored", "yes"}};
  EXPECT_TRUE(driver->Configure(settings));
  EXPECT_TRUE(driver->PeriodicEvent());
  EXPECT_TRUE(driver->ResetDevice());
  EXPECT_TRUE(driver->ProcessSignal());
  EXPECT_TRUE(driver->Cleanup());
  std::vector<std::string> expected;
  for (const char* op : {"Configure", "PeriodicEvent", "ResetDevice", "ProcessSignal", "Cleanup"}) {
    expected.push_back(std::string("Entering QmOAPDriver::") + op + "().");
    expected.push_back(std::string("Leaving QmOAPDriver::") + op + "() with TRUE.");
  }
  EXPECT_EQ(logger.TextsFrom("QmOAPDriver"), expected);
  EXPECT_EQ(logger.Count(Level::LEVEL_TRACE, "Entering QmOAPDriver::Configure()."), 1u);
}

TEST_F(DriverTest, SetupRefusesPortsBelowOne) {
  EXPECT_FALSE(SetupWithPort("0"));
  EXPECT_FALSE(SetupWithPort("-5"));
  EXPECT_FALSE(SetupWithPort("letters"));
  EXPECT_EQ(logger.Count(Level::LEVEL_CRITICAL, "Invalid OAP Listener port number: 0."), 2u);
  EXPECT_EQ(logger.Count(Level::LEVEL_CRITICAL, "Invalid OAP Listener port number: -5."), 1u);
  EXPECT_EQ(logger.Count(Level::LEVEL_TRACE, "Leaving QmOAPDriver::Setup() with FALSE."), 3u);
}

TEST_F(DriverTest, SetupReadsLeadingDigitsAndCleanupStopsTheListener) {
  int port = 0;
  bool started = false;
  for (int attempt = 0; attempt < 5 && !started; ++attempt) {
    port = UnusedPort();
    started = SetupWithPort("  " + std::to_string(port) + "abc");
  }
  ASSERT_TRUE(started);
  EXPECT_EQ(logger.Count(Level::LEVEL_TRACE, "Leaving QmOAPDriver::Setup() with TRUE."), 1u);
  EXPECT_TRUE(Connectable(port));

  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(driver->Cleanup());
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_LT(took, std::chrono::seconds(10));
  EXPECT_EQ(logger.Count(Level::LEVEL_INFO, "Finalized OAP Client"), 1u);
  EXPECT_FALSE(Connectable(port));
  // Nothing left to finalise.
  EXPECT_TRUE(driver->Cleanup());
  EXPECT_EQ(logger.Count(Level::LEVEL_INFO, "Finalized OAP Client"), 1u);
}

TEST_F(DriverTest, SetupFailsWhenTheListenerCannotBind) {
  int blocker = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(blocker, 1), 0);
  socklen_t length = sizeof(address);
  getsockname(blocker, reinterpret_cast<sockaddr*>(&address), &length);

  EXPECT_FALSE(SetupWithPort(std::to_string(ntohs(address.sin_port))));
  EXPECT_EQ(logger.Count(Level::LEVEL_CRITICAL, "Failed to Initialize OAP Client."), 1u);
  close(blocker);
}

}  // namespace
