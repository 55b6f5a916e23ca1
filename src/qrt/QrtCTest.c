/* Compiles QrtDiag.h as C and uses it the way a C application does: the
 * client library's header must stay a C header. */
#include "protocol/SharedLayout.h"
#include "qrt/QrtDiag.h"

/* Registers a module and logs one printf-style message and one with a class.
 * Returns the handle, or -100 - the failing result code. */
int qrt_c_register_and_log(void) {
  int handle = -1;
  unsigned short severity = 0;
  unsigned long eventClass = 0;
  unsigned char destination = 0;
  int result = QrtDiagRegisterModule("CModule", "CModuleInLog", 0, "c_module.log", &handle);
  if (result != QRT_OK) return -100 - result;
  if (QrtDiagSeverityFromWord("warning", &severity) != QRT_OK) return -200;
  if (QrtDiagEventClassFromWord("audit", &eventClass) != QRT_OK) return -201;
  if (QrtDiagDestinationFromWord("both", &destination) != QRT_OK) return -202;
  result = QrtDiagAddLog(handle, QRT_DESTINATION_PRIVATE_FILE, QRT_SEVERITY_ERROR, 42UL,
                         "from C: %d %s", 7, "seven");
  if (result != QRT_OK) return -100 - result;
  result = QrtDiagAddLogWithEvClass(handle, destination, severity, 43UL, "classed", eventClass);
  if (result != QRT_OK) return -100 - result;
  return handle;
}

/* The result of registering without a daemon, and the text for it. */
int qrt_c_without_daemon(const char** text) {
  int handle = -1;
  int result = QrtDiagRegisterModule("CModule", "CModule", 0, "c_module.log", &handle);
  *text = QrtErrorText(result);
  return result;
}

/* The slot size as C sees the shared layout. */
unsigned long qrt_c_slot_size(void) { return (unsigned long)sizeof(tKesRegTableEntry); }
