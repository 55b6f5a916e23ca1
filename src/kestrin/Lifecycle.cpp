#include "kestrin/Lifecycle.h"

#include <signal.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>

#include "flt/FltRecord.h"
#include "kestrin/AlarmTaxonomy.h"
#include "kestrin/AlarmUtils.h"
#include "kestrin/Configuration.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/RegTable.h"
#include "kestrin/RequestLoop.h"
#include "kestrin/Role.h"
#include "osa/osa.h"
#include "protocol/SharedLayout.h"
#include "qrt/QrtDiag.h"
#include "zor/RollingFile.h"
#include "zor/SingleProcessInstanceMutex.h"

namespace kestrin {

bool run_as_daemon = false;
char QueueKey = KES_QUEUE_PROJECT_ID;
bool LogAddLogMessages = false;
bool LogNonAddLogMessages = false;
unsigned long ProcessID = 0;

std::atomic<int> hup_received{0};
std::atomic<int> graceful_quit{0};
std::atomic<int> abortive_quit{0};
std::atomic<int> termination_requested{0};

const char KES_TEXT_SERVICE_MANAGER_STOP[] =
    "Termination signal received from service manager. Shutting down.";
const char KES_TEXT_NORMAL_SHUTDOWN[] = "Normal shutdown.";

namespace {

constexpr char SYSLOG_IDENT[] = "Kestrin";
constexpr char CONFIG_FILE_NAME[] = "Kestrin.conf";
constexpr char TAXONOMY_FILE_NAME[] = "KestrinTaxonomy";
constexpr char UNKNOWN_HOST[] = "UnknownHost";
// Arguments of QrtServiceStartService: stay with the service manager's
// default (detach when none started us), interface version 1, and end the
// process if a stop request has not ended it within 3 seconds.
constexpr int SERVICE_OPTIONS = 0;
constexpr int SERVICE_INTERFACE_VERSION = 1;
constexpr int SERVICE_STOP_TIMEOUT_SECONDS = 3;

void Report(unsigned short severity, const std::string& text) {
  if (OwnLogAdmits(severity)) LogKestrinMessage(severity, text, NO_EVENT_ID);
}

// ---- signals -----------------------------------------------------------------

void OnHangUp(int) { hup_received = 1; }
void OnInterrupt(int) { graceful_quit = 1; }
void OnQuit(int) { abortive_quit = 1; }
void OnTerminate(int) { termination_requested = 1; }

// SIGHUP, SIGINT, SIGQUIT and (in the foreground) SIGTERM sent to the
// process must interrupt the main thread's receive, not land on another
// thread: the signals are blocked while the daemon's threads are created
// (they inherit the mask and keep it) and unblocked on the main thread
// afterwards; one arriving meanwhile stays pending and is taken then. With
// `start` SIGTERM is left to the service manager's client, which keeps it
// blocked in every thread and takes it on a thread of its own.
void SetLoopSignalsBlocked(bool blocked) {
  static const int LOOP_SIGNALS[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
  const int count = run_as_daemon ? 3 : 4;
  osBlockSignals(LOOP_SIGNALS, count, blocked ? 1 : 0);
}

void InstallHandler(int signalNumber, tOsSignalHandler handler, const char* name) {
  int result = osSetSignalHandler(signalNumber, handler);
  if (result != OS_OK) {
    Report(KES_SEVERITY_WARNING, std::string("Failed setting ") + name + " action; errno = " +
                                     std::to_string(osGetSpecificErrorCode(result)));
  }
}

// ---- command line ------------------------------------------------------------

// Settings that only the command line's own bookkeeping needs.
struct CommandLine {
  const char* programName;
  bool configPathGiven = false;
  bool taxonomyPathGiven = false;
};

// A port: all digits, 1 to 65535.
bool ParsePort(const char* text, uint16_t* port) {
  if (text[0] == '\0') return false;
  unsigned long value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return false;
    value = value * 10 + static_cast<unsigned long>(*p - '0');
    if (value > 65535) return false;
  }
  if (value == 0) return false;
  *port = static_cast<uint16_t>(value);
  return true;
}

// `value` is the argument after the option, null when the option was last.
void SetPort(const char* value) {
  if (value == nullptr) {
    LogError("-p must be followed by port number; using default port");
    return;
  }
  uint16_t port = 0;
  if (!ParsePort(value, &port)) {
    LogError("port number is invalid; using default port");
    return;
  }
  MastersPort = port;
  Report(KES_SEVERITY_INFO, "MastersPort " + std::to_string(port));
}

void SetHostname(const char* value) {
  if (value == nullptr) {
    LogError("-h must be followed by hostname; using default hostname");
    return;
  }
  MastersHostname = value;
  Report(KES_SEVERITY_INFO, "MastersHostname " + MastersHostname);
}

void SetQueueKey(const char* value) {
  if (value == nullptr) {
    LogError("-q must be followed by queue key; using default");
    return;
  }
  // Only the first character is used.
  QueueKey = value[0];
  Report(KES_SEVERITY_INFO, std::string("QueueKey ") + QueueKey);
}

// The options whose missing value is fatal.
void RequireValue(const char* value, const char* message, const CommandLine& line) {
  if (value != nullptr) return;
  LogError(message);
  usage_and_exit(line.programName);
}

void SetConfigDirectory(const char* value, const CommandLine& line) {
  RequireValue(value, "-d must be followed by directory name", line);
  ConfigDirectoryName = value;
  if (ConfigDirectoryName.empty() || ConfigDirectoryName.back() != '/') ConfigDirectoryName += '/';
  Report(KES_SEVERITY_INFO, "ConfigDirectoryName " + ConfigDirectoryName);
}

[[noreturn]] void SendAndExit(bool (*sendRequest)()) { exit(sendRequest() ? 0 : 1); }

// Handles one argument at `*index` (advancing it past a consumed value).
void ParseArgument(int argc, char** argv, int* index, CommandLine* line) {
  const std::string argument = argv[*index];
  // The option's value: the next argument, consumed; null when there is none.
  auto value = [&]() -> const char* { return *index + 1 < argc ? argv[++*index] : nullptr; };
  if (argument == "start") {
    LogDebug("Start daemon process");
    run_as_daemon = true;
  } else if (argument == "stop") {
    LogDebug("Stopping Kestrin");
    SendAndExit(send_shutdown_message);
  } else if (argument == "hup") {
    LogDebug("Hupping Kestrin");
    SendAndExit(send_hup_message);
  } else if (argument == "-p") {
    SetPort(value());
  } else if (argument == "-h") {
    SetHostname(value());
  } else if (argument == "-q") {
    SetQueueKey(value());
  } else if (argument == "-d") {
    SetConfigDirectory(value(), *line);
  } else if (argument == "-c") {
    const char* path = value();
    RequireValue(path, "-c must be followed by pathname", *line);
    PathnameOfConfigFile = path;
    UsingDefaultPathnameOfConfigFile = false;
    line->configPathGiven = true;
  } else if (argument == "-a") {
    const char* path = value();
    RequireValue(path, "-a must be followed by pathname", *line);
    PathnameOfTaxonomyFile = path;
    line->taxonomyPathGiven = true;
  } else if (argument == "-l") {
    const char* name = value();
    RequireValue(name, "-l must be followed by a file name", *line);
    NameOfKestrinsOwnLog = NormalizeLogFileName(name);
  } else if (argument == "-LogAddLog") {
    LogAddLogMessages = true;
  } else if (argument == "-LogReqs") {
    LogNonAddLogMessages = true;
  } else {
    printf("Invalid command-line argument %s\n", argument.c_str());
    usage_and_exit(line->programName);
  }
}

void FormDefaultPathnames(const CommandLine& line) {
  if (!line.configPathGiven) {
    PathnameOfConfigFile = ConfigDirectoryName + CONFIG_FILE_NAME;
    UsingDefaultPathnameOfConfigFile = true;
  }
  if (!line.taxonomyPathGiven) PathnameOfTaxonomyFile = ConfigDirectoryName + TAXONOMY_FILE_NAME;
  Report(KES_SEVERITY_INFO, "PathnameOfConfigFile: " + PathnameOfConfigFile);
  Report(KES_SEVERITY_INFO, "PathnameOfTaxonomyFile: " + PathnameOfTaxonomyFile);
}

// The configuration directory of the platform (under KESTRIN_ROOT when it
// is set) until -d says otherwise.
void SetDefaultConfigDirectory() {
  char directory[PATH_MAX];
  if (osGetPath(OS_PATH_CONFIG, directory, sizeof directory) == OS_OK) {
    ConfigDirectoryName = directory;
  }
}

// ---- stop and hup clients ----------------------------------------------------

struct ClientTexts {
  const char* keyFailure;
  const char* openFailure;
  const char* sent;
};

const ClientTexts STOP_TEXTS = {
    "Unable to find a key for the Kestrin message queue. You'll have to 'kill -9' Kestrin",
    "Unable to open Kestrin message queue. You'll have to 'kill -9' Kestrin",
    "Stop request sent to Kestrin."};
const ClientTexts HUP_TEXTS = {
    "Unable to find a key for the Kestrin message queue. Try restarting Kestrin.",
    "Unable to open Kestrin message queue. Try restarting Kestrin.",
    "Hup request sent to Kestrin."};

// Sends a header-only request of `type` to the queue keyed with 'Q' (never
// QueueKey) and prints the outcome.
bool SendClientRequest(uint16_t type, const ClientTexts& texts) {
  int key = 0;
  if (KesIpcKey(KES_QUEUE_PROJECT_ID, &key) != OS_OK) {
    printf("%s\n", texts.keyFailure);
    return false;
  }
  int queueId = -1;
  // Open only: a client never creates the daemon's queue.
  if (osSysVQueueOpen(key, 0, &queueId) != OS_OK) {
    printf("%s\n", texts.openFailure);
    return false;
  }
  int result = SendHeaderOnlyRecord(queueId, type, true);
  if (result != OS_OK) {
    int error = result == OS_ERROR_WOULD_BLOCK ? EAGAIN : osGetSpecificErrorCode(result);
    printf("Message queue send failed to transfer any data. Errno %d\n", error);
    return false;
  }
  printf("%s\n", texts.sent);
  return true;
}

// ---- start-up steps ----------------------------------------------------------

void SaveMainThreadId() {
  int result = osGetTaskId(&MainThreadsTaskId);
  if (result != OS_OK) {
    Report(KES_SEVERITY_ERROR, "FATAL ERROR: osGetTaskId returned " + std::to_string(result));
    exit(1);
  }
}

// The guard lives until the process ends (it is never destroyed).
void RefuseSecondInstance() {
  static Zor::SingleProcessInstanceMutex* instance = new Zor::SingleProcessInstanceMutex;
  if (!instance->IAmFirst()) {
    Report(KES_SEVERITY_ERROR, "Kestrin is already running. Exiting.");
    exit(1);
  }
}

void StartRole() {
  initialize_role();
  if (!RolePtr->StartUp()) {
    Report(KES_SEVERITY_WARNING, "Failed to start role; exiting");
    exit(1);
  }
}

}  // namespace

void setup_signal_handling() {
  InstallHandler(SIGHUP, OnHangUp, "hup");
  InstallHandler(SIGINT, OnInterrupt, "int");
  InstallHandler(SIGQUIT, OnQuit, "quit");
}

void setup_foreground_termination() { InstallHandler(SIGTERM, OnTerminate, "term"); }

void parse_command_line(int argc, char** argv) {
  CommandLine line;
  line.programName = argc > 0 ? argv[0] : "kestrin";
  for (int index = 1; index < argc; ++index) ParseArgument(argc, argv, &index, &line);
  FormDefaultPathnames(line);
}

void print_usage(std::ostream& out, const char* programName) {
  out << programName << ": Command-line options:\n"
      << "\n"
      << "start - start as a daemon process\n"
      << "stop  - stop a currently running Kestrin\n"
      << "hup   - ask a currently running Kestrin to re-read its configuration\n"
      << "        --> If none of start, stop, or hup is specified, runs as a\n"
      << "            foreground application\n"
      << "\n"
      << "-d <directory> - directory in which to look for the alarm taxonomy file\n"
      << "                 KestrinTaxonomy (if -a is not given) and the configuration\n"
      << "                 file Kestrin.conf (if -c is not given); defaults to /kv/etc\n"
      << "-a <pathname>  - full pathname of the alarm taxonomy file\n"
      << "-c <pathname>  - full pathname of the configuration file\n"
      << "-l <pathname>  - relative pathname of Kestrin's own log file; defaults to\n"
      << "                 Kestrin.log\n"
      << "\n"
      << "-h <hostname>  - host name or IP address of the Master; may be given when\n"
      << "                 running as either the Master or an Agent (on the standard\n"
      << "                 chassis the default is right)\n"
      << "-p <port>      - port used by Agents to connect to the Master; usually not\n"
      << "                 to be given\n";
}

void usage_and_exit(const char* programName) {
  print_usage(std::cout, programName);
  std::cout.flush();
  osSyslog(OS_LOG_CRIT, "%s", "Unable to start. Invoked incorrectly");
  exit(1);
}

bool send_shutdown_message() {
  if (RolePtr != nullptr) RolePtr->ShutDownPending();
  return SendClientRequest(KES_SHUTDOWN_REQUEST, STOP_TEXTS);
}

bool send_hup_message() { return SendClientRequest(KES_RELOAD_REQUEST, HUP_TEXTS); }

void register_with_services_monitor(const char* programName) {
  LogDebug("Going into the background....");
  int result = QrtServiceStartService(programName, SERVICE_OPTIONS, SERVICE_INTERFACE_VERSION,
                                      terminationSignal, SERVICE_STOP_TIMEOUT_SECONDS);
  if (result != 0) {
    Report(KES_SEVERITY_ERROR,
           "Error " + std::to_string(result) + " trying to go into the background");
  }
}

void terminationSignal(unsigned long /*signalNumber*/) {
  // Only the main thread may write log files, so clean_up runs there: the
  // flag ends its loop, and a tick record wakes it when it is waiting for a
  // request. This thread then waits for the process to end (the service
  // client's watchdog ends it should the main thread never get there).
  termination_requested = 1;
  if (sys5q != -1) SendHeaderOnlyRecord(sys5q, KES_TIMER_TICK, true);
  for (;;) osSleep(1000);
}

void init_host_and_process_info() {
  int result = osTCPGetHostName(Hostname, sizeof Hostname);
  if (result != OS_OK) {
    osLStrCpyn(Hostname, UNKNOWN_HOST, sizeof Hostname);
    Hostname[sizeof Hostname - 1] = '\0';
    Report(KES_SEVERITY_WARNING, "Error " + std::to_string(result) + " retrieving hostname");
  }
  Report(KES_SEVERITY_DEBUG, std::string("Saving hostname ") + Hostname);
  osGetProcessId(&ProcessID);
  Report(KES_SEVERITY_DEBUG, "Saving process ID " + std::to_string(ProcessID));
}

void clean_up(int /*queueId*/, int reason, const char* text) {
  if (RolePtr != nullptr) RolePtr->ShutDown(reason, text);
  // A thread that reported and then set a quit flag may have stopped the
  // main loop before its report was read: it is written now, before the
  // files are flushed.
  WriteWaitingInternalReports();
  LogInfo(text);
  osSyslog(OS_LOG_INFO, "%s", "Kestrin shutting down");
  // A compression under way is abandoned, not awaited: its backup stays
  // plain until the file's next roll-over.
  Zor::RollingFile::StopCompressing();
  FlushFiles();
  if (run_as_daemon) QrtServiceStopService();
  osCloseSyslog();
  if (KestrinsRoleType != ROLE_AGENT) FltDispatchTerminate();
  // No static destructors: other threads may still be running, and the
  // queue, semaphore and shared memory must stay for clients and a restart.
  osExitNow(0);
}

int kestrin_main(int argc, char** argv) {
  // Lines on standard output are read as they come (console, journal).
  setvbuf(stdout, nullptr, _IOLBF, 0);
  tzset();
  osOpenSyslog(SYSLOG_IDENT);
  SetDefaultConfigDirectory();
  SaveMainThreadId();
  setup_signal_handling();
  parse_command_line(argc, argv);
  // With `start` the service manager's client answers SIGTERM; the original
  // process waiting for the detached one keeps the default action.
  if (!run_as_daemon) setup_foreground_termination();
  RefuseSecondInstance();
  SetLoopSignalsBlocked(true);
  if (run_as_daemon) {
    register_with_services_monitor(argv[0]);
    // Registration may have moved the daemon into a new process.
    SaveMainThreadId();
    Daemonized = true;
  }
  initialize_standard_log_files();
  read_private_config_file();
  createKestrinsQueue();
  create_ipc_semaphore();
  init_host_and_process_info();
  load_configuration_file();
  StartTimerTickThread();
  SetLoopSignalsBlocked(false);
  if (run_as_daemon) {
    int result = QrtServiceInitialized();
    if (result != 0) {
      Report(KES_SEVERITY_WARNING,
             "Error " + std::to_string(result) + " calling QrtServiceInitialized");
    }
  }
  IssueDeferredKestrinAlarms();
  StartRole();
  if (KestrinsRoleType != ROLE_AGENT) FltDispatchInitTx();
  run();
  clean_up(sys5q, KES_REASON_NORMAL_SHUTDOWN, KES_TEXT_NORMAL_SHUTDOWN);
}

}  // namespace kestrin
