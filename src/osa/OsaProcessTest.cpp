#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <stddef.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "osa/OsaInternal.h"
#include "osa/OsaTestSupport.h"
#include "osa/osa.h"

namespace {

using osa_test::Child;
using osa_test::ScopedEnv;
using osa_test::unique_name;

// Removes the lock file of a name at scope end, so runs leave nothing behind.
class ClaimName {
 public:
  explicit ClaimName(const char* stem) : name_(unique_name(stem)) {}
  ~ClaimName() { unlink(osa_internal::process_state_lock_path(name_.c_str()).c_str()); }
  const char* Get() const { return name_.c_str(); }

 private:
  std::string name_;
};

int state_of(const char* name) {
  int state = -1;
  int rc = osGetProcessState(name, &state);
  return rc == OS_OK ? state : -100 - rc;
}

// Whether a lock on the name's file, taken through a descriptor of its own,
// is refused: someone holds the claim.
bool locked_elsewhere(const char* name) {
  int fd = open(osa_internal::process_state_lock_path(name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool refused = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  close(fd);
  return refused;
}

// Child bodies: each gets the name to claim and returns the state it saw.
int claim_in_child(void* name) { return state_of(static_cast<const char*>(name)); }

// Claims, then leaves the claim to a grandchild, as a daemon does when it
// forks and its parent exits. Returns the state once the claimant has exited.
int claim_and_daemonize(void* name) {
  int state = state_of(static_cast<const char*>(name));
  pid_t grandchild = fork();
  if (grandchild == 0) {
    for (int i = 0; i < 600; ++i) sleep(1);  // outlives the test; killed by it
    _exit(0);
  }
  return grandchild > 0 ? state * 1000000 + grandchild : -1;
}

// A notification socket as the service manager opens one: `name` is a path,
// or "@name" for the abstract namespace.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& name) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (name[0] == '@') address.sun_path[0] = '\0';
    const socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), size) == 0;
  }
  ~NotifySocket() { close(fd_); }
  bool Bound() const { return bound_; }
  std::string Receive() {
    char buffer[256];
    const ssize_t count = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
    return count < 0 ? "<nothing>" : std::string(buffer, static_cast<size_t>(count));
  }

 private:
  int fd_ = -1;
  bool bound_ = false;
};

TEST(OsaNotifyServiceManager, SendsTheStateToTheSocketPath) {
  osa_test::TempDir dir;
  NotifySocket manager(dir.File("notify"));
  ASSERT_TRUE(manager.Bound());
  osa_test::ScopedEnv variable("NOTIFY_SOCKET", dir.File("notify").c_str());
  EXPECT_EQ(OS_OK, osNotifyServiceManager("READY=1"));
  EXPECT_EQ("READY=1", manager.Receive());
}

TEST(OsaNotifyServiceManager, ReachesAnAbstractSocket) {
  const std::string name = "@kestrin-notify-test-" + std::to_string(getpid());
  NotifySocket manager(name);
  ASSERT_TRUE(manager.Bound());
  osa_test::ScopedEnv variable("NOTIFY_SOCKET", name.c_str());
  EXPECT_EQ(OS_OK, osNotifyServiceManager("STOPPING=1"));
  EXPECT_EQ("STOPPING=1", manager.Receive());
}

TEST(OsaNotifyServiceManager, WithoutAManagerNothingIsSent) {
  osa_test::ScopedEnv variable("NOTIFY_SOCKET", nullptr);
  EXPECT_EQ(OS_OK, osNotifyServiceManager("READY=1"));
  osa_test::ScopedEnv relative("NOTIFY_SOCKET", "relative/path");
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osNotifyServiceManager("READY=1"));
}

TEST(OsaGetProcessId, IsThisProcess) {
  unsigned long pid = 0;
  ASSERT_EQ(OS_OK, osGetProcessId(&pid));
  EXPECT_EQ(static_cast<unsigned long>(getpid()), pid);
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetProcessId(nullptr));
}

TEST(OsaGetProcessFileName, OwnExecutableWithoutDirectories) {
  char name[64];
  ASSERT_EQ(OS_OK, osGetProcessFileName(0, name, sizeof name));
  EXPECT_STREQ("osa_test", name);
}

TEST(OsaGetProcessFileName, ByProcessIdAndByTaskId) {
  char name[64];
  ASSERT_EQ(OS_OK, osGetProcessFileName(static_cast<unsigned long>(getpid()), name, sizeof name));
  EXPECT_STREQ("osa_test", name);
  unsigned long task = 0;
  osGetTaskId(&task);
  ASSERT_EQ(OS_OK, osGetProcessFileName(task, name, sizeof name));
  EXPECT_STREQ("osa_test", name);
}

TEST(OsaGetProcessFileName, OtherProgram) {
  pid_t child = fork();
  if (child == 0) {
    execl("/bin/sleep", "sleep", "30", static_cast<char*>(nullptr));
    _exit(127);
  }
  ASSERT_GT(child, 0);
  char name[64] = "";
  // Until the exec has happened the child still runs this program.
  for (int i = 0; i < 500; ++i) {
    if (osGetProcessFileName(static_cast<unsigned long>(child), name, sizeof name) == OS_OK &&
        strcmp(name, "sleep") == 0) {
      break;
    }
    usleep(10000);
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_STREQ("sleep", name);
}

TEST(OsaGetProcessFileName, MissingProcessIsFileNotFound) {
  pid_t child = fork();
  if (child == 0) _exit(0);
  ASSERT_GT(child, 0);
  waitpid(child, nullptr, 0);  // reaped: the id names no process now
  char name[64] = "untouched";
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND,
            osGetProcessFileName(static_cast<unsigned long>(child), name, sizeof name));
}

TEST(OsaGetProcessFileName, TooSmallBufferIsCut) {
  char name[5];
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, osGetProcessFileName(0, name, sizeof name));
  EXPECT_STREQ("osa_", name);
  char exact[9];  // "osa_test" and the terminator
  EXPECT_EQ(OS_OK, osGetProcessFileName(0, exact, sizeof exact));
  EXPECT_STREQ("osa_test", exact);
}

TEST(OsaGetProcessFileName, InvalidArguments) {
  char name[8];
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetProcessFileName(0, nullptr, 8));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetProcessFileName(0, name, 0));
}

TEST(OsaGetProcessState, FreshNameIsNew) {
  ClaimName name("OsaFresh");
  EXPECT_EQ(OS_PROCESS_STATE_NEW, state_of(name.Get()));
}

TEST(OsaGetProcessState, HolderAskingAgainGetsNew) {
  ClaimName name("OsaAgain");
  EXPECT_EQ(OS_PROCESS_STATE_NEW, state_of(name.Get()));
  EXPECT_EQ(OS_PROCESS_STATE_NEW, state_of(name.Get()));
}

TEST(OsaGetProcessState, LiveHolderInAnotherProcessIsHeld) {
  ClaimName name("OsaHeld");
  Child child(claim_in_child, const_cast<char*>(name.Get()), true);
  ASSERT_EQ(OS_PROCESS_STATE_NEW, child.Result());
  EXPECT_EQ(OS_PROCESS_STATE_HELD, state_of(name.Get()));
  // Still held on a second look: a refused claim leaves nothing behind.
  EXPECT_EQ(OS_PROCESS_STATE_HELD, state_of(name.Get()));
}

TEST(OsaGetProcessState, KilledHolderReleasesTheName) {
  ClaimName name("OsaKilled");
  Child child(claim_in_child, const_cast<char*>(name.Get()), true);
  ASSERT_EQ(OS_PROCESS_STATE_NEW, child.Result());
  ASSERT_EQ(OS_PROCESS_STATE_HELD, state_of(name.Get()));
  child.Kill();
  EXPECT_EQ(OS_PROCESS_STATE_RECLAIMED, state_of(name.Get()));
  // Now this process holds it: a lock taken through another descriptor fails.
  EXPECT_TRUE(locked_elsewhere(name.Get()));
}

TEST(OsaGetProcessState, ForkedChildOfTheHolderSharesTheClaim) {
  ClaimName name("OsaShared");
  ASSERT_EQ(OS_PROCESS_STATE_NEW, state_of(name.Get()));
  EXPECT_TRUE(locked_elsewhere(name.Get()));
  Child child(claim_in_child, const_cast<char*>(name.Get()), false);
  EXPECT_EQ(OS_PROCESS_STATE_NEW, child.Result());
  child.Wait();
  // The child's end does not release the claim this process still holds.
  EXPECT_TRUE(locked_elsewhere(name.Get()));
}

TEST(OsaGetProcessState, DaemonizingChildKeepsTheClaim) {
  ClaimName name("OsaDaemon");
  Child child(claim_and_daemonize, const_cast<char*>(name.Get()), false);
  int result = child.Result();
  ASSERT_GE(result, 0);
  pid_t grandchild = result % 1000000;
  EXPECT_EQ(OS_PROCESS_STATE_NEW, result / 1000000);
  EXPECT_EQ(0, child.Wait());  // the claimant itself has ended
  EXPECT_EQ(OS_PROCESS_STATE_HELD, state_of(name.Get()));
  kill(grandchild, SIGKILL);
  // The grandchild is not ours to reap; wait until it is gone.
  int state = OS_PROCESS_STATE_HELD;
  for (int i = 0; i < 500 && state == OS_PROCESS_STATE_HELD; ++i) {
    usleep(10000);
    state = state_of(name.Get());
  }
  EXPECT_EQ(OS_PROCESS_STATE_RECLAIMED, state);
}

TEST(OsaGetProcessState, ExecDropsTheClaim) {
  ClaimName name("OsaExec");
  int pipeFds[2];
  ASSERT_EQ(0, pipe(pipeFds));
  pid_t child = fork();
  if (child == 0) {
    close(pipeFds[0]);
    int state = state_of(name.Get());  // claimed, then exec'd away below
    ssize_t ignored = write(pipeFds[1], &state, sizeof state);
    (void)ignored;
    execl("/bin/sleep", "sleep", "30", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(pipeFds[1]);
  int state = -1;
  ASSERT_EQ(static_cast<ssize_t>(sizeof state), read(pipeFds[0], &state, sizeof state));
  close(pipeFds[0]);
  EXPECT_EQ(OS_PROCESS_STATE_NEW, state);
  // Once the child runs the other program, its claim is gone though it lives.
  char program[64] = "";
  for (int i = 0; i < 500 && strcmp(program, "sleep") != 0; ++i) {
    usleep(10000);
    osGetProcessFileName(static_cast<unsigned long>(child), program, sizeof program);
  }
  EXPECT_STREQ("sleep", program);
  EXPECT_EQ(OS_PROCESS_STATE_RECLAIMED, state_of(name.Get()));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST(OsaGetProcessState, LeftoverLockFileIsReclaimed) {
  ClaimName name("OsaLeftover");
  std::string path = osa_internal::process_state_lock_path(name.Get());
  int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0666);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(OS_PROCESS_STATE_RECLAIMED, state_of(name.Get()));
}

TEST(OsaGetProcessState, LockFileIsWritableByItsOwnerOnly) {
  ClaimName name("OsaMode");
  const mode_t old = umask(0);
  EXPECT_EQ(OS_PROCESS_STATE_NEW, state_of(name.Get()));
  umask(old);
  struct stat info;
  ASSERT_EQ(0, lstat(osa_internal::process_state_lock_path(name.Get()).c_str(), &info));
  EXPECT_EQ(0644u, info.st_mode & 07777);
}

TEST(OsaGetProcessState, LinkUnderTheLockFilesNameIsNeverFollowed) {
  ClaimName name("OsaLink");
  const std::string path = osa_internal::process_state_lock_path(name.Get());
  const std::string target = path + ".target";
  ASSERT_EQ(0, symlink(target.c_str(), path.c_str()));
  int state = -1;
  EXPECT_NE(OS_OK, osGetProcessState(name.Get(), &state));
  struct stat info;
  EXPECT_NE(0, lstat(target.c_str(), &info)) << "the link's target was created";
  int fd = open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_NE(OS_OK, osGetProcessState(name.Get(), &state)) << "an existing target is not locked";
  unlink(target.c_str());
}

TEST(OsaGetProcessState, DistinctRootsDoNotExcludeEachOther) {
  ClaimName name("OsaRoots");
  std::string pathA, pathB;
  {
    ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root-a");
    pathA = osa_internal::process_state_lock_path(name.Get());
    Child child(claim_in_child, const_cast<char*>(name.Get()), true);
    ASSERT_EQ(OS_PROCESS_STATE_NEW, child.Result());
    EXPECT_EQ(OS_PROCESS_STATE_HELD, state_of(name.Get()));
    {
      ScopedEnv other("KESTRIN_ROOT", "/tmp/kestrin-root-b");
      pathB = osa_internal::process_state_lock_path(name.Get());
      EXPECT_EQ(OS_PROCESS_STATE_NEW, state_of(name.Get()));
    }
  }
  EXPECT_NE(pathA, pathB);
  // Under a root the lock lives inside it, never in the machine's /run/lock.
  EXPECT_EQ(0u, pathA.rfind("/tmp/kestrin-root-a/run/lock/kestrin-", 0)) << pathA;
  EXPECT_EQ(0u, pathB.rfind("/tmp/kestrin-root-b/run/lock/kestrin-", 0)) << pathB;
  unlink(pathA.c_str());
  unlink(pathB.c_str());
}

TEST(OsaGetProcessState, LockFileIsNamedAfterTheMappedName) {
  ScopedEnv root("KESTRIN_ROOT", nullptr);
  std::string path = osa_internal::process_state_lock_path("SPIM_kestrin");
  const char* directory = access("/run/lock", W_OK | X_OK) == 0 ? "/run/lock" : "/tmp";
  EXPECT_EQ(std::string(directory) + "/kestrin-SPIM_kestrin.lock", path);
  EXPECT_EQ(std::string(directory) + "/kestrin-a_b.lock",
            osa_internal::process_state_lock_path("a/b"));
}

TEST(OsaGetProcessState, ThreadsOfOneProcessAllGetNew) {
  ClaimName name("OsaThreads");
  std::atomic<int> notNew{0};
  std::thread threads[4];
  for (auto& thread : threads) {
    thread = std::thread([&] {
      if (state_of(name.Get()) != OS_PROCESS_STATE_NEW) notNew++;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(0, notNew.load());
}

TEST(OsaGetProcessState, InvalidArguments) {
  int state = 42;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetProcessState(nullptr, &state));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetProcessState("", &state));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetProcessState("x", nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetProcessState(std::string(300, 'n').c_str(), &state));
  EXPECT_EQ(42, state);
}

// ---- osDetachStandardStreams ------------------------------------------------

// Whether descriptor `fd` of this process is open on /dev/null and stays
// open across exec.
bool on_dev_null_across_exec(int fd) {
  char target[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
  if (n <= 0) return false;
  target[n] = '\0';
  const int flags = fcntl(fd, F_GETFD);
  return strcmp(target, "/dev/null") == 0 && flags >= 0 && (flags & FD_CLOEXEC) == 0;
}

// The child's outcome: 0 when the call worked and all three streams are
// /dev/null, else a bit per failure (1: the call, 2, 4, 8: the streams).
int detach_outcome() {
  int outcome = osDetachStandardStreams() == OS_OK ? 0 : 1;
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (!on_dev_null_across_exec(fd)) outcome |= 2 << fd;
  }
  return outcome;
}

// Child body: standard output and error become the pipe end `*argument`,
// a line is left in stdout's buffer, and the streams are detached.
int detach_with_pending_output(void* argument) {
  const int pipeEnd = *static_cast<int*>(argument);
  if (dup2(pipeEnd, STDOUT_FILENO) < 0 || dup2(pipeEnd, STDERR_FILENO) < 0) return 100;
  close(pipeEnd);
  printf("said before");  // no line end: still buffered, whatever stdout's mode
  const int outcome = detach_outcome();
  printf("said after\n");
  fprintf(stderr, "said after on standard error\n");
  fflush(stdout);
  return outcome;
}

int detach_with_closed_streams(void*) {
  close(STDIN_FILENO);
  close(STDOUT_FILENO);
  close(STDERR_FILENO);
  return detach_outcome();
}

// Everything written into the pipe `fd` until its last writer closes it;
// "<timeout>" appended when that takes more than 10 seconds.
std::string read_to_end(int fd) {
  std::string text;
  for (;;) {
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, 10000) <= 0) return text + "<timeout>";
    char buffer[256];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return text;
    text.append(buffer, static_cast<size_t>(n));
  }
}

TEST(OsaDetachStandardStreams, PendingOutputGoesToTheOldStreamsAndLaterOutputNowhere) {
  int fds[2];
  ASSERT_EQ(0, pipe2(fds, O_CLOEXEC));
  // The child must not write out this process's buffered output as its own.
  fflush(stdout);
  fflush(stderr);
  Child child(detach_with_pending_output, &fds[1], false);
  close(fds[1]);
  EXPECT_EQ(0, child.Result());
  EXPECT_EQ(0, child.Wait());
  EXPECT_EQ("said before", read_to_end(fds[0]));
  close(fds[0]);
}

TEST(OsaDetachStandardStreams, ClosedStreamsAreOpenedOnDevNullAndStayOpenAcrossExec) {
  Child child(detach_with_closed_streams, nullptr, false);
  EXPECT_EQ(0, child.Result());
  EXPECT_EQ(0, child.Wait());
}

}  // namespace
