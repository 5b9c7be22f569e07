// What the simulated handsets keep and show, and the simulator's command line.

#include <gtest/gtest.h>

#include "OapSimHandsets.h"
#include "OapSimOptions.h"

namespace {

OapSimDocument::Option DataOption(int number, const std::string& text,
                                  const std::string& dataResp) {
  OapSimDocument::Option option;
  option.number = number;
  option.text = text;
  option.dataResp = dataResp;
  return option;
}

OapSimDocument::Request Interactive(uint32_t tracking, const std::string& handset) {
  OapSimDocument::Request request;
  request.version = "4.0";
  request.tracking = tracking;
  request.handset = handset;
  request.listenerPort = 7002;
  request.interactive = true;
  request.subject = "Hi";
  request.text = "Hello";
  request.options = {DataOption(1, "Yes", "N:Yes"), DataOption(2, "No", "F:No")};
  OapSimDocument::Option custom;
  custom.number = 3;
  custom.kind = OapSimDocument::Option::Custom;
  custom.label = "Other";
  request.options.push_back(custom);
  return request;
}

TEST(OapSimHandsetsTest, NewMessageIsKeptAndDescribed) {
  OapSimHandsets handsets;
  EXPECT_EQ(handsets.Store(Interactive(0x1a0000, "1234"), "127.0.0.1"), OapSimHandsets::Added);
  const OapSimHandsets::Message* message = handsets.Find(0x1a0000);
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(message->driverHost, "127.0.0.1");
  EXPECT_EQ(message->driverPort, 7002);
  EXPECT_EQ(OapSimHandsets::Describe(*message),
            "4.0 message #1a0000 to 1234: subject 'Hi' text 'Hello' "
            "options [1:Yes->N:Yes, 2:No->F:No] custom 'Other'");
  EXPECT_EQ(handsets.Find(0x1a0001), nullptr);
}

TEST(OapSimHandsetsTest, UpdatesReplaceTheShownMessage) {
  OapSimHandsets handsets;
  handsets.Store(Interactive(0x1a0000, "1234"), "127.0.0.1");

  OapSimDocument::Request keep = Interactive(0x1a0000, "1234");
  keep.update = true;
  keep.text = "Hello\n\nYou replied:\n-->>Yes";
  EXPECT_EQ(handsets.Store(keep, "127.0.0.1"), OapSimHandsets::Updated);
  EXPECT_FALSE(handsets.Find(0x1a0000)->wiped);
  EXPECT_EQ(handsets.Find(0x1a0000)->text, keep.text);

  // The 3.0 shape has no wipe marker: an update without options wipes them.
  OapSimDocument::Request bare = keep;
  bare.options.clear();
  EXPECT_EQ(handsets.Store(bare, "127.0.0.1"), OapSimHandsets::Updated);
  EXPECT_TRUE(handsets.Find(0x1a0000)->wiped);

  OapSimDocument::Request wipe = keep;
  wipe.options.clear();
  wipe.wipeOptions = true;
  wipe.text = "Bye";
  EXPECT_EQ(handsets.Store(wipe, "127.0.0.1"), OapSimHandsets::Updated);
  const OapSimHandsets::Message* message = handsets.Find(0x1a0000);
  EXPECT_TRUE(message->wiped);
  EXPECT_TRUE(message->options.empty());
  EXPECT_EQ(message->updates, 3);
  EXPECT_EQ(OapSimHandsets::DescribeUpdate(*message),
            "4.0 update of #1a0000 to 1234: options wiped, text now 'Bye'");
}

TEST(OapSimHandsetsTest, UpdateOfUnknownMessageChangesNothing) {
  OapSimHandsets handsets;
  handsets.Store(Interactive(0x1a, "1234"), "127.0.0.1");
  OapSimDocument::Request otherHandset = Interactive(0x1a, "9999");
  otherHandset.update = true;
  EXPECT_EQ(handsets.Store(otherHandset, "127.0.0.1"), OapSimHandsets::UnknownUpdate);
  OapSimDocument::Request unknown = Interactive(0x1b, "1234");
  unknown.update = true;
  EXPECT_EQ(handsets.Store(unknown, "127.0.0.1"), OapSimHandsets::UnknownUpdate);
  ASSERT_EQ(handsets.All().size(), 1u);
  EXPECT_EQ(handsets.All()[0]->handset, "1234");
}

TEST(OapSimHandsetsTest, ReusedTrackingNumberStartsAFreshMessage) {
  OapSimHandsets handsets;
  handsets.Store(Interactive(0x1a, "1234"), "127.0.0.1");
  handsets.MarkDelivered(0x1a);
  handsets.AddAnswer(0x1a, "N:Yes");
  EXPECT_EQ(handsets.Store(Interactive(0x1a, "1234"), "127.0.0.1"), OapSimHandsets::Reused);
  EXPECT_FALSE(handsets.Find(0x1a)->delivered);
  EXPECT_TRUE(handsets.Find(0x1a)->answers.empty());
}

TEST(OapSimHandsetsTest, DescriptionsShowCloseCallNumbersAndLineBreaks) {
  std::vector<OapSimDocument::Option> options = {DataOption(1, "Ring", "N:Ring")};
  options[0].callNo = "555";
  OapSimDocument::Option close;
  close.number = 2;
  close.kind = OapSimDocument::Option::Close;
  close.text = "Close";
  options.push_back(close);
  EXPECT_EQ(OapSimHandsets::DescribeOptions(options),
            "options [1:Ring->N:Ring call 555, 2:Close(closes)]");
  EXPECT_EQ(OapSimHandsets::DescribeOptions({}), "");
  EXPECT_EQ(OapSimHandsets::Quote("a\r\nb\tc\x01\rd"), "'a\\nb\\tc?\\rd'");
}

TEST(OapSimOptionsTest, ReadsTheCommandLine) {
  const std::vector<const char*> args = {"oapsim",
                                         "--listen",
                                         "127.0.0.1:0",
                                         "--status",
                                         "1:407",
                                         "--auto",
                                         "1234=deliver,option:2,text:see you",
                                         "--auto",
                                         "5678=option:1",
                                         "--silent"};
  OapSimOptions options;
  std::string error;
  ASSERT_TRUE(options.Parse(static_cast<int>(args.size()), args.data(), error)) << error;
  EXPECT_EQ(options.listenPort, 0);
  EXPECT_EQ(options.statusCode, 407);
  EXPECT_TRUE(options.silent);
  const auto& script = options.autoScripts["1234"];
  ASSERT_EQ(script.size(), 3u);
  EXPECT_EQ(script[0].kind, OapSimOptions::Action::Deliver);
  EXPECT_EQ(script[1].option, 2);
  EXPECT_EQ(script[2].words, "see you");
  EXPECT_EQ(options.autoScripts["5678"].size(), 1u);
}

TEST(OapSimOptionsTest, RefusesBadArguments) {
  const std::vector<std::vector<const char*>> bad = {
      {"oapsim", "--listen", "127.0.0.1"}, {"oapsim", "--listen", "127.0.0.1:70000"},
      {"oapsim", "--status", "200"},       {"oapsim", "--auto", "1234=jump"},
      {"oapsim", "--auto", "=deliver"},    {"oapsim", "--auto", "1234=option:0"},
      {"oapsim", "--auto-delay-ms", "-1"}, {"oapsim", "--exit-after-ms"},
      {"oapsim", "--frobnicate", "1"},
  };
  for (const auto& args : bad) {
    OapSimOptions options;
    std::string error;
    EXPECT_FALSE(options.Parse(static_cast<int>(args.size()), args.data(), error)) << args[1];
    EXPECT_FALSE(error.empty()) << args[1];
  }
}

}  // namespace
