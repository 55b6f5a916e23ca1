// kestrin-log: sends log messages and log-file requests to the Kestrin daemon
// from the command line, in the manner of logger(1). Argument handling only:
// everything it sends is built by the client library.
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include <iostream>
#include <string>

#include "qrt/QrtDiag.h"

namespace {

constexpr int EXIT_FAILED = 1;  // the daemon is not running, or a request failed
constexpr int EXIT_USAGE = 2;
constexpr int ARGUMENTS_OK = -1;

const char USAGE[] =
    "Usage: kestrin-log [options] [message ...]\n"
    "Sends a message to the Kestrin logging daemon: the words given, joined by\n"
    "blanks, or else each line of standard input as one message.\n"
    "\n"
    "The module (registered before its first message):\n"
    "  -m, --module NAME        module name (default kestrin-log)\n"
    "  -n, --name-in-log NAME   name shown in log lines (default: the module name)\n"
    "  -f, --file NAME          the module's private log file (default kestrin-log.log)\n"
    "  -r, --register           register the module, print its handle, send nothing\n"
    "\n"
    "The message:\n"
    "  -s, --severity WORD      error, warning, info or debug (default info)\n"
    "  -e, --event-id NUMBER    event ID (default 0)\n"
    "  -c, --class WORD         event class: fault, information, state, audit,\n"
    "                           configuration, data, maintenance, metrics or\n"
    "                           security (default: chosen by the daemon)\n"
    "  -d, --destination WORD   system (the system log), private (the module's\n"
    "                           file) or both (default both)\n"
    "\n"
    "Requests (no message is read from standard input when one is given):\n"
    "      --set-size KB        set the maximum size of the file of -f, in KiB\n"
    "      --set-backups COUNT  set the number of backups kept of the file of -f\n"
    "      --dump               have the daemon write its registration table into\n"
    "                           its own log\n"
    "  -h, --help               show this text\n"
    "\n"
    "Exit status: 0 when everything was sent, 1 when the daemon is not running\n"
    "or a request failed, 2 for a usage error.\n";

enum LongOnly { OPTION_SET_SIZE = 1000, OPTION_SET_BACKUPS, OPTION_DUMP };

const option LONG_OPTIONS[] = {
    {"module", required_argument, nullptr, 'm'},
    {"name-in-log", required_argument, nullptr, 'n'},
    {"file", required_argument, nullptr, 'f'},
    {"register", no_argument, nullptr, 'r'},
    {"severity", required_argument, nullptr, 's'},
    {"event-id", required_argument, nullptr, 'e'},
    {"class", required_argument, nullptr, 'c'},
    {"destination", required_argument, nullptr, 'd'},
    {"set-size", required_argument, nullptr, OPTION_SET_SIZE},
    {"set-backups", required_argument, nullptr, OPTION_SET_BACKUPS},
    {"dump", no_argument, nullptr, OPTION_DUMP},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

struct Options {
  std::string module = "kestrin-log";
  std::string nameInLog;  // empty: the module name
  std::string file = "kestrin-log.log";
  bool registerOnly = false;
  unsigned short severity = QRT_SEVERITY_INFO;
  unsigned long eventId = 0;
  unsigned long eventClass = QRT_EVENT_CLASS_UNSPECIFIED;
  unsigned char destination = QRT_DESTINATION_BOTH;
  bool setSize = false;
  unsigned long sizeKilobytes = 0;
  bool setBackups = false;
  unsigned long backups = 0;
  bool dump = false;
  bool haveMessage = false;
  std::string message;
};

int usage_error(const std::string& text) {
  std::cerr << "kestrin-log: " << text << "\nTry 'kestrin-log --help'.\n";
  return EXIT_USAGE;
}

// A decimal number of at most `max`; false for anything else.
bool parse_number(const char* text, unsigned long max, unsigned long* value) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  char* end = nullptr;
  unsigned long long parsed = strtoull(text, &end, 10);
  if (*end != '\0' || parsed > max) return false;
  *value = static_cast<unsigned long>(parsed);
  return true;
}

// Applies one option; ARGUMENTS_OK, or the exit status to end with.
int apply_option(int option, const char* value, Options* o) {
  switch (option) {
    case 'm':
      o->module = value;
      return ARGUMENTS_OK;
    case 'n':
      o->nameInLog = value;
      return ARGUMENTS_OK;
    case 'f':
      o->file = value;
      return ARGUMENTS_OK;
    case 'r':
      o->registerOnly = true;
      return ARGUMENTS_OK;
    case OPTION_DUMP:
      o->dump = true;
      return ARGUMENTS_OK;
    case 's':
      if (QrtDiagSeverityFromWord(value, &o->severity) == QRT_OK) return ARGUMENTS_OK;
      return usage_error(std::string("unknown severity '") + value +
                         "' (use error, warning, info or debug)");
    case 'c':
      if (QrtDiagEventClassFromWord(value, &o->eventClass) == QRT_OK) return ARGUMENTS_OK;
      return usage_error(std::string("unknown event class '") + value + "'");
    case 'd':
      if (QrtDiagDestinationFromWord(value, &o->destination) == QRT_OK) return ARGUMENTS_OK;
      return usage_error(std::string("unknown destination '") + value +
                         "' (use system, private or both)");
    case 'e':
      if (parse_number(value, 0xffffffffUL, &o->eventId)) return ARGUMENTS_OK;
      return usage_error(std::string("invalid event ID '") + value + "'");
    case OPTION_SET_SIZE:
      o->setSize = parse_number(value, 0x7fffffffUL, &o->sizeKilobytes);
      if (o->setSize) return ARGUMENTS_OK;
      return usage_error(std::string("invalid size '") + value + "'");
    case OPTION_SET_BACKUPS:
      o->setBackups = parse_number(value, 0x7fffffffUL, &o->backups);
      if (o->setBackups) return ARGUMENTS_OK;
      return usage_error(std::string("invalid backup count '") + value + "'");
    case 'h':
      std::cout << USAGE;
      return EXIT_SUCCESS;
    default:
      return usage_error("unknown option");
  }
}

int parse_arguments(int argc, char** argv, Options* o) {
  opterr = 0;  // the messages are ours
  int option;
  while ((option = getopt_long(argc, argv, "+m:n:f:rs:e:c:d:h", LONG_OPTIONS, nullptr)) != -1) {
    if (option == '?' || option == ':') {
      return usage_error(std::string("invalid option or missing value: ") + argv[optind - 1]);
    }
    int status = apply_option(option, optarg, o);
    if (status != ARGUMENTS_OK) return status;
  }
  for (int i = optind; i < argc; ++i) {
    if (o->haveMessage) o->message += ' ';
    o->message += argv[i];
    o->haveMessage = true;
  }
  if (o->nameInLog.empty()) o->nameInLog = o->module;
  return ARGUMENTS_OK;
}

// Reports a failed library call; returns the exit status it calls for.
int failure(int result, const char* what) {
  if (result == QRT_ERROR_NO_DAEMON) {
    const char* root = getenv("KESTRIN_ROOT");
    std::cerr << "kestrin-log: the Kestrin daemon is not running (no request queue under "
              << (root != nullptr && root[0] != '\0' ? root : "/") << ")\n";
  } else {
    std::cerr << "kestrin-log: " << what << ": " << QrtErrorText(result) << " (error " << result
              << ")\n";
  }
  return EXIT_FAILED;
}

int send_requests(const Options& o) {
  int result = QRT_OK;
  if (o.setSize && (result = QrtDiagSetLogFileSize(o.file.c_str(), o.sizeKilobytes)) != QRT_OK) {
    return failure(result, "cannot set the file size");
  }
  if (o.setBackups && (result = QrtDiagSetLogFileBackups(o.file.c_str(), o.backups)) != QRT_OK) {
    return failure(result, "cannot set the backup count");
  }
  if (o.dump && (result = QrtDiagDumpRegistrationTable()) != QRT_OK) {
    return failure(result, "cannot ask for the table dump");
  }
  return EXIT_SUCCESS;
}

int send_message(const Options& o, int handle, const std::string& text) {
  int result = QrtDiagAddLogWithEvClass(handle, o.destination, o.severity, o.eventId, text.c_str(),
                                        o.eventClass);
  return result == QRT_OK ? EXIT_SUCCESS : failure(result, "message not sent");
}

// The message of the command line, or each non-empty line of standard input.
int send_messages(const Options& o, int handle) {
  if (o.haveMessage) return send_message(o, handle, o.message);
  int status = EXIT_SUCCESS;
  std::string line;
  while (std::getline(std::cin, line)) {
    if (line.empty()) continue;
    if (send_message(o, handle, line) != EXIT_SUCCESS) status = EXIT_FAILED;
  }
  return status;
}

int run(const Options& o) {
  int status = send_requests(o);
  if (status != EXIT_SUCCESS) return status;
  bool anyRequest = o.setSize || o.setBackups || o.dump;
  if (!o.registerOnly && !o.haveMessage && anyRequest) return EXIT_SUCCESS;
  int handle = -1;
  int result =
      QrtDiagRegisterModule(o.module.c_str(), o.nameInLog.c_str(), 0, o.file.c_str(), &handle);
  if (result != QRT_OK) return failure(result, "cannot register the module");
  if (o.registerOnly) {
    std::cout << "handle " << handle << "\n";
    return EXIT_SUCCESS;
  }
  return send_messages(o, handle);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  int status = parse_arguments(argc, argv, &options);
  if (status != ARGUMENTS_OK) return status;
  return run(options);
}
