// Log-file names that come from outside, and the one place where a file
// object joins logFileMap.
//
// Clients (through their registration slot or a log-file-size request),
// Agents (through an unregistered add-log) and the configuration (through a
// file section) name log files, and the daemon, running as root, creates,
// appends to, rolls over and deletes what they name. A name is therefore
// checked once, when it is first met, after normalisation (leading '/'
// removed): it is refused when it has a ".." component, holds a byte below
// 0x20 or 0x7F, names no file (empty, "." or ending in "/") or names the
// fault-record file. A refused name is never opened, created, rolled over,
// compressed or deleted; the request that carried it is dropped and the
// name is reported once (control bytes escaped) through a throttled event.
// The rolling files themselves refuse symbolic links on the way
// (Zor::RollingFile::SetContainingDirectory).
//
// Clients may add at most MaxLogFiles files in all (the standard files and
// the configured ones count too); a request beyond that is dropped and
// reported (throttled), and the files already known keep working.
//
// Threads: NameGuard objects belong to one thread each; FindOrAddLogFile
// and the reports about the daemon's own files run on the main thread.
#ifndef KESTRIN_KESTRIN_LOG_FILE_NAMES_H_
#define KESTRIN_KESTRIN_LOG_FILE_NAMES_H_

#include <memory>
#include <set>
#include <string>

#include "kestrin/LogFile.h"

namespace kestrin {

class ThrottledEventPoint;

// What is wrong with a normalised name; ACCEPTED when nothing is.
enum class LogFileNameVerdict { ACCEPTED, LEADS_OUTSIDE, CONTROL_BYTES, NAMES_NO_FILE, RESERVED };

LogFileNameVerdict CheckLogFileName(const std::string& normalized);

// Remembers the names one thread has refused, so that each is checked and
// reported once; the reports go through the guard's throttled event point.
class NameGuard {
 public:
  NameGuard();
  ~NameGuard();
  NameGuard(const NameGuard&) = delete;
  NameGuard& operator=(const NameGuard&) = delete;

  // True when `normalized` may be used. Otherwise reports it with
  // "Refused log file name \"<name>\": <reason>" the first time and returns
  // false.
  bool Admit(const std::string& normalized);

  // Tests only: forgets the refused names and the event point.
  void ForgetForTesting();

 private:
  std::unique_ptr<ThrottledEventPoint> point_;
  // Refused names already reported; bounded, so that a flood of distinct
  // names cannot grow it for ever (beyond the bound the throttle alone
  // limits the lines).
  std::set<std::string> refused_;
};

// The main thread's guard.
NameGuard& MainThreadNameGuard();

// Who asks for a file: a client's request is subject to MaxLogFiles, the
// configuration is not.
enum class LogFileRequester { CLIENT, CONFIGURATION };

// The map's file of `normalized`, or a new one entered into the map. Nil
// when the name is refused (reported through the main thread's guard) or,
// for a client, when MaxLogFiles files are already known (reported,
// throttled). `created` (may be null) tells whether the file is new. Main
// thread.
LogFilePtr FindOrAddLogFile(const std::string& normalized, LogFileRequester requester,
                            bool* created);

// Whether `normalized` names one of the daemon's own files: the system log,
// the alarm log, the own log or the fault-record file.
bool IsDaemonsOwnFile(const std::string& normalized);

// Reports (throttled) that a client asked to change `what` of the daemon's
// own file `normalized`, which only Kestrin.conf may set. Main thread.
void ReportOwnFileRequestRefused(const std::string& normalized, const char* what);

// Tests only: forgets the guards' memories and the throttled event points.
void ResetLogFileNamesForTesting();

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_LOG_FILE_NAMES_H_
