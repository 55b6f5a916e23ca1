// Files and directories: stdio streams behind tOsFile handles, and the
// directory operations that the rolling files need.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

// fopen modes are a handful of characters; anything longer is not one.
constexpr size_t MAX_MODE = 8;

}  // namespace

int osOpenFile(const char* path, const char* mode, tOsFile* file) {
  if (path == nullptr || path[0] == '\0' || mode == nullptr || mode[0] == '\0' || file == nullptr ||
      strlen(mode) > MAX_MODE) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  // "e" (O_CLOEXEC) keeps the daemon's files out of the programs it starts.
  char fullMode[MAX_MODE + 2];
  snprintf(fullMode, sizeof fullMode, "%s%s", mode, strchr(mode, 'e') ? "" : "e");
  FILE* stream = fopen(path, fullMode);
  if (stream == nullptr) return osa_internal::file_error_for_path(errno, path);
  *file = reinterpret_cast<tOsFile>(stream);
  return OS_OK;
}

int osCloseFile(tOsFile file) {
  if (file == 0) return OS_ERROR_INVALID_PARAMETER;
  // fclose releases the stream even when flushing fails; the failure still
  // tells the caller that data was lost.
  if (fclose(reinterpret_cast<FILE*>(file)) != 0) {
    return osa_internal::file_error_from_errno(errno);
  }
  return OS_OK;
}

int osMakeDir(const char* path) {
  if (path == nullptr || path[0] == '\0') return OS_ERROR_INVALID_PARAMETER;
  if (mkdir(path, 0777) == 0) return OS_OK;
  // The directory itself cannot be missing: ENOENT means its parent is.
  if (errno == ENOENT) return OS_ERROR_PATH_NOT_FOUND;
  return osa_internal::file_error_from_errno(errno);
}

int osDeleteFile(const char* path) {
  if (path == nullptr || path[0] == '\0') return OS_ERROR_INVALID_PARAMETER;
  if (unlink(path) == 0) return OS_OK;
  return osa_internal::file_error_for_path(errno, path);
}

int osMoveFile(const char* from, const char* to) {
  if (from == nullptr || from[0] == '\0' || to == nullptr || to[0] == '\0') {
    return OS_ERROR_INVALID_PARAMETER;
  }
  if (rename(from, to) == 0) return OS_OK;
  int error = errno;
  if (error != ENOENT) return osa_internal::file_error_from_errno(error);
  // ENOENT names either `from` (or a directory on its way) or a directory on
  // the way to `to`; whichever exists tells which.
  struct stat info;
  if (lstat(from, &info) != 0) return osa_internal::file_error_for_path(ENOENT, from);
  return OS_ERROR_PATH_NOT_FOUND;
}
