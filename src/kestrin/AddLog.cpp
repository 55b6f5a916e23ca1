#include "kestrin/AddLog.h"

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>

#include "kestrin/AlarmTaxonomy.h"
#include "kestrin/AlarmUtils.h"
#include "kestrin/CardID.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/LogFileNames.h"
#include "kestrin/RegTable.h"
#include "kestrin/TextForms.h"
#include "kestrin/Timestamp.h"
#include "osa/osa.h"

namespace kestrin {

namespace {

// Lines written at most this long ago may still sit in a file's buffer; the
// timer tick flushes every second as well.
constexpr unsigned long FLUSH_INTERVAL_MS = 4999;

constexpr char PROBLEM_RESOLUTION_PREFIX[] = "; problemResolution=";

// The line being written, with room behind its NUL for a line end, and its
// length; main thread only.
char s_line[KES_MAX_LOG_LINE + 2];
size_t s_lineLength = 0;
unsigned long s_linesFormatted = 0;
bool s_flushTimeSet = false;
unsigned long s_timeOfLastFlush = 0;  // osGetClock milliseconds; valid once s_flushTimeSet

// The names of a registration slot, cut at their fields' ends so that a slot
// a client left without a NUL cannot make a reader run on.
struct SlotNames {
  char moduleName[sizeof(tKesRegTableEntry::moduleName)];
  char moduleNameInLog[sizeof(tKesRegTableEntry::moduleNameInLog)];
};

void CopyField(char* out, const char* field, size_t size) {
  size_t length = strnlen(field, size - 1);
  memcpy(out, field, length);
  out[length] = '\0';
}

void ReadSlotNames(unsigned int handle, SlotNames* names) {
  const tKesRegTableEntry& entry = sharedRegistrationTable[handle];
  CopyField(names->moduleName, entry.moduleName, sizeof names->moduleName);
  CopyField(names->moduleNameInLog, entry.moduleNameInLog, sizeof names->moduleNameInLog);
}

// The slot's file name as NormalizeLogFileName would give it, without
// building a string: the field with its leading '/' characters skipped.
const char* NormalizedSlotFileName(const tKesRegTableEntry& entry, size_t* length) {
  size_t start = 0;
  size_t limit = strnlen(entry.logFileName, sizeof entry.logFileName);
  while (start < limit && entry.logFileName[start] == '/') ++start;
  *length = limit - start;
  return entry.logFileName + start;
}

void PublishFilter(unsigned int handle, const LogFilePtr& file) {
  if (mySegment == nullptr) return;
  mySegment->filter[handle] = file->severityFilter.Get().AsQrtSeverityForFilter();
}

// What the taxonomy made of one request, with the gaps filled from the
// request itself.
struct MappedEvent {
  int32_t eventId;
  const char* severityWord;
  DetailedSeverity severity;
  uint32_t eventClass;
  const char* message;
  const char* led1;
  const char* led2;
  bool trap;
  bool alarm;
  bool alarmSet;
  bool visible;
  const char* alarmSetText;
  const char* alarmFilterDescription;
  const char* problemResolution;
};

unsigned short QrtSeverityOf(const tKesAddLogMessage* message) {
  return static_cast<unsigned short>(message->severity & 0xffffu);
}

void MapEvent(const tKesAddLogMessage* message, MappedEvent* event) {
  alarmMapper(message->eventId, message->text, &event->eventId, &event->severityWord,
              &event->severity, &event->eventClass, &event->message, &event->led1, &event->led2,
              &event->trap, &event->alarm, &event->alarmSet, &event->visible, &event->alarmSetText,
              &event->alarmFilterDescription, &event->problemResolution);
  if (event->eventId == 0) event->eventId = message->eventId;
  if (event->severityWord == nullptr || event->severityWord[0] == '\0') {
    event->severityWord = GetSeverityStringForOperationalLogs(QrtSeverityOf(message));
    event->severity.SetFromQrtSeverity(QrtSeverityOf(message));
  }
  if (event->eventClass == 0) event->eventClass = message->eventClass;
}

void FormatLine(const tKesAddLogMessage* message, const MappedEvent& event,
                const char* moduleNameInLog) {
  // Control bytes from the client (or the taxonomy) would start a line or a
  // field of their own: they are escaped.
  std::string escapedName;
  std::string escapedMessage;
  moduleNameInLog = WithControlBytesEscaped(moduleNameInLog, &escapedName);
  const char* eventMessage = WithControlBytesEscaped(event.message, &escapedMessage);
  bool hasResolution = event.problemResolution != nullptr && event.problemResolution[0] != '\0';
  // snprintf cuts the line at KES_MAX_LOG_LINE characters and terminates it.
  snprintf(s_line, KES_MAX_LOG_LINE + 1, "<%s>\t%s%06d\t%s\t%s\t[%d]:\teventID=%d; message=%s%s%s",
           event.severityWord, GetTimestampString(message->timeSeconds), message->timeMicroseconds,
           Hostname, moduleNameInLog, message->pid, event.eventId, eventMessage,
           hasResolution ? PROBLEM_RESOLUTION_PREFIX : "",
           hasResolution ? event.problemResolution : "");
  s_lineLength = strnlen(s_line, KES_MAX_LOG_LINE);
  ++s_linesFormatted;
}

// The one way an operational line (system log, alarm log, operational
// private files, stamps) reaches a file: the formatted line and a line end,
// the bytes of "%s\n", as one write (so that a roll-over cannot come
// between them) and without printf.
void WriteFormattedLine(LogFile& file, DetailedSeverity severity) {
  s_line[s_lineLength] = '\n';
  file.LogWrite(severity, s_line, s_lineLength + 1);
  s_line[s_lineLength] = '\0';
}

void FlushWhenDue(unsigned long now) {
  if (!s_flushTimeSet) {
    s_flushTimeSet = true;
    s_timeOfLastFlush = now;
    return;
  }
  if (now - s_timeOfLastFlush > FLUSH_INTERVAL_MS) {
    s_timeOfLastFlush = now;
    FlushFiles();
  }
}

// The private-file line of a client request; `dropped` adds the note that
// the client had to drop messages.
void WritePrivateLine(const LogFilePtr& file, const tKesAddLogMessage* message,
                      const char* moduleNameInLog, int32_t eventId, const char* text,
                      bool dropped) {
  LogPrivateMessage(file, message->timeSeconds, message->timeMicroseconds, QrtSeverityOf(message),
                    message->cardId, moduleNameInLog, eventId, text, dropped);
}

std::string CardIDText(unsigned long cardId) {
  std::ostringstream out;
  out << CardID(cardId);
  return out.str();
}

}  // namespace

void process_add_log_message(const tKesAddLogMessage* message) {
  const unsigned long now = osGetClock();
  const unsigned int handle = message->handle;
  const bool toPrivateFile = (message->destination & KES_DESTINATION_PRIVATE_FILE) != 0;
  // A private file that may not be used (a refused name, or one file too
  // many) drops the whole request, before it can raise anything.
  if (toPrivateFile && !AddLogFileEntry(handle, message->cardId, message->pid)) return;
  MappedEvent event{};
  MapEvent(message, &event);

  SlotNames names;
  ReadSlotNames(handle, &names);

  if (event.trap || event.alarm || event.visible) {
    SendAlarmNotification(event.eventId, names.moduleName, message->timeSeconds, event.severityWord,
                          event.severity.GetLevel(), event.message, event.alarmSetText,
                          event.alarmFilterDescription);
  }
  UpdateLEDs(event.led1, event.led2, event.eventId);

  const bool toSystemLog = (message->destination & KES_DESTINATION_SYSTEM_LOG_BITS) != 0;
  const bool stampAll = (message->flags & KES_FLAG_STAMP_ALL_LOGS) != 0;
  const LogFilePtr& file = logFileArray[handle];
  const bool operational = !file.IsNil() && file->IsOperationalLog();

  if (toSystemLog || event.alarm || operational || stampAll) {
    if (event.eventClass == 0) {
      event.eventClass = GetDefaultEventClass(
          event.severity, static_cast<unsigned char>(message->destination & 0xff), file);
    }
    FormatLine(message, event, names.moduleNameInLog);
    if (event.alarm) WriteFormattedLine(*alarmLog, event.severity);
  }
  if (toPrivateFile && !file.IsNil()) {
    if (operational) {
      WriteFormattedLine(*file, event.severity);
    } else {
      WritePrivateLine(file, message, names.moduleNameInLog, event.eventId, event.message,
                       (message->flags & KES_FLAG_MESSAGES_DROPPED) != 0);
    }
  }
  if (toSystemLog) WriteFormattedLine(*systemlog, event.severity);
  if (stampAll) StampAllLogs(message, s_line);
  FlushWhenDue(now);
}

bool AddLogFileEntry(unsigned int handle, unsigned long cardId, long processId) {
  const tKesRegTableEntry& entry = sharedRegistrationTable[handle];
  size_t length = 0;
  const char* name = NormalizedSlotFileName(entry, &length);
  LogFilePtr& current = logFileArray[handle];
  // The common case: the handle already writes to the file of this name
  // (the map holds that same object under it), so no lookup is needed.
  if (!current.IsNil() && current->GetName().compare(0, std::string::npos, name, length) == 0) {
    PublishFilter(handle, current);
    return true;
  }
  const std::string normalized(name, length);
  bool created = false;
  current = FindOrAddLogFile(normalized, LogFileRequester::CLIENT, &created);
  if (current.IsNil()) return false;
  if (!created) {
    PublishFilter(handle, current);
    return true;
  }
  if (OwnLogAdmits(KES_SEVERITY_DEBUG)) {
    SlotNames names;
    ReadSlotNames(handle, &names);
    LogDebug(std::string("Module ") + names.moduleName + " (" + std::to_string(processId) + " on " +
             CardIDText(cardId) + ") is registering the private log file " + normalized);
  }
  return true;
}

uint32_t GetDefaultEventClass(DetailedSeverity severity, unsigned char /*byteValue*/,
                              const LogFilePtr& file) {
  if (!file.IsNil() && file->IsSecurityLog()) return EVENT_CLASS_SECURITY;
  if (severity <= DetailedSeverity(DetailedSeverity::WARN_LEVEL)) return EVENT_CLASS_FAULT;
  return EVENT_CLASS_INFORMATION;
}

void StampAllLogs(const tKesAddLogMessage* message, const char* line) {
  if (line != s_line) {
    s_lineLength = strnlen(line, KES_MAX_LOG_LINE);
    memcpy(s_line, line, s_lineLength);
    s_line[s_lineLength] = '\0';
  }
  DetailedSeverity severity;
  severity.SetFromQrtSeverity(QrtSeverityOf(message));
  for (auto& entry : logFileMap) entry.second->SetMarker(false);
  ScopedSemaphoreLock lock;
  if (!lock.Good()) {
    LogKestrinMessage(KES_SEVERITY_ERROR, "Failed to lock semaphore; cannot stamp all log files.",
                      -1);
    return;
  }
  SlotNames names;
  ReadSlotNames(message->handle, &names);
  LogKestrinMessage(KES_SEVERITY_INFO, "Stamping all log files with the following message.", -1);
  // The stamp is the same event everywhere, so no file gets the
  // dropped-messages note.
  if (!logger.IsNil()) {
    WritePrivateLine(logger, message, names.moduleNameInLog, message->eventId, message->text,
                     false);
    logger->SetMarker(true);
  }
  if (!systemlog.IsNil()) {
    WriteFormattedLine(*systemlog, severity);
    systemlog->SetMarker(true);
  }

  for (unsigned int handle = 0; handle < KES_REG_TABLE_SLOTS; ++handle) {
    if (sharedRegistrationTable[handle].state != KES_SLOT_STATE_REGISTERED) continue;
    if (logFileArray[handle].IsNil() && !AddLogFileEntry(handle, 0, -1)) continue;
    const LogFilePtr& file = logFileArray[handle];
    if (file->GetMarker()) continue;
    if (file->IsOperationalLog()) {
      WriteFormattedLine(*file, severity);
    } else {
      WritePrivateLine(file, message, names.moduleNameInLog, message->eventId, message->text,
                       false);
    }
    file->SetMarker(true);
  }
}

unsigned long NumAddLogLinesFormatted() { return s_linesFormatted; }

void ResetAddLogFlushTimeForTesting() {
  s_flushTimeSet = false;
  s_timeOfLastFlush = 0;
}

}  // namespace kestrin
