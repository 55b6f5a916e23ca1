// Zor::RollingFile failure paths: refused paths, unopenable files and the
// open rate limit and backups that are directories are provoked for real; full and read-only disks and
// failing syncs are injected through the platform layer's overrides.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "zor/RollingFile.h"
#include "zor/RollingFileTestSupport.h"

namespace rolling_file_test {
namespace {

// Results the platform layer gives for the rolling file's descriptors while
// a test wants a disk to be full or read-only; OSA_CALL_REAL otherwise.
int g_openResult = OSA_CALL_REAL;
int g_writeResult = OSA_CALL_REAL;
int g_syncResult = OSA_CALL_REAL;
int g_makeDirResult = OSA_CALL_REAL;

int InjectedOpen(const char*, const char*, const char*, long*) { return g_openResult; }
int InjectedWrite(long, const void*, size_t, size_t* written) {
  if (g_writeResult != OSA_CALL_REAL && written != nullptr) *written = 0;
  return g_writeResult;
}
int InjectedSync(long) { return g_syncResult; }
int InjectedMakeDir(const char*, const char*) { return g_makeDirResult; }

constexpr int DISK_FULL = OS_ERROR_NO_SPACE | (ENOSPC << 16);
constexpr int READ_ONLY = OS_ERROR_ACCESS_DENIED | (EROFS << 16);

// The rolling-file fixture with the descriptor calls routed through the
// injected results above (the clock override stays).
class InjectedRollingFile : public RollingFile {
 protected:
  void SetUp() override {
    RollingFile::SetUp();
    g_openResult = g_writeResult = g_syncResult = g_makeDirResult = OSA_CALL_REAL;
    overrides_.openDescriptor = InjectedOpen;
    overrides_.writeDescriptor = InjectedWrite;
    overrides_.syncDescriptor = InjectedSync;
    overrides_.makeDir = InjectedMakeDir;
    osSetOverrides(&overrides_);
  }
};

std::pair<int, std::string> error(const std::string& text) { return {1, "RollingFile: " + text}; }

std::pair<int, std::string> skipped(const std::string& file) {
  return {4, "RollingFile: Skipped opening of file " + file + " because of earlier error."};
}

TEST_F(RollingFile, EmptyPathIsNeverOpened) {
  Zor::RollingFile file("");
  EXPECT_EQ(file.Printf("x"), -1);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(logged(), (Logged{error("Error: Attempt to open file with empty pathname")}));
}

TEST_F(RollingFile, PathContainingDoubleSlashIsNeverOpened) {
  const std::string name = dir_.Path() + "/sub//file.log";
  Zor::RollingFile file(name.c_str());
  EXPECT_EQ(file.Printf("x"), -1);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(exists(path("sub")));
  EXPECT_FALSE(exists(path("sub/file.log")));
  EXPECT_EQ(logged(), (Logged{error("Error: Attempt to open file with \"//\" in pathname")}));
  advanceClock(10000);
  EXPECT_EQ(file.Printf("x"), -1);
  EXPECT_FALSE(exists(path("sub")));
}

TEST_F(RollingFile, TwoWritesWithinRateLimitAfterFailedOpenGiveOneNoticeAndOneSilentSkip) {
  write_file(path("plain"), "a regular file, not a directory");
  const std::string name = path("plain/app.log");
  Zor::RollingFile file(name.c_str());
  EXPECT_EQ(file.Printf("first"), -1);
  EXPECT_EQ(logged(), (Logged{error("Error 20 trying to open file " + name)}));
  advanceClock(1);
  EXPECT_EQ(file.Printf("second"), -1);
  advanceClock(5000);
  EXPECT_EQ(file.Printf("third"), -1);
  EXPECT_EQ(logged(), (Logged{error("Error 20 trying to open file " + name), skipped(name)}));
}

TEST_F(RollingFile, FailedOpenIsRetriedOnlyAfterTenThousandClockUnits) {
  write_file(path("plain"), "x");
  const std::string name = path("plain/app.log");
  Zor::RollingFile file(name.c_str());
  file.Printf("fails");
  advanceClock(9999);
  file.Printf("skipped with a notice");
  EXPECT_EQ(logged(), (Logged{error("Error 20 trying to open file " + name), skipped(name)}));
  advanceClock(1);  // 10000 since the failed attempt
  file.Printf("tried again");
  file.Printf("skipped with a new notice");
  EXPECT_EQ(logged(), (Logged{error("Error 20 trying to open file " + name), skipped(name),
                              error("Error 20 trying to open file " + name), skipped(name)}));
}

TEST_F(RollingFile, RateLimitHoldsAcrossClockWrapAround) {
  fake_clock() = 0xFFFFFF00UL;
  write_file(path("plain"), "x");
  const std::string name = path("plain/app.log");
  Zor::RollingFile file(name.c_str());
  file.Printf("fails");
  advanceClock(0x200);  // the 32-bit clock has wrapped to 0x100
  file.Printf("skipped");
  EXPECT_EQ(logged(), (Logged{error("Error 20 trying to open file " + name), skipped(name)}));
  advanceClock(10000 - 0x200);
  file.Printf("tried again");
  EXPECT_EQ(logged().size(), 3u);
  EXPECT_EQ(logged().back(), error("Error 20 trying to open file " + name));
}

TEST_F(RollingFile, NewPathNameLiftsTheRateLimit) {
  write_file(path("plain"), "x");
  const std::string bad = path("plain/app.log");
  const std::string good = path("good.log");
  Zor::RollingFile file(bad.c_str());
  file.Printf("fails");
  file.SetPathName(bad.c_str());  // the same name keeps the limit
  file.Printf("skipped");
  file.SetPathName(good.c_str());
  EXPECT_EQ(file.Printf("opened at once"), 14);
  EXPECT_EQ(logged(),
            (Logged{error("Error 20 trying to open file " + bad), skipped(bad), opened(good, 0)}));
}

TEST_F(InjectedRollingFile, ReadOnlyDiskGivesOpenErrorAndRateLimitedSkipNotice) {
  g_openResult = READ_ONLY;
  const std::string name = path("app.log");
  Zor::RollingFile file(name.c_str());
  EXPECT_EQ(file.Printf("x"), -1);
  advanceClock(100);
  EXPECT_EQ(file.Printf("x"), -1);
  EXPECT_EQ(file.Printf("x"), -1);
  EXPECT_EQ(logged(), (Logged{error("Error 30 trying to open file " + name), skipped(name)}));
  EXPECT_FALSE(exists(name));
}

TEST_F(InjectedRollingFile, DirectoryThatCannotBeCreatedIsReported) {
  g_makeDirResult = OS_ERROR_ACCESS_DENIED;
  std::filesystem::create_directory(path("ro"));
  const std::string name = path("ro/sub/app.log");
  Zor::RollingFile file(name.c_str());
  EXPECT_EQ(file.Printf("x"), -1);
  EXPECT_EQ(logged(), (Logged{error("OSA error 5 trying to create directory " + path("ro/sub")),
                              error("Error 2 trying to open file " + name)}));
  EXPECT_FALSE(exists(path("ro/sub")));
}

TEST_F(RollingFile, DirectoryBehindDanglingLinkCannotBeCreated) {
  std::filesystem::create_symlink(path("nowhere"), path("link"));
  const std::string name = path("link/sub/app.log");
  Zor::RollingFile file(name.c_str());
  EXPECT_EQ(file.Printf("x"), -1);
  EXPECT_EQ(logged(), (Logged{error("OSA error 6 trying to create directory " + path("link")),
                              error("Error 2 trying to open file " + name)}));
  EXPECT_FALSE(exists(path("nowhere")));
}

TEST_F(RollingFile, OpeningADirectoryIsRefused) {
  std::filesystem::create_directory(path("adir"));
  TestableRollingFile file(path("adir").c_str());
  EXPECT_FALSE(file.openFile("r"));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(logged(), (Logged{error("Error: Attempt to open directory " + path("adir") +
                                    "; only files may be opened")}));
  // A failed check counts as a failed open: the next attempt is rate-limited.
  EXPECT_FALSE(file.openFile("r"));
  EXPECT_EQ(logged().back(), skipped(path("adir")));
}

TEST_F(RollingFile, WritingToADirectoryPathFailsToOpen) {
  std::filesystem::create_directory(path("adir"));
  Zor::RollingFile file(path("adir").c_str());
  EXPECT_EQ(file.Printf("x"), -1);
  EXPECT_EQ(logged(), (Logged{error("Error 21 trying to open file " + path("adir"))}));
}

TEST_F(InjectedRollingFile, WriteFailureIsReportedOnceClosesAndRecovers) {
  const std::string name = path("app.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 1, false);
  g_writeResult = DISK_FULL;
  // Longer than the buffer, so the write itself has to reach the disk.
  const std::string big(20000, 'b');
  EXPECT_LT(file.Printf("%s", big.c_str()), 0);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(file.HasUnflushedData());
  EXPECT_EQ(logged(), (Logged{opened(name, 0), error("Error 28 trying to write to file " + name)}));

  g_writeResult = OSA_CALL_REAL;
  // The open itself succeeded before, so the next write reopens at once.
  EXPECT_EQ(file.Printf("back\n"), 5);
  file.Close();
  EXPECT_EQ(read_file(name), "back\n");
  EXPECT_EQ(logged().size(), 3u);
  EXPECT_EQ(logged().back(), opened(name, 0));
}

TEST_F(InjectedRollingFile, LinesThatCannotBeWrittenAreCountedUntilAWriteWorksAgain) {
  const std::string name = path("full.log");
  Zor::RollingFile file(name.c_str());
  EXPECT_EQ(file.GetLoss().lines, 0u);
  file.Printf("kept\n");
  file.WriteOut();
  g_writeResult = DISK_FULL;
  file.Printf("one\n");
  file.Write("two\nthree\n", 10);
  file.WriteOut();  // fails: the three buffered lines are dropped
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(file.GetLoss().lines, 3u);
  EXPECT_EQ(file.GetLoss().error, ENOSPC);
  EXPECT_FALSE(file.GetLoss().over);
  const long began = file.GetLoss().beganAt;
  EXPECT_GT(began, 0);
  file.Printf("four\n");
  file.Flush();  // reopens, fails again
  EXPECT_EQ(file.GetLoss().lines, 4u);
  file.ForgetLoss();  // a loss going on is kept
  EXPECT_EQ(file.GetLoss().lines, 4u);

  g_writeResult = OSA_CALL_REAL;
  file.Printf("five\n");
  EXPECT_FALSE(file.GetLoss().over);  // only buffered so far
  file.WriteOut();
  EXPECT_TRUE(file.GetLoss().over);
  EXPECT_EQ(file.GetLoss().lines, 4u);
  EXPECT_EQ(file.GetLoss().beganAt, began);
  EXPECT_GE(file.GetLoss().endedAt, began);
  file.ForgetLoss();
  EXPECT_EQ(file.GetLoss().lines, 0u);
  EXPECT_FALSE(file.GetLoss().over);
  EXPECT_EQ(read_file(name), "kept\nfive\n");
}

// Stores the first g_partialBytes bytes for real, then reports a full disk.
size_t g_partialBytes = 0;
int PartialWrite(long fd, const void* data, size_t length, size_t* written) {
  const size_t stored = std::min(length, g_partialBytes);
  const ssize_t count = write(static_cast<int>(fd), data, stored);
  if (written != nullptr) *written = count < 0 ? 0 : static_cast<size_t>(count);
  return DISK_FULL;
}

TEST_F(InjectedRollingFile, AWriteCutShortLeavesNoTornLine) {
  const std::string name = path("partial.log");
  Zor::RollingFile file(name.c_str());
  file.Printf("kept\n");
  file.WriteOut();
  file.Printf("one\ntwo\nthree\n");
  g_partialBytes = 6;  // "one\ntw"
  overrides_.writeDescriptor = PartialWrite;
  file.WriteOut();
  overrides_.writeDescriptor = InjectedWrite;
  EXPECT_EQ(read_file(name), "kept\none\n");  // the torn "tw" is cut off again
  EXPECT_EQ(file.GetLoss().lines, 2u);
  file.Printf("four\n");
  file.WriteOut();
  EXPECT_EQ(read_file(name), "kept\none\nfour\n");
}

TEST_F(InjectedRollingFile, LinesRefusedBecauseNoFileOpensAreCounted) {
  const std::string name = path("readonly.log");
  Zor::RollingFile file(name.c_str());
  g_openResult = READ_ONLY;
  EXPECT_EQ(file.Write("a\nb\n", 4), -1);
  EXPECT_EQ(file.Printf("c\n"), -1);  // within the open rate limit: skipped
  EXPECT_EQ(file.GetLoss().lines, 3u);
  EXPECT_EQ(file.GetLoss().error, EROFS);
  EXPECT_EQ(file.Write("no line end", 11), -1);  // no line: nothing counted
  EXPECT_EQ(file.GetLoss().lines, 3u);
}

TEST_F(InjectedRollingFile, FailedWriteOfRawBytesIsReportedOnceClosesAndRecovers) {
  const std::string name = path("raw.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 1, false);
  g_writeResult = DISK_FULL;
  const std::string big(20000, 'b');
  EXPECT_EQ(file.Write(big.data(), big.size()), -1);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(file.HasUnflushedData());
  EXPECT_EQ(logged(), (Logged{opened(name, 0), error("Error 28 trying to write to file " + name)}));

  g_writeResult = OSA_CALL_REAL;
  EXPECT_EQ(file.Write("back\n", 5), 5);
  file.Close();
  EXPECT_EQ(read_file(name), "back\n");
  EXPECT_EQ(logged().size(), 3u);
}

TEST_F(InjectedRollingFile, AFullBufferThatCannotBeWrittenIsReportedAtTheWriteThatOverflowsIt) {
  const std::string name = path("buffered.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 1, false);
  const std::string line(1000, 'l');
  for (int i = 0; i < 16; ++i) ASSERT_EQ(file.Write(line.data(), line.size()), 1000) << i;
  g_writeResult = DISK_FULL;
  EXPECT_EQ(file.Write(line.data(), line.size()), -1);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(logged(), (Logged{opened(name, 0), error("Error 28 trying to write to file " + name)}));
}

TEST_F(InjectedRollingFile, FlushFailureIsReportedClosesAndRecovers) {
  const std::string name = path("app.log");
  Zor::RollingFile file(name.c_str());
  g_writeResult = DISK_FULL;
  // A short line only reaches the buffer: the write succeeds and the
  // failure shows at the flush.
  EXPECT_EQ(file.Printf("small\n"), 6);
  EXPECT_TRUE(file.HasUnflushedData());
  file.Flush();
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(file.HasUnflushedData());
  file.Flush();  // nothing left to flush: no second report
  EXPECT_EQ(logged(), (Logged{opened(name, 0), error("Error 28 trying to flush file " + name)}));

  g_writeResult = OSA_CALL_REAL;
  EXPECT_EQ(file.Printf("again\n"), 6);
  file.Flush();
  EXPECT_TRUE(file.IsOpen());
  EXPECT_FALSE(file.HasUnflushedData());
  EXPECT_EQ(read_file(name), "again\n");
  EXPECT_EQ(logged().size(), 3u);
}

TEST_F(InjectedRollingFile, SyncFailureIsReportedAsAFlushFailure) {
  const std::string name = path("sync.log");
  Zor::RollingFile file(name.c_str());
  g_syncResult = OS_ERROR_GENERAL | (EIO << 16);
  EXPECT_EQ(file.Printf("line\n"), 5);
  file.Flush();
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(logged(), (Logged{opened(name, 0), error("Error 5 trying to flush file " + name)}));
  EXPECT_EQ(read_file(name), "line\n") << "the bytes were written before the sync failed";
}

// A FIFO opens like a file but cannot be synced (fsync gives EINVAL), so a
// flush that really runs is visible as a report.
TEST_F(RollingFile, FlushOfIdleFileMakesNoSystemCall) {
  const std::string name = path("pipe");
  ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
  TestableRollingFile file(name.c_str());
  ASSERT_TRUE(file.openFile("a+"));
  file.Flush();
  EXPECT_TRUE(file.IsOpen());
  EXPECT_EQ(logged(), (Logged{opened(name, 0)}));

  file.flushFile();
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(logged(), (Logged{opened(name, 0), error("Error 22 trying to flush file " + name)}));

  // After a write, Flush does flush (and the sync fails again).
  EXPECT_EQ(file.Printf("x"), 1);
  file.Flush();
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(logged().back(), error("Error 22 trying to flush file " + name));
}

TEST_F(RollingFile, DeleteAndRenameFailuresAreReportedAndRollOverContinues) {
  const std::string name = path("dirs.log");
  std::filesystem::create_directories(name + ".2/inside");
  write_file(name + ".1", "one");
  write_file(name, "current");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 2, false);
  file.RollOver();
  EXPECT_EQ(logged(),
            (Logged{error("OSA error 18 trying to delete file " + name + ".2"),
                    error("OSA error 18 trying to rename file " + name + ".1 to " + name + ".2"),
                    rolled(name), opened(name, 0)}));
  EXPECT_EQ(read_file(name + ".1"), "current");
  EXPECT_TRUE(std::filesystem::is_directory(name + ".2"));
  EXPECT_TRUE(file.IsOpen());
}

TEST_F(RollingFile, FailedMoveToFirstBackupIsReportedAndFileStillRestarts) {
  const std::string name = path("stuck.log");
  std::filesystem::create_directories(name + ".1/inside");
  write_file(name, "current");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 1, false);
  file.RollOver();
  EXPECT_EQ(logged(),
            (Logged{error("OSA error 18 trying to delete file " + name + ".1"),
                    error("OSA error 18 trying to rename file " + name + " to " + name + ".1"),
                    opened(name, 0)}));
  // The new file is opened with "w" whatever happened to the old one.
  EXPECT_EQ(std::filesystem::file_size(name), 0u);
  EXPECT_TRUE(file.IsOpen());
}

TEST_F(RollingFile, ErrorRaisedWhileReportingAnErrorIsDropped) {
  Zor::RollingFile file("");
  // The logger writes into the file it is reporting on, which fails again.
  recorder_.SetAfterEach([&](const Zor::RecordingLogger::Entry& entry) {
    EXPECT_EQ(file.Printf("%s\n", entry.text.c_str()), -1);
  });
  EXPECT_EQ(file.Printf("x"), -1);
  EXPECT_EQ(logged(), (Logged{error("Error: Attempt to open file with empty pathname")}));
  // The guard is lifted after the report: the next failure is reported.
  advanceClock(10000);
  EXPECT_EQ(file.Printf("x"), -1);
  EXPECT_EQ(logged(), (Logged{error("Error: Attempt to open file with empty pathname"),
                              error("Error: Attempt to open file with empty pathname")}));
}

}  // namespace
}  // namespace rolling_file_test
