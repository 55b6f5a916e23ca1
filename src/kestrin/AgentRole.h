// The Agent card's role: every accepted request goes to the Master card.
//
// Design: an Agent writes nothing to its own log files for client requests.
// It keeps one TCP connection to the Master, a FramedDataSocket in blocking
// mode, and forwards each request the main loop hands it as one frame. A
// client's first requests travel as unregistered add-logs that carry the
// client's three names; the Master registers the client, answers with a
// RegHandle record, and from then on the Agent sends the client's requests
// as ordinary add-logs carrying the Master's handle. The Agent's own
// configuration filters requests before they are sent.
//
// Threads: the main thread makes the role, starts it, runs the local
// handlers (and so every Send) and shuts it down. The receive thread
// (ReceiveThread) only reads what the Master sends: it hands each RegHandle
// record to the main thread through the daemon's own request queue, so the
// handle map is read and written on the main thread alone. The flags are
// atomics written by one thread and polled by another. Losing the Master
// (closed, failed or garbled connection, or an unexpected end of the receive
// thread) sets graceful_quit: the daemon stops; it does not reconnect.
#ifndef KESTRIN_KESTRIN_AGENT_ROLE_H_
#define KESTRIN_KESTRIN_AGENT_ROLE_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "kestrin/Role.h"
#include "osa/osa.h"
#include "zor/NonCopyable.h"
#include "zor/sockets/FramedDataSocket.h"

namespace kestrin {

class ThrottledEventPoint;

class AgentRole : public Role,
                  public Zor::Sockets::FramedDataSocket::User,
                  private Zor::NonCopyable {
 public:
  // Connect passes of StartUp, and the one-second sleeps after each failed
  // one: about two minutes of trying in all.
  static constexpr int CONNECT_PASSES = 25;
  static constexpr int SLEEPS_AFTER_FAILED_CONNECT = 5;
  static constexpr unsigned long CONNECT_SLEEP_MS = 1000;
  // ShutDown waits for the receive thread at most this many times this long.
  static constexpr int SHUTDOWN_WAITS = 20;
  static constexpr unsigned long SHUTDOWN_WAIT_MS = 100;
  // The smallest frames handled: a record header, and a whole RegHandle
  // fixed part.
  static constexpr unsigned int MIN_FRAME_SIZE = 8;
  static constexpr unsigned int MIN_REG_HANDLE_FRAME_SIZE = 20;

  // Reads what the Master sends, on a thread of its own.
  class ReceiveThread : private Zor::NonCopyable {
   public:
    explicit ReceiveThread(AgentRole& role);
    ~ReceiveThread();

    // Starts the thread; false after logging "osCreateTask returned r;
    // cannot run as agent" when it cannot be started.
    bool StartUp();
    // True once the thread has ended (its last act).
    bool HasStopped() const { return stopped.load(); }
    bool HasStarted() const { return started.load(); }
    // One frame from the Master, header included: a RegHandle record goes
    // to the local queue; anything else is reported and dropped.
    void MessageReceived(void* data, unsigned int size);

   private:
    static void Main(void* argument);
    void Run();

    AgentRole& role;
    std::atomic<bool> started{false};
    std::atomic<bool> stopped{false};
    // Created on first use; used by this thread only.
    std::unique_ptr<ThrottledEventPoint> invalidMessage;
    std::unique_ptr<ThrottledEventPoint> invalidRegHandle;
  };

  // `mastersAddress` all zero means no usable Master: StartUp then fails.
  AgentRole(const tOsTCPSocketAddress& mastersAddress, const std::string& cardName);
  ~AgentRole() override;

  // Connects to the Master (up to CONNECT_PASSES attempts, ending early when
  // a shutdown is pending) and starts the receive thread. False, after a
  // line saying why, when there is no Master address, no connection, a
  // shutdown came first, or the thread cannot start.
  bool StartUp() override;
  // Prints "AgentRole::ShutDown"; the first call closes the connection
  // (which ends the receive thread) and waits up to 2 seconds for the
  // thread; clean-up then writes the thread's last reports. Main thread.
  void ShutDown(int reason, const char* text) override;
  // Makes a connect loop in progress end. Any thread.
  void ShutDownPending() override;

  // Forwards an add-log record of `size` bytes from local `slot`, unless the
  // slot's log file filters it out.
  void LocalAddLogMessage(tKesLoggerMessage* message, unsigned int size,
                          unsigned int slot) override;
  // Forwards a log-file-size record of `size` bytes as it is.
  void LocalLogFileSizeMessage(tKesLoggerMessage* message, unsigned int size) override;
  // An Agent has no alarm telset of its own: one error line, nothing sent.
  void LocalCoreRegisterMessage(tKesLoggerMessage* message, unsigned int size) override;
  // Records the Master's handle for the first local slot whose module name
  // in log and log file name match the record's; silently nothing when no
  // slot matches.
  void LocalRegHandleMessage(tKesLoggerMessage* message, unsigned int size) override;

  // FramedDataSocket::User, called on the receive thread (or, for a failed
  // send, on the sending thread).
  void MessageReceived(Zor::Sockets::FramedDataSocket& socket, void* data,
                       unsigned int size) override;
  void SocketError(Zor::Sockets::FramedDataSocket& socket) override;
  void SocketClosed(Zor::Sockets::FramedDataSocket& socket) override;
  void MessageFramingError(Zor::Sockets::FramedDataSocket& socket) override;

  // The Master's handle known for local `slot`, -1 when none (main thread).
  int32_t MastersHandleFor(unsigned int slot) const { return handleMap[slot]; }
  const std::string& CardName() const { return cardName; }
  bool IsConnected() const { return socket.IsOpen(); }
  bool ReceiveThreadHasStopped() const { return receiveThread.HasStopped(); }

 private:
  bool connectToMaster();
  // Sends nothing: the Master accepts a greeting record, but an Agent never
  // sends one. Kept as the place where it would be sent.
  void SendAgentGreetingsToMaster() {}
  int sendRegisteredAddLog(tKesLoggerMessage* message, unsigned int size, int32_t handle);
  int sendUnregisteredAddLog(const tKesAddLogMessage& record, unsigned int size, unsigned int slot);
  // Logs `text` at warning level and makes the daemon stop.
  void connectionLost(const char* text);

  tOsTCPSocketAddress mastersAddress;
  std::string cardName;
  Zor::Sockets::FramedDataSocket socket;
  ReceiveThread receiveThread;
  // Per registration-table slot, the handle the Master gave its client; -1
  // while none is known. Main thread only.
  int32_t handleMap[256];
  std::atomic<bool> shuttingDown{false};     // set once, by ShutDown
  std::atomic<bool> shutdownPending{false};  // ShutDownPending or a lost connection
};

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_AGENT_ROLE_H_
