// The alarm taxonomy: per event ID, how a request with that ID is reported
// (ID, severity, class, text), whether it becomes a trap, alarm, alarm-set
// entry or visible event, and which state the card's two LEDs take.
//
// AlarmMap is filled by load_configuration_file and read by alarmMapper, both
// on the main thread only.
#ifndef KESTRIN_KESTRIN_ALARM_TAXONOMY_H_
#define KESTRIN_KESTRIN_ALARM_TAXONOMY_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "kestrin/Records.h"
#include "kestrin/Severity.h"

namespace kestrin {

// One taxonomy entry.
class EventMap {
 public:
  EventMap();
  EventMap(int32_t sev, const std::string& msg, int32_t newID, const std::string& newSev,
           const std::string& eventClass, const std::string& newMsg, const std::string& LED1,
           const std::string& LED2, const std::string& PowerLED, const std::string& StatusLED,
           bool trap, bool alarm, bool alarmSet, bool visible, const std::string& alarmSetMsg,
           const std::string& alarmFiltDescr, const std::string& problemResolution);

  int32_t sev;
  std::string msg;
  int32_t newID;
  std::string newSev;
  DetailedSeverity severity;
  uint32_t eventClass;
  std::string newMsg;
  std::string LED1;
  std::string LED2;
  bool trap;
  bool alarm;
  bool alarmSet;
  bool visible;
  std::string alarmSetMsg;
  std::string alarmFiltDescr;
  std::string problemResolution;
  std::string PowerLED;
  std::string StatusLED;
};

// Event ID to entry.
extern std::map<int32_t, EventMap> AlarmMap;

// Rebuilds AlarmMap from PathnameOfTaxonomyFile (at most 4999 sections).
// When the file cannot be opened the old entries stay, the built-in 7001
// entry is added and alarm 7001 raised. Prints "Configuration complete".
void load_configuration_file();

// Looks a request up in AlarmMap. Output texts point into the request's text
// or into AlarmMap and stay valid until the next load.
void alarmMapper(int32_t eventId, const char* text, int32_t* reportedId, const char** severityWord,
                 DetailedSeverity* severity, uint32_t* eventClass, const char** message,
                 const char** led1, const char** led2, bool* trap, bool* alarm, bool* alarmSet,
                 bool* visible, const char** alarmSetText, const char** alarmFilterDescription,
                 const char** problemResolution);

// Drives LED 1 then LED 2 to the given state words (empty: no change).
void UpdateLEDs(const char* led1, const char* led2, int32_t eventId);

enum LED_Colour { RED = 0, GREEN = 4, YELLOW = 8 };
enum LED_States { OFF = 0, ON = 1, FLASH = 2, TWINKLE = 3, BLINK = 4, FLICKER = 5, WINK = 6 };

// One LED device, "/dev/led<number>" (under KESTRIN_ROOT when set). The
// device takes one byte per open: two nibbles, red low and green high, each
// meant only when its bit 3 is set, bits 0 to 2 holding the LED_States value.
class LED_Controller {
 public:
  explicit LED_Controller(int32_t number) : number(number) {}
  // For red or green, first writes the byte that switches the other colour
  // off (0x80 before red, 0x08 before green), then the state byte, opening
  // the device anew ("wb") for each. False when an open or a write fails.
  bool setLEDState(LED_Colour colour, LED_States state);
  // The colour and state of a state word ("GREEN_FLASH", ...), exact and
  // case-sensitive; false (outputs untouched) for an unknown or null word.
  static bool mapStateString(const char* word, LED_Colour* colour, LED_States* state);
  // The state byte: (state + 8) << colour for red and green, the same value
  // in both nibbles for yellow (0x88 for OFF up to 0xEE for WINK).
  static unsigned char StateByte(LED_Colour colour, LED_States state);

 private:
  int32_t number;
};

extern LED_Controller LED1;  // device 0
extern LED_Controller LED2;  // device 1

// The record sendToAlarmSet puts on an alarm-set queue, in the host's own
// byte order (big-endian on the cards). Only the first
// offsetof(text) + strlen(text) + 1 bytes are sent; the unused areas are
// zero and carry no meaning.
//
//   offset size field
//        0    2 0
//        2    2 1
//        4    8 unused
//       12    4 the request's severity word (offset 12 of tKesAddLogMessage)
//       16    4 unused
//       20    4 event ID
//       24   16 unused
//       40  900 text, NUL-terminated (at most 899 characters)
struct tKesAlarmSetRecord {
  uint16_t zero;
  uint16_t one;
  unsigned char unused1[8];
  uint32_t requestSeverity;
  unsigned char unused2[4];
  int32_t eventId;
  unsigned char unused3[16];
  char text[KES_MAX_MESSAGE_TEXT];
};
static_assert(offsetof(tKesAlarmSetRecord, one) == 2, "alarm-set layout");
static_assert(offsetof(tKesAlarmSetRecord, requestSeverity) == 12, "alarm-set layout");
static_assert(offsetof(tKesAlarmSetRecord, eventId) == 20, "alarm-set layout");
static_assert(offsetof(tKesAlarmSetRecord, text) == 40, "alarm-set layout");
static_assert(sizeof(tKesAlarmSetRecord) == 940, "alarm-set record is 940 bytes");

// Sends an alarm-set record to the named queue when `alarmSet` is set and the
// name is not empty; 0 or the queue operation's error code. The text is
// `alarmSetText` when not empty, else the request's text. Failures are
// returned, not logged.
int sendToAlarmSet(bool alarmSet, const tKesAddLogMessage* request, int32_t eventId,
                   const char* alarmSetText, const char* queueName);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_ALARM_TAXONOMY_H_
