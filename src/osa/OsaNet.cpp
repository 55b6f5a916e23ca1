// TCP sockets: creation, options, connecting, accepting, sending and
// receiving. A socket is its file descriptor, held in a long.
//
// Every descriptor is opened close-on-exec, and every send passes
// MSG_NOSIGNAL so that a peer that has gone shows up as a result code rather
// than a SIGPIPE that would end the daemon.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

bool valid_socket(long socket) { return socket >= 0 && socket <= INT_MAX; }

int socket_error(int error) { return osa_internal::socket_error_from_errno(error); }

struct sockaddr_in to_sockaddr(const tOsTCPSocketAddress& address) {
  struct sockaddr_in raw;
  memset(&raw, 0, sizeof raw);
  raw.sin_family = AF_INET;
  raw.sin_addr.s_addr = htonl(address.ipAddress);
  raw.sin_port = htons(address.port);
  return raw;
}

tOsTCPSocketAddress from_sockaddr(const struct sockaddr_in& raw) {
  tOsTCPSocketAddress address;
  address.ipAddress = ntohl(raw.sin_addr.s_addr);
  address.port = ntohs(raw.sin_port);
  return address;
}

int set_int_option(long socket, int level, int option, int value) {
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  if (setsockopt(static_cast<int>(socket), level, option, &value, sizeof value) != 0) {
    return socket_error(errno);
  }
  return OS_OK;
}

int set_buffer_size(long socket, int option, long size) {
  if (size < 0 || size > INT_MAX) return OS_ERROR_INVALID_PARAMETER;
  return set_int_option(socket, SOL_SOCKET, option, static_cast<int>(size));
}

// One descriptor held in reserve by every process that listens. When the
// process has run out of descriptors, a pending connection would keep the
// listening socket readable for ever: the reserve is given up for a moment
// so that the connection can be accepted and closed at once (refused), and
// taken again. -1 while not held. Guarded by g_reserveLock.
pthread_mutex_t g_reserveLock = PTHREAD_MUTEX_INITIALIZER;
int g_reserve = -1;

void reserve_descriptor() {
  pthread_mutex_lock(&g_reserveLock);
  if (g_reserve < 0) g_reserve = open("/dev/null", O_RDONLY | O_CLOEXEC);
  pthread_mutex_unlock(&g_reserveLock);
}

// Accepts and closes one pending connection on `listener` with the reserve's
// help. The result of that accept: OS_OK (refused, `raw` names the peer),
// OS_ERROR_WOULD_BLOCK (nothing was pending: the kernel reports a lack of
// descriptors before it looks at the queue), OS_ERROR_NO_DESCRIPTORS when
// there was no reserve, or another socket error.
int refuse_with_reserve(int listener, struct sockaddr_in* raw) {
  pthread_mutex_lock(&g_reserveLock);
  int result = OS_ERROR_NO_DESCRIPTORS;
  if (g_reserve >= 0) {
    close(g_reserve);
    socklen_t length = sizeof *raw;
    int fd = accept4(listener, reinterpret_cast<struct sockaddr*>(raw), &length, SOCK_CLOEXEC);
    result = fd >= 0 ? OS_OK : socket_error(errno);
    if (fd >= 0) close(fd);
    g_reserve = open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
  pthread_mutex_unlock(&g_reserveLock);
  return result;
}

}  // namespace

int osTCPSocket(int type, int protocol, long* socketId) {
  if (socketId == nullptr) return OS_ERROR_INVALID_PARAMETER;
  int kind;
  switch (type) {
    case OS_SOCK_STREAM:
      kind = SOCK_STREAM;
      break;
    case OS_SOCK_DGRAM:
      kind = SOCK_DGRAM;
      break;
    default:
      return OS_ERROR_INVALID_PARAMETER;
  }
  if (protocol != 0 && protocol != OS_IPPROTO_TCP && protocol != OS_IPPROTO_UDP) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  int fd = socket(AF_INET, kind | SOCK_CLOEXEC, protocol);
  if (fd < 0) return socket_error(errno);
  *socketId = fd;
  return OS_OK;
}

int osTCPClose(long socket) {
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  // On Linux the descriptor is gone even when close reports EINTR: calling it
  // again could close a descriptor another thread has just opened.
  if (close(static_cast<int>(socket)) != 0 && errno != EINTR) return socket_error(errno);
  return OS_OK;
}

int osTCPShutdown(long socket) {
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  if (shutdown(static_cast<int>(socket), SHUT_RDWR) != 0) return socket_error(errno);
  return OS_OK;
}

int osTCPConnect(long socket, const tOsTCPSocketAddress* address) {
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->tcpConnect != nullptr) {
    int rc = overrides->tcpConnect(socket, address);
    if (rc != OSA_CALL_REAL) return rc;
  }
  if (address == nullptr) return OS_ERROR_INVALID_PARAMETER;
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  struct sockaddr_in raw = to_sockaddr(*address);
  // An interrupted connect goes on in the background and cannot simply be
  // repeated: EINTR comes back as OS_ERROR_RETRY.
  if (connect(static_cast<int>(socket), reinterpret_cast<struct sockaddr*>(&raw), sizeof raw) !=
      0) {
    return socket_error(errno);
  }
  return OS_OK;
}

int osTCPBind(long socket, const tOsTCPSocketAddress* address) {
  if (address == nullptr) return OS_ERROR_INVALID_PARAMETER;
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  struct sockaddr_in raw = to_sockaddr(*address);
  if (bind(static_cast<int>(socket), reinterpret_cast<struct sockaddr*>(&raw), sizeof raw) != 0) {
    return socket_error(errno);
  }
  return OS_OK;
}

int osTCPListen(long socket, int backlog) {
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  if (listen(static_cast<int>(socket), backlog) != 0) return socket_error(errno);
  reserve_descriptor();
  return OS_OK;
}

int osTCPAccept(long socket, long* newSocket, tOsTCPSocketAddress* farEnd) {
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->tcpAccept != nullptr) {
    int rc = overrides->tcpAccept(socket, newSocket, farEnd);
    if (rc != OSA_CALL_REAL) return rc;
  }
  if (newSocket == nullptr) return OS_ERROR_INVALID_PARAMETER;
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  struct sockaddr_in raw;
  socklen_t length = sizeof raw;
  int fd = accept4(static_cast<int>(socket), reinterpret_cast<struct sockaddr*>(&raw), &length,
                   SOCK_CLOEXEC);
  if (fd < 0 && (errno == EMFILE || errno == ENFILE)) {
    const int refused = refuse_with_reserve(static_cast<int>(socket), &raw);
    if (refused != OS_OK && refused != OS_ERROR_NO_DESCRIPTORS) return refused;
    if (farEnd != nullptr) {
      *farEnd = refused == OS_OK ? from_sockaddr(raw) : tOsTCPSocketAddress{0, 0};
    }
    return OS_ERROR_NO_DESCRIPTORS;
  }
  if (fd < 0) return socket_error(errno);
  *newSocket = fd;
  if (farEnd != nullptr) *farEnd = from_sockaddr(raw);
  return OS_OK;
}

int osTCPSend(long socket, const void* data, int length, int flags, int* count) {
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->tcpSend != nullptr) {
    int rc = overrides->tcpSend(socket, data, length, flags, count);
    if (rc != OSA_CALL_REAL) return rc;
  }
  if (count == nullptr || length < 0 || (data == nullptr && length > 0)) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  *count = 0;
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  ssize_t sent =
      send(static_cast<int>(socket), data, static_cast<size_t>(length), flags | MSG_NOSIGNAL);
  if (sent < 0) return socket_error(errno);
  *count = static_cast<int>(sent);
  return OS_OK;
}

int osTCPRecv(long socket, void* buffer, int length, int flags, int* count) {
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->tcpRecv != nullptr) {
    int rc = overrides->tcpRecv(socket, buffer, length, flags, count);
    if (rc != OSA_CALL_REAL) return rc;
  }
  if (count == nullptr || length < 0 || (buffer == nullptr && length > 0)) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  *count = 0;
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  ssize_t received = recv(static_cast<int>(socket), buffer, static_cast<size_t>(length), flags);
  if (received < 0) return socket_error(errno);
  *count = static_cast<int>(received);
  return OS_OK;
}

int osTCPSetNonBlocking(long socket, int nonBlocking) {
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  int fd = static_cast<int>(socket);
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0) return socket_error(errno);
  flags = nonBlocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (fcntl(fd, F_SETFL, flags) != 0) return socket_error(errno);
  return OS_OK;
}

int osTCPSetReuseAddr(long socket, int reuse) {
  return set_int_option(socket, SOL_SOCKET, SO_REUSEADDR, reuse ? 1 : 0);
}

int osTCPSetRcvBuf(long socket, long size) { return set_buffer_size(socket, SO_RCVBUF, size); }

int osTCPSetSndBuf(long socket, long size) { return set_buffer_size(socket, SO_SNDBUF, size); }

int osTCPGetLocalAddress(long socket, tOsTCPSocketAddress* address) {
  if (address == nullptr) return OS_ERROR_INVALID_PARAMETER;
  if (!valid_socket(socket)) return OS_ERROR_BAD_SOCKET;
  struct sockaddr_in raw;
  socklen_t length = sizeof raw;
  if (getsockname(static_cast<int>(socket), reinterpret_cast<struct sockaddr*>(&raw), &length) !=
      0) {
    return socket_error(errno);
  }
  if (raw.sin_family != AF_INET) return OS_ERROR_SOCKET;
  *address = from_sockaddr(raw);
  return OS_OK;
}
