// A non-thread-safe reference-counted pointer.
//
// SmartPointerNTS<T> shares ownership of one object among its copies. The
// count is created lazily: a pointer made from a raw object has no count and
// counts as 1; the first copy allocates a count of 2 and shares it. So a
// pointer that is never copied costs no allocation.
//
// Objects that must never be deleted (statics, members of longer-lived
// objects) are wrapped with deletable = false. Their count pointer is the one
// process-wide DummyRefCountForNonDeletableObjects, which is shared by all
// such objects; its value means nothing and such an object is never deleted.
//
// Threads: a pointer and all its copies must be used by one thread at a time
// (under the lock of whatever owns them). Only the dummy count is touched
// atomically, because unrelated pointers on different threads share it.
#ifndef KESTRIN_APPFW_SMART_POINTER_NTS_H_
#define KESTRIN_APPFW_SMART_POINTER_NTS_H_

#include <stdint.h>

namespace AppFw {

// The shared count of every non-deletable object. Never freed.
extern int32_t DummyRefCountForNonDeletableObjects;

template <class T>
class SmartPointerNTS {
 public:
  // A nil pointer.
  SmartPointerNTS() : object_(nullptr), count_(nullptr) {}

  // Takes `object` (may be null). With `deletable` false the object is never
  // deleted by any copy of this pointer.
  explicit SmartPointerNTS(T* object, bool deletable = true)
      : object_(object),
        count_(deletable || object == nullptr ? nullptr : &DummyRefCountForNonDeletableObjects) {}

  // Shares the object of `other`. Copying a pointer that has an object but no
  // count yet gives both a count of 2 (so `other` is modified).
  SmartPointerNTS(const SmartPointerNTS& other) : object_(other.object_), count_(other.Share()) {}

  // Shares the object of a pointer to a derived class. T must have a virtual
  // destructor if the last owner may be this pointer.
  template <class U>
  SmartPointerNTS(const SmartPointerNTS<U>& other)  // NOLINT: implicit like T* from U*
      : object_(other.object_), count_(other.Share()) {}

  ~SmartPointerNTS() { Release(); }

  SmartPointerNTS& operator=(const SmartPointerNTS& other) {
    SmartPointerNTS copy(other);
    swap(copy);
    return *this;
  }

  template <class U>
  SmartPointerNTS& operator=(const SmartPointerNTS<U>& other) {
    SmartPointerNTS copy(other);
    swap(copy);
    return *this;
  }

  // Drops the current object (as Reset does) and takes `object`. Assigning
  // the object already held does nothing.
  void assign(T* object, bool deletable = true) {
    if (object == object_) return;
    SmartPointerNTS fresh(object, deletable);
    swap(fresh);
  }

  void swap(SmartPointerNTS& other) {
    T* object = object_;
    object_ = other.object_;
    other.object_ = object;
    int32_t* count = count_;
    count_ = other.count_;
    other.count_ = count;
  }

  T* Get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  bool IsNil() const { return object_ == nullptr; }

  // 1 for an object without a count yet, 0 for nil, else the shared count.
  int32_t GetRefCount() const {
    if (count_ == nullptr) return object_ == nullptr ? 0 : 1;
    if (count_ == &DummyRefCountForNonDeletableObjects) {
      return __atomic_load_n(count_, __ATOMIC_RELAXED);
    }
    return *count_;
  }

  // Gives up this pointer's share; the last owner deletes a deletable object.
  // The pointer is nil afterwards.
  void Reset() { Release(); }

 private:
  template <class U>
  friend class SmartPointerNTS;

  // Counts one more owner and returns the count to share (null for nil).
  int32_t* Share() const {
    if (count_ == &DummyRefCountForNonDeletableObjects) {
      __atomic_add_fetch(count_, 1, __ATOMIC_RELAXED);
    } else if (count_ != nullptr) {
      ++*count_;
    } else if (object_ != nullptr) {
      count_ = new int32_t(2);
    }
    return count_;
  }

  void Release() {
    if (count_ == &DummyRefCountForNonDeletableObjects) {
      // Never deleted; the count is kept (above 1) only for GetRefCount.
      if (__atomic_load_n(count_, __ATOMIC_RELAXED) > 1) {
        __atomic_sub_fetch(count_, 1, __ATOMIC_RELAXED);
      }
    } else if (count_ != nullptr && *count_ > 1) {
      --*count_;
    } else {
      delete object_;
      delete count_;
    }
    object_ = nullptr;
    count_ = nullptr;
  }

  T* object_;
  // Null until the first copy (or the dummy for a non-deletable object).
  // Mutable because copying from a const pointer creates the count.
  mutable int32_t* count_;
};

}  // namespace AppFw

#endif  // KESTRIN_APPFW_SMART_POINTER_NTS_H_
