// Payload building and inbound handling of the message service, without a
// network: the device controller has a client that is never initialised. The
// envelopes of the built blocks are pinned by the controller's sends; what
// an independent XML parser reads from them is checked at the end.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include "InterActiveMessageResponse.h"
#include "MessageBody.h"
#include "OAPClient.h"
#include "OAPDeviceController.h"
#include "OAPMessageServiceHandler.h"
#include "OAPRequestBlock.h"
#include "OAPResponseBlock.h"
#include "OAXMLInterActiveMessageBody.h"
#include "OAXMLService.h"

namespace {

using MsgStatus = OAPDeviceController::MsgStatus;
using Replies = std::list<std::string>;

class EngineHandlerTest : public ::testing::Test {
 protected:
  EngineHandlerTest()
      : client(std::make_shared<OAPClient>(4321, "127.0.0.1")), device("1234@127.0.0.1:9") {
    client->TrackingBase = 0x10000;
    device.SetClient(client);
    handler.SetDeviceContext(&device);
  }

  template <typename Source>
  std::unique_ptr<OAPBlock> Build(Source* source) {
    return std::unique_ptr<OAPBlock>(handler.BuildPayLoad(source));
  }

  // A source body with every copied and every not-copied setting changed.
  static MessageBody FullBody(const std::string& version) {
    MessageBody body;
    body.version = version;
    body.subjectText = "Subject";
    body.bodyText = "Text";
    body.options.push_back({"Yes", "N:Yes", "", 0, ""});
    body.ttl = 30;
    body.auxValue = 7;
    body.userResponseLabel = "Type";
    body.priority = 2;
    body.beep = 3;
    body.colour = "red";
    body.urgent = true;
    body.numberOfRepetitions = 4;
    body.intervalTime = 5;
    body.intensity = "High";
    body.sticky = true;
    return body;
  }

  // A response block as the server would send it.
  void Respond(uint32_t id, int type, int code, const std::string& data, const std::string& typed) {
    OAPResponseBlock response;
    response.id = id;
    response.status.type = type;
    response.status.code = code;
    response.dataResp = data;
    response.userResponse = typed;
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

// Message bodies: each version copies its own settings and reports the
// number; the version must match exactly; nothing else is copied. (The 4.0
// update of a shown message is pinned by the client's WipeOptions.)
TEST_F(EngineHandlerTest, BodiesAreCopiedPerVersion) {
  MessageBody source = FullBody("3.0");
  auto block = Build(&source);
  EXPECT_EQ(block->id, 0x10000u);
  EXPECT_EQ(source.id, 0x10000u);
  auto* out = dynamic_cast<MessageBody*>(block->body);
  ASSERT_NE(out, nullptr);
  ASSERT_EQ(out->options.size(), 1u);
  EXPECT_EQ(out->options[0].dataResp, "N:Yes");
  // Copied, then not copied.
  EXPECT_EQ(std::make_tuple(out->ttl, out->auxValue, out->userResponseLabel, out->priority,
                            out->colour, out->sticky),
            std::make_tuple(30, 7, std::string("Type"), 6, std::string(), false));
  // A version 3 update reuses the body's number and leaves the counter alone.
  source.updateOnlyExisting = source.wipeOptions = true;
  source.id = 17;
  block = Build(&source);
  EXPECT_EQ(block->id, 17u);
  EXPECT_EQ(client->TrackingBase.load(), 0x10001u);
  out = dynamic_cast<MessageBody*>(block->body);
  ASSERT_NE(out, nullptr);
  EXPECT_TRUE(out->updateOnlyExisting && out->wipeOptions);

  source = FullBody("4.0");
  block = Build(&source);
  EXPECT_EQ(source.id, 0x10001u);
  auto* service = dynamic_cast<OAXMLService*>(block->body);
  ASSERT_NE(service, nullptr);
  EXPECT_EQ(service->id, 0x10001u);
  auto* v4 = dynamic_cast<OAXMLInterActiveMessageBody*>(service->content);
  ASSERT_NE(v4, nullptr);
  EXPECT_EQ(std::make_tuple(v4->priority, v4->colour, v4->urgent, v4->numberOfRepetitions,
                            v4->intervalTime, v4->intensity, v4->sticky, v4->ttl, v4->auxValue,
                            v4->userResponseLabel, v4->beep, v4->to),
            std::make_tuple(2, std::string("red"), true, 4, 5, std::string("High"), true, 30, 7,
                            std::string("Type"), 0, std::string()));

  source = FullBody("4.0 ");
  EXPECT_EQ(Build(&source)->version, "3.0");
  InterActiveMessageResponse foreign;
  for (const char* version : {"4.0", "3.0"}) {
    foreign.version = version;
    block = Build(&foreign);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->body, nullptr);
  }
  OAPServicePayLoadRequest bare("3.0");
  EXPECT_EQ(Build(&bare), nullptr);
  // Without a device that has a client nothing can be built.
  OAPMessageServiceHandler loose;
  EXPECT_EQ(loose.BuildPayLoad(&source), nullptr);
  OAPDeviceController clientless("1@h:1");
  loose.SetDeviceContext(&clientless);
  EXPECT_EQ(loose.BuildPayLoad(&source), nullptr);
  loose.Handle(nullptr);
}

// Server responses: delivery reports mark only known messages; option
// selections store the data (without its prefix) before any typed text.
// Inbound answers are stored until a final one closes the message.
TEST_F(EngineHandlerTest, ResponsesAndInboundAnswers) {
  Query(5);
  MsgStatus status;
  Respond(5, 3, 405, "", "");
  ASSERT_TRUE(device.GetStatus(5, status));
  EXPECT_EQ(status.state, MsgStatus::Pending);
  Respond(5, 3, 200, "", "");
  Respond(6, 3, 200, "", "");
  ASSERT_TRUE(device.GetStatus(5, status));
  EXPECT_EQ(status.state, MsgStatus::Delivered);
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
  ASSERT_TRUE(device.GetStatus(9, status));
  EXPECT_TRUE(status.closed);

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

// Random jobs of both versions, built from a body or from a request by the
// builders and serialised, are read back by Python's XML parser: every
// document is well-formed and every text reads back as the host's text.
TEST(EngineRequestTexts, AnIndependentParserReadsBackEveryText) {
  std::mt19937 rng(20240612u);
  const int kCases = 3000;
  std::vector<std::string> documents;
  std::vector<std::multimap<std::string, std::string>> expected(kCases);
  for (int i = 0; i < kCases; ++i) {
    auto& texts = expected[i];
    // Optional elements are written only for a text that is not empty.
    auto expect = [&texts](const char* path, const HostText& text, bool always = false) {
      if (always || !text.host.empty()) texts.emplace(path, text.readBack);
    };
    const bool v4 = rng() % 2 == 1;
    HostText handset = RandomText(rng);
    while (handset.host.find('@') != std::string::npos) handset = RandomText(rng);
    const HostText address = RandomText(rng), subject = RandomText(rng), text = RandomText(rng);
    auto client = std::make_shared<OAPClient>(1 + static_cast<int>(rng() % 9), address.host);
    OAPDeviceController device(handset.host + "@server:1");
    device.SetClient(client);
    OAPMessageServiceHandler handler;
    handler.SetDeviceContext(&device);
    if (v4) {
      expect("Header/To", handset);
      expect("Message/Subject", subject);
      expect("Message/Body", text);
    } else {
      expect("Header/IP", address);
      expect("Body/To", handset, true);
      expect("Body/SubjectText", subject);
      expect("Body/BodyText", text, true);
    }
    std::unique_ptr<OAPBlock> block;
    if (rng() % 4 == 0) {
      OAPMessageServiceHandler::OAPMsgServicePayLoadRequest request(
          v4 ? "4.0" : "3.0", subject.host, text.host, std::list<std::string>(rng() % 3, "L"));
      block.reset(handler.BuildPayLoad(&request));
    } else {
      MessageBody source;
      source.version = v4 ? "4.0" : "3.0";
      source.subjectText = subject.host;
      source.bodyText = text.host;
      source.updateOnlyExisting = rng() % 4 == 0;
      source.wipeOptions = rng() % 2 == 0;
      source.sticky = rng() % 2 == 0;
      source.urgent = rng() % 2 == 0;
      source.ttl = static_cast<int32_t>(rng() % 3) * 30;
      source.priority = static_cast<int32_t>(rng() % 9) - 1;
      source.numberOfRepetitions = static_cast<int32_t>(rng() % 4);
      const HostText from = RandomText(rng), colour = RandomText(rng), intensity = RandomText(rng),
                     label = RandomText(rng);
      source.fromNumber = from.host;
      source.colour = colour.host;
      source.intensity = intensity.host;
      source.userResponseLabel = label.host;
      std::vector<HostText> options;
      for (int n = rng() % 4, o = 0; o < 3 * n; ++o) options.push_back(RandomText(rng));
      for (size_t o = 0; o < options.size(); o += 3) {
        source.options.push_back(
            {options[o].host, options[o + 1].host, options[o + 2].host, 0, ""});
      }
      const bool optionsWritten =
          !source.options.empty() && !(source.updateOnlyExisting && source.wipeOptions);
      if (v4) {
        expect("FromEx/Number", from);
        if (!source.updateOnlyExisting) {
          expect("Indication/Colour", colour);
          expect("Indication/Intensity", intensity);
        }
      }
      for (size_t o = 0; optionsWritten && o < options.size(); o += 3) {
        expect("Option/Text", options[o], true);
        expect(v4 ? "On_selection/Data_response" : "OnSelection/DataResp", options[o + 1], true);
        expect(v4 ? "Call_number/Digits" : "OnSelection/CallNo", options[o + 2]);
      }
      if (optionsWritten)
        expect(v4 ? "User_response/Text_label" : "OnSelection/UserResponse", label);
      block.reset(handler.BuildPayLoad(&source));
    }
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
    std::multimap<std::string, std::string> read;
    std::istringstream items(line);
    for (std::string item; items >> item;) {
      const size_t colon = item.rfind(':');
      std::string bytes;
      for (size_t at = colon + 1; at + 1 < item.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(item.substr(at, 2), nullptr, 16));
      }
      read.emplace(item.substr(0, colon), bytes);
    }
    for (const auto& want : expected[index]) {
      auto range = read.equal_range(want.first);
      auto found = std::find_if(range.first, range.second,
                                [&](const auto& got) { return got.second == want.second; });
      ASSERT_TRUE(found != range.second) << want.first << " should read " << want.second;
      read.erase(found);
    }
  }
  EXPECT_EQ(index, kCases);
}

}  // namespace
