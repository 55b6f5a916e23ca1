// One-line text dumps of the request records, for traces and diagnostics.
//
// Each printer first checks the record's type field; a record of another type
// prints only "Message Type <type> (ERROR: <expected code> expected)". No
// printer ends its output with a newline. Times print their microseconds as 6
// zero-filled digits and set the fill character back to a blank. Strings are printed up to their
// NUL but never beyond their field, so an unchecked record cannot make a printer read past it.
//
// The printers are free functions in namespace kestrin, beside the record
// types, so that argument-dependent lookup finds them from any namespace.
#ifndef KESTRIN_KESTRIN_RECORD_PRINTERS_H_
#define KESTRIN_KESTRIN_RECORD_PRINTERS_H_

#include <iosfwd>

#include "kestrin/Records.h"

namespace kestrin {

// "Add Log Message: version V, handle H, flags F, destination D, severity S,
// event class C, event ID I, time SEC.USEC, card K, PID P, "text""
std::ostream& operator<<(std::ostream& out, const tKesAddLogMessage& message);

// "Log File Size Message: version V, keep N old logs, file name F" when the
// top bit of the size-or-count field is set, else "..., max file size N kB, ..."
std::ostream& operator<<(std::ostream& out, const tKesLogFileSizeMessage& message);

// "Core Register Message: version V, queue name "Q""
std::ostream& operator<<(std::ostream& out, const tKesCoreRegister& message);

// "Agent Greetings Message: version V, card name "N""
std::ostream& operator<<(std::ostream& out, const tKesAgentGreetingsMessage& message);

// "Unregistered Add Log Message: version V, flags F, destination ..., PID P,
// module name M, mod name in log L, file name F, "text""
std::ostream& operator<<(std::ostream& out, const tKesUnregAddLogMessage& message);

// "Registration Handle Message: version V, handle H, mod name in log L,
// file name F"
std::ostream& operator<<(std::ostream& out, const tKesRegHandleMessage& message);

// "Internal Log Request Message: version V, severity S, eventID I,
// logDestination D, messageToLog text"
std::ostream& operator<<(std::ostream& out, const tKesInternalLogRequestMessage& message);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_RECORD_PRINTERS_H_
