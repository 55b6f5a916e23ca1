// The program's entry and lifecycle: the command line, the start-up order,
// the single-instance rule, signals, registration with the service manager,
// the stop and hup clients, and the clean-up path with its reason codes.
//
// One executable plays two parts. With `start` (or no verb) it is the daemon:
// it sets itself up, runs the main loop until told to stop and ends through
// clean_up with status 0. With `stop` or `hup` it is a short-lived client of
// a running daemon: it puts one request on the daemon's queue, prints one
// line and exits 0 (sent) or 1 (not sent).
//
// Exit statuses: 0 from every clean-up path and a sent client request; 1 for
// start-up failures, a bad command line, a second instance and the abort
// path (SIGQUIT, or the timer-tick thread giving up).
//
// Signals only set flags, which the main loop polls: SIGHUP `hup_received`,
// SIGINT `graceful_quit`, SIGQUIT `abortive_quit`, and in the foreground
// SIGTERM `termination_requested`. No handler restarts system calls, so a
// signal interrupts the main loop's blocking receive. With `start` SIGTERM
// belongs to the service manager's client: its thread calls
// terminationSignal, which hands the stop to the main thread
// (`termination_requested`). Either way the main thread runs clean_up 901,
// so `kill`, a container runtime and the service manager all stop the
// daemon the same way: every buffered line written, status 0.
#ifndef KESTRIN_KESTRIN_LIFECYCLE_H_
#define KESTRIN_KESTRIN_LIFECYCLE_H_

#include <atomic>
#include <cstdint>
#include <iosfwd>

namespace kestrin {

// Set by the verb `start`: the process registers with the service manager
// and is stopped through it.
extern bool run_as_daemon;
// Project identifier of the daemon's own request queue (option -q). The stop
// and hup clients always use KES_QUEUE_PROJECT_ID ('Q'), whatever -q says.
extern char QueueKey;
// Options -LogAddLog and -LogReqs: trace add-log and RegHandle requests taken
// off the queue.
extern bool LogAddLogMessages;
extern bool LogNonAddLogMessages;
// The daemon's process id, saved by init_host_and_process_info.
extern unsigned long ProcessID;

// The flags through which signals and other threads reach the main loop.
// Lock-free atomics: a store from a signal handler is async-signal-safe and
// every thread sees it without a lock. 0 or 1.
extern std::atomic<int> hup_received;
extern std::atomic<int> graceful_quit;
extern std::atomic<int> abortive_quit;
// Set by terminationSignal (service manager's stop request) and, in the
// foreground, by SIGTERM: the main loop then runs clean_up 901.
extern std::atomic<int> termination_requested;
static_assert(std::atomic<int>::is_always_lock_free, "flags are stored from signal handlers");

// Reason codes of clean_up.
constexpr int KES_REASON_SERVICE_MANAGER_STOP = 901;
constexpr int KES_REASON_TOO_MANY_UNRECOGNIZED = 902;
constexpr int KES_REASON_TOO_MANY_RECEIVE_FAILURES = 903;
constexpr int KES_REASON_NORMAL_SHUTDOWN = 904;

extern const char KES_TEXT_SERVICE_MANAGER_STOP[];  // "Termination signal received from ..."
extern const char KES_TEXT_NORMAL_SHUTDOWN[];       // "Normal shutdown."

// The whole program: start-up in order, then the main loop, then clean-up.
// Never returns: every path ends the process with one of the statuses above.
[[noreturn]] int kestrin_main(int argc, char** argv);

// Installs the SIGHUP, SIGINT and SIGQUIT handlers (flags only). A failure is
// logged as a warning and start-up goes on.
void setup_signal_handling();

// Installs the SIGTERM handler of a daemon in the foreground (no `start`):
// it sets termination_requested, as the service manager's stop does. Not
// for `start`, where the service manager's client takes SIGTERM. A failure
// is logged as a warning and start-up goes on.
void setup_foreground_termination();

// Examines the arguments strictly left to right, each once, and forms the
// default pathnames of the configuration and taxonomy files afterwards.
// `stop` and `hup` send their request and exit here; a missing value after
// -d, -c, -a or -l and an unknown argument print the usage text and exit 1;
// a missing or bad value after -p, -h or -q is only reported.
void parse_command_line(int argc, char** argv);

// The usage text, starting with `programName` + ": Command-line options:".
void print_usage(std::ostream& out, const char* programName);

// Prints the usage text on standard output, writes "Unable to start.
// Invoked incorrectly" to syslog (critical) and exits with status 1.
[[noreturn]] void usage_and_exit(const char* programName);

// The stop and hup clients: put one shutdown (5) or reload (14) request on
// the queue keyed on the key file with 'Q', without waiting, and print one
// line on standard output. True when the request was sent.
bool send_shutdown_message();
bool send_hup_message();

// Registers with the service manager (which may move the process into the
// background); a failure is logged and start-up goes on.
void register_with_services_monitor(const char* programName);

// The service manager's stop request, called on its own thread: hands the
// stop to the main thread and waits there for the process to end.
void terminationSignal(unsigned long signalNumber);

// Saves the host name ("UnknownHost" when it cannot be read) and the
// process id.
void init_host_and_process_info();

// Shuts the role down, logs `text`, flushes every log file, tells the
// service manager and ends the process with _exit(0): without static
// destructors, and with status 0 for every reason. The queue, the semaphore
// and the shared memory stay for the clients and a restarted daemon. Main
// thread.
[[noreturn]] void clean_up(int queueId, int reason, const char* text);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_LIFECYCLE_H_
