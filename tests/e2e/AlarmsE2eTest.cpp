// The alarm taxonomy through the real daemon: a mapped request becomes an
// alarm-log line, a fault record and LED changes. The two LED devices are
// FIFOs, so every byte the daemon writes to them is seen.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "KestrinServer.h"
#include "qrt/QrtDiag.h"

namespace kestrin_e2e {
namespace {

using Texts = std::vector<std::string>;

constexpr char DUMP_END[] = "****************END of registration table dump****************";

constexpr char TAXONOMY[] =
    "[Fan stopped]\n"
    "eID=500\n"
    "sev=2\n"
    "msg=kept for reference\n"
    "newID=501\n"
    "newSev=major\n"
    "eventClass=fault\n"
    "newMsg=Cooling - Fan stopped.\n"
    "LED1=YELLOW_ON\n"
    "LED2=GREEN_FLASH\n"
    "trap=true\n"
    "alarm=true\n"
    "visible=true\n"
    "alarmSetMsg=Fan alarm-set text\n"
    "alarmFiltDescr=Fan filter\n"
    "problemResolution=Replace the fan.\n"
    "\n"
    "[Red off lights red]\n"
    "eID=510\n"
    "newSev=minor\n"
    "LED1=RED_OFF\n"
    "\n"
    "[Unknown LED word]\n"
    "eID=520\n"
    "newID=520\n"
    "newSev=warning\n"
    "LED1=BLUE_ON\n"
    "LED2=RED_BLINK\n"
    "\n"
    "[Snipped texts]\n"
    "eID=530\n"
    "newID=530\n"
    "newSev=minor\n"
    "visible=true\n"
    "alarmFiltDescr=Snipped filter text\n"
    "\n"
    "[Flags that are not exactly true]\n"
    "eID=540\n"
    "newID=540\n"
    "newSev=major\n"
    "trap=True\n"
    "alarm=yes\n"
    "visible=1\n"
    "\n"
    "[Flag with blanks]\n"
    "eID=550\n"
    "newID=550\n"
    "newSev=minor\n"
    "visible = true \n";

std::string AlarmLine(const std::string& severity, int eventId, const std::string& message) {
  return "<" + severity + ">\t2023-11-14T22:13:20.000042\t" + ThisHostName() +
         "\tAppLog\t[99]:\teventID=" + std::to_string(eventId) + "; message=" + message;
}

bool WaitForOwnLogCount(const KestrinServer& server, const std::string& text, int count) {
  return WaitUntil([&]() { return Count(server.OwnLogTexts(), text) >= count; });
}

// The string value of `key`, or "<missing>" / "<not a string>".
std::string StringOf(const flt_test::JsonObject& record, const std::string& key) {
  auto found = record.values.find(key);
  if (found == record.values.end()) return "<missing>";
  if (found->second.kind != flt_test::JsonValue::STRING) return "<not a string>";
  return found->second.text;
}

// The integer value of `key`, or -999999 when it is missing or not one.
long long IntegerOf(const flt_test::JsonObject& record, const std::string& key) {
  auto found = record.values.find(key);
  if (found == record.values.end() || found->second.kind != flt_test::JsonValue::INTEGER) {
    return -999999;
  }
  return found->second.number;
}

// The records of `eventId`.
std::vector<flt_test::JsonObject> RecordsOf(const KestrinServer& server, int eventId) {
  std::vector<flt_test::JsonObject> found;
  for (const flt_test::JsonObject& record : FaultRecords(server)) {
    if (IntegerOf(record, "eventId") == eventId) found.push_back(record);
  }
  return found;
}

// A daemon with the taxonomy above, both LED devices as FIFOs, and module
// "App" registered.
class E2eAlarms : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(led0_.Open());
    ASSERT_TRUE(led1_.Open());
    server_.WriteFile("kv/etc/KestrinTaxonomy", TAXONOMY);
    server_.Start();
    ASSERT_TRUE(server_.WaitForReady()) << server_.Stdout();
    ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("App", "AppLog", 0, "app.log", &handle_));
  }

  void TearDown() override {
    EXPECT_EQ(0, server_.Run({"stop"}).status);
    EXPECT_EQ(0, server_.WaitForExit());
  }

  void Send(int eventId, const std::string& text, uint32_t severity = 4) {
    SendAddLogRecord(server_, MakeAddLogRecord(handle_, 0x1, severity, eventId, text));
  }

  // Every request sent before has been handled once this returns.
  void DumpAndWait() {
    ++dumps_;
    server_.SendHeader(15);
    ASSERT_TRUE(WaitForOwnLogCount(server_, DUMP_END, dumps_));
  }

  KestrinServer server_;
  LedFifo led0_{server_, 0};
  LedFifo led1_{server_, 1};
  int handle_ = -1;
  int dumps_ = 0;
};

TEST_F(E2eAlarms, MappedAlarmWritesTheAlarmLineAFaultRecordAndBothLeds) {
  Send(500, "fan 2 stopped");
  ASSERT_TRUE(server_.WaitForLogLine("alarms.systemlog", "Cooling - Fan stopped."));
  const std::string line =
      AlarmLine("major", 501, "Cooling - Fan stopped.; problemResolution=Replace the fan.");
  EXPECT_EQ(Texts({line}), server_.LogLines("alarms.systemlog"));
  ASSERT_TRUE(server_.WaitForLogLine("system.log", "Cooling - Fan stopped."));
  EXPECT_EQ(1, Count(server_.LogLines("system.log"), line));

  ASSERT_TRUE(WaitUntil([&]() { return !FaultRecords(server_).empty(); }));
  std::vector<flt_test::JsonObject> records = FaultRecords(server_);
  ASSERT_EQ(1u, records.size());
  const flt_test::JsonObject& record = records[0];
  EXPECT_EQ(Texts({"eventId", "sequence", "definedName", "raiseTime", "isClear", "originalSeverity",
                   "reason", "alarmSetText", "alarmSetQueue", "severity"}),
            record.keys);
  EXPECT_EQ(501, IntegerOf(record, "eventId"));
  EXPECT_EQ(0, IntegerOf(record, "sequence"));
  EXPECT_EQ("systemId=PXR;entityId=" + ThisHostName() + ";entitySubId=App",
            StringOf(record, "definedName"));
  EXPECT_EQ(1700000000, IntegerOf(record, "raiseTime"));
  ASSERT_EQ(flt_test::JsonValue::BOOLEAN, record.values.at("isClear").kind);
  EXPECT_FALSE(record.values.at("isClear").flag);
  EXPECT_EQ("major", StringOf(record, "originalSeverity"));
  EXPECT_EQ("Cooling - Fan stopped.", StringOf(record, "reason"));
  EXPECT_EQ("Fan alarm-set text", StringOf(record, "alarmSetText"));
  EXPECT_EQ("Fan filter", StringOf(record, "alarmSetQueue"));
  EXPECT_EQ(4, IntegerOf(record, "severity")) << "Major";

  // YELLOW_ON: both nibbles at once. GREEN_FLASH: red off, then green.
  EXPECT_EQ(std::string("\x99"), led0_.WaitForBytes(1));
  EXPECT_EQ(std::string("\x08\xA0"), led1_.WaitForBytes(2));
  DumpAndWait();
  EXPECT_EQ(std::string("\x99"), led0_.Bytes());
  EXPECT_EQ(std::string("\x08\xA0"), led1_.Bytes());
  Texts texts = server_.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "Changing LED 1 state to YELLOW_ON"));
  EXPECT_EQ(1, Count(texts, "Changing LED 2 state to GREEN_FLASH"));
}

TEST_F(E2eAlarms, SequenceNumbersCountUpFromZeroAcrossNotifications) {
  Send(500, "first");
  Send(530, "second");
  Send(500, "third");
  ASSERT_TRUE(WaitUntil([&]() { return FaultRecords(server_).size() >= 3; }));
  DumpAndWait();
  std::vector<flt_test::JsonObject> records = FaultRecords(server_);
  ASSERT_EQ(3u, records.size());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(i, IntegerOf(records[i], "sequence"));
  EXPECT_EQ(530, IntegerOf(records[1], "eventId"));
}

TEST_F(E2eAlarms, RedOffWritesGreenOffThenRedOnAndKeepsTheRequestsId) {
  Send(510, "red off");
  EXPECT_EQ(std::string("\x80\x09"), led0_.WaitForBytes(2));
  ASSERT_TRUE(server_.WaitForLogLine("system.log", "red off"));
  EXPECT_EQ(1, Count(server_.LogLines("system.log"), AlarmLine("minor", 510, "red off")));
  DumpAndWait();
  EXPECT_EQ(std::string("\x80\x09"), led0_.Bytes());
  EXPECT_EQ("", led1_.Bytes());
  EXPECT_TRUE(server_.LogLines("alarms.systemlog").empty());
  EXPECT_TRUE(FaultRecords(server_).empty()) << "neither trap, alarm nor visible";
  EXPECT_EQ(1, Count(server_.OwnLogTexts(), "Changing LED 1 state to RED_OFF"));
}

TEST_F(E2eAlarms, UnknownLedWordIsReportedAndTheOtherLedStillChanges) {
  Send(520, "blue");
  EXPECT_EQ(std::string("\x80\x0C"), led1_.WaitForBytes(2));
  DumpAndWait();
  EXPECT_EQ("", led0_.Bytes());
  EXPECT_EQ(std::string("\x80\x0C"), led1_.Bytes());
  Texts texts = server_.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "Invalid LED 1 state of \"BLUE_ON\" found for event 520"));
  EXPECT_EQ(1, Count(texts, "Changing LED 2 state to RED_BLINK"));
}

TEST_F(E2eAlarms, TestEventKeepsItsOwnTextDespiteTheReplacement) {
  Send(500, "Test Event : drill");
  ASSERT_TRUE(server_.WaitForLogLine("alarms.systemlog", "drill"));
  EXPECT_EQ(
      Texts({AlarmLine("major", 501, "Test Event : drill; problemResolution=Replace the fan.")}),
      server_.LogLines("alarms.systemlog"));
  ASSERT_TRUE(WaitUntil([&]() { return !FaultRecords(server_).empty(); }));
  EXPECT_EQ("Test Event : drill", StringOf(FaultRecords(server_)[0], "reason"));
}

TEST_F(E2eAlarms, SnippedTextTakesTheFilterDescriptionOnlyWithoutAReplacement) {
  Send(530, "<snipped>a long text cut short");
  Send(500, "<snipped>fan text cut short");
  ASSERT_TRUE(server_.WaitForLogLine("alarms.systemlog", "Cooling"));
  ASSERT_TRUE(server_.WaitForLogLine("system.log", "Snipped filter text"));
  Texts lines = server_.LogLines("system.log");
  EXPECT_EQ(1, Count(lines, AlarmLine("minor", 530, "Snipped filter text")));
  EXPECT_EQ(1,
            Count(lines, AlarmLine("major", 501,
                                   "Cooling - Fan stopped.; problemResolution=Replace the fan.")));
  ASSERT_TRUE(WaitUntil([&]() { return FaultRecords(server_).size() >= 2; }));
  std::vector<flt_test::JsonObject> records = RecordsOf(server_, 530);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("Snipped filter text", StringOf(records[0], "reason"));
  EXPECT_EQ("minor", StringOf(records[0], "originalSeverity"));
  EXPECT_EQ(5, IntegerOf(records[0], "severity")) << "Minor";
}

TEST_F(E2eAlarms, FlagsAreTrueOnlyWhenTheTrimmedWordIsExactlyTrue) {
  Send(540, "True, yes and 1");
  Send(550, "blanks around true");
  ASSERT_TRUE(WaitUntil([&]() { return !RecordsOf(server_, 550).empty(); }));
  DumpAndWait();
  std::vector<flt_test::JsonObject> records = FaultRecords(server_);
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ(550, IntegerOf(records[0], "eventId"));
  EXPECT_TRUE(server_.LogLines("alarms.systemlog").empty()) << "neither is an alarm";
  ASSERT_TRUE(server_.WaitForLogLine("system.log", "blanks around true"));
  EXPECT_EQ(1, Count(server_.LogLines("system.log"), AlarmLine("major", 540, "True, yes and 1")));
}

TEST_F(E2eAlarms, EventWithoutAnEntryIsLoggedAsItCame) {
  Send(599, "not in the taxonomy", 2);
  Send(0, "event zero", 2);
  DumpAndWait();
  ASSERT_TRUE(server_.WaitForLogLine("system.log", "event zero"));
  Texts lines = server_.LogLines("system.log");
  EXPECT_EQ(1, Count(lines, AlarmLine("warning", 599, "not in the taxonomy")));
  EXPECT_EQ(1, Count(lines, AlarmLine("warning", 0, "event zero")));
  EXPECT_TRUE(FaultRecords(server_).empty());
  EXPECT_EQ("", led0_.Bytes());
  EXPECT_EQ("", led1_.Bytes());
}

TEST_F(E2eAlarms, RereadReplacesTheWholeTaxonomy) {
  server_.WriteFile("kv/etc/KestrinTaxonomy",
                    "[Pump]\n"
                    "eID=600\n"
                    "newID=601\n"
                    "newSev=minor\n"
                    "newMsg=Pump - Pressure low.\n");
  Finished hup = server_.Run({"hup"});
  ASSERT_EQ(0, hup.status) << hup.out;
  ASSERT_TRUE(server_.WaitForOutput("Configuration complete\n", 10000, 2));
  Send(500, "fan after the re-read");
  Send(600, "pump after the re-read");
  DumpAndWait();
  ASSERT_TRUE(server_.WaitForLogLine("system.log", "Pump - Pressure low."));
  Texts lines = server_.LogLines("system.log");
  EXPECT_EQ(1, Count(lines, AlarmLine("information", 500, "fan after the re-read")));
  EXPECT_EQ(1, Count(lines, AlarmLine("minor", 601, "Pump - Pressure low.")));
  EXPECT_TRUE(server_.LogLines("alarms.systemlog").empty());
  EXPECT_TRUE(FaultRecords(server_).empty());
  EXPECT_EQ("", led0_.Bytes());
  EXPECT_EQ("", led1_.Bytes());
}

// An LED device that cannot be opened for writing (here a directory) is
// reported and skipped; the other LED still changes.
TEST(E2eLeds, DeviceThatCannotBeOpenedIsReportedAndTheOtherLedStillChanges) {
  KestrinServer server;
  std::filesystem::create_directories(server.Root() + "/dev/led0");
  LedFifo led1(server, 1);
  ASSERT_TRUE(led1.Open());
  server.WriteFile("kv/etc/KestrinTaxonomy", TAXONOMY);
  server.Start();
  ASSERT_TRUE(server.WaitForReady()) << server.Stdout();
  int handle = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("App", "AppLog", 0, "app.log", &handle));
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x1, 4, 500, "fan 3 stopped"));
  EXPECT_EQ(std::string("\x08\xA0"), led1.WaitForBytes(2));
  EXPECT_TRUE(server.WaitForOwnLogText("Error attempting to change LED 1 state to YELLOW_ON"));
  EXPECT_TRUE(server.WaitForOwnLogText("Changing LED 2 state to GREEN_FLASH"));
  EXPECT_EQ(0, Count(server.OwnLogTexts(), "Changing LED 1 state to YELLOW_ON"));
  EXPECT_TRUE(server.WaitForLogLine("alarms.systemlog", "Cooling - Fan stopped."));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
}

}  // namespace
}  // namespace kestrin_e2e
