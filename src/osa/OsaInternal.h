// Internal helpers shared by the files of the platform layer: errno mapping,
// the fault-injection table and a few test hooks. Not for use outside src/osa.
#ifndef KESTRIN_OSA_OSA_INTERNAL_H_
#define KESTRIN_OSA_OSA_INTERNAL_H_

#include <stddef.h>

#include <string>

#include "osa/osa.h"

namespace osa_internal {

// Maps an errno of a file or directory call to a result code: ENOENT ->
// OS_ERROR_FILE_NOT_FOUND, ENOTDIR -> OS_ERROR_PATH_NOT_FOUND, ENOSPC/EDQUOT
// -> OS_ERROR_NO_SPACE, EACCES/EPERM/EROFS -> OS_ERROR_ACCESS_DENIED,
// EEXIST/ENOTEMPTY -> OS_ERROR_ALREADY_EXISTS, EISDIR ->
// OS_ERROR_IS_DIRECTORY, ENOMEM -> OS_ERROR_NO_MEMORY,
// EINVAL/EFAULT/EBADF/ENAMETOOLONG -> OS_ERROR_INVALID_PARAMETER, anything
// else OS_ERROR_GENERAL.
int file_error_from_errno(int error);

// As file_error_from_errno, but an ENOENT is OS_ERROR_PATH_NOT_FOUND when the
// directory holding `path` does not exist (the missing piece is on the way,
// not the file itself).
int file_error_for_path(int error, const char* path);

// Maps an errno of a socket call to a result code (see osa.h). `selectCall`
// turns EINTR into OS_ERROR_SELECT_RETRY instead of OS_ERROR_RETRY.
int socket_error_from_errno(int error, bool selectCall = false);

// Combines a general OS_ERROR_* code (low 16 bits) with an errno (high bits)
// into the error value of osShareMemory and the queue calls.
int combined_error(int general, int error);

// The installed fault-injection table, or null. Read atomically: a test may
// install it while other threads call into the layer.
const tOsaOverrides* installed_overrides();

// The test time scale as the environment gives it now (1 when unset or out
// of range), and a reset that makes the next osSleep or osGetClock read it
// again (for tests of the hook).
unsigned long read_test_time_scale();
void forget_test_time_scale();

// The lock file that osGetProcessState uses for `name` (for tests that clean
// up after themselves). Empty when the name cannot be mapped.
std::string process_state_lock_path(const char* name);

// The name given to shm_open / mq_open for `name`: mapped per root and
// starting with "/". Returns false when it does not fit or is invalid.
bool posix_ipc_name(const char* name, char* out, size_t outSize);

}  // namespace osa_internal

#endif  // KESTRIN_OSA_OSA_INTERNAL_H_
