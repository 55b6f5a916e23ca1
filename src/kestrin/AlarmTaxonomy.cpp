#include "kestrin/AlarmTaxonomy.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "kestrin/AlarmUtils.h"
#include "kestrin/DataFile.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/TextForms.h"
#include "osa/osa.h"

namespace kestrin {

std::map<int32_t, EventMap> AlarmMap;
LED_Controller LED1(0);
LED_Controller LED2(1);

namespace {

// Sections beyond this many are ignored, without a message.
constexpr int MAX_TAXONOMY_SECTIONS = 4999;

constexpr char TEST_EVENT_PREFIX[] = "Test Event :";
constexpr size_t TEST_EVENT_PREFIX_LENGTH = 12;
constexpr char SNIPPED_PREFIX[] = "<snipped>";
constexpr size_t SNIPPED_PREFIX_LENGTH = 9;

// The taxonomy's flags are true only when the trimmed text is exactly "true":
// unlike the boolean keys of Kestrin.conf, "True", "yes" and "1" are false.
bool FlagValue(const DataFile& file, const char* key) {
  return file.GetTrimmedString(key) == "true";
}

EventMap ReadEntry(const DataFile& file) {
  return EventMap(file.GetInt("sev"), file.GetString("msg"), file.GetInt("newID"),
                  file.GetTrimmedString("newSev"), file.GetTrimmedString("eventClass"),
                  file.GetString("newMsg"), file.GetTrimmedString("LED1"),
                  file.GetTrimmedString("LED2"), file.GetTrimmedString("PowerLED"),
                  file.GetTrimmedString("StatusLED"), FlagValue(file, "trap"),
                  FlagValue(file, "alarm"), FlagValue(file, "alarmSet"), FlagValue(file, "visible"),
                  file.GetString("alarmSetMsg"), file.GetString("alarmFiltDescr"),
                  file.GetString("problemResolution"));
}

void ReadSections(DataFile& file) {
  for (int section = 0; section < MAX_TAXONOMY_SECTIONS; ++section) {
    if (!file.NextSection()) {
      if (OwnLogAdmits(KES_SEVERITY_DEBUG)) LogDebug("Done reading config file.");
      return;
    }
    // A later section with the same eID replaces the earlier one.
    AlarmMap[file.GetInt("eID")] = ReadEntry(file);
  }
}

// The entry that stands in for a taxonomy that cannot be read, so that this
// very problem still reaches the alarm log and LED 2.
EventMap BuiltInTaxonomyErrorEntry() {
  return EventMap(0, "", EventId_ErrorReadingAlarmTaxonomy, "major", "fault",
                  "Logging and Alarms - Error reading the alarm taxonomy file.  The system may "
                  "not be able to raise most alarms.",
                  "", "RED_ON", "ERASE", "WRITE", true, true, true, true, "", "",
                  "Contact your local support group.");
}

void HandleUnreadableTaxonomy(const std::string& reason) {
  if (OwnLogAdmits(KES_SEVERITY_ERROR)) {
    LogError("Exception trying to open alarm taxonomy: <" + reason +
             "> The system may not be able to raise alarms properly.");
  }
  AlarmMap[EventId_ErrorReadingAlarmTaxonomy] = BuiltInTaxonomyErrorEntry();
  RaiseKestrinAlarm(1, KES_SEVERITY_ERROR, EventId_ErrorReadingAlarmTaxonomy, "", 1);
}

bool StartsWith(const char* text, const char* prefix, size_t length) {
  return strncmp(text, prefix, length) == 0;
}

// Drives one LED to `word` and reports the outcome; `number` is 1 or 2.
void UpdateOneLED(LED_Controller& led, int number, const char* word, int32_t eventId) {
  const std::string name = "LED " + std::to_string(number);
  LED_Colour colour;
  LED_States state;
  if (!LED_Controller::mapStateString(word, &colour, &state)) {
    if (OwnLogAdmits(KES_SEVERITY_ERROR)) {
      LogError("Invalid " + name + " state of \"" + word + "\" found for event " +
               std::to_string(eventId));
    }
    return;
  }
  if (!led.setLEDState(colour, state)) {
    if (OwnLogAdmits(KES_SEVERITY_ERROR)) {
      LogError("Error attempting to change " + name + " state to " + word);
    }
    return;
  }
  if (OwnLogAdmits(KES_SEVERITY_INFO)) LogInfo("Changing " + name + " state to " + word);
}

struct StateWord {
  const char* word;
  LED_Colour colour;
  LED_States state;
};

// "RED_OFF" and "YELLOW_OFF" deliberately give ON: only green can be turned
// off by a word; red and yellow go out when green is set (the other-colour
// byte that setLEDState writes first).
constexpr StateWord STATE_WORDS[] = {
    {"GREEN_OFF", GREEN, OFF},
    {"GREEN_ON", GREEN, ON},
    {"GREEN_FLASH", GREEN, FLASH},
    {"GREEN_TWINKLE", GREEN, TWINKLE},
    {"GREEN_BLINK", GREEN, BLINK},
    {"GREEN_FLICKER", GREEN, FLICKER},
    {"GREEN_WINK", GREEN, WINK},
    {"RED_OFF", RED, ON},
    {"RED_ON", RED, ON},
    {"RED_FLASH", RED, FLASH},
    {"RED_TWINKLE", RED, TWINKLE},
    {"RED_BLINK", RED, BLINK},
    {"RED_FLICKER", RED, FLICKER},
    {"RED_WINK", RED, WINK},
    {"YELLOW_OFF", YELLOW, ON},
    {"YELLOW_ON", YELLOW, ON},
    {"YELLOW_FLASH", YELLOW, FLASH},
    {"YELLOW_TWINKLE", YELLOW, TWINKLE},
    {"YELLOW_BLINK", YELLOW, BLINK},
    {"YELLOW_FLICKER", YELLOW, FLICKER},
    {"YELLOW_WINK", YELLOW, WINK},
};

}  // namespace

EventMap::EventMap()
    : sev(0), newID(0), eventClass(0), trap(false), alarm(false), alarmSet(false), visible(false) {}

EventMap::EventMap(int32_t sev, const std::string& msg, int32_t newID, const std::string& newSev,
                   const std::string& eventClass, const std::string& newMsg,
                   const std::string& LED1, const std::string& LED2, const std::string& PowerLED,
                   const std::string& StatusLED, bool trap, bool alarm, bool alarmSet, bool visible,
                   const std::string& alarmSetMsg, const std::string& alarmFiltDescr,
                   const std::string& problemResolution)
    : sev(sev),
      msg(msg),
      newID(newID),
      newSev(newSev),
      severity(newSev),
      eventClass(GetEventClassFromString(eventClass.c_str())),
      newMsg(newMsg),
      LED1(LED1),
      LED2(LED2),
      trap(trap),
      alarm(alarm),
      alarmSet(alarmSet),
      visible(visible),
      alarmSetMsg(alarmSetMsg),
      alarmFiltDescr(alarmFiltDescr),
      problemResolution(problemResolution),
      PowerLED(PowerLED),
      StatusLED(StatusLED) {}

void load_configuration_file() {
  try {
    DataFile file(PathnameOfTaxonomyFile.c_str());
    AlarmMap.clear();
    ReadSections(file);
  } catch (const std::string& reason) {
    HandleUnreadableTaxonomy(reason);
  } catch (const char* reason) {
    HandleUnreadableTaxonomy(reason == nullptr ? "" : reason);
  }
  printf("Configuration complete\n");
  fflush(stdout);
}

void alarmMapper(int32_t eventId, const char* text, int32_t* reportedId, const char** severityWord,
                 DetailedSeverity* severity, uint32_t* eventClass, const char** message,
                 const char** led1, const char** led2, bool* trap, bool* alarm, bool* alarmSet,
                 bool* visible, const char** alarmSetText, const char** alarmFilterDescription,
                 const char** problemResolution) {
  if (text == nullptr) text = "";
  *reportedId = eventId;
  *severityWord = "";
  *severity = DetailedSeverity(DetailedSeverity::ERROR_LEVEL);
  *eventClass = 0;
  *message = text;
  *led1 = *led2 = "";
  *trap = *alarm = *alarmSet = *visible = false;
  *alarmSetText = *alarmFilterDescription = *problemResolution = "";
  if (eventId <= 0) return;
  auto found = AlarmMap.find(eventId);
  if (found == AlarmMap.end()) return;

  const EventMap& entry = found->second;
  *reportedId = entry.newID;
  *severityWord = entry.newSev.c_str();
  *severity = entry.severity;
  *eventClass = entry.eventClass;
  *led1 = entry.LED1.c_str();
  *led2 = entry.LED2.c_str();
  *trap = entry.trap;
  *alarm = entry.alarm;
  *alarmSet = entry.alarmSet;
  *visible = entry.visible;
  *alarmSetText = entry.alarmSetMsg.c_str();
  *alarmFilterDescription = entry.alarmFiltDescr.c_str();
  *problemResolution = entry.problemResolution.c_str();
  // A cut message ("<snipped>...") is better described by the filter
  // description; a test event always keeps its own text.
  if (entry.newMsg.empty() && !entry.alarmFiltDescr.empty() &&
      StartsWith(text, SNIPPED_PREFIX, SNIPPED_PREFIX_LENGTH)) {
    *message = entry.alarmFiltDescr.c_str();
  } else if (!entry.newMsg.empty() &&
             !StartsWith(text, TEST_EVENT_PREFIX, TEST_EVENT_PREFIX_LENGTH)) {
    *message = entry.newMsg.c_str();
  }
}

void UpdateLEDs(const char* led1, const char* led2, int32_t eventId) {
  if (led1 != nullptr && *led1 != '\0') UpdateOneLED(LED1, 1, led1, eventId);
  if (led2 != nullptr && *led2 != '\0') UpdateOneLED(LED2, 2, led2, eventId);
}

bool LED_Controller::mapStateString(const char* word, LED_Colour* colour, LED_States* state) {
  if (word == nullptr) return false;
  for (const StateWord& entry : STATE_WORDS) {
    if (strcmp(word, entry.word) == 0) {
      *colour = entry.colour;
      *state = entry.state;
      return true;
    }
  }
  return false;
}

unsigned char LED_Controller::StateByte(LED_Colour colour, LED_States state) {
  // Bit 3 of a nibble marks the nibble as meant, bits 0 to 2 carry the state;
  // yellow is both colours at once, so it sets both nibbles.
  const unsigned int nibble = static_cast<unsigned int>(state) + 8;
  if (colour == YELLOW) return static_cast<unsigned char>((nibble * 17) % 256);
  return static_cast<unsigned char>(nibble << colour);
}

bool LED_Controller::setLEDState(LED_Colour colour, LED_States state) {
  char device[24];
  snprintf(device, sizeof device, "/dev/led%d", number);
  char path[4096];
  if (osMapPath(device, path, sizeof path) != OS_OK) return false;

  // The driver is told one byte per open: first switch the other colour's
  // nibble off (bit 3 alone), then write the state.
  if (colour == RED || colour == GREEN) {
    const LED_Colour other = colour == RED ? GREEN : RED;
    if (osWriteDeviceByte(path, static_cast<unsigned char>(8u << other)) != OS_OK) return false;
  }
  return osWriteDeviceByte(path, StateByte(colour, state)) == OS_OK;
}

int sendToAlarmSet(bool alarmSet, const tKesAddLogMessage* request, int32_t eventId,
                   const char* alarmSetText, const char* queueName) {
  if (!alarmSet || queueName == nullptr || *queueName == '\0') return 0;
  tKesAlarmSetRecord record;
  memset(&record, 0, sizeof record);
  record.zero = 0;
  record.one = 1;
  record.requestSeverity = request->severity;
  record.eventId = eventId;
  const char* text =
      (alarmSetText != nullptr && *alarmSetText != '\0') ? alarmSetText : request->text;
  osLStrCpyn(record.text, text, sizeof record.text);

  long queue = 0;
  int result = osQueueGetId(queueName, &queue);
  if (result != OS_OK) return result;
  return osQueueSend(queue, &record, offsetof(tKesAlarmSetRecord, text) + strlen(record.text) + 1);
}

}  // namespace kestrin
