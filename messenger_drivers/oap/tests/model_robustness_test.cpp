// Hostile and damaged documents must give no block or a well-formed one,
// never a crash, hang or leak.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "OAPBlock.h"
#include "OAPResponseBlock.h"

namespace {

struct Hostile {
  const char* name;
  std::string text;
  bool accepted;
};

std::string Nested(int depth) {
  std::string text = "<OAP-request version=\"4.0\" id=\"1\"><Body service=\"OA-XML\"><service>";
  for (int i = 0; i < depth; ++i) text += "<Id>";
  for (int i = 0; i < depth; ++i) text += "</Id>";
  return text + "</service></Body></OAP-request>";
}

// Nine levels of tenfold entity expansion: a billion characters if expanded.
std::string EntityBomb() {
  std::string text = "<!DOCTYPE OAP-request [<!ENTITY e0 \"xxxxxxxxxx\">";
  for (int level = 1; level < 10; ++level) {
    text += "<!ENTITY e" + std::to_string(level) + " \"";
    for (int i = 0; i < 10; ++i) text += "&e" + std::to_string(level - 1) + ";";
    text += "\">";
  }
  return text + "]><OAP-request version=\"3.0\"><Body service=\"&e9;\"/></OAP-request>";
}

const char kResponse[] =
    "<OAP-response version=\"3.0\" id=\"1f\"><Status service=\"message\"><Type>5</Type>"
    "<Code>200</Code><Text>t</Text><TypeSpecific><From>1</From><DataResp>x</DataResp>"
    "</TypeSpecific></Status></OAP-response>";
const char kRequest[] =
    "<OAP-request version=\"4.0\" id=\"1a\"><Header/><Body service=\"OA-XML\">"
    "<service version=\"1.0\"><Id>2b</Id><Interactive_Message_Response>"
    "<User_response>hello</User_response></Interactive_Message_Response></service></Body>"
    "</OAP-request>";

TEST(ModelHostileDocuments, RejectedOrWellDefined) {
  const std::vector<Hostile> cases = {
      {"empty", "", false},
      {"not xml", "hello there", false},
      {"truncated", std::string(kResponse).substr(0, 60), false},
      {"truncated request", std::string(kRequest, sizeof(kRequest) - 10), false},
      {"two roots", "<OAP-request version=\"3.0\"/><OAP-request version=\"3.0\"/>", false},
      {"wrong root", "<OAP-reply version=\"3.0\"><Status/></OAP-reply>", false},
      {"no version", "<OAP-response id=\"1\"/>", false},
      {"status without type",
       "<OAP-response version=\"4.0\"><Status><Code>200</Code></Status></OAP-response>", false},
      {"status without code",
       "<OAP-response version=\"4.0\"><Status><Type>1</Type></Status></OAP-response>", false},
      {"v3 status without service",
       "<OAP-response version=\"3.0\"><Status><Type>1</Type><Code>2</Code></Status>"
       "</OAP-response>",
       false},
      {"body without service", "<OAP-request version=\"4.0\"><Body><service/></Body></OAP-request>",
       false},
      {"invalid utf-8",
       "<OAP-response version=\"4.0\"><Status><Type>1</Type><Code>200</Code>"
       "<Text>\xC3\x28\xFF</Text></Status></OAP-response>",
       false},
      {"entity expansion", EntityBomb(), false},
      {"embedded nul", std::string("<OAP-request version=\"3.0\">\0</OAP-request>", 42), false},
      {"non-numeric codes",
       "<OAP-response version=\"4.0\"><Status><Type>one</Type><Code>x</Code></Status>"
       "</OAP-response>",
       true},
      {"huge ids",
       "<OAP-request version=\"4.0\" id=\"FFFFFFFFFFFFFFFFFFFF\"><Body service=\"OA-XML\">"
       "<service><Id>123456789abcdef0123</Id><Id>zz</Id></service></Body></OAP-request>",
       true},
      {"latin-1 text",
       "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><OAP-response version=\"3.0\" id=\"2\">"
       "<Status service=\"m\"><Type>1</Type><Code>200</Code><Text>caf\xE9</Text></Status>"
       "</OAP-response>",
       true},
      {"deep nesting", Nested(3000), true},
      {"unknown elements",
       "<OAP-request version=\"3.0\"><X><Y/></X><Body service=\"x\"/></OAP-request>", true},
  };
  for (const Hostile& c : cases) {
    std::unique_ptr<OAPBlock> block(OAPBlock::Parse(c.text));
    EXPECT_EQ(block != nullptr, c.accepted) << c.name;
  }
}

TEST(ModelHostileDocuments, AcceptedOddValuesReadPredictably) {
  std::unique_ptr<OAPBlock> odd(OAPBlock::Parse(
      "<OAP-response version=\"4.0\"><Status><Type>one</Type><Code>x</Code></Status>"
      "</OAP-response>"));
  ASSERT_TRUE(odd);
  auto* response = static_cast<OAPResponseBlock*>(odd.get());
  EXPECT_EQ(response->status.GetMessage(), "Unknown Code");

  std::unique_ptr<OAPBlock> latin(OAPBlock::Parse(
      "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><OAP-response version=\"3.0\" id=\"2\">"
      "<Status service=\"m\"><Type>1</Type><Code>200</Code><Text>caf\xE9</Text></Status>"
      "</OAP-response>"));
  ASSERT_TRUE(latin);
  // Text arrives as UTF-8 whatever the document's encoding.
  EXPECT_EQ(static_cast<OAPResponseBlock*>(latin.get())->text, "caf\xC3\xA9");
}

// Random damage to valid documents: every result is either null or a block
// that can be queried and destroyed.
TEST(ModelHostileDocuments, MutatedDocumentsNeverCrash) {
  std::mt19937 random(20240611u);
  const std::vector<std::string> seeds = {kResponse, kRequest};
  const std::string alphabet = "<>/=\"&;x \n\xFF";
  int parsed = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string text = seeds[round % seeds.size()];
    const int edits = 1 + static_cast<int>(random() % 4);
    for (int e = 0; e < edits && !text.empty(); ++e) {
      const size_t at = random() % text.size();
      switch (random() % 4) {
        case 0:
          text[at] = alphabet[random() % alphabet.size()];
          break;
        case 1:
          text.erase(at, 1 + random() % 8);
          break;
        case 2:
          text.insert(at, text.substr(random() % text.size(), 1 + random() % 12));
          break;
        default:
          text.resize(at);
          break;
      }
    }
    std::unique_ptr<OAPBlock> block(OAPBlock::Parse(text));
    if (!block) continue;
    ++parsed;
    EXPECT_TRUE(block->GetType() == OAPBlock::Request || block->GetType() == OAPBlock::Response);
    block->GetServiceName();
    block->GetID();
  }
  // Some mutations keep the document valid, so both outcomes were exercised.
  EXPECT_GT(parsed, 0);
  EXPECT_LT(parsed, 3000);
}

}  // namespace
