// Whole messages over one TCP connection.
//
// Each message travels as a FrameHeader (4 bytes) followed by its body. A
// FramedDataSocket either connects to a server (client construction) or
// wraps a socket that a server accepted (server construction). Send()
// writes a caller-built frame in full, waiting for writability when the
// socket is non-blocking; Receive() reads what is available, reassembles
// frames from partial reads and hands each complete one to the User.
//
// Every event is reported through GetLogInterfaceHolder()'s logger, each
// text beginning with "Zor Sockets: ", at the client severity levels (1
// error, 2 warning, 4 information, 8 debug).
//
// Threads: any number of threads may Send(); sends are serialised by the
// send lock and the User hears of a send's failure only after the lock is
// released, so a callback may send again or close. Receive() takes no lock
// and is called by one reading thread; its callbacks run on that thread.
// Close() may be called from any thread.
#ifndef KESTRIN_ZOR_SOCKETS_FRAMED_DATA_SOCKET_H_
#define KESTRIN_ZOR_SOCKETS_FRAMED_DATA_SOCKET_H_

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "osa/osa.h"
#include "zor/CriticalSection.h"
#include "zor/NonCopyable.h"
#include "zor/sockets/FrameHeader.h"
#include "zor/sockets/ManagedOsaSocket.h"

namespace Zor {
namespace Sockets {

class FramedDataSocket : private NonCopyable {
 public:
  // Receives the socket's events. Callbacks must not destroy the socket.
  class User {
   public:
    virtual ~User();
    // One complete message: the body, or the whole frame when
    // SetReceivedDataShouldIncludeHeader(true) was called. `data` points
    // into the socket's receive buffer and is valid only during the call;
    // the callee may change the bytes in place.
    virtual void MessageReceived(FramedDataSocket& socket, void* data, unsigned int size) = 0;
    // A send or receive failed in a way that is not a closed connection.
    virtual void SocketError(FramedDataSocket& socket) = 0;
    // The connection was closed by the peer (or found gone).
    virtual void SocketClosed(FramedDataSocket& socket) = 0;
    // A received header was invalid; Receive() refuses every later call.
    virtual void MessageFramingError(FramedDataSocket& socket) = 0;
  };

  // The largest frame: header plus the largest body. The receive buffer
  // never grows beyond it.
  static constexpr unsigned int MAX_FRAME_SIZE =
      FrameHeader::HEADER_SIZE + FrameHeader::MAX_MESSAGE_SIZE;

  // Client side: creates a stream TCP socket, then applies non-blocking
  // mode, the receive buffer size and the send buffer size (0: the
  // platform's default), stopping at the first that fails (which closes the
  // socket; Connect() makes a new one). `user` may be null: no callbacks.
  FramedDataSocket(User* user, bool nonBlocking, long receiveBufferSize, long sendBufferSize);

  // Server side: takes ownership of the accepted `socketId`, whose peer is
  // at `farEnd`. Applies no options.
  FramedDataSocket(User* user, long socketId, const tOsTCPSocketAddress& farEnd);

  ~FramedDataSocket();

  // Stores `address` and tries to connect up to retries + 1 times, sleeping
  // secondsBetweenRetries before every attempt but the first. An attempt
  // without an open socket first creates one, resets the framing state and
  // applies the stored options. A socket whose connect failed is kept and
  // used again by the next attempt. False when every attempt failed or a
  // sleep failed ("In Connect(): osSleep returned r; abandoning retries").
  // On a non-blocking socket the platform only starts the handshake and
  // reports OS_ERROR_IN_PROGRESS (308), a failed attempt: connect in
  // blocking mode and switch with SetSocketIsNonBlocking() afterwards.
  bool Connect(const tOsTCPSocketAddress& address, unsigned int retries,
               unsigned long secondsBetweenRetries);

  // Sends `length` bytes at `data`, a complete frame whose header the caller
  // wrote with FrameHeader::WriteMessageHeader. Returns `length` once all of
  // it has gone, 0 for length 0 (the socket is not touched), or -1: invalid
  // arguments, a closed socket, a peer gone (User::SocketClosed), too many
  // OS_ERROR_RETRYs or another failure (User::SocketError), or a socket that
  // stayed unwritable for 20 seconds (no callback).
  int Send(const void* data, int length);

  // Reads what is available and delivers complete messages, at most
  // `maxMessages` of them (0: no limit); `*delivered` (may be null) gets the
  // count. On a blocking socket it returns only on failure or closure. False
  // when the socket is not open or has seen a framing error (logged, no
  // callback), when the peer closed (User::SocketClosed) or on a receive
  // failure (User::SocketError), and when the last data handled held an
  // invalid header (User::MessageFramingError). A call that meets an invalid
  // header still reads the body it announced, and delivers it should it
  // complete in that call; every later call is refused.
  bool Receive(unsigned int maxMessages = 0, unsigned int* delivered = nullptr);

  // Whether MessageReceived gets the whole frame (true) or the body.
  void SetReceivedDataShouldIncludeHeader(bool include) {
    receivedDataShouldIncludeHeader_ = include;
  }

  // Option setters: each stores the value (applied again to every socket
  // that Connect() creates) and applies it to the open socket. A size of 0
  // or no open socket succeeds without a call; a negative size fails
  // silently. A failing platform call closes the socket, logs "Error r
  // trying to set ... to value on socket id" (level 1) and returns false.
  bool SetSocketIsNonBlocking(bool nonBlocking);
  bool SetReceiveBufferSize(long size);
  bool SetSendBufferSize(long size);

  // Closes the socket (if open) and clears the framing state; the next
  // Connect() starts afresh. A Receive() blocked on another thread is woken
  // and ends as for a connection closed by the peer (User::SocketClosed); a
  // platform call under way keeps the descriptor until it returns
  // (ManagedOsaSocket).
  void Close();

  // Gives up the socket without closing it and returns its identifier (-1
  // when none): for an identifier that now belongs to another object.
  long ReleaseSocketID() { return socket_.Release(); }

  long GetSocketID() const { return socket_.Get(); }
  bool IsOpen() const { return socket_.IsOpen(); }
  const tOsTCPSocketAddress& GetAddressOfFarEnd() const { return farEnd_; }

  // Bytes currently allocated for reassembling frames (for tests and
  // diagnostics); at most MAX_FRAME_SIZE.
  unsigned int GetReceiveBufferCapacity() const { return receiveBufferCapacity_; }

 private:
  // What a send loop found that the User must hear of after the lock.
  struct SendOutcome {
    bool error = false;
    bool closed = false;
  };

  // Result of one osTCPSend.
  struct SendStep {
    int count;                // bytes sent, or -1
    bool retry = false;       // OS_ERROR_RETRY: send again at once
    bool wouldBlock = false;  // wait for writability, then send the rest
  };

  bool connectOnce(const tOsTCPSocketAddress& address);
  bool prepareNewSocket();
  void resetFraming();
  bool applyOption(const char* what, const std::string& value,
                   const std::function<int(long)>& call);
  bool optionApplied(int rc, long socketId, const char* what, const std::string& value);
  void notifyError();
  void notifyClosed();

  int sendLoop(const unsigned char* data, int length, SendOutcome& outcome);
  SendStep sendOnce(const unsigned char* data, int length, SendOutcome& outcome);
  bool waitTillReadyToWrite(unsigned long limitMs, bool& errorOccurred);
  bool HandleSelectError(int rc, int& selectErrors);

  // The state of one Receive() call.
  struct ReceiveState {
    bool result = true;  // that of the last read handled
    unsigned int messages = 0;
    int consecutiveRetries = 0;  // OS_ERROR_RETRYs in a row
  };

  bool readOnce(ReceiveState& state);
  bool handleFailedRecv(int rc, long id, ReceiveState& state);
  bool closedByNearEnd(ReceiveState& state);
  bool HandleSuccessfulRecv(unsigned int count, unsigned int expected, unsigned int& messages);
  bool handleHeader(unsigned int expected);
  void deliverFrame(unsigned int frameSize);
  void ensureReceiveBuffer(unsigned int size);

  User* user_;  // may be null
  ManagedOsaSocket socket_;
  tOsTCPSocketAddress farEnd_;
  bool receivedDataShouldIncludeHeader_ = false;
  // Options applied to every socket that Connect() creates.
  bool socketIsNonBlocking_ = false;
  long receiveBufferSize_ = 0;
  long sendBufferSize_ = 0;
  // Set by a framing error; from then on Receive() refuses to read. Cleared
  // only when Connect() makes a new socket.
  bool invalidDataReceived_ = false;
  // Framing state of the reading thread. The two atomics are also cleared by
  // Close(), which any thread may call.
  std::atomic<bool> expectingHeader_{true};
  std::atomic<unsigned int> bytesExpected_{FrameHeader::HEADER_SIZE};  // header, or header + body
  unsigned int bytesReceived_ = 0;
  // The frame being assembled, header first; receiveBufferCapacity_ bytes.
  std::unique_ptr<unsigned char[]> receiveBuffer_;
  unsigned int receiveBufferCapacity_ = 0;
  GenericCriticalSection sendLock_;  // serialises the send loops
};

}  // namespace Sockets
}  // namespace Zor

#endif  // KESTRIN_ZOR_SOCKETS_FRAMED_DATA_SOCKET_H_
