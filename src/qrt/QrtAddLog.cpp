// Log messages: the filter check against the daemon's published filters, the
// add-log record, the non-waiting send and the dropped-messages accounting.
#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <atomic>

#include "protocol/Records.h"
#include "osa/osa.h"
#include "qrt/QrtConnection.h"
#include "qrt/QrtDiag.h"
#include "qrt/QrtInternal.h"

namespace {

using kestrin::tKesAddLogMessage;
using kestrin::tKesLoggerMessage;

constexpr size_t TEXT_OFFSET = offsetof(tKesAddLogMessage, text);
constexpr size_t MAX_TEXT_LENGTH = kestrin::KES_MAX_MESSAGE_TEXT - 1;  // 899
// Flag bit: messages of this process were dropped before this one.
constexpr uint16_t FLAG_MESSAGES_DROPPED = 2;

// Dropped-messages accounting, lock-free so that any thread may log.
// g_dropped counts every message the queue refused; g_reported is the
// highest value of g_dropped that a delivered message has carried the flag
// for. A message carries the flag while the two differ when it is built, so
// a drop that happens while another thread's flagged message is in flight is
// still reported by a later message.
std::atomic<unsigned long> g_dropped{0};
std::atomic<unsigned long> g_reported{0};

void mark_reported(unsigned long dropped) {
  unsigned long seen = g_reported.load();
  while (seen < dropped && !g_reported.compare_exchange_weak(seen, dropped)) {
  }
}

// The process ID goes into every record. Asking the system each time costs
// a system call per message, so it is asked once and forgotten in the child
// of every fork, which has an ID of its own. 0 until asked.
std::atomic<unsigned long> g_processId{0};

void forget_process_id() { g_processId.store(0, std::memory_order_relaxed); }

unsigned long process_id() {
  static const int forgetInChild = pthread_atfork(nullptr, nullptr, forget_process_id);
  (void)forgetInChild;
  unsigned long pid = g_processId.load(std::memory_order_relaxed);
  if (pid == 0) {
    osGetProcessId(&pid);
    g_processId.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

// Whether a message of `severity` for `handle` is to be sent. Reads the
// shared memory only: no system call once the segments are attached. Also
// gives the queue id already known (or -1) for the send.
int admit(int handle, unsigned short severity, bool* send, int* queueId) {
  if (handle < 0 || handle >= KES_REG_TABLE_SLOTS) return QRT_ERROR_INVALID_HANDLE;
  qrt::Segments segments;
  int result = qrt::get_segments_and_queue(&segments, queueId);
  if (result != QRT_OK) return result;
  if (__atomic_load_n(&segments.table[handle].state, __ATOMIC_ACQUIRE) !=
      KES_SLOT_STATE_REGISTERED) {
    return QRT_ERROR_INVALID_HANDLE;
  }
  // One aligned 32-bit load: the daemon rewrites filters without a lock.
  uint32_t filter = __atomic_load_n(&segments.filters->filter[handle], __ATOMIC_RELAXED);
  *send = severity <= filter;
  return QRT_OK;
}

void fill_add_log(tKesAddLogMessage* record, int handle, unsigned char destination,
                  unsigned short severity, unsigned long eventId, unsigned long eventClass) {
  record->header.version = kestrin::KES_INTERFACE_VERSION;
  record->header.type = kestrin::KES_ADD_LOG;
  record->handle = static_cast<uint32_t>(handle);
  record->destination = destination;
  record->severity = severity;
  record->eventClass = static_cast<uint32_t>(eventClass);
  record->eventId = static_cast<int32_t>(eventId);
  long seconds = 0;
  long microseconds = 0;
  osGetTimeOfDay(&seconds, &microseconds);
  record->timeSeconds = static_cast<int32_t>(seconds);
  record->timeMicroseconds = static_cast<int32_t>(microseconds);
  record->cardId = 0;
  record->pid = static_cast<int32_t>(process_id());
}

// Builds and sends one admitted message on `queueId` (-1: look it up);
// `textLength` is at most 899.
int send_add_log(int queueId, int handle, unsigned char destination, unsigned short severity,
                 unsigned long eventId, const char* text, size_t textLength,
                 unsigned long eventClass) {
  tKesLoggerMessage message;
  const size_t recordSize = TEXT_OFFSET + textLength + 1;
  const size_t sendLength = kestrin::KesQueueSendLength(recordSize);
  // Every byte sent is set: the record's fields, the text, and zeros from
  // its NUL to the end (the length convention's bytes included).
  memset(&message, 0, offsetof(tKesLoggerMessage, addLog) + sendLength);
  message.mtype = 1;
  fill_add_log(&message.addLog, handle, destination, severity, eventId, eventClass);
  memcpy(message.addLog.text, text, textLength);
  unsigned long dropped = g_dropped.load();
  if (dropped != g_reported.load()) message.addLog.flags |= FLAG_MESSAGES_DROPPED;
  int result = qrt::send_to_queue(queueId, &message, sendLength, 1);
  if (result == QRT_OK) {
    mark_reported(dropped);
  } else {
    g_dropped.fetch_add(1);
  }
  return result;
}

int add_log(int handle, unsigned char destination, unsigned short severity, unsigned long eventId,
            const char* text, unsigned long eventClass) {
  bool send = false;
  int queueId = -1;
  int result = admit(handle, severity, &send, &queueId);
  if (result != QRT_OK || !send) return result;
  if (text == nullptr) text = "";
  return send_add_log(queueId, handle, destination, severity, eventId, text,
                      strnlen(text, MAX_TEXT_LENGTH), eventClass);
}

int add_log_formatted(int handle, unsigned char destination, unsigned short severity,
                      unsigned long eventId, const char* format, va_list args) {
  if (format == nullptr) return QRT_ERROR_INVALID_PARAMETER;
  bool send = false;
  int queueId = -1;
  int result = admit(handle, severity, &send, &queueId);
  if (result != QRT_OK || !send) return result;
  char text[kestrin::KES_MAX_MESSAGE_TEXT];
  int length = vsnprintf(text, sizeof text, format, args);
  if (length < 0) return QRT_ERROR_INVALID_PARAMETER;
  size_t textLength =
      static_cast<size_t>(length) > MAX_TEXT_LENGTH ? MAX_TEXT_LENGTH : static_cast<size_t>(length);
  return send_add_log(queueId, handle, destination, severity, eventId, text, textLength,
                      QRT_EVENT_CLASS_UNSPECIFIED);
}

int enqueue(const tKesLoggerMessage* message, int noWait, unsigned int textLength) {
  tKesLoggerMessage copy;
  const size_t recordSize = FormatQueuedAddLogMessage(&copy, message, textLength);
  if (recordSize == 0) return QRT_ERROR_INVALID_PARAMETER;
  return qrt::send_to_daemon(&copy, kestrin::KesQueueSendLength(recordSize), noWait);
}

}  // namespace

extern "C" int QrtDiagAddLogWithEvClass(int handle, unsigned char destination,
                                        unsigned short severity, unsigned long eventId,
                                        const char* text, unsigned long eventClass) {
  try {
    return add_log(handle, destination, severity, eventId, text, eventClass);
  } catch (...) {
    return QRT_ERROR_INTERNAL;
  }
}

extern "C" int QrtDiagAddLog(int handle, unsigned char destination, unsigned short severity,
                             unsigned long eventId, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int result;
  try {
    result = add_log_formatted(handle, destination, severity, eventId, format, args);
  } catch (...) {
    result = QRT_ERROR_INTERNAL;
  }
  va_end(args);
  return result;
}

extern "C" unsigned long QrtDiagGetDroppedCount(void) { return g_dropped.load(); }

size_t FormatQueuedAddLogMessage(tKesLoggerMessage* out, const tKesLoggerMessage* message,
                                 unsigned int textLength) {
  if (message == nullptr || message->mtype != 1 || textLength > MAX_TEXT_LENGTH) return 0;
  memset(out, 0, sizeof *out);
  out->mtype = 1;
  memcpy(&out->addLog, &message->addLog, TEXT_OFFSET + textLength);
  out->addLog.text[textLength] = '\0';
  return TEXT_OFFSET + textLength + 1;
}

int EnqueueAddLogMessage(const tKesLoggerMessage* message, int noWait, unsigned int textLength) {
  try {
    return enqueue(message, noWait, textLength);
  } catch (...) {
    return QRT_ERROR_INTERNAL;
  }
}
