// The system log.
#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

void osOpenSyslog(const char* ident) { openlog(ident, LOG_CONS, LOG_DAEMON); }

void osCloseSyslog(void) { closelog(); }

void osSyslog(int priority, const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->syslog != nullptr &&
      overrides->syslog(priority, text) != OSA_CALL_REAL) {
    return;
  }
  syslog(priority, "%s", text);
}
