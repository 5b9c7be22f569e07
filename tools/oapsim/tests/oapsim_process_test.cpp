// The simulator program itself over 127.0.0.1: answers, scripted handsets,
// commands on standard input and stopping.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "oapsim_test_documents.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWaitMs = 10000;

int MillisLeft(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// Reads until the peer closes or the time is up.
std::string ReadToEnd(int fd, int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::string data;
  char chunk[4096];
  pollfd waiter{fd, POLLIN, 0};
  while (poll(&waiter, 1, MillisLeft(deadline)) > 0) {
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n <= 0) break;
    data.append(chunk, static_cast<size_t>(n));
  }
  return data;
}

// The simulator as a child process with its standard input and output on pipes.
class SimProcess {
 public:
  explicit SimProcess(const std::vector<std::string>& args) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<std::string> all = {OAPSIM_PATH};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& arg : all) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    if (posix_spawn(&m_pid, OAPSIM_PATH, &actions, nullptr, argv.data(), environ) != 0) {
      m_pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    m_input = in[1];
    m_output = out[0];
  }

  ~SimProcess() {
    if (m_pid > 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
    if (m_input >= 0) close(m_input);
    if (m_output >= 0) close(m_output);
  }

  // Reads output lines until one contains `text`; empty when none came in time.
  std::string WaitFor(const std::string& text, int timeoutMs = kWaitMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
      const size_t newline = m_pending.find('\n');
      if (newline != std::string::npos) {
        const std::string line = m_pending.substr(0, newline);
        m_pending.erase(0, newline + 1);
        m_seen += line + "\n";
        if (line.find(text) != std::string::npos) return line;
        continue;
      }
      pollfd waiter{m_output, POLLIN, 0};
      if (poll(&waiter, 1, MillisLeft(deadline)) <= 0) return "";
      char chunk[1024];
      const ssize_t n = read(m_output, chunk, sizeof chunk);
      if (n <= 0) return "";
      m_pending.append(chunk, static_cast<size_t>(n));
    }
  }

  int Port() {
    const std::string line = WaitFor("listening on 127.0.0.1:");
    return line.empty() ? -1 : std::stoi(line.substr(line.rfind(':') + 1));
  }

  void Send(const std::string& text) {
    EXPECT_EQ(write(m_input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  void Signal(int signal) { kill(m_pid, signal); }

  // Exit status, or -1 when it did not end in time.
  int Wait(int timeoutMs = kWaitMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    while (waitpid(m_pid, &status, WNOHANG) == 0) {
      if (MillisLeft(deadline) == 0) return -1;
      usleep(10000);
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  const std::string& Seen() const { return m_seen; }

 private:
  pid_t m_pid = -1;
  int m_input = -1;
  int m_output = -1;
  std::string m_pending;
  std::string m_seen;
};

// Stands in for the driver's listener: takes one document per connection.
class TestListener {
 public:
  TestListener() {
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        listen(m_fd, 8) == 0 &&
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      m_port = ntohs(address.sin_port);
    }
  }
  ~TestListener() { close(m_fd); }
  int Port() const { return m_port; }

  std::string Receive(int timeoutMs = kWaitMs) {
    pollfd waiter{m_fd, POLLIN, 0};
    if (poll(&waiter, 1, timeoutMs) <= 0) return "";
    const int connection = accept(m_fd, nullptr, nullptr);
    if (connection < 0) return "";
    const std::string data = ReadToEnd(connection, timeoutMs);
    close(connection);
    return data;
  }

 private:
  int m_fd = -1;
  int m_port = 0;
};

// Sends one request as the driver does and returns the whole answer.
std::string Exchange(int port, const std::string& request, bool halfClose = false) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
    if (halfClose) shutdown(fd, SHUT_WR);
    answer = ReadToEnd(fd, kWaitMs);
  }
  close(fd);
  return answer;
}

std::string WithPort(const std::string& document, int port) {
  const size_t open = document.find("<Port>") + 6;
  return document.substr(0, open) + std::to_string(port) +
         document.substr(document.find("</Port>"));
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(OapSimProcessTest, AnswersARequestWithItsIdAndShowsIt) {
  SimProcess sim({"--listen", "127.0.0.1:0", "--exit-after-ms", "30000"});
  const int port = sim.Port();
  ASSERT_GT(port, 0);
  EXPECT_EQ(Exchange(port, kInteractive40),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-response version=\"4.0\" id=\"1a0001\">\n<Status>\n<Type>1</Type>\n"
            "<Code>200</Code>\n</Status>\n</OAP-response>");
  EXPECT_EQ(sim.WaitFor("#1a0001"),
            "[sim] 4.0 message #1a0001 to 5678: subject 'Lunch' text 'Caf\xc3\xa9?' options "
            "[1:Yes->N:Yes, 2:No->F:No, 3:Maybe->N:Maybe, 5:Close(closes)] custom 'Say'");
}

TEST(OapSimProcessTest, MalformedOrTruncatedRequestsGetNotUnderstood) {
  SimProcess sim({"--exit-after-ms", "30000"});
  const int port = sim.Port();
  ASSERT_GT(port, 0);
  const std::string answer = Exchange(port, kInteractive40.substr(0, 150), true);
  EXPECT_TRUE(Contains(answer, "<Code>403</Code>")) << answer;
  EXPECT_TRUE(Contains(answer, "<Text>Message not understood</Text>")) << answer;
  EXPECT_FALSE(sim.WaitFor("[sim] rejected request: malformed XML").empty()) << sim.Seen();
  const std::string badVersion = Replace(kWipeUpdate40, "version=\"4.0\"", "version=\"2.0\"");
  EXPECT_TRUE(Contains(Exchange(port, badVersion), "<Code>408</Code>"));
}

TEST(OapSimProcessTest, ScriptedHandsetDeliversAndAnswers) {
  TestListener driver;
  ASSERT_GT(driver.Port(), 0);
  SimProcess sim(
      {"--auto", "5678=deliver,option:2", "--auto-delay-ms", "20", "--exit-after-ms", "30000"});
  const int port = sim.Port();
  ASSERT_GT(port, 0);
  ASSERT_TRUE(
      Contains(Exchange(port, WithPort(kInteractive40, driver.Port())), "<Code>200</Code>"));

  EXPECT_EQ(driver.Receive(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-response version=\"4.0\" id=\"1a0001\">\n<Status>\n<Type>3</Type>\n"
            "<Code>200</Code>\n</Status>\n</OAP-response>");
  const std::string answer = driver.Receive();
  EXPECT_TRUE(Contains(answer, "<OAP-request version=\"4.0\" id=\"1a0001\">")) << answer;
  EXPECT_TRUE(Contains(answer,
                       "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n"
                       "<Id>1a0001</Id>\n<Interactive_Message_Response>\n"
                       "<Data_response>F:No</Data_response>"))
      << answer;

  // The driver's echo wipes the options; the handset can no longer choose.
  ASSERT_TRUE(Contains(Exchange(port, WithPort(kWipeUpdate40, driver.Port())), "<Code>200</Code>"));
  EXPECT_FALSE(sim.WaitFor("4.0 update of #1a0001 to 5678: options wiped, text now "
                           "'Lunch?\\n\\nYou replied:\\n-->>No'")
                   .empty());
  sim.Send("answer 1a0001 1\n");
  EXPECT_FALSE(sim.WaitFor("the options of #1a0001 were wiped").empty());
}

TEST(OapSimProcessTest, CommandsDriveTheHandset30) {
  TestListener driver;
  SimProcess sim({"--exit-after-ms", "30000"});
  const int port = sim.Port();
  ASSERT_GT(port, 0);
  ASSERT_TRUE(Contains(Exchange(port, WithPort(kInteractive30, driver.Port())),
                       "<Status service=\"message\">\n<Type>1</Type>\n<Code>200</Code>"));
  sim.Send("text 1A over there\n");
  const std::string typed = driver.Receive();
  EXPECT_TRUE(Contains(typed, "<OAP-response version=\"3.0\" id=\"1a\">")) << typed;
  EXPECT_TRUE(Contains(typed,
                       "<Type>5</Type>\n<Code>200</Code>\n<TypeSpecific>\n"
                       "<From>1234</From>\n<UserResponse>over there</UserResponse>"))
      << typed;
  sim.Send("answer 1a 7\nfly 1a\nlist\n");
  EXPECT_FALSE(sim.WaitFor("#1a has no option 7").empty());
  EXPECT_FALSE(sim.WaitFor("unknown command 'fly'").empty());
  EXPECT_FALSE(sim.WaitFor("(answered 'over there')").empty());

  // An update naming a message the handset never showed is refused.
  const std::string update = Replace(kWipeUpdate40, "<Id>1a0001</Id>", "<Id>c9</Id>");
  EXPECT_TRUE(Contains(Exchange(port, update), "<Type>5</Type>\n<Code>400</Code>"));
}

TEST(OapSimProcessTest, ConfiguredStatusOrSilence) {
  SimProcess failing({"--status", "1:407", "--exit-after-ms", "30000"});
  const int port = failing.Port();
  ASSERT_GT(port, 0);
  const std::string answer = Exchange(port, kInteractive30);
  EXPECT_TRUE(Contains(answer, "id=\"1a\"") && Contains(answer, "<Code>407</Code>")) << answer;

  SimProcess silent({"--silent", "--exit-after-ms", "30000"});
  const int silentPort = silent.Port();
  ASSERT_GT(silentPort, 0);
  EXPECT_EQ(Exchange(silentPort, kInteractive30), "");
  EXPECT_FALSE(silent.WaitFor("left unanswered").empty());
}

TEST(OapSimProcessTest, StopsOnQuitSignalOrTime) {
  SimProcess quitting({});
  ASSERT_GT(quitting.Port(), 0);
  quitting.Send("quit\n");
  EXPECT_EQ(quitting.Wait(), 0);

  SimProcess signalled({});
  ASSERT_GT(signalled.Port(), 0);
  signalled.Signal(SIGTERM);
  EXPECT_EQ(signalled.Wait(), 0);
  EXPECT_FALSE(signalled.WaitFor("stopping on signal").empty());

  SimProcess timed({"--exit-after-ms", "100"});
  ASSERT_GT(timed.Port(), 0);
  EXPECT_EQ(timed.Wait(), 0);

  SimProcess wrong({"--listen", "10.1.2.3:0"});
  EXPECT_EQ(wrong.Wait(), 1);
}

}  // namespace
