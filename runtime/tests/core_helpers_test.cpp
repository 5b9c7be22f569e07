#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "QmAny.h"
#include "QmException.h"
#include "QmString.h"
#include "QmioException.h"
#include "QmioFile.h"

namespace {

TEST(ExceptionTest, ToStringFormats) {
  QmException plain("QmioSocket", 12, "Socket is closed", "Success");
  EXPECT_EQ(plain.ToString(),
            "Exception raised! File[QmioSocket] Line[12] Msg[Socket is closed] SysMsg[Success]");
  QmioException io("10.0.0.1:7000", "QmioSocket", 3, "Socket Connecting Failed", "refused");
  EXPECT_EQ(io.ToString(),
            "Exception raised! IO path[10.0.0.1:7000] File[QmioSocket] Line[3] "
            "Msg[Socket Connecting Failed] SysMsg[refused]");
  EXPECT_EQ(io.GetPath(), "10.0.0.1:7000");
  EXPECT_STREQ(io.what(), "Socket Connecting Failed");
}

TEST(StringHelpersTest, ReplaceColonStopsAtFirstOtherEscape) {
  EXPECT_EQ(QmstringReplaceColon("Yes%3aNo%3AMaybe"), "Yes:No:Maybe");
  EXPECT_EQ(QmstringReplaceColon("a%3ab%3Bc%3ad"), "a:b%3Bc%3ad");
  EXPECT_EQ(QmstringReplaceColon("ends%3"), "ends%3");
  EXPECT_EQ(QmstringReplaceColon("plain"), "plain");
}

TEST(StringHelpersTest, HexReadingAsAStream) {
  EXPECT_EQ(QmHexStrToUInt("1a"), 26u);
  EXPECT_EQ(QmHexStrToUInt("2B"), 43u);
  EXPECT_EQ(QmHexStrToUInt("ff zz"), 255u);
  EXPECT_EQ(QmHexStrToUInt("zz"), 0u);
  EXPECT_EQ(QmHexStrToUInt(""), 0u);
  EXPECT_EQ(QmHexStrToUInt("123456789"), 0xFFFFFFFFu);  // overflow saturates
}

TEST(StringHelpersTest, TrimCaseAndReplace) {
  EXPECT_EQ(QmstringTrim(" \t a b \r\n"), "a b");
  EXPECT_EQ(QmstringTrim("   "), "");
  EXPECT_TRUE(QmstringEqualsNoCase("[Main]", "[main]"));
  EXPECT_FALSE(QmstringEqualsNoCase("main", "mains"));
  EXPECT_EQ(QmstringReplaceAll("a b c", " ", "_"), "a_b_c");
  EXPECT_EQ(QmstringFormat("%s-%05d", "x", 42), "x-00042");
  EXPECT_EQ(QmstringFormat("%s", std::string(5000, 'z').c_str()).size(), 5000u);
}

TEST(StringHelpersTest, SafeByteStringKeepsTracesPrintable) {
  const unsigned char raw[] = {'O', 'K', '\r', '\n', 0x00, 0xE9, '\\'};
  EXPECT_EQ(QmstringSafeByteString(raw, sizeof(raw)), "OK\\r\\n\\x00\\xE9\\\\");
}

TEST(QmAnyTest, ConvertsBothWays) {
  EXPECT_EQ(QmAny(4294967295ul).asString(), "4294967295");
  EXPECT_EQ(QmAny("4294967295").asUInt(), 4294967295u);
  EXPECT_EQ(QmAny(std::string("-12")).asInt(), -12);
  EXPECT_EQ(QmAny("junk").asUInt(), 0u);
}

class QmioFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/qmfileXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_dir = dir;
    m_path = m_dir + "/f.txt";
  }
  void TearDown() override { std::system(("rm -rf " + m_dir).c_str()); }
  std::string m_dir, m_path;
};

TEST_F(QmioFileTest, WriteTruncateAndReadBack) {
  QmioFile file(m_path);
  file.Open("w+");
  file.Write("hello world");
  file.Truncate(0);
  file.Write("bye");
  file.Close();
  QmioFile reader(m_path);
  reader.Open("r");
  char buffer[16] = {0};
  ASSERT_EQ(std::fread(buffer, 1, sizeof(buffer) - 1, reader.GetStream()), 3u);
  EXPECT_STREQ(buffer, "bye");
}

TEST_F(QmioFileTest, MissingFileThrowsWithPath) {
  QmioFile file(m_dir + "/missing/x");
  try {
    file.Open("r");
    FAIL() << "no exception";
  } catch (const QmioException& e) {
    EXPECT_EQ(e.GetPath(), m_dir + "/missing/x");
  }
}

TEST_F(QmioFileTest, ExclusiveLockExcludesOtherProcesses) {
  QmioFile file(m_path);
  file.Open("w+");
  file.Lock("w", false);
  ASSERT_TRUE(file.IsLocked());
  const pid_t child = fork();
  if (child == 0) {
    // Only async-signal-safe calls in the child of a threaded process.
    const int fd = open(m_path.c_str(), O_RDONLY);
    const bool sharedRefused = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    _exit(sharedRefused ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  file.Unlock();
  EXPECT_FALSE(file.IsLocked());
}

}  // namespace
