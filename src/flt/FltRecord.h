// The fault-record library: the record of one alarm notification and its
// dispatch.
//
// A CFltRecord is filled through its setters and handed to FltDispatch,
// which appends it as one JSON object on one line to the file
// "faultrecords.jsonl" in the log directory (osGetPath(OS_PATH_LOG), so under
// KESTRIN_ROOT when that is set). Keys, in this order:
//
//   "eventId"          integer
//   "sequence"         integer, the notification sequence number
//   "definedName"      string
//   "raiseTime"        integer, seconds
//   "isClear"          true or false
//   "originalSeverity" string, the severity word
//   "reason"           string
//   "alarmSetText"     string
//   "alarmSetQueue"    string, the alarm-set queue name
//   "severity"         integer
//
// Strings are escaped so that every line is valid JSON: '"' and '\' are
// escaped, tab, newline, carriage return, backspace and form feed take their
// short escapes, other bytes below 0x20 and 0x7f become \u00XX. Well-formed
// UTF-8 passes unchanged; every byte of 0x80 or above that is not part of a
// well-formed UTF-8 sequence becomes \u00XX, i.e. the byte read as Latin-1,
// so no input can make a line unparseable.
//
// Error convention: the Flt* functions return FLT_OK (0) or one of the
// FLT_ERROR_* codes; FltErrorText names each. Nothing is thrown. All
// functions may be called from any thread; dispatches are serialised.
#ifndef KESTRIN_FLT_FLT_RECORD_H_
#define KESTRIN_FLT_FLT_RECORD_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

enum {
  FLT_OK = 0,
  // FltDispatch before FltDispatchInitTx or after FltDispatchTerminate.
  FLT_ERROR_NOT_INITIALIZED = 1,
  // The log directory could not be had from the platform layer.
  FLT_ERROR_PATH = 2,
  // The record file could not be opened (or created) for appending.
  FLT_ERROR_OPEN = 3,
  // The write of the line failed; nothing was appended.
  FLT_ERROR_WRITE = 4,
  // The write stored only part of the line.
  FLT_ERROR_PARTIAL_WRITE = 5,
  // An unexpected failure inside the library (out of memory).
  FLT_ERROR_INTERNAL = 6
};

// The name of the record file inside the log directory.
#define FLT_RECORD_FILE_NAME "faultrecords.jsonl"

// One fault record. A plain value type; every field starts as 0, false or
// empty. Setters copy their arguments; a null text counts as empty.
class CFltRecord {
 public:
  CFltRecord();

  void setEventId(int32_t eventId) { eventId_ = eventId; }
  void setNotificationSequenceNumber(uint32_t sequence) { sequence_ = sequence; }
  void setDefinedName(const char* name) { definedName_ = Text(name); }
  void setRaiseTime(long seconds) { raiseTime_ = seconds; }
  void setIsClear(bool isClear) { isClear_ = isClear; }
  void setOriginalSeverity(const char* word) { originalSeverity_ = Text(word); }
  void setReason(const char* reason) { reason_ = Text(reason); }
  void setAlarmSetText(const char* text) { alarmSetText_ = Text(text); }
  void setAlarmSetQueueName(const char* name) { alarmSetQueue_ = Text(name); }
  void setSeverity(int32_t severity) { severity_ = severity; }

  int32_t getEventId() const { return eventId_; }
  uint32_t getNotificationSequenceNumber() const { return sequence_; }
  const std::string& getDefinedName() const { return definedName_; }
  long getRaiseTime() const { return raiseTime_; }
  bool getIsClear() const { return isClear_; }
  const std::string& getOriginalSeverity() const { return originalSeverity_; }
  const std::string& getReason() const { return reason_; }
  const std::string& getAlarmSetText() const { return alarmSetText_; }
  const std::string& getAlarmSetQueueName() const { return alarmSetQueue_; }
  int32_t getSeverity() const { return severity_; }

  // The record as one JSON object, without a line end.
  std::string ToJson() const;

 private:
  static std::string Text(const char* text) { return text == nullptr ? std::string() : text; }

  int32_t eventId_;
  uint32_t sequence_;
  std::string definedName_;
  long raiseTime_;
  bool isClear_;
  std::string originalSeverity_;
  std::string reason_;
  std::string alarmSetText_;
  std::string alarmSetQueue_;
  int32_t severity_;
};

// Appends `text` to `out` as a JSON string (quotes included), escaped as the
// top of this file says.
void FltAppendJsonString(std::string& out, const char* text, size_t length);

// Starts dispatching: finds the log directory. Calling it again while
// started is harmless. FLT_ERROR_PATH when the directory cannot be had.
int FltDispatchInitTx();

// Appends `record` and a line end to the record file in one write of the
// whole line to a file opened for appending, so that concurrent writers
// never interleave and a reader following the file sees the line at once.
// The file is opened anew for every record (and created when missing), so a
// file moved away by an operator is started again. A failed write appends
// nothing (FLT_ERROR_WRITE); a write that stores only part of the line gives
// FLT_ERROR_PARTIAL_WRITE.
int FltDispatch(const CFltRecord& record);

// Stops dispatching; later dispatches fail until the next FltDispatchInitTx.
// FLT_ERROR_NOT_INITIALIZED when dispatching was not started.
int FltDispatchTerminate();

// A short English description of a result code; never null; static.
const char* FltErrorText(int code);

#endif  // KESTRIN_FLT_FLT_RECORD_H_
