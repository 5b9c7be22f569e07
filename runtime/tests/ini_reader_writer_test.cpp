#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
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
  std::string readFile(const std::string& path) const {
    std::ifstream in(path);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
  }
  std::string readFile() const { return readFile(m_path); }
  // Reads the file's text into a document and writes it straight back.
  std::string roundTrip(const std::string& text) const {
    writeFile(text);
    IniReaderWriter ini(m_path, true, false, false);
    EXPECT_TRUE(ini.isFileLoaded());
    EXPECT_TRUE(ini.write());
    return readFile();
  }

  std::string m_dir;
  std::string m_path;
};

TEST_F(IniTest, LookupsIgnoreLetterCase) {
  writeFile("[Main]\nLevel=Info\nWriter = File\n[Other]\nlevel=debug\n");
  IniReaderWriter ini(m_path.c_str(), true, false, false);
  ASSERT_TRUE(ini.isFileLoaded());
  EXPECT_TRUE(ini.isHeadPresent("[main]"));
  EXPECT_TRUE(ini.isHeadPresent("[OTHER]"));
  EXPECT_FALSE(ini.isHeadPresent("main"));
  EXPECT_EQ(ini.getKeyValue("[main]", "LEVEL"), "Info");
  EXPECT_EQ(ini.getKeyValue("[main]", std::string("writer")), "File");
  EXPECT_EQ(ini.getKeyValue("[other]", "level"), "debug");
  EXPECT_EQ(ini.getKeyValue("[missing]", "level"), "");
  EXPECT_TRUE(ini.isKeyPresent("[MAIN]", "level"));
  EXPECT_FALSE(ini.isKeyPresent("[main]", "absent"));
  EXPECT_TRUE(ini.isValuePresent("[main]", "level", "INFO"));
  EXPECT_FALSE(ini.isValuePresent("[main]", "level", "debug"));
  EXPECT_TRUE(ini.isValuePresentInSection("[main]", "file"));
  EXPECT_FALSE(ini.isValuePresentInSection("[main]", "debug"));
}

TEST_F(IniTest, ReadingKeepsOnlyMeaningfulLines) {
  writeFile("top=1\n  \n[s]\nkey =  \n= orphan\nflag\n# note = x\n  spaced  =  v w  \n");
  IniReaderWriter ini(m_path, true, false, false);
  EXPECT_EQ(ini.getKeyValue("", "top"), "");
  EXPECT_FALSE(ini.isKeyPresent("[s]", "key"));
  EXPECT_TRUE(ini.isKeyPresent("[s]", "flag"));
  EXPECT_EQ(ini.getKey("[s]", 0), "flag");
  EXPECT_EQ(ini.getKeyValue("[s]", 0), "");
  // Comments are not key lines.
  EXPECT_EQ(ini.getKey("[s]", 1), "spaced");
  EXPECT_EQ(ini.getKeyValue("[s]", 1), "v w");
  EXPECT_EQ(ini.getKey("[s]", 2), "");
  EXPECT_EQ(ini.getKeyValue("[s]", 2), "");
  EXPECT_EQ(ini.getKey("[s]", -1), "");
}

TEST_F(IniTest, WritingBackDropsBlankLinesAndSeparatesHeads) {
  EXPECT_EQ(roundTrip("a=1\n\n[s]\nb=2\n"), "a=1\n\n[s]\nb=2\n");
  EXPECT_EQ(roundTrip("  [x]  \n\n\n# c\nk = v \nflag\nempty=\n[y]\nz=9"),
            "\n[x]\n# c\nk=v\nflag=\n\n[y]\nz=9\n");
  EXPECT_EQ(roundTrip(""), "");
}

TEST_F(IniTest, OverlongLineIsCutIntoSeveralLines) {
  const std::string value(600, 'v');
  writeFile("[s]\nk=" + value + "\n");
  IniReaderWriter ini(m_path, true, false, false);
  // 511 characters per line: "k=" and 509 v's, then the rest as a key line.
  EXPECT_EQ(ini.getKeyValue("[s]", "k"), std::string(509, 'v'));
  EXPECT_EQ(ini.getKey("[s]", 1), std::string(91, 'v'));
}

TEST_F(IniTest, MissingHeadsAndKeysAreCreatedThroughSubscript) {
  writeFile("[a]\nx=1\n[b]\ny=2\n");
  IniReaderWriter ini(m_path, true, false, false);
  EXPECT_EQ(ini["[A]"]["X"], "1");
  std::string& created = ini["[a]"]["k"];
  EXPECT_EQ(created, "");
  ini["[new]"]["n"] = "5";
  ini.setKeyValue("[b]", "Y", "3");
  ini.setKeyValue("[b]", "z", "4");
  EXPECT_EQ(ini.getKeyValue("[new]", "n"), "5");
  ASSERT_TRUE(ini.write());
  EXPECT_EQ(readFile(), "\n[a]\nx=1\nk=\n\n[b]\ny=3\nz=4\n\n[new]\nn=5\n");
  EXPECT_THROW(ini["no brackets"], std::invalid_argument);
  EXPECT_THROW(ini["[a]"][""], std::invalid_argument);
}

TEST_F(IniTest, RemovalAndReset) {
  writeFile("[a]\nx=1\n[b]\ny=2\nw=3\n[c]\nz=4\n");
  IniReaderWriter ini(m_path, true, false, false);
  std::string& kept = ini["[c]"]["z"];
  EXPECT_TRUE(ini.removeKey("[b]", "W"));
  EXPECT_FALSE(ini.removeKey("[b]", "w"));
  EXPECT_TRUE(ini.removeHead("[b]"));
  // Without its head, y belongs to the section above.
  EXPECT_EQ(ini.getKeyValue("[a]", "y"), "2");
  EXPECT_FALSE(ini.isHeadPresent("[b]"));
  EXPECT_TRUE(ini.removeSection("[a]"));
  EXPECT_FALSE(ini.removeSection("[a]"));
  EXPECT_EQ(kept, "4");  // references survive removal of other nodes
  EXPECT_TRUE(ini.createNewHead("[d]", "k"));
  EXPECT_FALSE(ini.createNewHead("[D]", "j"));
  ASSERT_TRUE(ini.write());
  EXPECT_EQ(readFile(), "\n[c]\nz=4\n\n[d]\nk=\nj=\n");

  ini.reset();
  EXPECT_FALSE(ini.isFileLoaded());
  EXPECT_FALSE(ini.isHeadPresent("[c]"));
  ASSERT_TRUE(ini.read());
  EXPECT_TRUE(ini.isHeadPresent("[c]"));
  EXPECT_FALSE(ini.isKeyPresent("[d]", "k"));  // "k=" has no value: dropped
}

TEST_F(IniTest, FileFailuresReportFalse) {
  IniReaderWriter missing(m_dir + "/absent.ini", true, true, false);
  EXPECT_FALSE(missing.isFileLoaded());
  EXPECT_FALSE(missing.read());
  missing.setKeyValue("[s]", "k", "v");
  std::string badPath = m_dir + "/no/such/dir.ini";
  EXPECT_FALSE(missing.write(&badPath));

  std::string otherPath = m_dir + "/other.ini";
  EXPECT_TRUE(missing.write(&otherPath));
  EXPECT_EQ(readFile(otherPath), "\n[s]\nk=v\n");
}

TEST_F(IniTest, LockedFileRefusesNonWaitingReader) {
  writeFile("[s]\nk=v\n");
  QmIniReaderWriterEx holder(m_path, true, false);
  ASSERT_TRUE(holder.open(false));
  ASSERT_TRUE(holder.lock(false));

  IniReaderWriter reader(m_path, false, true, false);
  EXPECT_FALSE(reader.read());
  EXPECT_FALSE(reader.isFileLoaded());
  // Without lock-on-access the lock is not consulted.
  IniReaderWriter unlocked(m_path, true, false, false);
  EXPECT_EQ(unlocked.getKeyValue("[s]", "k"), "v");

  ASSERT_TRUE(holder.close());
  EXPECT_TRUE(reader.read());
  EXPECT_EQ(reader.getKeyValue("[s]", "k"), "v");
}

TEST_F(IniTest, ExtendedLockIsExclusiveOrShared) {
  writeFile("[s]\n");
  QmIniReaderWriterEx first(m_path, true, false);
  QmIniReaderWriterEx second(m_path, true, false);
  EXPECT_FALSE(first.lock(true));  // nothing open yet
  ASSERT_TRUE(first.open(false));
  ASSERT_TRUE(second.open(false));

  ASSERT_TRUE(first.lock(true));
  EXPECT_TRUE(first.islocked());
  EXPECT_TRUE(second.lock(true));
  EXPECT_TRUE(second.unlock());
  EXPECT_FALSE(second.islocked());
  EXPECT_FALSE(second.lock(false));

  EXPECT_TRUE(first.unlock());
  EXPECT_FALSE(first.unlock());
  ASSERT_TRUE(first.lock(false));
  EXPECT_FALSE(second.lock(true));
  EXPECT_FALSE(second.islocked());
  EXPECT_TRUE(first.close());
  EXPECT_FALSE(first.close());
  EXPECT_TRUE(second.lock(false));
}

TEST_F(IniTest, ExtendedRewritesOpenFileInPlace) {
  QmIniReaderWriterEx ini(m_path, true, true);
  EXPECT_FALSE(ini.open(false));  // "r+" needs an existing file
  ASSERT_TRUE(ini.open(true));
  ASSERT_TRUE(ini.lock(false));
  ASSERT_TRUE(ini.read());
  ini.setKeyValue("[main]", "first", std::string(200, 'x'));
  ini.setKeyValue("[main]", "second", "2");
  ASSERT_TRUE(ini.write());
  ASSERT_TRUE(ini.read());
  EXPECT_EQ(ini.getKeyValue("[main]", "second"), "2");

  // A shorter document leaves no trace of the longer one.
  ASSERT_TRUE(ini.removeKey("[main]", "first"));
  ASSERT_TRUE(ini.write());
  EXPECT_EQ(readFile(), "\n[main]\nsecond=2\n");

  const std::string copy = m_dir + "/copy.ini";
  EXPECT_TRUE(ini.write(copy));
  EXPECT_EQ(readFile(copy), "\n[main]\nsecond=2\n");
  ini.setKeyValue("[main]", "third", "3");
  EXPECT_TRUE(ini.write(m_path));  // own path: rewrites the open file under its lock
  EXPECT_EQ(readFile(), "\n[main]\nsecond=2\nthird=3\n");

  IniReaderWriter& base = ini;
  base.setKeyValue("[main]", "fourth", "4");
  EXPECT_TRUE(base.write());
  EXPECT_TRUE(base.read());
  EXPECT_EQ(ini.getKeyValue("[main]", "fourth"), "4");
  EXPECT_TRUE(ini.close());
  EXPECT_FALSE(ini.read());
  EXPECT_FALSE(ini.write());
}

// Each process repeatedly adds its own key under the held lock; none is lost.
TEST_F(IniTest, ConcurrentProcessesKeepEachOthersKeys) {
  writeFile("[main]\n");
  constexpr int kProcesses = 3;
  constexpr int kRounds = 40;
  pid_t children[kProcesses];
  for (int p = 0; p < kProcesses; ++p) {
    children[p] = fork();
    ASSERT_GE(children[p], 0);
    if (children[p] == 0) {
      int failures = 0;
      for (int round = 0; round < kRounds; ++round) {
        QmIniReaderWriterEx ini(m_path, true, true);
        if (!ini.open(false) || !ini.lock(false) || !ini.read()) {
          ++failures;
          continue;
        }
        ini.setKeyValue("[main]", "p" + std::to_string(p) + "_" + std::to_string(round), "v");
        if (!ini.write()) ++failures;
        ini.close();
      }
      _exit(failures == 0 ? 0 : 1);
    }
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  IniReaderWriter result(m_path, true, false, false);
  for (int p = 0; p < kProcesses; ++p) {
    for (int round = 0; round < kRounds; ++round) {
      EXPECT_EQ(result.getKeyValue("[main]", "P" + std::to_string(p) + "_" + std::to_string(round)),
                "v");
    }
  }
  EXPECT_EQ(result.getKey("[main]", kProcesses * kRounds), "");
}

}  // namespace
