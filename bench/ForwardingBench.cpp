// Forwarding throughput of a chassis: K client processes on an Agent card
// each send M messages of 200 characters through the client library; the
// Agent forwards every request over TCP (loopback) to the Master, which
// writes it into the client's private file under the Master's root. Both
// daemons are the real executable, each under a private root of its own.
//
// Moments taken, from the first client's start:
//   sent     the last client has returned from its last send;
//   drained  after that, both request queues are empty;
//   written  the Master's files have stopped growing and hold every line.
// "msgs/s" is messages / written seconds: a message counts only once it is
// a line in the Master's file. CPU seconds per million messages are taken
// at the written moment, for the Agent, the Master and the clients. "lost"
// is messages accepted by the library but missing from the Master's files
// (must be 0); "queue full" counts the sends a client had to repeat.
//
// The queue's byte limit decides how far clients run ahead of the daemons;
// for a realistic 4 MiB limit run it in a private IPC namespace:
//   unshare --ipc sh -c 'echo 4194304 > /proc/sys/kernel/msgmnb; forwarding_bench'
//
// Usage: forwarding_bench [messages-per-client] [--clients 1,2]
//            [--pacing fast|default]
//   defaults: 200000 messages, clients 1, pacing fast (MessagesBeforeSleep
//   1000, SleepTime 1). The default pacing (80 per 10 ms on each daemon,
//   half of that on the Master's network thread) caps the rate near 4000/s.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
constexpr int DRAIN_TIMEOUT_MS = 600000;
// The files count as complete once they hold every line; as short of lines
// once they have not grown for this long (several ticks).
constexpr double GIVE_UP_SECONDS = 5.0;
constexpr useconds_t QUEUE_FULL_PAUSE_US = 50;
constexpr uint32_t LOOPBACK = 0x7f000001;

struct Options {
  long perClient = 200000;
  std::vector<int> clients = {1};
  int messagesBeforeSleep = 1000;
  int sleepTime = 1;
};

struct Result {
  double sentSeconds = 0;
  double drainedSeconds = 0;
  double writtenSeconds = 0;
  double agentCpu = 0;
  double masterCpu = 0;
  double clientCpu = 0;
  long queueFull = 0;
  long accepted = 0;
  long lines = 0;
  bool ran = false;
};

struct Daemon {
  std::string root;
  pid_t pid = -1;
};

// The daemon's request queue under `root`, or -1.
int DaemonQueue(const std::string& root) {
  setenv("KESTRIN_ROOT", root.c_str(), 1);
  int key = 0;
  int id = -1;
  if (KesIpcKey(KES_QUEUE_PROJECT_ID, &key) != OS_OK) return -1;
  return osSysVQueueOpen(key, 0, &id) == OS_OK ? id : -1;
}

bool QueueEmpty(int queue) {
  unsigned long waiting = 1;
  return osSysVQueueStat(queue, &waiting, nullptr) == OS_OK && waiting == 0;
}

// A loopback port nobody listens on now.
uint16_t FreePort() {
  long socket = -1;
  tOsTCPSocketAddress address{LOOPBACK, 0};
  if (osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &socket) != OS_OK) return 0;
  if (osTCPBind(socket, &address) != OS_OK || osTCPGetLocalAddress(socket, &address) != OS_OK) {
    address.port = 0;
  }
  osTCPClose(socket);
  return address.port;
}

std::string MakeRoot(const std::string& role, const Options& options) {
  char pattern[] = "/tmp/kestrin_fwd_bench_XXXXXX";
  if (mkdtemp(pattern) == nullptr) return "";
  std::string root = pattern;
  std::filesystem::create_directories(root + "/kv/etc");
  std::filesystem::create_directories(root + "/kv/log");
  std::ofstream(root + "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH") << "key\n";
  std::ofstream(root + "/kv/etc/KestrinTaxonomy") << "";
  std::ofstream(root + "/kv/etc/Kestrin.conf")
      << "[config]\nRole=" << role << "\nMessagesBeforeSleep = " << options.messagesBeforeSleep
      << "\nSleepTime = " << options.sleepTime
      << "\nFileSize = 15mb\nBackupCount = 100\nZipBackups = false\n"
      << "[Kestrin.log]\nLogLevel = debug\n";  // the Master logs each accepted Agent
  return root;
}

// Starts the daemon under `root`; "Configuration complete" on its output
// tells it is up.
bool StartDaemon(Daemon* daemon, const std::vector<std::string>& arguments) {
  daemon->pid = fork();
  if (daemon->pid == 0) {
    setenv("KESTRIN_ROOT", daemon->root.c_str(), 1);
    unsetenv("NOTIFY_SOCKET");
    int out = open((daemon->root + "/daemon.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open((daemon->root + "/daemon.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(err, 2);
    std::vector<std::string> words = {DaemonPath()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return WaitFor(
      [&]() {
        return ReadWhole(daemon->root + "/daemon.out").find("Configuration complete") !=
               std::string::npos;
      },
      READY_TIMEOUT_MS);
}

void StopDaemon(Daemon* daemon) {
  if (daemon->pid <= 0) return;
  kill(daemon->pid, SIGINT);
  if (!WaitFor([&]() { return waitpid(daemon->pid, nullptr, WNOHANG) == daemon->pid; },
               READY_TIMEOUT_MS)) {
    kill(daemon->pid, SIGKILL);
    waitpid(daemon->pid, nullptr, 0);
  }
  daemon->pid = -1;
}

void RemoveRoot(const std::string& root) {
  if (root.empty()) return;
  setenv("KESTRIN_ROOT", root.c_str(), 1);
  int key = 0;
  int id = DaemonQueue(root);
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

// One client on the Agent: registers its module and sends `count` messages
// to its private file, repeating a message while the queue is full. Writes
// "accepted queueFull" to `reportFd`.
[[noreturn]] void RunClient(const std::string& agentRoot, int index, long count, int reportFd) {
  setenv("KESTRIN_ROOT", agentRoot.c_str(), 1);
  int handle = -1;
  const std::string name = "Fwd" + std::to_string(index);
  const std::string file = "fwd" + std::to_string(index) + ".log";
  if (QrtDiagRegisterModule(name.c_str(), name.c_str(), 0, file.c_str(), &handle) != QRT_OK) {
    _exit(2);
  }
  const std::string text(MESSAGE_LENGTH, static_cast<char>('a' + index));
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

// The lines of the clients' files (and their backups) on the Master.
std::vector<std::string> MasterFiles(const std::string& masterRoot, int clients) {
  std::vector<std::string> files;
  const std::string directory = masterRoot + "/kv/log/";
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const std::string name = entry.path().filename().string();
    for (int i = 0; i < clients; ++i) {
      const std::string base = "fwd" + std::to_string(i) + ".log";
      if (name == base || name.rfind(base + ".", 0) == 0) files.push_back(directory + name);
    }
  }
  return files;
}

// Waits until the Master's files hold `expected` lines or stop growing;
// returns the seconds since `start` at that moment and the lines held.
double WaitForLines(const std::string& masterRoot, int clients, long expected,
                    std::chrono::steady_clock::time_point start, long* lines) {
  long long lastSize = -1;
  double lastGrowth = Elapsed(start);
  for (;;) {
    long long size = 0;
    const std::vector<std::string> files = MasterFiles(masterRoot, clients);
    for (const std::string& file : files) size += FileSize(file);
    if (size != lastSize) {
      lastSize = size;
      lastGrowth = Elapsed(start);
      *lines = 0;
      for (const std::string& file : files) *lines += CountLines(file);
      if (*lines >= expected) return lastGrowth;
    } else if (Elapsed(start) - lastGrowth > GIVE_UP_SECONDS) {
      return lastGrowth;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
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

// Starts the Master and an Agent connected to it; false when either fails.
bool StartChassis(const Options& options, Daemon* master, Daemon* agent) {
  master->root = MakeRoot("Master", options);
  agent->root = MakeRoot("Agent", options);
  const std::string port = std::to_string(FreePort());
  if (master->root.empty() || agent->root.empty()) return false;
  if (!StartDaemon(master, {"-h", "127.0.0.1", "-p", port})) return false;
  // The Master listens once its network thread is up; the Agent tries to
  // connect for about two minutes, so it may start right away.
  if (!StartDaemon(agent, {"-h", "127.0.0.1", "-p", port})) return false;
  return WaitFor(
      [&]() {
        return ReadWhole(master->root + "/kv/log/Kestrin.log").find(" has been accepted") !=
               std::string::npos;
      },
      READY_TIMEOUT_MS, 20);
}

void MeasureTraffic(const Daemon& master, const Daemon& agent, int clients, long perClient,
                    Result* result) {
  const int masterQueue = DaemonQueue(master.root);
  const int agentQueue = DaemonQueue(agent.root);
  int report[2];
  if (masterQueue < 0 || agentQueue < 0 || pipe(report) != 0) return;
  const double agentCpuBefore = ProcessCpuSeconds(agent.pid);
  const double masterCpuBefore = ProcessCpuSeconds(master.pid);
  const double childrenCpuBefore = ChildrenCpuSeconds();
  auto start = std::chrono::steady_clock::now();
  std::vector<pid_t> pids;
  for (int i = 0; i < clients; ++i) {
    pid_t pid = fork();
    if (pid == 0) RunClient(agent.root, i, perClient, report[1]);
    pids.push_back(pid);
  }
  close(report[1]);
  for (pid_t pid : pids) waitpid(pid, nullptr, 0);
  result->sentSeconds = Elapsed(start);
  result->clientCpu = ChildrenCpuSeconds() - childrenCpuBefore;
  CollectReports(report[0], result);
  WaitFor([&]() { return QueueEmpty(agentQueue) && QueueEmpty(masterQueue); }, DRAIN_TIMEOUT_MS, 1);
  result->drainedSeconds = Elapsed(start);
  result->writtenSeconds =
      WaitForLines(master.root, clients, result->accepted, start, &result->lines);
  result->agentCpu = ProcessCpuSeconds(agent.pid) - agentCpuBefore;
  result->masterCpu = ProcessCpuSeconds(master.pid) - masterCpuBefore;
  result->ran = true;
}

Result RunOnce(const Options& options, int clients) {
  Result result;
  Daemon master;
  Daemon agent;
  if (StartChassis(options, &master, &agent)) {
    MeasureTraffic(master, agent, clients, options.perClient, &result);
  }
  StopDaemon(&agent);
  StopDaemon(&master);
  RemoveRoot(agent.root);
  RemoveRoot(master.root);
  return result;
}

void PrintHeader() {
  printf("%8s %10s %7s %8s %8s %10s %8s %8s %8s %10s %6s\n", "clients", "messages", "sent s",
         "drain s", "file s", "msgs/s", "agent", "master", "clients", "queue full", "lost");
  printf("%8s %10s %7s %8s %8s %10s %8s %8s %8s %10s %6s\n", "", "", "", "", "", "", "CPU s/M",
         "CPU s/M", "CPU s/M", "", "");
}

void PrintRun(int clients, const Result& r) {
  const double million = static_cast<double>(r.accepted) / 1e6;
  if (!r.ran || million <= 0 || r.writtenSeconds <= 0) {
    printf("%8d  run failed (accepted %ld, lines %ld)\n", clients, r.accepted, r.lines);
    return;
  }
  printf("%8d %10ld %7.2f %8.2f %8.2f %10.0f %8.2f %8.2f %8.2f %10ld %6ld\n", clients, r.accepted,
         r.sentSeconds, r.drainedSeconds, r.writtenSeconds,
         static_cast<double>(r.accepted) / r.writtenSeconds, r.agentCpu / million,
         r.masterCpu / million, r.clientCpu / million, r.queueFull, r.accepted - r.lines);
}

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (word == "--clients" && value != nullptr) {
      options->clients.clear();
      std::istringstream in(value);
      std::string item;
      while (std::getline(in, item, ',')) {
        if (atoi(item.c_str()) > 0) options->clients.push_back(atoi(item.c_str()));
      }
      ++i;
    } else if (word == "--pacing" && value != nullptr) {
      const bool fast = strcmp(value, "default") != 0;
      options->messagesBeforeSleep = fast ? 1000 : 80;
      options->sleepTime = fast ? 1 : 10;
      ++i;
    } else if (word[0] != '-' && atol(argv[i]) > 0) {
      options->perClient = atol(argv[i]);
    } else {
      return false;
    }
  }
  return !options->clients.empty();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    fprintf(stderr, "usage: %s [messages-per-client] [--clients 1,2] [--pacing fast|default]\n",
            argv[0]);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  printf("%d-character messages, clients on an Agent, lines in the Master's files over loopback\n",
         MESSAGE_LENGTH);
  printf("MessagesBeforeSleep %d, SleepTime %d, %ld per client\n", options.messagesBeforeSleep,
         options.sleepTime, options.perClient);
  PrintHeader();
  for (int clients : options.clients) PrintRun(clients, RunOnce(options, clients));
  return 0;
}
