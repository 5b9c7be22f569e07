#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "driver_fixture.h"

namespace {

// qmhost run as a child process; its output is read line by line.
class QmhostProcess {
 public:
  explicit QmhostProcess(const std::string& arguments) {
    std::string command = "timeout 60 " QM_QMHOST_PATH " --plugin " QM_DRIVER_PATH " --workdir " +
                          Workdir() + " " + arguments + " 2>&1";
    m_pipe = popen(command.c_str(), "r");
  }
  ~QmhostProcess() { Finish(); }

  // The next output line without its line feed; "" at the end.
  std::string NextLine() {
    std::string line;
    ReadLine(&line);
    return line;
  }

  bool ReadLine(std::string* line) {
    char buffer[1024];
    if (m_pipe == nullptr || fgets(buffer, sizeof(buffer), m_pipe) == nullptr) return false;
    line->assign(buffer);
    if (!line->empty() && line->back() == '\n') line->pop_back();
    m_lines.push_back(*line);
    return true;
  }

  // Reads to the end and returns the exit status.
  int Finish() {
    std::string line;
    while (ReadLine(&line)) {
    }
    if (m_pipe != nullptr) {
      m_status = pclose(m_pipe);
      m_pipe = nullptr;
    }
    return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
  }

  bool Printed(const std::string& line) const {
    for (const std::string& seen : m_lines) {
      if (seen == line) return true;
    }
    return false;
  }
  std::string Output() const {
    std::string all;
    for (const std::string& line : m_lines) all += line + "\n";
    return all;
  }

  // One work directory for the whole test program, removed at its end.
  static std::string Workdir() {
    struct TempDir {
      TempDir() {
        char pattern[] = "/tmp/qmhost-test.XXXXXX";
        const char* made = mkdtemp(pattern);
        path = made != nullptr ? made : "";
      }
      ~TempDir() {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove_all(path, ignored);
      }
      std::string path;
    };
    static const TempDir dir;
    return dir.path;
  }

 private:
  FILE* m_pipe = nullptr;
  int m_status = -1;
  std::vector<std::string> m_lines;
};

std::string Job(const std::string& id, int serverPort) {
  return "--job " + id + " --handset 4711 --server 127.0.0.1:" + std::to_string(serverPort);
}

TEST(Qmhost, HelpAndBadArguments) {
  QmhostProcess help("--help");
  EXPECT_EQ(help.NextLine().rfind("Usage: qmhost --plugin PATH", 0), 0u);
  EXPECT_EQ(help.Finish(), 0);
  EXPECT_EQ(QmhostProcess("--listen-port 7").Finish(), 2);
  QmhostProcess bogus("--listen-port 7 --bogus");
  EXPECT_EQ(bogus.NextLine(), "qmhost: error: unknown option '--bogus' before the first --job");
  EXPECT_EQ(bogus.Finish(), 2);
}

TEST(Qmhost, ReportsAMissingPluginAndARefusedSetup) {
  std::string noPlugin = "timeout 60 " QM_QMHOST_PATH " --plugin /nonexistent.so --workdir " +
                         QmhostProcess::Workdir() + " --listen-port 7 " + Job("a", 1) +
                         " >/dev/null 2>&1";
  EXPECT_EQ(WEXITSTATUS(std::system(noPlugin.c_str())), 3);
  EXPECT_EQ(QmhostProcess("--listen-port 0 " + Job("a", 1)).Finish(), 4);
}

TEST(Qmhost, DeadServerFailsTheRun) {
  QmhostProcess host("--listen-port " + std::to_string(UnusedPort()) + " " +
                     Job("a", UnusedPort()));
  EXPECT_EQ(host.Finish(), 5);
  EXPECT_TRUE(
      host.Printed("job a sent status 2 SENDING receipt '' error 'Socket Connecting Failed'"))
      << host.Output();
}

TEST(Qmhost, PlainAndInteractiveJobsRunToTheirExpectedStatuses) {
  FakeOapServer server(AcceptAll);
  int listenPort = UnusedPort();
  QmhostProcess host("--listen-port " + std::to_string(listenPort) +
                     " --poll-ms 20 --duration-ms 20000 --until-expected " +
                     Job("plain", server.Port()) + " --expect SENT " + Job("ask", server.Port()) +
                     " --interactive --choice Yes --choice Stop:2 --expect 3,6,4,15");
  EXPECT_EQ(host.NextLine(), "job plain sent status 3 SENT receipt '' error ''");
  std::string sent = host.NextLine();
  const std::string prefix = "job ask sent status 3 SENT receipt '";
  ASSERT_EQ(sent.rfind(prefix, 0), 0u) << sent;
  std::string receipt = sent.substr(prefix.size(), sent.find('\'', prefix.size()) - prefix.size());
  std::string hexId = Hex(std::strtoul(receipt.c_str(), nullptr, 10));

  ASSERT_TRUE(SendInbound(listenPort, ResponseDoc(hexId, 3, 200)));
  EXPECT_EQ(host.NextLine(),
            "job ask status 6 DELIVERED text '' error '' receipt '" + receipt + "'");
  // The second answer only after the driver echoed the first one to the
  // server: two connections may otherwise be served in either order.
  size_t requests = 2;
  for (const char* answer : {"N:Yes", "F:Stop"}) {
    std::string document =
        "<?xml version=\"1.0\"?>\n<OAP-response version=\"3.0\" id=\"" + hexId +
        "\"><Status service=\"message\"><Type>5</Type><Code>200</Code><TypeSpecific>"
        "<From>4711</From><DataResp>" +
        answer + "</DataResp></TypeSpecific></Status></OAP-response>";
    ASSERT_TRUE(SendInbound(listenPort, document));
    ASSERT_TRUE(server.WaitForRequests(++requests, 10000)) << answer;
  }
  EXPECT_EQ(host.NextLine(),
            "job ask status 4 REPLIED text 'Yes' error '' receipt '" + receipt + "'");
  EXPECT_EQ(host.NextLine(),
            "job ask status 15 REPLIED_SPECIAL_A text 'Stop' error '' receipt '" + receipt + "'");
  EXPECT_EQ(host.NextLine(), "summary: 2/2 jobs complete");
  EXPECT_EQ(host.Finish(), 0) << host.Output();
}

}  // namespace
