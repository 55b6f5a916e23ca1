#include "qrt/QrtConnection.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>
#include <string>
#include <vector>

#include "osa/osa.h"
#include "qrt/QrtDiag.h"

// The segment names that client and daemon share, exported with the API.
#pragma GCC visibility push(default)
extern "C" {
const char KesRegTableSharedMemoryName[] = KES_REG_TABLE_SEGMENT_NAME;
const char KesSharedMemoryName[] = KES_FILTER_SEGMENT_NAME;
}
#pragma GCC visibility pop

namespace qrt {

namespace {

// What was found under one root. Members are written and read under
// registry_lock(); -1 / null until found.
struct Connection {
  std::string root;
  tKesRegTableEntry* table = nullptr;
  tKesFilterSegment* filters = nullptr;
  int queueId = -1;
  int semaphoreId = -1;
};

// Both are leaked on purpose: the mappings they describe last as long as the
// process, and threads may still log while static destructors run.
std::mutex& registry_lock() {
  static std::mutex* lock = new std::mutex;
  return *lock;
}

std::vector<Connection*>& connections() {
  static std::vector<Connection*>* list = new std::vector<Connection*>;
  return *list;
}

// The connection for the current KESTRIN_ROOT; the caller holds the lock.
Connection& current_connection() {
  const char* root = getenv("KESTRIN_ROOT");
  if (root == nullptr) root = "";
  for (Connection* c : connections()) {
    if (c->root == root) return *c;
  }
  Connection* added = new Connection;
  added->root = root;
  connections().push_back(added);
  return *added;
}

// The System V key of the daemon's key file with `projectId`. A missing key
// file means no daemon ever ran under this root.
int daemon_key(int projectId, int* key) {
  return KesIpcKey(projectId, key) == OS_OK ? QRT_OK : QRT_ERROR_NO_DAEMON;
}

int attach(const char* name, size_t size, void** address) {
  int result = osAttachSharedMemory(name, size, address);
  if (result == OS_OK) return QRT_OK;
  return (result & 0xffff) == OS_ERROR_FILE_NOT_FOUND ? QRT_ERROR_NO_DAEMON : QRT_ERROR_SYSTEM;
}

int get_queue(int* queueId) {
  std::lock_guard<std::mutex> guard(registry_lock());
  Connection& c = current_connection();
  if (c.queueId < 0) {
    int key = 0;
    int result = daemon_key(KES_QUEUE_PROJECT_ID, &key);
    if (result != QRT_OK) return result;
    // Open only: a client never creates the daemon's queue.
    if (osSysVQueueOpen(key, 0, &c.queueId) != OS_OK) {
      c.queueId = -1;
      return QRT_ERROR_NO_DAEMON;
    }
  }
  *queueId = c.queueId;
  return QRT_OK;
}

// Forgets `id` when it is still the remembered one for the current root.
void forget_queue(int id) {
  std::lock_guard<std::mutex> guard(registry_lock());
  Connection& c = current_connection();
  if (c.queueId == id) c.queueId = -1;
}

void forget_semaphore(int id) {
  std::lock_guard<std::mutex> guard(registry_lock());
  Connection& c = current_connection();
  if (c.semaphoreId == id) c.semaphoreId = -1;
}

// True when a failed call's detail says that the object itself has gone.
bool object_gone(int osResult) {
  int detail = osGetSpecificErrorCode(osResult);
  return detail == EIDRM || detail == EINVAL;
}

// Attaches the segments of `c` that are not attached yet; the caller holds
// the lock.
int attach_segments(Connection& c) {
  if (c.table == nullptr) {
    void* address = nullptr;
    int result = attach(KesRegTableSharedMemoryName, KES_REG_TABLE_SIZE, &address);
    if (result != QRT_OK) return result;
    c.table = static_cast<tKesRegTableEntry*>(address);
  }
  if (c.filters == nullptr) {
    void* address = nullptr;
    int result = attach(KesSharedMemoryName, KES_FILTER_SEGMENT_SIZE, &address);
    if (result != QRT_OK) return result;
    c.filters = static_cast<tKesFilterSegment*>(address);
  }
  return QRT_OK;
}

// One send on `queueId`, repeated while a signal interrupts it.
int send_once(int queueId, const void* message, size_t textSize, int noWait) {
  int osResult;
  do {
    osResult = osSysVQueueSend(queueId, message, textSize, noWait);
  } while ((osResult & 0xffff) == OS_ERROR_RETRY);
  return osResult;
}

}  // namespace

int get_segments(Segments* segments) {
  std::lock_guard<std::mutex> guard(registry_lock());
  Connection& c = current_connection();
  int result = attach_segments(c);
  if (result != QRT_OK) return result;
  segments->table = c.table;
  segments->filters = c.filters;
  return QRT_OK;
}

int get_segments_and_queue(Segments* segments, int* rememberedQueueId) {
  std::lock_guard<std::mutex> guard(registry_lock());
  Connection& c = current_connection();
  int result = attach_segments(c);
  if (result != QRT_OK) return result;
  segments->table = c.table;
  segments->filters = c.filters;
  *rememberedQueueId = c.queueId;
  return QRT_OK;
}

int get_semaphore(int* semaphoreId) {
  std::lock_guard<std::mutex> guard(registry_lock());
  Connection& c = current_connection();
  if (c.semaphoreId < 0) {
    int key = 0;
    int result = daemon_key(KES_SEMAPHORE_PROJECT_ID, &key);
    if (result != QRT_OK) return result;
    if (osSysVSemaphoreOpen(key, 0, &c.semaphoreId) != OS_OK) {
      c.semaphoreId = -1;
      return QRT_ERROR_NO_DAEMON;
    }
  }
  *semaphoreId = c.semaphoreId;
  return QRT_OK;
}

int lock_table(int* semaphoreId) {
  // A second attempt only after the remembered semaphore turned out gone.
  for (int attempt = 0; attempt < 2; ++attempt) {
    int id = -1;
    int result = get_semaphore(&id);
    if (result != QRT_OK) return result;
    int osResult = osSysVSemaphoreAdd(id, -1);
    if (osResult == OS_OK) {
      *semaphoreId = id;
      return QRT_OK;
    }
    if (!object_gone(osResult)) return QRT_ERROR_LOCK_FAILED;
    forget_semaphore(id);
  }
  return QRT_ERROR_LOCK_FAILED;
}

void unlock_table(int semaphoreId) { osSysVSemaphoreAdd(semaphoreId, 1); }

int send_to_daemon(const void* message, size_t textSize, int noWait) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    int queueId = -1;
    int result = get_queue(&queueId);
    if (result != QRT_OK) return result;
    int osResult = send_once(queueId, message, textSize, noWait);
    if (osResult == OS_OK) return QRT_OK;
    if (osResult == OS_ERROR_WOULD_BLOCK) return QRT_ERROR_QUEUE_FULL;
    if (!object_gone(osResult)) return QRT_ERROR_SEND_FAILED;
    forget_queue(queueId);
  }
  return QRT_ERROR_SEND_FAILED;
}

int send_to_queue(int queueId, const void* message, size_t textSize, int noWait) {
  if (queueId < 0) return send_to_daemon(message, textSize, noWait);
  int osResult = send_once(queueId, message, textSize, noWait);
  if (osResult == OS_OK) return QRT_OK;
  if (osResult == OS_ERROR_WOULD_BLOCK) return QRT_ERROR_QUEUE_FULL;
  if (!object_gone(osResult)) return QRT_ERROR_SEND_FAILED;
  // The queue has gone: forget it and look it up again (a restarted daemon
  // may have made a new one).
  forget_queue(queueId);
  return send_to_daemon(message, textSize, noWait);
}

}  // namespace qrt
