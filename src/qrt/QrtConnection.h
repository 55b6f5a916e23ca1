// The client library's way to the daemon: the request queue, the
// registration table, the filter segment and the table's semaphore, found
// through the key file under the current KESTRIN_ROOT. Internal to the
// library.
//
// Each resource is looked up on first use and remembered per root, so that
// the hot path (filter check, send) makes no lookup call. Failed lookups are
// not remembered: a daemon started later is found. Segment mappings last
// until the process ends; the daemon never removes its resources, so what
// was found stays valid across daemon restarts. A queue or semaphore that
// has gone nonetheless (removed by hand) is forgotten when a call on it
// fails, and looked up again by the next call.
//
// All functions may be called from any thread; one process-wide mutex guards
// the remembered ids, and is never held while a call waits.
#ifndef KESTRIN_QRT_QRT_CONNECTION_H_
#define KESTRIN_QRT_QRT_CONNECTION_H_

#include <stddef.h>

#include "protocol/SharedLayout.h"

namespace qrt {

struct Segments {
  tKesRegTableEntry* table = nullptr;  // KES_REG_TABLE_SLOTS slots
  tKesFilterSegment* filters = nullptr;
};

// Both segments, attached only if the daemon made them: QRT_ERROR_NO_DAEMON
// otherwise (nothing is created).
int get_segments(Segments* segments);

// Both segments as get_segments gives them, and in `rememberedQueueId` the
// queue id already found under this root (-1 when none is, which makes no
// look-up here): the send path's way to everything with one look-up. Pass
// the queue id to send_to_queue.
int get_segments_and_queue(Segments* segments, int* rememberedQueueId);

// The registration table's semaphore (never created here).
int get_semaphore(int* semaphoreId);

// Takes the semaphore (semop -1): QRT_ERROR_NO_DAEMON when it is missing,
// QRT_ERROR_LOCK_FAILED when the call fails otherwise.
int lock_table(int* semaphoreId);
// Gives it back (semop +1).
void unlock_table(int semaphoreId);

// Sends `textSize` bytes of the queue message `message` (long type word
// first) to the daemon's queue. With `noWait` a full queue gives
// QRT_ERROR_QUEUE_FULL at once. QRT_ERROR_NO_DAEMON when there is no queue,
// QRT_ERROR_SEND_FAILED for other refusals.
int send_to_daemon(const void* message, size_t textSize, int noWait);

// send_to_daemon on the queue `queueId` that get_segments_and_queue gave:
// the same results, without looking the queue up again unless it is -1 or
// has gone.
int send_to_queue(int queueId, const void* message, size_t textSize, int noWait);

}  // namespace qrt

#endif  // KESTRIN_QRT_QRT_CONNECTION_H_
