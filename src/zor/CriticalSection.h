// Critical sections: the locks of the foundation library and the daemon.
//
// CriticalSection is the interface; NullCriticalSection is for objects used
// by one thread only; GenericCriticalSection wraps a lightweight mutex of the
// platform layer. Locking is not recursive.
#ifndef KESTRIN_ZOR_CRITICAL_SECTION_H_
#define KESTRIN_ZOR_CRITICAL_SECTION_H_

#include "zor/NonCopyable.h"

namespace Zor {

class CriticalSection {
 public:
  virtual ~CriticalSection();
  // Both return 0 or the platform layer's error code; an implementation may
  // throw instead (GenericCriticalSection built with throw-on-error).
  virtual int Acquire() = 0;
  virtual int Release() = 0;
};

// A lock that does nothing, for objects that only one thread touches.
class NullCriticalSection : public CriticalSection {
 public:
  ~NullCriticalSection() override;
  int Acquire() override;
  int Release() override;
};

// A lightweight mutex of the platform layer, either its own or one that the
// caller owns. With throw-on-error set, every failing platform call throws
// OsaErrorException naming the method and the call; otherwise the failure is
// returned and the object carries on.
class GenericCriticalSection : public CriticalSection, private NonCopyable {
 public:
  // Creates and owns a mutex (osInitializeLwtMutex); with `lockNow` the
  // mutex is locked before the constructor returns. Throws on failure when
  // `throwOnError` is set (a mutex that was created is cleaned up first).
  explicit GenericCriticalSection(bool lockNow = false, bool throwOnError = true);

  // Uses the caller's mutex handle `mutex`, which must outlive this object
  // and is not cleaned up by it.
  explicit GenericCriticalSection(unsigned long& mutex, bool throwOnError = true);

  // Cleans up the mutex only when this object created it.
  ~GenericCriticalSection() override;

  // osLockLwtMutex / osUnlockLwtMutex on the mutex in use.
  int Acquire() override;
  int Release() override;

 private:
  bool ownsMutex_;
  unsigned long mutexStorage_;  // the handle of the own mutex; 0 when none
  unsigned long* mutex_;        // &mutexStorage_ or the caller's handle
  bool throwOnError_;
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_CRITICAL_SECTION_H_
