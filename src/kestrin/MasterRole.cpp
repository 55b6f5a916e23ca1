#include "kestrin/MasterRole.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

#include "kestrin/AlarmUtils.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/Lifecycle.h"
#include "kestrin/RecordPrinters.h"
#include "kestrin/RecordValidation.h"
#include "kestrin/RequestLoop.h"
#include "qrt/QrtInternal.h"
#include "zor/sockets/FrameHeader.h"

namespace kestrin {

std::atomic<uint32_t> NumMessagesReceived{0};

namespace {

using Zor::Sockets::ServerSocketManager;
using Zor::Sockets::SocketHandle;

// Init() is asked for one attempt; its retry interval is then unused.
constexpr unsigned int LISTEN_RETRIES = 0;
constexpr unsigned long LISTEN_SECONDS_BETWEEN_RETRIES = 10;
// The select thread: no name, the default priority, the requested stack.
constexpr char SELECT_THREAD_NAME[] = "";
constexpr int SELECT_THREAD_PRIORITY = 0;
constexpr unsigned long SELECT_THREAD_STACK_SIZE = 32000;
// The listening alarm is raised at the second failed attempt.
constexpr int LISTEN_FAILURES_BEFORE_ALARM = 2;
// How checkMessageVersion names the sender.
constexpr char AGENT_SOURCE[] = "agent";
// What the client library is told when registering an Agent's client.
constexpr int REGISTER_FLAGS = 0;
// Add-log records go to the client library with "wait while the queue is
// full"; the text length is the frame size less the fixed part and header.
constexpr int ENQUEUE_WAITS = 0;
constexpr unsigned int ADD_LOG_FRAME_OVERHEAD = 45;

std::string text(unsigned long value) { return std::to_string(value); }

unsigned char* BytesOf(void* data) { return static_cast<unsigned char*>(data); }

// Counts one record from an Agent whichever way its handling ends, and
// pauses the select thread after every max(1, MESSAGES_BEFORE_SLEEP / 2)
// records, half the main loop's batch.
class MessageReceivedCleanUp {
 public:
  MessageReceivedCleanUp() = default;
  MessageReceivedCleanUp(const MessageReceivedCleanUp&) = delete;
  MessageReceivedCleanUp& operator=(const MessageReceivedCleanUp&) = delete;
  ~MessageReceivedCleanUp() {
    const uint32_t count = ++NumMessagesReceived;
    const uint32_t batch = static_cast<uint32_t>(std::max(1, MESSAGES_BEFORE_SLEEP / 2));
    if (count % batch == 0) osSleep(static_cast<unsigned long>(SLEEP_TIME));
  }
};

// The address to listen on: the configured ListenAddress with MastersPort,
// else the Master's own address.
tOsTCPSocketAddress ListeningAddress(const tOsTCPSocketAddress& mastersAddress) {
  const AgentAccess access = GetAgentAccess();
  if (!access.listenAddressSet) return mastersAddress;
  return tOsTCPSocketAddress{access.listenAddress, MastersPort};
}

std::string AddressText(const tOsTCPSocketAddress& address) {
  char text[64];
  if (osTCPAddressToString(&address, text, sizeof text) != OS_OK) return std::string();
  return text;
}

void RaiseOn(std::unique_ptr<ThrottledEventPoint>& point, const std::string& message) {
  if (!point) {
    point.reset(new ThrottledEventPoint(KES_SEVERITY_ERROR, EventId_InvalidMessageReceived));
  }
  point->Raise(message);
}

}  // namespace

// ---- MasterRole -------------------------------------------------------------

MasterRole::MasterRole(const tOsTCPSocketAddress& mastersAddress, const std::string& cardName)
    : cardName(cardName),
      serverSocketManager(this, ListeningAddress(mastersAddress)),
      addressIsUsable(ListeningAddress(mastersAddress).port != 0 ||
                      ListeningAddress(mastersAddress).ipAddress != 0),
      selectThread(*this) {
  serverSocketManager.SetReceivedDataShouldIncludeHeader(true);
  refreshAccess();
}

void MasterRole::refreshAccess() {
  const uint64_t generation = GetAgentAccessGeneration();
  if (generation == accessGeneration) return;
  accessGeneration = generation;
  access = GetAgentAccess();
  serverSocketManager.SetMaximumNumberOfClients(access.maxAgents);
  serverSocketManager.SetIdleTimeout(access.idleTimeoutSeconds * 1000);
}

bool MasterRole::AdmitClient(ServerSocketManager& /*manager*/, const tOsTCPSocketAddress& farEnd) {
  refreshAccess();
  return access.Allows(farEnd.ipAddress);
}

void MasterRole::ClientRefused(ServerSocketManager& /*manager*/, const tOsTCPSocketAddress& farEnd,
                               Zor::Sockets::ClientRefusal reason) {
  ++refusedConnections;
  if (reason == Zor::Sockets::ClientRefusal::NOT_ADMITTED) {
    RaiseOn(notAllowed,
            "Refused a connection from " + AddressText(farEnd) + ": not among AllowedAgents");
  } else {
    RaiseOn(noDescriptors,
            "Refused a connection from " + AddressText(farEnd) + ": no file descriptor left");
  }
}

void MasterRole::ClientIdle(ServerSocketManager& /*manager*/, SocketHandle handle) {
  ++idleConnectionsClosed;
  auto found = agents.find(handle);
  const std::string address = found == agents.end() ? std::string() : found->second.address;
  RaiseOn(idle, "Closed the connection from " + address + ": silent for " +
                    std::to_string(access.idleTimeoutSeconds) + " seconds");
}

MasterRole::~MasterRole() {
  // The daemon never destroys its role; a test does, and must not leave the
  // select thread serving through a manager that goes away.
  shuttingDown = true;
  serverSocketManager.Close();
  while (selectThread.HasStarted() && !selectThread.HasStopped()) osSleep(SHUTDOWN_POLL_MS / 10);
}

bool MasterRole::StartUp() { return selectThread.StartUp(); }

void MasterRole::ShutDown(int /*reason*/, const char* /*text*/) {
  std::cout << "MasterRole::ShutDown" << std::endl;
  if (shuttingDown.exchange(true)) return;
  // Closing wakes the select thread's wait; its loop then ends.
  serverSocketManager.Close();
  for (unsigned long waited = 0; !selectThread.HasStopped(); waited += SHUTDOWN_POLL_MS) {
    if (waited >= SHUTDOWN_LIMIT_MS) {
      LogKestrinMessage(KES_SEVERITY_WARNING, "MasterRole thread failed to stop", NO_EVENT_ID);
      return;
    }
    osSleep(SHUTDOWN_POLL_MS);
  }
}

void MasterRole::SocketAccepted(ServerSocketManager& manager, SocketHandle handle) {
  const tOsTCPSocketAddress farEnd = manager.GetAddressOfFarEnd(handle);
  char address[64];
  AgentData agent;
  if (osTCPAddressToString(&farEnd, address, sizeof address) == OS_OK) agent.address = address;
  agents[handle] = agent;
  if (OwnLogAdmits(KES_SEVERITY_DEBUG)) {
    LogKestrinMessage(KES_SEVERITY_DEBUG, "Socket from " + agent.address + " has been accepted",
                      NO_EVENT_ID);
  }
}

void MasterRole::SocketClosed(ServerSocketManager& /*manager*/, SocketHandle handle) {
  auto found = agents.find(handle);
  const std::string address = found == agents.end() ? std::string() : found->second.address;
  if (OwnLogAdmits(KES_SEVERITY_DEBUG)) {
    LogKestrinMessage(KES_SEVERITY_DEBUG, "Socket from " + address + " has been closed",
                      NO_EVENT_ID);
  }
  if (found != agents.end()) agents.erase(found);
}

void MasterRole::MessageReceived(ServerSocketManager& /*manager*/, SocketHandle handle, void* data,
                                 unsigned int size) {
  selectThread.MessageReceived(handle, data, size);
}

void MasterRole::SelectError(ServerSocketManager& /*manager*/) { selectThread.FatalError(); }

void MasterRole::AcceptError(ServerSocketManager& /*manager*/) { selectThread.FatalError(); }

void MasterRole::TooManySocketErrors(ServerSocketManager& /*manager*/) {
  selectThread.FatalError();
}

// ---- MasterRole::SelectThread -----------------------------------------------

MasterRole::SelectThread::SelectThread(MasterRole& role) : role(role) {}

MasterRole::SelectThread::~SelectThread() = default;

bool MasterRole::SelectThread::StartUp() {
  int result = osCreateTask(SELECT_THREAD_NAME, SELECT_THREAD_PRIORITY, SELECT_THREAD_STACK_SIZE,
                            Main, this, nullptr);
  if (result != OS_OK) {
    LogKestrinMessage(KES_SEVERITY_ERROR,
                      "osCreateTask returned " + std::to_string(result) + "; cannot run as master",
                      NO_EVENT_ID);
    return false;
  }
  started = true;
  return true;
}

void MasterRole::SelectThread::Main(void* argument) {
  static_cast<SelectThread*>(argument)->Run();
}

void MasterRole::SelectThread::Run() {
  if (InitializeServerSocketManager()) RunSelectLoop();
  stopped = true;
}

void MasterRole::SelectThread::FatalError() {
  LogKestrinMessage(KES_SEVERITY_WARNING, "MasterRole::SelectThread::FatalError", NO_EVENT_ID);
  role.fatalErrorOccurred = true;
  graceful_quit = 1;
}

// Another Master (or anything else) may hold the port for a while, as after
// a quick restart: one attempt about every 10 seconds, an alarm from the
// second failure on, and a time-out after 3 minutes.
bool MasterRole::SelectThread::InitializeServerSocketManager() {
  const unsigned long start = osGetClock();
  if (!listening) {
    listening.reset(new ThrottledEventPoint(KES_SEVERITY_ERROR, EventId_MasterInitFailure,
                                            KES_SEVERITY_INFO, EventId_MasterInitSucceeded));
  }
  bool initialized = false;
  bool timedOut = false;
  int attempts = 0;
  while (!initialized && !role.shuttingDown) {
    if (osGetClock() - start > LISTEN_TIMEOUT_MS) {
      timedOut = true;
      break;
    }
    if (role.addressIsUsable) {
      initialized = role.serverSocketManager.Init(LISTEN_RETRIES, LISTEN_SECONDS_BETWEEN_RETRIES);
    }
    ++attempts;
    if (initialized) {
      listening->Clear("");
      break;
    }
    if (attempts == LISTEN_FAILURES_BEFORE_ALARM) listening->Raise("");
    // Attempts are paced by the clock, 10 seconds apart from the start, not
    // by counting sleeps: the time an attempt and its reports take, and the
    // time each sleep overruns, must not add up and cost attempts.
    const unsigned long nextAttempt =
        static_cast<unsigned long>(attempts) * SLEEPS_AFTER_FAILED_LISTEN * LISTEN_SLEEP_MS;
    for (int sleeps = 0; sleeps < SLEEPS_AFTER_FAILED_LISTEN && !role.shuttingDown; ++sleeps) {
      const unsigned long elapsed = osGetClock() - start;
      if (elapsed >= nextAttempt) break;
      osSleep(std::min(LISTEN_SLEEP_MS, nextAttempt - elapsed));
    }
  }
  if (timedOut) {
    LogKestrinMessage(KES_SEVERITY_ERROR, "Timed out trying to initialize Master; shutting down.",
                      NO_EVENT_ID);
    graceful_quit = 1;
    return false;
  }
  if (initialized && role.shuttingDown) {
    role.serverSocketManager.Close();
    LogKestrinMessage(KES_SEVERITY_DEBUG,
                      "Init() succeeded but Master was shutting down; closed socket.",
                      NO_EVENT_ID);
    return false;
  }
  return true;
}

void MasterRole::SelectThread::RunSelectLoop() {
  do {
    role.refreshAccess();
  } while (role.serverSocketManager.Select());
  if (!role.shuttingDown && !role.fatalErrorOccurred) {
    LogKestrinMessage(KES_SEVERITY_WARNING, "MasterRole select thread terminating unexpectedly.",
                      NO_EVENT_ID);
    graceful_quit = 1;
  } else {
    LogKestrinMessage(KES_SEVERITY_DEBUG, "MasterRole select thread terminating.", NO_EVENT_ID);
  }
}

void MasterRole::SelectThread::raise(std::unique_ptr<ThrottledEventPoint>& point,
                                     const std::string& message) {
  if (!point) {
    point.reset(new ThrottledEventPoint(KES_SEVERITY_ERROR, EventId_InvalidMessageReceived));
  }
  point->Raise(message);
}

void MasterRole::SelectThread::MessageReceived(SocketHandle handle, void* data,
                                               unsigned int size) {
  MessageReceivedCleanUp cleanUp;
  if (size < MIN_FRAME_SIZE) {
    raise(invalidMessage, "Received invalid message from Agent; sizeOfData = " + text(size));
    return;
  }
  tKesMessage header;
  memcpy(&header, BytesOf(data) + Zor::Sockets::FrameHeader::HEADER_SIZE, sizeof header);
  NetworkToHost(&header);
  if (!checkMessageVersion(header, AGENT_SOURCE)) return;
  switch (header.type) {
    case KES_LOG_FILE_SIZE:
      handleLogFileSize(data, size);
      return;
    case KES_ADD_LOG:
      handleAddLog(data, size);
      return;
    case KES_AGENT_GREETINGS:
      return;  // accepted and ignored: Agents need not greet
    case KES_UNREG_ADD_LOG:
      handleUnregisteredAddLog(handle, data, size);
      return;
    default:
      raise(invalidType, "Invalid message type of " + text(header.type) +
                             " received from Agent; ignoring.");
  }
}

void MasterRole::SelectThread::handleLogFileSize(void* data, unsigned int size) {
  if (size < MIN_LOG_FILE_SIZE_FRAME_SIZE) {
    raise(invalidLogFileSize, "Received invalid LogFileSize message from Agent; sizeOfData = " +
                                  text(size) + "; minimum is " +
                                  text(MIN_LOG_FILE_SIZE_FRAME_SIZE));
    return;
  }
  // The main loop takes at most one largest record per receive; a longer
  // message would stay on the queue and block it.
  if (size > KES_MAX_QUEUEABLE_FRAME) {
    raise(invalidLogFileSize, "Received invalid LogFileSize message from Agent; sizeOfData = " +
                                  text(size) + "; maximum is " + text(KES_MAX_QUEUEABLE_FRAME));
    return;
  }
  tKesLoggerMessage message;
  const unsigned int recordSize = QueueMessageFromFrame(&message, data, size);
  NetworkToHost(&message.logFileSize);
  int result = SendToOwnQueue(&message, recordSize);
  if (result != OS_OK) {
    raise(queueFailure, "Error " + std::to_string(result) +
                            " trying to put LogFileSize message from Agent on the queue");
  }
}

void MasterRole::SelectThread::handleAddLog(void* data, unsigned int size) {
  if (size < MIN_ADD_LOG_FRAME_SIZE) {
    raise(invalidAddLog, "Received invalid AddLog message from Agent; sizeOfData = " + text(size) +
                             "; minimum is " + text(MIN_ADD_LOG_FRAME_SIZE));
    return;
  }
  tKesLoggerMessage message;
  QueueMessageFromFrame(&message, data, size);
  NetworkToHost(&message.addLog);
  int result = EnqueueAddLogMessage(&message, ENQUEUE_WAITS, size - ADD_LOG_FRAME_OVERHEAD);
  if (result != QRT_OK) {
    raise(queueFailure, "Error " + std::to_string(result) +
                            " trying to enqueue AddLog message from Agent; sizeOfData = " +
                            text(size));
  }
}

void MasterRole::SelectThread::handleUnregisteredAddLog(SocketHandle handle, void* data,
                                                        unsigned int size) {
  if (size < MIN_UNREG_ADD_LOG_FRAME_SIZE) {
    raise(invalidUnregAddLog, "Invalid UnregAddLog received from Agent; size = " + text(size) +
                                  "; minimum size = " + text(MIN_UNREG_ADD_LOG_FRAME_SIZE));
    return;
  }
  tKesLoggerMessage message;
  QueueMessageFromFrame(&message, data, size);
  tKesUnregAddLogMessage& record = message.unregAddLog;
  NetworkToHost(&record);
  // The validator looks only inside the string area, which the copy holds
  // whole, however large the frame was.
  if (!ValidateUnregAddLogMessage(&record, size - Zor::Sockets::FrameHeader::HEADER_SIZE)) return;
  if (LogNonAddLogMessages && OwnLogAdmits(KES_SEVERITY_DEBUG)) {
    std::ostringstream line;
    line << "From agent: " << record;
    LogKestrinMessage(KES_SEVERITY_DEBUG, line.str(), NO_EVENT_ID);
  }
  if (!admitLogFileName(record)) return;
  int newHandle = -1;
  int result = QrtDiagRegisterModule(
      record.stringArea + record.moduleNameOffset, record.stringArea + record.moduleNameInLogOffset,
      REGISTER_FLAGS, record.stringArea + record.logFileNameOffset, &newHandle);
  if (result != QRT_OK) {
    LogKestrinMessage(KES_SEVERITY_ERROR,
                      "Error handling UnregAddLog: Error " + std::to_string(result) +
                          " trying to register for logging",
                      NO_EVENT_ID);
    return;
  }
  sendRegHandleToAgent(handle, newHandle, record);
  enqueueAddLog(newHandle, record);
}

// A name the main loop would refuse is refused here already, so that it
// never takes a registration slot; the main loop checks again all the same.
bool MasterRole::SelectThread::admitLogFileName(const tKesUnregAddLogMessage& record) {
  if (!names) names.reset(new NameGuard);
  return names->Admit(NormalizeLogFileName(record.stringArea + record.logFileNameOffset));
}

void MasterRole::SelectThread::sendRegHandleToAgent(SocketHandle handle, int32_t newHandle,
                                                    const tKesUnregAddLogMessage& record) {
  tKesFrame frame{};
  const unsigned int recordSize =
      FormatKesRegHandleMessage(&frame.regHandle, static_cast<unsigned long>(newHandle), &record);
  HostToNetwork(&frame.regHandle);
  const unsigned int frameSize = FinishFrame(&frame, recordSize);
  role.serverSocketManager.Send(handle, &frame, static_cast<int>(frameSize));
}

void MasterRole::SelectThread::enqueueAddLog(int32_t newHandle,
                                             const tKesUnregAddLogMessage& record) {
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  message.mtype = 1;
  const unsigned int recordSize =
      FormatKesAddLogMessage(&message.addLog, static_cast<unsigned long>(newHandle), &record);
  int result = SendToOwnQueue(&message, recordSize);
  if (result != OS_OK) {
    raise(queueFailure,
          "Error " + std::to_string(result) + " trying to put AddLog message from Agent on the queue");
  }
}

}  // namespace kestrin
