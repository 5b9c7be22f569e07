// INI documents: reading, writing back, editing, locks and concurrent writers.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <stdexcept>

#include "IniReaderWriter.h"
#include "QmIniReaderWriterEx.h"
#include "log_test_util.h"

namespace {

class IniTest : public ::testing::Test {
 protected:
  std::string path(const std::string& name = "test.ini") const { return m_dir.file(name); }
  LogTempDir m_dir;
};

TEST_F(IniTest, ReadsCaseInsensitivelyAndKeepsOnlyMeaningfulLines) {
  LogWriteFile(path(),
               "top=1\n[Main]\nLevel=Info\nWriter = File\n[Other]\nlevel=debug\n  \n"
               "[s]\nkey =  \n= orphan\nflag\n# note = x\n  spaced  =  v w  \n");
  IniReaderWriter ini(path().c_str(), true, false, false);
  ASSERT_TRUE(ini.isFileLoaded());
  EXPECT_EQ(ini.getKeyValue("[main]", "LEVEL") + "," +
                ini.getKeyValue("[main]", std::string("writer")) + "," +
                ini.getKeyValue("[other]", "level"),
            "Info,File,debug");
  EXPECT_EQ(ini.getKeyValue("[missing]", "level") + ini.getKeyValue("", "top"), "");
  EXPECT_TRUE(ini.isHeadPresent("[OTHER]") && ini.isKeyPresent("[s]", "FLAG"));
  EXPECT_FALSE(ini.isHeadPresent("main") || ini.isKeyPresent("[s]", "key"));
  // Comments are no keys, "key =  " was dropped, "flag" has an empty value.
  auto line = [&](int i) { return ini.getKey("[s]", i) + "=" + ini.getKeyValue("[s]", i); };
  EXPECT_EQ(line(0) + "," + line(1) + "," + line(2) + "," + line(-1), "flag=,spaced=v w,=,=");
}

// Whatever comes before it, a well-formed section after it is read.
TEST_F(IniTest, StrayBytesBeforeASectionDoNotSpoilIt) {
  for (const char* text :
       {"[", "[]=", "=\n[a", "]#;\r\xff\t", "[open\nk", "\xff\xfe[x]z=", "a=b=c\r"}) {
    LogWriteFile(path(), std::string(text) + "\n[known]\nkey=value\n");
    IniReaderWriter ini(path(), true, false, false);
    EXPECT_TRUE(ini.isFileLoaded() && ini.getKeyValue("[known]", "key") == "value") << text;
  }
}

TEST_F(IniTest, WritingBackNormalisesLinesOfAnyLength) {
  const char* cases[][2] = {
      {"a=1\n\n[s]\nb=2\n", "a=1\n\n[s]\nb=2\n"},
      {"  [x]  \n\n\n# c\nk = v \nflag\nempty=\n[y]\nz=9", "\n[x]\n# c\nk=v\nflag=\n\n[y]\nz=9\n"},
      {"", ""}};
  for (const auto& c : cases) {
    LogWriteFile(path(), c[0]);
    EXPECT_TRUE(IniReaderWriter(path(), true, false, false).write());
    EXPECT_EQ(LogReadFile(path()), c[1]);
  }
  const std::string value(100000, 'v');
  LogWriteFile(path(), "[s]\nk=" + value + "\nnext=1");
  IniReaderWriter ini(path(), true, false, false);
  EXPECT_EQ(ini.getKeyValue("[s]", "k"), value);
  EXPECT_EQ(ini.getKey("[s]", 1) + ini.getKey("[s]", 2), "next");
}

TEST_F(IniTest, CreatesAndRemoves) {
  LogWriteFile(path(), "[a]\nx=1\n[b]\ny=2\nw=3\n[c]\nz=4\n");
  IniReaderWriter ini(path(), true, false, false);
  EXPECT_EQ(ini["[A]"]["X"] + "|" + ini["[a]"]["k"], "1|");
  ini["[new]"]["n"] = "5";
  ini.setKeyValue("[c]", "Z", "3");
  ini.setKeyValue("[c]", "v", "4");
  EXPECT_THROW(ini["no brackets"], std::invalid_argument);
  EXPECT_THROW(ini["[a]"][""], std::invalid_argument);
  std::string& kept = ini["[c]"]["z"];
  EXPECT_TRUE(ini.removeKey("[b]", "W") && !ini.removeKey("[b]", "w"));
  IniReaderWriter::Node& headA = ini["[a]"];
  EXPECT_TRUE(ini.removeSection("[a]") && !ini.removeSection("[a]"));
  EXPECT_THROW(headA["x"], std::logic_error);  // a removed head holds no keys
  EXPECT_EQ(kept, "3");                        // references survive removal of other nodes
  ASSERT_TRUE(ini.write());
  EXPECT_EQ(LogReadFile(path()), "\n[b]\ny=2\n\n[c]\nz=3\nv=4\n\n[new]\nn=5\n");

  IniReaderWriter missing(path("absent.ini"), true, true, false);
  EXPECT_FALSE(missing.isFileLoaded() || missing.read());
  missing.setKeyValue("[s]", "k", "v");
  std::string badPath = path("no/such/dir.ini");
  EXPECT_FALSE(missing.write(&badPath));
}

TEST_F(IniTest, LocksAreExclusiveOrSharedAndRespectedByReaders) {
  LogWriteFile(path(), "[s]\nk=v\n");
  QmIniReaderWriterEx first(path(), true, false), second(path(), true, false);
  EXPECT_FALSE(first.lock(true));  // nothing open yet
  ASSERT_TRUE(first.open(false) && second.open(false));
  errno = EINTR;  // left by an earlier call: it does not make a lock that was taken go on
  ASSERT_TRUE(first.lock(true));
  EXPECT_TRUE(second.lock(true) && second.unlock() && !second.lock(false));  // shared coexist
  EXPECT_TRUE(first.unlock() && !first.unlock() && first.lock(false) && !second.lock(true));

  // A plain reader does not consult the lock.
  EXPECT_EQ(IniReaderWriter(path(), true, false, false).getKeyValue("[s]", "k"), "v");
  EXPECT_TRUE(first.close() && !first.close() && second.lock(false));
}

TEST_F(IniTest, ExtendedRewritesOpenFileInPlace) {
  QmIniReaderWriterEx ini(path(), true, true);
  EXPECT_FALSE(ini.open(false));  // "r+" needs an existing file
  ASSERT_TRUE(ini.open(true) && ini.lock(false) && ini.read() && ini.isFileLoaded());
  ini.setKeyValue("[main]", "first", std::string(200, 'x'));
  ini.setKeyValue("[main]", "second", "2");
  ASSERT_TRUE(ini.write() && ini.removeKey("[main]", "first") && ini.write());
  EXPECT_EQ(LogReadFile(path()), "\n[main]\nsecond=2\n");  // no trace of the longer text
  EXPECT_TRUE(ini.write(path("copy.ini")) && LogReadFile(path("copy.ini")) == LogReadFile(path()));
  EXPECT_TRUE(ini.close());
  EXPECT_FALSE(ini.read() || ini.write());
}

// Each process repeatedly adds its own key under the held lock; none is lost.
TEST_F(IniTest, ConcurrentProcessesKeepEachOthersKeys) {
  LogWriteFile(path(), "[main]\n");
  constexpr int kProcesses = 3, kRounds = 40;
  auto key = [](int i) { return "p" + std::to_string(i / kRounds) + "_" + std::to_string(i); };
  pid_t children[kProcesses];
  for (int p = 0; p < kProcesses; ++p) {
    ASSERT_GE(children[p] = fork(), 0);
    if (children[p] != 0) continue;
    int failures = 0;
    for (int i = p * kRounds; i < (p + 1) * kRounds; ++i) {
      QmIniReaderWriterEx ini(path(), true, true);
      const bool ok = ini.open(false) && ini.lock(false) && ini.read();
      if (ok) ini.setKeyValue("[main]", key(i), "v");
      failures += ok && ini.write() ? 0 : 1;
    }
    _exit(failures == 0 ? 0 : 1);
  }
  int status = 0;
  for (pid_t child : children)
    EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFEXITED(status) && !WEXITSTATUS(status));
  IniReaderWriter result(path(), true, false, false);
  for (int i = 0; i < kProcesses * kRounds; ++i)
    EXPECT_EQ(result.getKeyValue("[main]", key(i)), "v");
  EXPECT_EQ(result.getKey("[main]", kProcesses * kRounds), "");
}

}  // namespace
