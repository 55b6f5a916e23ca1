#include "kestrin/InternalLog.h"

#include <cstdio>
#include <cstring>

#include "kestrin/CardID.h"
#include "kestrin/Globals.h"
#include "kestrin/Severity.h"
#include "kestrin/Timestamp.h"
#include "osa/osa.h"

namespace kestrin {

namespace {

constexpr char OWN_MODULE_NAME[] = "Kestrin";
constexpr char STALE_PREFIX[] = "STALE MESSAGE: ";

struct ReportTime {
  long seconds = 0;
  long microseconds = 0;
};

ReportTime Now() {
  ReportTime t;
  if (osGetTimeOfDay(&t.seconds, &t.microseconds) != OS_OK) t = ReportTime();
  return t;
}

// Before daemonizing every report is echoed to standard output. The time
// stamp cache belongs to the main thread, so other threads format their own.
void EchoToStandardOutput(const ReportTime& t, const char* word, const char* text,
                          bool onMainThread) {
  char stamp[80];
  if (onMainThread) {
    GetTimestampString(t.seconds, stamp, sizeof stamp);
  } else {
    FormatTimestampUncached(t.seconds, stamp, sizeof stamp);
  }
  printf("%s%03ld %s %s\n", stamp, t.microseconds / 1000, word, text);
}

void SendLogRequestToMainThread(const ReportTime& t, unsigned short severity,
                                unsigned long eventId, const char* text) {
  tKesLoggerMessage message;
  message.mtype = 1;
  timeval time{};
  time.tv_sec = t.seconds;
  time.tv_usec = t.microseconds;
  unsigned int size =
      FormatKesInternalLogRequestMessage(&message.internalLogRequest, time, severity, eventId, text);
  // The queue is readable by every local process: no byte of this stack
  // goes out unset (the constructor leaves the reserved field alone).
  message.internalLogRequest.reserved = 0;
  memset(message.text + size, 0, KES_QUEUE_LENGTH_ALLOWANCE);
  // The result is deliberately not checked: there is nowhere left to report.
  osSysVQueueSend(sys5q, &message, KesQueueSendLength(size), 0);
}

bool WriteToOwnLog(const ReportTime& t, unsigned short severity, unsigned long eventId,
                   const char* text) {
  return LogPrivateMessage(logger, t.seconds, t.microseconds, severity,
                           CardID::GetIDOfThisCard(), OWN_MODULE_NAME,
                           static_cast<int>(eventId), text, false);
}

}  // namespace

void LogThroughSyslog(unsigned short severity, const char* text) {
  int priority;
  switch (severity) {
    case KES_SEVERITY_WARNING: priority = OS_LOG_WARNING; break;
    case KES_SEVERITY_INFO: priority = OS_LOG_INFO; break;
    case KES_SEVERITY_DEBUG: priority = OS_LOG_DEBUG; break;
    default: priority = OS_LOG_ERR; break;
  }
  osSyslog(priority, "%s", text);
}

void LogKestrinMessage(unsigned short severity, const char* text, unsigned long eventId) {
  if (text == nullptr) return;
  const char* word = GetSeverityStringForDesignerLogs(severity);
  ReportTime t = Now();

  unsigned long taskId = 0;
  int taskResult = osGetTaskId(&taskId);
  bool onMainThread = taskResult == OS_OK && taskId == MainThreadsTaskId;

  if (!Daemonized) EchoToStandardOutput(t, word, text, onMainThread);

  bool delivered = false;
  if (taskResult != OS_OK) {
    osSyslog(OS_LOG_ERR, "osGetTaskId returned %d", taskResult);
  } else if (onMainThread) {
    if (!logger.IsNil()) {
      delivered = WriteToOwnLog(t, severity, eventId, text);
      // Errors and warnings reach the disk at once: they may be the last
      // words of a daemon about to die.
      if (severity < 3) logger->Flush();
    }
  } else if (sys5q != -1) {
    SendLogRequestToMainThread(t, severity, eventId, text);
    delivered = true;
  }
  if (!delivered && severity != KES_SEVERITY_DEBUG) LogThroughSyslog(severity, text);
}

void LogDebug(const std::string& text) { LogKestrinMessage(KES_SEVERITY_DEBUG, text, -1); }
void LogInfo(const std::string& text) { LogKestrinMessage(KES_SEVERITY_INFO, text, -1); }
void LogError(const std::string& text) { LogKestrinMessage(KES_SEVERITY_ERROR, text, -1); }

bool OwnLogAdmits(unsigned short severity) {
  if (logger.IsNil()) return true;
  return logger->severityFilter.Get().AsQrtSeverityForFilter() >= severity;
}

void HandleInternalLogRequest(const tKesLoggerMessage& message, bool stale) {
  const tKesInternalLogRequestMessage& request = message.internalLogRequest;
  char text[sizeof STALE_PREFIX + KES_MAX_MESSAGE_TEXT + 16];
  snprintf(text, sizeof text, "%s%s", stale ? STALE_PREFIX : "", request.messageToLog);
  bool written = false;
  if (!logger.IsNil()) {
    written = LogPrivateMessage(logger, static_cast<long>(request.timeSeconds),
                                static_cast<long>(request.timeMicroseconds), request.severity,
                                CardID::GetIDOfThisCard(), OWN_MODULE_NAME,
                                static_cast<int>(request.eventId), text, false);
  }
  if (!written && request.severity != KES_SEVERITY_DEBUG) LogThroughSyslog(request.severity, text);
}

void KestrinsInternalLogger::DoLogging(const char* text, unsigned short level,
                                       unsigned long /*code*/, unsigned char /*kind*/) {
  LogKestrinMessage(level, text, -1);
}

}  // namespace kestrin
