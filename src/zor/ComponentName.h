// The process's component name: the executable's file name without a
// trailing ".exe" (any case), used to name process-wide resources such as
// the single-instance guard.
#ifndef KESTRIN_ZOR_COMPONENT_NAME_H_
#define KESTRIN_ZOR_COMPONENT_NAME_H_

#include <string>

namespace Zor {

class ComponentName {
 public:
  // The stored name. While none is stored, it is worked out first: the
  // executable's file name (osGetProcessFileName, at most 63 characters),
  // else the process id in decimal, else "unknown"; a trailing ".exe" in
  // any case is cut off. The reference stays valid until the next Set.
  static const std::string& Get();

  // Get() as a NUL-terminated string.
  static const char* Name();

  // Stores `name` (null is taken as empty). An empty name makes the next
  // Get() work the name out again. Meant for start-up, before other threads
  // read the name.
  static void Set(const char* name);

 private:
  static std::string& stored();
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_COMPONENT_NAME_H_
