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
#include "QmconException.h"
#include "QmioException.h"
#include "QmioFile.h"

namespace {

TEST(ExceptionTest, ToStringFormats) {
  struct Case {
    std::string got, want;
  };
  const QmioException io("10.0.0.1:7000", "QmioSocket", 3, "Socket Connecting Failed", "refused");
  const Case cases[] = {
      {QmException("QmioSocket", 12, "Socket is closed", "Success").ToString(),
       "Exception raised! File[QmioSocket] Line[12] Msg[Socket is closed] SysMsg[Success]"},
      {io.ToString(),
       "Exception raised! IO path[10.0.0.1:7000] File[QmioSocket] Line[3] "
       "Msg[Socket Connecting Failed] SysMsg[refused]"},
      {QmconException(42, "../src/QmconEvent", 7, "Lock failed", "Invalid argument").ToString(),
       "Exception raised! ThreadID[42] File[../src/QmconEvent] Line[7] Msg[Lock failed] "
       "SysMsg[Invalid argument]"},
      {io.GetPath(), "10.0.0.1:7000"},
      {io.what(), "Socket Connecting Failed"},
      {QmconException(1, "Thread Pool Is Stopping").GetFile(), ""},
      {QmconException(1, "Thread Pool Is Stopping").GetMsg(), "Thread Pool Is Stopping"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, c.want);
}

TEST(StringHelpersTest, TextConversions) {
  const unsigned char raw[] = {'O', 'K', '\r', '\n', 0x00, 0xE9, '\\'};
  struct Case {
    std::string got, want;
  };
  const Case cases[] = {
      {QmstringReplaceColon("Yes%3aNo%3AMaybe"), "Yes:No:Maybe"},
      {QmstringReplaceColon("a%3ab%3Bc%3ad"), "a:b%3Bc%3ad"},  // stops at another escape
      {QmstringReplaceColon("ends%3"), "ends%3"},
      {QmstringTrim(" \t a b \r\n"), "a b"},
      {QmstringTrim("   "), ""},
      {QmstringReplaceAll("a b c", " ", "_"), "a_b_c"},
      {QmstringFormat("%s-%05d", "x", 42), "x-00042"},
      {QmstringSafeByteString(raw, sizeof(raw)), "OK\\r\\n\\x00\\xE9\\\\"},
      {QmAny(4294967295ul).asString(), "4294967295"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, c.want);
  EXPECT_EQ(QmstringFormat("%s", std::string(5000, 'z').c_str()).size(), 5000u);
  EXPECT_TRUE(QmstringEqualsNoCase("[Main]", "[main]"));
  EXPECT_FALSE(QmstringEqualsNoCase("main", "mains"));
}

TEST(StringHelpersTest, NumberReading) {
  struct Case {
    unsigned got, want;
  };
  const Case cases[] = {
      {QmHexStrToUInt("1a"), 26u},
      {QmHexStrToUInt("2B"), 43u},
      {QmHexStrToUInt("ff zz"), 255u},
      {QmHexStrToUInt("zz"), 0u},
      {QmHexStrToUInt(""), 0u},
      {QmHexStrToUInt("123456789"), 0xFFFFFFFFu},
      {QmAny("4294967295").asUInt(), 4294967295u},
      {QmAny("junk").asUInt(), 0u},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, c.want);
  EXPECT_EQ(QmAny(std::string("-12")).asInt(), -12);
}

TEST(QmioFileTest, WriteTruncateLockAndMissingPath) {
  char dir[] = "/tmp/qmfileXXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string path = std::string(dir) + "/f.txt";
  {
    QmioFile file(path);
    file.Open("w+");
    file.Write("hello world");
    file.Truncate(0);
    file.Write("bye");
    file.Lock("w", false);
    ASSERT_TRUE(file.IsLocked());
    const pid_t child = fork();
    if (child == 0) {
      // Only async-signal-safe calls in the child of a threaded process.
      const int fd = open(path.c_str(), O_RDONLY);
      _exit(flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    file.Unlock();
    EXPECT_FALSE(file.IsLocked());
    file.Close();
  }
  QmioFile reader(path);
  reader.Open("r");
  char buffer[16] = {0};
  EXPECT_EQ(std::fread(buffer, 1, sizeof(buffer) - 1, reader.GetStream()), 3u);
  EXPECT_STREQ(buffer, "bye");
  reader.Close();
  QmioFile missing(std::string(dir) + "/missing/x");
  try {
    missing.Open("r");
    ADD_FAILURE() << "no exception";
  } catch (const QmioException& e) {
    EXPECT_EQ(e.GetPath(), std::string(dir) + "/missing/x");
  }
  std::system(("rm -rf " + std::string(dir)).c_str());
}

}  // namespace
