// End-to-end throughput of the daemon: K client processes each send M
// messages of 200 characters through the client library to a daemon running
// under a private root, each to its own private file. The daemon's taxonomy
// holds a few hundred entries, none of which matches an event the clients
// send, so every message pays for the look-up and nothing else.
//
// Lines reach the files when the stdio buffer fills and at the daemon's flush
// on its one-second tick, so the moment the last line is in a file says
// little about the rate of a short run. Three moments are therefore taken:
//   sent     the last client has returned from its last send;
//   drained  after that, the queue is empty: the daemon has taken every
//            message off and processed all but at most the last one;
//   written  the files have stopped growing and hold every line.
// The rate printed as "msgs/s" is messages / drained seconds; "in file" is
// messages / written seconds, which includes up to a second of waiting for
// the tick. Runs of a million messages or more keep that second small.
// CPU seconds per million messages are taken at the drained moment.
//
// Printed per run: both rates, CPU seconds per million messages (daemon,
// clients, both), the daemon's peak resident set, how often a client found
// the queue full (it then waits 50 us and sends the same message again), and
// messages lost: accepted by the library but missing from the files (must be
// 0). Files roll over at 15 MiB into uncompressed backups, which are counted
// too. With --repeat the median of each figure is printed as well. After
// each run a probe message for the taxonomy's last entry must show up in the
// alarm log; a line says so when it does not.
//
// The queue's byte limit is 4 MiB; where the system refuses that, run it in
// a private IPC namespace:
//   unshare --ipc sh -c 'echo 4194304 > /proc/sys/kernel/msgmnb; daemon_throughput_bench'
//
// Usage: daemon_throughput_bench [messages-per-client] [--clients 1,2,4]
//            [--pacing fast|default|both] [--taxonomy N] [--repeat R]
//            [--daemon-wrapper "valgrind --tool=callgrind"]
//   defaults: 1000000 messages, clients 1,2, pacing fast (MessagesBeforeSleep
//   1000, SleepTime 1), 300 taxonomy entries, 1 repetition. The default
//   pacing (80 per 10 ms) caps the rate near 8000/s, so its runs send at
//   most 80000 messages per client. The wrapper's words are put in front of
//   the daemon's command line, for profiling the daemon alone.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "osa/osa.h"
#include "protocol/SharedLayout.h"
#include "qrt/QrtDiag.h"

namespace {

using bench::ReadWhole;
using bench::DaemonPath;
using bench::Elapsed;
using bench::ProcessCpuSeconds;
using bench::ChildrenCpuSeconds;
using bench::WaitFor;
using bench::CountLines;
using bench::FileSize;

constexpr int MESSAGE_LENGTH = 200;
constexpr int READY_TIMEOUT_MS = 60000;
constexpr int DRAIN_TIMEOUT_MS = 300000;
// The files count as complete once they have not grown for this long and
// hold every line, or as short of lines once they have not grown for the
// longer time (more than two ticks).
constexpr double SETTLE_SECONDS = 0.05;
constexpr double GIVE_UP_SECONDS = 3.0;
constexpr useconds_t QUEUE_FULL_PAUSE_US = 50;
constexpr long DEFAULT_PACING_MAX_MESSAGES = 80000;
// Taxonomy event IDs start here, above any event ID a client sends.
constexpr long TAXONOMY_FIRST_ID = 1000000000;

struct Pacing {
  const char* name;
  int messagesBeforeSleep;
  int sleepTime;
};

struct Options {
  long perClient = 1000000;
  std::vector<int> clients = {1, 2};
  bool fastPacing = true;
  bool defaultPacing = false;
  int taxonomyEntries = 300;
  int repeat = 1;
  std::vector<std::string> daemonWrapper;
};

struct Result {
  double sentSeconds = 0;
  double drainedSeconds = 0;
  double writtenSeconds = 0;
  double daemonCpu = 0;
  double clientCpu = 0;
  long peakRssKiB = 0;
  long queueFull = 0;
  long accepted = 0;
  long lines = 0;
  bool complete = false;
  bool taxonomyMatched = false;  // a probe for the last entry became an alarm
};

long PeakRssKiB(pid_t pid) {
  std::istringstream status(ReadWhole("/proc/" + std::to_string(pid) + "/status"));
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return atol(line.c_str() + 6);
  }
  return 0;
}

// Runs the daemon executable with `arguments` under `root`, behind the words
// of `wrapper` if any; its output goes to files in the root.
pid_t Spawn(const std::string& root, const std::vector<std::string>& arguments,
            const std::string& tag, const std::vector<std::string>& wrapper = {}) {
  std::vector<std::string> words = wrapper;
  words.push_back(DaemonPath());
  words.insert(words.end(), arguments.begin(), arguments.end());
  pid_t pid = fork();
  if (pid != 0) return pid;
  setenv("KESTRIN_ROOT", root.c_str(), 1);
  unsetenv("NOTIFY_SOCKET");
  int out = open((root + "/" + tag + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  int err = open((root + "/" + tag + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(out, 1);
  dup2(err, 2);
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  execvp(argv[0], argv.data());
  _exit(127);
}

// The files of client `index`: its log and the backups it rolled into.
std::vector<std::string> ClientFiles(const std::string& logDirectory, int index) {
  const std::string base = "bench" + std::to_string(index) + ".log";
  std::vector<std::string> files;
  DIR* directory = opendir(logDirectory.c_str());
  if (directory == nullptr) return files;
  while (dirent* entry = readdir(directory)) {
    std::string name = entry->d_name;
    if (name == base || name.rfind(base + ".", 0) == 0) files.push_back(logDirectory + name);
  }
  closedir(directory);
  return files;
}

// One client process: registers its module and sends `count` messages,
// repeating a message while the queue is full. Writes "accepted queueFull"
// to `reportFd`.
[[noreturn]] void RunClient(int index, long count, int reportFd) {
  int handle = -1;
  std::string name = "Bench" + std::to_string(index);
  std::string file = "bench" + std::to_string(index) + ".log";
  if (QrtDiagRegisterModule(name.c_str(), name.c_str(), 0, file.c_str(), &handle) != QRT_OK) {
    _exit(2);
  }
  std::string text(MESSAGE_LENGTH, static_cast<char>('a' + index));
  long accepted = 0;
  long queueFull = 0;
  for (long i = 0; i < count; ++i) {
    for (;;) {
      int result = QrtDiagAddLogWithEvClass(handle, QRT_DESTINATION_PRIVATE_FILE, QRT_SEVERITY_INFO,
                                            static_cast<unsigned long>(i), text.c_str(),
                                            QRT_EVENT_CLASS_UNSPECIFIED);
      if (result == QRT_OK) {
        ++accepted;
        break;
      }
      if (result != QRT_ERROR_QUEUE_FULL) _exit(3);
      ++queueFull;
      usleep(QUEUE_FULL_PAUSE_US);
    }
  }
  dprintf(reportFd, "%ld %ld\n", accepted, queueFull);
  _exit(0);
}

// `entries` taxonomy sections with every key set, for event IDs no client
// sends; each would turn a request into an alarm with LED changes.
void WriteTaxonomy(const std::string& path, int entries) {
  std::ofstream out(path);
  for (int k = 0; k < entries; ++k) {
    const long id = TAXONOMY_FIRST_ID + 7L * k;
    out << "[BenchEvent" << k << "]\neID = " << id << "\nsev = 1\nmsg = bench entry " << k
        << "\nnewID = " << id << "\nnewSev = major\neventClass = fault\nnewMsg = Bench event " << k
        << " replaced\nLED1 = GREEN_ON\nLED2 = RED_FLASH\ntrap = true\nalarm = true\n"
        << "alarmSet = false\nvisible = true\nalarmSetMsg = set " << k
        << "\nalarmFiltDescr = filter " << k << "\nproblemResolution = Replace unit " << k
        << ".\n\n";
  }
}

std::string MakeRoot(const Pacing& pacing, int taxonomyEntries) {
  char pattern[] = "/tmp/kestrin_bench_XXXXXX";
  if (mkdtemp(pattern) == nullptr) return "";
  std::string root = pattern;
  std::filesystem::create_directories(root + "/kv/etc");
  std::filesystem::create_directories(root + "/kv/log");
  std::ofstream(root + "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH") << "key\n";
  WriteTaxonomy(root + "/kv/etc/KestrinTaxonomy", taxonomyEntries);
  std::ofstream(root + "/kv/etc/Kestrin.conf")
      << "[config]\nMessagesBeforeSleep = " << pacing.messagesBeforeSleep
      << "\nSleepTime = " << pacing.sleepTime
      << "\nFileSize = 15mb\nBackupCount = 100\nZipBackups = false\n";
  return root;
}

// The daemon's queue under the current KESTRIN_ROOT, or -1.
int DaemonQueue() {
  int key = 0;
  int id = -1;
  if (KesIpcKey(KES_QUEUE_PROJECT_ID, &key) != OS_OK) return -1;
  return osSysVQueueOpen(key, 0, &id) == OS_OK ? id : -1;
}

void RemoveRoot(const std::string& root) {
  setenv("KESTRIN_ROOT", root.c_str(), 1);
  int key = 0;
  int id = DaemonQueue();
  if (id >= 0) osSysVQueueRemove(id);
  if (KesIpcKey(KES_SEMAPHORE_PROJECT_ID, &key) == OS_OK &&
      osSysVSemaphoreOpen(key, 0, &id) == OS_OK) {
    osSysVSemaphoreRemove(id);
  }
  osUnshareMemory(KES_REG_TABLE_SEGMENT_NAME);
  osUnshareMemory(KES_FILTER_SEGMENT_NAME);
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
  unsetenv("KESTRIN_ROOT");
}

// Waits until the files stop growing. Returns the seconds since `start` at
// which they last grew, and sets `lines` to the lines they hold.
double WaitForFiles(const std::string& logDirectory, int clients, long expected,
                    std::chrono::steady_clock::time_point start, long* lines) {
  auto allFiles = [&]() {
    std::vector<std::string> files;
    for (int i = 0; i < clients; ++i) {
      std::vector<std::string> more = ClientFiles(logDirectory, i);
      files.insert(files.end(), more.begin(), more.end());
    }
    return files;
  };
  long long lastSize = -1;
  double lastGrowth = Elapsed(start);
  bool counted = false;
  for (;;) {
    std::vector<std::string> files = allFiles();
    long long size = 0;
    for (const std::string& file : files) size += FileSize(file);
    const double now = Elapsed(start);
    if (size != lastSize) {
      lastSize = size;
      lastGrowth = now;
      counted = false;
    } else if (!counted && now - lastGrowth > SETTLE_SECONDS) {
      *lines = 0;
      for (const std::string& file : files) *lines += CountLines(file);
      counted = true;
      if (*lines >= expected) return lastGrowth;
    } else if (now - lastGrowth > GIVE_UP_SECONDS) {
      return lastGrowth;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// After the timed part: one message for the taxonomy's last entry, which
// must reach the alarm log with the entry's text, so the run is known to
// have had the taxonomy loaded.
bool TaxonomyMatches(const std::string& root, int entries) {
  if (entries <= 0) return true;
  const int last = entries - 1;
  pid_t probe = fork();
  if (probe == 0) {
    int handle = -1;
    if (QrtDiagRegisterModule("BenchProbe", "BenchProbe", 0, "probe.log", &handle) != QRT_OK ||
        QrtDiagAddLogWithEvClass(handle, QRT_DESTINATION_PRIVATE_FILE, QRT_SEVERITY_INFO,
                                 static_cast<unsigned long>(TAXONOMY_FIRST_ID + 7L * last), "probe",
                                 QRT_EVENT_CLASS_UNSPECIFIED) != QRT_OK) {
      _exit(1);
    }
    _exit(0);
  }
  int status = -1;
  waitpid(probe, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return false;
  const std::string text = "Bench event " + std::to_string(last) + " replaced";
  return WaitFor(
      [&]() {
        return ReadWhole(root + "/kv/log/alarms.systemlog").find(text) != std::string::npos;
      },
      READY_TIMEOUT_MS, 50);
}

void StopDaemon(const std::string& root, pid_t daemon) {
  pid_t stop = Spawn(root, {"stop"}, "stop");
  waitpid(stop, nullptr, 0);
  if (!WaitFor([&]() { return waitpid(daemon, nullptr, WNOHANG) == daemon; }, READY_TIMEOUT_MS)) {
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
  }
}

void CollectReports(int reportFd, Result* result) {
  FILE* reports = fdopen(reportFd, "r");
  long accepted = 0;
  long queueFull = 0;
  while (reports != nullptr && fscanf(reports, "%ld %ld", &accepted, &queueFull) == 2) {
    result->accepted += accepted;
    result->queueFull += queueFull;
  }
  if (reports != nullptr) fclose(reports);
}

Result RunOnce(const Pacing& pacing, const Options& options, int clients, long perClient) {
  Result result;
  std::string root = MakeRoot(pacing, options.taxonomyEntries);
  if (root.empty()) return result;
  pid_t daemon = Spawn(root, {}, "daemon", options.daemonWrapper);
  bool ready = WaitFor(
      [&]() {
        return ReadWhole(root + "/daemon.out").find("Configuration complete") != std::string::npos;
      },
      READY_TIMEOUT_MS);
  setenv("KESTRIN_ROOT", root.c_str(), 1);
  const int queue = DaemonQueue();
  int report[2];
  if (!ready || queue < 0 || pipe(report) != 0) {
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
    RemoveRoot(root);
    return result;
  }
  const double daemonCpuBefore = ProcessCpuSeconds(daemon);
  const double childrenCpuBefore = ChildrenCpuSeconds();
  auto start = std::chrono::steady_clock::now();
  std::vector<pid_t> pids;
  for (int i = 0; i < clients; ++i) {
    pid_t pid = fork();
    if (pid == 0) RunClient(i, perClient, report[1]);
    pids.push_back(pid);
  }
  close(report[1]);
  for (pid_t pid : pids) waitpid(pid, nullptr, 0);
  result.sentSeconds = Elapsed(start);
  result.clientCpu = ChildrenCpuSeconds() - childrenCpuBefore;
  CollectReports(report[0], &result);

  unsigned long waiting = 1;
  bool drained =
      WaitFor([&]() { return osSysVQueueStat(queue, &waiting, nullptr) == OS_OK && waiting == 0; },
              DRAIN_TIMEOUT_MS, 1);
  result.drainedSeconds = Elapsed(start);
  result.daemonCpu = ProcessCpuSeconds(daemon) - daemonCpuBefore;
  if (drained) {
    result.writtenSeconds =
        WaitForFiles(root + "/kv/log/", clients, result.accepted, start, &result.lines);
    result.complete = true;
  }
  result.peakRssKiB = PeakRssKiB(daemon);
  result.taxonomyMatched = TaxonomyMatches(root, options.taxonomyEntries);
  StopDaemon(root, daemon);
  RemoveRoot(root);
  return result;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

void PrintHeader() {
  printf("%8s %10s %7s %8s %8s %10s %10s %8s %8s %8s %9s %10s %6s\n", "clients", "messages",
         "sent s", "drain s", "file s", "msgs/s", "in file/s", "daemon", "clients", "total",
         "RSS KiB", "queue full", "lost");
  printf("%8s %10s %7s %8s %8s %10s %10s %8s %8s %8s %9s %10s %6s\n", "", "", "", "", "", "", "",
         "CPU s/M", "CPU s/M", "CPU s/M", "", "", "");
}

// Prints one run; returns false when it failed.
bool PrintRun(int clients, const Result& r) {
  const double million = static_cast<double>(r.accepted) / 1e6;
  if (!r.complete || million <= 0) {
    printf("%8d  run failed (accepted %ld, lines %ld)\n", clients, r.accepted, r.lines);
    return false;
  }
  if (!r.taxonomyMatched) printf("%8s  taxonomy probe did not reach the alarm log\n", "");
  printf("%8d %10ld %7.2f %8.2f %8.2f %10.0f %10.0f %8.2f %8.2f %8.2f %9ld %10ld %6ld\n", clients,
         r.accepted, r.sentSeconds, r.drainedSeconds, r.writtenSeconds,
         static_cast<double>(r.accepted) / r.drainedSeconds,
         static_cast<double>(r.accepted) / r.writtenSeconds, r.daemonCpu / million,
         r.clientCpu / million, (r.daemonCpu + r.clientCpu) / million, r.peakRssKiB, r.queueFull,
         r.accepted - r.lines);
  return true;
}

void RunSeries(const Pacing& pacing, const Options& options, long perClient) {
  printf("\n%s, %ld per client, %d taxonomy entries (none matching)\n", pacing.name, perClient,
         options.taxonomyEntries);
  PrintHeader();
  for (int clients : options.clients) {
    std::vector<double> rate, fileRate, daemonCpu, clientCpu;
    long lost = 0;
    for (int run = 0; run < options.repeat; ++run) {
      Result r = RunOnce(pacing, options, clients, perClient);
      if (!PrintRun(clients, r)) continue;
      const double million = static_cast<double>(r.accepted) / 1e6;
      rate.push_back(static_cast<double>(r.accepted) / r.drainedSeconds);
      fileRate.push_back(static_cast<double>(r.accepted) / r.writtenSeconds);
      daemonCpu.push_back(r.daemonCpu / million);
      clientCpu.push_back(r.clientCpu / million);
      lost += r.accepted - r.lines;
    }
    if (options.repeat > 1 && !rate.empty()) {
      printf(
          "%8s median of %zu: %.0f msgs/s, %.0f in file/s, daemon %.2f, clients %.2f CPU s/M,"
          " lost %ld in all\n",
          "", rate.size(), Median(rate), Median(fileRate), Median(daemonCpu), Median(clientCpu),
          lost);
    }
  }
}

std::vector<int> ParseList(const char* text) {
  std::vector<int> values;
  std::istringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) {
    if (atoi(item.c_str()) > 0) values.push_back(atoi(item.c_str()));
  }
  return values;
}

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (word == "--clients" && value != nullptr) {
      options->clients = ParseList(value);
    } else if (word == "--pacing" && value != nullptr) {
      options->fastPacing = strcmp(value, "default") != 0;
      options->defaultPacing = strcmp(value, "fast") != 0;
    } else if (word == "--taxonomy" && value != nullptr) {
      options->taxonomyEntries = atoi(value);
    } else if (word == "--daemon-wrapper" && value != nullptr) {
      std::istringstream words(value);
      std::string one;
      while (words >> one) options->daemonWrapper.push_back(one);
    } else if (word == "--repeat" && value != nullptr) {
      options->repeat = std::max(1, atoi(value));
    } else if (word[0] != '-' && atol(argv[i]) > 0) {
      options->perClient = atol(argv[i]);
      continue;
    } else {
      return false;
    }
    ++i;
  }
  return !options->clients.empty();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    fprintf(stderr,
            "usage: %s [messages-per-client] [--clients 1,2,4] [--pacing fast|default|both]"
            " [--taxonomy N] [--repeat R] [--daemon-wrapper WORDS]\n",
            argv[0]);
    return 2;
  }
  printf("%d-character messages, each client to its own private file\n", MESSAGE_LENGTH);
  if (options.fastPacing) {
    RunSeries({"MessagesBeforeSleep 1000, SleepTime 1", 1000, 1}, options, options.perClient);
  }
  if (options.defaultPacing) {
    RunSeries({"default pacing (80 per 10 ms)", 80, 10}, options,
              std::min(options.perClient, DEFAULT_PACING_MAX_MESSAGES));
  }
  return 0;
}
