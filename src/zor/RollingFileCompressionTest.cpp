// The compression thread of the rolling files: standard gzip output, no
// backup lost or kept twice when roll-overs outpace it, backups renumbered
// or deleted under a running compression, failures and stopping. Slow and
// failing compressions are made through the platform layer's overrides,
// which tell the thread's calls from the test's own by the calling thread.
#include <errno.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "zor/BackupCompressor.h"
#include "zor/RollingFile.h"
#include "zor/RollingFileTestSupport.h"

namespace rolling_file_test {
namespace {

constexpr int DISK_FULL = OS_ERROR_NO_SPACE | (ENOSPC << 16);

std::atomic<unsigned long> g_testThread{0};
std::atomic<int> g_slowMilliseconds{0};  // each write of the thread waits this long
std::atomic<bool> g_diskFull{false};     // every write of the thread fails
std::mutex g_openedLock;
std::vector<std::string> g_openedForReading;  // the backups the thread opened to compress

bool OnCompressionThread() {
  unsigned long id = 0;
  osGetTaskId(&id);
  return id != g_testThread.load();
}

int ObservedOpen(const char* directory, const char* path, const char* mode, long*) {
  if (OnCompressionThread() && mode[0] == 'r' &&
      std::filesystem::exists(std::string(directory) + path)) {
    std::lock_guard<std::mutex> guard(g_openedLock);
    g_openedForReading.push_back(path);
  }
  return OSA_CALL_REAL;
}

int SlowOrFailingWrite(long, const void*, size_t, size_t* written) {
  if (!OnCompressionThread()) return OSA_CALL_REAL;
  if (g_diskFull.load()) {
    if (written != nullptr) *written = 0;
    return DISK_FULL;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(g_slowMilliseconds.load()));
  return OSA_CALL_REAL;
}

std::vector<std::string> OpenedForReading() {
  std::lock_guard<std::mutex> guard(g_openedLock);
  return g_openedForReading;
}

// The contents of a gzip file, read with zlib; "<unreadable>" when it is not one.
std::string Gunzip(const std::string& path) {
  gzFile file = gzopen(path.c_str(), "rb");
  if (file == nullptr) return "<unreadable>";
  std::string content;
  char buffer[4096];
  int count = 0;
  while ((count = gzread(file, buffer, sizeof buffer)) > 0) content.append(buffer, count);
  const bool failed = count < 0;
  gzclose(file);
  return failed ? "<unreadable>" : content;
}

class Compression : public RollingFile {
 protected:
  void SetUp() override {
    RollingFile::SetUp();
    unsigned long id = 0;
    osGetTaskId(&id);
    g_testThread = id;
    g_slowMilliseconds = 0;
    g_diskFull = false;
    {
      std::lock_guard<std::mutex> guard(g_openedLock);
      g_openedForReading.clear();
    }
    overrides_.openDescriptor = ObservedOpen;
    overrides_.writeDescriptor = SlowOrFailingWrite;
    osSetOverrides(&overrides_);
  }

  // The names in the test's directory.
  std::set<std::string> Entries() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  // Writes `text` into `file` and rolls it over.
  static void WriteAndRoll(Zor::RollingFile& file, const std::string& text) {
    file.Printf("%s", text.c_str());
    file.RollOver();
  }

  // Waits until the thread has opened `count` backups for compression.
  static bool OpenedAtLeast(size_t count) {
    return eventually([count] { return OpenedForReading().size() >= count; });
  }
};

TEST_F(Compression, AStandardGzipFileReplacesTheBackup) {
  const std::string name = path("big.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 1, true);
  // Several read chunks of text that compresses well and some that does not.
  std::string text;
  unsigned int state = 12345;
  for (int line = 0; text.size() < 300 * 1024; ++line) {
    text += "line " + std::to_string(line) + " ";
    for (int i = 0; i < 40; ++i) {
      state = state * 1103515245u + 12345u;
      text += static_cast<char>('a' + (state >> 16) % 26);
    }
    text += "\n";
  }
  file.Write(text.data(), text.size());
  file.RollOver();
  Zor::RollingFile::WaitForCompressions();
  EXPECT_EQ(Entries(), (std::set<std::string>{"big.log", "big.log.1.gz"}));
  EXPECT_EQ(Gunzip(name + ".1.gz"), text);
  EXPECT_EQ(std::system(("gzip -t " + name + ".1.gz").c_str()), 0);
  EXPECT_LT(std::filesystem::file_size(name + ".1.gz"), text.size());
}

TEST_F(Compression, RollOversFasterThanCompressionLoseAndDuplicateNoBackup) {
  g_slowMilliseconds = 30;
  const std::string name = path("fast.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 8, true);
  for (int i = 1; i <= 12; ++i) WriteAndRoll(file, "line " + std::to_string(i) + "\n");
  // While the thread lags, each backup is there once: plain or compressed.
  for (int n = 1; n <= 8; ++n) {
    const std::string backup = name + "." + std::to_string(n);
    EXPECT_NE(exists(backup), exists(backup + ".gz")) << backup;
  }
  Zor::RollingFile::WaitForCompressions();
  std::set<std::string> expected{"fast.log"};
  for (int n = 1; n <= 8; ++n) expected.insert("fast.log." + std::to_string(n) + ".gz");
  EXPECT_EQ(Entries(), expected);
  // Backup n holds the line written n roll-overs ago.
  for (int n = 1; n <= 8; ++n) {
    EXPECT_EQ(Gunzip(name + "." + std::to_string(n) + ".gz"),
              "line " + std::to_string(13 - n) + "\n");
  }
}

TEST_F(Compression, PlainBackupsAreCompressedOldestFirst) {
  const std::string name = path("old.log");
  // Left plain by an earlier run.
  write_file(name + ".1", "three\n");
  write_file(name + ".2", "two\n");
  write_file(name + ".3", "one\n");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 5, true);
  WriteAndRoll(file, "four\n");
  Zor::RollingFile::WaitForCompressions();
  EXPECT_EQ(OpenedForReading(),
            (std::vector<std::string>{"old.log.4", "old.log.3", "old.log.2", "old.log.1"}));
  EXPECT_EQ(Gunzip(name + ".4.gz"), "one\n");
  EXPECT_EQ(Gunzip(name + ".1.gz"), "four\n");
  EXPECT_EQ(Entries(), (std::set<std::string>{"old.log", "old.log.1.gz", "old.log.2.gz",
                                               "old.log.3.gz", "old.log.4.gz"}));
}

TEST_F(Compression, ABackupRenumberedWhileCompressedLandsAtItsNewNumber) {
  g_slowMilliseconds = 300;
  const std::string name = path("renumbered.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 3, true);
  WriteAndRoll(file, "first\n");
  ASSERT_TRUE(OpenedAtLeast(1));
  WriteAndRoll(file, "second\n");  // "first" moves from .1 to .2 under the thread
  Zor::RollingFile::WaitForCompressions();
  EXPECT_EQ(Entries(), (std::set<std::string>{"renumbered.log", "renumbered.log.1.gz",
                                               "renumbered.log.2.gz"}));
  EXPECT_EQ(Gunzip(name + ".2.gz"), "first\n");
  EXPECT_EQ(Gunzip(name + ".1.gz"), "second\n");
}

TEST_F(Compression, ABackupDeletedWhileCompressedIsAbandoned) {
  g_slowMilliseconds = 300;
  const std::string name = path("deleted.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 1, true);
  WriteAndRoll(file, "first\n");
  ASSERT_TRUE(OpenedAtLeast(1));
  WriteAndRoll(file, "second\n");  // one backup kept: "first" is deleted under the thread
  Zor::RollingFile::WaitForCompressions();
  EXPECT_EQ(Entries(), (std::set<std::string>{"deleted.log", "deleted.log.1.gz"}));
  EXPECT_EQ(Gunzip(name + ".1.gz"), "second\n");
}

TEST_F(Compression, AFailureLeavesTheBackupPlainUntilTheNextRollOver) {
  g_diskFull = true;
  const std::string name = path("full.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 3, true);
  WriteAndRoll(file, "first\n");
  Zor::RollingFile::WaitForCompressions();
  EXPECT_EQ(Entries(), (std::set<std::string>{"full.log", "full.log.1"}));
  // The thread's report reaches the logger on the owner's thread only.
  EXPECT_EQ(logged(), (Logged{opened(name, 0), rolled(name), opened(name, 0)}));
  Zor::RollingFile::ReportCompressionFailures();
  EXPECT_EQ(logged().back(),
            std::make_pair(1, "RollingFile: Error 28 trying to compress file " + name + ".1"));
  Zor::RollingFile::ReportCompressionFailures();  // each failure is reported once
  EXPECT_EQ(logged().size(), 4u) << ::testing::PrintToString(logged());

  g_diskFull = false;
  WriteAndRoll(file, "second\n");
  Zor::RollingFile::WaitForCompressions();
  EXPECT_EQ(Entries(), (std::set<std::string>{"full.log", "full.log.1.gz", "full.log.2.gz"}));
  EXPECT_EQ(Gunzip(name + ".2.gz"), "first\n");
}

TEST_F(Compression, StoppingAbandonsTheCompressionUnderWay) {
  g_slowMilliseconds = 300;
  const std::string name = path("stopped.log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 2, true);
  WriteAndRoll(file, "first\n");
  ASSERT_TRUE(OpenedAtLeast(1));
  Zor::RollingFile::StopCompressing();
  EXPECT_EQ(Entries(), (std::set<std::string>{"stopped.log", "stopped.log.1"}));
  // A later roll-over starts the thread again and takes the plain one too.
  g_slowMilliseconds = 0;
  WriteAndRoll(file, "second\n");
  Zor::RollingFile::WaitForCompressions();
  EXPECT_EQ(Entries(),
            (std::set<std::string>{"stopped.log", "stopped.log.1.gz", "stopped.log.2.gz"}));
  EXPECT_EQ(Gunzip(name + ".2.gz"), "first\n");
}

TEST_F(Compression, NoBackupOfAFileInARollOverIsTouched) {
  // A roll-over writes the last buffered lines into backup 1 after naming
  // it so; until its end the thread must leave the file's backups alone.
  const std::string name = path("rolling.log");
  write_file(name + ".1", "still being written");
  Zor::BackupCompressor& compressor = Zor::BackupCompressor::Instance();
  const Zor::BackupCompressor::File file{dir_.Path() + "/", "rolling.log", name};
  compressor.BeginRollOver(file);
  compressor.Request(file, 3);
  compressor.WaitUntilIdle();
  EXPECT_EQ(OpenedForReading(), std::vector<std::string>{});
  EXPECT_EQ(Entries(), (std::set<std::string>{"rolling.log.1"}));
  write_file(name + ".1", "complete\n");
  compressor.EndRollOver(file);
  compressor.Request(file, 3);
  compressor.WaitUntilIdle();
  EXPECT_EQ(Entries(), (std::set<std::string>{"rolling.log.1.gz"}));
  EXPECT_EQ(Gunzip(name + ".1.gz"), "complete\n");
}

TEST_F(Compression, ShellCharactersInTheNameAreJustCharacters) {
  // A client chooses the file name; no shell ever sees it.
  const std::string marker = path("injected");
  const std::string name = path("bad(name) 'q';touch " + marker + " $(x).log");
  Zor::RollingFile file(name.c_str());
  configure(file, 0, 1, true);
  WriteAndRoll(file, "x\n");
  Zor::RollingFile::WaitForCompressions();
  EXPECT_EQ(Gunzip(name + ".1.gz"), "x\n");
  EXPECT_FALSE(exists(name + ".1"));
  EXPECT_FALSE(exists(marker));
}

}  // namespace
}  // namespace rolling_file_test
