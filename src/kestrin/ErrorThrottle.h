// Limits how often a repeated error is reported.
#ifndef KESTRIN_KESTRIN_ERROR_THROTTLE_H_
#define KESTRIN_KESTRIN_ERROR_THROTTLE_H_

#include <cstdint>

namespace kestrin {

// Counts errors in periods of `periodSeconds` whole seconds of the time of
// day. The count is incremented before it is compared, so only maxErrors - 1
// errors pass freely in a period; from the maxErrors-th on, errors are refused
// until the period has run out, and the first one after that starts a new
// period. One thread uses an object.
class ErrorThrottle {
 public:
  ErrorThrottle(unsigned int maxErrors, long periodSeconds);

  // Counts one error; true when it may be reported.
  bool anotherErrorOK();

 private:
  uint32_t count;
  uint32_t maxErrors;
  int32_t periodSeconds;
  int32_t periodStart;
};

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_ERROR_THROTTLE_H_
