#include "kestrin/LogFileNames.h"

#include <string>

#include "flt/FltRecord.h"
#include "kestrin/AlarmUtils.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/TextForms.h"

namespace kestrin {

namespace {

// A guard remembers at most this many refused names.
constexpr size_t MAX_REMEMBERED_REFUSALS = 1024;

const char* Reason(LogFileNameVerdict verdict) {
  switch (verdict) {
    case LogFileNameVerdict::LEADS_OUTSIDE: return "it leads outside the log directory";
    case LogFileNameVerdict::CONTROL_BYTES: return "it holds control characters";
    case LogFileNameVerdict::NAMES_NO_FILE: return "it names no file";
    case LogFileNameVerdict::RESERVED: return "it is the fault-record file";
    case LogFileNameVerdict::ACCEPTED: break;
  }
  return "";
}

std::unique_ptr<ThrottledEventPoint>& LimitPoint() {
  static std::unique_ptr<ThrottledEventPoint>* point = new std::unique_ptr<ThrottledEventPoint>;
  return *point;
}

std::unique_ptr<ThrottledEventPoint>& OwnFilePoint() {
  static std::unique_ptr<ThrottledEventPoint>* point = new std::unique_ptr<ThrottledEventPoint>;
  return *point;
}

void Raise(std::unique_ptr<ThrottledEventPoint>& point, const std::string& text) {
  if (!point) {
    point.reset(new ThrottledEventPoint(KES_SEVERITY_ERROR, EventId_InvalidMessageReceived));
  }
  point->Raise(text);
}

std::string Quoted(const std::string& name) { return "\"" + EscapeControlBytes(name) + "\""; }

}  // namespace

LogFileNameVerdict CheckLogFileName(const std::string& normalized) {
  if (HasControlBytes(normalized)) return LogFileNameVerdict::CONTROL_BYTES;
  size_t start = 0;
  std::string component;
  for (;;) {
    const size_t slash = normalized.find('/', start);
    component = normalized.substr(start, slash == std::string::npos ? std::string::npos
                                                                    : slash - start);
    if (component == "..") return LogFileNameVerdict::LEADS_OUTSIDE;
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  // `component` is the last one: the file's own name.
  if (component.empty() || component == ".") return LogFileNameVerdict::NAMES_NO_FILE;
  if (normalized == FLT_RECORD_FILE_NAME) return LogFileNameVerdict::RESERVED;
  return LogFileNameVerdict::ACCEPTED;
}

NameGuard::NameGuard() = default;
NameGuard::~NameGuard() = default;

bool NameGuard::Admit(const std::string& normalized) {
  if (refused_.count(normalized) != 0) return false;
  const LogFileNameVerdict verdict = CheckLogFileName(normalized);
  if (verdict == LogFileNameVerdict::ACCEPTED) return true;
  if (refused_.size() < MAX_REMEMBERED_REFUSALS) refused_.insert(normalized);
  Raise(point_, "Refused log file name " + Quoted(normalized) + ": " + Reason(verdict));
  return false;
}

void NameGuard::ForgetForTesting() {
  point_.reset();
  refused_.clear();
}

NameGuard& MainThreadNameGuard() {
  static NameGuard* guard = new NameGuard;
  return *guard;
}

LogFilePtr FindOrAddLogFile(const std::string& normalized, LogFileRequester requester,
                            bool* created) {
  if (created != nullptr) *created = false;
  auto found = logFileMap.find(normalized);
  if (found != logFileMap.end()) return found->second;
  if (!MainThreadNameGuard().Admit(normalized)) return LogFilePtr();
  if (requester == LogFileRequester::CLIENT &&
      logFileMap.size() >= static_cast<size_t>(MaxLogFiles)) {
    Raise(LimitPoint(), "Refused to add log file " + Quoted(normalized) + ": MaxLogFiles (" +
                            std::to_string(MaxLogFiles) + ") files are already known");
    return LogFilePtr();
  }
  LogFilePtr file(new LogFile(normalized));
  logFileMap[normalized] = file;
  if (created != nullptr) *created = true;
  return file;
}

bool IsDaemonsOwnFile(const std::string& normalized) {
  return normalized == FLT_RECORD_FILE_NAME ||
         (!systemlog.IsNil() && normalized == systemlog->GetName()) ||
         (!alarmLog.IsNil() && normalized == alarmLog->GetName()) ||
         (!logger.IsNil() && normalized == logger->GetName());
}

void ReportOwnFileRequestRefused(const std::string& normalized, const char* what) {
  Raise(OwnFilePoint(), std::string("Refused request to change the ") + what + " of " +
                            Quoted(normalized) +
                            ": the daemon's own files take their settings from Kestrin.conf only");
}

void ResetLogFileNamesForTesting() {
  MainThreadNameGuard().ForgetForTesting();
  LimitPoint().reset();
  OwnFilePoint().reset();
}

}  // namespace kestrin
