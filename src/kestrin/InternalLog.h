// The daemon's reports about itself.
//
// LogKestrinMessage is the one entry point, callable from any thread. On the
// main thread the report is written to the daemon's own log at once; any
// other thread hands it to the main thread as an internal log request on the
// daemon's own request queue, stamped with the time it was made. When neither
// works the report goes to syslog, except debug reports, which are dropped.
#ifndef KESTRIN_KESTRIN_INTERNAL_LOG_H_
#define KESTRIN_KESTRIN_INTERNAL_LOG_H_

#include <string>

#include "kestrin/Records.h"
#include "zor/LogInterface.h"

namespace kestrin {

// Client severity codes as the daemon's own reports use them.
constexpr unsigned short KES_SEVERITY_ERROR = 1;
constexpr unsigned short KES_SEVERITY_WARNING = 2;
constexpr unsigned short KES_SEVERITY_INFO = 4;
constexpr unsigned short KES_SEVERITY_DEBUG = 8;

// The event ID of a report that is no event: -1.
constexpr unsigned long NO_EVENT_ID = static_cast<unsigned long>(-1);

// Reports `text` (null is ignored) at the client severity code `severity`.
// Never fails.
void LogKestrinMessage(unsigned short severity, const char* text, unsigned long eventId);
inline void LogKestrinMessage(unsigned short severity, const std::string& text,
                              unsigned long eventId) {
  LogKestrinMessage(severity, text.c_str(), eventId);
}

void LogDebug(const std::string& text);
void LogInfo(const std::string& text);
void LogError(const std::string& text);

// Whether the daemon's own log would take a report of `severity`: true when
// the own log does not exist yet (the report then goes elsewhere). Callers
// use it to avoid composing texts nobody will read.
bool OwnLogAdmits(unsigned short severity);

// Writes a type-12 record taken off the queue into the own log with the time
// it carries; a stale record's text gets "STALE MESSAGE: " in front. Main
// thread only; the record has passed ValidateInternalLogRequestMessage.
void HandleInternalLogRequest(const tKesLoggerMessage& message, bool stale);

// syslog at the priority matching the client severity code.
void LogThroughSyslog(unsigned short severity, const char* text);

// Bridges the foundation library's reports (rolling files, sockets) into
// LogKestrinMessage: the level is the severity code, the event ID -1.
class KestrinsInternalLogger : public Zor::LogInterface {
 protected:
  void DoLogging(const char* text, unsigned short level, unsigned long code,
                 unsigned char kind) override;
};

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_INTERNAL_LOG_H_
