// Process information and the named single-instance claim.
//
// A claim on a name is an flock(LOCK_EX) on a lock file named after the name
// (mapped per root). The kernel drops the lock when the last descriptor of it
// closes, that is when the holder ends however it ends, so a claim can never
// go stale. The descriptor is inherited across fork, so a daemonising child
// keeps its parent's claim, and closed on exec (O_CLOEXEC), so a program the
// holder starts does not.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <stddef.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

// Names this process holds, with the descriptor carrying each lock. The
// descriptors stay open until the process ends. Guarded by g_claimsLock.
pthread_mutex_t g_claimsLock = PTHREAD_MUTEX_INITIALIZER;
std::map<std::string, int>* g_claims = nullptr;  // never freed: lives as long as the locks

// The directory for lock files. Under a KESTRIN_ROOT R it is R/run/lock
// (created on demand), so that a private root leaves nothing behind in the
// machine's directories; otherwise /run/lock where this process may write,
// else /tmp.
std::string lock_directory() {
  char mapped[PATH_MAX];
  if (osMapPath("/run/lock", mapped, sizeof mapped) == OS_OK && strcmp(mapped, "/run/lock") != 0) {
    // mkdir -p: every missing directory on the way, the root included.
    for (char* slash = strchr(mapped + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
      *slash = '\0';
      mkdir(mapped, 0777);
      *slash = '/';
    }
    mkdir(mapped, 0777);
    return mapped;
  }
  return access("/run/lock", W_OK | X_OK) == 0 ? "/run/lock" : "/tmp";
}

// Opens the lock file, telling whether this call created it.
int open_lock_file(const std::string& path, bool* created) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    // Only the owner may write the file; others open it read-only, which is
    // enough for flock. A link planted under the lock file's name (in /tmp,
    // say) is never followed.
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd >= 0) {
      fchmod(fd, 0644);  // whatever the umask
      *created = true;
      return fd;
    }
    if (errno == EINTR) continue;
    if (errno != EEXIST) return -errno;
    fd = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && errno == EACCES) fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) {
      *created = false;
      return fd;
    }
    if (errno != ENOENT && errno != EINTR) return -errno;
    // Removed between the two opens: try again.
  }
  return -EAGAIN;
}

// Takes the lock without waiting: OS_OK, OS_ERROR_ALREADY_EXISTS when another
// open file description holds it, or an error code.
int try_lock(int fd) {
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return OS_ERROR_ALREADY_EXISTS;
    if (errno != EINTR) return osa_internal::file_error_from_errno(errno);
  }
  return OS_OK;
}

// Claims `path` for this process (called with g_claimsLock held).
int claim_lock_file(const std::string& path, int* state) {
  bool created = false;
  int fd = open_lock_file(path, &created);
  if (fd < 0) return osa_internal::file_error_from_errno(-fd);
  int rc = try_lock(fd);
  if (rc == OS_ERROR_ALREADY_EXISTS) {
    close(fd);
    *state = OS_PROCESS_STATE_HELD;
    return OS_OK;
  }
  if (rc != OS_OK) {
    close(fd);
    return rc;
  }
  if (g_claims == nullptr) g_claims = new std::map<std::string, int>;
  (*g_claims)[path] = fd;
  *state = created ? OS_PROCESS_STATE_NEW : OS_PROCESS_STATE_RECLAIMED;
  return OS_OK;
}

}  // namespace

namespace osa_internal {

std::string process_state_lock_path(const char* name) {
  char mapped[NAME_MAX + 1];
  if (name == nullptr || name[0] == '\0' ||
      osMapIpcName(name, mapped, sizeof mapped - 16) != OS_OK) {
    return std::string();
  }
  // The name becomes one file name: slashes would make it a path.
  for (char* c = mapped; *c != '\0'; ++c) {
    if (*c == '/') *c = '_';
  }
  return std::string(lock_directory()) + "/kestrin-" + mapped + ".lock";
}

}  // namespace osa_internal

int osGetProcessId(unsigned long* processId) {
  if (processId == nullptr) return OS_ERROR_INVALID_PARAMETER;
  *processId = static_cast<unsigned long>(getpid());
  return OS_OK;
}

int osGetProcessFileName(unsigned long taskId, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return OS_ERROR_INVALID_PARAMETER;
  char link[64];
  if (taskId == 0) {
    snprintf(link, sizeof link, "/proc/self/exe");
  } else {
    snprintf(link, sizeof link, "/proc/%lu/exe", taskId);
  }
  char target[PATH_MAX + 1];
  ssize_t length = readlink(link, target, sizeof target - 1);
  if (length < 0) {
    return errno == ENOENT ? OS_ERROR_FILE_NOT_FOUND : osa_internal::file_error_from_errno(errno);
  }
  target[length] = '\0';
  // An executable replaced while running reads as "path (deleted)".
  static const char DELETED[] = " (deleted)";
  size_t deletedLength = sizeof DELETED - 1;
  if (static_cast<size_t>(length) > deletedLength &&
      strcmp(target + length - deletedLength, DELETED) == 0) {
    target[length - deletedLength] = '\0';
  }
  const char* slash = strrchr(target, '/');
  const char* base = slash == nullptr ? target : slash + 1;
  osLStrCpyn(buffer, base, size);
  return strlen(base) < size ? OS_OK : OS_ERROR_BUFFER_TOO_SMALL;
}

int osGetProcessState(const char* name, int* state) {
  if (name == nullptr || name[0] == '\0' || state == nullptr) return OS_ERROR_INVALID_PARAMETER;
  std::string path = osa_internal::process_state_lock_path(name);
  if (path.empty()) return OS_ERROR_INVALID_PARAMETER;
  pthread_mutex_lock(&g_claimsLock);
  int rc = OS_OK;
  if (g_claims != nullptr && g_claims->count(path) != 0) {
    *state = OS_PROCESS_STATE_NEW;
  } else {
    rc = claim_lock_file(path, state);
  }
  pthread_mutex_unlock(&g_claimsLock);
  return rc;
}

int osRunShellCommand(const char* command) {
  if (command == nullptr) return OS_ERROR_INVALID_PARAMETER;
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->runShellCommand != nullptr) {
    int result = overrides->runShellCommand(command);
    if (result != OSA_CALL_REAL) return result;
  }
  return system(command);
}

void osExitNow(int status) { _exit(status); }

namespace {

// The original process's side of a detach: waits until the child reports
// ready (one byte) or ends, and gives the exit status to end with.
int wait_for_readiness(int readFd, pid_t child, const char* name) {
  char byte = 0;
  ssize_t n;
  do {
    n = read(readFd, &byte, 1);
  } while (n < 0 && errno == EINTR);
  if (n == 1) return 0;
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  int code = 1;
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0) code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) code = 128 + WTERMSIG(status);
  fprintf(stderr, "%s: the background process ended before it was ready\n", name);
  return code;
}

}  // namespace

int osDetachProcess(const char* name, long* readyHandle) {
  if (name == nullptr || readyHandle == nullptr) return OS_ERROR_INVALID_PARAMETER;
  // Buffered output would otherwise be written by both processes.
  fflush(nullptr);
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return osa_internal::combined_error(OS_ERROR_GENERAL, errno);
  pid_t child = fork();
  if (child < 0) {
    const int error = errno;
    close(fds[0]);
    close(fds[1]);
    return osa_internal::combined_error(OS_ERROR_GENERAL, error);
  }
  if (child > 0) {
    close(fds[1]);
    // _exit: the child owns the process's resources from now on; running
    // static destructors or atexit handlers here would tear them down.
    _exit(wait_for_readiness(fds[0], child, name));
  }
  close(fds[0]);
  setsid();
  *readyHandle = fds[1];
  return OS_OK;
}

int osNotifyServiceManager(const char* state) {
  if (state == nullptr) return OS_ERROR_INVALID_PARAMETER;
  const char* path = getenv("NOTIFY_SOCKET");
  if (path == nullptr || path[0] == '\0') return OS_OK;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const size_t length = strlen(path);
  if ((path[0] != '/' && path[0] != '@') || length >= sizeof address.sun_path) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  memcpy(address.sun_path, path, length);
  if (path[0] == '@') address.sun_path[0] = '\0';  // the abstract namespace
  const socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return osa_internal::combined_error(OS_ERROR_GENERAL, errno);
  const ssize_t sent =
      sendto(fd, state, strlen(state), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address), size);
  const int error = errno;
  close(fd);
  if (sent < 0) return osa_internal::combined_error(OS_ERROR_GENERAL, error);
  return OS_OK;
}

int osReportReady(long readyHandle, int ready) {
  int result = OS_OK;
  if (ready) {
    const char byte = 'R';
    ssize_t n;
    do {
      n = write(static_cast<int>(readyHandle), &byte, 1);
    } while (n < 0 && errno == EINTR);
    if (n != 1) result = osa_internal::combined_error(OS_ERROR_GENERAL, n < 0 ? errno : EIO);
  }
  close(static_cast<int>(readyHandle));
  return result;
}

namespace {

// Makes the standard stream `target` a copy of the open descriptor `null`.
int replace_standard_stream(int null, int target) {
  if (target == null) {
    // The stream was closed and open() handed out its number: dup2 onto
    // itself would leave it close-on-exec, so the flag is cleared instead.
    if (fcntl(null, F_SETFD, 0) == 0) return OS_OK;
    return osa_internal::combined_error(OS_ERROR_GENERAL, errno);
  }
  while (dup2(null, target) < 0) {
    if (errno != EINTR) return osa_internal::combined_error(OS_ERROR_GENERAL, errno);
  }
  return OS_OK;
}

}  // namespace

int osDetachStandardStreams() {
  // What the process printed before belongs to its starter: it is written
  // out while the streams still lead there.
  fflush(stdout);
  fflush(stderr);
  int null;
  do {
    null = open("/dev/null", O_RDWR | O_CLOEXEC);
  } while (null < 0 && errno == EINTR);
  if (null < 0) return osa_internal::combined_error(OS_ERROR_GENERAL, errno);
  int result = OS_OK;
  for (int target = STDIN_FILENO; target <= STDERR_FILENO && result == OS_OK; ++target) {
    result = replace_standard_stream(null, target);
  }
  // A number that became a standard stream stays open as that stream.
  if (null > STDERR_FILENO) close(null);
  return result;
}
