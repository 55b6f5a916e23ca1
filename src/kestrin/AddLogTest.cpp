#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "flt/FltRecord.h"
#include "kestrin/AddLog.h"
#include "kestrin/AlarmTaxonomy.h"
#include "kestrin/DaemonTestSupport.h"
#include "kestrin/PrivateRootEnvironment.h"
#include "kestrin/RecordValidation.h"
#include "kestrin/TextForms.h"

// Every operator new of this program is counted while g_countAllocations is
// set, so that a test can pin that the add-log path allocates nothing.
namespace {
std::atomic<bool> g_countAllocations{false};
std::atomic<long> g_allocations{0};
}  // namespace

// Every form is replaced by malloc and free, so that memory from any form
// of new (the platform layer uses the nothrow one) is freed by its match.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
namespace {
void* CountedAllocation(size_t size) {
  if (g_countAllocations) ++g_allocations;
  return malloc(size == 0 ? 1 : size);
}
}  // namespace

void* operator new(size_t size) {
  void* memory = CountedAllocation(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new[](size_t size) { return operator new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return CountedAllocation(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return CountedAllocation(size);
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }
void operator delete[](void* memory) noexcept { free(memory); }
void operator delete[](void* memory, size_t) noexcept { free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { free(memory); }
#pragma GCC diagnostic pop

namespace kestrin {
namespace {

using Lines = std::vector<std::string>;

// A taxonomy entry with the fields these tests vary.
EventMap Entry(int32_t newId, const std::string& newSev, const std::string& newMsg, bool alarm,
               const std::string& problemResolution) {
  return EventMap(0, "", newId, newSev, "", newMsg, "", "", "", "", false, alarm, false, false, "",
                  "", problemResolution);
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// Handle 3 is registered for every test with a private file named after the
// test, so that each test starts with an empty file.
class AddLog : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    ResetAddLogFlushTimeForTesting();
    privateName_ =
        std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".log";
    Register(3, "Module3", "Mod3InLog", privateName_.c_str());
  }

  void TearDown() override {
    osSetOverrides(nullptr);
    DaemonTest::TearDown();
  }

  std::string PrivateFileText() {
    FlushFiles();
    return ReadWholeFile(PrivateRootEnvironment::LogDirectory() + privateName_);
  }

  std::string privateName_;
};

TEST_F(AddLog, SystemLogLineHasEveryFieldSeparatedByTabs) {
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x1, 4, 1234, "hello there");
  process_add_log_message(&message);
  EXPECT_EQ(Lines({"<information>\t2023-11-14T22:13:20.000042\ttesthost\tMod3InLog\t[99]:\t"
                   "eventID=1234; message=hello there"}),
            system.Lines());
}

TEST_F(AddLog, MicrosecondsFortyTwoPrintAsSixDigitsRightAfterTheTimestamp) {
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x1, 2, 7, "m", 42);
  process_add_log_message(&message);
  EXPECT_EQ(Lines({"<warning>\t2023-11-14T22:13:20.000042\ttesthost\tMod3InLog\t[99]:\t"
                   "eventID=7; message=m"}),
            system.Lines());
}

TEST_F(AddLog, DestinationBitFourAlsoMeansTheSystemLog) {
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x4, 1, 8, "via bit four", 999999);
  process_add_log_message(&message);
  EXPECT_EQ(Lines({"<error>\t2023-11-14T22:13:20.999999\ttesthost\tMod3InLog\t[99]:\t"
                   "eventID=8; message=via bit four"}),
            system.Lines());
  EXPECT_TRUE(logFileArray[3].IsNil()) << "no private file without destination bit 2";
}

TEST_F(AddLog, PrivateFileOnlyOnNonOperationalFileBuildsNoLine) {
  FileCapture system(systemlog);
  const unsigned long before = NumAddLogLinesFormatted();
  tKesAddLogMessage message = AddLogRecord(3, 0x2, 4, 55, "private only", 123456);
  process_add_log_message(&message);
  EXPECT_EQ(before, NumAddLogLinesFormatted());
  EXPECT_EQ("", system.Raw());
  EXPECT_EQ("2023-11-14T22:13:20.123 [INFO ] {Mod3InLog} (55) - private only\n", PrivateFileText());
}

TEST_F(AddLog, EachEventIsFormattedOnceForEveryDestination) {
  Register(3, "Module3", "Mod3InLog", "formatted.systemlog");
  const unsigned long before = NumAddLogLinesFormatted();
  tKesAddLogMessage message = AddLogRecord(3, 0x3, 4, 1, "both", 0, KES_FLAG_STAMP_ALL_LOGS);
  process_add_log_message(&message);
  EXPECT_EQ(before + 1, NumAddLogLinesFormatted());
}

TEST_F(AddLog, DroppedFlagAddsTheNoteToThePrivateLine) {
  tKesAddLogMessage message =
      AddLogRecord(3, 0x2, 8, 5, "after a gap", 7000, KES_FLAG_MESSAGES_DROPPED);
  process_add_log_message(&message);
  EXPECT_EQ(
      "2023-11-14T22:13:20.007 [DEBUG] {Mod3InLog} (5) - (Messages have been dropped.) after "
      "a gap\n",
      PrivateFileText());
}

TEST_F(AddLog, OperationalPrivateFileGetsTheLogLine) {
  privateName_ = "operational.systemlog";
  Register(3, "Module3", "Mod3InLog", privateName_.c_str());
  FileCapture system(systemlog);
  std::string before = PrivateFileText();
  tKesAddLogMessage message = AddLogRecord(3, 0x2, 4, 66, "op line");
  process_add_log_message(&message);
  EXPECT_EQ(before +
                "<information>\t2023-11-14T22:13:20.000042\ttesthost\tMod3InLog\t[99]:\t"
                "eventID=66; message=op line\n",
            PrivateFileText());
  EXPECT_EQ("", system.Raw());
}

TEST_F(AddLog, LineLongerThan2047CharactersIsCutAndStillEndsWithNewline) {
  AlarmMap[500] = Entry(500, "major", std::string(1500, 'm'), false, std::string(1000, 'r'));
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x1, 4, 500, "x");
  process_add_log_message(&message);
  std::string raw = system.Raw();
  ASSERT_EQ(KES_MAX_LOG_LINE + 1, raw.size());
  EXPECT_EQ('\n', raw.back());
  EXPECT_EQ(std::string::npos, raw.substr(0, raw.size() - 1).find('\n'));
  EXPECT_EQ(0u, raw.find("<major>\t"));
  EXPECT_EQ(std::string(20, 'r') + "\n", raw.substr(raw.size() - 21));
}

TEST_F(AddLog, EmptyProblemResolutionLeavesTheLineEndingWithTheMessage) {
  AlarmMap[501] = Entry(601, "minor", "Replaced text", false, "");
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x1, 4, 501, "original");
  process_add_log_message(&message);
  EXPECT_EQ(Lines({"<minor>\t2023-11-14T22:13:20.000042\ttesthost\tMod3InLog\t[99]:\t"
                   "eventID=601; message=Replaced text"}),
            system.Lines());
}

TEST_F(AddLog, ProblemResolutionIsAppendedAfterTheMessage) {
  AlarmMap[502] = Entry(502, "critical", "", false, "Call support.");
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x1, 1, 502, "disk gone");
  process_add_log_message(&message);
  EXPECT_EQ(Lines({"<critical>\t2023-11-14T22:13:20.000042\ttesthost\tMod3InLog\t[99]:\t"
                   "eventID=502; message=disk gone; problemResolution=Call support."}),
            system.Lines());
}

TEST_F(AddLog, MappedEventIdZeroKeepsTheRecordsEventId) {
  AlarmMap[503] = Entry(0, "", "", false, "");
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x1, 2, 503, "kept id");
  process_add_log_message(&message);
  EXPECT_EQ(Lines({"<warning>\t2023-11-14T22:13:20.000042\ttesthost\tMod3InLog\t[99]:\t"
                   "eventID=503; message=kept id"}),
            system.Lines());
}

TEST_F(AddLog, TaxonomySeverityDecidesTheFilterOfTheLine) {
  // "debug" from the taxonomy is level 9; a system log filtering at level 8
  // refuses it although the record's own severity (error) would pass.
  AlarmMap[504] = Entry(504, "debug", "", false, "");
  systemlog->severityFilter.Set(DetailedSeverity::INFO_LEVEL);
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x1, 1, 504, "filtered");
  process_add_log_message(&message);
  EXPECT_EQ("", system.Raw());
}

TEST_F(AddLog, AlarmFlagWritesTheAlarmLogAndDispatchesAFaultRecord) {
  ASSERT_EQ(0, FltDispatchInitTx());
  const std::string records = PrivateRootEnvironment::LogDirectory() + "faultrecords.jsonl";
  const std::string before = ReadWholeFile(records);
  AlarmMap[505] = Entry(505, "major", "Fan failed", true, "Replace the fan.");
  FileCapture alarms(alarmLog);
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x2, 1, 505, "fan 2");
  process_add_log_message(&message);
  EXPECT_EQ(Lines({"<major>\t2023-11-14T22:13:20.000042\ttesthost\tMod3InLog\t[99]:\t"
                   "eventID=505; message=Fan failed; problemResolution=Replace the fan."}),
            alarms.Lines());
  EXPECT_EQ("", system.Raw()) << "the system log is not a destination";
  std::string added = ReadWholeFile(records).substr(before.size());
  EXPECT_NE(std::string::npos, added.find("\"eventId\":505,")) << added;
  EXPECT_NE(std::string::npos,
            added.find("\"definedName\":\"systemId=PXR;entityId=testhost;entitySubId=Module3\""))
      << added;
  EXPECT_NE(std::string::npos, added.find("\"raiseTime\":1700000000,")) << added;
  EXPECT_NE(std::string::npos, added.find("\"originalSeverity\":\"major\"")) << added;
  EXPECT_NE(std::string::npos, added.find("\"reason\":\"Fan failed\"")) << added;
  EXPECT_NE(std::string::npos, added.find("\"severity\":4}")) << added;
  FltDispatchTerminate();
}

TEST_F(AddLog, TwoHandlesRegisteredWithOneFileNameShareOneLogFile) {
  Register(4, "Module4", "Mod4InLog", privateName_.c_str());
  AddLogFileEntry(3, 0, 1);
  AddLogFileEntry(4, 0, 2);
  ASSERT_FALSE(logFileArray[3].IsNil());
  EXPECT_EQ(logFileArray[3].Get(), logFileArray[4].Get());
  EXPECT_EQ(logFileArray[3].Get(), logFileMap[privateName_].Get());
}

TEST_F(AddLog, NewPrivateFileIsAnnouncedInTheOwnLog) {
  OwnLogCapture own;
  AddLogFileEntry(3, 0, 4321);
  EXPECT_EQ(std::vector<std::string>(
                {"Module Module3 (4321 on 0) is registering the private log file " + privateName_}),
            own.Texts());
}

TEST_F(AddLog, KnownFileIsReusedSilentlyAndItsLevelPublishedForTheHandle) {
  LogFilePtr known(new LogFile(privateName_));
  known->severityFilter.Set(DetailedSeverity::WARN_LEVEL);
  logFileMap[privateName_] = known;
  mySegment->filter[3] = 8;
  OwnLogCapture own;
  AddLogFileEntry(3, 0, 1);
  EXPECT_EQ(known.Get(), logFileArray[3].Get());
  EXPECT_EQ(2u, mySegment->filter[3]);
  EXPECT_TRUE(own.Texts().empty());
}

TEST_F(AddLog, LeadingSlashesOfTheRegisteredFileNameAreDropped) {
  Register(3, "Module3", "Mod3InLog", ("///" + privateName_).c_str());
  AddLogFileEntry(3, 0, 1);
  ASSERT_FALSE(logFileArray[3].IsNil());
  EXPECT_EQ(privateName_, logFileArray[3]->GetName());
  EXPECT_EQ(1u, logFileMap.count(privateName_));
}

TEST_F(AddLog, ASlotNamingAFileOutsideDropsTheWholeRequest) {
  Register(3, "Module3", "Mod3InLog", "../outside.log");
  AlarmMap[505] = Entry(505, "major", "Fan failed", true, "");
  FileCapture alarms(alarmLog);
  FileCapture system(systemlog);
  OwnLogCapture own;
  tKesAddLogMessage message = AddLogRecord(3, 0x3, 1, 505, "fan 2");
  process_add_log_message(&message);
  process_add_log_message(&message);
  EXPECT_TRUE(logFileArray[3].IsNil());
  EXPECT_EQ("", alarms.Raw());
  EXPECT_EQ("", system.Raw());
  EXPECT_EQ(Lines({"Refused log file name \"../outside.log\": it leads outside the log directory"}),
            own.Texts());
  EXPECT_EQ(0u, logFileMap.count("../outside.log"));
}

TEST_F(AddLog, ARefusedSlotNameTakesTheHandlesEarlierFileAway) {
  AddLogFileEntry(3, 0, 1);
  ASSERT_FALSE(logFileArray[3].IsNil());
  Register(3, "Module3", "Mod3InLog", "a/../../b.log");
  EXPECT_FALSE(AddLogFileEntry(3, 0, 1));
  EXPECT_TRUE(logFileArray[3].IsNil());
}

TEST_F(AddLog, ControlBytesOfTheClientAreEscapedInEveryLine) {
  Register(3, "Module3", "Mod\tInLog", privateName_.c_str());
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x3, 4, 77, "ok\n<error>\tforged\x7f");
  process_add_log_message(&message);
  EXPECT_EQ(Lines({"<information>\t2023-11-14T22:13:20.000042\ttesthost\tMod#011InLog\t[99]:\t"
                   "eventID=77; message=ok#012<error>#011forged#177"}),
            system.Lines());
  EXPECT_EQ("2023-11-14T22:13:20.000 [INFO ] {Mod#011InLog} (77) - ok#012<error>#011forged#177\n",
            PrivateFileText());
}

TEST_F(AddLog, StampAllSkipsASlotWhoseNameIsRefused) {
  Register(5, "Module5", "Mod5InLog", "../stamp-outside.log");
  AddLogFileEntry(3, 0, 1);
  tKesAddLogMessage message =
      AddLogRecord(3, 0x2, 4, 77, "stamp me", 500000, KES_FLAG_STAMP_ALL_LOGS);
  process_add_log_message(&message);
  EXPECT_NE(std::string::npos, PrivateFileText().find("stamp me"));
  EXPECT_TRUE(logFileArray[5].IsNil());
}

TEST_F(AddLog, StampAllWritesEveryFileOnceAndSharedFilesOnce) {
  Register(4, "Module4", "Mod4InLog", privateName_.c_str());
  Register(5, "Module5", "Mod5InLog", "stamp-other.systemlog");
  AddLogFileEntry(3, 0, 1);
  FileCapture system(systemlog);
  OwnLogCapture own;
  tKesAddLogMessage message =
      AddLogRecord(3, 0x2, 4, 77, "stamp me", 500000, KES_FLAG_STAMP_ALL_LOGS);
  LogFilePtr other(new LogFile("stamp-other.systemlog"));
  logFileMap["stamp-other.systemlog"] = other;
  FileCapture otherFile(other);
  process_add_log_message(&message);

  const std::string line =
      "<information>\t2023-11-14T22:13:20.500000\ttesthost\tMod3InLog\t[99]:\teventID=77; "
      "message=stamp me";
  const std::string privateLine = "2023-11-14T22:13:20.500 [INFO ] {Mod3InLog} (77) - stamp me";
  // The shared private file: once from the request itself, once stamped.
  EXPECT_EQ(Lines({privateLine, privateLine}), SplitLines(PrivateFileText()));
  EXPECT_EQ(Lines({line}), system.Lines());
  EXPECT_EQ(Lines({line}), otherFile.Lines());
  EXPECT_EQ(std::vector<std::string>(
                {"Stamping all log files with the following message.", "stamp me",
                 "Module NoNameSupplied (-1 on 0) is registering the private log file "
                 "QrtInternal.log"}),
            own.Texts());
}

TEST_F(AddLog, StampAllCreatesTheFileOfARegisteredHandleThatHasNone) {
  tKesAddLogMessage message = AddLogRecord(3, 0x1, 4, 1, "to all", 0, KES_FLAG_STAMP_ALL_LOGS);
  ASSERT_TRUE(logFileArray[0].IsNil());
  process_add_log_message(&message);
  ASSERT_FALSE(logFileArray[0].IsNil());
  EXPECT_EQ("QrtInternal.log", logFileArray[0]->GetName());
  FlushFiles();
  std::string text = ReadWholeFile(logFileArray[0]->GetPathName());
  EXPECT_NE(std::string::npos, text.find("[INFO ] {Mod3InLog} (1) - to all\n")) << text;
}

TEST_F(AddLog, StampAllWithoutTheSemaphoreStampsNothing) {
  osSysVSemaphoreRemove(ipcSemaphore);
  ipcSemaphore = -1;
  AddLogFileEntry(3, 0, 1);
  OwnLogCapture own;
  FileCapture system(systemlog);
  tKesAddLogMessage message = AddLogRecord(3, 0x2, 4, 1, "no lock", 0, KES_FLAG_STAMP_ALL_LOGS);
  process_add_log_message(&message);
  EXPECT_EQ(std::vector<std::string>({"Semaphore is not initialized.",
                                      "Failed to lock semaphore; cannot stamp all log files."}),
            own.Texts());
  EXPECT_EQ("", system.Raw());
}

TEST_F(AddLog, SecurityLogGetsDefaultEventClass256) {
  LogFilePtr security(new LogFile("security.systemlog"));
  LogFilePtr plain(new LogFile("plain.log"));
  EXPECT_EQ(256u, GetDefaultEventClass(DetailedSeverity::DEBUG_LEVEL, 0, security));
  EXPECT_EQ(256u, GetDefaultEventClass(DetailedSeverity::EMERG_LEVEL, 0xff, security));
  EXPECT_EQ(1u, GetDefaultEventClass(DetailedSeverity::WARN_LEVEL, 0, plain));
  EXPECT_EQ(1u, GetDefaultEventClass(DetailedSeverity::EMERG_LEVEL, 0, LogFilePtr()));
  EXPECT_EQ(2u, GetDefaultEventClass(DetailedSeverity::NOTICE_LEVEL, 0, plain));
  EXPECT_EQ(2u, GetDefaultEventClass(DetailedSeverity::DEBUG_LEVEL, 0xff, plain));
}

TEST_F(AddLog, ValidatingAndProcessingARequestMakesNoHeapAllocation) {
  tKesAddLogMessage message = AddLogRecord(3, 0x3, 4, 1234, "steady state");
  unsigned int slot = 0;
  // The first request creates the private file and opens the files.
  ASSERT_TRUE(ValidateAddLogMessage(&message, SizeOf(message), &slot));
  process_add_log_message(&message);
  g_allocations = 0;
  g_countAllocations = true;
  for (int i = 0; i < 100; ++i) {
    message.eventId = i;
    ValidateAddLogMessage(&message, SizeOf(message), &slot);
    process_add_log_message(&message);
  }
  g_countAllocations = false;
  EXPECT_EQ(0, g_allocations.load());
}

TEST_F(AddLog, AllocationCounterCountsHeapAllocations) {
  g_allocations = 0;
  g_countAllocations = true;
  std::string* heap = new std::string(100, 'x');
  g_countAllocations = false;
  delete heap;
  EXPECT_GE(g_allocations.load(), 2) << "the string object and its characters";
}

unsigned long g_clock = 0;
unsigned long FakeClock() { return g_clock; }

TEST_F(AddLog, FilesAreFlushedOnlyWhenMoreThan4999MillisecondsHavePassed) {
  tOsaOverrides overrides{};
  overrides.clock = FakeClock;
  osSetOverrides(&overrides);
  tKesAddLogMessage message = AddLogRecord(3, 0x1, 4, 1, "flush");
  g_clock = 100000;
  process_add_log_message(&message);  // the first call only notes the time
  EXPECT_TRUE(systemlog->HasUnflushedData());
  g_clock = 104999;
  process_add_log_message(&message);
  EXPECT_TRUE(systemlog->HasUnflushedData());
  g_clock = 105000;
  process_add_log_message(&message);
  EXPECT_FALSE(systemlog->HasUnflushedData());
  g_clock = 109999;
  process_add_log_message(&message);
  EXPECT_TRUE(systemlog->HasUnflushedData()) << "the period starts again at the flush";
}

}  // namespace
}  // namespace kestrin
