// The service-manager calls change the whole process (a fork, a blocked
// signal, a thread of their own), so every test that starts the service runs
// it in a forked child and reads the outcome from its exit status and pipes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "qrt/QrtDiag.h"
#include "qrt/QrtFakeDaemon.h"

namespace {

using qrt_test::PrivateRoot;

constexpr int CHILD_WAIT_SECONDS = 20;

// Runs `body` in a forked child that exits with its result; returns the
// child's exit status, 128 + signal when killed, or -1 when it did not end
// within CHILD_WAIT_SECONDS (it is killed then).
int run_in_child(const std::function<int()>& body) {
  pid_t child = fork();
  if (child < 0) return -2;
  if (child == 0) _exit(body());
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(CHILD_WAIT_SECONDS);
  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -3;
}

// Reads exactly `size` bytes, waiting at most 10 seconds; false otherwise.
bool read_exactly(int fd, void* buffer, size_t size) {
  size_t got = 0;
  while (got < size) {
    pollfd entry{fd, POLLIN, 0};
    if (poll(&entry, 1, 10000) <= 0) return false;
    ssize_t n = read(fd, static_cast<char*>(buffer) + got, size - got);
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void redirect_stderr(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(fd, 2);
  close(fd);
}

long thread_id() { return static_cast<long>(syscall(SYS_gettid)); }

// What descriptor `fd` of this process is open on, as /proc shows it.
std::string descriptor_target(int fd) {
  char target[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
  return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

// Where the callbacks of the forked children report.
int g_reportFd = -1;

struct CallbackReport {
  long threadId;
  unsigned long signalNumber;
};

void report_and_exit(unsigned long signalNumber) {
  CallbackReport report{thread_id(), signalNumber};
  ssize_t ignored = write(g_reportFd, &report, sizeof report);
  (void)ignored;
  _exit(42);
}

void report_and_return(unsigned long signalNumber) {
  CallbackReport report{thread_id(), signalNumber};
  ssize_t ignored = write(g_reportFd, &report, sizeof report);
  (void)ignored;
}

void unused_callback(unsigned long) {}

// A unix datagram socket standing in for the service manager's.
class FakeNotifySocket {
 public:
  explicit FakeNotifySocket(const std::string& path) : path_(path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~FakeNotifySocket() {
    close(fd_);
    unlink(path_.c_str());
  }
  bool Bound() const { return bound_; }

  // The next datagram, or "<none>" after 10 seconds.
  std::string Next() const {
    pollfd entry{fd_, POLLIN, 0};
    if (poll(&entry, 1, 10000) <= 0) return "<none>";
    char buffer[512];
    ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
    return n < 0 ? "<error>" : std::string(buffer, static_cast<size_t>(n));
  }

 private:
  std::string path_;
  int fd_ = -1;
  bool bound_ = false;
};

TEST(QrtService, UnderAServiceManagerNotifiesReadyAndStoppingWithoutForking) {
  PrivateRoot dir(false);
  FakeNotifySocket manager(dir.Path() + "/notify");
  ASSERT_TRUE(manager.Bound());
  std::string socketPath = dir.Path() + "/notify";
  int status = run_in_child([&] {
    setenv("NOTIFY_SOCKET", socketPath.c_str(), 1);
    pid_t before = getpid();
    const std::string output = descriptor_target(STDOUT_FILENO);
    int result = QrtServiceStartService("kestrin", 0, 1, unused_callback, 3);
    if (result != QRT_OK) return 10 + result;
    if (getpid() != before) return 50;
    result = QrtServiceInitialized();
    if (result != QRT_OK) return 20 + result;
    // The service manager reads the standard streams (the journal).
    if (descriptor_target(STDOUT_FILENO) != output) return 51;
    result = QrtServiceStopService();
    if (result != QRT_OK) return 30 + result;
    return 0;
  });
  EXPECT_EQ(0, status);
  EXPECT_EQ("READY=1", manager.Next());
  EXPECT_EQ("STOPPING=1", manager.Next());
}

TEST(QrtService, SigtermCallsTheCallbackOnAThreadOfItsOwn) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    unsetenv("NOTIFY_SOCKET");
    g_reportFd = fds[1];
    int result =
        QrtServiceStartService("kestrin", QRT_SERVICE_OPTION_FOREGROUND, 1, report_and_exit, 0);
    CallbackReport started{thread_id(), static_cast<unsigned long>(result)};
    ssize_t ignored = write(fds[1], &started, sizeof started);
    (void)ignored;
    for (;;) pause();
  }
  close(fds[1]);
  CallbackReport started{};
  ASSERT_TRUE(read_exactly(fds[0], &started, sizeof started));
  EXPECT_EQ(0u, started.signalNumber);  // the start result
  EXPECT_EQ(static_cast<long>(child), started.threadId);
  kill(child, SIGTERM);
  CallbackReport called{};
  bool reported = read_exactly(fds[0], &called, sizeof called);
  int status = 0;
  if (!reported) kill(child, SIGKILL);
  waitpid(child, &status, 0);
  close(fds[0]);
  ASSERT_TRUE(reported);
  EXPECT_EQ(static_cast<unsigned long>(SIGTERM), called.signalNumber);
  EXPECT_NE(started.threadId, called.threadId);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(42, WEXITSTATUS(status));
}

TEST(QrtService, CallbackThatReturnsIsCalledForEveryRequest) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    unsetenv("NOTIFY_SOCKET");
    g_reportFd = fds[1];
    int result =
        QrtServiceStartService("kestrin", QRT_SERVICE_OPTION_FOREGROUND, 1, report_and_return, 0);
    CallbackReport started{thread_id(), static_cast<unsigned long>(result)};
    ssize_t ignored = write(fds[1], &started, sizeof started);
    (void)ignored;
    for (;;) pause();
  }
  close(fds[1]);
  CallbackReport report{};
  ASSERT_TRUE(read_exactly(fds[0], &report, sizeof report));
  int calls = 0;
  for (int i = 0; i < 2; ++i) {
    kill(child, SIGTERM);
    if (read_exactly(fds[0], &report, sizeof report) && report.signalNumber == SIGTERM) ++calls;
  }
  // The process survived both: the signal never reached its default action.
  EXPECT_EQ(0, waitpid(child, nullptr, WNOHANG));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  close(fds[0]);
  EXPECT_EQ(2, calls);
}

TEST(QrtService, StopTimeoutEndsAProcessThatDoesNotStop) {
  PrivateRoot dir(false);
  std::string errors = dir.Path() + "/stderr";
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    unsetenv("NOTIFY_SOCKET");
    redirect_stderr(errors);
    g_reportFd = fds[1];
    int result = QrtServiceStartService("hung-service", QRT_SERVICE_OPTION_FOREGROUND, 1,
                                        report_and_return, 1);
    CallbackReport started{thread_id(), static_cast<unsigned long>(result)};
    ssize_t ignored = write(fds[1], &started, sizeof started);
    (void)ignored;
    for (;;) pause();
  }
  close(fds[1]);
  CallbackReport report{};
  ASSERT_TRUE(read_exactly(fds[0], &report, sizeof report));
  auto start = std::chrono::steady_clock::now();
  kill(child, SIGTERM);
  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0 &&
         std::chrono::steady_clock::now() - start < std::chrono::seconds(CHILD_WAIT_SECONDS)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  auto elapsed = std::chrono::steady_clock::now() - start;
  if (!WIFEXITED(status)) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
  }
  close(fds[0]);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(1, WEXITSTATUS(status));
  EXPECT_GE(elapsed, std::chrono::milliseconds(900));
  EXPECT_EQ("hung-service: still running 1 s after a termination request; ending it\n",
            read_file(errors));
}

struct DetachReport {
  pid_t pid;
  pid_t sessionId;
  int originalStillWaiting;
};

// The detached child's side: reports, then finishes start-up as `finish` says.
int detached_start(int reportFd, const std::function<int()>& finish) {
  unsetenv("NOTIFY_SOCKET");
  pid_t original = getpid();
  int result = QrtServiceStartService("svc", 0, 1, unused_callback, 0);
  if (result != QRT_OK) return 60 + result;
  DetachReport report{getpid(), getsid(0), getppid() == original && kill(original, 0) == 0};
  ssize_t ignored = write(reportFd, &report, sizeof report);
  (void)ignored;
  return finish();
}

TEST(QrtService, WithoutAServiceManagerDetachesAndTheOriginalExitsZeroOnceReady) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  int status = run_in_child([&] {
    return detached_start(fds[1], [] {
      // Still waiting for us: give it time to (wrongly) go early.
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      return QrtServiceInitialized() == QRT_OK ? 0 : 70;
    });
  });
  close(fds[1]);
  EXPECT_EQ(0, status);
  DetachReport report{};
  ASSERT_TRUE(read_exactly(fds[0], &report, sizeof report));
  close(fds[0]);
  EXPECT_EQ(report.pid, report.sessionId);
  EXPECT_EQ(1, report.originalStillWaiting);
}

// Everything written into the pipe `fd` until its last writer closes it;
// "<timeout>" appended when that takes more than 10 seconds.
std::string read_to_end(int fd) {
  std::string text;
  for (;;) {
    pollfd entry{fd, POLLIN, 0};
    if (poll(&entry, 1, 10000) <= 0) return text + "<timeout>";
    char buffer[256];
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return text;
    text.append(buffer, static_cast<size_t>(n));
  }
}

// `service | cat`: the pipe ends once the original process has exited,
// while the detached one still runs; what it printed before it was ready
// came through.
TEST(QrtService, DetachedProcessLetsGoOfTheStartersPipeOnceReady) {
  int output[2];
  int reports[2];
  int release[2];
  ASSERT_EQ(0, pipe(output));
  ASSERT_EQ(0, pipe(reports));
  ASSERT_EQ(0, pipe(release));
  fflush(stdout);
  fflush(stderr);
  int status = run_in_child([&] {
    dup2(output[1], STDOUT_FILENO);
    dup2(output[1], STDERR_FILENO);
    close(output[0]);
    close(output[1]);
    close(release[1]);
    return detached_start(reports[1], [&] {
      printf("said while starting");  // no line end: still buffered
      if (QrtServiceInitialized() != QRT_OK) return 70;
      printf("said once ready\n");
      fflush(stdout);
      const bool detached = descriptor_target(STDIN_FILENO) == "/dev/null" &&
                            descriptor_target(STDOUT_FILENO) == "/dev/null" &&
                            descriptor_target(STDERR_FILENO) == "/dev/null";
      ssize_t ignored = write(reports[1], &detached, sizeof detached);
      (void)ignored;
      // Runs on until the test has seen the end of the pipe.
      char byte = 0;
      ignored = read(release[0], &byte, 1);
      return 0;
    });
  });
  close(output[1]);
  close(reports[1]);
  close(release[0]);
  EXPECT_EQ(0, status);
  EXPECT_EQ("said while starting", read_to_end(output[0]));
  DetachReport report{};
  bool detached = false;
  EXPECT_TRUE(read_exactly(reports[0], &report, sizeof report));
  EXPECT_TRUE(read_exactly(reports[0], &detached, sizeof detached));
  EXPECT_TRUE(detached);
  EXPECT_EQ(0, kill(report.pid, 0)) << "the detached process still runs";
  close(release[1]);
  close(output[0]);
  close(reports[0]);
}

TEST(QrtService, OriginalExitsWithTheChildsStatusWhenTheChildEndsFirst) {
  PrivateRoot dir(false);
  std::string errors = dir.Path() + "/stderr";
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  int status = run_in_child([&] {
    redirect_stderr(errors);
    return detached_start(fds[1], [] { return 7; });
  });
  close(fds[1]);
  close(fds[0]);
  EXPECT_EQ(7, status);
  EXPECT_EQ("svc: the background process ended before it was ready\n", read_file(errors));
}

TEST(QrtService, OriginalExitsOneWhenTheChildStopsBeforeItIsReady) {
  PrivateRoot dir(false);
  std::string errors = dir.Path() + "/stderr";
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  int status = run_in_child([&] {
    redirect_stderr(errors);
    return detached_start(fds[1], [] {
      if (QrtServiceStopService() != QRT_OK) return 80;
      return 0;
    });
  });
  close(fds[1]);
  close(fds[0]);
  EXPECT_EQ(1, status);
  EXPECT_EQ("svc: the background process ended before it was ready\n", read_file(errors));
}

TEST(QrtService, CallsOutOfOrderAreInvalidState) {
  // Never started in this process.
  EXPECT_EQ(QRT_ERROR_INVALID_STATE, QrtServiceInitialized());
  EXPECT_EQ(QRT_ERROR_INVALID_STATE, QrtServiceStopService());
  int status = run_in_child([] {
    unsetenv("NOTIFY_SOCKET");
    if (QrtServiceStartService("s", QRT_SERVICE_OPTION_FOREGROUND, 1, unused_callback, 0) != 0) {
      return 10;
    }
    if (QrtServiceStartService("s", QRT_SERVICE_OPTION_FOREGROUND, 1, unused_callback, 0) !=
        QRT_ERROR_INVALID_STATE) {
      return 11;
    }
    if (QrtServiceInitialized() != QRT_OK) return 12;
    if (QrtServiceInitialized() != QRT_ERROR_INVALID_STATE) return 13;
    if (QrtServiceStopService() != QRT_OK) return 14;
    if (QrtServiceStopService() != QRT_ERROR_INVALID_STATE) return 15;
    return 0;
  });
  EXPECT_EQ(0, status);
}

TEST(QrtService, InvalidParametersAreRefusedBeforeAnythingHappens) {
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtServiceStartService(nullptr, 0, 1, unused_callback, 0));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtServiceStartService("s", 0, 1, nullptr, 0));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtServiceStartService("s", 0, 2, unused_callback, 0));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtServiceStartService("s", 4, 1, unused_callback, 0));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtServiceStartService("s", 0, 1, unused_callback, -1));
  // Still not started.
  EXPECT_EQ(QRT_ERROR_INVALID_STATE, QrtServiceInitialized());
}

TEST(QrtService, UnitFileRunsTheInstalledDaemonAsANotifyService) {
  std::string unit = read_file(std::string(KESTRIN_BUILD_DIR) + "/etc/kestrin.service");
  EXPECT_NE(std::string::npos, unit.find("\n[Service]\n"));
  EXPECT_NE(std::string::npos, unit.find("\nType=notify\n"));
  EXPECT_NE(std::string::npos,
            unit.find(std::string("\nExecStart=") + KESTRIN_INSTALL_BINDIR + "/kestrin start\n"));
  // Clean-up exits with 0 whatever the reason: only "always" restarts it
  // after a failure, and systemd's own stop is never followed by a restart.
  EXPECT_NE(std::string::npos, unit.find("\nRestart=always\n"));
  EXPECT_EQ(std::string::npos, unit.find("\nRestart=on-failure\n"));
}

}  // namespace
