#include "kestrin/RequestLoop.h"


#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kestrin/AlarmUtils.h"
#include "kestrin/Configuration.h"
#include "kestrin/ErrorThrottle.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/LostLines.h"
#include "kestrin/Lifecycle.h"
#include "kestrin/OtherRequests.h"
#include "kestrin/RecordPrinters.h"
#include "kestrin/RecordValidation.h"
#include "kestrin/RegTable.h"
#include "kestrin/Role.h"
#include "osa/osa.h"
#include "protocol/SharedLayout.h"
#include "zor/CriticalSection.h"
#include "zor/Scoped.h"

namespace kestrin {

uint64_t NumMessagesInitiallyInQueue = 0;
uint64_t NumMessagesReadFromQueue = 0;

namespace {

constexpr unsigned short EVENT_SEVERITY = KES_SEVERITY_ERROR;
constexpr long MIN_RECORD_SIZE = sizeof(tKesMessage);
constexpr char QUEUE_SOURCE[] = "IPC queue";
// The System V calls report a failure as -1; the lines name that result.
constexpr int FAILED_CALL_RESULT = -1;

// A tick line every ten minutes at one tick a second, the first on the first.
constexpr unsigned long TICKS_PER_STATISTICS_LINE = 600;
constexpr unsigned long TICK_INTERVAL_MS = 1000;
constexpr unsigned long TIMER_TICK_STACK_SIZE = 8192;
// The tick thread reads the host name again on every 62nd pass.
constexpr unsigned int HOSTNAME_REFRESH_PASSES = 60;
// The tick thread gives up (and ends the daemon) after this many failed
// passes in a row.
constexpr int MAX_CONSECUTIVE_TICK_FAILURES = 21;

// The record being handled; main thread only. Static so that the receive
// path never allocates.
tKesLoggerMessage s_message;

unsigned long s_tickCount = 0;

// The throttled event points of the loop, created on first use.
std::unique_ptr<ThrottledEventPoint> s_versionMismatch;         // 7010, any thread, under lock
std::unique_ptr<ThrottledEventPoint> s_invalidMessageType;      // 7011, main thread
std::unique_ptr<ThrottledEventPoint> s_errorReadingQueue;       // 7012, main thread
std::unique_ptr<ThrottledEventPoint> s_invalidMessageReceived;  // 7013, main thread

void RaiseEvent(std::unique_ptr<ThrottledEventPoint>& point, int32_t eventId,
                const std::string& text) {
  if (!point) point.reset(new ThrottledEventPoint(EVENT_SEVERITY, eventId));
  point->Raise(text);
}

// Every NO-OP request appends its sentence here and logs the whole text;
// the text lives as long as the process and is never emptied, so the k-th
// request logs the sentence k times in one line. Kept so on purpose.
std::ostringstream& NoOpText() {
  static std::ostringstream* text = new std::ostringstream;
  return *text;
}

// What became of one received record.
enum class Outcome {
  DISPATCHED,  // handled (or reported as unrecognised): the batching pause applies
  REJECTED,    // dropped by a check or a validator: no pause
  STOP         // a fresh shutdown request: run() returns at once
};

struct Request {
  tKesLoggerMessage& message;
  unsigned int size;  // header plus body
  ErrorThrottle& failures;
};

using Handler = Outcome (*)(Request& request);

bool IsStale() { return NumMessagesReadFromQueue <= NumMessagesInitiallyInQueue; }

template <typename Record>
void Trace(const Record& record) {
  std::ostringstream out;
  out << "From queue: " << record;
  LogDebug(out.str());
}

Outcome HandleRegister(Request& request) {
  process_register_message(&request.message.registerEntry);
  return Outcome::DISPATCHED;
}

Outcome HandleAddLog(Request& request) {
  unsigned int slot = 0;
  if (!ValidateAddLogMessage(&request.message.addLog, request.size, &slot)) {
    return Outcome::REJECTED;
  }
  if (LogAddLogMessages && OwnLogAdmits(KES_SEVERITY_DEBUG)) Trace(request.message.addLog);
  SetCardID(&request.message.addLog);
  RolePtr->LocalAddLogMessage(&request.message, request.size, slot);
  return Outcome::DISPATCHED;
}

Outcome HandleDeregister(Request& request) {
  process_deregister_message(&request.message.deregister);
  return Outcome::DISPATCHED;
}

Outcome HandleUnrecognized(Request& request) {
  RaiseEvent(s_invalidMessageType, EventId_InvalidMessageType,
             "run(): received unrecognized message type of " +
                 std::to_string(static_cast<int16_t>(request.message.header.type)));
  if (!request.failures.anotherErrorOK()) {
    clean_up(sys5q, KES_REASON_TOO_MANY_UNRECOGNIZED,
             "run(): too many consecutive failures in quick succession. Exiting.");
  }
  return Outcome::DISPATCHED;
}

Outcome HandleShutdown(Request& /*request*/) {
  if (IsStale()) {
    LogInfo("Ignoring stale shutdown request.");
    return Outcome::DISPATCHED;
  }
  LogInfo("run(): shutdown request received.");
  return Outcome::STOP;
}

Outcome HandleLogFileSize(Request& request) {
  if (!ValidateLogFileSizeMessage(&request.message.logFileSize, request.size)) {
    return Outcome::REJECTED;
  }
  if (OwnLogAdmits(KES_SEVERITY_DEBUG)) Trace(request.message.logFileSize);
  RolePtr->LocalLogFileSizeMessage(&request.message, request.size);
  return Outcome::DISPATCHED;
}

Outcome HandleNoOp(Request& /*request*/) {
  NoOpText() << "run(): NO-OP request received.";
  LogError(NoOpText().str());
  return Outcome::DISPATCHED;
}

Outcome HandleCoreRegister(Request& request) {
  if (!ValidateCoreRegisterMessage(&request.message.coreRegister, request.size)) {
    return Outcome::REJECTED;
  }
  if (OwnLogAdmits(KES_SEVERITY_DEBUG)) Trace(request.message.coreRegister);
  RolePtr->LocalCoreRegisterMessage(&request.message, request.size);
  return Outcome::DISPATCHED;
}

Outcome HandleRegHandle(Request& request) {
  if (!ValidateRegHandleMessage(&request.message.regHandle, request.size)) {
    return Outcome::REJECTED;
  }
  if (LogNonAddLogMessages && OwnLogAdmits(KES_SEVERITY_DEBUG)) Trace(request.message.regHandle);
  RolePtr->LocalRegHandleMessage(&request.message, request.size);
  return Outcome::DISPATCHED;
}

Outcome HandleInternalLogRequestRecord(Request& request) {
  if (!ValidateInternalLogRequestMessage(&request.message.internalLogRequest, request.size)) {
    return Outcome::REJECTED;
  }
  HandleInternalLogRequest(request.message, IsStale());
  return Outcome::DISPATCHED;
}

Outcome HandleTick(Request& /*request*/) {
  ReopenMovedFiles();
  FlushFiles();
  ReportLostLines();
  unsigned long tick = s_tickCount++;
  if (tick % TICKS_PER_STATISTICS_LINE == 0 && OwnLogAdmits(KES_SEVERITY_DEBUG)) {
    LogDebug("Tick number " + std::to_string(tick) + " received; " +
             std::to_string(NumMessagesReadFromQueue) + " messages received");
  }
  return Outcome::DISPATCHED;
}

Outcome HandleReload(Request& /*request*/) {
  if (IsStale()) {
    LogInfo("Ignoring stale hup request.");
    return Outcome::DISPATCHED;
  }
  LogInfo("run(): hup request received.");
  reload_configuration();
  return Outcome::DISPATCHED;
}

Outcome HandleDump(Request& /*request*/) {
  DumpRegTable();
  return Outcome::DISPATCHED;
}

// Request types 0 to 15; every other type is unrecognised. Types 3, 4, 9
// and 10 travel only between cards.
const Handler kHandlers[] = {
    HandleRegister,                  // 0  register (obsolete)
    HandleAddLog,                    // 1  KES_ADD_LOG
    HandleDeregister,                // 2  deregister (obsolete)
    HandleUnrecognized,              // 3
    HandleUnrecognized,              // 4
    HandleShutdown,                  // 5  shutdown request
    HandleLogFileSize,               // 6  KES_LOG_FILE_SIZE
    HandleNoOp,                      // 7  NO-OP request
    HandleCoreRegister,              // 8  KES_CORE_REGISTER
    HandleUnrecognized,              // 9  KES_AGENT_GREETINGS: TCP only
    HandleUnrecognized,              // 10 KES_UNREG_ADD_LOG: TCP only
    HandleRegHandle,                 // 11 KES_REG_HANDLE
    HandleInternalLogRequestRecord,  // 12 KES_INTERNAL_LOG_REQUEST
    HandleTick,                      // 13 timer tick
    HandleReload,                    // 14 reload request
    HandleDump,                      // 15 dump the registration table
};
constexpr size_t HANDLER_COUNT = sizeof kHandlers / sizeof kHandlers[0];
static_assert(HANDLER_COUNT == 16, "one handler per request type 0..15");

// Steps of one pass after a successful receive: the size, type-word and
// version checks, then the request's handler.
Outcome CheckAndDispatch(long textSize, ErrorThrottle& failures) {
  if (!CheckQueueRecord(s_message, textSize)) return Outcome::REJECTED;
  const long recordSize = KesRecordSizeFromQueueLength(textSize);
  Request request{s_message, static_cast<unsigned int>(recordSize), failures};
  const uint16_t type = s_message.header.type;
  Handler handler = type < HANDLER_COUNT ? kHandlers[type] : HandleUnrecognized;
  return handler(request);
}

// One receive: without waiting first, so that a busy queue is drained
// without a sleeping call, then waiting when the queue was empty. Before the
// wait the lines written so far go to the kernel: an idle daemon shows every
// line at once, not at the next tick.
int Receive(long* textSize) {
  int result = osSysVQueueReceive(sys5q, &s_message, KES_MAX_QUEUE_TEXT, 1, textSize);
  if (result == OS_ERROR_WOULD_BLOCK) {
    WriteOutFiles();
    result = osSysVQueueReceive(sys5q, &s_message, KES_MAX_QUEUE_TEXT, 0, textSize);
  }
  return result;
}

// A receive that gave no record. An interrupted wait is a warning; any
// other failure an event. A record too large for the buffer would stay at
// the head of the queue and fail every receive after it (and every restart)
// until the daemon gave up: it is taken off and dropped, once.
void ReportReceiveFailure(int result, long textSize) {
  const int callResult = result == OS_OK ? static_cast<int>(textSize) : FAILED_CALL_RESULT;
  const int error = osGetSpecificErrorCode(result);
  if (error == EINTR) {
    LogKestrinMessage(KES_SEVERITY_WARNING,
                      "run(): msgrcv returned " + std::to_string(callResult) + ", error EINTR",
                      NO_EVENT_ID);
    return;
  }
  std::string text =
      "run(): msgrcv returned " + std::to_string(callResult) + ", error " + std::to_string(error);
  long oversized = 0;
  if (error == E2BIG && osSysVQueueDiscardFirst(sys5q, &oversized) == OS_OK) {
    text += "; a message of " + std::to_string(oversized) +
            " bytes was taken off the queue and dropped";
  }
  RaiseEvent(s_errorReadingQueue, EventId_ErrorReadingQueue, text);
}

void ReloadOnHup() {
  LogInfo("HUP signal received; reloading configuration");
  reload_configuration();
}

void EndOfLoop() {
  if (graceful_quit) LogInfo("Kestrin detected a pending kill of itself. Cleaning up.");
  if (abortive_quit) {
    osSyslog(OS_LOG_CRIT, "%s", "Kestrin: Abort requested");
    osExitNow(1);
  }
}

// ---- queue creation --------------------------------------------------------

[[noreturn]] void ExitAfterQueueFailure(const std::string& text) {
  LogKestrinMessage(KES_SEVERITY_ERROR, text, NO_EVENT_ID);
  osExitNow(1);
}

int QueueKeyOf(char projectId) {
  int key = 0;
  const int result = KesIpcKey(static_cast<unsigned char>(projectId), &key);
  if (result != OS_OK) {
    int error = osGetSpecificErrorCode(result);
    ExitAfterQueueFailure("ftok failed, errno = " +
                          std::to_string(error != 0 ? error : ENAMETOOLONG));
  }
  return key;
}

void RaiseByteLimit(int queueId, unsigned long byteLimit) {
  if (byteLimit == KES_QUEUE_BYTE_LIMIT) return;
  LogInfo("message queue was " + std::to_string(byteLimit) + " bytes, changing to " +
          std::to_string(KES_QUEUE_BYTE_LIMIT) + " bytes");
  int result = osSysVQueueSetByteLimit(queueId, KES_QUEUE_BYTE_LIMIT);
  if (result == OS_OK) return;
  // Not fatal: the queue keeps its old limit and clients see it fill sooner.
  const std::string text = "unable to increase message queue size, errno = " +
                           std::to_string(osGetSpecificErrorCode(result));
  LogKestrinMessage(KES_SEVERITY_ERROR, text, NO_EVENT_ID);
  RaiseKestrinAlarm(1, KES_SEVERITY_ERROR, EventId_ErrorResizingQueue, text.c_str(), 1);
}

// ---- timer tick --------------------------------------------------------------

void RefreshHostname() {
  char name[sizeof Hostname];
  int result = osTCPGetHostName(name, sizeof name);
  if (result != OS_OK) {
    LogKestrinMessage(KES_SEVERITY_WARNING,
                      "Error " + std::to_string(result) + " retrieving hostname", NO_EVENT_ID);
    return;
  }
  if (strncmp(name, Hostname, sizeof Hostname) == 0) return;
  // Readers on the main thread may see a partly copied name for a moment;
  // that is accepted rather than locking every log line.
  osLStrCpyn(Hostname, name, sizeof Hostname);
  LogDebug(std::string("Saving new hostname ") + name);
}

// One tick pass after the optional host-name refresh; true when it worked.
bool TickPass() {
  int result = osSleep(TICK_INTERVAL_MS);
  if (result != OS_OK) {
    LogKestrinMessage(KES_SEVERITY_WARNING,
                      "TimerTickThread(): osSleep failed: error " + std::to_string(result),
                      NO_EVENT_ID);
    return false;
  }
  result = SendHeaderOnlyRecord(sys5q, KES_TIMER_TICK, false);
  if (result != OS_OK) {
    LogKestrinMessage(
        KES_SEVERITY_WARNING,
        "TimerTickThread(): Failed to send message: error " + std::to_string(FAILED_CALL_RESULT),
        NO_EVENT_ID);
    return false;
  }
  return true;
}

void TimerTickEntry(void* /*argument*/) { TimerTickThread(0); }

// ---- clean-up ----------------------------------------------------------------

// Clean-up sends a record that must go back behind the others at most this
// often while clients keep the queue full, this long apart.
constexpr int PUT_BACK_ATTEMPTS = 20;
constexpr unsigned long PUT_BACK_PAUSE_MS = 5;

// A record as big as the largest the system allows, for looking at records
// that the main loop never took off.
class QueueRecordBuffer {
 public:
  QueueRecordBuffer() {
    if (osSysVQueueMaxTextSize(&maxText_) != OS_OK || maxText_ < KES_MAX_QUEUE_TEXT) {
      maxText_ = KES_MAX_QUEUE_TEXT;
    }
    words_.resize(1 + (maxText_ + sizeof(long) - 1) / sizeof(long));
  }
  void* Data() { return words_.data(); }
  size_t MaxText() const { return maxText_; }
  const tKesLoggerMessage& Record() const {
    return *reinterpret_cast<const tKesLoggerMessage*>(words_.data());
  }

 private:
  size_t maxText_ = 0;
  std::vector<long> words_;
};

// An internal report as the main loop would dispatch it: type word 1, a
// header of version 34 and type 12, small enough to be received.
bool IsInternalReport(const tKesLoggerMessage& record, long textSize) {
  return textSize <= static_cast<long>(KES_MAX_QUEUE_TEXT) &&
         KesRecordSizeFromQueueLength(textSize) >= MIN_RECORD_SIZE && record.mtype == 1 &&
         record.header.version == KES_INTERFACE_VERSION &&
         record.header.type == KES_INTERNAL_LOG_REQUEST;
}

// Where the internal reports lie among the waiting records.
struct WaitingRecords {
  int result = OS_OK;      // of the last look: OS_ERROR_WOULD_BLOCK at the end
  unsigned long count = 0;
  unsigned long reports = 0;
  bool otherAheadOfReport = false;
};

WaitingRecords Survey(QueueRecordBuffer& buffer) {
  WaitingRecords waiting;
  bool otherSeen = false;
  for (;; ++waiting.count) {
    long textSize = 0;
    waiting.result =
        osSysVQueuePeek(sys5q, waiting.count, buffer.Data(), buffer.MaxText(), &textSize);
    if (waiting.result != OS_OK) break;
    if (IsInternalReport(buffer.Record(), textSize)) {
      ++waiting.reports;
      if (otherSeen) waiting.otherAheadOfReport = true;
    } else {
      otherSeen = true;
    }
  }
  return waiting;
}

// Takes the first record off the queue (it is in `buffer`) and counts it as
// the main loop would, so that the stale rule sees every record in turn.
void TakeFirst() {
  osSysVQueueDiscardFirst(sys5q, nullptr);
  ++NumMessagesReadFromQueue;
}

void WriteReport(const tKesLoggerMessage& record, long textSize) {
  memcpy(&s_message, &record, sizeof(long) + static_cast<size_t>(textSize));
  ErrorThrottle unused(KES_LOOP_MAX_FAILURES, KES_LOOP_FAILURE_PERIOD_SECONDS);
  Request request{s_message, static_cast<unsigned int>(KesRecordSizeFromQueueLength(textSize)),
                  unused};
  HandleInternalLogRequestRecord(request);
}

// Puts a copy of the first record at the back, before it is taken off, so
// that a queue kept full by clients can cost order but never a record.
bool CopyToBack(QueueRecordBuffer& buffer, long textSize) {
  for (int attempt = 0; attempt < PUT_BACK_ATTEMPTS; ++attempt) {
    int result = osSysVQueueSend(sys5q, buffer.Data(), static_cast<size_t>(textSize), 1);
    if (result == OS_OK) return true;
    if (result != OS_ERROR_WOULD_BLOCK) return false;
    osSleep(PUT_BACK_PAUSE_MS);
  }
  return false;
}

}  // namespace

void WriteWaitingInternalReports() {
  if (sys5q == -1) return;
  QueueRecordBuffer buffer;
  const WaitingRecords waiting = Survey(buffer);
  if (waiting.result != OS_ERROR_WOULD_BLOCK) {
    LogKestrinMessage(KES_SEVERITY_WARNING,
                      "Unable to look at the records left on the request queue, error " +
                          std::to_string(osGetSpecificErrorCode(waiting.result)) +
                          "; internal reports among them stay there for the next start",
                      NO_EVENT_ID);
    return;
  }
  if (waiting.reports == 0) return;
  unsigned long reportsLeft = waiting.reports;
  // Reports at the front are simply taken. Once another record stands ahead
  // of a report, every waiting record goes round to the back, so that the
  // others end in their old order.
  for (unsigned long i = 0; i < waiting.count; ++i) {
    long textSize = 0;
    if (osSysVQueuePeek(sys5q, 0, buffer.Data(), buffer.MaxText(), &textSize) != OS_OK) break;
    if (IsInternalReport(buffer.Record(), textSize)) {
      TakeFirst();
      --reportsLeft;
      WriteReport(buffer.Record(), textSize);
    } else if (!waiting.otherAheadOfReport) {
      break;
    } else if (CopyToBack(buffer, textSize)) {
      TakeFirst();
    } else {
      break;
    }
  }
  if (reportsLeft == 0) return;
  LogKestrinMessage(KES_SEVERITY_WARNING,
                    "The request queue stayed full during clean-up; " +
                        std::to_string(reportsLeft) +
                        " internal reports stay on it for the next start",
                    NO_EVENT_ID);
}

int SendHeaderOnlyRecord(int queueId, uint16_t type, bool noWait) {
  tKesLoggerMessage message;
  memset(&message, 0, sizeof(long) + KesQueueSendLength(sizeof(tKesMessage)));
  message.mtype = 1;
  message.header.version = KES_INTERFACE_VERSION;
  message.header.type = type;
  return osSysVQueueSend(queueId, &message, KesQueueSendLength(sizeof(tKesMessage)), noWait);
}

bool CheckQueueRecord(const tKesLoggerMessage& message, long textSize) {
  const long recordSize = KesRecordSizeFromQueueLength(textSize);
  if (recordSize < MIN_RECORD_SIZE) {
    RaiseEvent(s_invalidMessageReceived, EventId_InvalidMessageReceived,
               "Received message from queue with body size " + std::to_string(recordSize) +
                   ", which is less than the minimum of " + std::to_string(MIN_RECORD_SIZE));
    return false;
  }
  if (message.mtype != 1) {
    RaiseEvent(
        s_invalidMessageType, EventId_InvalidMessageType,
        "Received message from queue with invalid header of " + std::to_string(message.mtype));
    return false;
  }
  return checkMessageVersion(message.header, QUEUE_SOURCE);
}

bool checkMessageVersion(const tKesMessage& header, const char* source) {
  if (header.version == KES_INTERFACE_VERSION) return true;
  // Network threads check versions too: the event point is created and
  // raised under a lock of its own.
  static Zor::GenericCriticalSection* lock = new Zor::GenericCriticalSection;
  Zor::ScopedCriticalSectionLock guard(*lock);
  RaiseEvent(s_versionMismatch, EventId_VersionMismatchError,
             std::string("Version mismatch: received a message from ") + source + " with version " +
                 std::to_string(header.version) + "; expecting version " +
                 std::to_string(KES_INTERFACE_VERSION) +
                 ". Ensure that the QRT Library, the Master, " +
                 "and the Agents are all using the same version.");
  return false;
}

void createKestrinsQueue() {
  if (!InitializeSharedMemory()) {
    LogError("unable to initialize shared memory");
    osSyslog(OS_LOG_CRIT, "%s", "Kestrin unable to initialize shared memory");
    osExitNow(1);
  }
  const int key = QueueKeyOf(QueueKey);
  int queueId = -1;
  int result = osSysVQueueOpen(key, 0, &queueId);
  if (result != OS_OK) result = osSysVQueueOpen(key, 1, &queueId);
  if (result != OS_OK) {
    ExitAfterQueueFailure("msgget failed, errno = " +
                          std::to_string(osGetSpecificErrorCode(result)));
  }
  sys5q = queueId;
  unsigned long messageCount = 0;
  unsigned long byteLimit = 0;
  result = osSysVQueueStat(queueId, &messageCount, &byteLimit);
  if (result != OS_OK) {
    ExitAfterQueueFailure("unable to stat the message queue, errno = " +
                          std::to_string(osGetSpecificErrorCode(result)));
  }
  NumMessagesInitiallyInQueue = messageCount;
  RaiseByteLimit(queueId, byteLimit);
  LogDebug("The message queue is ready.");
}

void run() {
  ErrorThrottle failures(KES_LOOP_MAX_FAILURES, KES_LOOP_FAILURE_PERIOD_SECONDS);
  for (;;) {
    if (termination_requested) {
      clean_up(sys5q, KES_REASON_SERVICE_MANAGER_STOP, KES_TEXT_SERVICE_MANAGER_STOP);
    }
    if (graceful_quit || abortive_quit) break;

    long textSize = 0;
    const int result = Receive(&textSize);
    const bool hupNoted = hup_received.exchange(0) != 0;
    if (hupNoted) ReloadOnHup();
    if (result != OS_OK || textSize <= 0) {
      // A receive interrupted by SIGHUP, or by the SIGTERM whose stop the
      // top of the loop takes next, is expected and not counted.
      if (hupNoted || termination_requested) continue;
      ReportReceiveFailure(result, textSize);
      if (!failures.anotherErrorOK()) {
        clean_up(sys5q, KES_REASON_TOO_MANY_RECEIVE_FAILURES,
                 "run(): too many consecutive failures. Exiting.");
      }
      continue;
    }
    ++NumMessagesReadFromQueue;
    const Outcome outcome = CheckAndDispatch(textSize, failures);
    if (outcome == Outcome::STOP) return;
    if (outcome == Outcome::DISPATCHED &&
        NumMessagesReadFromQueue % static_cast<uint64_t>(MESSAGES_BEFORE_SLEEP) == 0) {
      WriteOutFiles();
      osSleep(static_cast<unsigned long>(SLEEP_TIME));
    }
  }
  EndOfLoop();
}

void StartTimerTickThread() {
  int result = osCreateTask("", 0, TIMER_TICK_STACK_SIZE, TimerTickEntry, nullptr, nullptr);
  if (result != OS_OK) {
    LogError("osCreateTask returned " + std::to_string(result) +
             "; cannot start timer-tick thread");
  }
}

void TimerTickThread(unsigned long /*argument*/) {
  unsigned int passCounter = 0;
  int consecutiveFailures = 0;
  for (;;) {
    if (graceful_quit || abortive_quit) return;
    if (passCounter > HOSTNAME_REFRESH_PASSES) {
      passCounter = 0;
      RefreshHostname();
    } else {
      ++passCounter;
    }
    if (TickPass()) {
      consecutiveFailures = 0;
      continue;
    }
    if (++consecutiveFailures >= MAX_CONSECUTIVE_TICK_FAILURES) {
      // The main loop sees the flag on its next pass and aborts.
      abortive_quit = 1;
      return;
    }
  }
}

void ResetRequestLoopForTesting() {
  s_versionMismatch.reset();
  s_invalidMessageType.reset();
  s_errorReadingQueue.reset();
  s_invalidMessageReceived.reset();
  NoOpText().str("");
  s_tickCount = 0;
  NumMessagesInitiallyInQueue = 0;
  NumMessagesReadFromQueue = 0;
}

}  // namespace kestrin
