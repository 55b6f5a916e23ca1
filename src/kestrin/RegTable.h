// The daemon's side of the memory shared with client processes.
//
// Two named segments (layouts in qrt/KesSharedLayout.h): the registration
// table, one 804-byte slot per log handle, and the filter segment, one 32-bit
// severity filter per handle for the clients to read. The daemon creates or
// attaches both at start-up and initialises the table only when it finds it
// new; a table left by an earlier daemon keeps its registrations, so clients
// keep their handles across a daemon restart. Nothing here removes a segment
// or the semaphore: they outlive the daemon.
//
// Access to the table is serialised between processes by one System V
// semaphore (ScopedSemaphoreLock). It is taken without SEM_UNDO, so a process
// that dies holding it leaves it taken until create_ipc_semaphore, which
// every daemon start runs, sets it back to 1. The filter segment is written
// without the semaphore: each filter is one aligned 32-bit store.
//
// Threads: the daemon's main thread only.
#ifndef KESTRIN_KESTRIN_REG_TABLE_H_
#define KESTRIN_KESTRIN_REG_TABLE_H_

#include "protocol/SharedLayout.h"

namespace kestrin {

// The registration table's 256 slots; null until InitializeSharedMemory has
// attached it.
extern tKesRegTableEntry* sharedRegistrationTable;
// The filter segment; null until InitializeSharedMemory has attached it.
extern tKesFilterSegment* mySegment;
// The semaphore guarding the table; -1 until create_ipc_semaphore.
extern int ipcSemaphore;

// Creates or attaches both segments; initialises the table when no slot-by-
// slot signature proves it was initialised before, then fills the filters.
// Returns false (after logging why) when either segment cannot be had.
bool InitializeSharedMemory();

// Creates or opens the semaphore keyed on the key file with 'J' and sets it
// to 1, freeing a lock left by a crashed process. On failure prints
// "<call>: <reason>" to standard error and ends the process with status 1.
void create_ipc_semaphore();

// Takes the semaphore for its lifetime (blocking while another process holds
// it). A failure to take it is logged and makes Good() false; the destructor
// gives the semaphore back in every case where one exists, whether or not the
// take succeeded. Callers that must not go on without the lock test Good().
class ScopedSemaphoreLock {
 public:
  ScopedSemaphoreLock();
  ~ScopedSemaphoreLock();
  ScopedSemaphoreLock(const ScopedSemaphoreLock&) = delete;
  ScopedSemaphoreLock& operator=(const ScopedSemaphoreLock&) = delete;

  bool Good() const { return good; }

 private:
  bool good;  // true when the semaphore was taken
};

// Writes every registered slot (state 0) into the daemon's own log at
// information level, between fixed opening and closing lines, holding the
// semaphore for the whole dump.
void DumpRegTable();

// Rewrites all 256 filters: the level of the handle's log file where it has
// one, else the default level's filter (8 when no default level was set).
// Does nothing while the filter segment is not attached.
void UpdateLogFiltersInSharedMemory();

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_REG_TABLE_H_
