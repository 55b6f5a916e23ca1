#include "kestrin/AgentRole.h"

#include <cstring>
#include <iostream>
#include <string>

#include "kestrin/AddLog.h"
#include "kestrin/AlarmUtils.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/Lifecycle.h"
#include "kestrin/RegTable.h"
#include "protocol/SharedLayout.h"

namespace kestrin {

namespace {

// Connect() is asked for one attempt; its retry interval is then unused.
constexpr unsigned int CONNECT_RETRIES = 0;
constexpr unsigned long CONNECT_SECONDS_BETWEEN_RETRIES = 10;
// The receive thread: no name, the default priority, the requested stack.
constexpr char RECEIVE_THREAD_NAME[] = "";
constexpr int RECEIVE_THREAD_PRIORITY = 0;
constexpr unsigned long RECEIVE_THREAD_STACK_SIZE = 32000;

// Whether the table field `field` (of `size` bytes, perhaps unterminated)
// holds exactly the string `text`.
bool FieldEquals(const char* field, size_t size, const char* text) {
  const size_t length = strnlen(field, size);
  return length < size && strlen(text) == length && memcmp(field, text, length) == 0;
}

// The table field as a string, cut at its end should it be unterminated.
std::string FieldText(const char* field, size_t size) {
  return std::string(field, strnlen(field, size));
}

void RaiseThrottled(std::unique_ptr<ThrottledEventPoint>& point, const std::string& text) {
  if (!point) point.reset(new ThrottledEventPoint(KES_SEVERITY_ERROR, EventId_InvalidMessageReceived));
  point->Raise(text);
}

}  // namespace

// ---- AgentRole ---------------------------------------------------------------

AgentRole::AgentRole(const tOsTCPSocketAddress& mastersAddress, const std::string& cardName)
    : mastersAddress(mastersAddress),
      cardName(cardName),
      socket(this, false, 0, 0),
      receiveThread(*this) {
  socket.SetReceivedDataShouldIncludeHeader(true);
  for (int32_t& handle : handleMap) handle = -1;
}

AgentRole::~AgentRole() {
  // The daemon never destroys its role; a test does, and must not leave the
  // receive thread reading from a socket that goes away.
  shuttingDown = true;
  socket.Close();
  while (receiveThread.HasStarted() && !receiveThread.HasStopped()) osSleep(SHUTDOWN_WAIT_MS / 10);
}

bool AgentRole::StartUp() {
  if (mastersAddress.port == 0 && mastersAddress.ipAddress == 0) return false;
  const bool connected = connectToMaster();
  if (connected && !shuttingDown) {
    SendAgentGreetingsToMaster();
    return receiveThread.StartUp();
  }
  if (connected) {
    socket.Close();
    LogKestrinMessage(KES_SEVERITY_DEBUG,
                      "Connect() succeeded but agent was shutting down; closed socket.",
                      NO_EVENT_ID);
    return false;
  }
  LogKestrinMessage(KES_SEVERITY_WARNING, "Connect() failed; shutting down Kestrin Agent",
                    NO_EVENT_ID);
  return false;
}

// One attempt per pass, then five one-second sleeps, each skipped once a
// shutdown is pending, so that a stop request ends the loop within a second.
bool AgentRole::connectToMaster() {
  for (int pass = 0; pass < CONNECT_PASSES && !shutdownPending; ++pass) {
    if (socket.Connect(mastersAddress, CONNECT_RETRIES, CONNECT_SECONDS_BETWEEN_RETRIES)) {
      return true;
    }
    for (int sleeps = 0; sleeps < SLEEPS_AFTER_FAILED_CONNECT && !shutdownPending; ++sleeps) {
      osSleep(CONNECT_SLEEP_MS);
    }
  }
  return false;
}

void AgentRole::ShutDown(int /*reason*/, const char* /*text*/) {
  std::cout << "AgentRole::ShutDown" << std::endl;
  if (shuttingDown.exchange(true)) return;
  // Closing wakes the receive thread's blocked Receive(), which then ends.
  socket.Close();
  for (int waits = 0; waits < SHUTDOWN_WAITS && !receiveThread.HasStopped(); ++waits) {
    osSleep(SHUTDOWN_WAIT_MS);
  }
}

void AgentRole::ShutDownPending() { shutdownPending = true; }

void AgentRole::LocalAddLogMessage(tKesLoggerMessage* message, unsigned int size,
                                   unsigned int slot) {
  tKesAddLogMessage& record = message->addLog;
  // A slot whose file name is refused is not forwarded either.
  if (logFileArray[slot].IsNil() && !AddLogFileEntry(slot, record.cardId, record.pid)) return;
  // The Agent's own configuration decides what reaches the Master.
  const unsigned short admitted = logFileArray[slot]->severityFilter.Get().AsQrtSeverityForFilter();
  if (admitted < record.severity) return;
  if (handleMap[slot] != -1) {
    sendRegisteredAddLog(message, size, handleMap[slot]);
  } else {
    sendUnregisteredAddLog(record, size, slot);
  }
}

int AgentRole::sendRegisteredAddLog(tKesLoggerMessage* message, unsigned int size,
                                    int32_t handle) {
  message->addLog.handle = static_cast<uint32_t>(handle);
  tKesFrame frame;
  memcpy(&frame.addLog, &message->addLog, size);
  HostToNetwork(&frame.addLog);
  const unsigned int frameSize = FinishFrame(&frame, size);
  return socket.Send(&frame, static_cast<int>(frameSize));
}

int AgentRole::sendUnregisteredAddLog(const tKesAddLogMessage& record, unsigned int size,
                                      unsigned int slot) {
  const tKesRegTableEntry& entry = sharedRegistrationTable[slot];
  const std::string moduleName = FieldText(entry.moduleName, sizeof entry.moduleName);
  const std::string moduleNameInLog = FieldText(entry.moduleNameInLog, sizeof entry.moduleNameInLog);
  const std::string logFileName = FieldText(entry.logFileName, sizeof entry.logFileName);
  tKesFrame frame{};
  const unsigned int recordSize =
      FormatKesUnregAddLogMessage(&frame.unregAddLog, &record, size, moduleName.c_str(),
                                  moduleNameInLog.c_str(), logFileName.c_str());
  HostToNetwork(&frame.unregAddLog);
  const unsigned int frameSize = FinishFrame(&frame, recordSize);
  return socket.Send(&frame, static_cast<int>(frameSize));
}

void AgentRole::LocalLogFileSizeMessage(tKesLoggerMessage* message, unsigned int size) {
  tKesFrame frame;
  memcpy(&frame.logFileSize, &message->logFileSize, size);
  HostToNetwork(&frame.logFileSize);
  const unsigned int frameSize = FinishFrame(&frame, size);
  socket.Send(&frame, static_cast<int>(frameSize));
}

void AgentRole::LocalCoreRegisterMessage(tKesLoggerMessage* /*message*/, unsigned int /*size*/) {
  LogKestrinMessage(KES_SEVERITY_ERROR,
                    "Error: Agent received local CoreRegister message: ignoring. Alarm telset may "
                    "not be operational.",
                    NO_EVENT_ID);
}

void AgentRole::LocalRegHandleMessage(tKesLoggerMessage* message, unsigned int /*size*/) {
  // The main loop validated the record: both names lie inside its string
  // area and end there.
  const tKesRegHandleMessage& record = message->regHandle;
  const char* moduleNameInLog = record.stringArea + record.moduleNameInLogOffset;
  const char* logFileName = record.stringArea + record.logFileNameOffset;
  if (sharedRegistrationTable == nullptr) return;
  for (unsigned int slot = 0; slot < KES_REG_TABLE_SLOTS; ++slot) {
    const tKesRegTableEntry& entry = sharedRegistrationTable[slot];
    if (entry.state == KES_SLOT_STATE_REGISTERED &&
        FieldEquals(entry.moduleNameInLog, sizeof entry.moduleNameInLog, moduleNameInLog) &&
        FieldEquals(entry.logFileName, sizeof entry.logFileName, logFileName)) {
      handleMap[slot] = static_cast<int32_t>(record.handle);
      return;
    }
  }
}

void AgentRole::MessageReceived(Zor::Sockets::FramedDataSocket& /*socket*/, void* data,
                                unsigned int size) {
  receiveThread.MessageReceived(data, size);
}

void AgentRole::SocketError(Zor::Sockets::FramedDataSocket& /*socket*/) {
  connectionLost("AgentRole::SocketError");
}

void AgentRole::SocketClosed(Zor::Sockets::FramedDataSocket& /*socket*/) {
  connectionLost("AgentRole::SocketClosed");
}

void AgentRole::MessageFramingError(Zor::Sockets::FramedDataSocket& /*socket*/) {
  connectionLost("AgentRole::MessageFramingError");
}

void AgentRole::connectionLost(const char* text) {
  LogKestrinMessage(KES_SEVERITY_WARNING, text, NO_EVENT_ID);
  shutdownPending = true;
  graceful_quit = 1;
}

// ---- AgentRole::ReceiveThread ------------------------------------------------

AgentRole::ReceiveThread::ReceiveThread(AgentRole& role) : role(role) {}

AgentRole::ReceiveThread::~ReceiveThread() = default;

bool AgentRole::ReceiveThread::StartUp() {
  int result = osCreateTask(RECEIVE_THREAD_NAME, RECEIVE_THREAD_PRIORITY,
                            RECEIVE_THREAD_STACK_SIZE, Main, this, nullptr);
  if (result != OS_OK) {
    LogKestrinMessage(KES_SEVERITY_ERROR,
                      "osCreateTask returned " + std::to_string(result) + "; cannot run as agent",
                      NO_EVENT_ID);
    return false;
  }
  started = true;
  return true;
}

void AgentRole::ReceiveThread::Main(void* argument) {
  static_cast<ReceiveThread*>(argument)->Run();
}

// The socket blocks, so Receive() returns only when the connection is
// closed or fails; a true result is unexpected and reported once.
void AgentRole::ReceiveThread::Run() {
  bool reported = false;
  while (role.socket.Receive()) {
    if (!reported) {
      LogKestrinMessage(KES_SEVERITY_WARNING,
                        "Receive returned true. Continuing. But this should never happen.",
                        NO_EVENT_ID);
      reported = true;
    }
  }
  if (!role.shuttingDown && !role.shutdownPending) {
    LogKestrinMessage(KES_SEVERITY_WARNING, "AgentRole receive thread terminating unexpectedly.",
                      NO_EVENT_ID);
    graceful_quit = 1;
  } else {
    LogKestrinMessage(KES_SEVERITY_DEBUG, "AgentRole receive thread terminating.", NO_EVENT_ID);
  }
  stopped = true;
}

void AgentRole::ReceiveThread::MessageReceived(void* data, unsigned int size) {
  if (size < MIN_FRAME_SIZE) {
    RaiseThrottled(invalidMessage,
                   "Received invalid message from Master; sizeOfData = " + std::to_string(size));
    return;
  }
  tKesLoggerMessage message;
  const unsigned int recordSize = QueueMessageFromFrame(&message, data, size);
  tKesMessage header = message.header;
  NetworkToHost(&header);
  if (header.type != KES_REG_HANDLE) {
    LogError("Invalid or unknown message type of " + std::to_string(header.type) +
             " received from Master");
    return;
  }
  if (size < MIN_REG_HANDLE_FRAME_SIZE) {
    RaiseThrottled(invalidRegHandle,
                   "Received invalid RegHandle message from Master; sizeOfData = " +
                       std::to_string(size) + "; minimum is " +
                       std::to_string(MIN_REG_HANDLE_FRAME_SIZE));
    return;
  }
  // The main loop takes at most one largest record per receive; a longer
  // message would stay on the queue and block it.
  if (size > KES_MAX_QUEUEABLE_FRAME) {
    RaiseThrottled(invalidRegHandle,
                   "Received invalid RegHandle message from Master; sizeOfData = " +
                       std::to_string(size) + "; maximum is " +
                       std::to_string(KES_MAX_QUEUEABLE_FRAME));
    return;
  }
  NetworkToHost(&message.regHandle);
  int result = SendToOwnQueue(&message, recordSize);
  if (result != OS_OK) {
    LogKestrinMessage(KES_SEVERITY_ERROR,
                      "Error " + std::to_string(result) +
                          " trying to put RegHandle message from Master on the queue",
                      NO_EVENT_ID);
  }
}

}  // namespace kestrin
