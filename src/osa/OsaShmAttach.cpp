// Attaching to a named shared segment that must already exist: clients find
// the daemon's segments this way without ever creating one themselves.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

int osAttachSharedMemory(const char* name, size_t size, void** address) {
  char posixName[NAME_MAX + 1];
  if (size == 0 || address == nullptr ||
      !osa_internal::posix_ipc_name(name, posixName, sizeof posixName)) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  int fd = shm_open(posixName, O_RDWR | O_CLOEXEC, 0);
  if (fd < 0) {
    int error = errno;
    return osa_internal::combined_error(osa_internal::file_error_from_errno(error), error);
  }
  struct stat info;
  if (fstat(fd, &info) != 0) {
    int error = errno;
    close(fd);
    return osa_internal::combined_error(OS_ERROR_GENERAL, error);
  }
  // Touching a mapping beyond the object's end raises SIGBUS: refuse instead.
  if (static_cast<size_t>(info.st_size) < size) {
    close(fd);
    return OS_ERROR_BUFFER_TOO_SMALL;
  }
  void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  int error = errno;
  close(fd);
  if (mapped == MAP_FAILED) {
    return osa_internal::combined_error(osa_internal::file_error_from_errno(error), error);
  }
  *address = mapped;
  return OS_OK;
}
