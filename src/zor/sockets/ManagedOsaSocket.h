// One platform socket, owned: closed when the object goes.
#ifndef KESTRIN_ZOR_SOCKETS_MANAGED_OSA_SOCKET_H_
#define KESTRIN_ZOR_SOCKETS_MANAGED_OSA_SOCKET_H_

#include <atomic>
#include <vector>

#include "zor/CriticalSection.h"
#include "zor/NonCopyable.h"

namespace Zor {
namespace Sockets {

// Owns one socket identifier of the platform layer, -1 when there is none.
//
// Threads: any thread may call every operation. Init(), Close() and
// Release() run under the object's own lock, so that a close from one
// thread and a close from another do not both reach the platform. A
// platform call on the socket is made through a ScopedUse: a Close() while
// such calls are under way clears the identifier at once but leaves the
// descriptor open until the last of them ends, so that a descriptor is
// never released, and its number handed to a new socket, under a call that
// is still using it.
class ManagedOsaSocket : private NonCopyable {
 public:
  // Keeps the socket's descriptor open for one platform call.
  class ScopedUse : private NonCopyable {
   public:
    explicit ScopedUse(ManagedOsaSocket& socket);
    ~ScopedUse();
    // The identifier to call with; -1 when the socket was not open.
    long Id() const { return id_; }

   private:
    ManagedOsaSocket& socket_;
    long id_;
  };

  // Creates a socket of `type` and `protocol` (OS_SOCK_*, OS_IPPROTO_*) with
  // Init(); on failure the object holds none.
  ManagedOsaSocket(int type, int protocol);

  // Takes ownership of `socketId`, already open (-1: none).
  explicit ManagedOsaSocket(long socketId);

  // Closes an open socket. No ScopedUse may be alive.
  ~ManagedOsaSocket();

  // When no socket is open, creates one with osTCPSocket: logs "Error r
  // trying to create a socket" (level 1) on failure, "Socket id created"
  // (level 8) on success. Returns IsOpen().
  bool Init(int type, int protocol);

  // Clears the identifier to -1, shuts the socket down (which wakes a
  // platform call blocked on it in another thread), then closes it once the
  // platform calls under way have ended; a failing close logs "Error r
  // trying to close socket id" (level 2). Does nothing when no socket is
  // open.
  void Close();

  // Gives up ownership without closing: the identifier becomes -1 and is
  // returned. For an identifier that now belongs to someone else.
  long Release();

  long Get() const { return socket_.load(std::memory_order_acquire); }
  bool IsOpen() const { return Get() != -1; }

 private:
  void closeLocked(long socketId);

  // Atomic because IsOpen() and Get() read it without the lock.
  std::atomic<long> socket_;
  unsigned int users_ = 0;      // ScopedUses alive; under lock_
  std::vector<long> deferred_;  // closed while in use, closed by the last user; under lock_
  GenericCriticalSection lock_;
};

}  // namespace Sockets
}  // namespace Zor

#endif  // KESTRIN_ZOR_SOCKETS_MANAGED_OSA_SOCKET_H_
