#include "kestrin/Severity.h"

#include "kestrin/TextForms.h"

namespace kestrin {

namespace {

struct SeverityKey {
  const char* word;
  DetailedSeverity::SeverityLevel level;
};

// The order matters: the first key found in the word decides, so "minor
// error" is an error and "critical alert" an alert.
constexpr SeverityKey SEVERITY_KEYS[] = {
    {"emerg", DetailedSeverity::EMERG_LEVEL},  {"alert", DetailedSeverity::ALERT_LEVEL},
    {"crit", DetailedSeverity::CRIT_LEVEL},    {"error", DetailedSeverity::ERROR_LEVEL},
    {"major", DetailedSeverity::MAJOR_LEVEL},  {"minor", DetailedSeverity::MINOR_LEVEL},
    {"warn", DetailedSeverity::WARN_LEVEL},    {"note", DetailedSeverity::NOTICE_LEVEL},
    {"notic", DetailedSeverity::NOTICE_LEVEL}, {"info", DetailedSeverity::INFO_LEVEL},
    {"debug", DetailedSeverity::DEBUG_LEVEL},
};

// Index into the word tables below: 0..3 for codes 1, 2, 4, 8; 4 otherwise.
int QrtSeverityIndex(unsigned short qrtSeverity) {
  switch (qrtSeverity) {
    case 1:
      return 0;
    case 2:
      return 1;
    case 4:
      return 2;
    case 8:
      return 3;
    default:
      return 4;
  }
}

}  // namespace

DetailedSeverity::DetailedSeverity(const std::string& word)
    : level_(GetSeverityFromString(&word)) {}

void DetailedSeverity::SetFromQrtSeverity(unsigned short qrtSeverity) {
  switch (qrtSeverity) {
    case 2:
      level_ = WARN_LEVEL;
      break;
    case 4:
      level_ = INFO_LEVEL;
      break;
    case 8:
      level_ = DEBUG_LEVEL;
      break;
    default:
      level_ = ERROR_LEVEL;
      break;
  }
}

unsigned short DetailedSeverity::AsQrtSeverityForFilter() const {
  if (level_ <= ERROR_LEVEL) return 1;
  if (level_ <= WARN_LEVEL) return 2;
  if (level_ <= INFO_LEVEL) return 4;
  return 8;
}

DetailedSeverity::SeverityLevel DetailedSeverity::GetSeverityFromString(const std::string* word) {
  if (word == nullptr) return ERROR_LEVEL;
  std::string lower = *word;
  AsciiStringToLowerCase(lower);
  for (const SeverityKey& key : SEVERITY_KEYS) {
    if (lower.find(key.word) != std::string::npos) return key.level;
  }
  return ERROR_LEVEL;
}

const char* GetSeverityStringForDesignerLogs(unsigned short qrtSeverity) {
  static const char* const WORDS[] = {"ERROR", "WARN ", "INFO ", "DEBUG", "???  "};
  return WORDS[QrtSeverityIndex(qrtSeverity)];
}

const char* GetSeverityStringForOperationalLogs(unsigned short qrtSeverity) {
  static const char* const WORDS[] = {"error", "warning", "information", "debug", "???  "};
  return WORDS[QrtSeverityIndex(qrtSeverity)];
}

const char* GetSeverityStringForKestrinMessageContents(unsigned short qrtSeverity) {
  static const char* const WORDS[] = {"Error", "Warn", "Info", "Debug", "?????"};
  return WORDS[QrtSeverityIndex(qrtSeverity)];
}

}  // namespace kestrin
