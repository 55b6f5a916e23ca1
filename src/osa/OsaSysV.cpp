// System V IPC: the daemon's request queue and the registration semaphore.
#include <errno.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>

#include <vector>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

int sysv_error(int error) {
  int general;
  switch (error) {
    case EINTR: general = OS_ERROR_RETRY; break;
    case E2BIG: general = OS_ERROR_BUFFER_TOO_SMALL; break;
    case ENOENT: general = OS_ERROR_FILE_NOT_FOUND; break;
    case EACCES:
    case EPERM: general = OS_ERROR_ACCESS_DENIED; break;
    case EINVAL: general = OS_ERROR_INVALID_PARAMETER; break;
    case ENOMEM:
    case ENOSPC: general = OS_ERROR_NO_MEMORY; break;
    default: general = OS_ERROR_GENERAL; break;
  }
  return osa_internal::combined_error(general, error);
}

}  // namespace

int osSysVKey(const char* path, int projectId, int* key) {
  if (path == nullptr || key == nullptr) return OS_ERROR_INVALID_PARAMETER;
  key_t k = ftok(path, projectId);
  if (k == static_cast<key_t>(-1)) return sysv_error(errno);
  *key = static_cast<int>(k);
  return OS_OK;
}

int osSysVQueueOpen(int key, int create, int* queueId) {
  if (queueId == nullptr) return OS_ERROR_INVALID_PARAMETER;
  int id = msgget(static_cast<key_t>(key), 0666 | (create ? IPC_CREAT : 0));
  if (id < 0) return sysv_error(errno);
  *queueId = id;
  return OS_OK;
}

int osSysVQueueSend(int queueId, const void* message, size_t textSize, int noWait) {
  if (message == nullptr) return OS_ERROR_INVALID_PARAMETER;
  if (msgsnd(queueId, message, textSize, noWait ? IPC_NOWAIT : 0) == 0) return OS_OK;
  if (errno == EAGAIN) return OS_ERROR_WOULD_BLOCK;
  return sysv_error(errno);
}

int osSysVQueueReceive(int queueId, void* message, size_t maxTextSize, int noWait,
                       long* textSize) {
  if (message == nullptr || textSize == nullptr) return OS_ERROR_INVALID_PARAMETER;
  ssize_t n = msgrcv(queueId, message, maxTextSize, 0, noWait ? IPC_NOWAIT : 0);
  if (n >= 0) {
    *textSize = static_cast<long>(n);
    return OS_OK;
  }
  if (errno == ENOMSG) return OS_ERROR_WOULD_BLOCK;
  return sysv_error(errno);
}

int osSysVQueuePeek(int queueId, unsigned long index, void* message, size_t maxTextSize,
                    long* textSize) {
  if (message == nullptr || textSize == nullptr) return OS_ERROR_INVALID_PARAMETER;
  ssize_t n = msgrcv(queueId, message, maxTextSize, static_cast<long>(index), MSG_COPY | IPC_NOWAIT);
  if (n >= 0) {
    *textSize = static_cast<long>(n);
    return OS_OK;
  }
  if (errno == ENOMSG) return OS_ERROR_WOULD_BLOCK;
  return sysv_error(errno);
}

int osSysVQueueMaxTextSize(size_t* textSize) {
  if (textSize == nullptr) return OS_ERROR_INVALID_PARAMETER;
  msginfo info{};
  if (msgctl(0, IPC_INFO, reinterpret_cast<msqid_ds*>(&info)) < 0) return sysv_error(errno);
  *textSize = static_cast<size_t>(info.msgmax);
  return OS_OK;
}

int osSysVQueueDiscardFirst(int queueId, long* textSize) {
  size_t maxText = 0;
  int result = osSysVQueueMaxTextSize(&maxText);
  if (result != OS_OK) return result;
  // A buffer of the system's largest record size learns the record's whole
  // size; MSG_NOERROR still takes off one that is larger (msgmax lowered
  // after it was sent).
  std::vector<long> buffer(1 + (maxText + sizeof(long) - 1) / sizeof(long));
  ssize_t n = msgrcv(queueId, buffer.data(), maxText, 0, IPC_NOWAIT | MSG_NOERROR);
  if (n < 0) return errno == ENOMSG ? OS_ERROR_WOULD_BLOCK : sysv_error(errno);
  if (textSize != nullptr) *textSize = static_cast<long>(n);
  return OS_OK;
}

int osSysVQueueStat(int queueId, unsigned long* messageCount, unsigned long* byteLimit) {
  msqid_ds info{};
  if (msgctl(queueId, IPC_STAT, &info) != 0) return sysv_error(errno);
  if (messageCount != nullptr) *messageCount = info.msg_qnum;
  if (byteLimit != nullptr) *byteLimit = info.msg_qbytes;
  return OS_OK;
}

int osSysVQueueSetByteLimit(int queueId, unsigned long byteLimit) {
  msqid_ds info{};
  if (msgctl(queueId, IPC_STAT, &info) != 0) return sysv_error(errno);
  info.msg_qbytes = byteLimit;
  if (msgctl(queueId, IPC_SET, &info) != 0) return sysv_error(errno);
  return OS_OK;
}

int osSysVQueueRemove(int queueId) {
  if (msgctl(queueId, IPC_RMID, nullptr) != 0) return sysv_error(errno);
  return OS_OK;
}

int osSysVSemaphoreOpen(int key, int create, int* semaphoreId) {
  if (semaphoreId == nullptr) return OS_ERROR_INVALID_PARAMETER;
  int id = semget(static_cast<key_t>(key), 1, 0666 | (create ? IPC_CREAT : 0));
  if (id < 0) return sysv_error(errno);
  *semaphoreId = id;
  return OS_OK;
}

int osSysVSemaphoreSetValue(int semaphoreId, int value) {
  if (semctl(semaphoreId, 0, SETVAL, value) != 0) return sysv_error(errno);
  return OS_OK;
}

int osSysVSemaphoreGetValue(int semaphoreId, int* value) {
  if (value == nullptr) return OS_ERROR_INVALID_PARAMETER;
  int v = semctl(semaphoreId, 0, GETVAL);
  if (v < 0) return sysv_error(errno);
  *value = v;
  return OS_OK;
}

int osSysVSemaphoreAdd(int semaphoreId, int delta) {
  sembuf op{};
  op.sem_num = 0;
  op.sem_op = static_cast<short>(delta);
  op.sem_flg = 0;
  while (semop(semaphoreId, &op, 1) != 0) {
    if (errno != EINTR) return sysv_error(errno);
  }
  return OS_OK;
}

int osSysVSemaphoreRemove(int semaphoreId) {
  if (semctl(semaphoreId, 0, IPC_RMID) != 0) return sysv_error(errno);
  return OS_OK;
}
