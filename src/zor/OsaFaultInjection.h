// Test helper: failures of platform calls that cannot be made to fail on
// demand. The test program is linked with -Wl,--wrap for each call below;
// the wrapper returns the configured failure, or runs the real call when
// none is set. Not part of the library.
#ifndef KESTRIN_ZOR_OSA_FAULT_INJECTION_H_
#define KESTRIN_ZOR_OSA_FAULT_INJECTION_H_

#include <stddef.h>

namespace osa_fault {

struct Faults {
  int initializeMutex = 0;  // result of osInitializeLwtMutex (0: real call)
  int lockMutex = 0;        // result of osLockLwtMutex (0: real call)
  // osGetProcessFileName: a failure code, or (with code 0) a name to report.
  int processFileNameError = 0;
  const char* processFileName = nullptr;
  int processIdError = 0;  // result of osGetProcessId (0: real call)
  int itoaError = 0;       // result of osItoaEx (0: real call)

  // What the wrappers saw.
  int initializeCalls = 0;
  int lastLockNow = -1;
  int lastThrowOnError = -1;
  int cleanupCalls = 0;
  long fileNameCalls = 0;
  unsigned long lastFileNameTask = 99;
  size_t lastFileNameSize = 0;
  long lastItoaValue = 0;
  size_t lastItoaSize = 0;
  int lastItoaSigned = -1;
};

// The current settings; reset with Reset() at the start of each test.
Faults& Get();
void Reset();

}  // namespace osa_fault

#endif  // KESTRIN_ZOR_OSA_FAULT_INJECTION_H_
