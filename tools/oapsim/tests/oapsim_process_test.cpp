// The simulator program itself over 127.0.0.1: answers, scripted handsets,
// commands on standard input and stopping. The driver's listener is played by
// the driver tests' fake server, which records each document sent to it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../../../messenger_drivers/oap/tests/FakeOapServer.h"
#include "child_process.h"
#include "oapsim_test_documents.h"

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

// Sends one request and returns the whole answer. The request goes in two
// pieces, the second once nothing came back to the first for 0.1 s: a
// request may arrive in any number of reads.
std::string Exchange(int port, const std::string& request, bool halfClose = false) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = FakeOapServer::Loopback(port);
  std::string answer;
  char chunk[4096];
  pollfd waiter{fd, POLLIN, 0};
  const ssize_t half = static_cast<ssize_t>(request.size() / 2);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      write(fd, request.data(), half) == half && poll(&waiter, 1, 100) == 0 &&
      write(fd, request.data() + half, request.size() - half) ==
          static_cast<ssize_t>(request.size()) - half) {
    if (halfClose) shutdown(fd, SHUT_WR);
    for (ssize_t n = 1; n > 0 && poll(&waiter, 1, ChildProcess::kWaitMs) > 0;) {
      n = read(fd, chunk, sizeof chunk);
      if (n > 0) answer.append(chunk, static_cast<size_t>(n));
    }
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

TEST(OapSimProcessTest, AnswersPlaysHandsetsAndTakesCommandsOrSaysWhyNot) {
  FakeOapServer driver;
  Sim sim({"--listen", "127.0.0.1:0", "--auto", "5678=deliver,option:1", "--auto-delay-ms", "20"});
  const int port = sim.Port();
  ASSERT_GT(port, 0);
  EXPECT_EQ(Exchange(port, WithPort(kInteractive40, driver.Port())),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-response version=\"4.0\" id=\"1a0001\">\n<Status>\n<Type>1</Type>\n"
            "<Code>200</Code>\n</Status>\n</OAP-response>");
  EXPECT_EQ(sim.WaitFor("0x1a0001"),
            "[sim] 4.0 message 0x1a0001 to 5678: subject 'Lunch' text 'Caf\xc3\xa9?' options "
            "[1:No->F:No, 3:Close(closes)] custom 'Say'");
  // The scripted handset reports delivery, then answers with option 1.
  ASSERT_TRUE(driver.WaitForRequests(2, ChildProcess::kWaitMs));
  EXPECT_THAT(driver.Requests(), Contains(HasSubstr("<Type>3</Type>\n<Code>200</Code>")));
  EXPECT_THAT(driver.Requests(),
              Contains(std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                   "<OAP-request version=\"4.0\" id=\"1a0001\">\n"
                                   "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n"
                                   "<Id>1a0001</Id>\n<Interactive_Message_Response>\n"
                                   "<Data_response>F:No</Data_response>\n"
                                   "</Interactive_Message_Response>\n</service>\n</Body>\n"
                                   "</OAP-request>")));

  EXPECT_THAT(Exchange(port, kInteractive40.substr(0, 150), true),
              HasSubstr("<Code>403</Code>\n<Text>Message not understood</Text>"));
  EXPECT_NE(sim.WaitFor("[sim] rejected request: malformed XML"), "") << sim.out;
  EXPECT_THAT(Exchange(port, Replace(kWipeUpdate40, "version=\"4.0\"", "version=\"2.0\"")),
              HasSubstr("<Code>408</Code>"));
  // An update naming a message the handset never showed is refused.
  EXPECT_THAT(Exchange(port, Replace(kWipeUpdate40, "<Id>1a0001</Id>", "<Id>c9</Id>")),
              HasSubstr("<Type>5</Type>\n<Code>400</Code>"));
  // The driver's echo wipes the options; the handset can no longer choose.
  ASSERT_THAT(Exchange(port, WithPort(kWipeUpdate40, driver.Port())),
              HasSubstr("<Code>200</Code>"));
  EXPECT_NE(sim.WaitFor("4.0 update of 0x1a0001 to 5678: options wiped, text now "
                        "'Lunch?\\n\\nYou replied:\\n-->>No'"),
            "");
  sim.Send("answer 0x1a0001 1\n");
  EXPECT_NE(sim.WaitFor("the options of 0x1a0001 were wiped"), "");
  // A plain message whose envelope Id is not its request id.
  const std::string plain40 =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"20000\">\n"
      "<Header>\n<Port>7002</Port>\n<To>9</To>\n</Header>\n<Body service=\"OA-XML\">\n"
      "<service version=\"1.0\">\n<Id>7</Id>\n<Message>\n<Body>Hi</Body>\n<Indication/>\n"
      "</Message>\n</service>\n</Body>\n</OAP-request>";
  ASSERT_THAT(Exchange(port, plain40), HasSubstr("<Code>200</Code>"));
  EXPECT_NE(sim.WaitFor("warning: envelope Id 7 differs from request id 20000"), "");
  EXPECT_EQ(sim.WaitFor("0x7"), "[sim] 4.0 message 0x7 to 9: text 'Hi'");

  // UTF-8 in a 3.0 document is taken but called out.
  EXPECT_EQ(Exchange(port, WithPort(Replace(kInteractive30, "\xe9", "\xc3\xa9"), driver.Port())),
            "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
            "<OAP-response version=\"3.0\" id=\"1a\">\n<Status service=\"message\">\n"
            "<Type>1</Type>\n<Code>200</Code>\n</Status>\n</OAP-response>");
  EXPECT_NE(sim.WaitFor("warning: ISO-8859-1 document holds what looks like UTF-8"), "");
  EXPECT_EQ(sim.WaitFor("0x1a to"),
            "[sim] 3.0 message 0x1a to 1234: subject 'Hi <there>' text 'Caf\xc3\x83\xc2\xa9 open?' "
            "options [1:Yes->N:Yes call 555] custom 'Other'");
  // A typed answer in a 3.0 document: Latin-1, escaped, '?' for what Latin-1 lacks.
  sim.Send("text 0x1A Caf\xc3\xa9 & <b> \xe2\x82\xac\n");
  ASSERT_TRUE(driver.WaitForRequests(3, ChildProcess::kWaitMs));
  EXPECT_EQ(driver.Requests()[2],
            "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
            "<OAP-response version=\"3.0\" id=\"1a\">\n<Status service=\"message\">\n"
            "<Type>5</Type>\n<Code>200</Code>\n<TypeSpecific>\n<From>1234</From>\n"
            "<UserResponse>Caf\xe9 &amp; &lt;b&gt; ?</UserResponse>\n</TypeSpecific>\n</Status>\n"
            "</OAP-response>");
  sim.Send("answer 26 7\nfly 0x1a\nanswer 1a 1\n");
  for (const char* line :
       {"0x1a has no option 7", "unknown command 'fly'", "answer: expected a message id"}) {
    EXPECT_NE(sim.WaitFor(line), "") << line;
  }
  // A 3.0 update carries no wipe marker: one without options wipes them.
  std::string update30 = kInteractive30.substr(0, kInteractive30.find("<Option")) + "</Body>";
  update30 = Replace(update30, "<TTL>300</TTL>", "<Update>OnlyExisting</Update>");
  ASSERT_THAT(Exchange(port, update30 + "</OAP-request>"), HasSubstr("<Code>200</Code>"));
  sim.Send("list\n");
  EXPECT_NE(sim.WaitFor("(options wiped) (updated 1x) (answered 'Caf\xc3\xa9 & <b> \xe2\x82\xac')"),
            "");
  // The driver may start again from the same tracking numbers.
  ASSERT_THAT(Exchange(port, kInteractive30), HasSubstr("<Code>200</Code>"));
  EXPECT_NE(sim.WaitFor("tracking number 0x1a reused for a new message"), "");
  sim.Send("quit\n");
  EXPECT_EQ(sim.Finish(), 0);
}

TEST(OapSimProcessTest, ConfiguredStatusSilenceAndStopping) {
  Sim failing({"--status", "1:407"});
  const std::string failed = Exchange(failing.Port(), kInteractive30);
  EXPECT_THAT(failed, HasSubstr("id=\"1a\""));
  EXPECT_THAT(failed, HasSubstr("<Code>407</Code>"));
  // Silent: the request is read, and the connection stays open without a
  // byte until the client gives up.
  Sim silent({"--silent"});
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = FakeOapServer::Loopback(silent.Port());
  ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(write(fd, kInteractive30.data(), kInteractive30.size()),
            static_cast<ssize_t>(kInteractive30.size()));
  EXPECT_NE(silent.WaitFor("left unanswered"), "");
  pollfd waiter{fd, POLLIN, 0};
  EXPECT_EQ(poll(&waiter, 1, 300), 0) << "the silent server answered or closed";
  close(fd);

  failing.Signal(SIGTERM);
  EXPECT_EQ(failing.Finish(), 0);
  EXPECT_NE(failing.out.find("stopping on signal"), std::string::npos) << failing.out;
  EXPECT_EQ(Sim({"--exit-after-ms", "100"}).Finish(), 0);
  Sim refused({"--listen", "0.0.0.0:0"});
  EXPECT_EQ(refused.Finish(), 1);
  EXPECT_NE(refused.err.find("give --allow-remote"), std::string::npos) << refused.err;
}

}  // namespace
