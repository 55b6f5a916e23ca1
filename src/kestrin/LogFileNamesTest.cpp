#include "kestrin/LogFileNames.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kestrin/AlarmTestSupport.h"
#include "kestrin/AlarmUtils.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"

namespace kestrin {
namespace {

using Texts = std::vector<std::string>;
using Verdict = LogFileNameVerdict;

TEST(CheckLogFileName, AcceptsOrdinaryNames) {
  for (const char* name : {"app.log", "a/b/c.log", "./app.log", "a/./b.log", "..app.log",
                           "app..log", "a/..b/c", "security.systemlog", "caf\xc3\xa9.log"}) {
    EXPECT_EQ(Verdict::ACCEPTED, CheckLogFileName(name)) << name;
  }
}

TEST(CheckLogFileName, RefusesEveryDotDotComponent) {
  for (const char* name : {"..", "../x.log", "a/../../x.log", "x/..", "a/./../../b", "a/../b"}) {
    EXPECT_EQ(Verdict::LEADS_OUTSIDE, CheckLogFileName(name)) << name;
  }
}

TEST(CheckLogFileName, RefusesControlBytes) {
  EXPECT_EQ(Verdict::CONTROL_BYTES, CheckLogFileName("a\nb.log"));
  EXPECT_EQ(Verdict::CONTROL_BYTES, CheckLogFileName("tab\t.log"));
  EXPECT_EQ(Verdict::CONTROL_BYTES, CheckLogFileName("\x1b[2J"));
  EXPECT_EQ(Verdict::CONTROL_BYTES, CheckLogFileName("del\x7f.log"));
  EXPECT_EQ(Verdict::CONTROL_BYTES, CheckLogFileName(std::string("nul\0.log", 8)));
}

TEST(CheckLogFileName, RefusesNamesOfNoFileAndTheFaultRecords) {
  for (const char* name : {"", ".", "dir/", "dir/."}) {
    EXPECT_EQ(Verdict::NAMES_NO_FILE, CheckLogFileName(name)) << '"' << name << '"';
  }
  EXPECT_EQ(Verdict::RESERVED, CheckLogFileName("faultrecords.jsonl"));
  EXPECT_EQ(Verdict::ACCEPTED, CheckLogFileName("sub/faultrecords.jsonl"));
}

class LogFileNames : public OwnLogTest {
 protected:
  void SetUp() override {
    OwnLogTest::SetUp();
    FakeClientLibrary::Install();
    ResetLogFileNamesForTesting();
    logFileMap.clear();
    MaxLogFiles = KES_DEFAULT_MAX_LOG_FILES;
  }
  void TearDown() override {
    logFileMap.clear();
    MaxLogFiles = KES_DEFAULT_MAX_LOG_FILES;
    ResetLogFileNamesForTesting();
    OwnLogTest::TearDown();
  }
};

TEST_F(LogFileNames, ARefusedNameIsReportedOnceEscapedAndRaisesTheEvent) {
  OwnLogCapture own;
  NameGuard guard;
  EXPECT_FALSE(guard.Admit("a\nb/../x"));
  EXPECT_FALSE(guard.Admit("a\nb/../x"));
  EXPECT_FALSE(guard.Admit("../y"));
  EXPECT_TRUE(guard.Admit("fine.log"));
  EXPECT_EQ(Texts({"Refused log file name \"a#012b/../x\": it holds control characters",
                   "Refused log file name \"../y\": it leads outside the log directory"}),
            own.Texts());
  EXPECT_NE(std::string::npos, own.Raw().find("[ERROR] {Kestrin} (7013) - Refused log file"));
}

TEST_F(LogFileNames, FindOrAddKeepsOneObjectPerNameAndTellsWhatItMade) {
  bool created = false;
  LogFilePtr first = FindOrAddLogFile("a.log", LogFileRequester::CLIENT, &created);
  ASSERT_FALSE(first.IsNil());
  EXPECT_TRUE(created);
  LogFilePtr again = FindOrAddLogFile("a.log", LogFileRequester::CLIENT, &created);
  EXPECT_FALSE(created);
  EXPECT_EQ(first.Get(), again.Get());
  EXPECT_TRUE(FindOrAddLogFile("../a.log", LogFileRequester::CONFIGURATION, &created).IsNil());
  EXPECT_FALSE(created);
  EXPECT_EQ(1u, logFileMap.size());
}

TEST_F(LogFileNames, ClientsAddNoFileBeyondMaxLogFilesButTheConfigurationDoes) {
  MaxLogFiles = 16;
  for (int i = 0; i < 16; ++i) {
    ASSERT_FALSE(
        FindOrAddLogFile("f" + std::to_string(i), LogFileRequester::CLIENT, nullptr).IsNil());
  }
  OwnLogCapture own;
  EXPECT_TRUE(FindOrAddLogFile("f16", LogFileRequester::CLIENT, nullptr).IsNil());
  EXPECT_FALSE(FindOrAddLogFile("f3", LogFileRequester::CLIENT, nullptr).IsNil())
      << "a known file keeps working";
  EXPECT_FALSE(FindOrAddLogFile("configured", LogFileRequester::CONFIGURATION, nullptr).IsNil());
  EXPECT_EQ(Texts({"Refused to add log file \"f16\": MaxLogFiles (16) files are already known"}),
            own.Texts());
  EXPECT_EQ(17u, logFileMap.size());
}

TEST_F(LogFileNames, TheDaemonsOwnFilesAreKnownByName) {
  const LogFilePtr savedSystem = systemlog;
  const LogFilePtr savedAlarms = alarmLog;
  systemlog = LogFilePtr(new LogFile("system.log"));
  alarmLog = LogFilePtr(new LogFile("alarms.systemlog"));
  EXPECT_TRUE(IsDaemonsOwnFile("system.log"));
  EXPECT_TRUE(IsDaemonsOwnFile("alarms.systemlog"));
  EXPECT_TRUE(IsDaemonsOwnFile(logger->GetName()));
  EXPECT_TRUE(IsDaemonsOwnFile("faultrecords.jsonl"));
  EXPECT_FALSE(IsDaemonsOwnFile("app.log"));
  OwnLogCapture own;
  ReportOwnFileRequestRefused("system.log", "backup count");
  EXPECT_EQ(Texts({"Refused request to change the backup count of \"system.log\": the daemon's "
                   "own files take their settings from Kestrin.conf only"}),
            own.Texts());
  systemlog = savedSystem;
  alarmLog = savedAlarms;
}

}  // namespace
}  // namespace kestrin
