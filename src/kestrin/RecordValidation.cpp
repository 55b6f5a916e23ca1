#include "kestrin/RecordValidation.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>

#include "kestrin/CardID.h"
#include "kestrin/InternalLog.h"
#include "kestrin/RegTable.h"

namespace kestrin {

namespace {

constexpr unsigned int HIGHEST_HANDLE = KES_REG_TABLE_SLOTS - 1;

const char* BytesOf(const void* message) { return static_cast<const char*>(message); }

// At most `limit` bytes from `start`, ending early at a NUL, as a log line
// can carry them.
std::string Excerpt(const char* start, size_t limit) {
  return std::string(start, strnlen(start, limit));
}

// The record must end exactly at the NUL of the string that starts at
// `offset` and holds at most max - 1 characters.
bool ValidateStringAtEndOfMessage(const void* message, unsigned int size, size_t offset, size_t max,
                                  const char* name) {
  if (size <= offset) {
    LogError(std::string(name) + ": Message of length " + std::to_string(size) + " is incomplete");
    return false;
  }
  const char* string = BytesOf(message) + offset;
  size_t last = size - offset - 1;  // index of the last received byte in the string
  if (last >= max) {
    LogError(std::string(name) + ": String of length " + std::to_string(last) +
             " exceeds maximum length of " + std::to_string(max - 1) +
             ". String: " + Excerpt(string, std::min(maxNumCharsOfBadMsgToLog, last + 1)));
    return false;
  }
  if (string[last] == '\0') return true;
  LogError(std::string(name) + ": String not null-terminated, " +
           "or message size incorrect. String: " +
           Excerpt(string, std::min(maxNumCharsOfBadMsgToLog, last + 1)));
  return false;
}

// The string at `offset` in the area at `areaStart`, `length` characters and
// its NUL, must fit the area and the received bytes. Sums are taken in
// size_t so that 16-bit offsets and lengths cannot wrap.
bool ValidateStringInBuffer(const void* message, unsigned int size, size_t areaStart,
                            size_t areaSize, uint16_t offset, uint16_t length, size_t max,
                            const char* name) {
  std::string where = std::string(name) + ": String at offset " + std::to_string(offset) +
                      " with length " + std::to_string(length);
  size_t end = static_cast<size_t>(offset) + length + 1;
  if (length >= max) {
    LogError(std::string(name) + ": String length " + std::to_string(length) +
             " exceeds maximum of " + std::to_string(max - 1));
    return false;
  }
  if (end > areaSize) {
    LogError(where + " runs past end of buffer");
    return false;
  }
  if (areaStart + end > size) {
    LogError(where + " runs past end of message of size " + std::to_string(size));
    return false;
  }
  if (BytesOf(message)[areaStart + offset + length] != '\0') {
    LogError(where + " not null-terminated," + " or string length incorrect.");
    return false;
  }
  return true;
}

bool ValidateFixedPart(unsigned int size, unsigned int minimumExceeded, const char* name) {
  if (size > minimumExceeded) return true;
  LogError(std::string(name) + ": Message of length " + std::to_string(size) + " is incomplete");
  return false;
}

bool IsActive(const tKesRegTableEntry& entry) { return entry.state == KES_SLOT_STATE_REGISTERED; }

// Completes the handle check's error line, whose first part the caller has
// put into `line`, with the record's origin and the start of its text, and
// logs it. The record's text check has passed, so `size` is at least 41.
void LogBadHandle(std::ostringstream& line, const tKesAddLogMessage* message, unsigned int size) {
  line << ". Card: " << CardID(message->cardId) << ", caller's PID: " << message->pid << ", msg: "
       << Excerpt(message->text, std::min<size_t>(maxNumCharsOfBadMsgToLog, size - 41));
  LogError(line.str());
}

}  // namespace

bool ValidateAddLogMessage(const tKesAddLogMessage* message, unsigned int size,
                           unsigned int* slot) {
  if (!ValidateStringAtEndOfMessage(message, size, offsetof(tKesAddLogMessage, text),
                                    KES_MAX_MESSAGE_TEXT, "AddLogMessage")) {
    return false;
  }
  const uint32_t handle = message->handle;
  *slot = handle;
  // The error line's stream is built only on the failure paths: every
  // add-log request passes here, and constructing a stream costs more than
  // the rest of the check.
  if (handle > HIGHEST_HANDLE) {
    std::ostringstream line;
    line << "AddLogMessage: handle 0x" << std::hex << handle << std::dec << " is invalid";
    LogBadHandle(line, message, size);
    return false;
  }
  if (sharedRegistrationTable == nullptr || !IsActive(sharedRegistrationTable[handle])) {
    std::ostringstream line;
    line << "AddLogMessage: handle 0x" << std::hex << handle << std::dec << " isn't active";
    LogBadHandle(line, message, size);
    return false;
  }
  const uint32_t registered = sharedRegistrationTable[handle].handle;
  if (registered != handle) {
    std::ostringstream line;
    line << "AddLogMessage: specified handle of 0x" << std::hex << handle << std::dec
         << " doesn't match the registered handle of 0x" << std::hex << registered << std::dec;
    LogBadHandle(line, message, size);
    return false;
  }
  return true;
}

bool ValidateLogFileSizeMessage(const tKesLogFileSizeMessage* message, unsigned int size) {
  return ValidateStringAtEndOfMessage(message, size, offsetof(tKesLogFileSizeMessage, fileName),
                                      KES_MAX_LOG_FILE_NAME, "LogFileSizeMessage");
}

bool ValidateCoreRegisterMessage(const tKesCoreRegister* message, unsigned int size) {
  return ValidateStringAtEndOfMessage(message, size, offsetof(tKesCoreRegister, queueName),
                                      KES_MAX_QUEUE_NAME, "CoreRegisterMessage");
}

bool ValidateAgentGreetingsMessage(const tKesAgentGreetingsMessage* message, unsigned int size) {
  return ValidateStringAtEndOfMessage(message, size, offsetof(tKesAgentGreetingsMessage, cardName),
                                      KES_MAX_CARD_NAME, "AgentGreetingsMessage");
}

bool ValidateInternalLogRequestMessage(const tKesInternalLogRequestMessage* message,
                                       unsigned int size) {
  return ValidateStringAtEndOfMessage(message, size,
                                      offsetof(tKesInternalLogRequestMessage, messageToLog),
                                      KES_MAX_MESSAGE_TEXT, "InternalLogRequestMessage");
}

bool ValidateUnregAddLogMessage(const tKesUnregAddLogMessage* message, unsigned int size) {
  if (!ValidateFixedPart(size, offsetof(tKesUnregAddLogMessage, stringArea) - 1,
                         "UnregAddLogMessage")) {
    return false;
  }
  const size_t area = offsetof(tKesUnregAddLogMessage, stringArea);
  const size_t areaSize = KES_UNREG_STRING_AREA;
  return ValidateStringInBuffer(message, size, area, areaSize, message->moduleNameOffset,
                                message->moduleNameLength, KES_MAX_MODULE_NAME,
                                "UnregAddLogMessage (moduleName)") &&
         ValidateStringInBuffer(message, size, area, areaSize, message->moduleNameInLogOffset,
                                message->moduleNameInLogLength, KES_MAX_MODULE_NAME,
                                "UnregAddLogMessage (modNameInLog)") &&
         ValidateStringInBuffer(message, size, area, areaSize, message->logFileNameOffset,
                                message->logFileNameLength, KES_MAX_LOG_FILE_NAME,
                                "UnregAddLogMessage (logFileName)") &&
         ValidateStringInBuffer(message, size, area, areaSize, message->messageOffset,
                                message->messageLength, KES_MAX_MESSAGE_TEXT,
                                "UnregAddLogMessage (msgString)");
}

bool ValidateRegHandleMessage(const tKesRegHandleMessage* message, unsigned int size) {
  if (!ValidateFixedPart(size, offsetof(tKesRegHandleMessage, stringArea) - 1,
                         "RegHandleMessage")) {
    return false;
  }
  const size_t area = offsetof(tKesRegHandleMessage, stringArea);
  const size_t areaSize = KES_REG_HANDLE_STRING_AREA;
  return ValidateStringInBuffer(message, size, area, areaSize, message->moduleNameInLogOffset,
                                message->moduleNameInLogLength, KES_MAX_MODULE_NAME,
                                "RegHandleMessage (modNameInLog)") &&
         ValidateStringInBuffer(message, size, area, areaSize, message->logFileNameOffset,
                                message->logFileNameLength, KES_MAX_LOG_FILE_NAME,
                                "RegHandleMessage (logFileName)");
}

}  // namespace kestrin
