// The server side of the framed TCP protocol.
//
// A ServerSocketManager owns one ListeningSocket and every FramedDataSocket
// it accepts. Select() waits on all of them with one select call, accepts
// new clients, reads their frames and reports everything to one User, which
// names each client by a SocketHandle, never by its socket. Optionally it
// limits the number of clients, keeps one client per IPv4 address, lets the
// User refuse peers by address and closes clients that stay silent too
// long; it gives up (User::TooManySocketErrors) when clients fail too often.
// Running out of descriptors refuses the new connection and is reported,
// never a failure.
//
// Threads: Select() runs on one thread, the server's select thread; Send(),
// GetAddressOfFarEnd(), Close(), the setters and GetNumberOfClients() may be
// called from any thread. The lock guards the two maps, the select array,
// the error records and the settings. No User callback is made while it is
// held. Clients are held through counted references, which are copied and
// dropped only under the lock; whoever uses a client outside the lock holds
// such a reference, so a client removed meanwhile by a callback is destroyed
// only when the last holder lets it go.
#ifndef KESTRIN_ZOR_SOCKETS_SERVER_SOCKET_MANAGER_H_
#define KESTRIN_ZOR_SOCKETS_SERVER_SOCKET_MANAGER_H_

#include <deque>
#include <map>
#include <vector>

#include "appfw/SmartPointerNTS.h"
#include "osa/osa.h"
#include "zor/CriticalSection.h"
#include "zor/NonCopyable.h"
#include "zor/sockets/FramedDataSocket.h"
#include "zor/sockets/ListeningSocket.h"

namespace Zor {
namespace Sockets {

// Names one accepted client for the life of the process: values come from
// one process-wide counter starting at 1, so a handle is never reused. The
// default value 0 names no client.
class SocketHandle {
 public:
  SocketHandle() : value_(0) {}
  explicit SocketHandle(unsigned int value) : value_(value) {}

  // The next value of the process-wide counter. Thread-safe.
  static SocketHandle Next();

  unsigned int Value() const { return value_; }
  bool operator<(const SocketHandle& other) const { return value_ < other.value_; }
  bool operator==(const SocketHandle& other) const { return value_ == other.value_; }
  bool operator!=(const SocketHandle& other) const { return value_ != other.value_; }

 private:
  unsigned int value_;
};

// One accepted client: its framed socket (whose user is the manager) and its
// handle.
struct DataSocketAndInfo : private NonCopyable {
  DataSocketAndInfo(FramedDataSocket::User* user, long socketId, const tOsTCPSocketAddress& farEnd,
                    SocketHandle clientHandle)
      : socket(user, socketId, farEnd), handle(clientHandle) {}

  FramedDataSocket socket;
  SocketHandle handle;
  // osGetClock milliseconds of the accept or of the last readable moment;
  // written under the manager's lock.
  unsigned long lastActivity = 0;
};

// Why a connection was closed right after it was accepted.
enum class ClientRefusal {
  NOT_ADMITTED,   // User::AdmitClient said no
  NO_DESCRIPTORS  // the process had no descriptor left for it
};

// One socket error: when it was recorded (osGetClock milliseconds) and how
// many sockets there were then, the failed one included.
struct ErrorRecord {
  unsigned long time;
  unsigned int sockets;
};

class ServerSocketManager : public ListeningSocket::User,
                            public FramedDataSocket::User,
                            private NonCopyable {
 public:
  class User {
   public:
    virtual ~User();
    // A client was accepted; the default does nothing.
    virtual void SocketAccepted(ServerSocketManager& manager, SocketHandle handle);
    // A client is gone: closed by its peer, failed, or replaced; the handle
    // is no longer valid. The default does nothing.
    virtual void SocketClosed(ServerSocketManager& manager, SocketHandle handle);
    // One complete message from a client (see FramedDataSocket::User).
    virtual void MessageReceived(ServerSocketManager& manager, SocketHandle handle, void* data,
                                 unsigned int size) = 0;
    // Select() failed for good and returns false.
    virtual void SelectError(ServerSocketManager& manager) = 0;
    // Accepting failed for good.
    virtual void AcceptError(ServerSocketManager& manager) = 0;
    // Clients failed too often: more than 3 errors per socket in 5 minutes.
    virtual void TooManySocketErrors(ServerSocketManager& manager) = 0;
    // Whether a peer at `farEnd` may become a client; asked for every
    // accepted connection before anything else. One refused is closed at
    // once, never read and never counted as a socket error. The default
    // admits everyone.
    virtual bool AdmitClient(ServerSocketManager& manager, const tOsTCPSocketAddress& farEnd);
    // A connection from `farEnd` was closed right after it was accepted.
    // The default does nothing.
    virtual void ClientRefused(ServerSocketManager& manager, const tOsTCPSocketAddress& farEnd,
                               ClientRefusal reason);
    // The client stayed silent for the idle time-out and has been closed;
    // SocketClosed follows for the same handle. The default does nothing.
    virtual void ClientIdle(ServerSocketManager& manager, SocketHandle handle);
  };

  // Nothing is opened yet: Init() does that. `user` may be null (no
  // callbacks) and must outlive the manager.
  ServerSocketManager(User* user, const tOsTCPSocketAddress& localAddress);
  ~ServerSocketManager() override;

  // Tries to listen up to retries + 1 times (ListeningSocket::Init), sleeping
  // secondsBetweenRetries before every attempt but the first. False when all
  // failed or a sleep failed.
  bool Init(unsigned int retries, unsigned long secondsBetweenRetries);

  // Waits, without time-out, until the listening socket or a client is
  // readable, then accepts and reads (at most 100 messages per client).
  // True after handling activity; false when there is no listening socket
  // (never initialised, or closed) and after User::SelectError. A Close()
  // from another thread wakes the wait; the call then returns true or
  // false without calling the User, and the next call returns false. An
  // impossible count from the select call ends the process with status 1.
  bool Select();

  // Sends a complete frame to the client (FramedDataSocket::Send); -1 for an
  // unknown handle.
  int Send(SocketHandle handle, const void* data, int length);

  // The client's far-end address; zeros for an unknown handle.
  tOsTCPSocketAddress GetAddressOfFarEnd(SocketHandle handle);

  // Passed to every client accepted afterwards (default false).
  void SetReceivedDataShouldIncludeHeader(bool include);
  // 0 (the default): no limit. A client beyond the limit is closed at once
  // and the User is not told.
  void SetMaximumNumberOfClients(unsigned int maximum);
  // When set (default: not), a new client replaces every other client at the
  // same IPv4 address.
  void SetCloseOtherSocketsAtSameIPAddress(bool closeOthers);
  // 0 (the default): clients may stay silent for ever. Otherwise a client
  // that has not been readable for this many milliseconds is closed
  // (User::ClientIdle, then User::SocketClosed); Select() then wakes at
  // least that often.
  void SetIdleTimeout(unsigned long milliseconds);

  // Closes the listening socket and every client and forgets them all,
  // without calling the User.
  void Close();

  unsigned int GetNumberOfClients();
  long GetListeningSocketID() const { return listeningSocket_.GetSocketID(); }

 private:
  typedef AppFw::SmartPointerNTS<DataSocketAndInfo> DataSocketPtr;

  // ListeningSocket::User
  void SocketAccepted(ListeningSocket& listener, long socketId,
                      const tOsTCPSocketAddress& farEnd) override;
  void AcceptError(ListeningSocket& listener) override;
  void AcceptRefused(ListeningSocket& listener, const tOsTCPSocketAddress& farEnd) override;
  // FramedDataSocket::User
  void MessageReceived(FramedDataSocket& socket, void* data, unsigned int size) override;
  void SocketError(FramedDataSocket& socket) override;
  void SocketClosed(FramedDataSocket& socket) override;
  void MessageFramingError(FramedDataSocket& socket) override;

  int InitSocketArraysForSelect(long* timeoutMs);
  void CloseIdleClients();
  bool HandleSelectError(int rc, int count, int arraySize, int& errors);
  void HandleReadActivity(int count);
  void receiveFrom(long socketId);
  bool IsClientLimitExceeded(long socketId);
  void CloseAnyOtherSocketAtSameIPAddress(const tOsTCPSocketAddress& farEnd);
  bool addClient(long socketId, const tOsTCPSocketAddress& farEnd, SocketHandle& handle,
                 SocketHandle& replaced);
  void handleSocketFailure(FramedDataSocket& socket);
  bool recordSocketError();

  // Under the lock: the entry of `socket`, or the end of socketsById_.
  std::map<long, DataSocketPtr>::iterator findLocked(FramedDataSocket& socket);
  // Under the lock: removes the entry of `socket` from both maps; false when
  // it is not there.
  bool removeLocked(FramedDataSocket& socket, SocketHandle& handle);
  // Under the lock: a counted reference to the client, nil if unknown.
  DataSocketPtr findLocked(SocketHandle handle);
  // Drops a counted reference under the lock.
  void release(DataSocketPtr& entry);

  User* user_;  // may be null
  ListeningSocket listeningSocket_;
  std::map<SocketHandle, DataSocketPtr> socketsByHandle_;
  std::map<long, DataSocketPtr> socketsById_;  // keyed by the identifier at accept time
  unsigned int maximumNumberOfClients_ = 0;    // 0: no limit
  bool closeOtherSocketsAtSameIPAddress_ = false;
  unsigned long idleTimeoutMs_ = 0;  // 0: none
  bool receivedDataShouldIncludeHeader_ = false;
  std::deque<ErrorRecord> errorRecords_;  // oldest first
  const unsigned long errorPeriodMs_ = 300000;
  const unsigned int errorFactor_ = 3;
  // Filled under the lock; the select call then rewrites it without the
  // lock, which is safe because only the select thread touches it.
  std::vector<long> selectArray_;
  GenericCriticalSection lock_;
};

}  // namespace Sockets
}  // namespace Zor

#endif  // KESTRIN_ZOR_SOCKETS_SERVER_SOCKET_MANAGER_H_
