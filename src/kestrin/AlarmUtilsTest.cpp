#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "flt/FltRecord.h"
#include "kestrin/AlarmTestSupport.h"
#include "kestrin/AlarmUtils.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "osa/osa.h"

namespace kestrin {
namespace {

using Lines = std::vector<std::string>;

std::string Event(int destination, int severity, unsigned long eventId, int eventClass,
                  const std::string& text) {
  return FakeClientLibrary::Event(destination, severity, eventId, eventClass, text);
}

// ---- InternalEventManager ------------------------------------------------------

class InternalEvents : public OwnLogTest {
 protected:
  void SetUp() override {
    OwnLogTest::SetUp();
    FakeClientLibrary::Install();
  }
};

TEST_F(InternalEvents, EventsBeforeIssueAreDeferredThenSubmittedInOrder) {
  RaiseKestrinAlarm(1, 1, 7001, "first", 1);
  RaiseKestrinAlarm(1, 2, 7010, "second", 2);
  RaiseKestrinAlarm(4, 8, 7040, nullptr, 1);
  EXPECT_TRUE(FakeClientLibrary::Events().empty());
  EXPECT_TRUE(FakeClientLibrary::Registrations().empty());
  EXPECT_EQ(3u, InternalEventManager::Instance().GetDeferredEventCount());

  IssueDeferredKestrinAlarms();
  EXPECT_EQ((Lines{Event(1, 1, 7001, 1, "first"), Event(1, 2, 7010, 2, "second"),
                   Event(4, 8, 7040, 1, "")}),
            FakeClientLibrary::Events());
  EXPECT_EQ(0u, InternalEventManager::Instance().GetDeferredEventCount());
}

TEST_F(InternalEvents, TwentySixthAndLaterDeferredEventsAreLost) {
  for (unsigned long id = 1; id <= 30; ++id) RaiseKestrinAlarm(1, 1, id, "e", 1);
  EXPECT_EQ(25u, InternalEventManager::Instance().GetDeferredEventCount());
  IssueDeferredKestrinAlarms();
  Lines expected;
  for (unsigned long id = 1; id <= 25; ++id) expected.push_back(Event(1, 1, id, 1, "e"));
  EXPECT_EQ(expected, FakeClientLibrary::Events());
}

TEST_F(InternalEvents, RegistersAsKestrinWithTheOwnLogsFileName) {
  IssueDeferredKestrinAlarms();
  EXPECT_EQ(Lines{"Kestrin|Kestrin|0|Kestrin.log"}, FakeClientLibrary::Registrations());
  EXPECT_EQ(FakeClientLibrary::HANDLE, InternalEventManager::Instance().GetHandle());
  RaiseKestrinAlarm(1, 1, 7002, "", 1);
  RaiseKestrinAlarm(1, 1, 7002, "", 1);
  // Registered once; the handle is kept.
  EXPECT_EQ(1u, FakeClientLibrary::Registrations().size());
}

TEST_F(InternalEvents, FailedRegistrationKeepsEventsDeferredUntilTheNextEventAfterSuccess) {
  FakeClientLibrary::RegisterResult() = 1;
  RaiseKestrinAlarm(1, 1, 1, "one", 1);
  RaiseKestrinAlarm(1, 1, 2, "two", 1);
  IssueDeferredKestrinAlarms();
  EXPECT_TRUE(FakeClientLibrary::Events().empty());
  EXPECT_EQ(2u, InternalEventManager::Instance().GetDeferredEventCount());
  EXPECT_EQ(-1, InternalEventManager::Instance().GetHandle());

  // Still failing: the new event joins the deferred ones; registration was
  // tried again.
  RaiseKestrinAlarm(1, 1, 3, "three", 1);
  EXPECT_TRUE(FakeClientLibrary::Events().empty());
  EXPECT_EQ(3u, InternalEventManager::Instance().GetDeferredEventCount());
  EXPECT_EQ(2u, FakeClientLibrary::Registrations().size());

  FakeClientLibrary::RegisterResult() = 0;
  RaiseKestrinAlarm(1, 1, 4, "four", 1);
  EXPECT_EQ((Lines{Event(1, 1, 1, 1, "one"), Event(1, 1, 2, 1, "two"), Event(1, 1, 3, 1, "three"),
                   Event(1, 1, 4, 1, "four")}),
            FakeClientLibrary::Events());
  EXPECT_EQ(0u, InternalEventManager::Instance().GetDeferredEventCount());
}

TEST_F(InternalEvents, DeferralLimitStillAppliesAfterIssueWhileRegistrationFails) {
  FakeClientLibrary::RegisterResult() = 1;
  IssueDeferredKestrinAlarms();
  for (unsigned long id = 1; id <= 27; ++id) RaiseKestrinAlarm(1, 1, id, "", 1);
  EXPECT_EQ(25u, InternalEventManager::Instance().GetDeferredEventCount());
}

TEST_F(InternalEvents, AfterIssueEventsAreSubmittedAtOnce) {
  IssueDeferredKestrinAlarms();
  RaiseKestrinAlarm(1, 2, 7013, "now", 2);
  EXPECT_EQ(Lines{Event(1, 2, 7013, 2, "now")}, FakeClientLibrary::Events());
}

TEST_F(InternalEvents, FailedSubmissionIsLoggedAndNotRepeated) {
  RaiseKestrinAlarm(1, 1, 7001, "deferred", 1);
  FakeClientLibrary::AddLogResult() = 3;
  OwnLogCapture log;
  IssueDeferredKestrinAlarms();
  RaiseKestrinAlarm(1, 1, 7010, "direct", 1);
  EXPECT_EQ((Lines{"ERROR|-1|Error 3 calling QrtDiagAddLogWithEvClass for eventID 7001",
                   "ERROR|-1|Error 3 calling QrtDiagAddLogWithEvClass for eventID 7010"}),
            ReportLines(log));
  EXPECT_EQ(0u, InternalEventManager::Instance().GetDeferredEventCount());
  FakeClientLibrary::AddLogResult() = 0;
  RaiseKestrinAlarm(1, 1, 7011, "next", 1);
  EXPECT_EQ((Lines{Event(1, 1, 7001, 1, "deferred"), Event(1, 1, 7010, 1, "direct"),
                   Event(1, 1, 7011, 1, "next")}),
            FakeClientLibrary::Events());
}

TEST_F(InternalEvents, EventIdIsPassedOnAsUnsigned32Bits) {
  IssueDeferredKestrinAlarms();
  RaiseKestrinAlarm(1, 8, static_cast<unsigned long>(-1), "clear", 2);
  EXPECT_EQ(Lines{Event(1, 8, 4294967295ul, 2, "clear")}, FakeClientLibrary::Events());
}

TEST_F(InternalEvents, EventsMayBeRaisedFromManyThreads) {
  IssueDeferredKestrinAlarms();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 50; ++i) RaiseKestrinAlarm(1, 1, t * 100 + i, "x", 1);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(200u, FakeClientLibrary::Events().size());
}

TEST_F(InternalEvents, ManagerWithItsOwnFunctionsIsIndependentOfTheProcessWideOne) {
  static Lines submitted;
  submitted.clear();
  InternalEventManager manager(
      [](const char*, const char*, int, const char*, int* handle) {
        *handle = 3;
        return 0;
      },
      [](int handle, unsigned char, unsigned short, unsigned long eventId, const char* text,
         unsigned long) {
        submitted.push_back(std::to_string(handle) + ":" + std::to_string(eventId) + ":" + text);
        return 0;
      });
  manager.GenerateEvent(1, 1, 11, "a", 1);
  manager.SystemCanGenerateEvents();
  manager.GenerateEvent(1, 1, 12, "b", 1);
  EXPECT_EQ((Lines{"3:11:a", "3:12:b"}), submitted);
  EXPECT_TRUE(FakeClientLibrary::Events().empty());
}

TEST(DeferredEvent, AccessorsReturnTheConstructorsValues) {
  std::string text = "held";
  DeferredEvent event(4, 2, 4000000000u, text, 256);
  text = "changed";
  EXPECT_EQ(4, event.GetDestinationLogs());
  EXPECT_EQ(2, event.GetSeverity());
  EXPECT_EQ(4000000000u, event.GetEventID());
  EXPECT_EQ("held", event.GetMessage());
  EXPECT_EQ(256u, event.GetEventClass());
}

// ---- ThrottledEventPoint ------------------------------------------------------------

unsigned long g_clock = 0;
unsigned long FakeClock() { return g_clock; }

Lines g_syslog;
int RecordSyslog(int priority, const char* text) {
  g_syslog.push_back(std::to_string(priority) + ":" + text);
  return 0;
}

// Events possible from the start, the clock under the test's control.
class Throttle : public InternalEvents {
 protected:
  void SetUp() override {
    InternalEvents::SetUp();
    IssueDeferredKestrinAlarms();
    g_clock = 5000000;
    overrides_ = tOsaOverrides{};
    overrides_.clock = FakeClock;
    overrides_.syslog = RecordSyslog;
    g_syslog.clear();
    osSetOverrides(&overrides_);
  }
  void TearDown() override {
    osSetOverrides(nullptr);
    InternalEvents::TearDown();
  }

  tOsaOverrides overrides_{};
};

std::string Warn(unsigned long id, const std::string& text) {
  return "WARN|" + std::to_string(static_cast<int>(id)) + "|" + text;
}

TEST_F(Throttle, TwelveRaisesInOneSecondLogTenMessagesAndRaiseOneAlarm) {
  ThrottledEventPoint point(KES_SEVERITY_WARNING, EventId_VersionMismatchError);
  OwnLogCapture log;
  for (int i = 0; i < 12; ++i) {
    point.Raise("Version mismatch");
    g_clock += 80;
  }
  Lines expected(9, Warn(7010, "Version mismatch"));
  expected.push_back(
      Warn(7010, "Version mismatch (In future, similar messages may be suppressed.)"));
  EXPECT_EQ(expected, ReportLines(log));
  EXPECT_EQ(Lines{Event(1, 2, 7010, 1, "Version mismatch")}, FakeClientLibrary::Events());
}

TEST_F(Throttle, RaiseTenSecondsLaterReportsTheSuppressedCount) {
  ThrottledEventPoint point(KES_SEVERITY_WARNING, EventId_VersionMismatchError);
  const unsigned long start = g_clock;
  for (int i = 0; i < 12; ++i) point.Raise("Version mismatch");
  // The last message went out at `start`; 9999 ms later is still too early.
  g_clock = start + 9999;
  OwnLogCapture log;
  point.Raise("Version mismatch");
  EXPECT_TRUE(ReportLines(log).empty());
  g_clock = start + 10000;
  point.Raise("Version mismatch");
  EXPECT_EQ(Lines{Warn(7010, "Version mismatch (Suppressed 3 similar messages.)")},
            ReportLines(log));
  // No second alarm within the hour.
  EXPECT_EQ(1u, FakeClientLibrary::Events().size());
}

TEST_F(Throttle, RaiseTenSecondsAfterTwelveReportsTwoSuppressed) {
  ThrottledEventPoint point(KES_SEVERITY_WARNING, EventId_VersionMismatchError);
  for (int i = 0; i < 12; ++i) point.Raise("Version mismatch");
  g_clock += 10000;
  OwnLogCapture log;
  point.Raise("Version mismatch");
  EXPECT_EQ(Lines{Warn(7010, "Version mismatch (Suppressed 2 similar messages.)")},
            ReportLines(log));
}

TEST_F(Throttle, AfterTheIntervalWithNothingSuppressedTheTextStandsAlone) {
  ThrottledEventPoint point(KES_SEVERITY_WARNING, 7012);
  for (int i = 0; i < 10; ++i) point.Raise("queue");
  g_clock += 10000;
  OwnLogCapture log;
  point.Raise("queue");
  EXPECT_EQ(Lines{Warn(7012, "queue")}, ReportLines(log));
}

TEST_F(Throttle, AlarmIsRaisedAgainAfterAnHourWithAMessage) {
  ThrottledEventPoint point(KES_SEVERITY_ERROR, EventId_ErrorReadingQueue);
  for (int i = 0; i < 12; ++i) point.Raise("queue broken");
  g_clock += 3599999;
  point.Raise("queue broken");
  EXPECT_EQ(1u, FakeClientLibrary::Events().size());
  g_clock += 1;
  OwnLogCapture log;
  point.Raise("queue broken");
  EXPECT_EQ(Lines{"ERROR|7012|queue broken"}, ReportLines(log));
  EXPECT_EQ((Lines{Event(1, 1, 7012, 1, "queue broken"), Event(1, 1, 7012, 1, "queue broken")}),
            FakeClientLibrary::Events());
}

TEST_F(Throttle, EmptyOrNullTextRaisesTheAlarmWithoutAMessage) {
  ThrottledEventPoint point(KES_SEVERITY_WARNING, 7011);
  OwnLogCapture log;
  point.Raise(nullptr);
  point.Raise("");
  EXPECT_TRUE(ReportLines(log).empty());
  EXPECT_EQ(Lines{Event(1, 2, 7011, 1, "")}, FakeClientLibrary::Events());
  // Empty raises are not counted as suppressed messages.
  for (int i = 0; i < 10; ++i) point.Raise("text");
  g_clock += 10000;
  point.Raise("text");
  Lines lines = ReportLines(log);
  ASSERT_EQ(11u, lines.size());
  EXPECT_EQ(Warn(7011, "text"), lines.back());
}

TEST_F(Throttle, ClearWithoutRaiseLogsButRaisesNothingAndASecondClearDoesNothing) {
  ThrottledEventPoint point(KES_SEVERITY_WARNING, 7030, KES_SEVERITY_INFO, 7031);
  OwnLogCapture log;
  point.Clear("all well");
  point.Clear("all well again");
  EXPECT_EQ(Lines{"INFO|7031|all well"}, ReportLines(log));
  EXPECT_TRUE(FakeClientLibrary::Events().empty());
}

TEST_F(Throttle, ClearAfterRaiseRaisesTheClearEvent) {
  ThrottledEventPoint point(KES_SEVERITY_ERROR, 7030, KES_SEVERITY_INFO, 7031);
  point.Raise("master down");
  OwnLogCapture log;
  point.Clear("master up");
  EXPECT_EQ(Lines{"INFO|7031|master up"}, ReportLines(log));
  EXPECT_EQ((Lines{Event(1, 1, 7030, 1, "master down"), Event(1, 4, 7031, 2, "master up")}),
            FakeClientLibrary::Events());
}

TEST_F(Throttle, ShortConstructorClearsAtDebugWithEventIdMinusOne) {
  ThrottledEventPoint point(KES_SEVERITY_WARNING, 7040);
  point.Raise("resize failed");
  OwnLogCapture log;
  point.Clear("resized");
  EXPECT_EQ(Lines{"DEBUG|-1|resized"}, ReportLines(log));
  EXPECT_EQ(Event(1, 8, 4294967295ul, 2, "resized"), FakeClientLibrary::Events().back());
}

TEST_F(Throttle, ClearWithEmptyTextStillRaisesTheClearEvent) {
  ThrottledEventPoint point(KES_SEVERITY_WARNING, 7030, KES_SEVERITY_INFO, 7031);
  point.Raise("down");
  OwnLogCapture log;
  point.Clear(nullptr);
  EXPECT_TRUE(ReportLines(log).empty());
  EXPECT_EQ(Event(1, 4, 7031, 2, ""), FakeClientLibrary::Events().back());
}

TEST_F(Throttle, RaiseAfterClearRaisesAgainButStaysThrottledForLife) {
  ThrottledEventPoint point(KES_SEVERITY_WARNING, 7030, KES_SEVERITY_INFO, 7031);
  for (int i = 0; i < 10; ++i) point.Raise("down");
  point.Clear("up");
  OwnLogCapture log;
  point.Raise("down");  // the alarm is due again, so is its message
  point.Raise("down");  // 11 messages issued already: suppressed
  EXPECT_EQ(Lines{Warn(7030, "down")}, ReportLines(log));
  EXPECT_EQ(3u, FakeClientLibrary::Events().size());
  EXPECT_EQ(Event(1, 2, 7030, 1, "down"), FakeClientLibrary::Events().back());
}

TEST_F(Throttle, IntervalsSurviveAClockWrap) {
  g_clock = 0xFFFFFFFFul - 100;
  ThrottledEventPoint point(KES_SEVERITY_WARNING, 7013);
  for (int i = 0; i < 11; ++i) point.Raise("bad");
  g_clock = 9899;  // 10000 ms after the last message, across the wrap
  OwnLogCapture log;
  point.Raise("bad");
  EXPECT_EQ(Lines{Warn(7013, "bad (Suppressed 1 similar messages.)")}, ReportLines(log));
}

TEST_F(Throttle, MessagesAreNotWrittenWhenTheOwnLogRefusesTheirSeverity) {
  logger->severityFilter.Set(DetailedSeverity::MAJOR_LEVEL);  // errors and warnings only
  ThrottledEventPoint point(KES_SEVERITY_INFO, 7031);
  OwnLogCapture log;
  point.Raise("info");
  EXPECT_TRUE(ReportLines(log).empty());
  // Not composed at all, so it does not fall back to syslog either.
  EXPECT_TRUE(g_syslog.empty());
  EXPECT_EQ(1u, FakeClientLibrary::Events().size());
}

// ---- SendAlarmNotification ----------------------------------------------------------

std::string LastLine(const std::string& path) {
  std::ifstream in(path);
  std::string line, last;
  while (std::getline(in, line)) last = line;
  return last;
}

class Notification : public InternalEvents {
 protected:
  void SetUp() override {
    InternalEvents::SetUp();
    ASSERT_EQ(FLT_OK, FltDispatchInitTx());
    strcpy(Hostname, "card7");
    trapCount = 0;
  }
  void TearDown() override {
    FltDispatchTerminate();
    strcpy(Hostname, "UnknownHost");
    InternalEvents::TearDown();
  }
  static std::string RecordFile() {
    return PrivateRootEnvironment::LogDirectory() + "faultrecords.jsonl";
  }
};

TEST_F(Notification, WritesAFaultRecordWithEveryField) {
  SendAlarmNotification(7001, "DiskMonitor", 1700000000, "major", 4, "Disk \"sda\" full",
                        "set text", "AlarmQueue");
  EXPECT_EQ(
      "{\"eventId\":7001,\"sequence\":0,"
      "\"definedName\":\"systemId=PXR;entityId=card7;entitySubId=DiskMonitor\","
      "\"raiseTime\":1700000000,\"isClear\":false,\"originalSeverity\":\"major\","
      "\"reason\":\"Disk \\\"sda\\\" full\",\"alarmSetText\":\"set text\","
      "\"alarmSetQueue\":\"AlarmQueue\",\"severity\":4}",
      LastLine(RecordFile()));
}

TEST_F(Notification, SequenceNumbersRunUpTo99998AndWrapToZero) {
  trapCount = 99997;
  std::vector<std::string> sequences;
  for (int i = 0; i < 4; ++i) {
    SendAlarmNotification(1, "m", 0, "minor", 5, "r", "", "");
    std::string line = LastLine(RecordFile());
    size_t start = line.find("\"sequence\":") + 11;
    sequences.push_back(line.substr(start, line.find(',', start) - start));
  }
  EXPECT_EQ((Lines{"99997", "99998", "0", "1"}), sequences);
  EXPECT_EQ(2u, trapCount);
}

TEST_F(Notification, NullTextsAreEmpty) {
  SendAlarmNotification(-3, nullptr, -1, nullptr, -2, nullptr, nullptr, nullptr);
  EXPECT_EQ(
      "{\"eventId\":-3,\"sequence\":0,"
      "\"definedName\":\"systemId=PXR;entityId=card7;entitySubId=\","
      "\"raiseTime\":-1,\"isClear\":false,\"originalSeverity\":\"\",\"reason\":\"\","
      "\"alarmSetText\":\"\",\"alarmSetQueue\":\"\",\"severity\":-2}",
      LastLine(RecordFile()));
}

TEST_F(Notification, DispatchFailureIsLoggedAsAnError) {
  FltDispatchTerminate();
  OwnLogCapture log;
  SendAlarmNotification(7001, "m", 0, "major", 4, "r", "", "");
  EXPECT_EQ(Lines{"ERROR|-1|Error 1 attempting to dispatch event 7001"}, ReportLines(log));
  // The number was used all the same.
  EXPECT_EQ(1u, trapCount);
}

TEST_F(Notification, SequenceNumbersAreUniqueAcrossThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 50; ++i) SendAlarmNotification(2, "m", 0, "minor", 5, "r", "", "");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(200u, trapCount);
}

}  // namespace
}  // namespace kestrin
