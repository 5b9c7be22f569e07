// The viewer's command line rules and its output escaping, in process.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
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

bool ParseArgs(std::vector<std::string> args, LogViewOptions& options, std::string& error) {
  args.insert(args.begin(), "qmlogview");
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  return LogViewOptions::Parse(static_cast<int>(argv.size()), argv.data(), options, error);
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
  EXPECT_TRUE(options.json && options.sortByModule && options.sortByLevel);
  EXPECT_FALSE(options.sortByTime);
}

TEST(LogViewOptionsTest, RefusesBadValuesCombinationsAndQuotesThatWouldReachSql) {
  for (const char* line :
       {"--level loud", "--level 8", "--level 0", "--levels 4,,5", "--page 0", "--page-size -1",
        "--page 2x", "--sort size", "--since yesterday", "--bogus", "--page", "--json=1",
        "--config dir", "--logger l", "--level 4 --levels 5", "--follow --list-modules",
        "--message o'clock", "--date o'clock", "--module o'clock"}) {
    std::istringstream words(std::string("--db x.db ") + line);
    std::vector<std::string> args;
    for (std::string word; words >> word;) args.push_back(word);
    LogViewOptions options;
    std::string error;
    EXPECT_FALSE(ParseArgs(args, options, error)) << line;
    EXPECT_FALSE(error.empty()) << line;
    EXPECT_TRUE(args.back() != "o'clock" || error.find("single quote") != std::string::npos)
        << error;
  }
  LogViewOptions options;
  std::string error;
  EXPECT_FALSE(ParseArgs({}, options, error));
  EXPECT_FALSE(error.empty());
}

// Numbers outside 1..7 and unknown words are no level; names follow the
// logging configuration's spellings.
TEST_F(LogViewUtcTest, LevelsAndTimesAsTheyMayBeWritten) {
  const std::vector<std::pair<const char*, int>> levels{
      {"7", 7}, {"Information", 3}, {"criti", 6}, {"verbose", 0}, {"0", 0}, {"12", 0}};
  for (const auto& c : levels) EXPECT_EQ(LogViewOptions::ParseLevel(c.first), c.second) << c.first;
  // Local date and time (UTC here), a date, or epoch seconds; -1 for none.
  const std::vector<std::pair<const char*, long>> times{{"1700000000", 1700000000L},
                                                        {"2023-11-14 22:13:20", 1700000000L},
                                                        {"2023-11-14", 1699920000L},
                                                        {"1970-01-01 00:00:00", 0L}};
  for (const auto& c : times) EXPECT_EQ(LogViewOptions::ParseTime(c.first), c.second) << c.first;
  for (const char* bad : {"2023-02-30 00:00:00", "2023-11-14 25:00:00", "2023-11-14 22:13",
                          "2023-11-14 22:13:20 junk", "-5", "99999999999"}) {
    EXPECT_EQ(LogViewOptions::ParseTime(bad), -1) << bad;
  }
}

TEST(LogViewFormatterTest, JsonEscapingKeepsUtf8AndReadsOtherBytesAsLatin1) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"a\"b\\c/d", "a\\\"b\\\\c/d"},
      {"l1\nl2\r\t\b\f", "l1\\nl2\\r\\t\\b\\f"},
      {std::string("\x01\x1f\x7f", 3), "\\u0001\\u001f\\u007f"},
      {std::string("nul\0x", 5), "nul\\u0000x"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\x9f", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\x9f"},
      {"caf\xe9", "caf\\u00e9"},
      // Over-long form, lone continuation byte, truncated sequence, surrogate.
      {"\xc0\xaf", "\\u00c0\\u00af"},
      {"\x80z", "\\u0080z"},
      {"\xe2\x82", "\\u00e2\\u0082"},
      {"\xed\xa0\x80", "\\u00ed\\u00a0\\u0080"},
  };
  for (const auto& c : cases) EXPECT_EQ(LogViewFormatter::JsonEscape(c.first), c.second);
}

TEST_F(LogViewUtcTest, RowsAreAlignedAndStayOnOneLine) {
  QmLogDBProcessorInterface::LogEntry entry;
  entry.time = 1700000000;
  entry.module = "agent";
  entry.level = 6;
  entry.message = "tab\there\n\x01";
  EXPECT_EQ(LogViewFormatter::LevelName(0), "NONE");
  EXPECT_EQ(LogViewFormatter::LevelName(9), "9");
  LogViewFormatter table(false, 8);
  EXPECT_EQ(table.Header(), "TIME                 MODULE    LEVEL     MESSAGE");
  EXPECT_EQ(table.Format(entry), "2023-11-14 22:13:20  agent     CRITICAL  tab\\there\\n\\x01");
}

}  // namespace
