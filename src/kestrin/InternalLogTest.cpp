#include "kestrin/InternalLog.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kestrin/ErrorThrottle.h"
#include "kestrin/Globals.h"
#include "kestrin/PrivateRootEnvironment.h"
#include "osa/osa.h"
#include "protocol/SharedLayout.h"

namespace kestrin {
namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

std::vector<std::string>& SyslogLines() {
  static std::vector<std::string> lines;
  return lines;
}

int RecordSyslog(int priority, const char* text) {
  SyslogLines().push_back(std::to_string(priority) + ":" + text);
  return 0;
}

std::atomic<long> g_fakeSeconds{0};
int FakeTimeOfDay(long* seconds, long* microseconds) {
  *seconds = g_fakeSeconds.load();
  *microseconds = 250000;
  return OS_OK;
}

// Each test gets its own own-log file, runs on the "main thread", in UTC,
// with syslog captured and the time of day under its control.
class InternalLog : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    static int counter = 0;
    name_ = "own" + std::to_string(++counter) + ".log";
    logger = LogFilePtr(new LogFile(name_));
    ASSERT_EQ(OS_OK, osGetTaskId(&MainThreadsTaskId));
    Daemonized = true;
    sys5q = -1;
    SyslogLines().clear();
    g_fakeSeconds = 1000;
    overrides_.syslog = RecordSyslog;
    overrides_.timeOfDay = FakeTimeOfDay;
    osSetOverrides(&overrides_);
  }

  void TearDown() override {
    osSetOverrides(nullptr);
    logger.Reset();
    if (sys5q != -1) osSysVQueueRemove(sys5q);
    sys5q = -1;
    Daemonized = false;
  }

  std::string OwnLog() const { return PrivateRootEnvironment::LogDirectory() + name_; }
  std::string FlushedOwnLog() {
    logger->Flush();
    return ReadFile(OwnLog());
  }

  // Creates a real request queue keyed on the root's key file.
  void CreateQueue() {
    char keyFile[512];
    ASSERT_EQ(OS_OK, osMapPath(KES_FTOK_TARGET, keyFile, sizeof keyFile));
    int key = 0;
    ASSERT_EQ(OS_OK, osSysVKey(keyFile, 'I', &key));
    int queueId = -1;
    ASSERT_EQ(OS_OK, osSysVQueueOpen(key, 1, &queueId));
    sys5q = queueId;
  }

  std::string name_;
  tOsaOverrides overrides_{};
};

TEST_F(InternalLog, MainThreadReportIsWrittenToTheOwnLog) {
  LogInfo("hello from main");
  EXPECT_EQ("1970-01-01T00:16:40.250 [INFO ] {Kestrin} (-1) - hello from main\n",
            FlushedOwnLog());
  EXPECT_TRUE(SyslogLines().empty());
}

TEST_F(InternalLog, EventIdIsWrittenAsSignedDecimal) {
  LogKestrinMessage(2, "with an id", 7013);
  EXPECT_EQ("1970-01-01T00:16:40.250 [WARN ] {Kestrin} (7013) - with an id\n", FlushedOwnLog());
}

TEST_F(InternalLog, NullTextIsIgnored) {
  LogKestrinMessage(1, static_cast<const char*>(nullptr), 1);
  EXPECT_EQ("", FlushedOwnLog());
  EXPECT_TRUE(SyslogLines().empty());
}

TEST_F(InternalLog, ErrorOnMainThreadIsFlushedAtOnceInformationIsNot) {
  LogInfo("buffered");
  EXPECT_EQ("", ReadFile(OwnLog()));
  LogError("urgent");
  EXPECT_EQ(
      "1970-01-01T00:16:40.250 [INFO ] {Kestrin} (-1) - buffered\n"
      "1970-01-01T00:16:40.250 [ERROR] {Kestrin} (-1) - urgent\n",
      ReadFile(OwnLog()));
}

TEST_F(InternalLog, WarningOnMainThreadIsFlushedAtOnce) {
  LogKestrinMessage(2, "warned", static_cast<unsigned long>(-1));
  EXPECT_EQ("1970-01-01T00:16:40.250 [WARN ] {Kestrin} (-1) - warned\n", ReadFile(OwnLog()));
}

TEST_F(InternalLog, DebugFilteredByTheOwnLogIsDroppedEverywhere) {
  logger->severityFilter.Set(DetailedSeverity::INFO_LEVEL);
  LogDebug("too detailed");
  EXPECT_EQ("", FlushedOwnLog());
  EXPECT_TRUE(SyslogLines().empty());
}

TEST_F(InternalLog, InformationFilteredByTheOwnLogGoesToSyslogAtInfo) {
  logger->severityFilter.Set(DetailedSeverity::WARN_LEVEL);
  LogInfo("not wanted in the file");
  EXPECT_EQ("", FlushedOwnLog());
  EXPECT_EQ(std::vector<std::string>{"6:not wanted in the file"}, SyslogLines());
}

TEST_F(InternalLog, WithoutAnOwnLogReportsGoToSyslogByPriority) {
  logger.Reset();
  LogError("e");
  LogKestrinMessage(2, "w", 1);
  LogInfo("i");
  LogDebug("d");
  LogKestrinMessage(3, "odd code", 1);
  EXPECT_EQ((std::vector<std::string>{"3:e", "4:w", "6:i", "3:odd code"}), SyslogLines());
}

TEST_F(InternalLog, ReportFromAnotherThreadArrivesWithTheTimeItWasMade) {
  CreateQueue();
  g_fakeSeconds = 5000;
  struct Done {
    std::atomic<bool> flag{false};
  } done;
  osCreateTask("", 0, 32000,
               [](void* arg) {
                 LogKestrinMessage(1, "from a socket thread", 7031);
                 static_cast<Done*>(arg)->flag = true;
               },
               &done, nullptr);
  tKesLoggerMessage message{};
  long textSize = 0;
  ASSERT_EQ(OS_OK, osSysVQueueReceive(sys5q, &message, KES_MAX_QUEUE_TEXT, 0, &textSize));
  while (!done.flag) osSleep(1);
  // The record travels with the length allowance behind it.
  const long recordSize = 22 + 20;
  EXPECT_EQ(recordSize + 4, textSize);
  EXPECT_EQ(recordSize, KesRecordSizeFromQueueLength(textSize));
  EXPECT_EQ(1, message.mtype);
  EXPECT_EQ(KES_INTERNAL_LOG_REQUEST, message.header.type);
  EXPECT_EQ(0, memcmp(message.text + recordSize, "\0\0\0\0", 4));
  EXPECT_EQ("", FlushedOwnLog());  // nothing written by the other thread

  g_fakeSeconds = 9000;  // handled later than it was made
  HandleInternalLogRequest(message, false);
  EXPECT_EQ("1970-01-01T01:23:20.250 [ERROR] {Kestrin} (7031) - from a socket thread\n",
            FlushedOwnLog());
  EXPECT_TRUE(SyslogLines().empty());
}

TEST_F(InternalLog, ReportFromAnotherThreadWithoutQueueGoesToSyslogUnlessDebug) {
  std::atomic<int> done{0};
  osCreateTask("", 0, 32000,
               [](void* arg) {
                 LogError("no queue yet");
                 LogDebug("debug is dropped");
                 (*static_cast<std::atomic<int>*>(arg))++;
               },
               &done, nullptr);
  while (done == 0) osSleep(1);
  EXPECT_EQ(std::vector<std::string>{"3:no queue yet"}, SyslogLines());
  EXPECT_EQ("", FlushedOwnLog());
}

TEST_F(InternalLog, StaleRequestIsWrittenWithThePrefix) {
  tKesLoggerMessage message{};
  message.mtype = 1;
  timeval t{};
  t.tv_sec = 60;
  t.tv_usec = 1000;
  FormatKesInternalLogRequestMessage(&message.internalLogRequest, t, 4, 12, "left over");
  HandleInternalLogRequest(message, true);
  EXPECT_EQ("1970-01-01T00:01:00.001 [INFO ] {Kestrin} (12) - STALE MESSAGE: left over\n",
            FlushedOwnLog());
}

TEST_F(InternalLog, HandledRequestRefusedByTheFilterGoesToSyslog) {
  logger->severityFilter.Set(DetailedSeverity::ERROR_LEVEL);
  tKesLoggerMessage message{};
  timeval t{};
  FormatKesInternalLogRequestMessage(&message.internalLogRequest, t, 2, 12, "warn");
  HandleInternalLogRequest(message, true);
  FormatKesInternalLogRequestMessage(&message.internalLogRequest, t, 8, 12, "debug");
  HandleInternalLogRequest(message, false);
  EXPECT_EQ(std::vector<std::string>{"4:STALE MESSAGE: warn"}, SyslogLines());
}

TEST_F(InternalLog, ForegroundReportsAreEchoedToStandardOutput) {
  Daemonized = false;
  ::testing::internal::CaptureStdout();
  LogKestrinMessage(2, "echoed", 1);
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ("1970-01-01T00:16:40.250 WARN  echoed\n", out);
  Daemonized = true;
  ::testing::internal::CaptureStdout();
  LogInfo("quiet");
  EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
}

TEST_F(InternalLog, FoundationLibraryReportsReachTheOwnLog) {
  KestrinsInternalLogger bridge;
  Zor::LogInterface& asInterface = bridge;
  asInterface.Log("RollingFile: something happened", 1, 99, 3);
  EXPECT_EQ("1970-01-01T00:16:40.250 [ERROR] {Kestrin} (-1) - RollingFile: something happened\n",
            ReadFile(OwnLog()));
}

TEST_F(InternalLog, OwnLogAdmitsFollowsTheFilter) {
  logger->severityFilter.Set(DetailedSeverity::WARN_LEVEL);
  EXPECT_TRUE(OwnLogAdmits(1));
  EXPECT_TRUE(OwnLogAdmits(2));
  EXPECT_FALSE(OwnLogAdmits(4));
  logger.Reset();
  EXPECT_TRUE(OwnLogAdmits(8));
}

TEST_F(InternalLog, ThrottleReportsNineteenThenSuppressesUntilThePeriodEnds) {
  g_fakeSeconds = 100;
  ErrorThrottle throttle(20, 5);
  for (int i = 1; i <= 19; ++i) EXPECT_TRUE(throttle.anotherErrorOK()) << i;
  EXPECT_FALSE(throttle.anotherErrorOK());  // the 20th
  g_fakeSeconds = 105;                      // both ends of the period count
  EXPECT_FALSE(throttle.anotherErrorOK());
  g_fakeSeconds = 106;
  EXPECT_TRUE(throttle.anotherErrorOK());  // starts a new period with the count at 0
  for (int i = 1; i <= 19; ++i) EXPECT_TRUE(throttle.anotherErrorOK()) << i;
  EXPECT_FALSE(throttle.anotherErrorOK());
}

TEST_F(InternalLog, ThrottleBeforeItsPeriodStartSuppressesNothingNew) {
  g_fakeSeconds = 100;
  ErrorThrottle throttle(2, 5);
  EXPECT_TRUE(throttle.anotherErrorOK());
  g_fakeSeconds = 99;  // the clock went back: outside the period
  EXPECT_TRUE(throttle.anotherErrorOK());
}

int FailingTimeOfDay(long*, long*) { return OS_ERROR_GENERAL | (22 << 16); }

TEST_F(InternalLog, ThrottleReportsAFailedClockWhenWarningsAreWanted) {
  overrides_.timeOfDay = FailingTimeOfDay;
  ErrorThrottle throttle(1, 5);
  EXPECT_FALSE(throttle.anotherErrorOK());  // time = period start: inside
  overrides_.timeOfDay = FakeTimeOfDay;
  EXPECT_NE(std::string::npos, FlushedOwnLog().find("[WARN ] {Kestrin} (-1) - "
                                                   "gettimeofday failed; errno = 22\n"));
  logger->severityFilter.Set(DetailedSeverity::ERROR_LEVEL);
  overrides_.timeOfDay = FailingTimeOfDay;
  ErrorThrottle quiet(1, 5);
  overrides_.timeOfDay = FakeTimeOfDay;
  EXPECT_TRUE(SyslogLines().empty());
}

TEST_F(InternalLog, StandardFilesAreCreatedAndTheBannerWritten) {
  NameOfKestrinsOwnLog = "standard-own.log";
  initialize_standard_log_files();
  ASSERT_EQ(3u, logFileMap.size());
  EXPECT_EQ(systemlog.Get(), logFileMap["system.log"].Get());
  EXPECT_EQ(logger.Get(), logFileMap["standard-own.log"].Get());
  EXPECT_EQ(alarmLog.Get(), logFileMap["alarms.systemlog"].Get());
  EXPECT_TRUE(systemlog->IsOperationalLog());
  EXPECT_FALSE(logger->IsOperationalLog());
  EXPECT_TRUE(alarmLog->IsOperationalLog());
  logger->Flush();
  // Opening the own log for the banner is itself reported into it, first.
  const std::string path = PrivateRootEnvironment::LogDirectory() + "standard-own.log";
  EXPECT_EQ(
      "1970-01-01T00:16:40.250 [INFO ] {Kestrin} (-1) - RollingFile: Opened file " + path +
          "; initial size 0 bytes\n"
          "1970-01-01T00:16:40.250 [INFO ] {Kestrin} (-1) - "
          "***** Kestrin is starting up. Interface version 34 *****\n",
      ReadFile(path));
  // The rolling files now report into the own log.
  Zor::RollingFile::GetLoggerMgr().GetLogger()->Log("RollingFile: bridged", 4);
  logger->Flush();
  EXPECT_NE(std::string::npos,
            ReadFile(PrivateRootEnvironment::LogDirectory() + "standard-own.log")
                .find("[INFO ] {Kestrin} (-1) - RollingFile: bridged\n"));
  Zor::RollingFile::GetLoggerMgr().ClearLogger();
  logFileMap.clear();
  systemlog.Reset();
  alarmLog.Reset();
}

TEST_F(InternalLog, BannerIsSkippedWhenTheOwnLogWantsLessThanInformation) {
  LogFile::SeverityFilter::SetDefault(DetailedSeverity(DetailedSeverity::WARN_LEVEL));
  NameOfKestrinsOwnLog = "quiet-own.log";
  initialize_standard_log_files();
  LogFile::SeverityFilter::SetDefault(DetailedSeverity(DetailedSeverity::DEBUG_LEVEL));
  logger->Flush();
  EXPECT_EQ("", ReadFile(PrivateRootEnvironment::LogDirectory() + "quiet-own.log"));
  EXPECT_TRUE(SyslogLines().empty());
  Zor::RollingFile::GetLoggerMgr().ClearLogger();
  logFileMap.clear();
  systemlog.Reset();
  alarmLog.Reset();
}

TEST_F(InternalLog, FlushFilesFlushesEveryKnownFile) {
  LogFilePtr a(new LogFile("flush-a.log"));
  LogFilePtr b(new LogFile("flush-b.log"));
  logFileMap["flush-a.log"] = a;
  logFileMap["flush-b.log"] = b;
  a->LogPrintf(DetailedSeverity::ERROR_LEVEL, "a\n");
  b->LogPrintf(DetailedSeverity::ERROR_LEVEL, "b\n");
  FlushFiles();
  EXPECT_EQ("a\n", ReadFile(a->GetPathName()));
  EXPECT_EQ("b\n", ReadFile(b->GetPathName()));
  logFileMap.clear();
}

}  // namespace
}  // namespace kestrin
