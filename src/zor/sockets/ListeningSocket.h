// A non-blocking TCP listening socket that accepts every pending connection.
#ifndef KESTRIN_ZOR_SOCKETS_LISTENING_SOCKET_H_
#define KESTRIN_ZOR_SOCKETS_LISTENING_SOCKET_H_

#include <atomic>

#include "osa/osa.h"
#include "zor/NonCopyable.h"
#include "zor/sockets/ManagedOsaSocket.h"

namespace Zor {
namespace Sockets {

// Messages go to GetLogInterfaceHolder()'s logger with the "Zor Sockets: "
// prefix. Threads: Init() and Accept() run on the owner's thread (the
// server's select thread); Close() and GetSocketID() may be called from any.
class ListeningSocket : private NonCopyable {
 public:
  class User {
   public:
    virtual ~User();
    // A connection was accepted: the callee owns `socketId` (a blocking
    // socket) from now on.
    virtual void SocketAccepted(ListeningSocket& listener, long socketId,
                                const tOsTCPSocketAddress& farEnd) = 0;
    // Accepting failed; Accept() returns false after this call.
    virtual void AcceptError(ListeningSocket& listener) = 0;
    // The process had no descriptor left: a connection from `farEnd` (zeros
    // when even that could not be learnt) was refused. Accepting goes on.
    // The default does nothing.
    virtual void AcceptRefused(ListeningSocket& listener, const tOsTCPSocketAddress& farEnd);
  };

  // Nothing is opened yet: Init() does that. `user` must outlive the object.
  ListeningSocket(User& user, const tOsTCPSocketAddress& localAddress);

  // One attempt to listen: creates a stream TCP socket unless one is open,
  // makes it non-blocking and its address reusable, binds it and listens
  // with a backlog of 6. The first failing step logs "Error r trying to ..."
  // (level 1) and returns false, keeping the socket for the next attempt.
  // Once it has succeeded it returns true at once until Close().
  bool Init();

  // Accepts every pending connection, handing each to User::SocketAccepted.
  // True when none is left (OS_ERROR_WOULD_BLOCK); false after
  // User::AcceptError, on a failure or on the 20th OS_ERROR_RETRY in a row.
  // A connection aborted by its peer before it was accepted is skipped; one
  // refused for want of descriptors is reported (User::AcceptRefused) and
  // never ends the accepting.
  bool Accept();

  // Closes the socket; a later Init() starts again.
  void Close();

  long GetSocketID() const { return socket_.Get(); }
  bool IsOpen() const { return socket_.IsOpen(); }
  const tOsTCPSocketAddress& GetLocalAddress() const { return localAddress_; }

 private:
  bool prepare();

  User& user_;
  ManagedOsaSocket socket_;  // -1 until Init() creates it
  tOsTCPSocketAddress localAddress_;
  // Init() succeeded and Close() has not been called since. Atomic: Close()
  // may come from another thread.
  std::atomic<bool> initialized_{false};
};

}  // namespace Sockets
}  // namespace Zor

#endif  // KESTRIN_ZOR_SOCKETS_LISTENING_SOCKET_H_
