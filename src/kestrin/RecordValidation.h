// Checks of received records before any of their fields is trusted.
//
// Each validator takes a record in host byte order and the number of bytes
// that were received for it, and returns true when the record may be used.
// A record that fails is reported with exactly one LogError line, quoting at
// most maxNumCharsOfBadMsgToLog characters of it, and the caller drops it.
// Validators never throw and never modify the record; they read no byte at or
// beyond `size` (counted from the record's first byte).
//
// Records whose last field is a string must end exactly at that string's
// NUL: a record with bytes after the NUL is refused even when the string
// itself is well formed, so that the size and the string always agree.
//
// Main thread only (the add-log check reads the shared registration table).
#ifndef KESTRIN_KESTRIN_RECORD_VALIDATION_H_
#define KESTRIN_KESTRIN_RECORD_VALIDATION_H_

#include <cstddef>

#include "kestrin/Records.h"

namespace kestrin {

// The most characters of a bad record copied into its error line.
constexpr size_t maxNumCharsOfBadMsgToLog = 50;

// The text must end the record (at offset 40, at most 899 characters); then
// the handle must name an active registration-table slot whose stored handle
// equals it. `*slot` receives the record's handle whenever the text check
// passed, whatever the outcome of the handle check. A registration table
// that is not attached counts as one whose slots are all inactive.
bool ValidateAddLogMessage(const tKesAddLogMessage* message, unsigned int size, unsigned int* slot);

// The file name must end the record (offset 8, at most 511 characters).
bool ValidateLogFileSizeMessage(const tKesLogFileSizeMessage* message, unsigned int size);

// The queue name must end the record (offset 4, at most 25 characters).
bool ValidateCoreRegisterMessage(const tKesCoreRegister* message, unsigned int size);

// The card name must end the record (offset 4, at most 15 characters).
bool ValidateAgentGreetingsMessage(const tKesAgentGreetingsMessage* message, unsigned int size);

// The text must end the record (offset 21, at most 899 characters).
bool ValidateInternalLogRequestMessage(const tKesInternalLogRequestMessage* message,
                                       unsigned int size);

// The fixed fields must be complete (more than 51 bytes); then module name,
// module name in log, log file name and message text must each lie, NUL
// included, inside both the 1668-byte string area and the received bytes,
// checked in that order up to the first failure.
bool ValidateUnregAddLogMessage(const tKesUnregAddLogMessage* message, unsigned int size);

// The fixed fields must be complete (more than 15 bytes); then module name
// in log and log file name are checked as for ValidateUnregAddLogMessage in
// the 640-byte string area.
bool ValidateRegHandleMessage(const tKesRegHandleMessage* message, unsigned int size);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_RECORD_VALIDATION_H_
