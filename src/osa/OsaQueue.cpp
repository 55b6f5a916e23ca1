// Named message queues: POSIX message queues with the system's default
// message count and size.
//
// Each name is opened once per process: osQueueGetId hands out the same
// descriptor again, so a caller may look the queue up before every send
// without using up descriptors. The queue is created world read-write (0666)
// because senders and the receiver may run as different users.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <mqueue.h>
#include <pthread.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <map>
#include <string>
#include <vector>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

// Queue names opened by this process, with their descriptors. Guarded by
// g_queuesLock; never freed, as the descriptors live until the process ends.
pthread_mutex_t g_queuesLock = PTHREAD_MUTEX_INITIALIZER;
std::map<std::string, mqd_t>* g_queues = nullptr;

int queue_error(int error) {
  return osa_internal::combined_error(osa_internal::file_error_from_errno(error), error);
}

mqd_t open_queue(const char* posixName) {
  mqd_t queue = mq_open(posixName, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666, nullptr);
  if (queue != static_cast<mqd_t>(-1)) {
    fchmod(queue, 0666);  // on Linux a queue descriptor is a file descriptor
    return queue;
  }
  if (errno != EEXIST) return queue;
  return mq_open(posixName, O_RDWR | O_CREAT | O_CLOEXEC, 0666, nullptr);
}

// The absolute CLOCK_REALTIME time `timeoutMs` from now, as the timed queue
// calls want it.
struct timespec deadline_after(long timeoutMs) {
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += timeoutMs / 1000;
  deadline.tv_nsec += (timeoutMs % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

// One receive into `buffer`, which must hold the queue's message size.
// Returns the message length or -errno; EINTR is repeated.
ssize_t receive_once(mqd_t queue, char* buffer, size_t size, long timeoutMs) {
  struct timespec deadline = deadline_after(timeoutMs < 0 ? 0 : timeoutMs);
  for (;;) {
    ssize_t length = timeoutMs < 0 ? mq_receive(queue, buffer, size, nullptr)
                                   : mq_timedreceive(queue, buffer, size, nullptr, &deadline);
    if (length >= 0) return length;
    if (errno != EINTR) return -errno;
  }
}

}  // namespace

int osQueueGetId(const char* name, long* queueId) {
  char posixName[NAME_MAX + 1];
  if (queueId == nullptr || !osa_internal::posix_ipc_name(name, posixName, sizeof posixName)) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  pthread_mutex_lock(&g_queuesLock);
  if (g_queues == nullptr) g_queues = new std::map<std::string, mqd_t>;
  auto found = g_queues->find(posixName);
  mqd_t queue = found != g_queues->end() ? found->second : open_queue(posixName);
  int error = queue == static_cast<mqd_t>(-1) ? errno : 0;
  if (error == 0) (*g_queues)[posixName] = queue;
  pthread_mutex_unlock(&g_queuesLock);
  if (error != 0) return queue_error(error);
  *queueId = static_cast<long>(queue);
  return OS_OK;
}

int osQueueSend(long queueId, const void* data, size_t length) {
  if (queueId < 0 || (data == nullptr && length != 0)) return OS_ERROR_INVALID_PARAMETER;
  // A deadline in the past makes the send fail at once, with ETIMEDOUT,
  // instead of waiting for room, while the descriptor itself stays blocking
  // for osQueueReceive.
  const struct timespec past = {0, 0};
  const char* bytes = length == 0 ? "" : static_cast<const char*>(data);
  for (;;) {
    if (mq_timedsend(static_cast<mqd_t>(queueId), bytes, length, 0, &past) == 0) return OS_OK;
    if (errno == EINTR) continue;
    if (errno == ETIMEDOUT || errno == EAGAIN) return OS_ERROR_WOULD_BLOCK;
    if (errno == EMSGSIZE) return osa_internal::combined_error(OS_ERROR_INVALID_PARAMETER, errno);
    return queue_error(errno);
  }
}

int osQueueReceive(long queueId, void* buffer, size_t size, size_t* received, long timeoutMs) {
  if (queueId < 0 || buffer == nullptr || received == nullptr) return OS_ERROR_INVALID_PARAMETER;
  mqd_t queue = static_cast<mqd_t>(queueId);
  struct mq_attr attributes;
  if (mq_getattr(queue, &attributes) != 0) return queue_error(errno);
  // The kernel refuses buffers smaller than the queue's message size: take
  // the message whole, then hand over what fits.
  std::vector<char> whole(static_cast<size_t>(attributes.mq_msgsize));
  ssize_t length = receive_once(queue, whole.data(), whole.size(), timeoutMs);
  if (length == -ETIMEDOUT || length == -EAGAIN) return OS_ERROR_TIMEOUT;
  if (length < 0) return queue_error(static_cast<int>(-length));
  size_t copied = static_cast<size_t>(length) < size ? static_cast<size_t>(length) : size;
  memcpy(buffer, whole.data(), copied);
  *received = copied;
  return copied == static_cast<size_t>(length) ? OS_OK : OS_ERROR_BUFFER_TOO_SMALL;
}

int osQueueDelete(const char* name) {
  char posixName[NAME_MAX + 1];
  if (!osa_internal::posix_ipc_name(name, posixName, sizeof posixName)) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  pthread_mutex_lock(&g_queuesLock);
  if (g_queues != nullptr) {
    auto found = g_queues->find(posixName);
    if (found != g_queues->end()) {
      mq_close(found->second);
      g_queues->erase(found);
    }
  }
  pthread_mutex_unlock(&g_queuesLock);
  if (mq_unlink(posixName) != 0) return queue_error(errno);
  return OS_OK;
}
