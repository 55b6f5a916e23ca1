// Named shared memory: POSIX shm objects mapped MAP_SHARED.
//
// Segments are created world read-write (0666, umask notwithstanding) because
// the daemon and its clients may run as different users. A segment outlives
// every process that maps it until osUnshareMemory removes it.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

int shm_error(int error) {
  return osa_internal::combined_error(osa_internal::file_error_from_errno(error), error);
}

// Opens the segment, creating it when missing. Returns the descriptor or
// -errno.
int open_segment(const char* posixName) {
  for (;;) {
    int fd = shm_open(posixName, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
      fchmod(fd, 0666);
      return fd;
    }
    if (errno != EEXIST) return -errno;
    fd = shm_open(posixName, O_RDWR | O_CLOEXEC, 0);
    if (fd >= 0) return fd;
    if (errno != ENOENT) return -errno;
    // Removed between the two opens: create it again.
  }
}

// Grows the segment to `size` when it is smaller; never shrinks it, so that a
// process asking for less does not cut off one that uses more. New bytes read
// as zero.
int ensure_size(int fd, size_t size) {
  struct stat info;
  if (fstat(fd, &info) != 0) return errno;
  if (static_cast<size_t>(info.st_size) >= size) return 0;
  while (ftruncate(fd, static_cast<off_t>(size)) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

}  // namespace

int osShareMemory(const char* name, size_t size, void** address) {
  char posixName[NAME_MAX + 1];
  if (size == 0 || address == nullptr ||
      !osa_internal::posix_ipc_name(name, posixName, sizeof posixName)) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  int fd = open_segment(posixName);
  if (fd < 0) return shm_error(-fd);
  int error = ensure_size(fd, size);
  if (error != 0) {
    close(fd);
    return shm_error(error);
  }
  void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  error = errno;
  // The mapping keeps the segment; the descriptor is no longer needed.
  close(fd);
  if (mapped == MAP_FAILED) return shm_error(error);
  *address = mapped;
  return OS_OK;
}

int osUnshareMemory(const char* name) {
  char posixName[NAME_MAX + 1];
  if (!osa_internal::posix_ipc_name(name, posixName, sizeof posixName)) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  if (shm_unlink(posixName) != 0) return shm_error(errno);
  return OS_OK;
}
