// Severities: the ten-level DetailedSeverity used by log-file filters and the
// configuration, its conversions to and from the clients' one-bit severity
// codes, and the fixed severity words printed in log lines.
//
// Client severity codes (16-bit, one bit each, as carried in records):
//   1 error, 2 warning, 4 information, 8 debug.
#ifndef KESTRIN_KESTRIN_SEVERITY_H_
#define KESTRIN_KESTRIN_SEVERITY_H_

#include <stdint.h>

#include <string>

namespace kestrin {

// One severity level; a lower level is more severe. Plain value type, cheap to
// copy. Levels outside 0..9 can be stored (they only arise from casts) and are
// treated by AsQrtSeverityForFilter as noted there.
class DetailedSeverity {
 public:
  // The enumerator names carry a _LEVEL suffix because several of the bare
  // words (DEBUG, ERROR, ...) are commonly defined as macros.
  enum SeverityLevel : int32_t {
    EMERG_LEVEL = 0,
    ALERT_LEVEL = 1,
    CRIT_LEVEL = 2,
    ERROR_LEVEL = 3,
    MAJOR_LEVEL = 4,
    MINOR_LEVEL = 5,
    WARN_LEVEL = 6,
    NOTICE_LEVEL = 7,
    INFO_LEVEL = 8,
    DEBUG_LEVEL = 9
  };

  // Level ERROR_LEVEL (3).
  DetailedSeverity() = default;
  // Implicit, so that a level can stand wherever a severity is expected.
  DetailedSeverity(SeverityLevel level) : level_(level) {}  // NOLINT(google-explicit-constructor)
  // The level GetSeverityFromString picks for `word` (taxonomy severity words).
  explicit DetailedSeverity(const std::string& word);

  void Set(SeverityLevel level) { level_ = level; }
  SeverityLevel GetLevel() const { return level_; }

  // Compare the numeric levels only.
  bool operator<=(const DetailedSeverity& other) const { return level_ <= other.level_; }
  bool operator>(const DetailedSeverity& other) const { return level_ > other.level_; }

  // Client code 2 gives WARN_LEVEL, 4 INFO_LEVEL, 8 DEBUG_LEVEL; every other
  // code (1 included, and combinations of bits) gives ERROR_LEVEL.
  void SetFromQrtSeverity(unsigned short qrtSeverity);

  // The client code a filter at this level admits: levels up to 3 give 1,
  // 4 to 6 give 2, 7 and 8 give 4, 9 and above give 8.
  unsigned short AsQrtSeverityForFilter() const;

  // The level named by a word, by case-insensitive substring search in this
  // fixed order, the first hit deciding: "emerg" 0, "alert" 1, "crit" 2,
  // "error" 3, "major" 4, "minor" 5, "warn" 6, "note"/"notic" 7, "info" 8,
  // "debug" 9. No hit, or a null `word`, gives ERROR_LEVEL.
  static SeverityLevel GetSeverityFromString(const std::string* word);

 private:
  SeverityLevel level_ = ERROR_LEVEL;
};

// Severity words by client code. Each returns a static string; a code other
// than 1, 2, 4 or 8 gives the "unknown" word shown in brackets.
// Designer logs: "ERROR", "WARN ", "INFO ", "DEBUG" ["???  "]; all five
// characters wide so that the columns of a designer log line up.
const char* GetSeverityStringForDesignerLogs(unsigned short qrtSeverity);
// Operational logs: "error", "warning", "information", "debug" ["???  "].
const char* GetSeverityStringForOperationalLogs(unsigned short qrtSeverity);
// Texts of the daemon's record dumps: "Error", "Warn", "Info", "Debug" ["?????"].
const char* GetSeverityStringForKestrinMessageContents(unsigned short qrtSeverity);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_SEVERITY_H_
