// Threads, the monotonic clock, sleeping and the fault-injection table.
//
// Task ids are kernel thread ids (gettid): small, unique among live threads of
// the machine, and the same number that ps and /proc show, so an id in a log
// line can be matched to a thread. For the main thread it equals the pid.
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

std::atomic<const tOsaOverrides*> g_overrides{nullptr};

// The test time scale (osa.h), read from the environment on first use; 0
// until then. Reading it once keeps the clock steady for the process.
std::atomic<unsigned long> g_testTimeScale{0};

// The smallest stack osCreateTask hands to pthreads; smaller requests get the
// platform default instead (sanitizer builds need far more than tiny stacks).
constexpr unsigned long MIN_TASK_STACK = 256 * 1024;

// The accepted range of the test time scale (osa.h).
constexpr unsigned long MIN_TEST_TIME_SCALE = 2;
constexpr unsigned long MAX_TEST_TIME_SCALE = 1000;

unsigned long current_thread_id() { return static_cast<unsigned long>(syscall(SYS_gettid)); }

// What a new thread needs to start: handed over by osCreateTask, owned and
// freed by the new thread. The creator waits on `started` so that it can
// report the thread's kernel id, which only the thread itself can read.
struct TaskStart {
  tOsTaskEntry entry;
  void* argument;
  char name[16];  // the kernel keeps at most 15 characters; empty: keep the default
  pthread_mutex_t lock;
  pthread_cond_t started;
  bool hasId;
  unsigned long id;
};

void* run_task(void* raw) {
  auto* start = static_cast<TaskStart*>(raw);
  tOsTaskEntry entry = start->entry;
  void* argument = start->argument;
  // Named by the thread itself, before its entry runs and sees the name.
  if (start->name[0] != '\0') pthread_setname_np(pthread_self(), start->name);
  pthread_mutex_lock(&start->lock);
  start->id = current_thread_id();
  start->hasId = true;
  pthread_cond_signal(&start->started);
  pthread_mutex_unlock(&start->lock);
  // From here on `start` belongs to the creator, which frees it.
  entry(argument);
  return nullptr;
}

int task_error_from_errno(int error) {
  switch (error) {
    case EAGAIN:
    case ENOMEM:
      return OS_ERROR_NO_MEMORY;
    case EINVAL:
      return OS_ERROR_INVALID_PARAMETER;
    case EPERM:
      return OS_ERROR_ACCESS_DENIED;
    default:
      return OS_ERROR_GENERAL;
  }
}

// Prepares detached-thread attributes with the requested stack, raised to the
// platform default when it is too small to be safe.
int init_task_attributes(pthread_attr_t* attributes, unsigned long stackSize) {
  int rc = pthread_attr_init(attributes);
  if (rc != 0) return task_error_from_errno(rc);
  pthread_attr_setdetachstate(attributes, PTHREAD_CREATE_DETACHED);
  unsigned long minimum = MIN_TASK_STACK;
  if (minimum < static_cast<unsigned long>(PTHREAD_STACK_MIN)) minimum = PTHREAD_STACK_MIN;
  if (stackSize >= minimum) {
    rc = pthread_attr_setstacksize(attributes, stackSize);
    if (rc != 0) {
      pthread_attr_destroy(attributes);
      return task_error_from_errno(rc);
    }
  }
  return OS_OK;
}

}  // namespace

namespace osa_internal {

unsigned long read_test_time_scale() {
  const char* text = getenv(OS_TEST_TIME_SCALE_VARIABLE);
  if (text == nullptr) return 1;
  char* end = nullptr;
  unsigned long value = strtoul(text, &end, 10);
  if (end == text || *end != '\0' || value < MIN_TEST_TIME_SCALE || value > MAX_TEST_TIME_SCALE) {
    return 1;
  }
  return value;
}

void forget_test_time_scale() { g_testTimeScale.store(0, std::memory_order_relaxed); }

const tOsaOverrides* installed_overrides() { return g_overrides.load(std::memory_order_acquire); }

}  // namespace osa_internal

void osSetOverrides(const tOsaOverrides* overrides) {
  g_overrides.store(overrides, std::memory_order_release);
}

int osCreateTask(const char* name, int /*priority*/, unsigned long stackSize, tOsTaskEntry entry,
                 void* argument, unsigned long* taskId) {
  if (entry == nullptr) return OS_ERROR_INVALID_PARAMETER;
  auto* start = new (std::nothrow) TaskStart{
      entry, argument, {0}, PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, false, 0};
  if (start == nullptr) return OS_ERROR_NO_MEMORY;
  osLStrCpyn(start->name, name, sizeof start->name);
  pthread_attr_t attributes;
  int rc = init_task_attributes(&attributes, stackSize);
  if (rc != OS_OK) {
    delete start;
    return rc;
  }
  pthread_t thread;
  rc = pthread_create(&thread, &attributes, run_task, start);
  pthread_attr_destroy(&attributes);
  if (rc != 0) {
    delete start;
    return task_error_from_errno(rc);
  }
  pthread_mutex_lock(&start->lock);
  while (!start->hasId) pthread_cond_wait(&start->started, &start->lock);
  unsigned long id = start->id;
  pthread_mutex_unlock(&start->lock);
  delete start;
  if (taskId != nullptr) *taskId = id;
  return OS_OK;
}

int osGetTaskId(unsigned long* taskId) {
  if (taskId == nullptr) return OS_ERROR_INVALID_PARAMETER;
  *taskId = current_thread_id();
  return OS_OK;
}

int osLowerTaskPriority(void) {
  // On Linux the nice value belongs to the thread named by its kernel id.
  const id_t thread = static_cast<id_t>(current_thread_id());
  if (setpriority(PRIO_PROCESS, thread, 19) == 0) return OS_OK;
  return osa_internal::combined_error(OS_ERROR_GENERAL, errno);
}

unsigned long osGetTestTimeScale(void) {
  unsigned long scale = g_testTimeScale.load(std::memory_order_relaxed);
  if (scale == 0) {
    scale = osa_internal::read_test_time_scale();
    g_testTimeScale.store(scale, std::memory_order_relaxed);
  }
  return scale;
}

int osSleep(unsigned long milliseconds) {
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->sleep != nullptr) {
    int rc = overrides->sleep(milliseconds);
    if (rc != OSA_CALL_REAL) return rc;
  }
  milliseconds /= osGetTestTimeScale();
  struct timespec remaining;
  remaining.tv_sec = static_cast<time_t>(milliseconds / 1000);
  remaining.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
  // nanosleep writes the time still to go when a signal interrupts it.
  while (nanosleep(&remaining, &remaining) != 0) {
    if (errno != EINTR) return OS_ERROR_GENERAL;
  }
  return OS_OK;
}

unsigned long osGetClock(void) {
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->clock != nullptr) return overrides->clock();
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const unsigned long real = static_cast<unsigned long>(now.tv_sec) * 1000UL +
                             static_cast<unsigned long>(now.tv_nsec / 1000000L);
  return real * osGetTestTimeScale();
}

int osGetTimeOfDay(long* seconds, long* microseconds) {
  if (seconds == nullptr || microseconds == nullptr) return OS_ERROR_INVALID_PARAMETER;
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->timeOfDay != nullptr) {
    int result = overrides->timeOfDay(seconds, microseconds);
    if (result != OSA_CALL_REAL) return result;
  }
  timeval now{};
  if (gettimeofday(&now, nullptr) != 0) return osa_internal::combined_error(OS_ERROR_GENERAL, errno);
  *seconds = now.tv_sec;
  *microseconds = now.tv_usec;
  return OS_OK;
}
