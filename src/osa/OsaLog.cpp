// The system log.
//
// Under a private root (KESTRIN_ROOT) the system log is the root's own
// "dev/log" socket, like every other fixed path: the lines go there as the C
// library would send them to /dev/log (facility daemon, the identity and
// the process id), and nowhere else, so that tests never write into the
// machine's system log. A missing socket drops the line silently, as
// syslog(3) does without a system logger.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

constexpr char SYSTEM_LOG_SOCKET[] = "/dev/log";

std::mutex g_lock;
std::string g_ident;  // as given to osOpenSyslog

// The private root's socket path, or false when there is no private root.
bool PrivateLogSocket(std::string* path) {
  char mapped[sizeof(sockaddr_un::sun_path)];
  if (osMapPath(SYSTEM_LOG_SOCKET, mapped, sizeof mapped) != OS_OK) return false;
  if (strcmp(mapped, SYSTEM_LOG_SOCKET) == 0) return false;
  *path = mapped;
  return true;
}

void SendToPrivateLog(const std::string& path, int priority, const char* text) {
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
  std::string ident;
  {
    std::lock_guard<std::mutex> guard(g_lock);
    ident = g_ident;
  }
  char line[2300];
  const int length = snprintf(line, sizeof line, "<%d>%s %s[%ld]: %s", LOG_DAEMON | priority,
                              stamp, ident.c_str(), static_cast<long>(getpid()), text);
  if (length <= 0) return;
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const size_t size = static_cast<size_t>(length) < sizeof line ? length : sizeof line - 1;
  sendto(fd, line, size, MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address), sizeof address);
  close(fd);
}

}  // namespace

void osOpenSyslog(const char* ident) {
  {
    std::lock_guard<std::mutex> guard(g_lock);
    g_ident = ident == nullptr ? "" : ident;
  }
  std::string path;
  if (!PrivateLogSocket(&path)) openlog(ident, LOG_CONS, LOG_DAEMON);
}

void osCloseSyslog(void) {
  std::string path;
  if (!PrivateLogSocket(&path)) closelog();
}

void osSyslog(int priority, const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->syslog != nullptr &&
      overrides->syslog(priority, text) != OSA_CALL_REAL) {
    return;
  }
  std::string path;
  if (PrivateLogSocket(&path)) {
    SendToPrivateLog(path, priority, text);
    return;
  }
  syslog(priority, "%s", text);
}
