#include "KestrinServer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include "osa/osa.h"
#include "protocol/SharedLayout.h"

extern char** environ;

namespace kestrin_e2e {

namespace {

// Whether `relative` is one of the harness's own files at the top of the
// root (the processes' standard output and error).
bool HarnessFile(const std::string& relative) {
  const bool output = relative.size() > 4 && (relative.compare(relative.size() - 4, 4, ".out") == 0 ||
                                             relative.compare(relative.size() - 4, 4, ".err") == 0);
  return output && relative.find('/') == std::string::npos;
}


constexpr int POLL_INTERVAL_MS = 20;
// Project identifiers the tests may key queues with ('Q' the default, the
// others through -q), and the semaphore's.
constexpr char QUEUE_KEYS[] = {'Q', 'X', 'Z'};
constexpr char SEMAPHORE_KEY = 'J';

const char* const SANITIZER_MARKS[] = {"AddressSanitizer", "LeakSanitizer",
                                       "UndefinedBehaviorSanitizer", "ThreadSanitizer",
                                       "runtime error:"};

// The configuration every test starts from: pacing as the defaults, so
// that no warning about it appears, and no role (chosen automatically).
constexpr char QUIET_CONFIGURATION[] =
    "[config]\n"
    "MessagesBeforeSleep = 80\n"
    "SleepTime = 10\n";

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// Polls `done` until it holds or `timeoutMs` has passed.
bool PollUntil(const std::function<bool()>& done, int timeoutMs) {
  for (int waited = 0;; waited += POLL_INTERVAL_MS) {
    if (done()) return true;
    if (waited >= timeoutMs) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(POLL_INTERVAL_MS));
  }
}

int CountOccurrences(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// Exit status as a shell reports it.
int StatusOf(int waitStatus) {
  if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) return 128 + WTERMSIG(waitStatus);
  return -1;
}

bool QueueExists(int key) {
  int id = -1;
  return key != -1 && osSysVQueueOpen(key, 0, &id) == OS_OK;
}

bool SemaphoreExists(int key) {
  int id = -1;
  return key != -1 && osSysVSemaphoreOpen(key, 0, &id) == OS_OK;
}

// The environment of a child: this process's, with the root, UTC and the
// extra entries; NOTIFY_SOCKET only when an extra entry names it.
std::vector<std::string> ChildEnvironment(const std::string& root,
                                          const std::vector<std::string>& extra) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string text = *entry;
    if (text.rfind("KESTRIN_ROOT=", 0) == 0 || text.rfind("TZ=", 0) == 0 ||
        text.rfind("NOTIFY_SOCKET=", 0) == 0) {
      continue;
    }
    entries.push_back(text);
  }
  entries.push_back("KESTRIN_ROOT=" + root);
  entries.push_back("TZ=UTC");
  for (const std::string& text : extra) entries.push_back(text);
  return entries;
}

}  // namespace

int Count(const std::vector<std::string>& lines, const std::string& line) {
  int count = 0;
  for (const std::string& each : lines) count += each == line ? 1 : 0;
  return count;
}

std::string ThisHostName() {
  char name[256] = {};
  EXPECT_EQ(OS_OK, osTCPGetHostName(name, sizeof name));
  return name;
}

kestrin::tKesAddLogMessage MakeAddLogRecord(uint32_t handle, uint16_t destination,
                                            uint32_t severity, int32_t eventId,
                                            const std::string& text) {
  kestrin::tKesAddLogMessage message;
  memset(&message, 0, sizeof message);
  message.header.version = kestrin::KES_INTERFACE_VERSION;
  message.header.type = kestrin::KES_ADD_LOG;
  message.handle = handle;
  message.destination = destination;
  message.severity = severity;
  message.eventId = eventId;
  message.timeSeconds = 1700000000;
  message.timeMicroseconds = 42;
  message.pid = 99;
  osLStrCpyn(message.text, text.c_str(), sizeof message.text);
  return message;
}

void SendAddLogRecord(const KestrinServer& server, const kestrin::tKesAddLogMessage& message) {
  server.SendRecord(&message,
                    offsetof(kestrin::tKesAddLogMessage, text) + strlen(message.text) + 1);
}

std::vector<flt_test::JsonObject> FaultRecords(const KestrinServer& server) {
  std::vector<flt_test::JsonObject> records;
  // A line still being appended is not looked at until its end is there.
  std::string text = server.ReadFile("kv/log/faultrecords.jsonl");
  text.erase(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
  for (const std::string& line : SplitLines(text)) {
    flt_test::JsonObject record;
    std::string error;
    if (flt_test::StrictJsonParser(line).Parse(&record, &error)) {
      records.push_back(record);
    } else {
      ADD_FAILURE() << "fault record is not valid JSON (" << error << "): " << line;
    }
  }
  return records;
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
  return PollUntil(done, timeoutMs);
}

LedFifo::LedFifo(const KestrinServer& server, int number)
    : path_(server.Root() + "/dev/led" + std::to_string(number)) {
  std::filesystem::create_directories(server.Root() + "/dev");
  std::filesystem::remove(path_);
  if (mkfifo(path_.c_str(), 0644) != 0) {
    ADD_FAILURE() << "mkfifo " << path_ << ": " << strerror(errno);
    return;
  }
  fd_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd_ < 0) ADD_FAILURE() << "open " << path_ << ": " << strerror(errno);
}

LedFifo::~LedFifo() {
  if (fd_ >= 0) close(fd_);
}

void LedFifo::ReadAvailable() {
  if (fd_ < 0) return;
  char buffer[256];
  for (;;) {
    ssize_t n = read(fd_, buffer, sizeof buffer);
    if (n <= 0) return;  // EAGAIN: a writer is there but wrote nothing more; 0: none is there
    bytes_.append(buffer, static_cast<size_t>(n));
  }
}

std::string LedFifo::WaitForBytes(size_t count, int timeoutMs) {
  PollUntil(
      [&]() {
        ReadAvailable();
        return bytes_.size() >= count;
      },
      timeoutMs);
  return bytes_;
}

std::string LedFifo::Bytes() {
  ReadAvailable();
  return bytes_;
}

int KeyOf(char projectId) {
  int key = -1;
  return KesIpcKey(projectId, &key) == OS_OK ? key : -1;
}

std::string KestrinServer::DaemonPath() {
  const char* buildDir = getenv("KESTRIN_BUILD_DIR");
  if (buildDir != nullptr && buildDir[0] != '\0') return std::string(buildDir) + "/bin/kestrin";
  char self[PATH_MAX] = {0};
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string path(self, n > 0 ? static_cast<size_t>(n) : 0);
  return path.substr(0, path.rfind('/')) + "/../bin/kestrin";
}

KestrinServer::KestrinServer(bool withKeyFile) {
  // A daemon that detaches (`start` without a service manager) becomes this
  // process's child, so that its exit status can be collected.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  MakeRoot(withKeyFile);
}

KestrinServer::~KestrinServer() {
  if (pipeFd_ >= 0) close(pipeFd_);
  KillDaemon();
  for (const std::string& path : errPaths_) CheckForSanitizerReports(ReadWhole(path), path);
  RemoveSystemVObjects();
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
  unsetenv("KESTRIN_ROOT");
}

void KestrinServer::MakeRoot(bool withKeyFile) {
  // ftok keys of distinct files can collide: a root whose keys already name
  // a queue or semaphore is dropped and another one made.
  for (int attempt = 0; attempt < 20; ++attempt) {
    char pattern[] = "/tmp/kestrin_e2e_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    root_ = pattern;
    std::filesystem::create_directories(root_ + "/kv/etc");
    std::filesystem::create_directories(root_ + "/kv/log");
    WriteFile("kv/etc/KestrinFtokTarget_DO_NOT_TOUCH", "key\n");
    WriteFile("kv/etc/Kestrin.conf", QUIET_CONFIGURATION);
    WriteFile("kv/etc/KestrinTaxonomy", "");
    WriteFile("stdin", "");
    setenv("KESTRIN_ROOT", root_.c_str(), 1);
    bool taken = SemaphoreExists(KeyOf(SEMAPHORE_KEY));
    for (char key : QUEUE_KEYS) taken = taken || QueueExists(KeyOf(key));
    if (!taken) {
      if (!withKeyFile) std::filesystem::remove(root_ + "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH");
      return;
    }
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  FAIL() << "no private root with free System V keys";
}

void KestrinServer::WriteFile(const std::string& relative, const std::string& content) const {
  std::filesystem::path path = std::filesystem::path(root_) / relative;
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

std::string KestrinServer::ReadFile(const std::string& relative) const {
  return ReadWhole(view_ + root_ + "/" + relative);
}

std::vector<std::string> KestrinServer::LogLines(const std::string& name) const {
  return SplitLines(ReadFile("kv/log/" + name));
}

std::vector<std::string> KestrinServer::OwnLogTexts() const {
  std::vector<std::string> texts;
  for (const std::string& line : LogLines("Kestrin.log")) {
    size_t dash = line.find(") - ");
    texts.push_back(dash == std::string::npos ? "<malformed> " + line : line.substr(dash + 4));
  }
  return texts;
}

pid_t KestrinServer::Spawn(const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment, const std::string& outPath,
                           const std::string& errPath, int outputFd) const {
  std::vector<std::string> words = launcher_;
  words.push_back(DaemonPath());
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> entries = ChildEnvironment(root_, environment);
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (std::string& entry : entries) envp.push_back(&entry[0]);
  envp.push_back(nullptr);
  const std::string inPath = root_ + "/stdin";

  pid_t pid = fork();
  if (pid == 0) {
    int in = open(inPath.c_str(), O_RDONLY);
    int out = outputFd >= 0 ? outputFd : open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = outputFd >= 0 ? outputFd : open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    // The test process's signal dispositions must not leak into the daemon.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  return pid;
}

void KestrinServer::Start(const std::vector<std::string>& arguments,
                          const std::vector<std::string>& environment) {
  ++runs_;
  outPath_ = root_ + "/daemon" + std::to_string(runs_) + ".out";
  errPath_ = root_ + "/daemon" + std::to_string(runs_) + ".err";
  errPaths_.push_back(errPath_);
  pid_ = Spawn(arguments, environment, outPath_, errPath_);
  ASSERT_GT(pid_, 0) << "fork failed";
}

void KestrinServer::StartPiped(const std::vector<std::string>& arguments) {
  ++runs_;
  outPath_ = root_ + "/daemon" + std::to_string(runs_) + ".out";
  errPath_ = outPath_;
  errPaths_.push_back(outPath_);
  std::ofstream(outPath_, std::ios::binary | std::ios::trunc).close();
  // Both ends close on exec: the daemon keeps only its standard streams.
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC)) << strerror(errno);
  pid_ = Spawn(arguments, {}, outPath_, errPath_, ends[1]);
  close(ends[1]);
  pipeFd_ = ends[0];
  ASSERT_GT(pid_, 0) << "fork failed";
}

bool KestrinServer::WaitForPipeEnd(int timeoutMs) {
  if (pipeFd_ < 0) return false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  std::ofstream out(outPath_, std::ios::binary | std::ios::app);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd ready{pipeFd_, POLLIN, 0};
    const int polled = poll(&ready, 1, static_cast<int>(left.count()));
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return false;
    char buffer[4096];
    const ssize_t n = read(pipeFd_, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    out.write(buffer, n);
    out.flush();
  }
  close(pipeFd_);
  pipeFd_ = -1;
  return true;
}

bool KestrinServer::WaitForReady(int timeoutMs) {
  return WaitForOutput("Configuration complete\n", timeoutMs);
}

bool KestrinServer::WaitForOutput(const std::string& text, int timeoutMs, int count) {
  return PollUntil([&]() { return CountOccurrences(Stdout(), text) >= count; }, timeoutMs);
}

bool KestrinServer::WaitForLogLine(const std::string& name, const std::string& text,
                                   int timeoutMs) {
  return PollUntil(
      [&]() {
        for (const std::string& line : LogLines(name)) {
          if (line.find(text) != std::string::npos) return true;
        }
        return false;
      },
      timeoutMs);
}

bool KestrinServer::WaitForOwnLogText(const std::string& text, int timeoutMs) {
  return PollUntil([&]() { return Count(OwnLogTexts(), text) > 0; }, timeoutMs);
}

int KestrinServer::WaitForExit(int timeoutMs) {
  if (pid_ <= 0) return -1;
  int status = -1;
  bool ended = PollUntil(
      [&]() {
        int raw = 0;
        if (waitpid(pid_, &raw, WNOHANG) != pid_) return false;
        status = StatusOf(raw);
        return true;
      },
      timeoutMs);
  if (!ended) return -1;
  pid_ = -1;
  return status;
}

bool KestrinServer::AdoptDetachedDaemon(int timeoutMs) {
  const std::string mark = "Saving process ID ";
  pid_t found = -1;
  PollUntil(
      [&]() {
        for (const std::string& text : OwnLogTexts()) {
          if (text.rfind(mark, 0) == 0)
            found = static_cast<pid_t>(atol(text.c_str() + mark.size()));
        }
        return found > 0;
      },
      timeoutMs);
  if (found <= 0) return false;
  pid_ = found;
  return true;
}

void KestrinServer::Signal(int signalNumber) const {
  if (pid_ > 0) kill(pid_, signalNumber);
}

std::string KestrinServer::Stdout() const { return ReadWhole(outPath_); }
std::string KestrinServer::Stderr() const { return ReadWhole(errPath_); }

Finished KestrinServer::Run(const std::vector<std::string>& arguments, int timeoutMs,
                            const std::vector<std::string>& environment) {
  ++runs_;
  const std::string outPath = root_ + "/run" + std::to_string(runs_) + ".out";
  const std::string errPath = root_ + "/run" + std::to_string(runs_) + ".err";
  errPaths_.push_back(errPath);
  Finished finished;
  pid_t pid = Spawn(arguments, environment, outPath, errPath);
  if (pid <= 0) return finished;
  bool ended = PollUntil(
      [&]() {
        int raw = 0;
        if (waitpid(pid, &raw, WNOHANG) != pid) return false;
        finished.status = StatusOf(raw);
        return true;
      },
      timeoutMs);
  if (!ended) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    finished.status = -1;
  }
  finished.out = ReadWhole(outPath);
  return finished;
}

void KestrinServer::SendText(const void* text, size_t textSize, long typeWord,
                             char queueKey) const {
  int queueId = -1;
  ASSERT_EQ(OS_OK, osSysVQueueOpen(KeyOf(queueKey), 0, &queueId)) << "no queue: is the daemon up?";
  std::vector<char> buffer(sizeof(long) + textSize);
  memcpy(buffer.data(), &typeWord, sizeof typeWord);
  if (textSize > 0) memcpy(buffer.data() + sizeof(long), text, textSize);
  ASSERT_EQ(OS_OK, osSysVQueueSend(queueId, buffer.data(), textSize, 1));
}

void KestrinServer::SendRecord(const void* record, size_t recordSize, long typeWord,
                               char queueKey) const {
  std::vector<char> text(recordSize + 4, 0);
  memcpy(text.data(), record, recordSize);
  SendText(text.data(), text.size(), typeWord, queueKey);
}

void KestrinServer::SendHeader(uint16_t type, uint16_t version, long typeWord,
                               char queueKey) const {
  uint16_t header[2] = {version, type};
  SendRecord(header, sizeof header, typeWord, queueKey);
}

void KestrinServer::KillDaemon() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

void KestrinServer::CheckForSanitizerReports(const std::string& errors,
                                             const std::string& what) const {
  for (const char* mark : SANITIZER_MARKS) {
    EXPECT_EQ(std::string::npos, errors.find(mark)) << what << " holds a sanitizer report:\n"
                                                    << errors;
  }
}

void KestrinServer::RemoveSystemVObjects() const {
  for (char projectId : QUEUE_KEYS) {
    int id = -1;
    int key = KeyOf(projectId);
    if (key != -1 && osSysVQueueOpen(key, 0, &id) == OS_OK) osSysVQueueRemove(id);
  }
  int semaphore = -1;
  int key = KeyOf(SEMAPHORE_KEY);
  if (key != -1 && osSysVSemaphoreOpen(key, 0, &semaphore) == OS_OK) {
    osSysVSemaphoreRemove(semaphore);
  }
  osUnshareMemory(KES_REG_TABLE_SEGMENT_NAME);
  osUnshareMemory(KES_FILTER_SEGMENT_NAME);
}

std::map<std::string, std::string> EntriesOutsideLogDirectory(const KestrinServer& server) {
  std::map<std::string, std::string> entries;
  const std::filesystem::path root(server.Root());
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(root, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    const std::string relative = std::filesystem::relative(it->path(), root).string();
    if (relative == "kv/log") it.disable_recursion_pending();
    if (relative == "kv/log" || HarnessFile(relative)) continue;
    if (it->is_symlink()) {
      entries[relative] = "link " + std::filesystem::read_symlink(it->path()).string();
    } else if (it->is_directory()) {
      entries[relative] = "directory";
    } else {
      std::ifstream in(it->path(), std::ios::binary);
      std::ostringstream content;
      content << in.rdbuf();
      entries[relative] = "file " + content.str();
    }
  }
  return entries;
}

}  // namespace kestrin_e2e
