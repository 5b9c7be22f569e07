// The reference host program's command line.

#include <gtest/gtest.h>

#include <sstream>

#include "QmHostOptions.h"

namespace {

// The plug-in, work directory and listener port; one complete job.
const std::string kBase = "--plugin /lib/p.so --workdir /tmp/w --listen-port 7100 ";
const std::string kJob = "--job a --handset 1 --server h:1 ";

std::vector<std::string> Words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

TEST(HostOptions, FullCommandLineAndPresentationOptions) {
  QmHostOptions options;
  std::string error;
  ASSERT_TRUE(QmHostOptions::Parse(
      Words(kBase +
            "--poll-ms 50 --duration-ms 3000 --until-expected --listen-address 0.0.0.0 "
            "--state /tmp/s.db --job a "
            "--handset=4711 --server srv:7000 --oap-version 4.0 --choice Yes --choice Stop:2 "
            "--choice Call%3aus:3:0815 --interactive --custom-label Other --ttl-minutes 5 "
            "--expect SENT,6,REPLIED_SPECIAL_A --job b --handset 1 --server h:1"),
      &options, &error))
      << error;
  EXPECT_EQ(options.plugin + "|" + options.workdir + "|" + options.listenPort + "|" +
                options.listenAddress + "|" + std::to_string(options.pollMs) + "|" +
                std::to_string(options.durationMs) + (options.untilExpected ? "|until" : "") + "|" +
                options.statePath,
            "/lib/p.so|/tmp/w|7100|0.0.0.0|50|3000|until|/tmp/s.db");
  ASSERT_EQ(options.jobs.size(), 2u);
  const QmHostOptions::Job& a = options.jobs[0];
  std::string job = a.id + "|" + a.handset + "|" + a.serverHost + ":" +
                    std::to_string(a.serverPort) + "|" + a.oapVersion + "|" + a.customLabel + "|" +
                    std::to_string(a.ttlMinutes) + (a.interactive ? "|interactive" : "") +
                    (a.settingsPresent ? "|settings" : "") + "|";
  for (const QmResponseChoice& c : a.choices)
    job += c.Text + ":" + std::to_string(c.Kind) + ":" + c.Value + " ";
  EXPECT_EQ(job,
            "a|4711|srv:7000|4.0|Other|5|interactive|settings|Yes:0: Stop:2: Call%3aus:3:0815 ");
  EXPECT_EQ(a.expected, (std::set<int>{3, 6, 15}));
  // --help and --version need nothing else; the rest is not read.
  for (const char* line : {"-h --bogus", "--version", "--plugin p --version --bogus"}) {
    QmHostOptions asked;
    ASSERT_TRUE(QmHostOptions::Parse(Words(line), &asked, &error)) << line << ": " << error;
    EXPECT_TRUE(asked.help != asked.version) << line;
  }
}

TEST(HostOptions, BadCommandLinesAreNamed) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {kJob, "missing --plugin"},
      {kBase + "--job a --server h:1", "job a needs --handset"},
      {kBase + "--job", "option '--job' needs a value"},
      {kBase + "--poll-ms fast", "invalid number for --poll-ms: 'fast'"},
      {kBase + "--handset 1", "option '--handset' before the first --job"},
      {kBase + kJob + "--bogus=1", "unknown option '--bogus'"},
      {kBase + kJob + "--urgent=1", "option '--urgent' takes no value"},
      {kBase + kJob + "4711", "unexpected argument '4711'"},
      {kBase + kJob + "--version 4.0",
       "--version inside a job: the job's protocol version is --oap-version (for example "
       "--oap-version 4.0)"},
      {kBase + "--job a --handset 1 --server nohost",
       "invalid --server 'nohost' (expected HOST:PORT)"},
      {kBase + kJob + "--choice Yes:x", "invalid choice kind in --choice 'Yes:x'"},
      {kBase + kJob + "--choice :1", "empty choice text in --choice ':1'"},
      {kBase + kJob + "--expect SENT,LOST", "unknown status 'LOST' in --expect"},
  };
  for (const auto& c : cases) {
    QmHostOptions options;
    std::string error;
    EXPECT_FALSE(QmHostOptions::Parse(Words(c.first), &options, &error)) << c.second;
    EXPECT_EQ(error, c.second);
  }
}

}  // namespace
