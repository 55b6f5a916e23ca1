// Zor::RollingFile: opening, size accounting, roll-over and backups,
// compression, flushing and the logger. Failure paths are in
// RollingFileFailureTest.cpp.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "zor/RollingFile.h"
#include "zor/RollingFileTestSupport.h"

namespace rolling_file_test {
namespace {

TEST_F(RollingFile, ConstructorDoesNotOpenTheFile) {
  Zor::RollingFile file(path("app.log").c_str());
  EXPECT_EQ(file.GetPathName(), path("app.log"));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(exists(path("app.log")));
  EXPECT_TRUE(recorder_.Entries().empty());
}

TEST_F(RollingFile, NullPathIsTakenAsEmpty) {
  Zor::RollingFile file(nullptr);
  EXPECT_EQ(file.GetPathName(), "");
  file.SetPathName(path("a.log").c_str());
  file.SetPathName(nullptr);
  EXPECT_EQ(file.GetPathName(), "");
}

TEST_F(RollingFile, FirstWriteOpensExistingFileForAppending) {
  write_file(path("app.log"), "old\n");
  Zor::RollingFile file(path("app.log").c_str());
  configure(file, 0, 3, false);
  EXPECT_EQ(file.Printf("new %d\n", 5), 6);
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(file.GetCurrentSize(), 10u);
  file.Close();
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(read_file(path("app.log")), "old\nnew 5\n");
  EXPECT_EQ(logged(), (Logged{opened(path("app.log"), 4)}));
}

TEST_F(RollingFile, SizeIsCountedAfterEachWrite) {
  Zor::RollingFile file(path("count.log").c_str());
  configure(file, 0, 1, false);
  EXPECT_EQ(file.Printf("%s", "12345"), 5);
  EXPECT_EQ(file.GetCurrentSize(), 5u);
  EXPECT_EQ(file.Printf("%d-%s\n", 42, "xyz"), 7);
  EXPECT_EQ(file.GetCurrentSize(), 12u);
  EXPECT_EQ(file.Printf("%s", ""), 0);
  EXPECT_EQ(file.GetCurrentSize(), 12u);
}

TEST_F(RollingFile, WriteAppendsTheBytesAsTheyAreAndCountsThem) {
  write_file(path("raw.log"), "old\n");
  Zor::RollingFile file(path("raw.log").c_str());
  configure(file, 0, 1, false);
  // No formatting: a '%' stays as it is, and only `length` bytes are taken.
  EXPECT_EQ(file.Write("100% done\nXYZ", 10), 10);
  EXPECT_EQ(file.GetCurrentSize(), 14u);
  EXPECT_TRUE(file.HasUnflushedData());
  EXPECT_EQ(file.Write("", 0), 0);
  EXPECT_EQ(file.GetCurrentSize(), 14u);
  file.Close();
  EXPECT_EQ(read_file(path("raw.log")), "old\n100% done\n");
  EXPECT_EQ(logged(), (Logged{opened(path("raw.log"), 4)}));
}

TEST_F(RollingFile, WriteRollsOverAtTheWriteThatReachesTheLimit) {
  Zor::RollingFile file(path("rawroll.log").c_str());
  configure(file, 10, 2, false);
  EXPECT_EQ(file.Write("12345", 5), 5);
  EXPECT_EQ(file.Write("6789", 4), 4);
  EXPECT_FALSE(exists(path("rawroll.log.1")));
  EXPECT_EQ(file.Write("0\n", 2), 2);  // 11 bytes: rolls over
  EXPECT_EQ(file.GetCurrentSize(), 0u);
  EXPECT_EQ(file.Write("next\n", 5), 5);
  file.Close();
  EXPECT_EQ(read_file(path("rawroll.log.1")), "1234567890\n");
  EXPECT_EQ(read_file(path("rawroll.log")), "next\n");
}

TEST_F(RollingFile, WriteToAPathThatCannotBeOpenedReturnsMinusOne) {
  Zor::RollingFile file(path("a//b.log").c_str());
  EXPECT_EQ(file.Write("x\n", 2), -1);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(file.HasUnflushedData());
}

// The stream keeps up to 16 KiB before it writes, so that a busy file makes
// few write calls; a flush (the daemon's tick) still puts everything on disk.
TEST_F(RollingFile, StreamBuffersSixteenKiBBeforeWriting) {
  Zor::RollingFile file(path("buffered.log").c_str());
  configure(file, 0, 1, false);
  const std::string chunk(1000, 'b');
  for (int i = 0; i < 16; ++i) ASSERT_EQ(file.Write(chunk.data(), chunk.size()), 1000);
  EXPECT_EQ(std::filesystem::file_size(path("buffered.log")), 0u);
  file.Flush();
  EXPECT_EQ(std::filesystem::file_size(path("buffered.log")), 16000u);
  // The buffer is kept for the stream opened after a close.
  file.Close();
  for (int i = 0; i < 16; ++i) ASSERT_EQ(file.Write(chunk.data(), chunk.size()), 1000);
  EXPECT_EQ(std::filesystem::file_size(path("buffered.log")), 16000u);
  ASSERT_EQ(file.Write(chunk.data(), chunk.size()), 1000);  // 17000 do not fit
  EXPECT_GT(std::filesystem::file_size(path("buffered.log")), 16000u);
  file.Close();
  EXPECT_EQ(std::filesystem::file_size(path("buffered.log")), 33000u);
}

TEST_F(RollingFile, ReopenedFileContinuesCountFromSizeOnDisk) {
  Zor::RollingFile file(path("again.log").c_str());
  configure(file, 0, 1, false);
  file.Printf("0123456789");
  file.Close();
  EXPECT_EQ(file.Printf("ab"), 2);
  EXPECT_EQ(file.GetCurrentSize(), 12u);
  EXPECT_EQ(logged(), (Logged{opened(path("again.log"), 0), opened(path("again.log"), 10)}));
}

TEST_F(RollingFile, MissingDirectoriesAreCreatedOneByOne) {
  std::filesystem::create_directory(path("a"));
  const std::string name = path("a/b/c/d/file.log");
  Zor::RollingFile file(name.c_str());
  EXPECT_EQ(file.Printf("line\n"), 5);
  file.Close();
  EXPECT_TRUE(std::filesystem::is_directory(path("a/b")));
  EXPECT_TRUE(std::filesystem::is_directory(path("a/b/c")));
  EXPECT_TRUE(std::filesystem::is_directory(path("a/b/c/d")));
  EXPECT_EQ(read_file(name), "line\n");
  EXPECT_EQ(logged(), (Logged{opened(name, 0)}));
}

TEST_F(RollingFile, CreatesDirectoriesOnRelativePath) {
  const std::string previous = std::filesystem::current_path().string();
  std::filesystem::current_path(dir_.Path());
  Zor::RollingFile file("rel/sub/file.log");
  EXPECT_EQ(file.Printf("x"), 1);
  file.Close();
  std::filesystem::current_path(previous);
  EXPECT_EQ(read_file(path("rel/sub/file.log")), "x");
}

TEST_F(RollingFile, MaxFileSizeZeroNeverRollsOver) {
  Zor::RollingFile file(path("unlimited.log").c_str());
  configure(file, 0, 3, false);
  const std::string line(99, 'x');
  for (int i = 0; i < 1000; ++i) file.Printf("%s\n", line.c_str());
  file.Close();
  EXPECT_EQ(file.GetCurrentSize(), 100000u);
  EXPECT_EQ(std::filesystem::file_size(path("unlimited.log")), 100000u);
  EXPECT_FALSE(exists(path("unlimited.log.1")));
  EXPECT_EQ(logged(), (Logged{opened(path("unlimited.log"), 0)}));
}

TEST_F(RollingFile, RollsOverAtTheWriteThatReachesTheLimit) {
  const std::string name = path("small.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 100, 2, false);
  const std::string line(29, 'a');
  for (int i = 0; i < 3; ++i) file.Printf("%s\n", line.c_str());
  EXPECT_EQ(file.GetCurrentSize(), 90u);
  EXPECT_FALSE(exists(name + ".1"));
  // 120 bytes: over the limit by the length of the last line, then rolled.
  file.Printf("%s\n", line.c_str());
  EXPECT_EQ(std::filesystem::file_size(name + ".1"), 120u);
  EXPECT_EQ(file.GetCurrentSize(), 0u);
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(std::filesystem::file_size(name), 0u);
  EXPECT_EQ(logged(), (Logged{opened(name, 0), rolled(name), opened(name, 0)}));
  file.Printf("next\n");
  file.Close();
  EXPECT_EQ(read_file(name), "next\n");
}

TEST_F(RollingFile, ReopenedFileOf5000BytesRollsAtWriteReaching6000) {
  const std::string name = path("reopened.log");
  write_file(name, std::string(5000, 'o'));
  Zor::RollingFile file(name.c_str());
  configure(file, 6000, 3, false);
  file.Printf("%s", std::string(500, 'p').c_str());
  file.Printf("%s", std::string(499, 'q').c_str());
  EXPECT_EQ(file.GetCurrentSize(), 5999u);
  EXPECT_FALSE(exists(name + ".1"));
  file.Printf("r");
  EXPECT_TRUE(exists(name + ".1"));
  EXPECT_EQ(std::filesystem::file_size(name + ".1"), 6000u);
  EXPECT_EQ(std::filesystem::file_size(name), 0u);
  EXPECT_EQ(file.GetCurrentSize(), 0u);
  EXPECT_EQ(logged(), (Logged{opened(name, 5000), rolled(name), opened(name, 0)}));
}

TEST_F(RollingFile, BackupCountZeroTruncatesAndKeepsNoBackup) {
  const std::string name = path("zero.log");
  // Leftovers from an earlier, larger count go as well.
  write_file(name + ".1", "one");
  write_file(name + ".2.gz", "two");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 0, false);
  file.Printf("content\n");
  file.RollOver();
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(std::filesystem::file_size(name), 0u);
  EXPECT_EQ(file.GetCurrentSize(), 0u);
  EXPECT_FALSE(exists(name + ".0"));
  EXPECT_FALSE(exists(name + ".1"));
  EXPECT_FALSE(exists(name + ".2.gz"));
  EXPECT_EQ(logged(), (Logged{opened(name, 0), deleted(name + ".1"), deleted(name + ".2.gz"),
                              opened(name, 0)}));
}

TEST_F(RollingFile, BackupCountZeroRollsOverBySizeIntoAnEmptyFile) {
  const std::string name = path("zero-size.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 10, 0, false);
  file.Printf("0123456789");
  EXPECT_EQ(std::filesystem::file_size(name), 0u);
  EXPECT_FALSE(exists(name + ".1"));
  file.Printf("abc");
  file.Close();
  EXPECT_EQ(read_file(name), "abc");
}

TEST_F(RollingFile, BackupCountThreeWithFiveOldBackupsDeletesAndRenumbers) {
  const std::string name = path("five.log");
  for (int n = 1; n <= 5; ++n)
    write_file(name + "." + std::to_string(n), "backup " + std::to_string(n));
  write_file(name, "current");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 3, false);
  file.RollOver();
  EXPECT_FALSE(exists(name + ".4"));
  EXPECT_FALSE(exists(name + ".5"));
  EXPECT_EQ(read_file(name + ".3"), "backup 2");
  EXPECT_EQ(read_file(name + ".2"), "backup 1");
  EXPECT_EQ(read_file(name + ".1"), "current");
  EXPECT_EQ(std::filesystem::file_size(name), 0u);
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(logged(), (Logged{deleted(name + ".4"), deleted(name + ".5"), deleted(name + ".3"),
                              rolled(name), opened(name, 0)}));
}

TEST_F(RollingFile, RollOverWithBackupsMissingOrCompressedInTheMiddle) {
  const std::string name = path("gaps.log");
  write_file(name + ".1", "plain one");
  write_file(name + ".2.gz", "zipped two");
  // .3 is missing.
  write_file(name + ".4", "plain four");
  write_file(name, "current");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 5, false);
  file.RollOver();
  EXPECT_EQ(read_file(name + ".1"), "current");
  EXPECT_EQ(read_file(name + ".2"), "plain one");
  EXPECT_FALSE(exists(name + ".2.gz"));
  EXPECT_EQ(read_file(name + ".3.gz"), "zipped two");
  EXPECT_FALSE(exists(name + ".3"));
  EXPECT_FALSE(exists(name + ".4"));
  EXPECT_EQ(read_file(name + ".5"), "plain four");
  EXPECT_EQ(logged(), (Logged{rolled(name), opened(name, 0)}));
}

TEST_F(RollingFile, OldestCompressedAndPlainBackupAreBothDeleted) {
  const std::string name = path("oldest.log");
  write_file(name + ".2.gz", "zipped two");
  write_file(name + ".2", "plain two");
  write_file(name + ".1", "one");
  write_file(name, "current");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 2, false);
  file.RollOver();
  EXPECT_EQ(read_file(name + ".2"), "one");
  EXPECT_FALSE(exists(name + ".2.gz"));
  EXPECT_EQ(read_file(name + ".1"), "current");
  EXPECT_EQ(logged(),
            (Logged{deleted(name + ".2.gz"), deleted(name + ".2"), rolled(name), opened(name, 0)}));
}

TEST_F(RollingFile, LeftoversBeyondTheCountStopAtTheFirstGap) {
  const std::string name = path("leftover.log");
  write_file(name + ".2", "two");
  write_file(name + ".3.gz", "three");
  write_file(name + ".5", "five");  // after the gap at .4: not reached
  write_file(name, "current");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 1, false);
  file.RollOver();
  EXPECT_FALSE(exists(name + ".2"));
  EXPECT_FALSE(exists(name + ".3.gz"));
  EXPECT_TRUE(exists(name + ".5"));
  EXPECT_EQ(read_file(name + ".1"), "current");
  EXPECT_EQ(logged(),
            (Logged{deleted(name + ".2"), deleted(name + ".3.gz"), rolled(name), opened(name, 0)}));
}

TEST_F(RollingFile, RollOverWithNothingToRollDoesNothing) {
  Zor::RollingFile file(path("absent.log").c_str());
  configure(file, 0, 3, false);
  file.RollOver();
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(exists(path("absent.log")));
  EXPECT_TRUE(recorder_.Entries().empty());
}

TEST_F(RollingFile, RollOverOfClosedExistingFileRollsIt) {
  const std::string name = path("closed.log");
  write_file(name, "from last run\n");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 2, false);
  file.RollOver();
  EXPECT_EQ(read_file(name + ".1"), "from last run\n");
  EXPECT_TRUE(file.IsOpen());
  file.Printf("fresh\n");
  file.Close();
  EXPECT_EQ(read_file(name), "fresh\n");
}

TEST_F(RollingFile, BackupNamesAppendNumberAndGz) {
  TestableRollingFile file("/var/log/system.log");
  EXPECT_EQ(file.nameOfUnzippedOldLog(1), "/var/log/system.log.1");
  EXPECT_EQ(file.nameOfZippedOldLog(1), "/var/log/system.log.1.gz");
  EXPECT_EQ(file.nameOfUnzippedOldLog(100), "/var/log/system.log.100");
  EXPECT_EQ(file.nameOfZippedOldLog(0), "/var/log/system.log.0.gz");
}


TEST_F(RollingFile, ZipBackupsCompressesTheNewBackupInTheBackground) {
  const std::string name = path("zipped.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 2, true);
  file.Printf("hello, gzip\n");
  file.RollOver();
  Zor::RollingFile::WaitForCompressions();
  EXPECT_TRUE(exists(name + ".1.gz"));
  EXPECT_FALSE(exists(name + ".1"));
  EXPECT_FALSE(exists(name + ".gz.tmp"));
  // A standard gzip file, as the gzip program reads it.
  ASSERT_EQ(std::system(("gzip -t " + name + ".1.gz").c_str()), 0);
  const std::string unpacked = path("unpacked");
  ASSERT_EQ(std::system(("gzip -dc " + name + ".1.gz > " + unpacked).c_str()), 0);
  EXPECT_EQ(read_file(unpacked), "hello, gzip\n");
  EXPECT_EQ(logged(), (Logged{opened(name, 0), rolled(name), opened(name, 0)}));

  // The next roll-over renumbers the compressed backup.
  file.Printf("second\n");
  file.RollOver();
  EXPECT_TRUE(exists(name + ".2.gz"));
  Zor::RollingFile::WaitForCompressions();
  EXPECT_TRUE(exists(name + ".1.gz"));
  EXPECT_FALSE(exists(name + ".1"));
}

TEST_F(RollingFile, FlushWritesBufferedDataToDisk) {
  const std::string name = path("flush.log");
  Zor::RollingFile file(name.c_str());
  file.Printf("abc");
  EXPECT_TRUE(file.HasUnflushedData());
  EXPECT_EQ(read_file(name), "");  // still in the stream's buffer
  file.Flush();
  EXPECT_FALSE(file.HasUnflushedData());
  EXPECT_EQ(read_file(name), "abc");
  EXPECT_TRUE(file.IsOpen());
}

TEST_F(RollingFile, CloseClearsUnflushedAndWritesTheBuffer) {
  const std::string name = path("close.log");
  Zor::RollingFile file(name.c_str());
  file.Printf("abc");
  file.Close();
  EXPECT_FALSE(file.HasUnflushedData());
  EXPECT_EQ(read_file(name), "abc");
}

TEST_F(RollingFile, DestructorClosesTheFile) {
  const std::string name = path("destroyed.log");
  {
    Zor::RollingFile file(name.c_str());
    file.Printf("kept");
  }
  EXPECT_EQ(read_file(name), "kept");
}

TEST_F(RollingFile, FlushWithoutOpenFileDoesNothing) {
  TestableRollingFile file(path("never.log").c_str());
  file.Flush();
  file.flushFile();
  EXPECT_FALSE(exists(path("never.log")));
  EXPECT_TRUE(recorder_.Entries().empty());
}

TEST_F(RollingFile, SetPathNameIsIgnoredWhileOpen) {
  Zor::RollingFile file(path("first.log").c_str());
  file.Printf("1");
  file.SetPathName(path("second.log").c_str());
  EXPECT_EQ(file.GetPathName(), path("first.log"));
  file.Printf("2");
  file.Close();
  file.SetPathName(path("second.log").c_str());
  EXPECT_EQ(file.GetPathName(), path("second.log"));
  file.Printf("3");
  file.Close();
  EXPECT_EQ(read_file(path("first.log")), "12");
  EXPECT_EQ(read_file(path("second.log")), "3");
}

TEST_F(RollingFile, SettingsFollowTheClassDefaultsUntilSet) {
  using MaxSize = Zor::DefaultableValue<long, Zor::RollingFile, 1>;
  using Backups = Zor::DefaultableValue<unsigned int, Zor::RollingFile, 2>;
  using Zip = Zor::DefaultableValue<bool, Zor::RollingFile, 3>;
  const long oldSize = MaxSize::GetDefault();
  const unsigned int oldBackups = Backups::GetDefault();
  const bool oldZip = Zip::GetDefault();
  MaxSize::SetDefault(10);
  Backups::SetDefault(1);
  Zip::SetDefault(false);

  const std::string name = path("defaults.log");
  Zor::RollingFile file(name.c_str());
  EXPECT_EQ(file.maxFileSize(), 10);
  EXPECT_EQ(file.backupCount(), 1u);
  EXPECT_FALSE(file.zipBackups());
  file.Printf("0123456789");  // reaches the default limit
  file.Printf("abcdefghij");
  EXPECT_EQ(read_file(name + ".1"), "abcdefghij");
  EXPECT_FALSE(exists(name + ".2"));  // the default count keeps one backup

  file.maxFileSize.Set(0);
  MaxSize::SetDefault(5);
  EXPECT_EQ(file.maxFileSize(), 0);  // its own value now

  MaxSize::SetDefault(oldSize);
  Backups::SetDefault(oldBackups);
  Zip::SetDefault(oldZip);
}

TEST_F(RollingFile, GetLoggerMgrIsOneHolderForAllFiles) {
  EXPECT_EQ(&Zor::RollingFile::GetLoggerMgr(), &Zor::RollingFile::GetLoggerMgr());
  EXPECT_EQ(Zor::RollingFile::GetLoggerMgr().GetLogger().Get(), &recorder_);
}

TEST_F(RollingFile, SetLoggerWithNilDiscardsMessages) {
  Zor::RollingFile::SetLogger(LoggerPtr());
  EXPECT_EQ(Zor::RollingFile::GetLoggerMgr().GetLogger().Get(), Zor::NullLogger::Instance());
  Zor::RollingFile file(path("quiet.log").c_str());
  file.Printf("x");
  Zor::RollingFile empty("");
  EXPECT_EQ(empty.Printf("x"), -1);
  EXPECT_TRUE(recorder_.Entries().empty());
}

// The daemon's own log is a RollingFile whose logger writes into it: each
// report is written into the file being reported on.
TEST_F(RollingFile, LoggerWritingIntoTheSameFileDoesNotRecurse) {
  const std::string name = path("own.log");
  const std::string openedLine = opened(name, 0).second + "\n";
  const std::string rolledLine = rolled(name).second + "\n";
  const std::string line = std::string(49, 'l') + "\n";
  const std::string lines = line + line + line + line;
  Zor::RollingFile file(name.c_str());
  // Reached by the fourth line, counting the report written before the first.
  configure(file, static_cast<long>(openedLine.size() + 3 * line.size() + 1), 2, false);
  recorder_.SetAfterEach(
      [&](const Zor::RecordingLogger::Entry& entry) { file.Printf("%s\n", entry.text.c_str()); });
  for (int i = 0; i < 4; ++i) file.Printf("%s", line.c_str());
  file.Close();
  // The first report opens the file and lands in it before the first line.
  // The fourth line crosses the limit; the roll-over report lands in the
  // backup, the reopening report in the new file, and neither starts a
  // second roll-over.
  EXPECT_EQ(read_file(name + ".1"), openedLine + lines + rolledLine);
  EXPECT_EQ(read_file(name), openedLine);
  EXPECT_FALSE(exists(name + ".2"));
  EXPECT_EQ(logged(), (Logged{opened(name, 0), rolled(name), opened(name, 0)}));
}

// The report of the opening lands in the file, which is already over its
// limit, and rolls it over before the first write: that write must go to the
// new stream, not the closed one.
TEST_F(RollingFile, RollOverDuringTheOpeningReportHandsOutTheNewStream) {
  const std::string name = path("over.log");
  write_file(name, std::string(300, 'e'));
  Zor::RollingFile file(name.c_str());
  configure(file, 200, 2, false);
  recorder_.SetAfterEach([&](const Zor::RecordingLogger::Entry& entry) {
    file.Printf("%s\n", entry.text.c_str());
  });
  EXPECT_EQ(file.Printf("user line\n"), 10);
  file.Close();
  EXPECT_EQ(read_file(name + ".1"), std::string(300, 'e') + opened(name, 300).second + "\n");
  EXPECT_EQ(read_file(name), "user line\n");
  // The roll-over ran inside the first report, so its own reports were dropped.
  EXPECT_EQ(logged(), (Logged{opened(name, 300)}));
}

TEST_F(RollingFile, RollOverCalledFromItsOwnReportIsIgnored) {
  const std::string name = path("nested.log");
  write_file(name, "current");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 3, false);
  int nestedCalls = 0;
  recorder_.SetAfterEach([&](const Zor::RecordingLogger::Entry&) {
    ++nestedCalls;
    file.RollOver();
  });
  file.RollOver();
  EXPECT_EQ(nestedCalls, 2);
  EXPECT_EQ(read_file(name + ".1"), "current");
  EXPECT_FALSE(exists(name + ".2"));
  EXPECT_EQ(logged(), (Logged{rolled(name), opened(name, 0)}));
}

}  // namespace
}  // namespace rolling_file_test
