// Base class for objects that must not be copied or assigned (locks, files,
// scope guards). Derive privately or publicly; it adds no data.
#ifndef KESTRIN_ZOR_NON_COPYABLE_H_
#define KESTRIN_ZOR_NON_COPYABLE_H_

namespace Zor {

class NonCopyable {
 public:
  NonCopyable(const NonCopyable&) = delete;
  NonCopyable& operator=(const NonCopyable&) = delete;

 protected:
  NonCopyable() = default;
  ~NonCopyable() = default;
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_NON_COPYABLE_H_
