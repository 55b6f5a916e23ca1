#include "kestrin/AlarmUtils.h"

#include <string>

#include "flt/FltRecord.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "osa/osa.h"
#include "qrt/QrtDiag.h"
#include "zor/Scoped.h"

namespace kestrin {

uint32_t trapCount = 0;

namespace {

constexpr char OWN_MODULE_NAME[] = "Kestrin";
constexpr uint32_t LAST_SEQUENCE_NUMBER = 99998;

constexpr uint32_t MESSAGE_ALLOWANCE = 10;
constexpr uint32_t THROTTLED_MESSAGE_INTERVAL_MS = 10000;
constexpr uint32_t ALARM_REPEAT_INTERVAL_MS = 3600000;

enum : int { ALARM_NEVER_RAISED = 0, ALARM_RAISED = 1, ALARM_CLEARED = 2 };

bool IsEmpty(const char* text) { return text == nullptr || *text == '\0'; }

// The clock as the throttle keeps it: 32 bits, compared by unsigned
// differences so that a wrap of the clock does not matter.
uint32_t Now() { return static_cast<uint32_t>(osGetClock()); }

uint32_t NextSequenceNumber() {
  static Zor::GenericCriticalSection sequenceLock;
  Zor::ScopedCriticalSectionLock hold(sequenceLock);
  uint32_t number = trapCount++;
  if (trapCount > LAST_SEQUENCE_NUMBER) trapCount = 0;
  return number;
}

}  // namespace

// ---- InternalEventManager -----------------------------------------------

InternalEventManager& InternalEventManager::Instance() {
  static InternalEventManager instance;
  return instance;
}

InternalEventManager::InternalEventManager(RegisterFunction registerModule, AddLogFunction addLog)
    : handle(-1),
      systemCanGenerateEvents(false),
      registerModule(registerModule != nullptr ? registerModule : QrtDiagRegisterModule),
      addLog(addLog != nullptr ? addLog : QrtDiagAddLogWithEvClass) {}

int InternalEventManager::GetKestrinsLoggingHandle() {
  if (handle != -1) return handle;
  int registered = -1;
  if (registerModule(OWN_MODULE_NAME, OWN_MODULE_NAME, 0, NameOfKestrinsOwnLog.c_str(),
                     &registered) == 0) {
    handle = registered;
  }
  return handle;
}

void InternalEventManager::Submit(int registeredHandle, const DeferredEvent& event) {
  int result = addLog(registeredHandle, event.GetDestinationLogs(), event.GetSeverity(),
                      event.GetEventID(), event.GetMessage().c_str(), event.GetEventClass());
  if (result != 0 && OwnLogAdmits(KES_SEVERITY_ERROR)) {
    LogError("Error " + std::to_string(result) + " calling QrtDiagAddLogWithEvClass for eventID " +
             std::to_string(event.GetEventID()));
  }
}

void InternalEventManager::GenerateDeferredEvents() {
  int registeredHandle = GetKestrinsLoggingHandle();
  if (registeredHandle == -1) return;
  // A failed submission is reported and the event dropped all the same:
  // retrying it would only repeat the failure on every later event.
  while (!deferredEvents.empty()) {
    Submit(registeredHandle, deferredEvents.front());
    deferredEvents.pop_front();
  }
}

void InternalEventManager::GenerateEvent(uint8_t destinationLogs, uint16_t severity,
                                         uint32_t eventId, const char* text, uint32_t eventClass) {
  Zor::ScopedCriticalSectionLock hold(lock);
  DeferredEvent event(destinationLogs, severity, eventId, text == nullptr ? "" : text, eventClass);
  int registeredHandle = systemCanGenerateEvents ? GetKestrinsLoggingHandle() : -1;
  if (registeredHandle != -1) {
    GenerateDeferredEvents();
    Submit(registeredHandle, event);
    return;
  }
  // The oldest events are kept: they are the likeliest cause of the rest.
  if (deferredEvents.size() < MAX_DEFERRED_EVENTS) deferredEvents.push_back(event);
}

void InternalEventManager::SystemCanGenerateEvents() {
  Zor::ScopedCriticalSectionLock hold(lock);
  GenerateDeferredEvents();
  systemCanGenerateEvents = true;
}

size_t InternalEventManager::GetDeferredEventCount() {
  Zor::ScopedCriticalSectionLock hold(lock);
  return deferredEvents.size();
}

int InternalEventManager::GetHandle() {
  Zor::ScopedCriticalSectionLock hold(lock);
  return handle;
}

void InternalEventManager::ResetForTesting(RegisterFunction registerFunction,
                                           AddLogFunction addLogFunction) {
  Zor::ScopedCriticalSectionLock hold(lock);
  handle = -1;
  deferredEvents.clear();
  systemCanGenerateEvents = false;
  registerModule = registerFunction != nullptr ? registerFunction : QrtDiagRegisterModule;
  addLog = addLogFunction != nullptr ? addLogFunction : QrtDiagAddLogWithEvClass;
}

void RaiseKestrinAlarm(unsigned char destinationLogs, unsigned short severity,
                       unsigned long eventId, const char* text, unsigned long eventClass) {
  InternalEventManager::Instance().GenerateEvent(destinationLogs, severity,
                                                 static_cast<uint32_t>(eventId), text,
                                                 static_cast<uint32_t>(eventClass));
}

void IssueDeferredKestrinAlarms() { InternalEventManager::Instance().SystemCanGenerateEvents(); }

// ---- ThrottledEventPoint ------------------------------------------------

ThrottledEventPoint::ThrottledEventPoint(unsigned short raiseSeverity, unsigned long raiseEventId)
    : ThrottledEventPoint(raiseSeverity, raiseEventId, KES_SEVERITY_DEBUG,
                          static_cast<unsigned long>(-1)) {}

ThrottledEventPoint::ThrottledEventPoint(unsigned short raiseSeverity, unsigned long raiseEventId,
                                         unsigned short clearSeverity, unsigned long clearEventId)
    : raiseEventId(static_cast<uint32_t>(raiseEventId)),
      raiseSeverity(raiseSeverity),
      clearEventId(static_cast<uint32_t>(clearEventId)),
      clearSeverity(clearSeverity),
      messageAllowance(MESSAGE_ALLOWANCE),
      throttledMessageInterval(THROTTLED_MESSAGE_INTERVAL_MS),
      alarmRepeatInterval(ALARM_REPEAT_INTERVAL_MS),
      suppressedMessageCount(0),
      issuedMessageCount(0),
      timeOfLastMessage(0),
      timeOfLastAlarm(0),
      alarmState(ALARM_NEVER_RAISED) {}

void ThrottledEventPoint::Raise(const char* text) {
  const uint32_t now = Now();
  const bool alarmDue = alarmState != ALARM_RAISED || now - timeOfLastAlarm >= alarmRepeatInterval;
  if (!IsEmpty(text)) {
    const bool messageDue = alarmDue || issuedMessageCount < messageAllowance ||
                            now - timeOfLastMessage >= throttledMessageInterval;
    if (messageDue) {
      if (OwnLogAdmits(raiseSeverity)) {
        std::string message = text;
        if (suppressedMessageCount > 0) {
          message +=
              " (Suppressed " + std::to_string(suppressedMessageCount) + " similar messages.)";
        } else if (issuedMessageCount + 1 == messageAllowance) {
          message += " (In future, similar messages may be suppressed.)";
        }
        LogKestrinMessage(raiseSeverity, message, raiseEventId);
      }
      timeOfLastMessage = now;
      suppressedMessageCount = 0;
      ++issuedMessageCount;
    } else {
      ++suppressedMessageCount;
    }
  }
  if (alarmDue) {
    RaiseKestrinAlarm(1, raiseSeverity, raiseEventId, IsEmpty(text) ? "" : text, 1);
    timeOfLastAlarm = now;
    alarmState = ALARM_RAISED;
  }
}

void ThrottledEventPoint::Clear(const char* text) {
  if (alarmState == ALARM_CLEARED) return;
  if (!IsEmpty(text) && OwnLogAdmits(clearSeverity)) {
    LogKestrinMessage(clearSeverity, text, clearEventId);
  }
  if (alarmState == ALARM_RAISED) {
    RaiseKestrinAlarm(1, clearSeverity, clearEventId, IsEmpty(text) ? "" : text, 2);
  }
  alarmState = ALARM_CLEARED;
}

// ---- SendAlarmNotification ----------------------------------------------

void SendAlarmNotification(int32_t eventId, const char* entitySubId, long raiseTime,
                           const char* originalSeverity, int32_t severity, const char* reason,
                           const char* alarmSetText, const char* alarmSetQueueName) {
  CFltRecord record;
  record.setEventId(eventId);
  record.setNotificationSequenceNumber(NextSequenceNumber());
  const std::string definedName = std::string("systemId=PXR;entityId=") + Hostname +
                                  ";entitySubId=" + (entitySubId == nullptr ? "" : entitySubId);
  record.setDefinedName(definedName.c_str());
  record.setRaiseTime(raiseTime);
  record.setIsClear(false);
  record.setOriginalSeverity(originalSeverity);
  record.setReason(reason);
  record.setAlarmSetText(alarmSetText);
  record.setAlarmSetQueueName(alarmSetQueueName);
  record.setSeverity(severity);
  int result = FltDispatch(record);
  if (result != 0 && OwnLogAdmits(KES_SEVERITY_ERROR)) {
    LogError("Error " + std::to_string(result) + " attempting to dispatch event " +
             std::to_string(eventId));
  }
}

}  // namespace kestrin
