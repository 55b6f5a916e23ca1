#include "appfw/SmartPointerNTS.h"

namespace AppFw {

// Starts at 1, like a lone pointer; copies of non-deletable pointers move it
// up and down but it never reaches a point where anything is deleted.
int32_t DummyRefCountForNonDeletableObjects = 1;

}  // namespace AppFw
