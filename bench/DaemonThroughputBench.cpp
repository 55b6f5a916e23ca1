// End-to-end throughput of the daemon: K client processes (1, 2, 4) each send
// M messages of 200 characters through the client library to a daemon
// running under a private root, each to its own private file; the clock runs
// until the last line is in the files.
//
// Printed per run: messages per second, CPU seconds per million messages
// (daemon, clients, both), the daemon's peak resident set, how often a client
// found the queue full (it then waits 50 us and sends the same message
// again), and messages lost: accepted by the library but missing from the
// files (must be 0).
//
// Two pacings: the default (sleep 10 ms after every 80 requests) and
// MessagesBeforeSleep 1000 / SleepTime 1. Files are large enough not to roll
// over during a run.
//
// Usage: daemon_throughput_bench [messages-per-client]   (default 20000)
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
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

#include "osa/osa.h"
#include "qrt/KesSharedLayout.h"
#include "qrt/QrtDiag.h"

namespace {

constexpr int MESSAGE_LENGTH = 200;
constexpr int READY_TIMEOUT_MS = 10000;
constexpr int DRAIN_TIMEOUT_MS = 300000;
constexpr useconds_t QUEUE_FULL_PAUSE_US = 50;

struct Pacing {
  const char* name;
  int messagesBeforeSleep;
  int sleepTime;
};

struct Result {
  double seconds = 0;
  double daemonCpu = 0;
  double clientCpu = 0;
  long peakRssKiB = 0;
  long queueFull = 0;
  long accepted = 0;
  long lines = 0;
  bool complete = false;
};

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string DaemonPath() {
  char self[PATH_MAX] = {0};
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string path(self, n > 0 ? static_cast<size_t>(n) : 0);
  return path.substr(0, path.rfind('/')) + "/kestrin";
}

double Elapsed(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// User plus system CPU seconds of process `pid` so far.
double ProcessCpuSeconds(pid_t pid) {
  std::string stat = ReadWhole("/proc/" + std::to_string(pid) + "/stat");
  size_t end = stat.rfind(')');
  if (end == std::string::npos) return 0;
  std::istringstream fields(stat.substr(end + 2));
  std::string field;
  unsigned long long utime = 0;
  unsigned long long stime = 0;
  // After the command come state (3rd field) ... utime (14th), stime (15th).
  for (int index = 3; index <= 15 && fields >> field; ++index) {
    if (index == 14) utime = std::stoull(field);
    if (index == 15) stime = std::stoull(field);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long PeakRssKiB(pid_t pid) {
  std::istringstream status(ReadWhole("/proc/" + std::to_string(pid) + "/status"));
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return atol(line.c_str() + 6);
  }
  return 0;
}

double ChildrenCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Runs the daemon executable with `arguments` under `root`; its output goes
// to files in the root.
pid_t Spawn(const std::string& root, const std::vector<std::string>& arguments,
            const std::string& tag) {
  std::vector<std::string> words = {DaemonPath()};
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
  execv(argv[0], argv.data());
  _exit(127);
}

bool WaitFor(const std::function<bool()>& done, int timeoutMs) {
  auto start = std::chrono::steady_clock::now();
  while (!done()) {
    if (Elapsed(start) * 1000 > timeoutMs) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

long CountLines(const std::string& path) {
  std::string text = ReadWhole(path);
  long lines = 0;
  for (char c : text) lines += c == '\n' ? 1 : 0;
  return lines;
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
  std::string text(MESSAGE_LENGTH, 'a' + index);
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

std::string MakeRoot(const Pacing& pacing) {
  char pattern[] = "/tmp/kestrin_bench_XXXXXX";
  if (mkdtemp(pattern) == nullptr) return "";
  std::string root = pattern;
  std::filesystem::create_directories(root + "/kv/etc");
  std::filesystem::create_directories(root + "/kv/log");
  std::ofstream(root + "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH") << "key\n";
  std::ofstream(root + "/kv/etc/KestrinTaxonomy") << "";
  std::ofstream(root + "/kv/etc/Kestrin.conf")
      << "[config]\nMessagesBeforeSleep = " << pacing.messagesBeforeSleep
      << "\nSleepTime = " << pacing.sleepTime
      << "\nFileSize = 15mb\nBackupCount = 100\nZipBackups = false\n";
  return root;
}

void RemoveRoot(const std::string& root) {
  setenv("KESTRIN_ROOT", root.c_str(), 1);
  char keyFile[PATH_MAX];
  int key = 0;
  if (osMapPath(KES_FTOK_TARGET, keyFile, sizeof keyFile) == OS_OK) {
    int id = -1;
    if (osSysVKey(keyFile, 'Q', &key) == OS_OK && osSysVQueueOpen(key, 0, &id) == OS_OK) {
      osSysVQueueRemove(id);
    }
    if (osSysVKey(keyFile, 'J', &key) == OS_OK && osSysVSemaphoreOpen(key, 0, &id) == OS_OK) {
      osSysVSemaphoreRemove(id);
    }
  }
  osUnshareMemory(KesRegTableSharedMemoryName);
  osUnshareMemory(KesSharedMemoryName);
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
  unsetenv("KESTRIN_ROOT");
}

Result RunOnce(const Pacing& pacing, int clients, long perClient) {
  Result result;
  std::string root = MakeRoot(pacing);
  if (root.empty()) return result;
  pid_t daemon = Spawn(root, {}, "daemon");
  bool ready = WaitFor(
      [&]() {
        return ReadWhole(root + "/daemon.out").find("Configuration complete") != std::string::npos;
      },
      READY_TIMEOUT_MS);
  if (!ready) {
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
    RemoveRoot(root);
    return result;
  }
  setenv("KESTRIN_ROOT", root.c_str(), 1);
  const double daemonCpuBefore = ProcessCpuSeconds(daemon);
  const double childrenCpuBefore = ChildrenCpuSeconds();
  int report[2];
  if (pipe(report) != 0) return result;
  auto start = std::chrono::steady_clock::now();
  std::vector<pid_t> pids;
  for (int i = 0; i < clients; ++i) {
    pid_t pid = fork();
    if (pid == 0) RunClient(i, perClient, report[1]);
    pids.push_back(pid);
  }
  close(report[1]);
  for (pid_t pid : pids) waitpid(pid, nullptr, 0);
  result.clientCpu = ChildrenCpuSeconds() - childrenCpuBefore;
  FILE* reports = fdopen(report[0], "r");
  long accepted = 0;
  long queueFull = 0;
  while (reports != nullptr && fscanf(reports, "%ld %ld", &accepted, &queueFull) == 2) {
    result.accepted += accepted;
    result.queueFull += queueFull;
  }
  if (reports != nullptr) fclose(reports);

  auto countAll = [&]() {
    long lines = 0;
    for (int i = 0; i < clients; ++i) {
      lines += CountLines(root + "/kv/log/bench" + std::to_string(i) + ".log");
    }
    return lines;
  };
  result.complete = WaitFor([&]() { return countAll() >= result.accepted; }, DRAIN_TIMEOUT_MS);
  result.seconds = Elapsed(start);
  result.lines = countAll();
  result.daemonCpu = ProcessCpuSeconds(daemon) - daemonCpuBefore;
  result.peakRssKiB = PeakRssKiB(daemon);

  pid_t stop = Spawn(root, {"stop"}, "stop");
  waitpid(stop, nullptr, 0);
  if (!WaitFor([&]() { return waitpid(daemon, nullptr, WNOHANG) == daemon; }, READY_TIMEOUT_MS)) {
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
  }
  RemoveRoot(root);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const long perClient = argc > 1 ? atol(argv[1]) : 20000;
  const Pacing pacings[] = {{"default pacing (80 per 10 ms)", 80, 10},
                            {"MessagesBeforeSleep 1000, SleepTime 1", 1000, 1}};
  printf("%d-character messages, %ld per client, each client to its own private file\n",
         MESSAGE_LENGTH, perClient);
  for (const Pacing& pacing : pacings) {
    printf("\n%s\n", pacing.name);
    printf("%8s %10s %9s %12s %14s %14s %14s %12s %10s %6s\n", "clients", "messages", "seconds",
           "msgs/s", "daemon CPU s/M", "client CPU s/M", "total CPU s/M", "daemon RSS",
           "queue full", "lost");
    for (int clients : {1, 2, 4}) {
      Result r = RunOnce(pacing, clients, perClient);
      const double million = static_cast<double>(r.accepted) / 1e6;
      if (!r.complete || million <= 0) {
        printf("%8d  run failed (accepted %ld, lines %ld)\n", clients, r.accepted, r.lines);
        continue;
      }
      printf("%8d %10ld %9.2f %12.0f %14.2f %14.2f %14.2f %9ld KiB %10ld %6ld\n", clients,
             r.accepted, r.seconds, static_cast<double>(r.accepted) / r.seconds,
             r.daemonCpu / million, r.clientCpu / million, (r.daemonCpu + r.clientCpu) / million,
             r.peakRssKiB, r.queueFull, r.accepted - r.lines);
    }
  }
  return 0;
}
