// Scope guards: hold a lock, drop a lock, or change a variable for the
// lifetime of a block.
//
// The lock guards call a CriticalSection that may throw. A failure in a
// destructor cannot be thrown on (destructors are noexcept), so it ends the
// program with the exception's text: a lock that cannot be released or taken
// back is a broken invariant.
#ifndef KESTRIN_ZOR_SCOPED_H_
#define KESTRIN_ZOR_SCOPED_H_

#include "zor/CriticalSection.h"
#include "zor/NonCopyable.h"

namespace Zor {

// Acquires `section` on construction and releases it on destruction.
class ScopedCriticalSectionLock : private NonCopyable {
 public:
  explicit ScopedCriticalSectionLock(CriticalSection& section) : section_(section) {
    section_.Acquire();
  }
  ~ScopedCriticalSectionLock() { section_.Release(); }

 private:
  CriticalSection& section_;
};

// Releases `section`, which the caller holds, on construction and acquires it
// again on destruction: for a stretch that must run without the lock.
class ScopedCriticalSectionUnlock : private NonCopyable {
 public:
  explicit ScopedCriticalSectionUnlock(CriticalSection& section) : section_(section) {
    section_.Release();
  }
  ~ScopedCriticalSectionUnlock() { section_.Acquire(); }

 private:
  CriticalSection& section_;
};

// Sets `variable` to `value` on construction and restores its previous value
// on destruction. Used as ScopedVarChange<bool> for re-entrancy flags.
template <typename T>
class ScopedVarChange : private NonCopyable {
 public:
  ScopedVarChange(T& variable, const T& value) : variable_(variable), saved_(variable) {
    variable_ = value;
  }
  ~ScopedVarChange() { variable_ = saved_; }

 private:
  T& variable_;
  T saved_;
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_SCOPED_H_
