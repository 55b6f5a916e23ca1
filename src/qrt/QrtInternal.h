// The client library's C++ entry for the daemon itself: handing on an add-log
// record that already carries a handle (the Master's path for records that
// its Agents forward). Applications use QrtDiag.h instead; the shared library
// does not export this entry, the daemon links the library's code statically.
#ifndef KESTRIN_QRT_QRT_INTERNAL_H_
#define KESTRIN_QRT_QRT_INTERNAL_H_

#include "protocol/Records.h"
#include "qrt/QrtDiag.h"

// Puts the add-log record of `message` (queue type word 1, then the record in
// host byte order) on the daemon's request queue as it is: no filtering, no
// time stamp, no dropped-messages flag. `textLength` is the length of the
// record's text without its NUL (a received record's size - 41); the record
// sent is 41 + textLength bytes, its text ended by a NUL at that length.
// `noWait` 0 waits while the queue is full; otherwise a full queue gives
// QRT_ERROR_QUEUE_FULL at once. A null message, a type word other than 1 or a
// `textLength` above 899 is QRT_ERROR_INVALID_PARAMETER; QRT_ERROR_NO_DAEMON
// when there is no queue. Any thread may call it.
int EnqueueAddLogMessage(const kestrin::tKesLoggerMessage* message, int noWait,
                         unsigned int textLength);

// The record EnqueueAddLogMessage puts on the queue, built into `out` (type
// word 1, zero bytes after the record): the add-log of `message` with its
// text cut at `textLength` characters and NUL-terminated. Returns the
// record's size (41 + textLength), or 0, leaving `out` alone, for the
// arguments EnqueueAddLogMessage refuses. Any thread may call it.
size_t FormatQueuedAddLogMessage(kestrin::tKesLoggerMessage* out,
                                 const kestrin::tKesLoggerMessage* message,
                                 unsigned int textLength);

#endif  // KESTRIN_QRT_QRT_INTERNAL_H_
