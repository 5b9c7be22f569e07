#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "IniReaderWriter.h"
#include "QmIniReaderWriterEx.h"

namespace {

class IniTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/ini_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    m_dir = pattern;
    m_path = m_dir + "/test.ini";
  }
  void TearDown() override { std::system(("rm -rf '" + m_dir + "'").c_str()); }

  void writeFile(const std::string& text) const { std::ofstream(m_path) << text; }
  std::string readFile(const std::string& path = "") const {
    std::stringstream content;
    content << std::ifstream(path.empty() ? m_path : path).rdbuf();
    return content.str();
  }

  std::string m_dir;
  std::string m_path;
};

TEST_F(IniTest, ReadsCaseInsensitivelyAndKeepsOnlyMeaningfulLines) {
  writeFile(
      "top=1\n[Main]\nLevel=Info\nWriter = File\n[Other]\nlevel=debug\n  \n"
      "[s]\nkey =  \n= orphan\nflag\n# note = x\n  spaced  =  v w  \n");
  IniReaderWriter ini(m_path.c_str(), true, false, false);
  ASSERT_TRUE(ini.isFileLoaded());
  EXPECT_TRUE(ini.isHeadPresent("[OTHER]") && !ini.isHeadPresent("main"));
  EXPECT_EQ(ini.getKeyValue("[main]", "LEVEL"), "Info");
  EXPECT_EQ(ini.getKeyValue("[main]", std::string("writer")), "File");
  EXPECT_EQ(ini.getKeyValue("[other]", "level"), "debug");
  EXPECT_EQ(ini.getKeyValue("[missing]", "level") + ini.getKeyValue("", "top"), "");
  EXPECT_TRUE(ini.isKeyPresent("[MAIN]", "level") && !ini.isKeyPresent("[main]", "absent"));
  EXPECT_TRUE(ini.isValuePresent("[main]", "level", "INFO"));
  EXPECT_FALSE(ini.isValuePresent("[main]", "level", "debug"));
  EXPECT_TRUE(ini.isValuePresentInSection("[main]", "file"));
  EXPECT_FALSE(ini.isValuePresentInSection("[main]", "debug"));
  EXPECT_FALSE(ini.isKeyPresent("[s]", "key"));
  const char* keys[][2] = {{"flag", ""}, {"spaced", "v w"}, {"", ""}};  // comments are no keys
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(ini.getKey("[s]", i), keys[i][0]);
    EXPECT_EQ(ini.getKeyValue("[s]", i), keys[i][1]);
  }
  EXPECT_EQ(ini.getKey("[s]", -1), "");
}

TEST_F(IniTest, WritingBackNormalisesLinesAndCutsOverlongOnes) {
  const char* cases[][2] = {
      {"a=1\n\n[s]\nb=2\n", "a=1\n\n[s]\nb=2\n"},
      {"  [x]  \n\n\n# c\nk = v \nflag\nempty=\n[y]\nz=9", "\n[x]\n# c\nk=v\nflag=\n\n[y]\nz=9\n"},
      {"", ""},
  };
  for (const auto& c : cases) {
    writeFile(c[0]);
    IniReaderWriter ini(m_path, true, false, false);
    EXPECT_TRUE(ini.write());
    EXPECT_EQ(readFile(), c[1]);
  }
  writeFile("[s]\nk=" + std::string(600, 'v') + "\n");
  IniReaderWriter ini(m_path, true, false, false);
  // 511 characters per line: "k=" and 509 v's, then the rest as a key line.
  EXPECT_EQ(ini.getKeyValue("[s]", "k"), std::string(509, 'v'));
  EXPECT_EQ(ini.getKey("[s]", 1), std::string(91, 'v'));
}

TEST_F(IniTest, CreatesRemovesAndResets) {
  writeFile("[a]\nx=1\n[b]\ny=2\nw=3\n[c]\nz=4\n");
  IniReaderWriter ini(m_path, true, false, false);
  EXPECT_EQ(ini["[A]"]["X"], "1");
  EXPECT_EQ(ini["[a]"]["k"], "");
  ini["[new]"]["n"] = "5";
  ini.setKeyValue("[c]", "Z", "3");
  ini.setKeyValue("[c]", "v", "4");
  EXPECT_THROW(ini["no brackets"], std::invalid_argument);
  EXPECT_THROW(ini["[a]"][""], std::invalid_argument);
  std::string& kept = ini["[c]"]["z"];
  EXPECT_TRUE(ini.removeKey("[b]", "W"));
  EXPECT_FALSE(ini.removeKey("[b]", "w"));
  EXPECT_TRUE(ini.removeHead("[b]"));
  EXPECT_EQ(ini.getKeyValue("[a]", "y"), "2");  // without its head, y joins the section above
  EXPECT_TRUE(ini.removeSection("[a]"));
  EXPECT_FALSE(ini.removeSection("[a]"));
  EXPECT_EQ(kept, "3");  // references survive removal of other nodes
  EXPECT_TRUE(ini.createNewHead("[d]", "k"));
  EXPECT_FALSE(ini.createNewHead("[D]", "j"));
  ASSERT_TRUE(ini.write());
  EXPECT_EQ(readFile(), "\n[c]\nz=3\nv=4\n\n[new]\nn=5\n\n[d]\nk=\nj=\n");
  ini.reset();
  EXPECT_FALSE(ini.isFileLoaded() || ini.isHeadPresent("[c]"));
  ASSERT_TRUE(ini.read());
  EXPECT_FALSE(ini.isKeyPresent("[d]", "k"));  // "k=" has no value: dropped

  IniReaderWriter missing(m_dir + "/absent.ini", true, true, false);
  EXPECT_FALSE(missing.isFileLoaded() || missing.read());
  missing.setKeyValue("[s]", "k", "v");
  std::string badPath = m_dir + "/no/such/dir.ini", otherPath = m_dir + "/other.ini";
  EXPECT_FALSE(missing.write(&badPath));
  EXPECT_TRUE(missing.write(&otherPath));
  EXPECT_EQ(readFile(otherPath), "\n[s]\nk=v\n");
}

TEST_F(IniTest, LocksAreExclusiveOrSharedAndRespectedByReaders) {
  writeFile("[s]\nk=v\n");
  QmIniReaderWriterEx first(m_path, true, false), second(m_path, true, false);
  EXPECT_FALSE(first.lock(true));  // nothing open yet
  ASSERT_TRUE(first.open(false) && second.open(false));
  ASSERT_TRUE(first.lock(true));
  EXPECT_TRUE(second.lock(true));
  EXPECT_TRUE(second.unlock());
  EXPECT_FALSE(second.islocked());
  EXPECT_FALSE(second.lock(false));
  EXPECT_TRUE(first.unlock());
  EXPECT_FALSE(first.unlock());
  ASSERT_TRUE(first.lock(false));
  EXPECT_TRUE(first.islocked());
  EXPECT_FALSE(second.lock(true));

  IniReaderWriter reader(m_path, false, true, false);
  EXPECT_FALSE(reader.read() || reader.isFileLoaded());
  IniReaderWriter unlocked(m_path, true, false, false);  // the lock is not consulted
  EXPECT_EQ(unlocked.getKeyValue("[s]", "k"), "v");
  EXPECT_TRUE(first.close());
  EXPECT_FALSE(first.close());
  EXPECT_TRUE(reader.read());
  EXPECT_EQ(reader.getKeyValue("[s]", "k"), "v");
  EXPECT_TRUE(second.lock(false));
}

TEST_F(IniTest, ExtendedRewritesOpenFileInPlace) {
  QmIniReaderWriterEx ini(m_path, true, true);
  EXPECT_FALSE(ini.open(false));  // "r+" needs an existing file
  ASSERT_TRUE(ini.open(true) && ini.lock(false) && ini.read());
  ini.setKeyValue("[main]", "first", std::string(200, 'x'));
  ini.setKeyValue("[main]", "second", "2");
  ASSERT_TRUE(ini.write());
  ASSERT_TRUE(ini.removeKey("[main]", "first"));
  ASSERT_TRUE(ini.write());  // a shorter document leaves no trace of the longer one
  EXPECT_EQ(readFile(), "\n[main]\nsecond=2\n");
  EXPECT_TRUE(ini.write(m_dir + "/copy.ini"));
  EXPECT_EQ(readFile(m_dir + "/copy.ini"), "\n[main]\nsecond=2\n");
  ini.setKeyValue("[main]", "third", "3");
  EXPECT_TRUE(ini.write(m_path));  // own path: rewrites the open file under its lock
  EXPECT_EQ(readFile(), "\n[main]\nsecond=2\nthird=3\n");
  IniReaderWriter& base = ini;
  base.setKeyValue("[main]", "fourth", "4");
  EXPECT_TRUE(base.write() && base.read());
  EXPECT_EQ(ini.getKeyValue("[main]", "fourth"), "4");
  EXPECT_TRUE(ini.close());
  EXPECT_FALSE(ini.read() || ini.write());
}

// Each process repeatedly adds its own key under the held lock; none is lost.
TEST_F(IniTest, ConcurrentProcessesKeepEachOthersKeys) {
  writeFile("[main]\n");
  constexpr int kProcesses = 3, kRounds = 40;
  auto key = [](int p, int round) { return "p" + std::to_string(p) + "_" + std::to_string(round); };
  pid_t children[kProcesses];
  for (int p = 0; p < kProcesses; ++p) {
    children[p] = fork();
    ASSERT_GE(children[p], 0);
    if (children[p] == 0) {
      int failures = 0;
      for (int round = 0; round < kRounds; ++round) {
        QmIniReaderWriterEx ini(m_path, true, true);
        const bool ok = ini.open(false) && ini.lock(false) && ini.read();
        if (ok) ini.setKeyValue("[main]", key(p, round), "v");
        failures += ok && ini.write() ? 0 : 1;
      }
      _exit(failures == 0 ? 0 : 1);
    }
  }
  for (pid_t child : children) {
    int status = 0;
    EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFEXITED(status) &&
                WEXITSTATUS(status) == 0);
  }
  IniReaderWriter result(m_path, true, false, false);
  for (int i = 0; i < kProcesses * kRounds; ++i) {
    EXPECT_EQ(result.getKeyValue("[main]", key(i / kRounds, i % kRounds)), "v");
  }
  EXPECT_EQ(result.getKey("[main]", kProcesses * kRounds), "");
}

}  // namespace
