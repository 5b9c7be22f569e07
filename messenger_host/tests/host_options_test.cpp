// The reference host program's command line.

#include <gtest/gtest.h>

#include <sstream>

#include "QmHostOptions.h"

namespace {

// The words of a command line; `job` adds one complete job after the base
// options, `base` the plug-in, work directory and listener port first.
std::vector<std::string> Words(const std::string& line, bool base = true, bool job = false) {
  std::istringstream in((base ? "--plugin /lib/p.so --workdir /tmp/w --listen-port 7100 " : "") +
                        std::string(job ? "--job a --handset 1 --server h:1 " : "") + line);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

TEST(HostOptions, FullCommandLine) {
  QmHostOptions options;
  std::string error;
  ASSERT_TRUE(QmHostOptions::Parse(
      Words("--poll-ms 50 --duration-ms 3000 --until-expected --listen-address 0.0.0.0 --job a "
            "--handset 4711 --server srv:7000 --version 4.0 --choice Yes --choice Stop:2 "
            "--choice Call%3aus:3:0815 --interactive --custom-label Other --ttl-minutes 5 "
            "--expect SENT,6,REPLIED_SPECIAL_A --job b --handset 1 --server h:1"),
      &options, &error))
      << error;
  EXPECT_EQ(options.plugin + "|" + options.workdir + "|" + options.listenPort + "|" +
                options.listenAddress + "|" + std::to_string(options.pollMs) + "|" +
                std::to_string(options.durationMs) + (options.untilExpected ? "|until" : ""),
            "/lib/p.so|/tmp/w|7100|0.0.0.0|50|3000|until");
  ASSERT_EQ(options.jobs.size(), 2u);
  const QmHostOptions::Job& a = options.jobs[0];
  std::string job = a.id + "|" + a.handset + "|" + a.serverHost + ":" +
                    std::to_string(a.serverPort) + "|" + a.version + "|" + a.customLabel + "|" +
                    std::to_string(a.ttlMinutes) + (a.interactive ? "|interactive" : "") +
                    (a.settingsPresent ? "|settings" : "") + "|";
  for (const QmResponseChoice& c : a.choices)
    job += c.Text + ":" + std::to_string(c.Kind) + ":" + c.Value + " ";
  EXPECT_EQ(job,
            "a|4711|srv:7000|4.0|Other|5|interactive|settings|Yes:0: Stop:2: Call%3aus:3:0815 ");
  EXPECT_EQ(a.expected, (std::set<int>{3, 6, 15}));
  const QmHostOptions::Job& b = options.jobs[1];
  EXPECT_TRUE(b.version == "3.0" && !b.settingsPresent && !b.interactive && b.expected.empty());
}

TEST(HostOptions, PresentationOptionsMarkSettingsPresent) {
  for (const char* option : {"--urgent", "--sticky", "--colour red", "--intensity high",
                             "--priority 2", "--repeat 3", "--repeat-interval 10"}) {
    QmHostOptions options;
    std::string error;
    ASSERT_TRUE(QmHostOptions::Parse(Words(option, true, true), &options, &error)) << error;
    EXPECT_TRUE(options.jobs[0].settingsPresent) << option;
  }
}

TEST(HostOptions, BadCommandLinesAreNamed) {
  struct Case {
    std::string line;
    bool base, job;
    std::string error;
  };
  const std::vector<Case> cases{
      {"", false, true, "missing --plugin"},
      {"", true, false, "no job given (use --job ID ...)"},
      {"--job a --server h:1", true, false, "job a needs --handset"},
      {"--job a --handset 1", true, false, "job a needs --server"},
      {"--job", true, false, "option --job needs a value"},
      {"--poll-ms fast", true, false, "invalid number for --poll-ms: 'fast'"},
      {"--poll-ms 0", true, false, "invalid number for --poll-ms: '0'"},
      {"--handset 1", true, false, "unknown option '--handset' before the first --job"},
      {"--bogus", true, true, "unknown option '--bogus'"},
      {"--job a --handset 1 --server nohost", true, false,
       "invalid --server 'nohost' (expected HOST:PORT)"},
      {"--job a --handset 1 --server h:99999", true, false,
       "invalid --server 'h:99999' (expected HOST:PORT)"},
      {"--choice Yes:x", true, true, "invalid choice kind in --choice 'Yes:x'"},
      {"--choice :1", true, true, "empty choice text in --choice ':1'"},
      {"--expect SENT,LOST", true, true, "unknown status 'LOST' in --expect"},
      {"--expect sent", true, true, "unknown status 'sent' in --expect"},
      {"--expect 7", true, true, "unknown status '7' in --expect"},
      {"--ttl-minutes -1", true, true, "invalid number for --ttl-minutes: '-1'"},
  };
  for (const Case& c : cases) {
    QmHostOptions options;
    std::string error;
    EXPECT_FALSE(QmHostOptions::Parse(Words(c.line, c.base, c.job), &options, &error)) << c.error;
    EXPECT_EQ(error, c.error);
  }
}

}  // namespace
