// Bounded string copies and number formatting.
#include <stdio.h>
#include <string.h>

#include "osa/osa.h"

char* osLStrCpyn(char* dst, const char* src, size_t size) {
  if (dst == nullptr || size == 0) return dst;
  if (src == nullptr) src = "";
  size_t n = strnlen(src, size - 1);
  memmove(dst, src, n);
  dst[n] = '\0';
  return dst;
}

int osItoaEx(long value, char* buffer, size_t size, int isSigned) {
  if (buffer == nullptr || size == 0) return OS_ERROR_INVALID_PARAMETER;
  char digits[32];
  int n = isSigned ? snprintf(digits, sizeof digits, "%ld", value)
                   : snprintf(digits, sizeof digits, "%lu", static_cast<unsigned long>(value));
  if (n < 0) return OS_ERROR_GENERAL;
  if (static_cast<size_t>(n) >= size) {
    osLStrCpyn(buffer, digits, size);
    return OS_ERROR_BUFFER_TOO_SMALL;
  }
  memcpy(buffer, digits, static_cast<size_t>(n) + 1);
  return OS_OK;
}
