// The time stamp that starts every log line.
#ifndef KESTRIN_KESTRIN_TIMESTAMP_H_
#define KESTRIN_KESTRIN_TIMESTAMP_H_

#include <stddef.h>

namespace kestrin {

// The local time of `seconds` (since the epoch) as "YYYY-MM-DDThh:mm:ss."
// (printf "%d-%02d-%02dT%02d:%02d:%02d."); the trailing period is there for
// the caller to append the fraction of the second. When the time cannot be
// converted the text is "1900-01-01T00:00:00.".
//
// The text of the last second formatted is cached, so any number of calls for
// the same second cost one conversion; a call for any other second, earlier
// or later, converts again. With `buf` null the result points at that cache
// and stays valid until a call for another second. Otherwise the text is
// copied into `buf`, cut to `size` - 1 characters and terminated (nothing is
// written when `size` is 0), and `buf` is returned.
//
// Not thread-safe: the cache is unguarded. Call from the main thread only.
const char* GetTimestampString(long seconds, char* buf = nullptr, size_t size = 0);

// The same text formatted into `buf` without the cache, for threads other
// than the main thread. Safe from any thread.
void FormatTimestampUncached(long seconds, char* buf, size_t size);

// How many times GetTimestampString has converted a second since the process
// started. Lets tests see the cache at work.
unsigned long TimestampConversionCount();

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_TIMESTAMP_H_
