// Registration with the service manager.
//
// Design: a process started by systemd as a Type=notify unit finds
// NOTIFY_SOCKET in its environment and reports "READY=1" and "STOPPING=1"
// through the notification socket; it stays in the foreground, where systemd wants it.
// Started by hand, it detaches: QrtServiceStartService forks, the original
// process blocks on a pipe until the child writes one byte from
// QrtServiceInitialized (or closes it by ending or stopping), and exits with
// the outcome, so that "kestrin start" returns only once the daemon is ready.
// Once it has reported, the child points its standard streams at /dev/null:
// what it printed while starting reached the caller, and nothing it holds
// keeps the caller's terminal or pipe open afterwards. Under systemd the
// streams lead to the journal and stay.
//
// Termination requests arrive as SIGTERM. The signal is blocked in the
// calling (main) thread before any other thread exists, so every thread
// inherits the block and the kernel holds the signal for the one thread that
// waits for it with sigwait: the callback then runs on that thread, outside
// any signal handler, and may do real work (the daemon's clean-up).
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <mutex>
#include <string>

#include "osa/osa.h"
#include "qrt/QrtDiag.h"

namespace {

enum class ServiceState { NOT_STARTED, STARTED, READY, STOPPED };

// The process's one registration. Written by the QrtService* calls under
// g_lock; the signal and watchdog threads read only the fields that are set
// before they start and never change afterwards (callback, timeout, name).
struct Service {
  ServiceState state = ServiceState::NOT_STARTED;
  bool underManager = false;  // NOTIFY_SOCKET was set at start
  long readyHandle = -1;      // after a detach: where to report readiness; -1 once used
  QrtServiceTerminationCallback callback = nullptr;
  int stopTimeoutSeconds = 0;
  std::string name;
};

std::mutex g_lock;
Service g_service;

bool under_service_manager() {
  const char* socket = getenv("NOTIFY_SOCKET");
  return socket != nullptr && socket[0] != '\0';
}

// Goes into the background; only the child returns (QRT_OK, holding the
// readiness handle), in a session of its own.
int detach(const char* name) {
  return osDetachProcess(name, &g_service.readyHandle) == OS_OK ? QRT_OK : QRT_ERROR_SYSTEM;
}

// Ends the process when a termination request has not ended it in time.
void stop_watchdog(void*) {
  osSleep(static_cast<unsigned long>(g_service.stopTimeoutSeconds) * 1000UL);
  fprintf(stderr, "%s: still running %d s after a termination request; ending it\n",
          g_service.name.c_str(), g_service.stopTimeoutSeconds);
  osSyslog(OS_LOG_CRIT, "%s: still running %d s after a termination request; ending it",
           g_service.name.c_str(), g_service.stopTimeoutSeconds);
  osExitNow(1);
}

const int TERMINATION_SIGNALS[] = {SIGTERM};

void termination_thread(void*) {
  bool watchdogStarted = false;
  for (;;) {
    int signalNumber = 0;
    if (osWaitForSignal(TERMINATION_SIGNALS, 1, &signalNumber) != OS_OK) continue;
    if (!watchdogStarted && g_service.stopTimeoutSeconds > 0) {
      watchdogStarted = true;
      osCreateTask("QrtStopWatchdog", 0, 0, stop_watchdog, nullptr, nullptr);
    }
    g_service.callback(static_cast<unsigned long>(signalNumber));
  }
}

int start_termination_thread() {
  if (osBlockSignals(TERMINATION_SIGNALS, 1, 1) != OS_OK) return QRT_ERROR_SYSTEM;
  if (osCreateTask("QrtTermination", 0, 0, termination_thread, nullptr, nullptr) != OS_OK) {
    return QRT_ERROR_SYSTEM;
  }
  return QRT_OK;
}

int start_service(const char* name, int options, int interfaceVersion,
                  QrtServiceTerminationCallback callback, int stopTimeoutSeconds) {
  if (name == nullptr || callback == nullptr || interfaceVersion != QRT_SERVICE_INTERFACE_VERSION ||
      (options & ~QRT_SERVICE_OPTION_FOREGROUND) != 0 || stopTimeoutSeconds < 0) {
    return QRT_ERROR_INVALID_PARAMETER;
  }
  std::lock_guard<std::mutex> guard(g_lock);
  if (g_service.state != ServiceState::NOT_STARTED) return QRT_ERROR_INVALID_STATE;
  g_service.name = name;
  g_service.callback = callback;
  g_service.stopTimeoutSeconds = stopTimeoutSeconds;
  g_service.underManager = under_service_manager();
  if (!g_service.underManager && (options & QRT_SERVICE_OPTION_FOREGROUND) == 0) {
    int result = detach(name);
    if (result != QRT_OK) return result;
  }
  g_service.state = ServiceState::STARTED;
  return start_termination_thread();
}

int service_initialized() {
  std::lock_guard<std::mutex> guard(g_lock);
  if (g_service.state != ServiceState::STARTED) return QRT_ERROR_INVALID_STATE;
  bool streamsDetached = true;
  if (g_service.underManager) {
    if (osNotifyServiceManager("READY=1") != OS_OK) return QRT_ERROR_SYSTEM;
  } else if (g_service.readyHandle >= 0) {
    const int result = osReportReady(g_service.readyHandle, 1);
    g_service.readyHandle = -1;
    if (result != OS_OK) return QRT_ERROR_SYSTEM;
    // The starter has exited or is about to; the background process lets go
    // of the terminal or pipes it inherited from it, or a caller reading
    // them (`kestrin start | cat`) would wait as long as the service runs.
    streamsDetached = osDetachStandardStreams() == OS_OK;
  }
  g_service.state = ServiceState::READY;
  return streamsDetached ? QRT_OK : QRT_ERROR_SYSTEM;
}

int stop_service() {
  std::lock_guard<std::mutex> guard(g_lock);
  if (g_service.state == ServiceState::NOT_STARTED || g_service.state == ServiceState::STOPPED) {
    return QRT_ERROR_INVALID_STATE;
  }
  g_service.state = ServiceState::STOPPED;
  if (g_service.readyHandle >= 0) {
    // Start-up never completed: the waiting original process reports it.
    osReportReady(g_service.readyHandle, 0);
    g_service.readyHandle = -1;
  }
  if (g_service.underManager && osNotifyServiceManager("STOPPING=1") != OS_OK) {
    return QRT_ERROR_SYSTEM;
  }
  return QRT_OK;
}

}  // namespace

extern "C" int QrtServiceStartService(const char* serviceName, int options, int interfaceVersion,
                                      QrtServiceTerminationCallback terminationCallback,
                                      int stopTimeoutSeconds) {
  try {
    return start_service(serviceName, options, interfaceVersion, terminationCallback,
                         stopTimeoutSeconds);
  } catch (...) {
    return QRT_ERROR_INTERNAL;
  }
}

extern "C" int QrtServiceInitialized(void) {
  try {
    return service_initialized();
  } catch (...) {
    return QRT_ERROR_INTERNAL;
  }
}

extern "C" int QrtServiceStopService(void) {
  try {
    return stop_service();
  } catch (...) {
    return QRT_ERROR_INTERNAL;
  }
}
