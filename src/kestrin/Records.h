// The daemon's operations on the request records of protocol/Records.h:
// conversions between host and network byte order, and the constructors
// that build one record from another.
#ifndef KESTRIN_KESTRIN_RECORDS_H_
#define KESTRIN_KESTRIN_RECORDS_H_

#include <sys/time.h>

#include "protocol/Records.h"

namespace kestrin {

// ---- Byte order ----------------------------------------------------------
// Each converts the record's integer fields in place; character areas stay.

void HostToNetwork(tKesMessage* m);
void NetworkToHost(tKesMessage* m);
void HostToNetwork(tKesAgentGreetingsMessage* m);
void NetworkToHost(tKesAgentGreetingsMessage* m);
void HostToNetwork(tKesAddLogMessage* m);
void NetworkToHost(tKesAddLogMessage* m);
void HostToNetwork(tKesUnregAddLogMessage* m);
void NetworkToHost(tKesUnregAddLogMessage* m);
void HostToNetwork(tKesRegHandleMessage* m);
void NetworkToHost(tKesRegHandleMessage* m);
void HostToNetwork(tKesLogFileSizeMessage* m);
void NetworkToHost(tKesLogFileSizeMessage* m);

// ---- Constructors --------------------------------------------------------
// Each fills `out` and returns the size of the built record, the length to
// send. None fails: over-long strings are cut to fit their areas.

// An ordinary add-log for `handle` from a forwarded unregistered one.
unsigned int FormatKesAddLogMessage(tKesAddLogMessage* out, unsigned long handle,
                                    const tKesUnregAddLogMessage* in);

// An unregistered add-log from an add-log of `receivedSize` bytes and the
// client's three names.
unsigned int FormatKesUnregAddLogMessage(tKesUnregAddLogMessage* out, const tKesAddLogMessage* in,
                                         unsigned int receivedSize, const char* moduleName,
                                         const char* moduleNameInLog, const char* logFileName);

unsigned int FormatKesRegHandleMessage(tKesRegHandleMessage* out, unsigned long handle,
                                       const tKesUnregAddLogMessage* in);

unsigned int FormatKesAgentGreetingsMessage(tKesAgentGreetingsMessage* out, const char* cardName);

unsigned int FormatKesInternalLogRequestMessage(tKesInternalLogRequestMessage* out,
                                                const timeval& time, unsigned short severity,
                                                unsigned long eventId, const char* text);

// Fills a zero card ID with this card's; a non-zero one is kept.
void SetCardID(tKesAddLogMessage* m);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_RECORDS_H_
