#include "kestrin/LogFile.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "kestrin/TextForms.h"
#include "kestrin/Timestamp.h"
#include "osa/osa.h"

namespace kestrin {

std::string LogFile::s_logFileDirectory;

namespace {

bool s_firstStaticInitialization = true;

constexpr char DROPPED_NOTE[] = "(Messages have been dropped.) ";

// A client's text (null taken as empty) with its control bytes escaped, and
// its length, measured once.
class ClientText {
 public:
  explicit ClientText(const char* text) : text_(text == nullptr ? "" : text) {
    length_ = strlen(text_);
    if (!HasControlBytes(text_, length_)) return;
    escaped_ = EscapeControlBytes(std::string(text_, length_));
    text_ = escaped_.c_str();
    length_ = escaped_.size();
  }
  const char* Text() const { return text_; }
  size_t Length() const { return length_; }

 private:
  const char* text_;
  size_t length_;
  std::string escaped_;
};

void ReportThroughFoundationLogger(const std::string& text, unsigned long level) {
  Zor::RollingFile::GetLoggerMgr().GetLogger()->Log(text, level);
}

}  // namespace

void LineBuilder::Grow(size_t more) {
  size_t capacity = capacity_ * 2;
  while (capacity - length_ < more) capacity *= 2;
  std::unique_ptr<char[]> bigger(new char[capacity]);
  memcpy(bigger.get(), data_, length_);
  heap_ = std::move(bigger);
  data_ = heap_.get();
  capacity_ = capacity;
}

void LineBuilder::AppendDecimal(long value, int width) {
  constexpr int MAX_WIDTH = 20;
  constexpr int MAX_DIGITS = 20;  // of an unsigned 64-bit magnitude
  char text[1 + MAX_WIDTH + MAX_DIGITS];
  char* const end = text + sizeof text;
  char* first = end;
  // The magnitude in unsigned arithmetic, so that LONG_MIN has one too;
  // digits are written backwards from the end.
  unsigned long magnitude =
      value < 0 ? 0UL - static_cast<unsigned long>(value) : static_cast<unsigned long>(value);
  do {
    *--first = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  // printf's "0" flag: zeros between the sign and the digits up to the width.
  const long used = static_cast<long>(end - first) + (value < 0 ? 1 : 0);
  for (long pad = std::min(width, MAX_WIDTH) - used; pad > 0; --pad) *--first = '0';
  if (value < 0) *--first = '-';
  Append(first, static_cast<size_t>(end - first));
}

LogFile::LogFile(const char* fileName)
    : Zor::RollingFile(""),
      name(NormalizeLogFileName(fileName)),
      operational(name.find(".systemlog") != std::string::npos),
      security(name.find("security.systemlog") != std::string::npos),
      rollOnStartUp(false),
      marker(false) {
  DoStaticInitializations();
  // Whatever the name, the file and its backups stay inside the log
  // directory: a link planted there is never followed.
  SetContainingDirectory(s_logFileDirectory);
  // Every log file is a file of lines: one torn by a crash is ended before
  // the next line is appended.
  SetEndsTornLines(true);
  SetPathName((s_logFileDirectory + name).c_str());
}

int LogFile::LogPrintf(unsigned short qrtSeverity, const char* format, ...) {
  DetailedSeverity severity;
  severity.SetFromQrtSeverity(qrtSeverity);
  va_list args;
  va_start(args, format);
  int result = VLogPrintf(severity, format, args);
  va_end(args);
  return result;
}

int LogFile::LogPrintf(DetailedSeverity severity, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int result = VLogPrintf(severity, format, args);
  va_end(args);
  return result;
}

int LogFile::LogPrintf(DetailedSeverity::SeverityLevel level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int result = VLogPrintf(DetailedSeverity(level), format, args);
  va_end(args);
  return result;
}

int LogFile::VLogPrintf(DetailedSeverity severity, const char* format, va_list args) {
  if (severity > severityFilter.Get()) return 0;
  return VPrintf(format, args);
}

int LogFile::LogWrite(unsigned short qrtSeverity, const char* data, size_t length) {
  DetailedSeverity severity;
  severity.SetFromQrtSeverity(qrtSeverity);
  return LogWrite(severity, data, length);
}

int LogFile::LogWrite(DetailedSeverity severity, const char* data, size_t length) {
  if (severity > severityFilter.Get()) return 0;
  return Write(data, length);
}

int LogFile::LogWrite(DetailedSeverity::SeverityLevel level, const char* data, size_t length) {
  return LogWrite(DetailedSeverity(level), data, length);
}

void LogFile::DoStaticInitializations() {
  if (!s_firstStaticInitialization) return;
  s_firstStaticInitialization = false;
  using MaxFileSize = Zor::DefaultableValue<long, Zor::RollingFile, 1>;
  using BackupCount = Zor::DefaultableValue<unsigned int, Zor::RollingFile, 2>;
  using ZipBackups = Zor::DefaultableValue<bool, Zor::RollingFile, 3>;
  if (!MaxFileSize::HasSetDefaultBeenCalled()) MaxFileSize::SetDefault(MaxAllowedMaxFileSize);
  if (!BackupCount::HasSetDefaultBeenCalled()) BackupCount::SetDefault(MaxAllowedMaxBackupCount);
  if (!ZipBackups::HasSetDefaultBeenCalled()) ZipBackups::SetDefault(true);
  if (!SeverityFilter::HasSetDefaultBeenCalled()) {
    SeverityFilter::SetDefault(DetailedSeverity(DetailedSeverity::DEBUG_LEVEL));
  }
  SetLogFileDirectory();
}

void LogFile::SetLogFileDirectory() {
  char directory[1024];
  int code = osGetPath(OS_PATH_LOG, directory, sizeof directory);
  if (code != OS_OK) {
    ReportThroughFoundationLogger(
        "osGetPath returned " + std::to_string(code) + "; can't create logs", 1);
    exit(1);
  }
  s_logFileDirectory = directory;
  if (s_logFileDirectory.empty() || s_logFileDirectory.back() != '/') s_logFileDirectory += '/';
  ReportThroughFoundationLogger("Log file directory at ``" + s_logFileDirectory + "''", 8);
}

std::string NormalizeLogFileName(const char* name) {
  if (name == nullptr) return std::string();
  while (*name == '/') ++name;
  return std::string(name);
}

std::string NormalizeLogFileName(const std::string& name) {
  return NormalizeLogFileName(name.c_str());
}

bool LogPrivateMessage(const LogFilePtr& file, long seconds, long microseconds,
                       unsigned short qrtSeverity, unsigned long /*cardId*/, const char* name,
                       int eventId, const char* text, bool messagesDropped) {
  if (file.IsNil()) return false;
  // A copy, not the cache itself: the first write opens the file, and the
  // open is reported (into the daemon's own log, with the current time),
  // which refills the cache.
  char stamp[80];
  GetTimestampString(seconds, stamp, sizeof stamp);
  const char* severityWord = GetSeverityStringForDesignerLogs(qrtSeverity);
  // What clients wrote never brings a line end or a field separator of its
  // own; the daemon's own texts hold no control bytes and pass unchanged.
  const ClientText clientName(name);
  const ClientText clientText(text);
  const char* droppedNote = messagesDropped ? DROPPED_NOTE : "";
  // Every client request passes here, so the line is assembled by hand
  // rather than through printf. Its shape: time stamp, milliseconds, the
  // severity word, name, event ID, the note on dropped messages and the text
  // (the card is deliberately not printed, so that the line keeps one shape
  // whatever the card).
  LineBuilder builder;
  builder.Append(stamp);
  builder.AppendDecimal(microseconds / 1000, 3);
  builder.Append(" [");
  builder.Append(severityWord);
  builder.Append("] {");
  builder.Append(clientName.Text(), clientName.Length());
  builder.Append("} (");
  builder.AppendDecimal(eventId, 0);
  builder.Append(") - ");
  builder.Append(droppedNote);
  builder.Append(clientText.Text(), clientText.Length());
  builder.Append("\n");
  const int written = file->LogWrite(qrtSeverity, builder.Data(), builder.Length());
  return written != 0;
}

}  // namespace kestrin
