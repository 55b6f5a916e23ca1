// The daemon's log files: rolling files with a severity filter.
//
// Every log file of the daemon, the standard ones and the private files that
// clients register, is a LogFile held through AppFw::SmartPointerNTS. All
// files live in one directory, fixed by the first LogFile constructed.
// LogFile has no lock: only the daemon's main thread writes log files.
#ifndef KESTRIN_KESTRIN_LOG_FILE_H_
#define KESTRIN_KESTRIN_LOG_FILE_H_

#include <cstdarg>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "appfw/SmartPointerNTS.h"
#include "kestrin/Severity.h"
#include "zor/DefaultableValue.h"
#include "zor/RollingFile.h"

namespace kestrin {

// Limits applied by the configuration readers and the request handlers.
constexpr long MinAllowedMaxFileSize = 1024;
constexpr long MaxAllowedMaxFileSize = 15728640;
constexpr unsigned int MinAllowedMaxBackupCount = 0;
constexpr unsigned int MaxAllowedMaxBackupCount = 100;

class LogFile : public Zor::RollingFile {
 public:
  using SeverityFilter = Zor::DefaultableValue<DetailedSeverity, LogFile, 0>;

  // `name` as the client or the configuration gives it; it is normalised and
  // placed in the log directory. The file is opened on the first write.
  explicit LogFile(const char* name);
  explicit LogFile(const std::string& name) : LogFile(name.c_str()) {}

  // Writes the formatted text when `severity` passes the filter. Returns 0
  // when the filter refuses it, else what the rolling file's write returned
  // (negative on a failed write).
  int LogPrintf(unsigned short qrtSeverity, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  int LogPrintf(DetailedSeverity severity, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  // A bare level would otherwise convert to the client-code overload.
  int LogPrintf(DetailedSeverity::SeverityLevel level, const char* format, ...)
      __attribute__((format(printf, 3, 4)));
  int VLogPrintf(DetailedSeverity severity, const char* format, va_list args);
  // The same for text already formatted: writes `length` bytes of `data` as
  // they are when the severity passes the filter. Returns 0 when the filter
  // refuses it, else what Zor::RollingFile::Write returned.
  int LogWrite(unsigned short qrtSeverity, const char* data, size_t length);
  int LogWrite(DetailedSeverity severity, const char* data, size_t length);
  int LogWrite(DetailedSeverity::SeverityLevel level, const char* data, size_t length);

  const std::string& GetName() const { return name; }
  void SetIsOperationalLog(bool value) { operational = value; }
  bool IsOperationalLog() const { return operational; }
  bool IsSecurityLog() const { return security; }
  void SetRollOnStartUp(bool value) { rollOnStartUp = value; }
  bool ShouldRollOnStartUp() const { return rollOnStartUp; }
  void SetMarker(bool value) { marker = value; }
  bool GetMarker() const { return marker; }

  // The least severe level still written; follows the class-wide default
  // until set.
  SeverityFilter severityFilter;

  // On the first call only: the class-wide defaults (unless set before) and
  // the log directory.
  static void DoStaticInitializations();
  // Asks the platform for the log directory; ends the process with status 1
  // when it cannot say.
  static void SetLogFileDirectory();
  // Always ends in "/"; empty until the first LogFile is made.
  static const std::string& GetLogFileDirectory() { return s_logFileDirectory; }

 private:
  static std::string s_logFileDirectory;

  std::string name;  // normalised, relative to the log directory
  bool operational;
  bool security;
  bool rollOnStartUp;
  bool marker;
};

using LogFilePtr = AppFw::SmartPointerNTS<LogFile>;
// Normalised file name to file: every log file the daemon knows.
using LogFileMap = std::map<std::string, LogFilePtr>;

// Assembles a line, for lines written on every request, where printf's
// parsing of the format would cost more than the copying. The line is kept
// in the builder's own buffer, on the stack while it is short (every
// ordinary line) and on the heap once it outgrows that, so one encoder
// serves every length and nothing is ever cut. Nothing is terminated:
// Length() bytes at Data() are the line.
class LineBuilder {
 public:
  LineBuilder() = default;
  LineBuilder(const LineBuilder&) = delete;
  LineBuilder& operator=(const LineBuilder&) = delete;

  // Inline, so that the length of a literal is known when compiling.
  void Append(const char* text) { Append(text, strlen(text)); }  // NUL-terminated
  void Append(const char* text, size_t length) {
    if (length > capacity_ - length_) Grow(length);
    memcpy(data_ + length_, text, length);
    length_ += length;
  }
  // `value` in decimal as printf's "%0<width>ld" gives it: a '-' for
  // negative values, then zeros up to `width` characters in all (0 or 1:
  // no padding). `width` is at most 20.
  void AppendDecimal(long value, int width);

  const char* Data() const { return data_; }
  size_t Length() const { return length_; }

  // Bytes kept on the stack before the builder turns to the heap.
  static constexpr size_t INLINE_CAPACITY = 2048;

 private:
  // Makes room for `more` bytes beyond Length().
  void Grow(size_t more);

  char inline_[INLINE_CAPACITY];
  std::unique_ptr<char[]> heap_;  // null until the line outgrows inline_
  char* data_ = inline_;
  size_t capacity_ = INLINE_CAPACITY;
  size_t length_ = 0;
};

// The name without its leading '/' characters; nothing else changes.
std::string NormalizeLogFileName(const char* name);
std::string NormalizeLogFileName(const std::string& name);

// Writes one private-file line:
//   "<timestamp><ms> [<SEVER>] {<name>} (<eventId>) - [(Messages have been dropped.) ]<text>"
// The card ID is accepted and deliberately not printed. Returns true when the
// file's write returned non-zero: a line refused by the filter is "not
// written", a failed write counts as written.
bool LogPrivateMessage(const LogFilePtr& file, long seconds, long microseconds,
                       unsigned short qrtSeverity, unsigned long cardId, const char* name,
                       int eventId, const char* text, bool messagesDropped);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_LOG_FILE_H_
