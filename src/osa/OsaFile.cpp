// Files and directories: stdio streams behind tOsFile handles, and the
// directory operations that the rolling files need.
#include <errno.h>
#include <fcntl.h>
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
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->makeDir != nullptr) {
    int result = overrides->makeDir(nullptr, path);
    if (result != OSA_CALL_REAL) return result;
  }
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

int osWriteDescriptor(long fd, const void* data, size_t length, size_t* written) {
  if (data == nullptr && length > 0) return OS_ERROR_INVALID_PARAMETER;
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->writeDescriptor != nullptr) {
    int result = overrides->writeDescriptor(fd, data, length, written);
    if (result != OSA_CALL_REAL) return result;
  }
  size_t done = 0;
  int result = OS_OK;
  while (done < length) {
    ssize_t n = write(static_cast<int>(fd), static_cast<const char*>(data) + done, length - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      const int error = n == 0 ? EIO : errno;
      result = osa_internal::combined_error(osa_internal::file_error_from_errno(error), error);
      break;
    }
  }
  if (written != nullptr) *written = done;
  return result;
}

int osWriteDescriptorOnce(long fd, const void* data, size_t length, size_t* written) {
  if (data == nullptr && length > 0) return OS_ERROR_INVALID_PARAMETER;
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->writeDescriptor != nullptr) {
    int result = overrides->writeDescriptor(fd, data, length, written);
    if (result != OSA_CALL_REAL) return result;
  }
  ssize_t n;
  do {
    n = write(static_cast<int>(fd), data, length);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    if (written != nullptr) *written = 0;
    return osa_internal::combined_error(osa_internal::file_error_from_errno(errno), errno);
  }
  if (written != nullptr) *written = static_cast<size_t>(n);
  return OS_OK;
}

int osReadDescriptorAt(long fd, unsigned long long offset, void* buffer, size_t length,
                       size_t* count) {
  if (count == nullptr || (buffer == nullptr && length > 0)) return OS_ERROR_INVALID_PARAMETER;
  ssize_t n;
  do {
    n = pread(static_cast<int>(fd), buffer, length, static_cast<off_t>(offset));
  } while (n < 0 && errno == EINTR);
  if (n < 0) return osa_internal::combined_error(osa_internal::file_error_from_errno(errno), errno);
  *count = static_cast<size_t>(n);
  return OS_OK;
}

int osSyncDescriptor(long fd) {
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->syncDescriptor != nullptr) {
    int result = overrides->syncDescriptor(fd);
    if (result != OSA_CALL_REAL) return result;
  }
  if (fsync(static_cast<int>(fd)) == 0) return OS_OK;
  return osa_internal::combined_error(osa_internal::file_error_from_errno(errno), errno);
}

int osDescriptorInfo(long fd, unsigned long long* size, int* isDirectory) {
  if (size == nullptr || isDirectory == nullptr) return OS_ERROR_INVALID_PARAMETER;
  struct stat info;
  if (fstat(static_cast<int>(fd), &info) != 0) {
    return osa_internal::combined_error(osa_internal::file_error_from_errno(errno), errno);
  }
  *size = static_cast<unsigned long long>(info.st_size);
  *isDirectory = S_ISDIR(info.st_mode) ? 1 : 0;
  return OS_OK;
}

int osTruncateDescriptor(long fd, unsigned long long size) {
  while (ftruncate(static_cast<int>(fd), static_cast<off_t>(size)) != 0) {
    if (errno == EINTR) continue;
    return osa_internal::combined_error(osa_internal::file_error_from_errno(errno), errno);
  }
  return OS_OK;
}

int osCloseDescriptor(long fd) {
  if (close(static_cast<int>(fd)) == 0) return OS_OK;
  return osa_internal::combined_error(osa_internal::file_error_from_errno(errno), errno);
}

int osWriteDeviceByte(const char* path, unsigned char byte) {
  if (path == nullptr || path[0] == '\0') return OS_ERROR_INVALID_PARAMETER;
  int fd;
  do {
    fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return osa_internal::file_error_for_path(errno, path);
  ssize_t n;
  do {
    n = write(fd, &byte, 1);
  } while (n < 0 && errno == EINTR);
  const int writeError = n == 1 ? 0 : (n < 0 ? errno : EIO);
  const bool closed = close(fd) == 0;
  if (writeError != 0) return osa_internal::file_error_from_errno(writeError);
  return closed ? OS_OK : osa_internal::file_error_from_errno(errno);
}
