// Waiting for sockets: osTCPSelect and osTCPSelectWrite, built on poll() so
// that descriptors above FD_SETSIZE work too.
#include <errno.h>
#include <limits.h>
#include <poll.h>

#include <vector>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

int poll_timeout(long timeoutMs) {
  if (timeoutMs < 0) return -1;
  return timeoutMs > INT_MAX ? INT_MAX : static_cast<int>(timeoutMs);
}

// Waits for `wanted` events on the sockets and rewrites the array as osa.h
// describes. Entries below zero are skipped. An error or hang-up counts as
// ready: the following recv or send reports what happened.
int wait_for_sockets(long* sockets, int* count, long timeoutMs, short wanted) {
  if (sockets == nullptr || count == nullptr || *count < 0) return OS_ERROR_INVALID_PARAMETER;
  // Nothing to wait for and no time-out would block for ever.
  if (*count == 0 && timeoutMs < 0) return OS_ERROR_INVALID_PARAMETER;
  std::vector<struct pollfd> polled(static_cast<size_t>(*count));
  for (int i = 0; i < *count; ++i) {
    if (sockets[i] > INT_MAX) return OS_ERROR_BAD_SOCKET;
    polled[i].fd = sockets[i] < 0 ? -1 : static_cast<int>(sockets[i]);
    polled[i].events = wanted;
    polled[i].revents = 0;
  }
  int ready = poll(polled.data(), polled.size(), poll_timeout(timeoutMs));
  if (ready < 0) return osa_internal::socket_error_from_errno(errno, true);
  if (ready == 0) return OS_ERROR_TIMEOUT;
  const short readyEvents = static_cast<short>(wanted | POLLERR | POLLHUP);
  // select() refuses a set holding a closed descriptor; so does this.
  for (const struct pollfd& entry : polled) {
    if (entry.revents & POLLNVAL) return OS_ERROR_BAD_SOCKET;
  }
  int found = 0;
  for (const struct pollfd& entry : polled) {
    if (entry.revents & readyEvents) sockets[found++] = entry.fd;
  }
  for (int i = found; i < *count; ++i) sockets[i] = -1;
  *count = found;
  return OS_OK;
}

}  // namespace

int osTCPSelect(long* sockets, int* count, long timeoutMs) {
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->tcpSelect != nullptr) {
    int rc = overrides->tcpSelect(sockets, count, timeoutMs);
    if (rc != OSA_CALL_REAL) return rc;
  }
  return wait_for_sockets(sockets, count, timeoutMs, POLLIN);
}

int osTCPSelectWrite(long* sockets, int* count, long timeoutMs) {
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->tcpSelectWrite != nullptr) {
    int rc = overrides->tcpSelectWrite(sockets, count, timeoutMs);
    if (rc != OSA_CALL_REAL) return rc;
  }
  return wait_for_sockets(sockets, count, timeoutMs, POLLOUT);
}
