// Golden texts of every outgoing shape, written out from the protocol's
// layout rules.
#include <gtest/gtest.h>

#include <string>

#include "MessageBody.h"
#include "OAPBlockFactory.h"
#include "OAPBlockHeader.h"
#include "OAPRequestBlock.h"
#include "OAXMLInterActiveMessageBody.h"
#include "OAXMLMessageBody.h"
#include "OAXMLService.h"

namespace {

MessageBody::Option MakeOption(const std::string& text, const std::string& data,
                               const std::string& callNo = "") {
  MessageBody::Option option;
  option.text = text;
  option.dataResp = data;
  option.callNo = callNo;
  return option;
}

template <typename Body>
Body MakeBody(const std::string& bodyText) {
  Body body;
  body.to = "1234";
  body.bodyText = bodyText;
  return body;
}

TEST(ModelHeader, WritesOnlyPresentLines) {
  OAPBlockHeader empty;
  EXPECT_EQ(empty.Serialize(), "<Header>\n</Header>\n");

  OAPBlockHeader negative;
  negative.port = -5;
  EXPECT_EQ(negative.Serialize(), "<Header>\n</Header>\n");

  OAPBlockHeader full;
  full.ip = "10.1.2.3";
  full.port = 7001;
  full.to = "55";
  full.fromNumber = "99<1";
  full.deliveryStatus = true;
  EXPECT_EQ(full.Serialize(),
            "<Header>\n<IP>10.1.2.3</IP>\n<Port>7001</Port>\n<To>55</To>\n"
            "<FromEx>\n<Number>99<1</Number>\n</FromEx>\n<DeliveryStatus/>\n</Header>\n");
}

TEST(ModelMessageBody, DefaultsMatchTheRecord) {
  MessageBody body;
  EXPECT_EQ(body.priority, 6);
  EXPECT_EQ(body.GetServiceName(), "MessageBody");
  EXPECT_EQ(body.id, 0u);
  EXPECT_FALSE(body.updateOnlyExisting || body.wipeOptions || body.sticky || body.urgent);
  EXPECT_EQ(body.auxValue, 0);
  EXPECT_TRUE(body.options.empty());
  EXPECT_EQ(OAXMLInterActiveMessageBody().GetServiceName(), "MessageBody");
}

TEST(ModelV3Body, PlainMessageKeepsStatusRequestsOnTheEndLine) {
  MessageBody body = MakeBody<MessageBody>("Hello & bye");
  EXPECT_EQ(body.Serialize(),
            "<Body service=\"message\"><To>1234</To>\n"
            "<BodyText>Hello &amp; bye</BodyText>\n"
            "<Priority>6</Priority>\n"
            "<AvailabilityStatus/><DeliveryStatus/></Body>");
}

TEST(ModelV3Body, TtlMakesItInteractiveAndEndsTheStatusLine) {
  MessageBody body = MakeBody<MessageBody>("Hi");
  body.subjectText = "a<b>";
  body.ttl = 30;
  body.priority = 0;
  EXPECT_EQ(body.Serialize(),
            "<Body service=\"interactiveMessage\"><To>1234</To>\n"
            "<SubjectText>a&lt;b&gt;</SubjectText>\n"
            "<BodyText>Hi</BodyText>\n"
            "<AvailabilityStatus/><DeliveryStatus/><TTL>30</TTL>\n"
            "</Body>");
}

TEST(ModelV3Body, TwoOptionsGetBothFunctionKeysAndRawTexts) {
  MessageBody body = MakeBody<MessageBody>("");
  body.options = {MakeOption("Yes<", "y", "200"), MakeOption("No", "")};
  EXPECT_EQ(body.Serialize(),
            "<Body service=\"interactiveMessage\"><To>1234</To>\n"
            "<BodyText></BodyText>\n"
            "<Priority>6</Priority>\n"
            "<AvailabilityStatus/><DeliveryStatus/>"
            "<Option id=\"1\">\n<Text>Yes<</Text>\n<OnSelection>\n"
            "<CallNo method=\"\">200</CallNo>\n<DataResp>y</DataResp>\n</OnSelection>\n"
            "<FuncKeyId>A</FuncKeyId>\n</Option>\n"
            "<Option id=\"2\">\n<Text>No</Text>\n<OnSelection>\n"
            "<DataResp></DataResp>\n</OnSelection>\n"
            "<FuncKeyId>C</FuncKeyId>\n</Option>\n"
            "</Body>");
}

TEST(ModelV3Body, CustomOptionCountsTowardsTheKeyRule) {
  MessageBody body = MakeBody<MessageBody>("Q");
  body.priority = 0;
  body.options = {MakeOption("Ok", "1")};
  body.userResponseLabel = "Type";
  EXPECT_EQ(body.Serialize(),
            "<Body service=\"interactiveMessage\"><To>1234</To>\n<BodyText>Q</BodyText>\n"
            "<AvailabilityStatus/><DeliveryStatus/>"
            "<Option id=\"1\">\n<Text>Ok</Text>\n<OnSelection>\n<DataResp>1</DataResp>\n"
            "</OnSelection>\n<FuncKeyId>A</FuncKeyId>\n</Option>\n"
            "<Option id=\"2\">\n<Text>Custom</Text>\n<OnSelection>\n"
            "<UserResponse>Type</UserResponse>\n</OnSelection>\n"
            "<FuncKeyId>C</FuncKeyId>\n</Option>\n"
            "</Body>");

  body.options.push_back(MakeOption("Two", "2"));  // three choices: all "A"
  const std::string text = body.Serialize();
  EXPECT_EQ(text.find("<FuncKeyId>C</FuncKeyId>"), std::string::npos);
  EXPECT_NE(text.find("<Option id=\"3\">\n<Text>Custom</Text>"), std::string::npos);
}

TEST(ModelV3Body, UpdatesAndLabelsWithoutOptions) {
  MessageBody update = MakeBody<MessageBody>("New");
  update.updateOnlyExisting = true;
  update.wipeOptions = true;
  update.ttl = 10;
  update.options = {MakeOption("Gone", "g")};
  update.userResponseLabel = "L";
  EXPECT_EQ(update.Serialize(),
            "<Body service=\"interactiveMessage\"><To>1234</To>\n<BodyText>New</BodyText>\n"
            "<Priority>6</Priority>\n<Update>OnlyExisting</Update>\n</Body>");

  MessageBody labelOnly = MakeBody<MessageBody>("x");
  labelOnly.priority = -1;
  labelOnly.userResponseLabel = "L";
  EXPECT_EQ(labelOnly.Serialize(),
            "<Body service=\"message\"><To>1234</To>\n<BodyText>x</BodyText>\n"
            "<AvailabilityStatus/><DeliveryStatus/></Body>");
}

TEST(ModelV4Body, PlainMessageWithDefaults) {
  OAXMLMessageBody body = MakeBody<OAXMLMessageBody>("Hi");
  EXPECT_EQ(body.Serialize(),
            "<Message>\n<Body>Hi</Body>\n<Indication>\n</Indication>\n"
            "<Priority>6</Priority>\n</Message>");
  body.bodyText.clear();
  body.priority = 0;
  body.numberOfRepetitions = 1;  // a single showing writes no repetition
  EXPECT_EQ(body.Serialize(), "<Message>\n<Indication>\n</Indication>\n</Message>");
}

TEST(ModelV4Body, PlainMessageWithEveryIndication) {
  OAXMLMessageBody body = MakeBody<OAXMLMessageBody>("x>y");
  body.subjectText = "S&T";
  body.beep = 2;
  body.intensity = "High";
  body.urgent = true;
  body.colour = "Red";
  body.intervalTime = 10;
  body.numberOfRepetitions = 3;
  body.ttl = 60;
  body.priority = 1;
  EXPECT_EQ(body.Serialize(),
            "<Message>\n<Subject>S&amp;T</Subject>\n<Body>x&gt;y</Body>\n<Indication>\n"
            "<Beep>2</Beep>\n<Intensity>High</Intensity>\n<Urgent/>\n<Colour>Red</Colour>\n"
            "<Repetition>\n<Interval_time>10</Interval_time>\n"
            "<Number_of_repetitions>3</Number_of_repetitions>\n</Repetition>\n"
            "</Indication>\n<TTL>60</TTL>\n<Priority>1</Priority>\n</Message>");
}

TEST(ModelV4Body, PlainUpdateSilencesAndDropsTtlAndPriority) {
  OAXMLMessageBody body = MakeBody<OAXMLMessageBody>("");
  body.subjectText = "S";
  body.updateOnlyExisting = true;
  body.ttl = 60;
  body.beep = 3;
  EXPECT_EQ(body.Serialize(),
            "<Message>\n<Subject>S</Subject>\n<Indication>\n<Intensity>None</Intensity>\n"
            "</Indication> \n</Message>");
}

const char kPlainMessage[] =
    "<Message>\n<Body>Q</Body>\n<Indication>\n</Indication>\n<Priority>6</Priority>\n"
    "</Message>\n";

TEST(ModelV4Interactive, TwoStickyOptions) {
  OAXMLInterActiveMessageBody body = MakeBody<OAXMLInterActiveMessageBody>("Q");
  body.sticky = true;
  body.options = {MakeOption("Yes", "y", "55"), MakeOption("No<", "n")};
  EXPECT_EQ(body.Serialize(),
            std::string("<Interactive_Message>\n") + kPlainMessage +
                "<Sticky_mode>mode1</Sticky_mode>\n"
                "<Option>\n<ID>1</ID>\n<Text>Yes</Text>\n<Function_key_ID>A</Function_key_ID>\n"
                "<On_selection>\n<Data_response>y</Data_response>\n"
                "<Call_number>\n<Digits>55</Digits>\n</Call_number>\n"
                "<Sticky_mode>reset</Sticky_mode>\n</On_selection>\n</Option>\n"
                "<Option>\n<ID>2</ID>\n<Text>No<</Text>\n<Function_key_ID>C</Function_key_ID>\n"
                "<On_selection>\n<Data_response>n</Data_response>\n"
                "<Sticky_mode>reset</Sticky_mode>\n</On_selection>\n</Option>\n"
                "</Interactive_Message>");
}

TEST(ModelV4Interactive, ThreeOptionsCustomAndClose) {
  OAXMLInterActiveMessageBody body = MakeBody<OAXMLInterActiveMessageBody>("Q");
  body.options = {MakeOption("a", "1"), MakeOption("b", "2"), MakeOption("c", "3")};
  body.userResponseLabel = "Say";
  std::string expected = std::string("<Interactive_Message>\n") + kPlainMessage;
  for (int n = 1; n <= 3; ++n) {
    const std::string digit = std::to_string(n);
    expected += "<Option>\n<ID>" + digit + "</ID>\n<Text>" + std::string(1, 'a' + n - 1) +
                "</Text>\n<Function_key_ID>A</Function_key_ID>\n<On_selection>\n"
                "<Data_response>" +
                digit + "</Data_response>\n</On_selection>\n</Option>\n";
  }
  expected +=
      "<Option>\n<ID>4</ID>\n<Text>Custom</Text>\n<Function_key_ID>A</Function_key_ID>\n"
      "<On_selection>\n<User_response>\n<Text_label>Say</Text_label>\n</User_response>\n"
      "</On_selection>\n</Option>\n"
      "<Option>\n<ID>5</ID>\n<Text>Close</Text>\n<Function_key_ID>C</Function_key_ID>\n"
      "<On_selection>\n<Close_message/>\n</On_selection>\n</Option>\n"
      "</Interactive_Message>";
  EXPECT_EQ(body.Serialize(), expected);
}

TEST(ModelV4Interactive, OneOptionWithStickyCustomUsesKeyAOnly) {
  OAXMLInterActiveMessageBody body = MakeBody<OAXMLInterActiveMessageBody>("Q");
  body.sticky = true;
  body.options = {MakeOption("Ok", "")};
  body.userResponseLabel = "L";
  EXPECT_EQ(body.Serialize(),
            std::string("<Interactive_Message>\n") + kPlainMessage +
                "<Sticky_mode>mode1</Sticky_mode>\n"
                "<Option>\n<ID>1</ID>\n<Text>Ok</Text>\n<Function_key_ID>A</Function_key_ID>\n"
                "<On_selection>\n<Data_response></Data_response>\n"
                "<Sticky_mode>reset</Sticky_mode>\n</On_selection>\n</Option>\n"
                "<Option>\n<ID>2</ID>\n<Text>Custom</Text>\n<Function_key_ID>A</Function_key_ID>\n"
                "<On_selection>\n<User_response>\n<Text_label>L</Text_label>\n</User_response>\n"
                "<Sticky_mode>reset</Sticky_mode>\n</On_selection>\n</Option>\n"
                "</Interactive_Message>");
}

TEST(ModelV4Interactive, UpdatesWipeOrKeepOptions) {
  const std::string updated =
      "<Interactive_Message>\n<Message>\n<Body>Q</Body>\n<Indication>\n"
      "<Intensity>None</Intensity>\n</Indication> \n</Message>\n<Update>\n</Update>\n";
  OAXMLInterActiveMessageBody wipe = MakeBody<OAXMLInterActiveMessageBody>("Q");
  wipe.updateOnlyExisting = true;
  wipe.wipeOptions = true;
  wipe.sticky = true;
  wipe.options = {MakeOption("a", "1")};
  wipe.userResponseLabel = "L";
  EXPECT_EQ(wipe.Serialize(), updated + "<Option/>\n</Interactive_Message>");

  OAXMLInterActiveMessageBody keep = MakeBody<OAXMLInterActiveMessageBody>("Q");
  keep.updateOnlyExisting = true;
  keep.sticky = true;  // no mode line on an update, resets stay on the options
  keep.options = {MakeOption("a", "1")};
  EXPECT_EQ(keep.Serialize(),
            updated +
                "<Option>\n<ID>1</ID>\n<Text>a</Text>\n<Function_key_ID>A</Function_key_ID>\n"
                "<On_selection>\n<Data_response>1</Data_response>\n"
                "<Sticky_mode>reset</Sticky_mode>\n</On_selection>\n</Option>\n"
                "</Interactive_Message>");

  OAXMLInterActiveMessageBody labelOnly = MakeBody<OAXMLInterActiveMessageBody>("Q");
  labelOnly.userResponseLabel = "L";
  EXPECT_EQ(labelOnly.Serialize(),
            std::string("<Interactive_Message>\n") + kPlainMessage + "</Interactive_Message>");
}

TEST(ModelEnvelope, IdLineOnlyWhenSet) {
  OAXMLService service;
  auto* content = new OAXMLMessageBody();
  content->priority = 0;
  service.content = content;
  const std::string inner = "<Message>\n<Indication>\n</Indication>\n</Message>\n";
  EXPECT_EQ(service.Serialize(), "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n" + inner +
                                     "</service>\n</Body>\n");
  service.id = 0xABC;
  EXPECT_EQ(service.Serialize(),
            "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>abc</Id>\n" + inner +
                "</service>\n</Body>\n");
  EXPECT_EQ(service.GetServiceName(), "MessageBody");
}

TEST(ModelRequestBlock, Version3DocumentWithHexId) {
  OAPBlock* block = OAPBlockFactory::GetBlock("OAP-request");
  ASSERT_NE(block, nullptr);
  block->version = "3.0";
  block->encoding = "ISO-8859-1";
  block->id = 255;
  auto* header = new OAPBlockHeader();
  header->ip = "127.0.0.1";
  header->port = 9000;
  block->SetHeader(header);
  auto* body = new MessageBody();
  body->to = "42";
  body->bodyText = "Hi";
  body->options = {MakeOption("a", "1")};  // released through the body base
  block->SetBody(body);
  EXPECT_EQ(block->GetServiceName(), "MessageBody");
  const std::string text = block->Serialize();
  EXPECT_EQ(text.substr(0, text.find("<Body")),
            "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n"
            "<OAP-request version=\"3.0\" id=\"ff\">\n"
            "<Header>\n<IP>127.0.0.1</IP>\n<Port>9000</Port>\n</Header>\n");
  EXPECT_EQ(text.substr(text.find("<Body")), body->Serialize() + "</OAP-request>");
  delete block;
}

TEST(ModelRequestBlock, Version4DocumentWrapsTheEnvelope) {
  OAPRequestBlock block;
  block.version = "4.0";
  block.encoding = "UTF-8";
  block.id = 0x1000;
  auto* header = new OAPBlockHeader();
  header->to = "77";
  header->deliveryStatus = true;
  block.SetHeader(header);
  auto* service = new OAXMLService();
  service->id = 0x11;
  auto* message = new OAXMLInterActiveMessageBody();
  message->bodyText = "B";
  message->priority = 0;
  service->content = message;
  block.SetBody(service);
  EXPECT_EQ(block.Serialize(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<OAP-request version=\"4.0\" id=\"1000\">\n"
            "<Header>\n<To>77</To>\n<DeliveryStatus/>\n</Header>\n"
            "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>11</Id>\n"
            "<Interactive_Message>\n<Message>\n<Body>B</Body>\n<Indication>\n</Indication>\n"
            "</Message>\n</Interactive_Message>\n</service>\n</Body>\n</OAP-request>");
  EXPECT_EQ(block.GetServiceName(), "MessageBody");
}

}  // namespace
