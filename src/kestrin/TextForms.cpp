#include "kestrin/TextForms.h"

namespace kestrin {

namespace {

constexpr char WHITE_SPACE[] = " \t";

struct EventClassEntry {
  uint32_t value;
  const char* text;  // printed by GetEventClassString
  const char* key;   // searched for by GetEventClassFromString
};

// In the search order of GetEventClassFromString.
constexpr EventClassEntry EVENT_CLASSES[] = {
    {EVENT_CLASS_FAULT, "fault", "fault"},
    {EVENT_CLASS_INFORMATION, "information", "info"},
    {EVENT_CLASS_STATE, "state", "state"},
    {EVENT_CLASS_AUDIT, "audit", "audit"},
    {EVENT_CLASS_CONFIGURATION, "configuration", "config"},
    {EVENT_CLASS_DATA, "data", "data"},
    {EVENT_CLASS_MAINTENANCE, "maintenance", "maintenance"},
    {EVENT_CLASS_METRICS, "metrics", "metrics"},
    {EVENT_CLASS_SECURITY, "security", "security"},
};

}  // namespace

char ToLowerCase(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

void AsciiStringToLowerCase(std::string& text) {
  for (char& c : text) c = ToLowerCase(c);
}

std::string TrimWhiteSpace(const std::string& text) {
  size_t first = text.find_first_not_of(WHITE_SPACE);
  if (first == std::string::npos) return std::string();
  size_t last = text.find_last_not_of(WHITE_SPACE);
  return text.substr(first, last - first + 1);
}

const char* GetEventClassString(unsigned long eventClass) {
  if (eventClass == EVENT_CLASS_UNSPECIFIED) return "unspecified";
  for (const EventClassEntry& entry : EVENT_CLASSES) {
    if (eventClass == entry.value) return entry.text;
  }
  return "???";
}

uint32_t GetEventClassFromString(const char* word) {
  if (word == nullptr) return EVENT_CLASS_UNSPECIFIED;
  std::string lower = word;
  AsciiStringToLowerCase(lower);
  for (const EventClassEntry& entry : EVENT_CLASSES) {
    if (lower.find(entry.key) != std::string::npos) return entry.value;
  }
  return EVENT_CLASS_UNSPECIFIED;
}

const char* LoggingDestinationAsString(unsigned char destination) {
  bool registered = (destination & LOGGING_DESTINATION_REGISTERED) != 0;
  bool event = (destination & (LOGGING_DESTINATION_EVENT_1 | LOGGING_DESTINATION_EVENT_2)) != 0;
  if (registered) return event ? "Ev|Reg" : "Reg";
  return event ? "Ev" : "None";
}

}  // namespace kestrin
