// kestrin-seqcheck on crafted file sets: one defect of each kind, and the
// command's exit statuses.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "SeqCheck.h"

namespace {

using Problems = std::vector<std::string>;

constexpr char PATTERN[] = "\\{(client[0-9]+)\\} seq ([0-9]+)";

class SeqCheck : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kestrin-seqcheck-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir_ = pattern;
    std::string error;
    ASSERT_TRUE(checker_.SetPattern(PATTERN, &error)) << error;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  void Plain(const std::string& name, const std::string& text) const {
    std::ofstream(Path(name), std::ios::binary) << text;
  }
  void Zipped(const std::string& name, const std::string& text) const {
    gzFile file = gzopen(Path(name).c_str(), "wb");
    gzwrite(file, text.data(), static_cast<unsigned>(text.size()));
    gzclose(file);
  }
  // Lines "{clientC} seq N" for N from `first` to `last`.
  static std::string Lines(int client, int first, int last) {
    std::string text;
    for (int n = first; n <= last; ++n) {
      text += "2026-11-23T10:00:00.000 [INFO ] {client" + std::to_string(client) + "} seq " +
              std::to_string(n) + "\n";
    }
    return text;
  }

  std::string dir_;
  seqcheck::Checker checker_;
};

TEST_F(SeqCheck, AWholeSetOfPlainAndCompressedBackupsPasses) {
  Zipped("app.log.3.gz", Lines(1, 0, 9) + Lines(2, 0, 4));
  Zipped("app.log.2.gz", Lines(1, 10, 19));
  Plain("app.log.1", Lines(2, 5, 9) + Lines(1, 20, 29));
  Plain("app.log", Lines(1, 30, 31) + "a line of the daemon's own {Kestrin} (7051)\n");
  EXPECT_EQ(Problems{Path("app.log") + ":3: malformed line: a line of the daemon's own "
                                       "{Kestrin} (7051)"},
            checker_.Check(Path("app.log")));
  EXPECT_EQ(43u, checker_.Lines());
  EXPECT_EQ(2u, checker_.Sources());
  Plain("app.log", Lines(1, 30, 31));
  EXPECT_EQ(Problems{}, checker_.Check(Path("app.log")));
}

TEST_F(SeqCheck, GapsDuplicatesAndLinesOutOfOrderAreNamed) {
  Plain("app.log.1", Lines(1, 0, 3) + Lines(1, 6, 6));
  Plain("app.log", Lines(1, 6, 6) + Lines(1, 5, 5) + Lines(1, 7, 7));
  EXPECT_EQ((Problems{Path("app.log.1") + ":5: gap in client1: 6 follows 3 (2 missing)",
                      Path("app.log") + ":1: duplicate of client1 6",
                      Path("app.log") + ":2: out of order: client1 5 after 6"}),
            checker_.Check(Path("app.log")));
}

TEST_F(SeqCheck, BackupsTwiceEmptyMissingOrBrokenAreNamed) {
  Plain("app.log.5", Lines(1, 0, 0));
  Plain("app.log.4", "");
  Plain("app.log.2", Lines(1, 1, 1));
  Zipped("app.log.2.gz", Lines(1, 1, 1));
  Plain("app.log.1.gz", "not gzip at all");
  Plain("app.log", Lines(1, 2, 2));
  EXPECT_EQ((Problems{Path("app.log.4") + ": empty backup",
                      Path("app.log.3") + ": missing between the backups around it",
                      Path("app.log.2") + ": present both plain and compressed",
                      Path("app.log.1.gz") + ": not a valid gzip file"}),
            checker_.Check(Path("app.log")));
}

TEST_F(SeqCheck, MergedAndUnendedLinesAreNamed) {
  const std::string one = "2026-11-23T10:00:00.000 [INFO ] {client1} seq 0";
  const std::string two = "2026-11-23T10:00:00.000 [INFO ] {client1} seq 1";
  Plain("app.log.1", one + two + "\n" + "{client1} seq 2");
  Plain("app.log", Lines(1, 3, 3) + "{client1} seq 4");
  EXPECT_EQ((Problems{Path("app.log.1") + ":1: merged lines: " + one + two,
                      Path("app.log.1") + ":2: a backup that ends inside a line",
                      Path("app.log") + ":2: the last line has no line end"}),
            checker_.Check(Path("app.log")));
}

TEST_F(SeqCheck, APatternNeedsTwoGroups) {
  seqcheck::Checker checker;
  std::string error;
  EXPECT_FALSE(checker.SetPattern("seq ([0-9]+)", &error));
  EXPECT_EQ("the pattern needs two groups: the source, then the sequence number", error);
  EXPECT_FALSE(checker.SetPattern("seq ([0-9]+", &error));
  EXPECT_FALSE(error.empty());
}

int RunTool(const std::string& arguments) {
  const std::string tool = std::string(getenv("KESTRIN_BUILD_DIR")) + "/bin/kestrin-seqcheck";
  const int status = std::system((tool + " " + arguments + " >/dev/null 2>&1").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(SeqCheck, TheCommandExitsWithZeroOnlyWithoutProblems) {
  Plain("app.log", Lines(1, 0, 2));
  const std::string pattern = std::string("'") + PATTERN + "'";
  EXPECT_EQ(0, RunTool(Path("app.log") + " " + pattern));
  Plain("app.log", Lines(1, 0, 0) + Lines(1, 2, 2));
  EXPECT_EQ(1, RunTool(Path("app.log") + " " + pattern));
  EXPECT_EQ(2, RunTool(Path("app.log")));
  EXPECT_EQ(2, RunTool(Path("app.log") + " 'no groups'"));
  EXPECT_EQ(0, RunTool("--help"));
}

}  // namespace
