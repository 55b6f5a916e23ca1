// The daemon's own events and the fault-record notifications of mapped
// requests.
//
// InternalEventManager submits the daemon's own events through the client
// library, like any application, and holds them back (at most 25) until the
// system can accept events. ThrottledEventPoint limits how often one
// recurring problem is logged and raised. SendAlarmNotification turns a
// request that the taxonomy marks as a trap, alarm or visible event into a
// fault record.
#ifndef KESTRIN_KESTRIN_ALARM_UTILS_H_
#define KESTRIN_KESTRIN_ALARM_UTILS_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "zor/CriticalSection.h"

namespace kestrin {

constexpr int32_t EventId_Base = 7000;
constexpr int32_t EventId_ErrorReadingAlarmTaxonomy = 7001;
constexpr int32_t EventId_ErrorReadingConfigFile = 7002;
constexpr int32_t EventId_VersionMismatchError = 7010;
constexpr int32_t EventId_InvalidMessageType = 7011;
constexpr int32_t EventId_ErrorReadingQueue = 7012;
constexpr int32_t EventId_InvalidMessageReceived = 7013;
constexpr int32_t EventId_MasterInitFailure = 7030;
constexpr int32_t EventId_MasterInitSucceeded = 7031;
constexpr int32_t EventId_ErrorResizingQueue = 7040;
constexpr int32_t EventId_LinesLost = 7050;
constexpr int32_t EventId_LinesWrittenAgain = 7051;

// One event held back until the system can accept events; owns its text.
class DeferredEvent {
 public:
  DeferredEvent(uint8_t destinationLogs, uint16_t severity, uint32_t eventId,
                const std::string& message, uint32_t eventClass)
      : destinationLogs(destinationLogs),
        severity(severity),
        eventId(eventId),
        message(message),
        eventClass(eventClass) {}

  uint8_t GetDestinationLogs() const { return destinationLogs; }
  uint16_t GetSeverity() const { return severity; }
  uint32_t GetEventID() const { return eventId; }
  const std::string& GetMessage() const { return message; }
  uint32_t GetEventClass() const { return eventClass; }

 private:
  uint8_t destinationLogs;
  uint16_t severity;
  uint32_t eventId;
  std::string message;
  uint32_t eventClass;
};

// Submits the daemon's own events through the client library, registered
// under the module names "Kestrin" and the own log's file name. Until
// SystemCanGenerateEvents, and while registration fails, events are held
// back in arrival order; the first 25 are kept and later ones dropped
// silently. Registration is retried on every event until it succeeds.
//
// Any thread may call every operation: one critical section guards the
// handle, the deferred events and the flag. The client-library calls are
// made while holding it; they never wait (a full queue is an error).
class InternalEventManager {
 public:
  // The client library's signatures (QrtDiagRegisterModule and
  // QrtDiagAddLogWithEvClass), replaceable so that tests can watch the
  // submissions and make registration fail.
  using RegisterFunction = int (*)(const char* moduleName, const char* moduleNameInLog, int flags,
                                   const char* logFileName, int* handle);
  using AddLogFunction = int (*)(int handle, unsigned char destination, unsigned short severity,
                                 unsigned long eventId, const char* text, unsigned long eventClass);

  static constexpr size_t MAX_DEFERRED_EVENTS = 25;

  // The process-wide instance, created on first use, using the client
  // library.
  static InternalEventManager& Instance();

  // Null functions mean the client library's own.
  explicit InternalEventManager(RegisterFunction registerModule = nullptr,
                                AddLogFunction addLog = nullptr);
  InternalEventManager(const InternalEventManager&) = delete;
  InternalEventManager& operator=(const InternalEventManager&) = delete;

  // Submits the event (after any deferred ones) once the system can
  // generate events and a handle is had; otherwise defers it. A failed
  // submission is logged as an error and not repeated.
  void GenerateEvent(uint8_t destinationLogs, uint16_t severity, uint32_t eventId, const char* text,
                     uint32_t eventClass);

  // From now on events are submitted; the deferred ones go first.
  void SystemCanGenerateEvents();

  size_t GetDeferredEventCount();
  // The client-library handle; -1 while not registered.
  int GetHandle();

  // Tests only: back to the state at start (no handle, no deferred events,
  // events not yet possible) with the given client-library functions.
  void ResetForTesting(RegisterFunction registerModule, AddLogFunction addLog);

 private:
  // The handle, registering first when none is held; -1 when that fails.
  int GetKestrinsLoggingHandle();
  // Submits the deferred events in order when a handle can be had.
  void GenerateDeferredEvents();
  void Submit(int handle, const DeferredEvent& event);

  Zor::GenericCriticalSection lock;
  int handle;                                // -1 while not registered
  std::deque<DeferredEvent> deferredEvents;  // at most MAX_DEFERRED_EVENTS
  bool systemCanGenerateEvents;              // false until SystemCanGenerateEvents
  RegisterFunction registerModule;
  AddLogFunction addLog;
};

// Submits one of the daemon's own events (deferred until
// IssueDeferredKestrinAlarms when raised earlier). Any thread. Callers pass
// destination 1 and event class 1 for a raise, 2 for a clear.
void RaiseKestrinAlarm(unsigned char destinationLogs, unsigned short severity,
                       unsigned long eventId, const char* text, unsigned long eventClass);

// The system can now accept events: submits the deferred ones, in order.
void IssueDeferredKestrinAlarms();

// Limits the messages and alarms of one recurring problem: 10 messages, then
// one per 10 s carrying the count of those suppressed; one alarm per hour.
// Not locked: each instance is used by one thread.
class ThrottledEventPoint {
 public:
  // The clear event ID is then -1 and the clear severity 8.
  ThrottledEventPoint(unsigned short raiseSeverity, unsigned long raiseEventId);
  ThrottledEventPoint(unsigned short raiseSeverity, unsigned long raiseEventId,
                      unsigned short clearSeverity, unsigned long clearEventId);

  // A null text counts as empty (no message, the alarm may still be raised).
  void Raise(const char* text);
  void Raise(const std::string& text) { Raise(text.c_str()); }
  void Clear(const char* text);
  void Clear(const std::string& text) { Clear(text.c_str()); }

 private:
  uint32_t raiseEventId;
  uint16_t raiseSeverity;
  uint32_t clearEventId;
  uint16_t clearSeverity;
  uint32_t messageAllowance;          // 10
  uint32_t throttledMessageInterval;  // 10000 ms
  uint32_t alarmRepeatInterval;       // 3600000 ms
  uint32_t suppressedMessageCount;
  uint32_t issuedMessageCount;
  uint32_t timeOfLastMessage;
  uint32_t timeOfLastAlarm;
  int alarmState;  // 0 never raised, 1 raised, 2 cleared
};

// The next notification sequence number; runs from 0 to 99998 and wraps.
// Guarded by SendAlarmNotification's own critical section; tests may set it
// while no notification is under way.
extern uint32_t trapCount;

// Fills and dispatches a fault record for a mapped request. `entitySubId` is
// the registering client's module name; the record's defined name is
// "systemId=PXR;entityId=<Hostname>;entitySubId=<entitySubId>". A dispatch
// failure is logged as an error. Any thread; null texts count as empty.
void SendAlarmNotification(int32_t eventId, const char* entitySubId, long raiseTime,
                           const char* originalSeverity, int32_t severity, const char* reason,
                           const char* alarmSetText, const char* alarmSetQueueName);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_ALARM_UTILS_H_
