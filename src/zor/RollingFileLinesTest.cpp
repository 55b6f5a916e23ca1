// Zor::RollingFile as a file of lines: complete lines handed to the kernel
// on request, and a line torn by a crash ended before the next is appended.
#include <gtest/gtest.h>

#include <string>

#include "zor/RollingFile.h"
#include "zor/RollingFileTestSupport.h"

namespace rolling_file_test {
namespace {

int g_writes = 0;
int CountWrites(long, const void*, size_t, size_t*) {
  ++g_writes;
  return OSA_CALL_REAL;
}

class RollingFileLines : public RollingFile {
 protected:
  void SetUp() override {
    RollingFile::SetUp();
    g_writes = 0;
    overrides_.writeDescriptor = CountWrites;
    osSetOverrides(&overrides_);
  }
};

TEST_F(RollingFileLines, WriteOutHandsOverCompleteLinesAndKeepsAPartialOne) {
  const std::string name = path("lines.log");
  Zor::RollingFile file(name.c_str());
  ASSERT_EQ(6, file.Printf("first\n"));
  ASSERT_EQ(11, file.Printf("second\npart"));
  EXPECT_EQ("", read_file(name)) << "nothing before the write-out";
  file.WriteOut();
  EXPECT_EQ("first\nsecond\n", read_file(name));
  EXPECT_EQ(1, g_writes);
  file.WriteOut();
  EXPECT_EQ(1, g_writes) << "no complete line waits: no system call";
  ASSERT_EQ(4, file.Printf("ial\n"));
  file.WriteOut();
  EXPECT_EQ("first\nsecond\npartial\n", read_file(name));
  EXPECT_TRUE(file.HasUnflushedData()) << "written out, not yet synced";
}

TEST_F(RollingFileLines, WriteOutOfAClosedFileDoesNothing) {
  Zor::RollingFile file(path("never.log").c_str());
  file.WriteOut();
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(0, g_writes);
}

TEST_F(RollingFileLines, ALineTornByACrashIsEndedBeforeTheNextOne) {
  const std::string name = path("torn.log");
  write_file(name, "whole\ntorn li");
  Zor::RollingFile file(name.c_str());
  file.SetEndsTornLines(true);
  ASSERT_EQ(5, file.Printf("next\n"));
  EXPECT_EQ(19u, file.GetCurrentSize()) << "13 on disk, the line end, the new line";
  file.Close();
  EXPECT_EQ("whole\ntorn li\nnext\n", read_file(name));
  EXPECT_EQ(logged(), (Logged{opened(name, 13)}));
}

TEST_F(RollingFileLines, WholeFilesEmptyFilesAndOtherFilesAreLeftAsTheyAre) {
  write_file(path("whole.log"), "whole\n");
  write_file(path("empty.log"), "");
  write_file(path("plain.log"), "no line end");
  for (const char* name : {"whole.log", "empty.log"}) {
    Zor::RollingFile file(path(name).c_str());
    file.SetEndsTornLines(true);
    ASSERT_EQ(2, file.Printf("x\n"));
  }
  Zor::RollingFile plain(path("plain.log").c_str());  // not a file of lines
  ASSERT_EQ(2, plain.Printf("x\n"));
  plain.Close();
  EXPECT_EQ("whole\nx\n", read_file(path("whole.log")));
  EXPECT_EQ("x\n", read_file(path("empty.log")));
  EXPECT_EQ("no line endx\n", read_file(path("plain.log")));
}

}  // namespace
}  // namespace rolling_file_test
