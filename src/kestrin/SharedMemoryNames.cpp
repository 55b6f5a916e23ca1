// The names of the two segments shared with client processes. The client
// library exports the same two names with the same values; programs that do
// not link the client library (the daemon's own libraries and their tests)
// link this file instead, never both.
#include "qrt/KesSharedLayout.h"

extern "C" {
const char KesRegTableSharedMemoryName[] = "KesRegTable";
const char KesSharedMemoryName[] = "KesFilters";
}
