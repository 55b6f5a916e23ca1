// Test helper shared by the rolling-file tests: the fixture (a private
// directory, a recording logger installed for all rolling files, and a clock
// driven by the test through osSetOverrides), a subclass that opens up the
// protected operations, and small file helpers. Not part of the library.
#ifndef KESTRIN_ZOR_ROLLING_FILE_TEST_SUPPORT_H_
#define KESTRIN_ZOR_ROLLING_FILE_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "appfw/SmartPointerNTS.h"
#include "osa/osa.h"
#include "zor/RecordingLogger.h"
#include "zor/RollingFile.h"
#include "zor/TemporaryDirectory.h"

namespace rolling_file_test {

using LoggerPtr = AppFw::SmartPointerNTS<Zor::LogInterface>;
using Logged = std::vector<std::pair<int, std::string>>;

inline std::atomic<unsigned long>& fake_clock() {
  static std::atomic<unsigned long> clock{0};
  return clock;
}

inline unsigned long read_fake_clock() { return fake_clock().load(); }

// Zor::RollingFile with its protected operations callable from tests.
class TestableRollingFile : public Zor::RollingFile {
 public:
  using Zor::RollingFile::archiveCurrentFile;
  using Zor::RollingFile::createDirectoriesInPathName;
  using Zor::RollingFile::deleteOldLog;
  using Zor::RollingFile::getFilePointer;
  using Zor::RollingFile::getFileStats;
  using Zor::RollingFile::incFileSizeBy;
  using Zor::RollingFile::nameOfUnzippedOldLog;
  using Zor::RollingFile::nameOfZippedOldLog;
  using Zor::RollingFile::openFile;
  using Zor::RollingFile::renumberOldLog;
  using Zor::RollingFile::RollingFile;
};

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

inline void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

inline bool exists(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

// Polls for up to five seconds.
template <typename Condition>
bool eventually(Condition condition) {
  for (int i = 0; i < 500; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return condition();
}

class RollingFile : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.Path().empty());
    fake_clock() = 1000000;
    overrides_.clock = &read_fake_clock;
    osSetOverrides(&overrides_);
    Zor::RollingFile::SetLogger(LoggerPtr(&recorder_, false));
  }

  void TearDown() override {
    // No compression may outlive the test's directory and overrides.
    Zor::RollingFile::StopCompressing();
    Zor::RollingFile::GetLoggerMgr().ClearLogger();
    osSetOverrides(nullptr);
  }

  std::string path(const std::string& name) const { return dir_.Join(name); }

  // The level and text of every message logged so far.
  Logged logged() const {
    Logged result;
    for (const auto& entry : recorder_.Entries()) result.emplace_back(entry.level, entry.text);
    return result;
  }

  static void advanceClock(unsigned long units) { fake_clock() += units; }

  // Sets the three settings of `file` to own values.
  static void configure(Zor::RollingFile& file, long maxSize, unsigned int backups, bool zip) {
    file.maxFileSize.Set(maxSize);
    file.backupCount.Set(backups);
    file.zipBackups.Set(zip);
  }

  static std::pair<int, std::string> opened(const std::string& file, unsigned long size) {
    return {4, "RollingFile: Opened file " + file + "; initial size " + std::to_string(size) +
                   " bytes"};
  }
  static std::pair<int, std::string> rolled(const std::string& file) {
    return {4, "RollingFile: File " + file + " has been rolled over"};
  }
  static std::pair<int, std::string> deleted(const std::string& file) {
    return {4, "RollingFile: Deleted file " + file};
  }

  Zor::TemporaryDirectory dir_;
  Zor::RecordingLogger recorder_;
  tOsaOverrides overrides_{};
};

}  // namespace rolling_file_test

#endif  // KESTRIN_ZOR_ROLLING_FILE_TEST_SUPPORT_H_
