#include "zor/CriticalSection.h"

#include "osa/osa.h"
#include "zor/ZorException.h"

namespace Zor {

CriticalSection::~CriticalSection() = default;

NullCriticalSection::~NullCriticalSection() = default;

int NullCriticalSection::Acquire() { return 0; }

int NullCriticalSection::Release() { return 0; }

GenericCriticalSection::GenericCriticalSection(bool lockNow, bool throwOnError)
    : ownsMutex_(true), mutexStorage_(0), mutex_(&mutexStorage_), throwOnError_(throwOnError) {
  int rc = osInitializeLwtMutex(mutex_, lockNow, throwOnError);
  if (rc != 0) {
    if (throwOnError_) {
      throw OsaErrorException(
          "GenericCriticalSection::GenericCriticalSection call to "
          "osInitializeLwtMutex",
          rc);
    }
    return;
  }
  if (!lockNow) return;
  rc = osLockLwtMutex(mutex_);
  if (rc != 0 && throwOnError_) {
    // The destructor will not run for an object whose constructor throws.
    osCleanupLwtMutex(mutex_);
    throw OsaErrorException("GenericCriticalSection::GenericCriticalSection call to osLockLwtMutex",
                            rc);
  }
}

GenericCriticalSection::GenericCriticalSection(unsigned long& mutex, bool throwOnError)
    : ownsMutex_(false), mutexStorage_(0), mutex_(&mutex), throwOnError_(throwOnError) {}

GenericCriticalSection::~GenericCriticalSection() {
  if (ownsMutex_) osCleanupLwtMutex(mutex_);
}

int GenericCriticalSection::Acquire() {
  int rc = osLockLwtMutex(mutex_);
  if (rc != 0 && throwOnError_) {
    throw OsaErrorException("GenericCriticalSection::Acquire call to osLockLwtMutex", rc);
  }
  return rc;
}

int GenericCriticalSection::Release() {
  int rc = osUnlockLwtMutex(mutex_);
  if (rc != 0 && throwOnError_) {
    throw OsaErrorException("GenericCriticalSection::Release call to osUnlockLwtMutex", rc);
  }
  return rc;
}

}  // namespace Zor
