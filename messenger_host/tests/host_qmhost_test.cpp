// The reference host program run as a child process with the real driver.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <tuple>

#include "../../tools/oapsim/tests/child_process.h"
#include "driver_fixture.h"

namespace {

// One work directory for the whole test program, removed at its end.
struct TempDir {
  char path[32] = "/tmp/qmhost-test.XXXXXX";
  TempDir() { EXPECT_NE(mkdtemp(path), nullptr); }
  ~TempDir() { std::filesystem::remove_all(path, ignored); }
  std::error_code ignored;
};
std::string Workdir() {
  static TempDir dir;
  return dir.path;
}

// qmhost started through the shell so that a command line reads as one
// string; exec leaves the process, its signals and exit status its own.
struct Qmhost : ChildProcess {
  explicit Qmhost(const std::string& arguments, const std::string& plugin = QM_DRIVER_PATH)
      : ChildProcess("/bin/sh", {"-c", "exec " QM_QMHOST_PATH " --plugin " + plugin +
                                           " --workdir " + Workdir() + " " + arguments}) {}
};

std::string Job(const std::string& id, int serverPort) {
  return "--job " + id + " --handset 4711 --server 127.0.0.1:" + std::to_string(serverPort);
}

TEST(Qmhost, ExitCodesAndMessagesNameWhatWentWrong) {
  const std::string deadRun =
      "--listen-port " + std::to_string(UnusedPort()) + " " + Job("a", UnusedPort());
  // Arguments, plug-in, exit code and a text on the output or the error stream.
  for (const auto& [arguments, plugin, code, text] :
       std::vector<std::tuple<std::string, std::string, int, std::string>>{
           {"--listen-port 7", QM_DRIVER_PATH, 2, "qmhost: no job given (use --job ID ...)"},
           {"--listen-port 7 " + Job("a", 1), "/nonexistent.so", 3,
            "qmhost: error: Cannot load driver library '/nonexistent.so'"},
           {"--listen-port 0 " + Job("a", 1), QM_DRIVER_PATH, 4,
            "qmhost: error: the driver refused Setup on 127.0.0.1:0"},
           {deadRun, QM_DRIVER_PATH, 5,
            "job a sent status 2 SENDING receipt '' error 'Socket Connecting Failed'\n"
            "summary: 0/1 jobs complete\n"},
       }) {
    Qmhost host(arguments, plugin);
    EXPECT_EQ(host.Finish(), code) << arguments;
    EXPECT_NE((host.out + host.err).find(text), std::string::npos) << host.out << host.err;
  }
}

TEST(Qmhost, PlainAndInteractiveJobsRunToTheirExpectedStatuses) {
  FakeOapServer server;
  const int listenPort = UnusedPort();
  Qmhost host("--listen-port " + std::to_string(listenPort) +
              " --poll-ms 20 --duration-ms 20000 --until-expected " + Job("plain", server.Port()) +
              " --expect SENT " + Job("ask", server.Port()) +
              " --interactive --choice Yes --choice Stop:2 --expect 3,6,15");
  EXPECT_EQ(host.WaitFor(""), "job plain sent status 3 SENT receipt '' error ''");
  // The jobs are sent one after the other, each once the server answered.
  ASSERT_TRUE(server.WaitForRequests(2, 10000));
  const std::string hexId = RequestId(server.Requests()[1]);
  const std::string receipt = "0x" + hexId;
  EXPECT_EQ(host.WaitFor(""), "job ask sent status 3 SENT receipt '" + receipt + "' error ''");
  ASSERT_TRUE(SendInbound(listenPort, ResponseDoc(hexId, 3, 200)));
  EXPECT_EQ(host.WaitFor(""),
            "job ask status 6 DELIVERED text '' error '' receipt '" + receipt + "'");
  ASSERT_TRUE(SendInbound(listenPort, OptionAnswer(hexId, "<DataResp>F:Stop</DataResp>")));
  EXPECT_EQ(host.WaitFor(""),
            "job ask status 15 REPLIED_SPECIAL_A text 'Stop' error '' receipt '" + receipt + "'");
  EXPECT_EQ(host.WaitFor(""), "summary: 2/2 jobs complete");
  EXPECT_EQ(host.Finish(), 0) << host.out;
}

// A stop signal in the query cycle: the driver is cleaned up, the summary
// printed, and the run reported incomplete.
TEST(Qmhost, StopSignalEndsTheRunWithItsSummary) {
  FakeOapServer server;
  Qmhost host("--listen-port " + std::to_string(UnusedPort()) + " --duration-ms 60000 " +
              Job("ask", server.Port()) + " --interactive --choice Yes --expect 3,4");
  ASSERT_NE(host.WaitFor("job ask sent status 3 SENT"), "") << host.err;
  host.Signal(SIGTERM);
  EXPECT_EQ(host.Finish(), 1) << host.err;
  EXPECT_NE(host.out.find("summary: 0/1 jobs complete"), std::string::npos) << host.out;
  EXPECT_NE(host.err.find("qmhost: stopping on SIGTERM"), std::string::npos) << host.err;
}

}  // namespace
