// Test helpers for the socket classes: a thread-safe recording logger, a
// recording FramedDataSocket::User, scripted results for the platform's send
// and receive calls, and raw loopback sockets on 127.0.0.1 to talk to the
// classes under test. Not part of the library.
#ifndef KESTRIN_ZOR_SOCKETS_SOCKET_TEST_SUPPORT_H_
#define KESTRIN_ZOR_SOCKETS_SOCKET_TEST_SUPPORT_H_

#include <stdint.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "osa/osa.h"
#include "zor/LogInterface.h"
#include "zor/sockets/FramedDataSocket.h"
#include "zor/sockets/ServerSocketManager.h"

namespace socket_test {

// ---- Logging ----------------------------------------------------------------

struct LogEntry {
  unsigned short level;
  std::string text;
  bool operator==(const LogEntry& other) const {
    return level == other.level && text == other.text;
  }
};

// Prints as `level "text"` in test failures.
void PrintTo(const LogEntry& entry, std::ostream* out);

// Keeps every message; any thread may log.
class SocketLogRecorder : public Zor::LogInterface {
 public:
  std::vector<LogEntry> Entries() const;
  std::vector<std::string> Texts() const;
  // Number of messages equal to `text` (any level).
  size_t Count(const std::string& text) const;
  // Whether `text` was logged at `level`.
  bool Has(unsigned short level, const std::string& text) const;
  void Clear();

 protected:
  void DoLogging(const char* text, unsigned short level, unsigned long code,
                 unsigned char kind) override;

 private:
  mutable std::mutex mutex_;
  std::vector<LogEntry> entries_;
};

// Installs a SocketLogRecorder as the socket library's logger for the life
// of the object; the null logger comes back afterwards.
class ScopedSocketLog {
 public:
  ScopedSocketLog();
  ~ScopedSocketLog();
  SocketLogRecorder& operator*() { return recorder_; }
  SocketLogRecorder* operator->() { return &recorder_; }

 private:
  SocketLogRecorder recorder_;
};

// "Zor Sockets: " + text at `level`.
LogEntry zs(unsigned short level, const std::string& text);

// ---- Platform overrides -----------------------------------------------------

// Installs `table` for the life of the object (the table is copied).
class ScopedOverrides {
 public:
  explicit ScopedOverrides(const tOsaOverrides& table);
  ~ScopedOverrides();

 private:
  tOsaOverrides table_;
};

// One scripted result of osTCPRecv or osTCPSend on the scripted socket.
struct Step {
  enum Kind { DATA, CODE, CLOSED, REAL } kind;
  int code;           // CODE: the result to return
  std::string bytes;  // DATA (receive): bytes to hand out, at most as many as asked
  int limit;          // DATA (send): the most bytes the fake send accepts (captured)
  int extraCount;     // DATA (receive): added to the count reported (a lying platform)
};
Step data_step(const std::string& bytes);  // receive: hand out these bytes
Step accept_step(int limit);               // send: accept at most `limit` bytes
Step code_step(int code);                  // either: return `code`
Step closed_step();                        // receive: OS_OK with 0 bytes
Step real_step();                          // either: let the real call run

// Scripts osTCPRecv / osTCPSend of one socket; every other socket gets the
// real call. When a script runs out: receive gives OS_ERROR_WOULD_BLOCK,
// send runs the real call. Installs the overrides for the life of the object
// (only one Scripted* object may exist at a time). Thread-safe.
class ScriptedSocketCalls {
 public:
  explicit ScriptedSocketCalls(long socketId);
  ~ScriptedSocketCalls();

  void SetSocket(long socketId);
  void AddRecv(const Step& step);
  void AddRecvBytes(const std::string& bytes, size_t chunk);  // DATA steps of `chunk` bytes
  void AddSend(const Step& step);
  // Lets the tcpSelectWrite, sleep and clock members through to `extra`.
  void SetExtra(const tOsaOverrides& extra);

  int RecvCalls() const;
  std::vector<int> RecvLengths() const;  // lengths asked for, in order
  int SendCalls() const;
  std::string SentBytes() const;  // bytes captured by accept_step

 private:
  ScopedOverrides* overrides_;
};

// ---- Loopback sockets -------------------------------------------------------

tOsTCPSocketAddress loopback(uint16_t port);

// A raw, blocking listening socket on 127.0.0.1 with a port the kernel picks.
class RawListener {
 public:
  RawListener();
  ~RawListener();
  RawListener(const RawListener&) = delete;
  RawListener& operator=(const RawListener&) = delete;

  uint16_t Port() const { return port_; }
  tOsTCPSocketAddress Address() const { return loopback(port_); }
  // Waits up to 5 seconds for a connection; -1 when none came.
  long Accept();
  void Close();

 private:
  long id_ = -1;
  uint16_t port_ = 0;
};

// A port on 127.0.0.1 on which nobody listens (bound, then released).
uint16_t unused_port();

// A raw blocking client socket connected to 127.0.0.1:port; -1 on failure.
long raw_connect(uint16_t port);
void raw_close(long socketId);
bool send_all(long socketId, const std::string& bytes);
// Waits up to `timeoutMs` for `size` bytes; returns what arrived.
std::string receive_bytes(long socketId, size_t size, long timeoutMs = 5000);
// Waits up to `timeoutMs` for the peer to close; true when it did.
bool wait_for_close(long socketId, long timeoutMs = 5000);
// Waits until `size` bytes can be read from `socketId` without taking them.
bool wait_for_bytes(long socketId, size_t size, long timeoutMs = 5000);
bool wait_readable(long socketId, long timeoutMs);

// A frame: header announcing body.size() bytes, then the body.
std::string frame(const std::string& body);
// A header with any marker, version and size.
std::string raw_header(char marker, unsigned char version, unsigned int size);
// `count` bytes of a pattern that depends on `seed`.
std::string pattern(size_t count, unsigned int seed);

// ---- A recording FramedDataSocket::User ------------------------------------

// Records every callback as an event: "message:" + bytes, "error", "closed",
// "framing". Hooks, when set, run after the event is recorded.
class RecordingSocketUser : public Zor::Sockets::FramedDataSocket::User {
 public:
  void MessageReceived(Zor::Sockets::FramedDataSocket& socket, void* data,
                       unsigned int size) override;
  void SocketError(Zor::Sockets::FramedDataSocket& socket) override;
  void SocketClosed(Zor::Sockets::FramedDataSocket& socket) override;
  void MessageFramingError(Zor::Sockets::FramedDataSocket& socket) override;

  std::vector<std::string> Events() const;
  std::vector<std::string> Messages() const;  // bytes of each message, in order
  int Count(const std::string& event) const;
  void Clear();

  std::function<void(Zor::Sockets::FramedDataSocket&)> onError;
  std::function<void(Zor::Sockets::FramedDataSocket&)> onClosed;
  std::function<void(Zor::Sockets::FramedDataSocket&, const std::string&)> onMessage;

 private:
  void record(const std::string& event);
  mutable std::mutex mutex_;
  std::vector<std::string> events_;
};

// A client FramedDataSocket connected to a raw peer accepted on loopback.
class ConnectedClient {
 public:
  explicit ConnectedClient(bool nonBlocking = true, long receiveBufferSize = 0,
                           long sendBufferSize = 0);
  ~ConnectedClient();

  Zor::Sockets::FramedDataSocket& Socket() { return *socket_; }
  RecordingSocketUser& User() { return user_; }
  long Peer() const { return peer_; }
  long Id() const { return socket_->GetSocketID(); }
  bool Ok() const { return peer_ != -1 && socket_->IsOpen(); }
  // Calls Receive() until `messages` messages were delivered, up to 5 s.
  bool ReceiveMessages(size_t messages);

 private:
  RawListener listener_;
  RecordingSocketUser user_;
  std::unique_ptr<Zor::Sockets::FramedDataSocket> socket_;
  long peer_ = -1;
};

// ---- A recording ServerSocketManager::User -----------------------------------

// Records every callback as an event: "accepted:H", "closed:H",
// "message:H:" + bytes, "select-error", "accept-error", "too-many" (H the
// handle's value). Hooks, when set, run after the event is recorded.
class RecordingManagerUser : public Zor::Sockets::ServerSocketManager::User {
 public:
  typedef Zor::Sockets::ServerSocketManager Manager;
  typedef Zor::Sockets::SocketHandle Handle;

  void SocketAccepted(Manager& manager, Handle handle) override;
  void SocketClosed(Manager& manager, Handle handle) override;
  void MessageReceived(Manager& manager, Handle handle, void* data, unsigned int size) override;
  void SelectError(Manager& manager) override;
  void AcceptError(Manager& manager) override;
  void TooManySocketErrors(Manager& manager) override;
  // Asks `admit` when set; records "refused:a.b.c.d:port:not-admitted" (or
  // ":no-descriptors") and "idle:H".
  bool AdmitClient(Manager& manager, const tOsTCPSocketAddress& farEnd) override;
  void ClientRefused(Manager& manager, const tOsTCPSocketAddress& farEnd,
                     Zor::Sockets::ClientRefusal reason) override;
  void ClientIdle(Manager& manager, Handle handle) override;

  std::vector<std::string> Events() const;
  // Handles of the accepted clients, in order.
  std::vector<Handle> Accepted() const;
  // Events that begin with `prefix`.
  int Count(const std::string& prefix) const;
  void Clear();

  std::function<void(Manager&, Handle)> onAccepted;
  std::function<void(Manager&, Handle)> onClosed;
  std::function<void(Manager&, Handle, const std::string&)> onMessage;
  std::function<void(Manager&)> onTooMany;
  std::function<void(Manager&)> onSelectError;
  std::function<bool(const tOsTCPSocketAddress&)> admit;

 private:
  void record(const std::string& event, Handle handle = Handle());
  mutable std::mutex mutex_;
  std::vector<std::string> events_;
  std::vector<Handle> accepted_;
};

// "accepted:H" and the like for handle `handle`.
std::string event(const std::string& kind, Zor::Sockets::SocketHandle handle);

// Proves from inside a callback that the caller holds no lock: Run() does
// work that takes the lock on another thread and tells whether it finished
// within the time-out. The threads are joined by Join() (or the destructor),
// once the callback has returned.
class LockProbe {
 public:
  ~LockProbe() { Join(); }
  bool Run(const std::function<void()>& work, long timeoutMs = 5000);
  void Join();

 private:
  std::vector<std::thread> threads_;
};

}  // namespace socket_test

#endif  // KESTRIN_ZOR_SOCKETS_SOCKET_TEST_SUPPORT_H_
