// Lightweight mutexes: a pthread mutex behind an unsigned long handle.
#include <errno.h>
#include <pthread.h>

#include <new>

#include "osa/osa.h"

namespace {

pthread_mutex_t* from_handle(unsigned long* mutex) {
  return mutex == nullptr ? nullptr : reinterpret_cast<pthread_mutex_t*>(*mutex);
}

int from_errno(int error) {
  switch (error) {
    case 0:
      return OS_OK;
    case ENOMEM:
      return OS_ERROR_NO_MEMORY;
    case EINVAL:
      return OS_ERROR_INVALID_PARAMETER;
    default:
      return OS_ERROR_GENERAL;
  }
}

}  // namespace

int osInitializeLwtMutex(unsigned long* mutex, int /*lockNow*/, int /*throwOnError*/) {
  if (mutex == nullptr) return OS_ERROR_INVALID_PARAMETER;
  auto* m = new (std::nothrow) pthread_mutex_t;
  if (m == nullptr) return OS_ERROR_NO_MEMORY;
  int rc = pthread_mutex_init(m, nullptr);
  if (rc != 0) {
    delete m;
    return from_errno(rc);
  }
  *mutex = reinterpret_cast<unsigned long>(m);
  return OS_OK;
}

int osLockLwtMutex(unsigned long* mutex) {
  pthread_mutex_t* m = from_handle(mutex);
  if (m == nullptr) return OS_ERROR_INVALID_PARAMETER;
  return from_errno(pthread_mutex_lock(m));
}

int osUnlockLwtMutex(unsigned long* mutex) {
  pthread_mutex_t* m = from_handle(mutex);
  if (m == nullptr) return OS_ERROR_INVALID_PARAMETER;
  return from_errno(pthread_mutex_unlock(m));
}

int osCleanupLwtMutex(unsigned long* mutex) {
  pthread_mutex_t* m = from_handle(mutex);
  if (m == nullptr) return OS_ERROR_INVALID_PARAMETER;
  int rc = pthread_mutex_destroy(m);
  if (rc != 0) return from_errno(rc);
  delete m;
  *mutex = 0;
  return OS_OK;
}
