// The Master card's role: a main card that also keeps the logs of the
// chassis's Agent cards.
//
// Design: the Master processes its own requests like any main card (the
// MainCardRole handlers). In addition a select thread listens on the
// Master's address through a ServerSocketManager, accepts the Agents'
// connections and turns every record an Agent sends into a request on the
// daemon's own request queue, so that the main loop processes Agent traffic
// exactly like local traffic. For an unregistered add-log it registers the
// Agent's client with the client library, tells the Agent the handle in a
// RegHandle record, and queues the request as an ordinary add-log.
//
// Hardening, off unless configured (AgentAccess.h): the listening address,
// the addresses allowed to connect, the number of connections and the time
// a connection may stay silent. Refused and idle connections are counted
// and reported through throttled events; running out of descriptors
// refuses the connection and never ends the Master.
//
// Threads: the main thread makes, starts and shuts down the role and runs
// the local handlers. The select thread (SelectThread) runs the manager's
// Select loop; every manager callback, and so the agents map and the event
// points, belongs to it. The manager's own lock guards its maps. The flags
// are atomics written by one thread and polled by the other. A select,
// accept or error-limit failure, a listening time-out or an unexpected end
// of the select loop sets graceful_quit: the daemon stops.
#ifndef KESTRIN_KESTRIN_MASTER_ROLE_H_
#define KESTRIN_KESTRIN_MASTER_ROLE_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "kestrin/AgentAccess.h"
#include "kestrin/LogFileNames.h"
#include "kestrin/Role.h"
#include "osa/osa.h"
#include "zor/NonCopyable.h"
#include "zor/sockets/ServerSocketManager.h"

namespace kestrin {

class ThrottledEventPoint;

// Records received from Agents since start-up; the select thread pauses
// after every max(1, MESSAGES_BEFORE_SLEEP / 2) of them. Written by the
// select thread only; atomic so that it may be read from elsewhere.
extern std::atomic<uint32_t> NumMessagesReceived;

class MasterRole : public MainCardRole,
                   public Zor::Sockets::ServerSocketManager::User,
                   private Zor::NonCopyable {
 public:
  // Listening: give up after this long without success; between attempts
  // up to this many one-second sleeps.
  static constexpr unsigned long LISTEN_TIMEOUT_MS = 180000;
  static constexpr int SLEEPS_AFTER_FAILED_LISTEN = 10;
  static constexpr unsigned long LISTEN_SLEEP_MS = 1000;
  // ShutDown polls the select thread this often, for at most this long.
  static constexpr unsigned long SHUTDOWN_POLL_MS = 100;
  static constexpr unsigned long SHUTDOWN_LIMIT_MS = 2000;
  // The smallest frames handled, header included.
  static constexpr unsigned int MIN_FRAME_SIZE = 8;
  static constexpr unsigned int MIN_LOG_FILE_SIZE_FRAME_SIZE = 12;
  static constexpr unsigned int MIN_ADD_LOG_FRAME_SIZE = 45;
  static constexpr unsigned int MIN_UNREG_ADD_LOG_FRAME_SIZE = 56;

  // What the Master knows of one connected Agent.
  struct AgentData {
    std::string address;  // "a.b.c.d:port" of the far end; empty when unknown
  };

  // Serves the Agents on its own thread.
  class SelectThread : private Zor::NonCopyable {
   public:
    explicit SelectThread(MasterRole& role);
    ~SelectThread();

    // Starts the thread; false after logging "osCreateTask returned r;
    // cannot run as master" when it cannot be started.
    bool StartUp();
    bool HasStopped() const { return stopped.load(); }
    bool HasStarted() const { return started.load(); }

    // One frame from an Agent, header included.
    void MessageReceived(Zor::Sockets::SocketHandle handle, void* data, unsigned int size);
    // Logs the failure and makes the daemon stop.
    void FatalError();

   private:
    static void Main(void* argument);
    void Run();
    // Tries to listen, one attempt about every 10 seconds, for up to 3
    // minutes; true once listening.
    bool InitializeServerSocketManager();
    void RunSelectLoop();

    void handleLogFileSize(void* data, unsigned int size);
    void handleAddLog(void* data, unsigned int size);
    void handleUnregisteredAddLog(Zor::Sockets::SocketHandle handle, void* data,
                                  unsigned int size);
    void sendRegHandleToAgent(Zor::Sockets::SocketHandle handle, int32_t newHandle,
                              const tKesUnregAddLogMessage& record);
    void enqueueAddLog(int32_t newHandle, const tKesUnregAddLogMessage& record);
    // Whether the log file an Agent's client names may be registered.
    bool admitLogFileName(const tKesUnregAddLogMessage& record);
    // Raises `text` through `point`, made with (1, 7013) on first use.
    void raise(std::unique_ptr<ThrottledEventPoint>& point, const std::string& text);

    MasterRole& role;
    std::atomic<bool> started{false};
    std::atomic<bool> stopped{false};
    // Event points, each made on first use; select thread only.
    std::unique_ptr<ThrottledEventPoint> listening;  // 7030 raise, 7031 clear
    std::unique_ptr<ThrottledEventPoint> invalidMessage;
    std::unique_ptr<ThrottledEventPoint> invalidLogFileSize;
    std::unique_ptr<ThrottledEventPoint> invalidAddLog;
    std::unique_ptr<ThrottledEventPoint> invalidUnregAddLog;
    std::unique_ptr<ThrottledEventPoint> invalidType;
    std::unique_ptr<ThrottledEventPoint> queueFailure;
    // Log-file names refused on the select thread (it has its own memory).
    std::unique_ptr<NameGuard> names;

    friend class MasterRole;
  };

  // Listens on `mastersAddress` (port and address both zero: not usable, so
  // every listening attempt is skipped until the time-out), or on the
  // configured ListenAddress with MastersPort.
  MasterRole(const tOsTCPSocketAddress& mastersAddress, const std::string& cardName);
  ~MasterRole() override;

  // Starts the select thread; false when it cannot be started.
  bool StartUp() override;
  // Prints "MasterRole::ShutDown"; the first call closes the manager (which
  // ends the select loop) and waits up to 2 seconds for the thread.
  void ShutDown(int reason, const char* text) override;
  void ShutDownPending() override {}

  // ServerSocketManager::User, called on the select thread.
  void SocketAccepted(Zor::Sockets::ServerSocketManager& manager,
                      Zor::Sockets::SocketHandle handle) override;
  void SocketClosed(Zor::Sockets::ServerSocketManager& manager,
                    Zor::Sockets::SocketHandle handle) override;
  void MessageReceived(Zor::Sockets::ServerSocketManager& manager, Zor::Sockets::SocketHandle handle,
                       void* data, unsigned int size) override;
  void SelectError(Zor::Sockets::ServerSocketManager& manager) override;
  void AcceptError(Zor::Sockets::ServerSocketManager& manager) override;
  void TooManySocketErrors(Zor::Sockets::ServerSocketManager& manager) override;
  bool AdmitClient(Zor::Sockets::ServerSocketManager& manager,
                   const tOsTCPSocketAddress& farEnd) override;
  void ClientRefused(Zor::Sockets::ServerSocketManager& manager, const tOsTCPSocketAddress& farEnd,
                     Zor::Sockets::ClientRefusal reason) override;
  void ClientIdle(Zor::Sockets::ServerSocketManager& manager,
                  Zor::Sockets::SocketHandle handle) override;

  const std::string& CardName() const { return cardName; }
  bool SelectThreadHasStopped() const { return selectThread.HasStopped(); }
  // Connections refused (not allowed, or no descriptor left) and closed for
  // silence since start-up. Any thread.
  uint64_t RefusedConnections() const { return refusedConnections.load(); }
  uint64_t IdleConnectionsClosed() const { return idleConnectionsClosed.load(); }

 private:
  std::string cardName;
  Zor::Sockets::ServerSocketManager serverSocketManager;
  bool addressIsUsable;
  SelectThread selectThread;
  // Takes the configured access settings again when they have changed.
  void refreshAccess();

  std::map<Zor::Sockets::SocketHandle, AgentData> agents;  // select thread only
  std::atomic<bool> shuttingDown{false};
  std::atomic<bool> fatalErrorOccurred{false};
  // The access settings in force and their generation; select thread only
  // once the thread runs.
  AgentAccess access;
  uint64_t accessGeneration = UINT64_MAX;  // none read yet
  std::atomic<uint64_t> refusedConnections{0};
  std::atomic<uint64_t> idleConnectionsClosed{0};
  // Select thread only, each made on first use.
  std::unique_ptr<ThrottledEventPoint> notAllowed;
  std::unique_ptr<ThrottledEventPoint> noDescriptors;
  std::unique_ptr<ThrottledEventPoint> idle;
};

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_MASTER_ROLE_H_
