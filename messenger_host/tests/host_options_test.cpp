#include <gtest/gtest.h>

#include "QmHostOptions.h"

namespace {

std::vector<std::string> Base() {
  return {"--plugin", "/lib/p.so", "--workdir", "/tmp/w", "--listen-port", "7100"};
}

std::vector<std::string> With(std::vector<std::string> args, const std::vector<std::string>& more) {
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

std::string ErrorOf(const std::vector<std::string>& args) {
  QmHostOptions options;
  std::string error;
  EXPECT_FALSE(QmHostOptions::Parse(args, &options, &error));
  return error;
}

TEST(HostOptions, FullCommandLine) {
  QmHostOptions options;
  std::string error;
  auto args = With(Base(), {"--poll-ms",
                            "50",
                            "--duration-ms",
                            "3000",
                            "--until-expected",
                            "--listen-address",
                            "0.0.0.0",
                            "--job",
                            "a",
                            "--handset",
                            "4711",
                            "--server",
                            "srv:7000",
                            "--version",
                            "4.0",
                            "--subject",
                            "S",
                            "--text",
                            "T",
                            "--choice",
                            "Yes",
                            "--choice",
                            "Stop:2",
                            "--choice",
                            "Call%3aus:3:0815",
                            "--interactive",
                            "--custom-label",
                            "Other",
                            "--ttl-minutes",
                            "5",
                            "--expect",
                            "SENT,6,REPLIED_SPECIAL_A",
                            "--job",
                            "b",
                            "--handset",
                            "1",
                            "--server",
                            "h:1"});
  ASSERT_TRUE(QmHostOptions::Parse(args, &options, &error)) << error;
  EXPECT_EQ(options.plugin, "/lib/p.so");
  EXPECT_EQ(options.workdir, "/tmp/w");
  EXPECT_EQ(options.listenPort, "7100");
  EXPECT_EQ(options.listenAddress, "0.0.0.0");
  EXPECT_EQ(options.pollMs, 50);
  EXPECT_EQ(options.durationMs, 3000);
  EXPECT_TRUE(options.untilExpected);
  ASSERT_EQ(options.jobs.size(), 2u);
  const QmHostOptions::Job& a = options.jobs[0];
  EXPECT_EQ(a.id, "a");
  EXPECT_EQ(a.handset, "4711");
  EXPECT_EQ(a.serverHost, "srv");
  EXPECT_EQ(a.serverPort, 7000);
  EXPECT_EQ(a.version, "4.0");
  EXPECT_TRUE(a.interactive);
  EXPECT_TRUE(a.settingsPresent);
  EXPECT_EQ(a.ttlMinutes, 5);
  EXPECT_EQ(a.customLabel, "Other");
  ASSERT_EQ(a.choices.size(), 3u);
  EXPECT_EQ(a.choices[0].Text, "Yes");
  EXPECT_EQ(a.choices[0].Kind, 0u);
  EXPECT_EQ(a.choices[1].Kind, 2u);
  EXPECT_EQ(a.choices[2].Text, "Call%3aus");
  EXPECT_EQ(a.choices[2].Kind, 3u);
  EXPECT_EQ(a.choices[2].Value, "0815");
  EXPECT_EQ(a.expected, (std::set<int>{3, 6, 15}));
  const QmHostOptions::Job& b = options.jobs[1];
  EXPECT_EQ(b.version, "3.0");
  EXPECT_FALSE(b.settingsPresent);
  EXPECT_FALSE(b.interactive);
  EXPECT_TRUE(b.expected.empty());
}

TEST(HostOptions, PresentationOptionsMarkSettingsPresent) {
  for (std::vector<std::string> option : {std::vector<std::string>{"--urgent"},
                                          {"--sticky"},
                                          {"--colour", "red"},
                                          {"--intensity", "high"},
                                          {"--priority", "2"},
                                          {"--repeat", "3"},
                                          {"--repeat-interval", "10"}}) {
    QmHostOptions options;
    std::string error;
    auto args = With(With(Base(), {"--job", "a", "--handset", "1", "--server", "h:1"}), option);
    ASSERT_TRUE(QmHostOptions::Parse(args, &options, &error)) << error;
    EXPECT_TRUE(options.jobs[0].settingsPresent) << option[0];
  }
}

TEST(HostOptions, HelpNeedsNothingElse) {
  QmHostOptions options;
  std::string error;
  EXPECT_TRUE(QmHostOptions::Parse({"--help"}, &options, &error));
  EXPECT_TRUE(options.help);
  EXPECT_NE(QmHostOptions::Usage().find("--until-expected"), std::string::npos);
}

TEST(HostOptions, BadCommandLinesAreNamed) {
  const auto job = std::vector<std::string>{"--job", "a", "--handset", "1", "--server", "h:1"};
  EXPECT_EQ(ErrorOf(job), "missing --plugin");
  EXPECT_EQ(ErrorOf(Base()), "no job given (use --job ID ...)");
  EXPECT_EQ(ErrorOf(With(Base(), {"--job", "a", "--server", "h:1"})), "job a needs --handset");
  EXPECT_EQ(ErrorOf(With(Base(), {"--job", "a", "--handset", "1"})), "job a needs --server");
  EXPECT_EQ(ErrorOf(With(Base(), {"--job"})), "option --job needs a value");
  EXPECT_EQ(ErrorOf(With(Base(), {"--poll-ms", "fast"})), "invalid number for --poll-ms: 'fast'");
  EXPECT_EQ(ErrorOf(With(Base(), {"--poll-ms", "0"})), "invalid number for --poll-ms: '0'");
  EXPECT_EQ(ErrorOf(With(Base(), {"--handset", "1"})),
            "unknown option '--handset' before the first --job");
  EXPECT_EQ(ErrorOf(With(Base(), With(job, {"--bogus"}))), "unknown option '--bogus'");
  EXPECT_EQ(ErrorOf(With(Base(), {"--job", "a", "--handset", "1", "--server", "nohost"})),
            "invalid --server 'nohost' (expected HOST:PORT)");
  EXPECT_EQ(ErrorOf(With(Base(), {"--job", "a", "--handset", "1", "--server", "h:99999"})),
            "invalid --server 'h:99999' (expected HOST:PORT)");
  EXPECT_EQ(ErrorOf(With(Base(), With(job, {"--choice", "Yes:x"}))),
            "invalid choice kind in --choice 'Yes:x'");
  EXPECT_EQ(ErrorOf(With(Base(), With(job, {"--choice", ":1"}))),
            "empty choice text in --choice ':1'");
  EXPECT_EQ(ErrorOf(With(Base(), With(job, {"--expect", "SENT,LOST"}))),
            "unknown status 'LOST' in --expect");
  EXPECT_EQ(ErrorOf(With(Base(), With(job, {"--ttl-minutes", "-1"}))),
            "invalid number for --ttl-minutes: '-1'");
}

TEST(HostOptions, StatusNamesAndNumbers) {
  const std::vector<std::pair<int, std::string>> table{
      {2, "SENDING"},           {3, "SENT"},      {4, "REPLIED"},
      {5, "REPLIED_WITH"},      {6, "DELIVERED"}, {15, "REPLIED_SPECIAL_A"},
      {16, "REPLIED_SPECIAL_B"}};
  for (const auto& entry : table) {
    EXPECT_EQ(QmHostOptions::StatusName(entry.first), entry.second);
    int status = -1;
    EXPECT_TRUE(QmHostOptions::ParseStatus(entry.second, &status));
    EXPECT_EQ(status, entry.first);
    status = -1;
    EXPECT_TRUE(QmHostOptions::ParseStatus(std::to_string(entry.first), &status));
    EXPECT_EQ(status, entry.first);
  }
  int status = 0;
  EXPECT_FALSE(QmHostOptions::ParseStatus("7", &status));
  EXPECT_FALSE(QmHostOptions::ParseStatus("sent", &status));
  EXPECT_EQ(QmHostOptions::StatusName(7), "UNKNOWN");
}

}  // namespace
