#include "zor/OsaFaultInjection.h"

#include "osa/osa.h"

namespace osa_fault {

Faults& Get() {
  static Faults faults;
  return faults;
}

void Reset() { Get() = Faults(); }

}  // namespace osa_fault

extern "C" {

int __real_osInitializeLwtMutex(unsigned long* mutex, int lockNow, int throwOnError);
int __real_osLockLwtMutex(unsigned long* mutex);
int __real_osCleanupLwtMutex(unsigned long* mutex);
int __real_osGetProcessFileName(unsigned long taskId, char* buffer, size_t size);
int __real_osGetProcessId(unsigned long* processId);
int __real_osItoaEx(long value, char* buffer, size_t size, int isSigned);

int __wrap_osInitializeLwtMutex(unsigned long* mutex, int lockNow, int throwOnError) {
  osa_fault::Faults& faults = osa_fault::Get();
  ++faults.initializeCalls;
  faults.lastLockNow = lockNow;
  faults.lastThrowOnError = throwOnError;
  if (faults.initializeMutex != 0) return faults.initializeMutex;
  return __real_osInitializeLwtMutex(mutex, lockNow, throwOnError);
}

int __wrap_osLockLwtMutex(unsigned long* mutex) {
  int error = osa_fault::Get().lockMutex;
  return error != 0 ? error : __real_osLockLwtMutex(mutex);
}

int __wrap_osCleanupLwtMutex(unsigned long* mutex) {
  ++osa_fault::Get().cleanupCalls;
  return __real_osCleanupLwtMutex(mutex);
}

int __wrap_osGetProcessFileName(unsigned long taskId, char* buffer, size_t size) {
  osa_fault::Faults& faults = osa_fault::Get();
  ++faults.fileNameCalls;
  faults.lastFileNameTask = taskId;
  faults.lastFileNameSize = size;
  if (faults.processFileNameError != 0) return faults.processFileNameError;
  if (faults.processFileName != nullptr) {
    osLStrCpyn(buffer, faults.processFileName, size);
    return OS_OK;
  }
  return __real_osGetProcessFileName(taskId, buffer, size);
}

int __wrap_osGetProcessId(unsigned long* processId) {
  int error = osa_fault::Get().processIdError;
  return error != 0 ? error : __real_osGetProcessId(processId);
}

int __wrap_osItoaEx(long value, char* buffer, size_t size, int isSigned) {
  osa_fault::Faults& faults = osa_fault::Get();
  faults.lastItoaValue = value;
  faults.lastItoaSize = size;
  faults.lastItoaSigned = isSigned;
  int error = faults.itoaError;
  return error != 0 ? error : __real_osItoaEx(value, buffer, size, isSigned);
}

}  // extern "C"
