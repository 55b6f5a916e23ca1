// The single-instance guard: tells whether this is the first live process of
// its component on the machine (per KESTRIN_ROOT, and per sudo user).
//
// Constructing the guard claims the name "SPIM_" + component name
// [+ "_" + $SUDO_USER] for this process until it ends; the platform releases
// the claim when the process ends, however it ends. Keep the object for the
// life of the process.
#ifndef KESTRIN_ZOR_SINGLE_PROCESS_INSTANCE_MUTEX_H_
#define KESTRIN_ZOR_SINGLE_PROCESS_INSTANCE_MUTEX_H_

#include <string>

#include "zor/NonCopyable.h"

namespace Zor {

class SingleProcessInstanceMutex : private NonCopyable {
 public:
  SingleProcessInstanceMutex();

  // True when no other live process holds the name: the name was free
  // (state 0) or its last holder has ended (state 2). A failing platform
  // call leaves the state at 0, so the guard then lets the process run.
  bool IAmFirst() const;

  // The claimed name, e.g. "SPIM_kestrin" or "SPIM_kestrin_alice".
  const std::string& GetName() const { return name_; }

  // The state osGetProcessState gave (0 when it failed).
  int GetState() const { return state_; }

  // The result of osGetProcessState (0 on success).
  int GetResult() const { return result_; }

 private:
  int state_;
  std::string name_;
  int result_;
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_SINGLE_PROCESS_INSTANCE_MUTEX_H_
