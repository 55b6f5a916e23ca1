// Process-wide state of the daemon shared by its subsystems.
//
// Written on the main thread during start-up, then read by every thread:
// `MainThreadsTaskId` is set before any other thread starts; `sys5q` is set
// after the service client's termination thread has started, so it is atomic.
// `Daemonized` is read without a lock by the standard-output echo only.
#ifndef KESTRIN_KESTRIN_GLOBALS_H_
#define KESTRIN_KESTRIN_GLOBALS_H_

#include <atomic>
#include <string>

#include "kestrin/LogFile.h"

namespace kestrin {

// False while the process still runs in the foreground (reports are echoed
// to standard output then).
extern bool Daemonized;
// The platform task id of the main thread, the only writer of log files.
extern unsigned long MainThreadsTaskId;
// The request queue's id; -1 while there is none.
extern std::atomic<int> sys5q;

// Relative name of the daemon's own log file.
extern std::string NameOfKestrinsOwnLog;

// The standard files; nil until initialize_standard_log_files.
extern LogFilePtr systemlog;
extern LogFilePtr logger;
extern LogFilePtr alarmLog;

// Every log file the daemon knows, by normalised name.
extern LogFileMap logFileMap;

// The private log file of each registration handle; nil until the handle's
// file is known.
constexpr int KES_MAX_HANDLES = 256;
extern LogFilePtr logFileArray[KES_MAX_HANDLES];

// This card's host name; "UnknownHost" when it cannot be read. Refreshed by
// the timer-tick thread without a lock (a reader may briefly see a partly
// copied name, which is accepted).
extern char Hostname[256];

// The role this card plays. KestrinsRoleType starts as ROLE_DEFAULT (chosen
// automatically at start-up); the configuration may name another.
enum RoleType : int { ROLE_AGENT = 0, ROLE_MASTER = 1, ROLE_SOLO = 2, ROLE_DEFAULT = 3 };
extern RoleType KestrinsRoleType;

// Pacing of the main loop: sleep SLEEP_TIME milliseconds after every
// MESSAGES_BEFORE_SLEEP requests. Set from the configuration, kept positive.
// Atomic: a re-read on the main thread changes them while a Master's select
// thread paces itself with them.
extern std::atomic<int> MESSAGES_BEFORE_SLEEP;
extern std::atomic<int> SLEEP_TIME;

// How many log files clients may make the daemon know in all ("MaxLogFiles"
// of the configuration; 16 to 65536, default 512). Main thread.
constexpr int KES_DEFAULT_MAX_LOG_FILES = 512;
extern int MaxLogFiles;

// Where the configuration comes from (command line, then defaults formed
// from ConfigDirectoryName, which always ends in "/").
extern std::string ConfigDirectoryName;
extern std::string PathnameOfConfigFile;
extern bool UsingDefaultPathnameOfConfigFile;
extern std::string PathnameOfTaxonomyFile;

// Creates the internal logger and the standard files (system log, the own
// log, the alarm log), enters them into logFileMap and writes the start-up
// banner. Main thread, once, at start-up.
void initialize_standard_log_files();

// Reports the compression failures met since the last call, then flushes
// every file of logFileMap that has unflushed lines.
void FlushFiles();

// Closes and reopens at its path every file of logFileMap whose path no
// longer names the open file (removed, renamed, directory removed).
void ReopenMovedFiles();

// Hands the complete lines buffered for every file of logFileMap to the
// kernel, without syncing (RollingFile::WriteOut): whenever the main loop
// finds the queue empty and at every pacing pause, so that a line is
// readable within milliseconds and a killed daemon loses only what it
// received since.
void WriteOutFiles();

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_GLOBALS_H_
