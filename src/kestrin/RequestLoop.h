// The request queue and the main loop.
//
// Design: every request reaches the daemon through one System V message
// queue. Client processes, the daemon's own stop/hup clients, the timer-tick
// thread and the daemon's other threads put records on it; the main thread
// alone takes them off in run(), checks each (size, type word, interface
// version, then the record's own validation) and hands it to its handler:
// the role for the requests the card processes (add-log, log-file size, core
// registration, RegHandle), the handlers here for the rest. The first
// receive of each pass does not wait, so a busy queue is drained without a
// sleeping call; after every MESSAGES_BEFORE_SLEEP records the loop pauses
// SLEEP_TIME milliseconds so that a flood cannot starve the card.
//
// Queue records: the type word (always 1), then a record of Records.h. Text
// sizes follow the length convention of Records.h: the record size is the
// received text size minus 4, and must be at least 4 (a header).
//
// Stale requests: the records already waiting when the queue was set up
// (NumMessagesInitiallyInQueue) are stale; a stale stop or hup left over
// from before a restart is ignored, a stale internal report is marked.
//
// Threads: run() and createKestrinsQueue() belong to the main thread. The
// timer-tick thread only sends records. checkMessageVersion may be called
// from any thread.
#ifndef KESTRIN_KESTRIN_REQUEST_LOOP_H_
#define KESTRIN_KESTRIN_REQUEST_LOOP_H_

#include <cstdint>

#include "kestrin/Records.h"

namespace kestrin {

// The byte limit the queue is given so that bursts are absorbed rather than
// refused to clients.
constexpr unsigned long KES_QUEUE_BYTE_LIMIT = 4194304;

// The failure throttle of run(): this many counted failures within this many
// seconds end the daemon (clean_up 902 or 903).
constexpr unsigned int KES_LOOP_MAX_FAILURES = 20;
constexpr long KES_LOOP_FAILURE_PERIOD_SECONDS = 5;

// Records waiting in the queue when it was set up.
extern uint64_t NumMessagesInitiallyInQueue;
// Records received since start-up (every receive that returned a positive
// size, counted before any check).
extern uint64_t NumMessagesReadFromQueue;

// Sets up the shared registration table and the request queue (reusing an
// existing queue with whatever it holds), records how many records wait in
// it and raises its byte limit to KES_QUEUE_BYTE_LIMIT (a refusal is logged
// and alarmed, not fatal). Returns only on success: a failure of the table,
// the key, the queue or its status ends the process with _exit(1).
void createKestrinsQueue();

// The main loop. Returns after a fresh shutdown request or SIGINT; SIGQUIT
// (or the tick thread giving up) ends the process with _exit(1); a
// termination request of the service manager and too many failures end it
// through clean_up (901, 902, 903).
void run();

// The checks run() makes of every received record before its handler: the
// text of `textSize` bytes holds at least a header (4 bytes after the length
// allowance), the type word is 1 and the interface version 34. A failure
// raises its event (7013, 7011 or 7010 through checkMessageVersion) and
// returns false; the caller drops the record. Main thread only.
bool CheckQueueRecord(const tKesLoggerMessage& message, long textSize);

// True when the record's interface version is 34. Otherwise raises event
// 7010 naming `source` and the version, and returns false. Any thread.
bool checkMessageVersion(const tKesMessage& header, const char* source);

// Clean-up, on the main thread once run() has ended: writes every internal
// report (type 12) still waiting on the request queue into the own log
// through the main loop's own handler, stale rule included, so that a thread
// that reported and then asked the daemon to stop is heard. Every other
// record stays on the queue for the next start, in its order: when another
// record stands ahead of a report, the waiting records go round to the back
// one by one (a copy is put at the back before the record is taken off, so
// none is lost). Should clients keep the queue full meanwhile, the round
// stops and the reports not yet reached stay too (reported).
void WriteWaitingInternalReports();

// Starts the thread that puts a tick request on the queue once a second.
// A failure is logged and start-up goes on without ticks.
void StartTimerTickThread();

// The timer-tick thread's body: until a quit flag is set, sleeps a second
// and sends a tick; refreshes Hostname every 62nd pass; after 21 consecutive
// failed passes sets abortive_quit and ends.
void TimerTickThread(unsigned long argument);

// Puts a record of only a header (version 34, `type`) on queue `queueId`,
// followed by the 4 zero bytes of the length convention: 8 bytes of text.
// Returns the platform layer's result.
int SendHeaderOnlyRecord(int queueId, uint16_t type, bool noWait);

// Tests only: forgets the throttled event points, the accumulated NO-OP
// text, the tick count and both record counters.
void ResetRequestLoopForTesting();

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_REQUEST_LOOP_H_
