// Add-log processing: one log event of a client, mapped through the alarm
// taxonomy, formatted once and written to each destination it selects.
//
// The log line of the system log, the alarm log and operational files is
//   "<sev>\t<timestamp><usec:6>\t<host>\t<name in log>\t[<pid>]:\teventID=<id>; message=<text>"
// followed by "; problemResolution=<text>" when the taxonomy gives one, cut
// at 2047 characters; each file receives it with a line end. Private files
// that are not operational logs receive the private-file line instead
// (LogPrivateMessage).
//
// Threads: the main thread only. The line buffer and the time of the last
// flush are process-wide and unguarded for that reason.
#ifndef KESTRIN_KESTRIN_ADD_LOG_H_
#define KESTRIN_KESTRIN_ADD_LOG_H_

#include <cstddef>
#include <cstdint>

#include "kestrin/LogFile.h"
#include "kestrin/Records.h"
#include "kestrin/Severity.h"

namespace kestrin {

// Flag bits of an add-log record.
constexpr uint16_t KES_FLAG_STAMP_ALL_LOGS = 0x1;
constexpr uint16_t KES_FLAG_MESSAGES_DROPPED = 0x2;
// Destination bits: 1 or 4 the system log, 2 the handle's private file.
constexpr uint16_t KES_DESTINATION_SYSTEM_LOG_BITS = 0x1 | 0x4;
constexpr uint16_t KES_DESTINATION_PRIVATE_FILE = 0x2;

// The longest log line, without its terminating NUL.
constexpr size_t KES_MAX_LOG_LINE = 2047;

// Processes one add-log record that passed ValidateAddLogMessage (so its
// handle names a registered slot of the attached registration table).
void process_add_log_message(const tKesAddLogMessage* message);

// Makes sure `handle` has its private log file: the file already known
// under the slot's (normalised) file name, whose level then goes into the
// handle's filter, or a new one, which is announced in the own log. Returns
// false, leaving the handle without a file, when the slot's name is refused
// or no more files may be added (LogFileNames.h); the caller then drops the
// request.
bool AddLogFileEntry(unsigned int handle, unsigned long cardId, long processId);

// The event class when neither the taxonomy nor the client gave one:
// security (256) for a security log, else fault (1) down to the warning
// level, else information (2). `byteValue` takes no part in the result.
uint32_t GetDefaultEventClass(DetailedSeverity severity, unsigned char byteValue,
                              const LogFilePtr& file);

// Writes one event into every log file once: the own log, the system log and
// the file of every registered handle (shared files once), under the
// registration-table semaphore. Without the semaphore nothing is stamped.
void StampAllLogs(const tKesAddLogMessage* message, const char* line);

// How many log lines process_add_log_message has formatted since start-up
// (each event's line is formatted at most once).
unsigned long NumAddLogLinesFormatted();

// Tests only: the next call is the first again (no flush time recorded).
void ResetAddLogFlushTimeForTesting();

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_ADD_LOG_H_
