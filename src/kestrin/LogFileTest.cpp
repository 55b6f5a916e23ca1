#include "kestrin/LogFile.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <climits>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "kestrin/PrivateRootEnvironment.h"
#include "kestrin/Timestamp.h"
#include "osa/osa.h"
#include "zor/RecordingLogger.h"

namespace kestrin {
namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

// Runs the test with TZ=UTC so time stamps are exact.
class UtcTime {
 public:
  UtcTime() {
    const char* old = getenv("TZ");
    hadTz_ = old != nullptr;
    if (hadTz_) oldTz_ = old;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  ~UtcTime() {
    if (hadTz_) {
      setenv("TZ", oldTz_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool hadTz_;
  std::string oldTz_;
};

TEST(NormalizeLogFileName, LeadingSlashesAreRemoved) {
  EXPECT_EQ("a/b.log", NormalizeLogFileName("/a/b.log"));
  EXPECT_EQ("x", NormalizeLogFileName(std::string("///x")));
  EXPECT_EQ("a//b/../c", NormalizeLogFileName("/a//b/../c"));
  EXPECT_EQ("", NormalizeLogFileName(static_cast<const char*>(nullptr)));
}

TEST(LogFile, ClientFileNameIsStoredUnderTheLogDirectory) {
  LogFile file("/a/b.log");
  EXPECT_EQ("a/b.log", file.GetName());
  EXPECT_EQ(PrivateRootEnvironment::LogDirectory() + "a/b.log", file.GetPathName());
  EXPECT_EQ(PrivateRootEnvironment::LogDirectory(), LogFile::GetLogFileDirectory());
}

TEST(LogFile, SecuritySystemLogIsOperationalAndSecurity) {
  LogFile security("security.systemlog");
  EXPECT_TRUE(security.IsOperationalLog());
  EXPECT_TRUE(security.IsSecurityLog());
  LogFile other("x.systemlog");
  EXPECT_TRUE(other.IsOperationalLog());
  EXPECT_FALSE(other.IsSecurityLog());
  LogFile system("system.log");
  EXPECT_FALSE(system.IsOperationalLog());
  system.SetIsOperationalLog(true);
  EXPECT_TRUE(system.IsOperationalLog());
  EXPECT_FALSE(system.IsSecurityLog());
}

TEST(LogFile, AttributesStartClearedAndAreSettable) {
  LogFile file("attributes.log");
  EXPECT_FALSE(file.ShouldRollOnStartUp());
  EXPECT_FALSE(file.GetMarker());
  file.SetRollOnStartUp(true);
  file.SetMarker(true);
  EXPECT_TRUE(file.ShouldRollOnStartUp());
  EXPECT_TRUE(file.GetMarker());
}

TEST(LogFile, ClassWideDefaultsAreSetByTheFirstFile) {
  LogFile file("defaults.log");
  EXPECT_EQ(15728640, (Zor::DefaultableValue<long, Zor::RollingFile, 1>::GetDefault()));
  EXPECT_EQ(100u, (Zor::DefaultableValue<unsigned int, Zor::RollingFile, 2>::GetDefault()));
  EXPECT_TRUE((Zor::DefaultableValue<bool, Zor::RollingFile, 3>::GetDefault()));
  EXPECT_EQ(DetailedSeverity::DEBUG_LEVEL, LogFile::SeverityFilter::GetDefault().GetLevel());
  EXPECT_EQ(15728640, file.maxFileSize());
  EXPECT_EQ(DetailedSeverity::DEBUG_LEVEL, file.severityFilter().GetLevel());
}

TEST(LogFile, DebugLineIsDroppedByInfoFilterAndWrittenByDebugFilter) {
  LogFile file("filter.log");
  file.severityFilter.Set(DetailedSeverity::INFO_LEVEL);
  EXPECT_EQ(0, file.LogPrintf(DetailedSeverity::DEBUG_LEVEL, "dropped\n"));
  EXPECT_EQ(0, file.LogPrintf(static_cast<unsigned short>(8), "dropped too\n"));
  file.severityFilter.Set(DetailedSeverity::DEBUG_LEVEL);
  EXPECT_EQ(5, file.LogPrintf(DetailedSeverity::DEBUG_LEVEL, "kept\n"));
  file.Flush();
  EXPECT_EQ("kept\n", ReadFile(file.GetPathName()));
}

TEST(LogFile, FilterComparesLevelsOnly) {
  LogFile file("levels.log");
  file.severityFilter.Set(DetailedSeverity::MAJOR_LEVEL);
  EXPECT_EQ(0, file.LogPrintf(DetailedSeverity::MINOR_LEVEL, "minor\n"));
  EXPECT_EQ(6, file.LogPrintf(DetailedSeverity::MAJOR_LEVEL, "major\n"));
  EXPECT_EQ(6, file.LogPrintf(DetailedSeverity::EMERG_LEVEL, "emerg\n"));
  // Client codes: 2 (warning) is level 6, refused; 1 (error) is level 3.
  EXPECT_EQ(0, file.LogPrintf(static_cast<unsigned short>(2), "warning\n"));
  EXPECT_EQ(6, file.LogPrintf(static_cast<unsigned short>(1), "error\n"));
}

TEST(LogPrivateMessage, WritesTheExactLine) {
  UtcTime utc;
  LogFilePtr file(new LogFile("private.log"));
  EXPECT_TRUE(LogPrivateMessage(file, 86400 + 3661, 42999, 4, 77, "modname", -1, "hello", false));
  EXPECT_TRUE(LogPrivateMessage(file, 86400 + 3661, 7, 1, 0, "Kestrin", 7012, "late", true));
  file->Flush();
  EXPECT_EQ(
      "1970-01-02T01:01:01.042 [INFO ] {modname} (-1) - hello\n"
      "1970-01-02T01:01:01.000 [ERROR] {Kestrin} (7012) - (Messages have been dropped.) late\n",
      ReadFile(file->GetPathName()));
}

TEST(LogPrivateMessage, OpeningReportDoesNotChangeTheLinesTime) {
  UtcTime utc;
  // The report of the first open formats another second, as the daemon's
  // own log does when it writes the "Opened file" line.
  Zor::RecordingLogger recorder;
  recorder.SetAfterEach([](const Zor::RecordingLogger::Entry&) { GetTimestampString(999999); });
  Zor::RollingFile::SetLogger(AppFw::SmartPointerNTS<Zor::LogInterface>(&recorder, false));
  LogFilePtr file(new LogFile("first-line.log"));
  EXPECT_TRUE(LogPrivateMessage(file, 60, 0, 4, 0, "m", 1, "first", false));
  Zor::RollingFile::GetLoggerMgr().ClearLogger();
  ASSERT_FALSE(recorder.Entries().empty());
  EXPECT_EQ(0u, recorder.Entries().back().text.rfind("RollingFile: Opened file ", 0));
  file->Flush();
  EXPECT_EQ("1970-01-01T00:01:00.000 [INFO ] {m} (1) - first\n", ReadFile(file->GetPathName()));
}

TEST(LogPrivateMessage, LineRefusedByTheFilterCountsAsNotWritten) {
  LogFilePtr file(new LogFile("refused.log"));
  file->severityFilter.Set(DetailedSeverity::WARN_LEVEL);
  EXPECT_FALSE(LogPrivateMessage(file, 0, 0, 4, 0, "m", 1, "info", false));
  EXPECT_TRUE(LogPrivateMessage(file, 0, 0, 2, 0, "m", 1, "warning", false));
  EXPECT_FALSE(LogPrivateMessage(LogFilePtr(), 0, 0, 1, 0, "m", 1, "no file", false));
}

TEST(LogPrivateMessage, FailedWriteCountsAsWritten) {
  // A path that cannot be opened: the write returns -1, which is non-zero.
  LogFilePtr file(new LogFile("dir//double.log"));
  EXPECT_TRUE(LogPrivateMessage(file, 0, 0, 1, 0, "m", 1, "lost", false));
}

TEST(LogPrivateMessage, LineHasTheBytesOfThePrintfFormat) {
  UtcTime utc;
  struct Case {
    long seconds;
    long microseconds;
    unsigned short severity;
    const char* name;
    int eventId;
    const char* text;
    bool dropped;
  };
  const Case cases[] = {
      {0, 0, 8, "m", 0, "", false},
      {1700000000, 999999, 2, "Bench0", 2147483647, "two words", true},
      {59, -5000, 4, nullptr, -2147483647 - 1, nullptr, false},
      {3600, -999999, 1, "", -7, "%s %d 100%", true},
      {86399, 1000000000, 3, "name with spaces", 42, "x", false},
  };
  LogFilePtr file(new LogFile("printf-shape.log"));
  std::string expected;
  for (const Case& c : cases) {
    ASSERT_TRUE(LogPrivateMessage(file, c.seconds, c.microseconds, c.severity, 5, c.name, c.eventId,
                                  c.text, c.dropped));
    char stamp[80];
    GetTimestampString(c.seconds, stamp, sizeof stamp);
    char line[512];
    snprintf(line, sizeof line, "%s%03ld %s%s[%s] {%s} (%d) - %s%s\n", stamp, c.microseconds / 1000,
             "", "", GetSeverityStringForDesignerLogs(c.severity), c.name ? c.name : "", c.eventId,
             c.dropped ? "(Messages have been dropped.) " : "", c.text ? c.text : "");
    expected += line;
  }
  file->Flush();
  EXPECT_EQ(expected, ReadFile(file->GetPathName()));
  EXPECT_EQ(0u, expected.find("1970-01-01T00:00:00.000 [DEBUG] {m} (0) - \n"));
  EXPECT_NE(std::string::npos,
            expected.find("1970-01-01T00:00:59.-05 [INFO ] {} (-2147483648) - \n"));
}

TEST(LogPrivateMessage, LineLongerThanTheStackBufferIsWrittenWhole) {
  UtcTime utc;
  LogFilePtr file(new LogFile("long-line.log"));
  const std::string text(3000, 't');
  EXPECT_TRUE(LogPrivateMessage(file, 0, 1000, 4, 0, "Kestrin", -1, text.c_str(), true));
  file->Flush();
  EXPECT_EQ("1970-01-01T00:00:00.001 [INFO ] {Kestrin} (-1) - (Messages have been dropped.) " +
                text + "\n",
            ReadFile(file->GetPathName()));
}

TEST(LogFile, LogWriteAppliesTheFilterAndWritesTheBytesAsTheyAre) {
  LogFilePtr file(new LogFile("log-write.log"));
  file->severityFilter.Set(DetailedSeverity::WARN_LEVEL);
  EXPECT_EQ(0, file->LogWrite(static_cast<unsigned short>(4), "info\n", 5));
  EXPECT_EQ(0, file->LogWrite(DetailedSeverity(DetailedSeverity::DEBUG_LEVEL), "debug\n", 6));
  EXPECT_EQ(7, file->LogWrite(static_cast<unsigned short>(2), "100% w\nrest", 7));
  EXPECT_EQ(6, file->LogWrite(DetailedSeverity::ERROR_LEVEL, "error\n", 6));
  file->Flush();
  EXPECT_EQ("100% w\nerror\n", ReadFile(file->GetPathName()));
}

TEST(LineBuilder, DecimalsMatchPrintf) {
  const long values[] = {0, 7, 42, 999, 1000, 123456789, -1, -5, -42, -99, -999, -1000,
                         LONG_MAX, LONG_MIN};
  for (long value : values) {
    for (int width : {0, 1, 3, 6}) {
      LineBuilder builder;
      builder.AppendDecimal(value, width);
      char printed[64];
      snprintf(printed, sizeof printed, "%0*ld", width, value);
      EXPECT_EQ(std::string(printed), std::string(builder.Data(), builder.Length()))
          << value << " width " << width;
    }
  }
}

TEST(LineBuilder, GrowsBeyondItsStackBufferWithoutCuttingAnything) {
  LineBuilder builder;
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string piece = "piece " + std::to_string(i) + ";";
    builder.Append(piece.c_str());
    builder.AppendDecimal(i, 5);
    expected += piece;
    char digits[16];
    snprintf(digits, sizeof digits, "%05d", i);
    expected += digits;
  }
  ASSERT_GT(expected.size(), 4 * LineBuilder::INLINE_CAPACITY);
  EXPECT_EQ(expected, std::string(builder.Data(), builder.Length()));
  LineBuilder oneBigPiece;
  oneBigPiece.Append("<");
  const std::string big(3 * LineBuilder::INLINE_CAPACITY + 7, 'b');
  oneBigPiece.Append(big.data(), big.size());
  EXPECT_EQ("<" + big, std::string(oneBigPiece.Data(), oneBigPiece.Length()));
}

int LogDirectoryWithoutSlash(int kind, char* out, size_t size) {
  osLStrCpyn(out, kind == OS_PATH_LOG ? "/var/log" : "", size);
  return OS_OK;
}

int LogDirectoryWithSlash(int kind, char* out, size_t size) {
  osLStrCpyn(out, "/var/log/", size);
  return OS_OK;
}

int NoLogDirectory(int, char*, size_t) { return OS_ERROR_PATH_NOT_FOUND; }

class LogDirectory : public ::testing::Test {
 protected:
  void SetUp() override {
    Zor::RollingFile::SetLogger(
        AppFw::SmartPointerNTS<Zor::LogInterface>(&recorder_, false));
  }
  void TearDown() override {
    osSetOverrides(nullptr);
    Zor::RollingFile::GetLoggerMgr().ClearLogger();
    // Back to the test root for the other tests.
    LogFile::SetLogFileDirectory();
  }
  void Use(int (*getPath)(int, char*, size_t)) {
    overrides_.getPath = getPath;
    osSetOverrides(&overrides_);
  }
  Zor::RecordingLogger recorder_;
  tOsaOverrides overrides_{};
};

TEST_F(LogDirectory, PlatformDirectoryGetsOneSlashAppended) {
  Use(LogDirectoryWithoutSlash);
  LogFile::SetLogFileDirectory();
  EXPECT_EQ("/var/log/", LogFile::GetLogFileDirectory());
  ASSERT_EQ(1u, recorder_.Entries().size());
  EXPECT_EQ("Log file directory at ``/var/log/''", recorder_.Entries()[0].text);
  EXPECT_EQ(8u, recorder_.Entries()[0].level);
}

TEST_F(LogDirectory, DirectoryEndingInSlashIsKept) {
  Use(LogDirectoryWithSlash);
  LogFile::SetLogFileDirectory();
  EXPECT_EQ("/var/log/", LogFile::GetLogFileDirectory());
}

TEST(LogDirectoryDeathTest, MissingDirectoryEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        static Zor::RecordingLogger recorder;
        Zor::RollingFile::SetLogger(
            AppFw::SmartPointerNTS<Zor::LogInterface>(&recorder, false));
        recorder.SetAfterEach([](const Zor::RecordingLogger::Entry& entry) {
          fprintf(stderr, "%lu:%s\n", static_cast<unsigned long>(entry.level),
                  entry.text.c_str());
        });
        tOsaOverrides overrides{};
        overrides.getPath = NoLogDirectory;
        osSetOverrides(&overrides);
        LogFile::SetLogFileDirectory();
      },
      ::testing::ExitedWithCode(1), "1:osGetPath returned 15; can't create logs");
}

}  // namespace
}  // namespace kestrin
