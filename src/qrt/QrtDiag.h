/*
 * The Kestrin client library (libQrtShared.so): how an application process
 * registers a module with the Kestrin logging daemon, sends it log messages
 * and log-file settings, and how a service process reports to the service
 * manager.
 *
 * Error convention: every function that can fail returns an int, 0 (QRT_OK)
 * on success and one of the QRT_ERROR_* codes below otherwise; QrtErrorText
 * names each. Output arguments are written only on success. Nothing is thrown
 * across this interface. Every function may be called from any thread, except
 * the QrtService* calls, which belong to the process's main thread. Fixed
 * paths and IPC names follow KESTRIN_ROOT exactly as the daemon's do, so a
 * client and a daemon started under the same root find each other.
 */
#ifndef KESTRIN_QRT_QRT_DIAG_H_
#define KESTRIN_QRT_QRT_DIAG_H_

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QRT_EXPORT __attribute__((visibility("default")))

/* ---- Result codes ------------------------------------------------------ */

enum {
  QRT_OK = 0,
  /* The daemon's key file, request queue, registration table or semaphore
   * does not exist: no daemon has run under this root. */
  QRT_ERROR_NO_DAEMON = 1,
  /* Every handle from 1 to 255 is registered under other names. */
  QRT_ERROR_TABLE_FULL = 2,
  /* The request queue is full; the message was not sent and was counted as
   * dropped. */
  QRT_ERROR_QUEUE_FULL = 3,
  /* The handle is outside 0..255 or not registered. */
  QRT_ERROR_INVALID_HANDLE = 4,
  /* A null pointer, an empty name, a value out of range, an unknown word. */
  QRT_ERROR_INVALID_PARAMETER = 5,
  /* The queue refused the request for a reason other than being full. */
  QRT_ERROR_SEND_FAILED = 6,
  /* The registration table's semaphore could not be taken. */
  QRT_ERROR_LOCK_FAILED = 7,
  /* A service call out of order (started twice, ready before started, ...). */
  QRT_ERROR_INVALID_STATE = 8,
  /* An operating-system call failed (fork, pipe, thread, notify socket). */
  QRT_ERROR_SYSTEM = 9,
  /* An unexpected failure inside the library. */
  QRT_ERROR_INTERNAL = 10
};

/* A short English description of a result code ("the Kestrin daemon is not
 * running", ...); "unknown error" for other values. Never null; static. */
QRT_EXPORT const char* QrtErrorText(int code);

/* ---- Vocabulary ------------------------------------------------------- */

/* Severity codes: one bit each. */
enum {
  QRT_SEVERITY_ERROR = 1,
  QRT_SEVERITY_WARNING = 2,
  QRT_SEVERITY_INFO = 4,
  QRT_SEVERITY_DEBUG = 8
};

/* Destination bits: the system log, and the module's private log file. */
enum {
  QRT_DESTINATION_SYSTEM_LOG = 0x01,
  QRT_DESTINATION_PRIVATE_FILE = 0x02,
  QRT_DESTINATION_BOTH = 0x03
};

/* Event classes: one bit each; 0 lets the daemon choose. */
enum {
  QRT_EVENT_CLASS_UNSPECIFIED = 0,
  QRT_EVENT_CLASS_FAULT = 1,
  QRT_EVENT_CLASS_INFORMATION = 2,
  QRT_EVENT_CLASS_STATE = 4,
  QRT_EVENT_CLASS_AUDIT = 8,
  QRT_EVENT_CLASS_CONFIGURATION = 16,
  QRT_EVENT_CLASS_DATA = 32,
  QRT_EVENT_CLASS_MAINTENANCE = 64,
  QRT_EVENT_CLASS_METRICS = 128,
  QRT_EVENT_CLASS_SECURITY = 256
};

/* Words to codes, ASCII case ignored; an unknown word or a null argument is
 * QRT_ERROR_INVALID_PARAMETER.
 * Severity: "error" 1, "warning" 2, "info" 4, "debug" 8.
 * Event class: "unspecified" 0, "fault" 1, "information" 2, "state" 4,
 * "audit" 8, "configuration" 16, "data" 32, "maintenance" 64, "metrics" 128,
 * "security" 256 (the daemon's own words for them).
 * Destination: "system" 1, "private" 2, "both" 3. */
QRT_EXPORT int QrtDiagSeverityFromWord(const char* word, unsigned short* severity);
QRT_EXPORT int QrtDiagEventClassFromWord(const char* word, unsigned long* eventClass);
QRT_EXPORT int QrtDiagDestinationFromWord(const char* word, unsigned char* destination);

/* The daemon's key file as mapped under KESTRIN_ROOT, for messages that say
 * where the daemon was looked for. QRT_ERROR_INVALID_PARAMETER when it does
 * not fit `size` or `buffer` is null. */
QRT_EXPORT int QrtDiagGetKeyFilePath(char* buffer, size_t size);

/* ---- Registration and messages -------------------------------------- */

/* Registers a module and gives the handle for its messages (0..255).
 * Names are cut to fit their table fields (127, 127 and 511 characters).
 * The handle is chosen under the registration table's semaphore: the
 * registered handle whose name in log and log file name both equal the given
 * ones (as cut) is reused, so the same names always give the same handle,
 * from any thread or process; otherwise the first handle from 1 to 255 not
 * registered is taken and filled. `moduleNameInLog` is the name shown in the
 * module's log lines. `flags` is reserved: pass 0 (other values are accepted
 * and ignored). Fails with QRT_ERROR_NO_DAEMON when no daemon has set up the
 * table and semaphore (nothing is created then, and the call does not wait),
 * QRT_ERROR_TABLE_FULL, QRT_ERROR_LOCK_FAILED, or QRT_ERROR_INVALID_PARAMETER
 * for a null pointer or an empty log file name. The call blocks while another
 * process holds the semaphore. */
QRT_EXPORT int QrtDiagRegisterModule(const char* moduleName, const char* moduleNameInLog, int flags,
                                     const char* logFileName, int* handle);

/* Sends one log message for `handle` to `destination` (QRT_DESTINATION_*
 * bits) with a severity code (QRT_SEVERITY_*), an event ID and an event class
 * (QRT_EVENT_CLASS_*). A severity code numerically above the filter that the
 * daemon publishes for the handle's log file is not sent and costs no system
 * call: the result is QRT_OK. The text (null counts as empty) is cut at 899
 * characters. The message carries the time of day, this process's ID and card
 * 0. The call never waits: when the queue is full the message is dropped,
 * counted (QrtDiagGetDroppedCount) and QRT_ERROR_QUEUE_FULL returned, and the
 * next message of this process that gets through carries the "messages have
 * been dropped" flag. */
QRT_EXPORT int QrtDiagAddLogWithEvClass(int handle, unsigned char destination,
                                        unsigned short severity, unsigned long eventId,
                                        const char* text, unsigned long eventClass);

/* As QrtDiagAddLogWithEvClass with the text formatted like printf and the
 * event class left to the daemon (0). The text is formatted only when the
 * message passes the filter. A null format is QRT_ERROR_INVALID_PARAMETER. */
QRT_EXPORT int QrtDiagAddLog(int handle, unsigned char destination, unsigned short severity,
                             unsigned long eventId, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/* The number of messages this process has dropped because the request queue
 * refused them (full, or failed), since it started. */
QRT_EXPORT unsigned long QrtDiagGetDroppedCount(void);

/* ---- Requests about log files and the table ---------------------------- */

/* Asks the daemon to set the maximum size of the log file `logFileName` to
 * `kilobytes` KiB (the daemon clamps it to its limits). `kilobytes` above
 * 0x7fffffff is QRT_ERROR_INVALID_PARAMETER. Never waits (QRT_ERROR_QUEUE_FULL
 * when the queue is full). */
QRT_EXPORT int QrtDiagSetLogFileSize(const char* logFileName, unsigned long kilobytes);

/* Asks the daemon to keep `count` numbered backups of `logFileName` (it keeps
 * at most 100). `count` above 0x7fffffff is QRT_ERROR_INVALID_PARAMETER. */
QRT_EXPORT int QrtDiagSetLogFileBackups(const char* logFileName, unsigned long count);

/* Asks the daemon to write its registration table into its own log. */
QRT_EXPORT int QrtDiagDumpRegistrationTable(void);

/* ---- Service manager ------------------------------------------------- */

/* Called on the library's own thread, with the signal number (SIGTERM),
 * when the service manager asks the process to end. It should end the
 * process (the daemon's clean-up calls _exit); if it returns, the thread
 * waits for the next request. */
typedef void (*QrtServiceTerminationCallback)(unsigned long signalNumber);

/* `options` bits for QrtServiceStartService. */
enum {
  /* Stay in the foreground even when no service manager started the process. */
  QRT_SERVICE_OPTION_FOREGROUND = 1
};

/* The only `interfaceVersion` this library serves. */
#define QRT_SERVICE_INTERFACE_VERSION 1

/* Registers the process with the service manager. Call it once, from the
 * main thread, before any other thread exists.
 *
 * Under a service manager (NOTIFY_SOCKET set, as systemd sets it for a
 * Type=notify unit) the process stays as it is. Without one, unless
 * `options` holds QRT_SERVICE_OPTION_FOREGROUND, the call MAY FORK: the
 * original process waits until the child reports readiness through
 * QrtServiceInitialized and then exits 0, or, when the child ends first,
 * writes "<serviceName>: the background process ended before it was ready"
 * to standard error and exits with the child's non-zero status (1 when the
 * child ended with 0). Only the child returns, in a new session, with a new
 * process ID: the caller must read its process and thread IDs again
 * (osGetTaskId) after this call. Locks taken by osGetProcessState are kept
 * by the child. The working directory is kept, and so are the standard
 * streams until QrtServiceInitialized.
 *
 * SIGTERM is blocked in the calling thread (and so in every thread it
 * creates later, and in programs they start); a thread of the library waits
 * for it and calls `terminationCallback` with the signal number. When the
 * process still runs `stopTimeoutSeconds` after a termination request, the
 * library ends it with status 1 so that a hung clean-up cannot keep a stopped
 * service alive (0: no limit).
 *
 * `interfaceVersion` must be QRT_SERVICE_INTERFACE_VERSION. Results:
 * QRT_ERROR_INVALID_PARAMETER (null name or callback, unknown option bits or
 * version, negative time-out), QRT_ERROR_INVALID_STATE (called twice),
 * QRT_ERROR_SYSTEM (fork, pipe, signal mask or thread failed). */
QRT_EXPORT int QrtServiceStartService(const char* serviceName, int options, int interfaceVersion,
                                      QrtServiceTerminationCallback terminationCallback,
                                      int stopTimeoutSeconds);

/* Reports that start-up is complete: "READY=1" to the service manager, or,
 * after a fork, releases the waiting original process and then points
 * standard input, output and error at /dev/null, so that the process no
 * longer holds its starter's terminal or pipes (what it printed before has
 * reached them). Once, after QrtServiceStartService (else
 * QRT_ERROR_INVALID_STATE). QRT_ERROR_SYSTEM when the report failed (start-up
 * then counts as not reported), or when the streams could not be replaced
 * after it (start-up counts as reported). */
QRT_EXPORT int QrtServiceInitialized(void);

/* Reports that the process is stopping: "STOPPING=1" to the service manager;
 * after a fork and before QrtServiceInitialized, the waiting original process
 * learns that start-up failed. Once, after QrtServiceStartService (else
 * QRT_ERROR_INVALID_STATE). */
QRT_EXPORT int QrtServiceStopService(void);

#ifdef __cplusplus
}
#endif

#endif /* KESTRIN_QRT_QRT_DIAG_H_ */
