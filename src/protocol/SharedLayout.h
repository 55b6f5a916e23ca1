/*
 * The memory and IPC shared between the daemon and its client processes: the
 * protocol's C part, included by the daemon and the client library alike.
 *
 * Registration table segment (KesRegTableSharedMemoryName): 256 slots of 804
 * bytes, slot i at offset 804 * i; the slot number is the log handle.
 *
 *   offset size field
 *        0    2 version, 34 when written by the daemon or the client library
 *        2    2 state: 0 = registered (in use); 2 = free in a fresh table
 *        4    4 client-defined; 0 in slot 0
 *        8  128 module name
 *      136  128 module name in log (the second name)
 *      264  512 private log file name, relative to the log directory
 *      776   28 signature "not_used" in an initialised table
 *
 * Filter segment (KesSharedMemoryName): 1088 bytes; a 64-byte header, then
 * per handle i the 32-bit client severity code filter at 64 + 4 * i. A client
 * sends a message only when its severity code is not above the filter.
 *
 * Integers are in host byte order; strings are NUL-terminated in their
 * fields. Access to the table is serialised by one System V semaphore keyed
 * on KES_FTOK_TARGET with KES_SEMAPHORE_PROJECT_ID; the request queue is keyed
 * on the same file with the queue key (default KES_QUEUE_PROJECT_ID). The
 * segment names are mapped per KESTRIN_ROOT by the platform layer.
 */
#ifndef KESTRIN_PROTOCOL_SHARED_LAYOUT_H_
#define KESTRIN_PROTOCOL_SHARED_LAYOUT_H_

#include <stddef.h>
#include <stdint.h>

#include "osa/osa.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The names of the two segments. The client library exports them as
 * KesRegTableSharedMemoryName and KesSharedMemoryName; the daemon and the
 * tools use these, so that neither depends on the other for them. */
#define KES_REG_TABLE_SEGMENT_NAME "KesRegTable"
#define KES_FILTER_SEGMENT_NAME "KesFilters"
extern const char KesRegTableSharedMemoryName[];
extern const char KesSharedMemoryName[];

#define KES_FTOK_TARGET "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH"
#define KES_QUEUE_PROJECT_ID 'Q'
#define KES_SEMAPHORE_PROJECT_ID 'J'

#define KES_REG_TABLE_SLOTS 256
#define KES_SLOT_STATE_REGISTERED 0
#define KES_SLOT_STATE_FREE 2
#define KES_SLOT_SIGNATURE "not_used"

typedef struct tKesRegTableEntry {
  uint16_t version;
  uint16_t state;
  uint32_t handle; /* client-defined; 0 in slot 0 */
  char moduleName[128];
  char moduleNameInLog[128];
  char logFileName[512];
  char signature[28];
} tKesRegTableEntry;

typedef struct tKesFilterSegment {
  unsigned char header[64];
  uint32_t filter[KES_REG_TABLE_SLOTS];
} tKesFilterSegment;

#define KES_REG_TABLE_SIZE (sizeof(tKesRegTableEntry) * KES_REG_TABLE_SLOTS)
#define KES_FILTER_SEGMENT_SIZE (sizeof(tKesFilterSegment))

#ifdef __cplusplus
#define KES_LAYOUT_ASSERT static_assert
#else
#define KES_LAYOUT_ASSERT _Static_assert
#endif
KES_LAYOUT_ASSERT(offsetof(tKesRegTableEntry, state) == 2, "slot layout");
KES_LAYOUT_ASSERT(offsetof(tKesRegTableEntry, handle) == 4, "slot layout");
KES_LAYOUT_ASSERT(offsetof(tKesRegTableEntry, moduleName) == 8, "slot layout");
KES_LAYOUT_ASSERT(offsetof(tKesRegTableEntry, moduleNameInLog) == 136, "slot layout");
KES_LAYOUT_ASSERT(offsetof(tKesRegTableEntry, logFileName) == 264, "slot layout");
KES_LAYOUT_ASSERT(offsetof(tKesRegTableEntry, signature) == 776, "slot layout");
KES_LAYOUT_ASSERT(sizeof(tKesRegTableEntry) == 804, "slots are 804 bytes");
KES_LAYOUT_ASSERT(KES_REG_TABLE_SIZE == 205824, "the table is 205824 bytes");
KES_LAYOUT_ASSERT(offsetof(tKesFilterSegment, filter) == 64, "filters follow the header");
KES_LAYOUT_ASSERT(KES_FILTER_SEGMENT_SIZE == 1088, "the filter segment is 1088 bytes");
#undef KES_LAYOUT_ASSERT

/* The System V key of the daemon's key file (KES_FTOK_TARGET, mapped under
 * KESTRIN_ROOT) with `projectId`: the one way every program finds the
 * request queue and the semaphore. Returns the platform layer's result of
 * mapping the path or of ftok. */
static inline int KesIpcKey(int projectId, int* key) {
  char path[4096];
  int result = osMapPath(KES_FTOK_TARGET, path, sizeof path);
  if (result != OS_OK) return result;
  return osSysVKey(path, projectId, key);
}

#ifdef __cplusplus
}
#endif

#endif /* KESTRIN_PROTOCOL_SHARED_LAYOUT_H_ */
