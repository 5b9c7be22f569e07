// Inbound handling of the message service without a network (the device
// controller's client is never initialised), and what an independent XML
// parser reads from the requests it builds. Which settings each version
// copies is pinned by the driver's send tests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <tuple>

#include "InterActiveMessageResponse.h"
#include "MessageBody.h"
#include "OAPClient.h"
#include "OAPDeviceController.h"
#include "OAPMessageServiceHandler.h"
#include "OAPRequestBlock.h"
#include "OAPResponseBlock.h"
#include "OAXMLService.h"

namespace {

using MsgStatus = OAPDeviceController::MsgStatus;
using Replies = std::list<std::string>;

class EngineHandlerTest : public ::testing::Test {
 protected:
  EngineHandlerTest()
      : client(std::make_shared<OAPClient>(4321, "127.0.0.1")), device("1234@127.0.0.1:9") {
    device.SetClient(client);
    handler.SetDeviceContext(&device);
  }

  // A response block as the server would send it.
  void Respond(uint32_t id, int type, int code, const std::string& data, const std::string& typed) {
    OAPResponseBlock response;
    response.id = id;
    std::tie(response.status.type, response.status.code) = std::make_pair(type, code);
    std::tie(response.dataResp, response.userResponse) = std::make_pair(data, typed);
    handler.Handle(&response);
  }
  // An inbound OA-XML answer request.
  void Answer(uint32_t id, const std::string& data, const std::string& typed) {
    OAPRequestBlock block;
    block.id = id;
    auto* answer = new InterActiveMessageResponse();
    answer->dataResponse = data;
    answer->userResponse = typed;
    auto* service = new OAXMLService();
    service->id = id;
    service->content = answer;
    block.SetBody(service);
    handler.Handle(&block);
  }
  // Reads the stored replies; the first call creates an empty status for the
  // number (body-less, so no echo is sent).
  Replies Query(uint32_t id) { return device.QueryResponse(device.address, id); }

  std::shared_ptr<OAPClient> client;
  OAPDeviceController device;
  OAPMessageServiceHandler handler;
};

// Server responses: delivery reports mark only known messages; option
// selections store the data (without its prefix) before any typed text.
// Inbound answers are stored until a final one closes the message.
TEST_F(EngineHandlerTest, ResponsesAndInboundAnswers) {
  Query(5);
  MsgStatus status;
  Respond(5, 3, 405, "", "");
  EXPECT_TRUE(device.GetStatus(5, status) && status.state == MsgStatus::Pending);
  Respond(5, 3, 200, "", "");
  Respond(6, 3, 200, "", "");
  EXPECT_TRUE(device.GetStatus(5, status) && status.state == MsgStatus::Delivered);
  EXPECT_FALSE(device.GetStatus(6, status));

  Respond(5, 5, 200, "A:Yes", "typed");
  Respond(5, 5, 200, "", "typed");
  Respond(5, 5, 200, "", "");
  Respond(5, 1, 200, "A:No", "");
  EXPECT_EQ(Query(5), (Replies{"Yes", "typed"}));
  EXPECT_TRUE(Query(5).empty());
  EXPECT_THROW(Respond(5, 5, 200, "X", ""), std::out_of_range);
  Respond(5, 5, 200, "F:", "");
  EXPECT_EQ(Query(5), (Replies{""}));

  // Inbound answers are stored; a final one closes the message.
  Query(9);
  Answer(9, "N:Maybe", "ignored");
  Answer(9, "", "free text");
  Answer(9, "F:No", "");
  Answer(9, "A:Late", "");
  EXPECT_EQ(Query(9), (Replies{"Maybe", "free text", "No"}));
  EXPECT_TRUE(device.GetStatus(9, status) && status.closed);

  // Requests that are no OA-XML answer, and answers for unknown numbers.
  OAPRequestBlock bodiless;
  bodiless.id = 9;
  handler.Handle(&bodiless);
  Answer(10, "A:Yes", "");
  EXPECT_FALSE(device.GetStatus(10, status));
  EXPECT_TRUE(Query(9).empty());
}

// A host text and what a reader of the document must get back (as UTF-8):
// valid UTF-8 as it is, any other bytes read as Latin-1, and "?" for each
// character XML 1.0 does not allow.
struct HostText {
  std::string host, readBack;
};

// "path:hex" as the reader prints an element: the text's bytes in hexadecimal.
std::string Item(const std::string& path, const std::string& text) {
  std::string item = path + ":";
  char two[3];
  for (unsigned char c : text) item.append(two, std::snprintf(two, sizeof two, "%02x", c));
  return item;
}

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
    return;
  }
  static const unsigned char kLead[] = {0, 0xC0, 0xE0, 0xF0};
  const int extra = cp < 0x800 ? 1 : cp < 0x10000 ? 2 : 3;
  out += static_cast<char>(kLead[extra] | (cp >> (6 * extra)));
  for (int shift = 6 * (extra - 1); shift >= 0; shift -= 6) {
    out += static_cast<char>(0x80 | ((cp >> shift) & 0x3F));
  }
}

// Up to eight characters: markup and control characters, Latin-1, the rest of
// the BMP (U+FFFE and U+FFFF included) and beyond; or, one time in four,
// arbitrary bytes with a 0xFF among them, which no UTF-8 text holds.
HostText RandomText(std::mt19937& rng) {
  HostText text;
  const bool bytes = rng() % 4 == 0;
  auto add = [&](uint32_t cp) {
    if (bytes) {
      text.host += static_cast<char>(cp);
    } else {
      AppendUtf8(text.host, cp);
    }
    const bool allowed =
        cp == 0x9 || cp == 0xA || cp == 0xD || (cp >= 0x20 && cp != 0xFFFE && cp != 0xFFFF);
    AppendUtf8(text.readBack, allowed ? cp : '?');
  };

  const std::string markup = "<>&'\"\t\r\n;#x";
  for (int length = rng() % 9, i = 0; i < length; ++i) {
    const unsigned range = rng() % 6;
    uint32_t cp = range == 0   ? markup[rng() % markup.size()]
                  : range == 1 ? rng() % 0x80
                  : range == 2 ? 0x80 + rng() % 0x80
                  : range == 3 ? 0x100 + rng() % 0xFF00
                               : 0x10000 + rng() % 0x100000;
    if (bytes) cp &= 0xFF;
    if (cp >= 0xD800 && cp < 0xE000) cp = 0xFFFE + rng() % 2;  // no surrogates in UTF-8
    add(cp);
  }
  if (bytes) add(0xFF);
  return text;
}

// Random jobs of both versions, built and serialised, are read back by
// Python's XML parser: every document is well-formed and every text reads
// back as the host's text.
TEST(EngineRequestTexts, AnIndependentParserReadsBackEveryText) {
  std::mt19937 rng(20240612u);
  const int kCases = 3000;
  std::vector<std::string> documents;
  std::vector<std::multiset<std::string>> expected(kCases);
  for (int i = 0; i < kCases; ++i) {
    const bool v4 = rng() % 2 == 1;
    HostText handset = RandomText(rng);
    while (handset.host.find('@') != std::string::npos) handset = RandomText(rng);
    // Listener address, subject, body, caller number, colour, intensity, label.
    HostText t[7];
    for (HostText& text : t) text = RandomText(rng);
    std::vector<HostText> options(3 * (rng() % 4));
    for (HostText& text : options) text = RandomText(rng);
    auto client = std::make_shared<OAPClient>(1, t[0].host);
    OAPDeviceController device(handset.host + "@server:1");
    device.SetClient(client);
    OAPMessageServiceHandler handler;
    handler.SetDeviceContext(&device);
    MessageBody source;
    source.version = v4 ? "4.0" : "3.0";
    source.subjectText = t[1].host;
    source.bodyText = t[2].host;
    source.fromNumber = t[3].host;
    source.colour = t[4].host;
    source.intensity = t[5].host;
    source.userResponseLabel = t[6].host;
    source.updateOnlyExisting = rng() % 4 == 0;
    source.wipeOptions = rng() % 2 == 0;
    for (size_t o = 0; o < options.size(); o += 3)
      source.options.push_back({options[o].host, options[o + 1].host, options[o + 2].host, 0, ""});

    // Optional elements are written only for a text that is not empty.
    auto expect = [&texts = expected[i]](const char* path, const HostText& text, bool always) {
      if (always || !text.host.empty()) texts.insert(Item(path, text.readBack));
    };
    if (v4) {
      for (const auto& [path, text] : {std::make_pair("Header/To", handset),
                                       {"Message/Subject", t[1]},
                                       {"Message/Body", t[2]},
                                       {"FromEx/Number", t[3]}})
        expect(path, text, false);
      if (!source.updateOnlyExisting) {
        expect("Indication/Colour", t[4], false);
        expect("Indication/Intensity", t[5], false);
      }
    } else {
      expect("Header/IP", t[0], false);
      expect("Body/To", handset, true);
      expect("Body/SubjectText", t[1], false);
      expect("Body/BodyText", t[2], true);
    }
    if (!source.options.empty() && !(source.updateOnlyExisting && source.wipeOptions)) {
      for (size_t o = 0; o < options.size(); o += 3) {
        expect("Option/Text", options[o], true);
        expect(v4 ? "On_selection/Data_response" : "OnSelection/DataResp", options[o + 1], true);
        expect(v4 ? "Call_number/Digits" : "OnSelection/CallNo", options[o + 2], false);
      }
      expect(v4 ? "User_response/Text_label" : "OnSelection/UserResponse", t[6], false);
    }
    std::unique_ptr<OAPBlock> block(handler.BuildPayLoad(&source));
    ASSERT_NE(block, nullptr);
    documents.push_back(block->Serialize());
  }

  const std::string path = ::testing::TempDir() + "oap_requests_" + std::to_string(getpid());
  {
    std::ofstream file(path, std::ios::binary);
    for (const std::string& document : documents) file << document.size() << "\n" << document;
  }
  const std::string command = "python3 " QM_XML_READBACK_SCRIPT " " + path + " 2>&1";
  FILE* reader = popen(command.c_str(), "r");
  ASSERT_NE(reader, nullptr);
  std::string output;
  char buffer[65536];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, reader)) > 0;) output.append(buffer, n);
  EXPECT_EQ(pclose(reader), 0) << output.substr(0, 2000);
  std::remove(path.c_str());

  std::istringstream lines(output);
  std::string line;
  int index = 0;
  for (; std::getline(lines, line) && index < kCases; ++index) {
    SCOPED_TRACE(documents[index]);
    ASSERT_NE(line.compare(0, 1, "!"), 0) << line;
    std::multiset<std::string> read;
    std::istringstream items(line);
    for (std::string item; items >> item;) read.insert(item);
    for (const std::string& want : expected[index]) {
      auto found = read.find(want);
      ASSERT_TRUE(found != read.end()) << want;
      read.erase(found);
    }
  }
  EXPECT_EQ(index, kCases);
}

}  // namespace
