#include "kestrin/LogFile.h"

#include <cstdlib>
#include <string>

#include "kestrin/Timestamp.h"
#include "osa/osa.h"

namespace kestrin {

std::string LogFile::s_logFileDirectory;

namespace {

bool s_firstStaticInitialization = true;

void ReportThroughFoundationLogger(const std::string& text, unsigned long level) {
  Zor::RollingFile::GetLoggerMgr().GetLogger()->Log(text, level);
}

}  // namespace

LogFile::LogFile(const char* fileName)
    : Zor::RollingFile(""),
      name(NormalizeLogFileName(fileName)),
      operational(name.find(".systemlog") != std::string::npos),
      security(name.find("security.systemlog") != std::string::npos),
      rollOnStartUp(false),
      marker(false) {
  DoStaticInitializations();
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
  // open is reported (into the daemon's own log, with the current time)
  // before the line is formatted, which refills the cache.
  char stamp[80];
  GetTimestampString(seconds, stamp, sizeof stamp);
  int written = file->LogPrintf(qrtSeverity, "%s%03ld %s%s[%s] {%s} (%d) - %s%s\n",
                                stamp, microseconds / 1000, "", "",
                                GetSeverityStringForDesignerLogs(qrtSeverity),
                                name == nullptr ? "" : name, eventId,
                                messagesDropped ? "(Messages have been dropped.) " : "",
                                text == nullptr ? "" : text);
  return written != 0;
}

}  // namespace kestrin
