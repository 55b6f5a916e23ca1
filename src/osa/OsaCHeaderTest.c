/* Compiles osa.h as C: the platform layer's header must stay a C header. */
#include "osa/osa.h"

int osa_c_header_check(void) {
  char out[64];
  tOsTCPSocketAddress address = {0x7f000001u, 80};
  tOsaOverrides overrides = {0};
  if (osMapIpcName("Q", out, sizeof out) != OS_OK) return 1;
  if (osTCPAddressToString(&address, out, sizeof out) != OS_OK) return 2;
  if (overrides.clock != 0) return 3;
  return osGetSpecificErrorCode(OS_OK);
}
