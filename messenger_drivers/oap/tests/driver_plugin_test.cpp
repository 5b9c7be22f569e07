// The plug-in as a host loads it: its exported symbols, the one driver
// object, its names, the housekeeping calls, and Setup and Cleanup.
#include <chrono>
#include <cstdio>
#include <set>
#include <thread>

#include "driver_fixture.h"

namespace {

using Log = QmLogInterface;

const auto kTrace = Log::LEVEL_TRACE;
const auto kCritical = Log::LEVEL_CRITICAL;

// A driver object the plug-in never made.
class ForeignDriver : public QmProtocolDriverInterface {
 public:
  const char* GetName() override { return "foreign"; }
  const char* GetVersion() override { return "0"; }
  const char* GetProtocolName() override { return "foreign"; }
  const char* GetCarrierName() override { return "foreign"; }
  bool SendAMessage(QmMessageFile*, ReportsStatus&) override { return false; }
};

TEST(DriverPlugin, ExportsExactlyTheTwoEntryPoints) {
  FILE* nm = popen("nm -D --defined-only " QM_DRIVER_PATH, "r");
  ASSERT_NE(nm, nullptr);
  std::set<std::string> names;
  char line[512], name[400];
  // "<address> <type> <name>"
  while (fgets(line, sizeof(line), nm) != nullptr) {
    if (sscanf(line, "%*s %*c %399s", name) == 1) names.insert(name);
  }
  ASSERT_EQ(pclose(nm), 0);
  EXPECT_EQ(names, (std::set<std::string>{"GetDriverInstance", "ReleaseDriverInstance"}));
}

// One driver object until it is released; sends and queries before Setup fail
// cleanly and tell why; the names and the housekeeping calls.
TEST_F(DriverTest, OneDriverWithoutSetupNamesAndHousekeeping) {
  ForeignDriver foreign;
  loader.ReleaseDriverInstance(&foreign);
  loader.ReleaseDriverInstance(nullptr);
  EXPECT_EQ(loader.GetDriverInstance(), driver);

  QmReferenceJob job;
  Address(job, 1);
  Status status = QmMessengerReportsMngrInterface::NO_STATUS;
  EXPECT_FALSE(driver->SendAMessage(&job, status));
  EXPECT_EQ(job.GetErrorText(), "OAP Client not set up");
  // A query without receipt, or for a device nothing was sent to, ends the cycle.
  EXPECT_TRUE(driver->Send2WayRespQuery(&job, status));
  EXPECT_EQ(job.GetErrorText(), "Empty or no tracking receipt defined.");
  job.TrackingReceipt = "42";
  EXPECT_TRUE(driver->Send2WayRespQuery(&job, status));
  EXPECT_EQ(job.GetErrorText(), "Unknown Device");
  EXPECT_EQ(status, QmMessengerReportsMngrInterface::SENDING);
  EXPECT_TRUE(DrainQueue().empty());
  for (const char* line : {"Empty or no tracking receipt defined. Terminating query cycle.",
                           "The device is unknown for me."})
    EXPECT_EQ(logger.Count(Log::LEVEL_ERROR, line, true), 1u) << line;
  EXPECT_FALSE(driver->SendAMessage(nullptr, status));
  EXPECT_TRUE(driver->Send2WayRespQuery(nullptr, status));

  EXPECT_EQ(std::string(driver->GetName()) + "|" + driver->GetVersion() + "|" +
                driver->GetProtocolName() + "|" + driver->GetCarrierName(),
            "OAP|3.x/4.x|Open Access Protocol (OAP)|*");
  std::map<std::string, std::string> settings;
  EXPECT_TRUE(driver->Configure(settings) && driver->PeriodicEvent() && driver->ResetDevice() &&
              driver->ProcessSignal() && driver->Cleanup());

  // A released driver gives way to a fresh object.
  loader.ReleaseDriverInstance(driver);
  driver = loader.GetDriverInstance();
  ASSERT_TRUE(driver != nullptr && driver->Logger == nullptr);
}

// Configure takes the message store's settings, all or none: unknown keys
// are reported and ignored, a bad value refuses the whole map.
TEST_F(DriverTest, ConfigureTakesTheStoreSettingsOrRefusesThem) {
  const std::string minutes = "expected whole minutes from 1 to 5256000.";
  const std::string count = "expected a whole number of messages from 1 to 100000000.";
  // clang-format off
  const struct { std::map<std::string, std::string> settings; bool accepted; std::string line; } cases[] = {
      {{{"Colour", "red"}}, true, "Ignoring unknown setting 'Colour'."},
      {{{"MessageStore", "Memory"}, {"MessageRetentionMinutes", " 60 "}, {"MessageStoreLimit", "500"}}, true, ""},
      {{{"MessageRetentionMinutes", "0"}}, false, "Invalid value '0' for setting 'MessageRetentionMinutes': " + minutes},
      {{{"MessageRetentionMinutes", "5256001"}}, false, "Invalid value '5256001' for setting 'MessageRetentionMinutes': " + minutes},
      {{{"MessageStoreLimit", "12x"}}, false, "Invalid value '12x' for setting 'MessageStoreLimit': " + count},
      {{{"MessageStoreLimit", "-1"}, {"MessageStore", "/nonexistent/never.db"}}, false, "Invalid value '-1' for setting 'MessageStoreLimit': " + count},
      {{{"MessageStore", " "}}, false, "Invalid value ' ' for setting 'MessageStore': expected \"memory\" or the path of a file."},
  };
  // clang-format on
  for (const auto& c : cases) {
    std::map<std::string, std::string> settings = c.settings;
    EXPECT_EQ(driver->Configure(settings), c.accepted) << c.line;
    if (!c.line.empty()) {
      EXPECT_EQ(logger.Count(c.accepted ? Log::LEVEL_WARN : Log::LEVEL_ERROR, c.line, true), 1u)
          << c.line;
    }
  }
  // The refused store path was not taken: Setup keeps the messages in memory.
  SetupOnFreePort();
  EXPECT_EQ(logger.Count(kCritical, "Cannot use message store"), 0u);
}

TEST_F(DriverTest, SetupRefusesBadPortsAndCleanupStopsTheListener) {
  FakeOapServer occupant;
  for (const char* port : {"0", "letters", "70000", "8080abc"}) EXPECT_FALSE(SetupWithPort(port));
  EXPECT_FALSE(SetupWithPort(std::to_string(occupant.Port())));
  for (const char* number : {"70000", "0", "8080"}) {
    EXPECT_EQ(logger.Count(kCritical,
                           std::string("Invalid OAP Listener port number: ") + number + ".", true),
              std::string(number) == "0" ? 2u : 1u)
        << number;
  }
  EXPECT_EQ(logger.Count(kCritical, "Failed to Initialize OAP Client.", true), 1u);
  EXPECT_TRUE(logger.Has(Log::LEVEL_ERROR, "Failed to Start OAP Listener on '127.0.0.1:" +
                                               std::to_string(occupant.Port()) + "'"));
  // The client kept after the failure has no listener: the host can see it.
  EXPECT_FALSE(driver->PeriodicEvent());
  driver->Cleanup();
  EXPECT_TRUE(logger.Has(kTrace, "Leaving OAPClient::FinalizeSpecial() with FALSE."));

  // Blanks around the digits are allowed; Cleanup stops the listener.
  const size_t finalized = logger.Count(Log::LEVEL_INFO, "Finalized OAP Client", true);
  SetupOnFreePort(" ");
  EXPECT_TRUE(CanConnect(listenerPort));
  EXPECT_TRUE(driver->PeriodicEvent());
  EXPECT_TRUE(driver->Cleanup());
  EXPECT_FALSE(CanConnect(listenerPort));
  // Nothing left to finalise the second time.
  EXPECT_TRUE(driver->Cleanup());
  EXPECT_EQ(logger.Count(Log::LEVEL_INFO, "Finalized OAP Client", true), finalized + 1);
}

// The descriptor bound to the port, -1 when there is none: with no
// connection open, the listening one.
int ListeningDescriptor(int port) {
  for (int fd = 0; fd < 65536; ++fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        address.sin_family == AF_INET && ntohs(address.sin_port) == port) {
      return fd;
    }
  }
  return -1;
}

// A listener whose listening socket dies under it ends; the driver says so
// once at critical level, reports false while it cannot start a new one (the
// port is taken meanwhile) and starts it as soon as it can.
TEST_F(DriverTest, ListenerThatStopsIsStartedAgain) {
  SetupOnFreePort();
  const int fd = ListeningDescriptor(listenerPort);
  ASSERT_GE(fd, 0);
  shutdown(fd, SHUT_RD);
  const int occupant = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = FakeOapServer::Loopback(listenerPort);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  // Bound once the ended listener has closed its socket.
  while (bind(occupant, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(listen(occupant, 1), 0);
  EXPECT_FALSE(driver->PeriodicEvent());
  EXPECT_FALSE(driver->PeriodicEvent());
  const std::string stopped = "OAP Listener on '127.0.0.1:" + std::to_string(listenerPort) +
                              "' has stopped; starting it again.";
  EXPECT_EQ(logger.Count(kCritical, stopped, true), 1u);
  EXPECT_TRUE(logger.Has(Log::LEVEL_ERROR, "Failed to Start OAP Listener"));
  close(occupant);
  while (!driver->PeriodicEvent() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(driver->PeriodicEvent());
  EXPECT_TRUE(SendInbound(listenerPort, "<OAP-response/>"));
  EXPECT_TRUE(logger.Has(kTrace, "Leaving OAPListener::GetHandler() with TRUE."));
  EXPECT_EQ(logger.Count(kCritical, stopped, true), 1u);
  EXPECT_TRUE(logger.Has(Log::LEVEL_INFO, "OAP Listener on '127.0.0.1:" +
                                              std::to_string(listenerPort) + "' started again."));
}

}  // namespace
