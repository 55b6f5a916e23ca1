// libFuzzer harness for queue records as the main loop receives them.
//
// The input is one System V message as msgrcv hands it over: the 8-byte
// type word, then the text (the record and the 4 bytes of the length
// allowance). Inputs with no text, or with more than one receive takes, are
// skipped: the loop reports those as receive failures and never checks them.
// The record goes through the main loop's checks (size, type word, interface
// version), then through the validator of its type, exactly as run() does
// before a handler sees it. Every printer then dumps the buffer, whatever its
// type and whether or not it passed: printers must be safe on unchecked
// records. The registration table is a local one whose active slots the
// input chooses, so that the add-log handle check runs both ways.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>

#include "FuzzSupport.h"
#include "kestrin/RecordPrinters.h"
#include "kestrin/RecordValidation.h"
#include "kestrin/RegTable.h"
#include "kestrin/RequestLoop.h"

namespace {

using namespace kestrin;

tKesRegTableEntry table[KES_REG_TABLE_SLOTS];

// Slots whose number has its low bit equal to that of the record's byte 8 (an
// add-log's flags) are active and hold their own handle, so that some handles
// pass and some fail.
void PrepareTable(const tKesLoggerMessage& message) {
  const unsigned parity = static_cast<unsigned char>(message.text[8]) & 1u;
  for (unsigned slot = 0; slot < KES_REG_TABLE_SLOTS; ++slot) {
    table[slot].state = (slot & 1u) == parity ? KES_SLOT_STATE_REGISTERED : KES_SLOT_STATE_FREE;
    table[slot].handle = slot;
  }
}

bool Validate(const tKesLoggerMessage& message, unsigned int size) {
  unsigned int slot = 0;
  switch (message.header.type) {
    case KES_ADD_LOG:
      return ValidateAddLogMessage(&message.addLog, size, &slot) && slot < KES_REG_TABLE_SLOTS;
    case KES_LOG_FILE_SIZE:
      return ValidateLogFileSizeMessage(&message.logFileSize, size);
    case KES_CORE_REGISTER:
      return ValidateCoreRegisterMessage(&message.coreRegister, size);
    case KES_REG_HANDLE:
      return ValidateRegHandleMessage(&message.regHandle, size);
    case KES_INTERNAL_LOG_REQUEST:
      return ValidateInternalLogRequestMessage(&message.internalLogRequest, size);
    default:
      return true;  // handled without a validator, or reported as unrecognised
  }
}

// What a handler may rely on once the record passed its validator.
void CheckPassed(const tKesLoggerMessage& message, unsigned int size) {
  if (message.header.type == KES_REG_HANDLE) {
    const tKesRegHandleMessage& record = message.regHandle;
    const size_t area = offsetof(tKesRegHandleMessage, stringArea);
    const size_t names[] = {record.moduleNameInLogOffset, record.logFileNameOffset};
    for (size_t offset : names) {
      if (offset >= KES_REG_HANDLE_STRING_AREA || area + offset >= size) abort();
      if (strnlen(record.stringArea + offset, KES_REG_HANDLE_STRING_AREA - offset) ==
          KES_REG_HANDLE_STRING_AREA - offset) {
        abort();
      }
    }
  }
}

void PrintAll(const tKesLoggerMessage& message) {
  std::ostringstream out;
  out << message.addLog << message.logFileSize << message.coreRegister << message.agentGreetings
      << message.unregAddLog << message.regHandle << message.internalLogRequest;
  if (out.str().empty()) abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  kestrin_fuzz::FuzzEnvironment::Get();
  sharedRegistrationTable = table;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static tKesLoggerMessage message;
  if (size <= sizeof(long) || size - sizeof(long) > KES_MAX_QUEUE_TEXT) return 0;
  const size_t textSize = size - sizeof(long);
  memset(&message, 0, sizeof message);
  memcpy(&message, data, sizeof(long) + textSize);
  PrepareTable(message);

  if (CheckQueueRecord(message, static_cast<long>(textSize))) {
    const unsigned int recordSize =
        static_cast<unsigned int>(KesRecordSizeFromQueueLength(static_cast<long>(textSize)));
    if (Validate(message, recordSize)) CheckPassed(message, recordSize);
  }
  PrintAll(message);
  return 0;
}
