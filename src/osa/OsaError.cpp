// errno to result-code mapping: the one place that decides which OS_ERROR_*
// code an operating-system failure becomes.
#include <errno.h>
#include <sys/stat.h>

#include <string>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace osa_internal {

int file_error_from_errno(int error) {
  switch (error) {
    case 0:
      return OS_OK;
    case ENOENT:
      return OS_ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
      return OS_ERROR_PATH_NOT_FOUND;
    case ENOSPC:
    case EDQUOT:
      return OS_ERROR_NO_SPACE;
    case EACCES:
    case EPERM:
    case EROFS:
      return OS_ERROR_ACCESS_DENIED;
    case EEXIST:
    case ENOTEMPTY:
      return OS_ERROR_ALREADY_EXISTS;
    case EISDIR:
      return OS_ERROR_IS_DIRECTORY;
    case ENOMEM:
      return OS_ERROR_NO_MEMORY;
    case EINVAL:
    case EFAULT:
    case EBADF:
    case ENAMETOOLONG:
      return OS_ERROR_INVALID_PARAMETER;
    default:
      return OS_ERROR_GENERAL;
  }
}

int file_error_for_path(int error, const char* path) {
  if (error != ENOENT || path == nullptr) return file_error_from_errno(error);
  std::string parent(path);
  size_t slash = parent.find_last_of('/');
  if (slash == std::string::npos) return OS_ERROR_FILE_NOT_FOUND;  // the working directory
  parent.resize(slash == 0 ? 1 : slash);
  struct stat info;
  bool parentIsDirectory = stat(parent.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
  return parentIsDirectory ? OS_ERROR_FILE_NOT_FOUND : OS_ERROR_PATH_NOT_FOUND;
}

int socket_error_from_errno(int error, bool selectCall) {
  switch (error) {
    case 0:
      return OS_OK;
    case ECONNREFUSED:
      return OS_ERROR_CONN_REFUSED;
    case EHOSTUNREACH:
    case ENETUNREACH:
      return OS_ERROR_UNREACHABLE;
    case ECONNRESET:
      return OS_ERROR_CONN_RESET;
    case EAGAIN:  // EWOULDBLOCK is the same value on Linux
      return OS_ERROR_WOULD_BLOCK;
    case EADDRINUSE:
      return OS_ERROR_ADDR_IN_USE;
    case EADDRNOTAVAIL:
      return OS_ERROR_ADDR_NOT_AVAIL;
    case EBADF:
    case ENOTSOCK:
      return OS_ERROR_BAD_SOCKET;
    case EINPROGRESS:
      return OS_ERROR_IN_PROGRESS;
    case ETIMEDOUT:
      return OS_ERROR_TIMED_OUT;
    case ECONNABORTED:
      return OS_ERROR_CONN_ABORTED_BY_PEER;
    case EPIPE:
      return OS_ERROR_BROKEN_PIPE;
    case EISCONN:
      return OS_ERROR_IS_CONNECTED;
    case ENOTCONN:
      return OS_ERROR_NOT_CONNECTED;
    case EINTR:
      return selectCall ? OS_ERROR_SELECT_RETRY : OS_ERROR_RETRY;
    default:
      return OS_ERROR_SOCKET;
  }
}

int combined_error(int general, int error) {
  if (general == OS_OK) return OS_OK;
  return static_cast<int>((static_cast<unsigned>(error) << 16) | (general & 0xffff));
}

}  // namespace osa_internal

int osGetSpecificErrorCode(int errorValue) {
  return static_cast<int>(static_cast<unsigned>(errorValue) >> 16);
}
