// The simulator: what it refuses in received OAP-requests, and the program
// itself over 127.0.0.1 (answers, scripted handsets, commands on standard
// input, its command line and stopping). The driver's listener is played by
// the driver tests' fake server, which records each document sent to it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "../../../messenger_drivers/oap/tests/FakeOapServer.h"
#include "child_process.h"

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

// Requests as the driver writes them. 3.0 interactive message #1a to handset
// 1234, driver listener port 7001.
const std::string kInteractive30 =
    "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<OAP-request version=\"3.0\" id=\"1a\">\n"
    "<Header>\n<IP>127.0.0.1</IP>\n<Port>7001</Port>\n</Header>\n"
    "<Body service=\"interactiveMessage\"><To>1234</To>\n"
    "<SubjectText>Hi &lt;there&gt;</SubjectText>\n<BodyText>Caf\xe9 open?</BodyText>\n"
    "<Priority>6</Priority>\n<AvailabilityStatus/><DeliveryStatus/><TTL>300</TTL>\n"
    "<Option id=\"1\">\n<Text>Yes</Text>\n<OnSelection>\n<CallNo method=\"\">555</CallNo>\n"
    "<DataResp>N:Yes</DataResp>\n</OnSelection>\n<FuncKeyId>A</FuncKeyId>\n</Option>\n"
    "<Option id=\"2\">\n<Text>Custom</Text>\n<OnSelection>\n<UserResponse>Other</UserResponse>\n"
    "</OnSelection>\n<FuncKeyId>C</FuncKeyId>\n</Option>\n</Body></OAP-request>";

// 4.0 interactive message #1a0001 to handset 5678, listener port 7002, with
// data, custom and close options.
const std::string kInteractive40 =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"1a0001\">\n"
    "<Header>\n<Port>7002</Port>\n<To>5678</To>\n<DeliveryStatus/>\n</Header>\n"
    "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>1a0001</Id>\n"
    "<Interactive_Message>\n<Message>\n<Subject>Lunch</Subject>\n<Body>Caf\xc3\xa9?</Body>\n"
    "<Indication>\n<Beep>1</Beep>\n</Indication>\n<TTL>60</TTL>\n<Priority>6</Priority>\n"
    "</Message>\n<Sticky_mode>mode1</Sticky_mode>\n"
    "<Option>\n<ID>1</ID>\n<Text>No</Text>\n<Function_key_ID>A</Function_key_ID>\n"
    "<On_selection>\n<Data_response>F:No</Data_response>\n</On_selection>\n</Option>\n"
    "<Option>\n<ID>2</ID>\n<Text>Custom</Text>\n<Function_key_ID>A</Function_key_ID>\n"
    "<On_selection>\n<User_response>\n<Text_label>Say</Text_label>\n</User_response>\n"
    "</On_selection>\n</Option>\n"
    "<Option>\n<ID>3</ID>\n<Text>Close</Text>\n<Function_key_ID>C</Function_key_ID>\n"
    "<On_selection>\n<Close_message/>\n</On_selection>\n</Option>\n"
    "</Interactive_Message>\n</service>\n</Body>\n</OAP-request>";

// 4.0 update (request #1a0002) wiping the options of #1a0001.
const std::string kWipeUpdate40 =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"1a0002\">\n"
    "<Header>\n<Port>7002</Port>\n<To>5678</To>\n<DeliveryStatus/>\n</Header>\n"
    "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>1a0001</Id>\n"
    "<Interactive_Message>\n<Message>\n<Body>Lunch?\n\nYou replied:\n-->>No</Body>\n"
    "<Indication>\n<Intensity>None</Intensity>\n</Indication> \n</Message>\n"
    "<Update>\n</Update>\n<Option/>\n</Interactive_Message>\n</service>\n</Body>\n</OAP-request>";

// The first occurrence of `from` replaced (std::out_of_range when there is none).
std::string Replace(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

// Sends one request and returns the whole answer. The request goes in two
// pieces, the second once nothing came back to the first for 0.1 s: a
// request may arrive in any number of reads.
std::string Exchange(int port, const std::string& request, bool halfClose = false) {
  const int fd = ConnectLoopback(port);
  std::string answer;
  char chunk[4096];
  pollfd waiter{fd, POLLIN, 0};
  const ssize_t half = static_cast<ssize_t>(request.size() / 2);
  if (fd >= 0 && write(fd, request.data(), half) == half && poll(&waiter, 1, 100) == 0 &&
      write(fd, request.data() + half, request.size() - half) ==
          static_cast<ssize_t>(request.size()) - half) {
    if (halfClose) shutdown(fd, SHUT_WR);
    for (ssize_t n;
         poll(&waiter, 1, ChildProcess::kWaitMs) > 0 && (n = read(fd, chunk, sizeof chunk)) > 0;)
      answer.append(chunk, static_cast<size_t>(n));
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

// Requests the simulator refuses as not understood, each with its reason.
TEST(OapSimProcessTest, RejectsMalformedRequestsWithReason) {
  std::string deep = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  for (int i = 0; i < 80; ++i) deep += "<a>";
  const auto In30 = [](auto from, auto to) { return Replace(kInteractive30, from, to); };
  const auto In40 = [](auto from, auto to) { return Replace(kInteractive40, from, to); };
  const auto Wipe40 = [](auto from, auto to) { return Replace(kWipeUpdate40, from, to); };
  const std::vector<std::pair<std::string, const char*>> cases{
      {kInteractive40.substr(0, 150), "malformed XML"},
      {deep, "nested more than"},
      {kInteractive40.substr(kInteractive40.find('\n') + 1), "no XML declaration"},
      {Replace(In30("ISO-8859-1", "UTF-8"), "\xe9", "e"), "expected ISO-8859-1"},
      {In30("id=\"1a\"", "id=\"1A\""), "not lower-case hexadecimal"},
      {In30("<IP>127.0.0.1</IP>", ""), "has no IP"},
      {In30("interactiveMessage", "OA-XML"), "expected message or interactiveMessage"},
      {In30("<Option id=\"2\">", "<Option id=\"3\">"), "option 2 has id '3'"},
      {In30("</DataResp>", "</DataResp><UserResponse>x</UserResponse>"),
       "exactly one of DataResp and UserResponse"},
      {Wipe40("<Id>1a0001</Id>", ""), "update without envelope Id"},
      {In40("<Sticky_mode>mode1</Sticky_mode>", "<Option/>"), "empty Option outside an update"},
      {In40("<Function_key_ID>C<", "<Function_key_ID>c<"), "function key 'c'"},
  };
  Sim sim({});
  const int port = sim.Port();
  for (const auto& [text, error] : cases) {
    EXPECT_THAT(Exchange(port, text, true),
                HasSubstr("<Code>403</Code>\n<Text>Message not understood</Text>"));
    EXPECT_THAT(sim.WaitFor("[sim] rejected request"), HasSubstr(error));
  }
}

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

  // UTF-8 in a 3.0 document is taken but called out.
  EXPECT_THAT(Exchange(port, WithPort(Replace(kInteractive30, "\xe9", "\xc3\xa9"), driver.Port())),
              HasSubstr("<Code>200</Code>"));
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
  sim.Send("quit\n");
  EXPECT_EQ(sim.Finish(), 0);
}

TEST(OapSimProcessTest, ConfiguredStatusSilenceStoppingAndRefusedCommandLines) {
  Sim failing({"--status", "1:407"});
  EXPECT_EQ(Exchange(failing.Port(), kInteractive30),
            "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
            "<OAP-response version=\"3.0\" id=\"1a\">\n<Status service=\"message\">\n"
            "<Type>1</Type>\n<Code>407</Code>\n</Status>\n</OAP-response>");
  // Silent: the request is read, and the connection stays open without a
  // byte until the client gives up.
  Sim silent({"--silent"});
  const int fd = ConnectLoopback(silent.Port());
  ASSERT_GE(fd, 0);
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
  Sim bad({"--status", "200"});
  EXPECT_EQ(bad.Finish(), 2);
  EXPECT_NE(bad.err.find("bad value '200' for --status"), std::string::npos) << bad.err;
}

}  // namespace
