#include "kestrin/ErrorThrottle.h"

#include <string>

#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "osa/osa.h"

namespace kestrin {

namespace {

// The time of day in whole seconds; on failure reports it (when warnings are
// wanted) and gives `fallback`.
int32_t SecondsOrReport(int32_t fallback) {
  long seconds = 0;
  long microseconds = 0;
  int result = osGetTimeOfDay(&seconds, &microseconds);
  if (result == OS_OK) return static_cast<int32_t>(seconds);
  if (OwnLogAdmits(KES_SEVERITY_WARNING)) {
    LogKestrinMessage(KES_SEVERITY_WARNING,
                      "gettimeofday failed; errno = " +
                          std::to_string(osGetSpecificErrorCode(result)),
                      -1);
  }
  return fallback;
}

}  // namespace

ErrorThrottle::ErrorThrottle(unsigned int maxErrorsIn, long periodSecondsIn)
    : count(0),
      maxErrors(maxErrorsIn),
      periodSeconds(static_cast<int32_t>(periodSecondsIn)),
      periodStart(SecondsOrReport(0)) {}

bool ErrorThrottle::anotherErrorOK() {
  ++count;
  if (count < maxErrors) return true;
  int32_t now = SecondsOrReport(periodStart);
  if (now >= periodStart && now <= periodStart + periodSeconds) return false;
  count = 0;
  periodStart = now;
  return true;
}

}  // namespace kestrin
