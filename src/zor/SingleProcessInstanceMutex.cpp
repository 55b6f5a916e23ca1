#include "zor/SingleProcessInstanceMutex.h"

#include <stdlib.h>

#include "osa/osa.h"
#include "zor/ComponentName.h"

namespace Zor {

namespace {

// Instances started by different sudo users must not exclude each other, so
// the user is part of the name.
std::string instance_name() {
  std::string name = "SPIM_" + ComponentName::Get();
  const char* sudoUser = getenv("SUDO_USER");
  if (sudoUser != nullptr) {
    name += "_";
    name += sudoUser;
  }
  return name;
}

}  // namespace

SingleProcessInstanceMutex::SingleProcessInstanceMutex()
    : state_(OS_PROCESS_STATE_NEW), name_(instance_name()), result_(OS_OK) {
  result_ = osGetProcessState(name_.c_str(), &state_);
}

bool SingleProcessInstanceMutex::IAmFirst() const {
  return state_ == OS_PROCESS_STATE_NEW || state_ == OS_PROCESS_STATE_RECLAIMED;
}

}  // namespace Zor
