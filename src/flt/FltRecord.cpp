#include "flt/FltRecord.h"

#include <stdio.h>

#include <string>

namespace {

// The length of the well-formed UTF-8 sequence that starts at `text[0]` (at
// most `length` bytes available), or 0 when it is not well-formed: a stray
// continuation byte, a cut sequence, an over-long form, a surrogate or a
// code point above U+10FFFF.
size_t WellFormedUtf8Length(const unsigned char* text, size_t length) {
  unsigned char lead = text[0];
  size_t size;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    size = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    size = 3;
    if (lead == 0xE0) low = 0xA0;   // over-long below U+0800
    if (lead == 0xED) high = 0x9F;  // surrogates U+D800..U+DFFF
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    size = 4;
    if (lead == 0xF0) low = 0x90;   // over-long below U+10000
    if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  if (size > length) return 0;
  if (text[1] < low || text[1] > high) return 0;
  for (size_t i = 2; i < size; ++i) {
    if (text[i] < 0x80 || text[i] > 0xBF) return 0;
  }
  return size;
}

void AppendUnicodeEscape(std::string& out, unsigned char byte) {
  char escape[8];
  snprintf(escape, sizeof escape, "\\u%04x", byte);
  out += escape;
}

// Appends one byte below 0x80 escaped as JSON needs it.
void AppendAsciiByte(std::string& out, unsigned char byte) {
  switch (byte) {
    case '"':
      out += "\\\"";
      break;
    case '\\':
      out += "\\\\";
      break;
    case '\t':
      out += "\\t";
      break;
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\b':
      out += "\\b";
      break;
    case '\f':
      out += "\\f";
      break;
    default:
      if (byte < 0x20 || byte == 0x7F) {
        AppendUnicodeEscape(out, byte);
      } else {
        out += static_cast<char>(byte);
      }
  }
}

void AppendKey(std::string& out, const char* key) {
  out += '"';
  out += key;
  out += "\":";
}

void AppendStringField(std::string& out, const char* key, const std::string& value) {
  AppendKey(out, key);
  FltAppendJsonString(out, value.data(), value.size());
}

void AppendNumberField(std::string& out, const char* key, long long value) {
  AppendKey(out, key);
  out += std::to_string(value);
}

}  // namespace

CFltRecord::CFltRecord()
    : eventId_(0), sequence_(0), raiseTime_(0), isClear_(false), severity_(0) {}

void FltAppendJsonString(std::string& out, const char* text, size_t length) {
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
  out += '"';
  size_t i = 0;
  while (i < length) {
    if (bytes[i] < 0x80) {
      AppendAsciiByte(out, bytes[i]);
      ++i;
      continue;
    }
    size_t size = WellFormedUtf8Length(bytes + i, length - i);
    if (size == 0) {
      AppendUnicodeEscape(out, bytes[i]);
      ++i;
    } else {
      out.append(text + i, size);
      i += size;
    }
  }
  out += '"';
}

std::string CFltRecord::ToJson() const {
  std::string out = "{";
  AppendNumberField(out, "eventId", eventId_);
  out += ',';
  AppendNumberField(out, "sequence", sequence_);
  out += ',';
  AppendStringField(out, "definedName", definedName_);
  out += ',';
  AppendNumberField(out, "raiseTime", raiseTime_);
  out += ',';
  AppendKey(out, "isClear");
  out += isClear_ ? "true" : "false";
  out += ',';
  AppendStringField(out, "originalSeverity", originalSeverity_);
  out += ',';
  AppendStringField(out, "reason", reason_);
  out += ',';
  AppendStringField(out, "alarmSetText", alarmSetText_);
  out += ',';
  AppendStringField(out, "alarmSetQueue", alarmSetQueue_);
  out += ',';
  AppendNumberField(out, "severity", severity_);
  out += '}';
  return out;
}
