// Small text helpers and the fixed words for event classes and logging
// destinations.
//
// White space here means only the blank and the horizontal tab; a carriage
// return or any other control character is ordinary text. Lower-casing folds
// the ASCII letters 'A' to 'Z' only, whatever the locale.
#ifndef KESTRIN_KESTRIN_TEXT_FORMS_H_
#define KESTRIN_KESTRIN_TEXT_FORMS_H_

#include <stdint.h>

#include <string>

namespace kestrin {

// Event classes: an event carries one of these bit values.
enum : uint32_t {
  EVENT_CLASS_UNSPECIFIED = 0,
  EVENT_CLASS_FAULT = 1,
  EVENT_CLASS_INFORMATION = 2,
  EVENT_CLASS_STATE = 4,
  EVENT_CLASS_AUDIT = 8,
  EVENT_CLASS_CONFIGURATION = 16,
  EVENT_CLASS_DATA = 32,
  EVENT_CLASS_MAINTENANCE = 64,
  EVENT_CLASS_METRICS = 128,
  EVENT_CLASS_SECURITY = 256
};

// Logging destination bits: the client's registered (private) log file, and
// the two event destinations.
enum : unsigned char {
  LOGGING_DESTINATION_EVENT_1 = 0x01,
  LOGGING_DESTINATION_REGISTERED = 0x02,
  LOGGING_DESTINATION_EVENT_2 = 0x04
};

// 'A'..'Z' to lower case; every other byte unchanged.
char ToLowerCase(char c);

// Applies ToLowerCase to every character of `text`, in place.
void AsciiStringToLowerCase(std::string& text);

// `text` without its leading and trailing blanks and tabs; a text of nothing
// but blanks and tabs gives the empty string.
std::string TrimWhiteSpace(const std::string& text);

// The word of an event class: "unspecified" (0), "fault", "information",
// "state", "audit", "configuration", "data", "maintenance", "metrics",
// "security"; "???" for any value that is not exactly one of the classes.
// Returns a static string.
const char* GetEventClassString(unsigned long eventClass);

// The class a word names: case-insensitive substring search for "fault",
// "info", "state", "audit", "config", "data", "maintenance", "metrics",
// "security" in that order, the first hit deciding; no hit, or a null `word`,
// gives 0.
uint32_t GetEventClassFromString(const char* word);

// "Ev|Reg" when the registered bit and an event bit are set, "Reg" when only
// the registered bit is, "Ev" when only event bits are, "None" when none of
// the three is (other bits are ignored). Returns a static string.
const char* LoggingDestinationAsString(unsigned char destination);

// Control bytes in what clients write. A byte below 0x20 (tab and line end
// included) or 0x7F would let a client's text start a line or a field of its
// own choosing in a log file; it is written as "#" and its three octal
// digits instead ("\n" becomes "#012"), the escaping syslog daemons use.

// Whether `text` (may be null) holds such a byte.
bool HasControlBytes(const char* text);
bool HasControlBytes(const std::string& text);
// The same for `length` bytes at `text`.
bool HasControlBytes(const char* text, size_t length);

// `text` with every such byte escaped.
std::string EscapeControlBytes(const std::string& text);

// `text` itself when it holds no such byte (the common case costs one scan
// and no copy), else its escaped form kept in `*storage`. A null `text` is
// returned as it is.
const char* WithControlBytesEscaped(const char* text, std::string* storage);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_TEXT_FORMS_H_
