// Signals: handlers that set a flag, the signal mask of the calling thread,
// and waiting for a blocked signal on a thread of its own.
#include <errno.h>
#include <pthread.h>
#include <signal.h>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

bool make_set(const int* signals, int count, sigset_t* set) {
  if (count < 0 || (signals == nullptr && count > 0)) return false;
  sigemptyset(set);
  for (int i = 0; i < count; ++i) {
    if (sigaddset(set, signals[i]) != 0) return false;
  }
  return true;
}

}  // namespace

int osSetSignalHandler(int signalNumber, tOsSignalHandler handler) {
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  action.sa_handler = handler;
  if (sigaction(signalNumber, &action, nullptr) != 0) {
    return osa_internal::combined_error(OS_ERROR_INVALID_PARAMETER, errno);
  }
  return OS_OK;
}

int osBlockSignals(const int* signals, int count, int block) {
  sigset_t set;
  if (!make_set(signals, count, &set)) return OS_ERROR_INVALID_PARAMETER;
  int error = pthread_sigmask(block ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
  return error == 0 ? OS_OK : osa_internal::combined_error(OS_ERROR_INVALID_PARAMETER, error);
}

int osWaitForSignal(const int* signals, int count, int* signalNumber) {
  sigset_t set;
  if (signalNumber == nullptr || !make_set(signals, count, &set)) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  int error = sigwait(&set, signalNumber);
  return error == 0 ? OS_OK : osa_internal::combined_error(OS_ERROR_GENERAL, error);
}
