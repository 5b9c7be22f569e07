// The simulator program itself over 127.0.0.1: answers, scripted handsets,
// commands on standard input and stopping.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "child_process.h"
#include "oapsim_test_documents.h"

namespace {

// Reads until the peer closes or the time is up.
std::string ReadToEnd(int fd) {
  std::string data;
  char chunk[4096];
  pollfd waiter{fd, POLLIN, 0};
  for (ssize_t n = 1; n > 0 && poll(&waiter, 1, ChildProcess::kWaitMs) > 0;) {
    n = read(fd, chunk, sizeof chunk);
    if (n > 0) data.append(chunk, static_cast<size_t>(n));
  }
  return data;
}

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Stands in for the driver's listener: takes one document per connection.
class TestListener {
 public:
  TestListener() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        listen(m_fd, 8) == 0 &&
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      m_port = ntohs(address.sin_port);
    }
  }
  ~TestListener() { close(m_fd); }
  int Port() const { return m_port; }

  std::string Receive() {
    pollfd waiter{m_fd, POLLIN, 0};
    const int connection =
        poll(&waiter, 1, ChildProcess::kWaitMs) > 0 ? accept(m_fd, nullptr, nullptr) : -1;
    if (connection < 0) return "";
    const std::string data = ReadToEnd(connection);
    close(connection);
    return data;
  }

 private:
  int m_fd;
  int m_port = 0;
};

// Sends one request as the driver does and returns the whole answer.
std::string Exchange(int port, const std::string& request, bool halfClose = false) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Loopback(port);
  std::string answer;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
    if (halfClose) shutdown(fd, SHUT_WR);
    answer = ReadToEnd(fd);
  }
  close(fd);
  return answer;
}

// The document with the driver's listener port replaced.
std::string WithPort(std::string document, int port) {
  const size_t open = document.find("<Port>") + 6;
  return document.replace(open, document.find("</Port>") - open, std::to_string(port));
}

struct Sim : ChildProcess {
  explicit Sim(const std::vector<std::string>& args) : ChildProcess(OAPSIM_PATH, args) {}
  int Port() {
    const std::string line = WaitFor("listening on 127.0.0.1:");
    return line.empty() ? -1 : std::stoi(line.substr(line.rfind(':') + 1));
  }
};

MATCHER_P(Has, part, "") {
  return arg.find(part) != std::string::npos;
}

TEST(OapSimProcessTest, AnswersRequestsOrSaysWhyNot) {
  Sim sim({"--listen", "127.0.0.1:0"});
  const int port = sim.Port();
  ASSERT_GT(port, 0);
  EXPECT_EQ(Exchange(port, kInteractive40),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-response version=\"4.0\" id=\"1a0001\">\n<Status>\n<Type>1</Type>\n"
            "<Code>200</Code>\n</Status>\n</OAP-response>");
  EXPECT_EQ(sim.WaitFor("#1a0001"),
            "[sim] 4.0 message #1a0001 to 5678: subject 'Lunch' text 'Caf\xc3\xa9?' options "
            "[1:Yes->N:Yes, 2:No->F:No, 3:Maybe->N:Maybe, 5:Close(closes)] custom 'Say'");

  const std::string truncated = Exchange(port, kInteractive40.substr(0, 150), true);
  EXPECT_THAT(truncated, Has("<Code>403</Code>"));
  EXPECT_THAT(truncated, Has("<Text>Message not understood</Text>"));
  EXPECT_NE(sim.WaitFor("[sim] rejected request: malformed XML"), "") << sim.out;
  EXPECT_THAT(Exchange(port, Replace(kWipeUpdate40, "version=\"4.0\"", "version=\"2.0\"")),
              Has("<Code>408</Code>"));
}

TEST(OapSimProcessTest, ScriptedHandsetDeliversAndAnswers) {
  TestListener driver;
  ASSERT_GT(driver.Port(), 0);
  Sim sim({"--auto", "5678=deliver,option:2", "--auto-delay-ms", "20"});
  const int port = sim.Port();
  ASSERT_GT(port, 0);
  ASSERT_THAT(Exchange(port, WithPort(kInteractive40, driver.Port())), Has("<Code>200</Code>"));

  EXPECT_EQ(driver.Receive(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-response version=\"4.0\" id=\"1a0001\">\n<Status>\n<Type>3</Type>\n"
            "<Code>200</Code>\n</Status>\n</OAP-response>");
  EXPECT_THAT(driver.Receive(), Has("<Id>1a0001</Id>\n<Interactive_Message_Response>\n"
                                    "<Data_response>F:No</Data_response>"));

  // The driver's echo wipes the options; the handset can no longer choose.
  ASSERT_THAT(Exchange(port, WithPort(kWipeUpdate40, driver.Port())), Has("<Code>200</Code>"));
  EXPECT_NE(sim.WaitFor("4.0 update of #1a0001 to 5678: options wiped, text now "
                        "'Lunch?\\n\\nYou replied:\\n-->>No'"),
            "");
  sim.Send("answer 1a0001 1\n");
  EXPECT_NE(sim.WaitFor("the options of #1a0001 were wiped"), "");
}

TEST(OapSimProcessTest, CommandsDriveTheHandset30) {
  TestListener driver;
  Sim sim({});
  const int port = sim.Port();
  ASSERT_GT(port, 0);
  ASSERT_THAT(Exchange(port, WithPort(kInteractive30, driver.Port())),
              Has("<Status service=\"message\">\n<Type>1</Type>\n<Code>200</Code>"));
  sim.Send("text 1A over there\n");
  EXPECT_THAT(driver.Receive(), Has("<OAP-response version=\"3.0\" id=\"1a\">\n"
                                    "<Status service=\"message\">\n<Type>5</Type>\n"
                                    "<Code>200</Code>\n<TypeSpecific>\n<From>1234</From>\n"
                                    "<UserResponse>over there</UserResponse>"));
  sim.Send("answer 1a 7\nfly 1a\nlist\n");
  for (const char* line :
       {"#1a has no option 7", "unknown command 'fly'", "(answered 'over there')"}) {
    EXPECT_NE(sim.WaitFor(line), "") << line;
  }
  // An update naming a message the handset never showed is refused.
  EXPECT_THAT(Exchange(port, Replace(kWipeUpdate40, "<Id>1a0001</Id>", "<Id>c9</Id>")),
              Has("<Type>5</Type>\n<Code>400</Code>"));
}

TEST(OapSimProcessTest, ConfiguredStatusOrSilence) {
  Sim failing({"--status", "1:407"});
  const std::string answer = Exchange(failing.Port(), kInteractive30);
  EXPECT_THAT(answer, Has("id=\"1a\""));
  EXPECT_THAT(answer, Has("<Code>407</Code>"));

  Sim silent({"--silent"});
  EXPECT_EQ(Exchange(silent.Port(), kInteractive30), "");
  EXPECT_NE(silent.WaitFor("left unanswered"), "");
}

TEST(OapSimProcessTest, StopsOnQuitSignalOrTime) {
  Sim quitting({});
  ASSERT_GT(quitting.Port(), 0);
  quitting.Send("quit\n");
  EXPECT_EQ(quitting.Finish(), 0);

  Sim signalled({});
  ASSERT_GT(signalled.Port(), 0);
  signalled.Signal(SIGTERM);
  EXPECT_EQ(signalled.Finish(), 0);
  EXPECT_NE(signalled.WaitFor("stopping on signal"), "");

  Sim timed({"--exit-after-ms", "100"});
  EXPECT_EQ(timed.Finish(), 0);
  EXPECT_EQ(Sim({"--listen", "10.1.2.3:0"}).Finish(), 1);
}

}  // namespace
