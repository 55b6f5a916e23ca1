#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kestrin/AlarmTaxonomy.h"
#include "kestrin/AlarmTestSupport.h"
#include "kestrin/AlarmUtils.h"
#include "kestrin/Globals.h"
#include "kestrin/TestTempDir.h"
#include "osa/osa.h"

namespace kestrin {
namespace {

// Own log captured, events recorded by the fake client library (and
// submitted at once), AlarmMap empty.
class Taxonomy : public OwnLogTest {
 protected:
  void SetUp() override {
    OwnLogTest::SetUp();
    FakeClientLibrary::Install();
    IssueDeferredKestrinAlarms();
    AlarmMap.clear();
  }
  void TearDown() override {
    AlarmMap.clear();
    OwnLogTest::TearDown();
  }

  // Writes `content` as the taxonomy and loads it; returns standard output.
  std::string Load(const std::string& content) {
    PathnameOfTaxonomyFile = dir_.Write("KestrinTaxonomy", content);
    return LoadCapturingOutput();
  }
  static std::string LoadCapturingOutput() {
    ::testing::internal::CaptureStdout();
    load_configuration_file();
    return ::testing::internal::GetCapturedStdout();
  }

  TestTempDir dir_;
};

// The outputs of alarmMapper, gathered for comparison.
struct Mapped {
  int32_t id = -99;
  const char* severityWord = nullptr;
  DetailedSeverity severity;
  uint32_t eventClass = 99;
  const char* message = nullptr;
  const char* led1 = nullptr;
  const char* led2 = nullptr;
  bool trap = true, alarm = true, alarmSet = true, visible = true;
  const char* alarmSetText = nullptr;
  const char* alarmFilterDescription = nullptr;
  const char* problemResolution = nullptr;
};

Mapped Map(int32_t eventId, const char* text) {
  Mapped m;
  alarmMapper(eventId, text, &m.id, &m.severityWord, &m.severity, &m.eventClass, &m.message,
              &m.led1, &m.led2, &m.trap, &m.alarm, &m.alarmSet, &m.visible, &m.alarmSetText,
              &m.alarmFilterDescription, &m.problemResolution);
  return m;
}

void ExpectPresets(const Mapped& m, int32_t eventId, const char* text) {
  EXPECT_EQ(eventId, m.id);
  EXPECT_STREQ("", m.severityWord);
  EXPECT_EQ(DetailedSeverity::ERROR_LEVEL, m.severity.GetLevel());
  EXPECT_EQ(0u, m.eventClass);
  EXPECT_EQ(text, m.message);  // the request's own text, not a copy
  EXPECT_STREQ("", m.led1);
  EXPECT_STREQ("", m.led2);
  EXPECT_FALSE(m.trap);
  EXPECT_FALSE(m.alarm);
  EXPECT_FALSE(m.alarmSet);
  EXPECT_FALSE(m.visible);
  EXPECT_STREQ("", m.alarmSetText);
  EXPECT_STREQ("", m.alarmFilterDescription);
  EXPECT_STREQ("", m.problemResolution);
}

const char FULL_ENTRY[] =
    "[Disk full]\n"
    "eID = 1234\n"
    "sev = 3\n"
    "msg = original text\n"
    "newID = 5678\n"
    "newSev =  critical \n"
    "eventClass = Maintenance\n"
    "newMsg = Disk full\n"
    "LED1 = GREEN_FLASH \n"
    "LED2 =\tRED_ON\n"
    "PowerLED = ERASE\n"
    "StatusLED = WRITE\n"
    "trap = true\n"
    "alarm = true\n"
    "alarmSet = true\n"
    "visible = true\n"
    "alarmSetMsg = set text\n"
    "alarmFiltDescr = filter text\n"
    "problemResolution = Free some space.\n";

// ---- Loading -----------------------------------------------------------------

TEST_F(Taxonomy, LoadsEveryKeyOfAnEntry) {
  Load(FULL_ENTRY);
  ASSERT_EQ(1u, AlarmMap.count(1234));
  const EventMap& e = AlarmMap[1234];
  EXPECT_EQ(3, e.sev);
  EXPECT_EQ(" original text", e.msg);
  EXPECT_EQ(5678, e.newID);
  EXPECT_EQ("critical", e.newSev);
  EXPECT_EQ(DetailedSeverity::CRIT_LEVEL, e.severity.GetLevel());
  EXPECT_EQ(64u, e.eventClass);
  EXPECT_EQ(" Disk full", e.newMsg);
  EXPECT_EQ("GREEN_FLASH", e.LED1);
  EXPECT_EQ("RED_ON", e.LED2);
  EXPECT_EQ("ERASE", e.PowerLED);
  EXPECT_EQ("WRITE", e.StatusLED);
  EXPECT_TRUE(e.trap);
  EXPECT_TRUE(e.alarm);
  EXPECT_TRUE(e.alarmSet);
  EXPECT_TRUE(e.visible);
  EXPECT_EQ(" set text", e.alarmSetMsg);
  EXPECT_EQ(" filter text", e.alarmFiltDescr);
  EXPECT_EQ(" Free some space.", e.problemResolution);
}

TEST_F(Taxonomy, RawTextsKeepTheSpaceAfterTheEqualsSign) {
  Load("[a]\neID = 1\nnewMsg = Disk full\n");
  EXPECT_EQ(" Disk full", AlarmMap[1].newMsg);
}

TEST_F(Taxonomy, EntryWithoutEIDIsStoredUnderZeroAndNeverFound) {
  Load("[no id]\nnewID = 77\nnewMsg=mapped\n");
  ASSERT_EQ(1u, AlarmMap.size());
  EXPECT_EQ(77, AlarmMap[0].newID);
  const char text[] = "own";
  ExpectPresets(Map(0, text), 0, text);
}

TEST_F(Taxonomy, LaterEntryWithTheSameEIDWins) {
  Load("[first]\neID = 5\nnewID = 50\n\n[second]\neID = 5\nnewID = 51\n");
  ASSERT_EQ(1u, AlarmMap.size());
  EXPECT_EQ(51, AlarmMap[5].newID);
}

TEST_F(Taxonomy, FlagsAreTrueOnlyForTheExactTrimmedWordTrue) {
  Load(
      "[a]\neID = 1\ntrap = TRUE\nalarm = True\nalarmSet = yes\nvisible = 1\n\n"
      "[b]\neID = 2\ntrap = true\nalarm=true\nalarmSet =\ttrue \nvisible = true\n");
  EXPECT_FALSE(AlarmMap[1].trap);
  EXPECT_FALSE(AlarmMap[1].alarm);
  EXPECT_FALSE(AlarmMap[1].alarmSet);
  EXPECT_FALSE(AlarmMap[1].visible);
  EXPECT_TRUE(AlarmMap[2].trap);
  EXPECT_TRUE(AlarmMap[2].alarm);
  EXPECT_TRUE(AlarmMap[2].alarmSet);
  EXPECT_TRUE(AlarmMap[2].visible);
}

TEST_F(Taxonomy, EIDIsReadUntrimmedWithAtoi) {
  // atoi stops at the first non-digit and skips leading blanks.
  Load("[a]\neID =  42abc\nnewID = 7x\nsev = -3\n");
  ASSERT_EQ(1u, AlarmMap.count(42));
  EXPECT_EQ(7, AlarmMap[42].newID);
  EXPECT_EQ(-3, AlarmMap[42].sev);
}

TEST_F(Taxonomy, UnknownSeverityAndClassWordsGiveErrorAndUnspecified) {
  Load("[a]\neID = 1\nnewSev = bogus\neventClass = nothing\n");
  EXPECT_EQ("bogus", AlarmMap[1].newSev);
  EXPECT_EQ(DetailedSeverity::ERROR_LEVEL, AlarmMap[1].severity.GetLevel());
  EXPECT_EQ(0u, AlarmMap[1].eventClass);
}

TEST_F(Taxonomy, AbsentKeysReadAsZeroAndEmpty) {
  Load("[a]\neID = 9\n");
  const EventMap& e = AlarmMap[9];
  EXPECT_EQ(0, e.sev);
  EXPECT_EQ(0, e.newID);
  EXPECT_EQ("", e.newSev);
  EXPECT_EQ("", e.newMsg);
  EXPECT_EQ(0u, e.eventClass);
  EXPECT_FALSE(e.trap || e.alarm || e.alarmSet || e.visible);
}

TEST_F(Taxonomy, DoneMessageAndConfigurationCompleteAfterTheLastSection) {
  OwnLogCapture log;
  EXPECT_EQ("Configuration complete\n", Load("[a]\neID = 1\n"));
  EXPECT_EQ(std::vector<std::string>{"DEBUG|-1|Done reading config file."}, ReportLines(log));
}

std::string Sections(int count) {
  std::string content;
  for (int i = 1; i <= count; ++i) {
    content += "[s" + std::to_string(i) + "]\neID = " + std::to_string(i) + "\n";
  }
  return content;
}

TEST_F(Taxonomy, FiveThousandthSectionIsNotLoaded) {
  OwnLogCapture log;
  EXPECT_EQ("Configuration complete\n", Load(Sections(5000)));
  EXPECT_EQ(4999u, AlarmMap.size());
  EXPECT_EQ(1u, AlarmMap.count(4999));
  EXPECT_EQ(0u, AlarmMap.count(5000));
  // The limit ends the walk without a message.
  EXPECT_TRUE(ReportLines(log).empty());
}

TEST_F(Taxonomy, ExactlyFourThousandNineHundredNinetyNineSectionsAreAllLoaded) {
  Load(Sections(4999));
  EXPECT_EQ(4999u, AlarmMap.size());
}

TEST_F(Taxonomy, ReloadDropsEntriesNoLongerInTheFile) {
  Load("[a]\neID = 1\n\n[b]\neID = 2\n");
  ASSERT_EQ(2u, AlarmMap.size());
  Load("[b]\neID = 2\n");
  EXPECT_EQ(1u, AlarmMap.size());
  EXPECT_EQ(1u, AlarmMap.count(2));
}

TEST_F(Taxonomy, MissingFileKeepsOldEntriesAddsBuiltInEntryAndRaises7001) {
  Load("[a]\neID = 1\nnewID = 10\n");
  PathnameOfTaxonomyFile = dir_.PathOf("missing");
  OwnLogCapture log;
  EXPECT_EQ("Configuration complete\n", LoadCapturingOutput());

  EXPECT_EQ(std::vector<std::string>{"ERROR|-1|Exception trying to open alarm taxonomy: "
                                     "<DataFile::DataFile failed to open file " +
                                     dir_.PathOf("missing") +
                                     ".> The system may not be able to raise alarms properly."},
            ReportLines(log));
  EXPECT_EQ(std::vector<std::string>{FakeClientLibrary::Event(1, 1, 7001, 1, "")},
            FakeClientLibrary::Events());

  ASSERT_EQ(2u, AlarmMap.size());
  EXPECT_EQ(10, AlarmMap[1].newID);
  const EventMap& e = AlarmMap[7001];
  EXPECT_EQ(0, e.sev);
  EXPECT_EQ("", e.msg);
  EXPECT_EQ(7001, e.newID);
  EXPECT_EQ("major", e.newSev);
  EXPECT_EQ(DetailedSeverity::MAJOR_LEVEL, e.severity.GetLevel());
  EXPECT_EQ(1u, e.eventClass);
  EXPECT_EQ(
      "Logging and Alarms - Error reading the alarm taxonomy file.  The system may not be able "
      "to raise most alarms.",
      e.newMsg);
  EXPECT_EQ("", e.LED1);
  EXPECT_EQ("RED_ON", e.LED2);
  EXPECT_EQ("ERASE", e.PowerLED);
  EXPECT_EQ("WRITE", e.StatusLED);
  EXPECT_TRUE(e.trap && e.alarm && e.alarmSet && e.visible);
  EXPECT_EQ("", e.alarmSetMsg);
  EXPECT_EQ("", e.alarmFiltDescr);
  EXPECT_EQ("Contact your local support group.", e.problemResolution);
}

TEST_F(Taxonomy, MissingFileReplacesAnEarlier7001Entry) {
  Load("[mine]\neID = 7001\nnewID = 1\n");
  PathnameOfTaxonomyFile = dir_.PathOf("missing");
  LoadCapturingOutput();
  EXPECT_EQ(7001, AlarmMap[7001].newID);
}

TEST_F(Taxonomy, MissingFileAlarmIsDeferredUntilEventsArePossible) {
  FakeClientLibrary::Install();  // events not yet possible
  PathnameOfTaxonomyFile = dir_.PathOf("missing");
  LoadCapturingOutput();
  EXPECT_TRUE(FakeClientLibrary::Events().empty());
  IssueDeferredKestrinAlarms();
  EXPECT_EQ(std::vector<std::string>{FakeClientLibrary::Event(1, 1, 7001, 1, "")},
            FakeClientLibrary::Events());
}

TEST_F(Taxonomy, EventMapCopiesOwnTheirStrings) {
  EventMap copy;
  {
    EventMap original(1, "m", 2, "minor", "state", "n", "GREEN_ON", "RED_ON", "p", "s", true, false,
                      true, false, "as", "fd", "pr");
    copy = original;
    EventMap constructed(original);
    EXPECT_EQ("pr", constructed.problemResolution);
  }
  EXPECT_EQ(DetailedSeverity::MINOR_LEVEL, copy.severity.GetLevel());
  EXPECT_EQ(4u, copy.eventClass);
  EXPECT_EQ("GREEN_ON", copy.LED1);
  EXPECT_TRUE(copy.trap);
  EXPECT_FALSE(copy.alarm);
  EXPECT_EQ("fd", copy.alarmFiltDescr);
}

TEST_F(Taxonomy, DefaultEventMapIsEmpty) {
  EventMap e;
  EXPECT_EQ(0, e.newID);
  EXPECT_EQ(0u, e.eventClass);
  EXPECT_EQ(DetailedSeverity::ERROR_LEVEL, e.severity.GetLevel());
  EXPECT_FALSE(e.trap || e.alarm || e.alarmSet || e.visible);
}

// ---- alarmMapper ---------------------------------------------------------------

TEST_F(Taxonomy, UnmappedEventKeepsThePresets) {
  Load(FULL_ENTRY);
  const char text[] = "hello";
  ExpectPresets(Map(999, text), 999, text);
}

TEST_F(Taxonomy, NegativeEventIdIsNotLookedUp) {
  Load("[a]\neID = -5\nnewID = 1\n");
  ASSERT_EQ(1u, AlarmMap.count(-5));
  const char text[] = "x";
  ExpectPresets(Map(-5, text), -5, text);
}

TEST_F(Taxonomy, MappedEventTakesTheEntrysValues) {
  Load(FULL_ENTRY);
  Mapped m = Map(1234, "request text");
  EXPECT_EQ(5678, m.id);
  EXPECT_STREQ("critical", m.severityWord);
  EXPECT_EQ(DetailedSeverity::CRIT_LEVEL, m.severity.GetLevel());
  EXPECT_EQ(64u, m.eventClass);
  EXPECT_STREQ(" Disk full", m.message);
  EXPECT_STREQ("GREEN_FLASH", m.led1);
  EXPECT_STREQ("RED_ON", m.led2);
  EXPECT_TRUE(m.trap && m.alarm && m.alarmSet && m.visible);
  EXPECT_STREQ(" set text", m.alarmSetText);
  EXPECT_STREQ(" filter text", m.alarmFilterDescription);
  EXPECT_STREQ(" Free some space.", m.problemResolution);
  // The texts point into the map.
  EXPECT_EQ(AlarmMap[1234].newMsg.c_str(), m.message);
}

TEST_F(Taxonomy, ReportedIdZeroFromTheEntryIsPassedOn) {
  Load("[a]\neID = 3\n");
  EXPECT_EQ(0, Map(3, "t").id);
}

TEST_F(Taxonomy, TestEventKeepsItsOwnTextEvenWithNewMsg) {
  Load("[a]\neID = 1\nnewMsg = replaced\n");
  const char text[] = "Test Event : checking";
  EXPECT_EQ(text, Map(1, text).message);
  EXPECT_STREQ(" replaced", Map(1, "Test Event:checking").message);  // not the 12 characters
}

TEST_F(Taxonomy, SnippedTextTakesAlarmFiltDescrOnlyWhenNewMsgIsEmpty) {
  Load(
      "[no newMsg]\neID = 1\nalarmFiltDescr=filter text\n\n"
      "[with newMsg]\neID = 2\nnewMsg=new text\nalarmFiltDescr=filter text\n\n"
      "[neither]\neID = 3\n");
  const char snipped[] = "<snipped>tail of a long message";
  EXPECT_STREQ("filter text", Map(1, snipped).message);
  EXPECT_STREQ("new text", Map(2, snipped).message);
  EXPECT_EQ(snipped, Map(3, snipped).message);
  const char plain[] = "not snipped";
  EXPECT_EQ(plain, Map(1, plain).message);
}

TEST_F(Taxonomy, SnippedTestEventWithNewMsgKeepsItsText) {
  Load("[a]\neID = 1\nnewMsg=new\n");
  const char text[] = "Test Event : <snipped>";
  EXPECT_EQ(text, Map(1, text).message);
}

// ---- LEDs ------------------------------------------------------------------------

class Leds : public Taxonomy {
 protected:
  LedDevices devices_;
};

using Bytes = std::vector<int>;

TEST_F(Leds, GreenFlashOnLed2WritesOtherColourOffThenTheState) {
  OwnLogCapture log;
  UpdateLEDs("", "GREEN_FLASH", 5);
  EXPECT_EQ((Bytes{0x08, 0xA0}), devices_.Bytes(1));
  EXPECT_EQ(Bytes{}, devices_.Bytes(0));
  EXPECT_EQ(std::vector<std::string>{"INFO|-1|Changing LED 2 state to GREEN_FLASH"},
            ReportLines(log));
}

TEST_F(Leds, YellowOnOnLed1WritesTheSingleByte0x99ToDevice0) {
  OwnLogCapture log;
  UpdateLEDs("YELLOW_ON", nullptr, 5);
  EXPECT_EQ(Bytes{0x99}, devices_.Bytes(0));
  EXPECT_EQ(Bytes{}, devices_.Bytes(1));
  EXPECT_EQ(std::vector<std::string>{"INFO|-1|Changing LED 1 state to YELLOW_ON"},
            ReportLines(log));
}

TEST_F(Leds, RedOffWritesGreenOffThenRedOn) {
  UpdateLEDs("RED_OFF", "", 5);
  EXPECT_EQ((Bytes{0x80, 0x09}), devices_.Bytes(0));
}

TEST_F(Leds, BothLedsInOneCallLed1First) {
  OwnLogCapture log;
  UpdateLEDs("GREEN_ON", "RED_WINK", 5);
  EXPECT_EQ((Bytes{0x08, 0x90}), devices_.Bytes(0));
  EXPECT_EQ((Bytes{0x80, 0x0E}), devices_.Bytes(1));
  EXPECT_EQ((std::vector<std::string>{"INFO|-1|Changing LED 1 state to GREEN_ON",
                                      "INFO|-1|Changing LED 2 state to RED_WINK"}),
            ReportLines(log));
}

TEST_F(Leds, EveryStateWordWritesItsBytes) {
  struct Case {
    const char* word;
    Bytes bytes;
  };
  const Case cases[] = {
      {"GREEN_OFF", {0x08, 0x80}},   {"GREEN_ON", {0x08, 0x90}},
      {"GREEN_FLASH", {0x08, 0xA0}}, {"GREEN_TWINKLE", {0x08, 0xB0}},
      {"GREEN_BLINK", {0x08, 0xC0}}, {"GREEN_FLICKER", {0x08, 0xD0}},
      {"GREEN_WINK", {0x08, 0xE0}},  {"RED_OFF", {0x80, 0x09}},
      {"RED_ON", {0x80, 0x09}},      {"RED_FLASH", {0x80, 0x0A}},
      {"RED_TWINKLE", {0x80, 0x0B}}, {"RED_BLINK", {0x80, 0x0C}},
      {"RED_FLICKER", {0x80, 0x0D}}, {"RED_WINK", {0x80, 0x0E}},
      {"YELLOW_OFF", {0x99}},        {"YELLOW_ON", {0x99}},
      {"YELLOW_FLASH", {0xAA}},      {"YELLOW_TWINKLE", {0xBB}},
      {"YELLOW_BLINK", {0xCC}},      {"YELLOW_FLICKER", {0xDD}},
      {"YELLOW_WINK", {0xEE}},
  };
  for (const Case& c : cases) {
    UpdateLEDs(c.word, "", 1);
    EXPECT_EQ(c.bytes, devices_.Bytes(0)) << c.word;
  }
}

TEST_F(Leds, StateByteOfYellowOffIs0x88) {
  EXPECT_EQ(0x88, LED_Controller::StateByte(YELLOW, OFF));
  EXPECT_EQ(0xEE, LED_Controller::StateByte(YELLOW, WINK));
  EXPECT_EQ(0x08, LED_Controller::StateByte(RED, OFF));
  EXPECT_EQ(0xE0, LED_Controller::StateByte(GREEN, WINK));
  // Setting yellow off directly writes exactly that one byte.
  EXPECT_TRUE(LED1.setLEDState(YELLOW, OFF));
  EXPECT_EQ(Bytes{0x88}, devices_.Bytes(0));
}

TEST_F(Leds, MapStateStringIsExactAndCaseSensitive) {
  LED_Colour colour = GREEN;
  LED_States state = WINK;
  EXPECT_FALSE(LED_Controller::mapStateString("green_on", &colour, &state));
  EXPECT_FALSE(LED_Controller::mapStateString("GREEN_ON ", &colour, &state));
  EXPECT_FALSE(LED_Controller::mapStateString(nullptr, &colour, &state));
  EXPECT_EQ(GREEN, colour);
  EXPECT_EQ(WINK, state);
  EXPECT_TRUE(LED_Controller::mapStateString("RED_OFF", &colour, &state));
  EXPECT_EQ(RED, colour);
  EXPECT_EQ(ON, state);
  EXPECT_TRUE(LED_Controller::mapStateString("YELLOW_OFF", &colour, &state));
  EXPECT_EQ(YELLOW, colour);
  EXPECT_EQ(ON, state);
  EXPECT_TRUE(LED_Controller::mapStateString("GREEN_OFF", &colour, &state));
  EXPECT_EQ(GREEN, colour);
  EXPECT_EQ(OFF, state);
}

TEST_F(Leds, UnknownWordIsLoggedAndTheOtherLedStillHandled) {
  OwnLogCapture log;
  UpdateLEDs("BLUE_ON", "GREEN_ON", 42);
  EXPECT_EQ(Bytes{}, devices_.Bytes(0));
  EXPECT_EQ((Bytes{0x08, 0x90}), devices_.Bytes(1));
  EXPECT_EQ(
      (std::vector<std::string>{"ERROR|-1|Invalid LED 1 state of \"BLUE_ON\" found for event 42",
                                "INFO|-1|Changing LED 2 state to GREEN_ON"}),
      ReportLines(log));
}

TEST_F(Leds, UnknownWordOnLed2IsLoggedWithItsNumber) {
  OwnLogCapture log;
  UpdateLEDs(nullptr, "green_on", -7);
  EXPECT_EQ(
      std::vector<std::string>{"ERROR|-1|Invalid LED 2 state of \"green_on\" found for event -7"},
      ReportLines(log));
}

TEST_F(Leds, DeviceThatCannotBeOpenedIsLoggedAndTheOtherLedStillHandled) {
  devices_.Break(0);
  OwnLogCapture log;
  UpdateLEDs("GREEN_ON", "YELLOW_BLINK", 3);
  EXPECT_EQ(Bytes{0xCC}, devices_.Bytes(1));
  EXPECT_EQ((std::vector<std::string>{"ERROR|-1|Error attempting to change LED 1 state to GREEN_ON",
                                      "INFO|-1|Changing LED 2 state to YELLOW_BLINK"}),
            ReportLines(log));
  EXPECT_FALSE(LED1.setLEDState(YELLOW, ON));
}

TEST_F(Leds, DeviceThatRefusesWritesFails) {
  // /dev/full takes the open but refuses every byte.
  devices_.Break(1);
  std::filesystem::remove(LedDevices::Path(1));
  std::filesystem::create_symlink("/dev/full", LedDevices::Path(1));
  OwnLogCapture log;
  EXPECT_FALSE(LED2.setLEDState(GREEN, ON));
  EXPECT_FALSE(LED2.setLEDState(YELLOW, ON));
  UpdateLEDs(nullptr, "RED_ON", 3);
  EXPECT_EQ(std::vector<std::string>{"ERROR|-1|Error attempting to change LED 2 state to RED_ON"},
            ReportLines(log));
}

TEST_F(Leds, EmptyWordsLeaveBothLedsAlone) {
  OwnLogCapture log;
  UpdateLEDs("", "", 1);
  UpdateLEDs(nullptr, nullptr, 1);
  EXPECT_EQ(Bytes{}, devices_.Bytes(0));
  EXPECT_EQ(Bytes{}, devices_.Bytes(1));
  EXPECT_TRUE(ReportLines(log).empty());
}

TEST_F(Leds, InfoMessageIsNotWrittenWhenTheOwnLogTakesOnlyWarnings) {
  logger->severityFilter.Set(DetailedSeverity::WARN_LEVEL);
  OwnLogCapture log;
  UpdateLEDs("GREEN_ON", "", 1);
  EXPECT_EQ((Bytes{0x08, 0x90}), devices_.Bytes(0));
  EXPECT_TRUE(ReportLines(log).empty());
}

// ---- sendToAlarmSet ------------------------------------------------------------

class AlarmSet : public Taxonomy {
 protected:
  void SetUp() override {
    Taxonomy::SetUp();
    queueName_ = std::string("AlarmSetTest_") +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name();
    ASSERT_EQ(OS_OK, osQueueGetId(queueName_.c_str(), &queue_));
    memset(&request_, 0, sizeof request_);
    request_.header.version = 34;
    request_.header.type = 1;
    request_.severity = 0x11223344;
    strcpy(request_.text, "request text");
  }
  void TearDown() override {
    osQueueDelete(queueName_.c_str());
    Taxonomy::TearDown();
  }

  // One message off the queue, or an empty vector after 200 ms.
  std::vector<unsigned char> Receive() {
    std::vector<unsigned char> buffer(8192);
    size_t received = 0;
    if (osQueueReceive(queue_, buffer.data(), buffer.size(), &received, 200) != OS_OK) return {};
    buffer.resize(received);
    return buffer;
  }

  std::string queueName_;
  long queue_ = -1;
  tKesAddLogMessage request_;
};

template <typename T>
T At(const std::vector<unsigned char>& bytes, size_t offset) {
  T value;
  memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

TEST_F(AlarmSet, RecordCarriesTheFieldsAtTheirOffsets) {
  ASSERT_EQ(0, sendToAlarmSet(true, &request_, 0x01020304, "alarm text", queueName_.c_str()));
  std::vector<unsigned char> bytes = Receive();
  ASSERT_EQ(41u + strlen("alarm text"), bytes.size());
  EXPECT_EQ(0, At<uint16_t>(bytes, 0));
  EXPECT_EQ(1, At<uint16_t>(bytes, 2));
  // Bytes 12 to 15 are the request's, byte for byte.
  EXPECT_EQ(0,
            memcmp(bytes.data() + 12, reinterpret_cast<const unsigned char*>(&request_) + 12, 4));
  EXPECT_EQ(0x01020304, At<int32_t>(bytes, 20));
  EXPECT_EQ("alarm text", std::string(reinterpret_cast<const char*>(bytes.data()) + 40));
  EXPECT_EQ(0, bytes.back());
}

TEST_F(AlarmSet, EmptyAlarmSetTextSendsTheRequestsText) {
  ASSERT_EQ(0, sendToAlarmSet(true, &request_, 9, "", queueName_.c_str()));
  std::vector<unsigned char> bytes = Receive();
  ASSERT_EQ(41u + strlen("request text"), bytes.size());
  EXPECT_EQ("request text", std::string(reinterpret_cast<const char*>(bytes.data()) + 40));
}

TEST_F(AlarmSet, TextIsCutAt899Characters) {
  std::string longText(1000, 'x');
  ASSERT_EQ(0, sendToAlarmSet(true, &request_, 9, longText.c_str(), queueName_.c_str()));
  std::vector<unsigned char> bytes = Receive();
  ASSERT_EQ(940u, bytes.size());
  EXPECT_EQ(std::string(899, 'x'), std::string(reinterpret_cast<const char*>(bytes.data()) + 40));
}

TEST_F(AlarmSet, NothingIsSentWithoutTheFlagOrAQueueName) {
  EXPECT_EQ(0, sendToAlarmSet(false, &request_, 9, "t", queueName_.c_str()));
  EXPECT_EQ(0, sendToAlarmSet(true, &request_, 9, "t", ""));
  EXPECT_EQ(0, sendToAlarmSet(true, &request_, 9, "t", nullptr));
  EXPECT_TRUE(Receive().empty());
}

TEST_F(AlarmSet, QueueLookupFailureIsReturnedUnlogged) {
  OwnLogCapture log;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, sendToAlarmSet(true, &request_, 9, "t", "bad/name"));
  EXPECT_TRUE(ReportLines(log).empty());
}

}  // namespace
}  // namespace kestrin
