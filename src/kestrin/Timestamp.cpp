#include "kestrin/Timestamp.h"

#include <stdio.h>
#include <time.h>

#include "osa/osa.h"

namespace kestrin {

namespace {

constexpr size_t TIMESTAMP_CACHE_SIZE = 80;

unsigned long conversion_count = 0;

// seconds - 1 without overflow at the bottom of the range (wraps instead).
long SecondBefore(long seconds) {
  return static_cast<long>(static_cast<unsigned long>(seconds) - 1UL);
}

void Convert(long seconds, char* out, size_t size) {
  time_t time = static_cast<time_t>(seconds);
  struct tm local;
  // The year is widened before adding 1900: localtime_r accepts any year
  // whose offset from 1900 fits an int, so the sum itself may not.
  if (localtime_r(&time, &local) != nullptr) {
    snprintf(out, size, "%lld-%02d-%02dT%02d:%02d:%02d.", local.tm_year + 1900LL, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  } else {
    snprintf(out, size, "%d-%02d-%02dT%02d:%02d:%02d.", 1900, 1, 1, 0, 0, 0);
  }
}

void FormatTimestamp(long seconds, char* out, size_t size) {
  ++conversion_count;
  Convert(seconds, out, size);
}

}  // namespace

void FormatTimestampUncached(long seconds, char* buf, size_t size) {
  if (buf == nullptr || size == 0) return;
  Convert(seconds, buf, size);
}

const char* GetTimestampString(long seconds, char* buf, size_t size) {
  static char cache[TIMESTAMP_CACHE_SIZE];
  // Starts one second before the first second asked for, so that the first
  // call always formats.
  static long cached_second = SecondBefore(seconds);
  if (seconds != cached_second) {
    FormatTimestamp(seconds, cache, sizeof cache);
    cached_second = seconds;
  }
  if (buf == nullptr) return cache;
  return osLStrCpyn(buf, cache, size);
}

unsigned long TimestampConversionCount() { return conversion_count; }

}  // namespace kestrin
