#include "kestrin/TextForms.h"

#include <cstring>

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

namespace {

// Every client line is scanned, so sixteen bytes are compared at once with
// the compiler's vector extension (a few vector instructions on the
// machines we run on; plain code where there are none). The marks of all
// blocks are gathered and looked at once at the end: control bytes are rare.
typedef unsigned char Block __attribute__((vector_size(16)));

Block Marks(const char* bytes) {
  Block block;
  memcpy(&block, bytes, sizeof block);
  return reinterpret_cast<Block>((block < 0x20) | (block == 0x7f));
}

}  // namespace

bool HasControlBytes(const char* text, size_t length) {
  Block marks = {};
  if (length < sizeof(Block)) {
    // A short text is padded with a harmless byte to one block.
    char padded[sizeof(Block)];
    memset(padded, 'a', sizeof padded);
    memcpy(padded, text, length);
    marks = Marks(padded);
  } else {
    size_t i = 0;
    for (; i + sizeof(Block) <= length; i += sizeof(Block)) marks |= Marks(text + i);
    // The last block overlaps the one before: a predicate does not mind.
    if (i < length) marks |= Marks(text + length - sizeof(Block));
  }
  uint64_t halves[2];
  static_assert(sizeof marks == sizeof halves, "sixteen marks");
  memcpy(halves, &marks, sizeof halves);
  return (halves[0] | halves[1]) != 0;
}

bool HasControlBytes(const char* text) {
  return text != nullptr && HasControlBytes(text, strlen(text));
}

bool HasControlBytes(const std::string& text) { return HasControlBytes(text.data(), text.size()); }

std::string EscapeControlBytes(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size() + 8);
  for (unsigned char c : text) {
    if (c >= 0x20 && c != 0x7f) {
      escaped += static_cast<char>(c);
      continue;
    }
    escaped += '#';
    escaped += static_cast<char>('0' + (c >> 6));
    escaped += static_cast<char>('0' + ((c >> 3) & 7));
    escaped += static_cast<char>('0' + (c & 7));
  }
  return escaped;
}

const char* WithControlBytesEscaped(const char* text, std::string* storage) {
  if (!HasControlBytes(text)) return text;
  *storage = EscapeControlBytes(text);
  return storage->c_str();
}

}  // namespace kestrin
