#include "zor/sockets/ManagedOsaSocket.h"

#include <string>

#include "osa/osa.h"
#include "zor/Scoped.h"
#include "zor/sockets/SocketReport.h"

namespace Zor {
namespace Sockets {

ManagedOsaSocket::ScopedUse::ScopedUse(ManagedOsaSocket& socket) : socket_(socket), id_(-1) {
  ScopedCriticalSectionLock lock(socket_.lock_);
  id_ = socket_.Get();
  if (id_ != -1) ++socket_.users_;
}

ManagedOsaSocket::ScopedUse::~ScopedUse() {
  if (id_ == -1) return;
  ScopedCriticalSectionLock lock(socket_.lock_);
  if (--socket_.users_ != 0) return;
  for (long deferred : socket_.deferred_) socket_.closeLocked(deferred);
  socket_.deferred_.clear();
}

ManagedOsaSocket::ManagedOsaSocket(int type, int protocol) : socket_(-1) { Init(type, protocol); }

ManagedOsaSocket::ManagedOsaSocket(long socketId) : socket_(socketId) {}

ManagedOsaSocket::~ManagedOsaSocket() { Close(); }

bool ManagedOsaSocket::Init(int type, int protocol) {
  ScopedCriticalSectionLock lock(lock_);
  if (Get() != -1) return true;
  long created = -1;
  int rc = osTCPSocket(type, protocol, &created);
  if (rc != OS_OK) {
    report_socket_event(SOCKET_LOG_ERROR,
                        "Error " + std::to_string(rc) + " trying to create a socket");
    return false;
  }
  socket_.store(created, std::memory_order_release);
  report_socket_event(SOCKET_LOG_DEBUG, "Socket " + std::to_string(created) + " created");
  return true;
}

void ManagedOsaSocket::Close() {
  ScopedCriticalSectionLock lock(lock_);
  // The identifier is cleared before the platform call, so that no other
  // thread picks it up while (or after) the descriptor is released.
  long closing = socket_.exchange(-1, std::memory_order_acq_rel);
  if (closing == -1) return;
  // On Linux a close does not wake a thread blocked on the descriptor (a
  // receive, or a select on a listening socket); a shutdown does, and the
  // woken call then finds the connection closed. Its result is of no
  // interest: a socket that never connected reports that it is not.
  osTCPShutdown(closing);
  if (users_ > 0) {
    deferred_.push_back(closing);
    return;
  }
  closeLocked(closing);
}

long ManagedOsaSocket::Release() {
  ScopedCriticalSectionLock lock(lock_);
  return socket_.exchange(-1, std::memory_order_acq_rel);
}

void ManagedOsaSocket::closeLocked(long socketId) {
  int rc = osTCPClose(socketId);
  if (rc != OS_OK) {
    report_socket_event(
        SOCKET_LOG_WARNING,
        "Error " + std::to_string(rc) + " trying to close socket " + std::to_string(socketId));
  }
}

}  // namespace Sockets
}  // namespace Zor
