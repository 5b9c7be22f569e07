// The viewer's command line rules and its output escaping, in process.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "LogViewFormatter.h"
#include "LogViewOptions.h"

namespace {

class LogViewUtcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
};

bool ParseArgs(std::vector<const char*> args, LogViewOptions& options, std::string& error) {
  args.insert(args.begin(), "qmlogview");
  return LogViewOptions::Parse(static_cast<int>(args.size()), args.data(), options, error);
}

TEST(LogViewOptionsTest, ReadsValuesInBothSpellingsAndRepeatsModules) {
  LogViewOptions options;
  std::string error;
  ASSERT_TRUE(ParseArgs({"--db", "x.db", "--module=a", "--module", "b", "--levels", "warn, 6,error",
                         "--page=3", "--page-size", "7", "--json", "--sort", "module,level"},
                        options, error))
      << error;
  EXPECT_EQ(options.dbPath, "x.db");
  EXPECT_EQ(options.modules, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(options.levels, (std::vector<int>{4, 6, 5}));
  EXPECT_EQ(options.page, 3);
  EXPECT_EQ(options.pageSize, 7);
  EXPECT_TRUE(options.json);
  EXPECT_TRUE(options.sortByModule && options.sortByLevel);
  EXPECT_FALSE(options.sortByTime);
}

TEST(LogViewOptionsTest, RefusesSingleQuotesInEverythingThatReachesSql) {
  for (const char* option : {"--message", "--date", "--module"}) {
    LogViewOptions options;
    std::string error;
    EXPECT_FALSE(ParseArgs({"--db", "x.db", option, "o'clock"}, options, error)) << option;
    EXPECT_NE(error.find("single quote"), std::string::npos) << error;
  }
}

TEST(LogViewOptionsTest, RefusesBadValuesAndCombinations) {
  const std::vector<std::vector<const char*>> bad = {
      {"--db", "x.db", "--level", "loud"},
      {"--db", "x.db", "--level", "8"},
      {"--db", "x.db", "--level", "0"},
      {"--db", "x.db", "--levels", "4,,5"},
      {"--db", "x.db", "--page", "0"},
      {"--db", "x.db", "--page-size", "-1"},
      {"--db", "x.db", "--page", "2x"},
      {"--db", "x.db", "--sort", "size"},
      {"--db", "x.db", "--since", "yesterday"},
      {"--db", "x.db", "--bogus"},
      {"--db", "x.db", "--page"},
      {"--db", "x.db", "--json=1"},
      {},
      {"--db", "x.db", "--config", "dir"},
      {"--db", "x.db", "--logger", "l"},
      {"--db", "x.db", "--level", "4", "--levels", "5"},
      {"--db", "x.db", "--follow", "--list-modules"},
  };
  for (const auto& args : bad) {
    LogViewOptions options;
    std::string error;
    EXPECT_FALSE(ParseArgs(args, options, error)) << (args.size() > 2 ? args[2] : "(none)");
    EXPECT_FALSE(error.empty());
  }
}

// Numbers outside 1..7 and unknown words are no level; names follow the
// logging configuration's spellings.
TEST(LogViewOptionsTest, LevelsByNumberOrName) {
  EXPECT_EQ(LogViewOptions::ParseLevel("7"), 7);
  EXPECT_EQ(LogViewOptions::ParseLevel("Information"), 3);
  EXPECT_EQ(LogViewOptions::ParseLevel("criti"), 6);
  EXPECT_EQ(LogViewOptions::ParseLevel("verbose"), 0);
  EXPECT_EQ(LogViewOptions::ParseLevel("0"), 0);
  EXPECT_EQ(LogViewOptions::ParseLevel("12"), 0);
}
TEST_F(LogViewUtcTest, TimesAsLocalDateTimeDateOrEpochSeconds) {
  EXPECT_EQ(LogViewOptions::ParseTime("1700000000"), 1700000000L);
  EXPECT_EQ(LogViewOptions::ParseTime("2023-11-14 22:13:20"), 1700000000L);
  EXPECT_EQ(LogViewOptions::ParseTime("2023-11-14"), 1699920000L);
  EXPECT_EQ(LogViewOptions::ParseTime("1970-01-01 00:00:00"), 0L);
  EXPECT_EQ(LogViewOptions::ParseTime("2023-02-30 00:00:00"), -1);
  EXPECT_EQ(LogViewOptions::ParseTime("2023-11-14 25:00:00"), -1);
  EXPECT_EQ(LogViewOptions::ParseTime("2023-11-14 22:13"), -1);
  EXPECT_EQ(LogViewOptions::ParseTime("2023-11-14 22:13:20 junk"), -1);
  EXPECT_EQ(LogViewOptions::ParseTime("-5"), -1);
  EXPECT_EQ(LogViewOptions::ParseTime("99999999999"), -1);
}

TEST(LogViewFormatterTest, JsonEscapingKeepsUtf8AndReadsOtherBytesAsLatin1) {
  EXPECT_EQ(LogViewFormatter::JsonEscape("a\"b\\c/d"), "a\\\"b\\\\c/d");
  EXPECT_EQ(LogViewFormatter::JsonEscape("l1\nl2\r\t\b\f"), "l1\\nl2\\r\\t\\b\\f");
  EXPECT_EQ(LogViewFormatter::JsonEscape(std::string("\x01\x1f\x7f", 3)), "\\u0001\\u001f\\u007f");
  EXPECT_EQ(LogViewFormatter::JsonEscape(std::string("nul\0x", 5)), "nul\\u0000x");
  EXPECT_EQ(LogViewFormatter::JsonEscape("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\x9f"),
            "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\x9f");
  EXPECT_EQ(LogViewFormatter::JsonEscape("caf\xe9"), "caf\\u00e9");
  // Over-long form, lone continuation byte, truncated sequence, surrogate.
  EXPECT_EQ(LogViewFormatter::JsonEscape("\xc0\xaf"), "\\u00c0\\u00af");
  EXPECT_EQ(LogViewFormatter::JsonEscape("\x80z"), "\\u0080z");
  EXPECT_EQ(LogViewFormatter::JsonEscape("\xe2\x82"), "\\u00e2\\u0082");
  EXPECT_EQ(LogViewFormatter::JsonEscape("\xed\xa0\x80"), "\\u00ed\\u00a0\\u0080");
}

TEST_F(LogViewUtcTest, RowsAreAlignedAndStayOnOneLine) {
  QmLogDBProcessorInterface::LogEntry entry;
  entry.time = 1700000000;
  entry.module = "agent";
  entry.level = 6;
  entry.message = "tab\there\n\x01";
  entry.line = 42;
  entry.srcfile = "src/a.cpp";
  EXPECT_EQ(LogViewFormatter::LevelName(0), "NONE");
  EXPECT_EQ(LogViewFormatter::LevelName(9), "9");
  LogViewFormatter table(false, 8);
  EXPECT_EQ(table.Header(), "TIME                 MODULE    LEVEL     MESSAGE");
  EXPECT_EQ(table.Format(entry), "2023-11-14 22:13:20  agent     CRITICAL  tab\\there\\n\\x01");
}

}  // namespace
