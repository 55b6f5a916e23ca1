// Files confined to one directory: every path is walked from the directory
// one component at a time with O_NOFOLLOW, so that neither ".." nor a
// symbolic link (planted by whoever may write into the directory) can take
// an open, a rename or a delete elsewhere. The last component is acted on
// through its parent's descriptor (openat, renameat, unlinkat, mkdirat), so
// nothing is resolved twice.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

constexpr size_t MAX_MODE = 8;

// A descriptor closed at scope end.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { Reset(-1); }
  void Reset(int fd) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }
  int Get() const { return fd_; }

 private:
  int fd_ = -1;
};

// The components of `path` worth walking: empty and "." ones dropped.
// False for an absolute path or a ".." component.
bool SplitPath(const char* path, std::vector<std::string>* parts) {
  if (path[0] == '/') return false;
  const char* start = path;
  for (const char* c = path;; ++c) {
    if (*c != '/' && *c != '\0') continue;
    std::string part(start, static_cast<size_t>(c - start));
    if (part == "..") return false;
    if (!part.empty() && part != ".") parts->push_back(part);
    if (*c == '\0') return true;
    start = c + 1;
  }
}

// An errno of a walk step or of the final call, as a result code: a link
// met with O_NOFOLLOW is ELOOP.
int WalkError(int error) {
  if (error == ELOOP) return OS_ERROR_OUTSIDE_DIRECTORY;
  if (error == ENOTDIR) return OS_ERROR_PATH_NOT_FOUND;
  return osa_internal::file_error_from_errno(error);
}

// Opens the directory that holds the last component of `path`, relative to
// `directory`, into `parent`, and gives that component in `last`. On failure
// `error` holds the errno behind it (ELOOP for a way out).
int OpenParent(const char* directory, const char* path, Descriptor* parent, std::string* last,
               int* error) {
  *error = EINVAL;
  if (directory == nullptr || directory[0] == '\0' || path == nullptr) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  std::vector<std::string> parts;
  if (!SplitPath(path, &parts)) {
    *error = ELOOP;
    return OS_ERROR_OUTSIDE_DIRECTORY;
  }
  if (parts.empty()) return OS_ERROR_INVALID_PARAMETER;
  parent->Reset(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (parent->Get() < 0) {
    *error = errno;
    return errno == ENOENT || errno == ENOTDIR ? OS_ERROR_PATH_NOT_FOUND
                                               : osa_internal::file_error_from_errno(errno);
  }
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    int next = openat(parent->Get(), parts[i].c_str(),
                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) {
      *error = errno;
      // O_DIRECTORY may win over O_NOFOLLOW: a link is a link either way.
      struct stat info;
      if (fstatat(parent->Get(), parts[i].c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISLNK(info.st_mode)) {
        *error = ELOOP;
        return OS_ERROR_OUTSIDE_DIRECTORY;
      }
      return *error == ENOENT ? OS_ERROR_PATH_NOT_FOUND : WalkError(*error);
    }
    parent->Reset(next);
  }
  *last = parts.back();
  return OS_OK;
}

// Whether the last component is a symbolic link: renames and deletes would
// act on the link itself, but a link is left alone like any other way out.
bool IsLink(int parent, const std::string& last) {
  struct stat info;
  return fstatat(parent, last.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode);
}

// fopen's mode as open flags; false for anything else.
bool OpenFlags(const char* mode, int* flags) {
  if (mode == nullptr || strlen(mode) > MAX_MODE) return false;
  const bool plus = strchr(mode, '+') != nullptr;
  switch (mode[0]) {
    case 'r': *flags = plus ? O_RDWR : O_RDONLY; break;
    case 'w': *flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC; break;
    case 'a': *flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND; break;
    default: return false;
  }
  return true;
}

// The missing last component of a path, told apart from a missing directory.
int MissingLast(int error) {
  return error == ENOENT ? OS_ERROR_FILE_NOT_FOUND : WalkError(error);
}

}  // namespace

namespace {

// Opens `path` beneath `directory` with `mode`'s flags; the descriptor, or
// an error value.
int OpenBeneath(const char* directory, const char* path, const char* mode, int* descriptor) {
  int flags = 0;
  if (!OpenFlags(mode, &flags)) return OS_ERROR_INVALID_PARAMETER;
  Descriptor parent;
  std::string last;
  int error = 0;
  int result = OpenParent(directory, path, &parent, &last, &error);
  if (result != OS_OK) {
    return result == OS_ERROR_INVALID_PARAMETER ? result
                                                : osa_internal::combined_error(result, error);
  }
  int fd = openat(parent.Get(), last.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) return osa_internal::combined_error(MissingLast(errno), errno);
  struct stat info;
  if (fstat(fd, &info) == 0 && S_ISDIR(info.st_mode) && (flags & O_ACCMODE) != O_RDONLY) {
    close(fd);
    return osa_internal::combined_error(OS_ERROR_IS_DIRECTORY, EISDIR);
  }
  *descriptor = fd;
  return OS_OK;
}

}  // namespace

int osOpenFileBeneath(const char* directory, const char* path, const char* mode, tOsFile* file) {
  if (file == nullptr) return OS_ERROR_INVALID_PARAMETER;
  int fd = -1;
  int result = OpenBeneath(directory, path, mode, &fd);
  if (result != OS_OK) return result;
  FILE* stream = fdopen(fd, mode);
  if (stream == nullptr) {
    int fdopenError = errno;
    close(fd);
    return osa_internal::combined_error(osa_internal::file_error_from_errno(fdopenError),
                                        fdopenError);
  }
  *file = reinterpret_cast<tOsFile>(stream);
  return OS_OK;
}

int osOpenDescriptorBeneath(const char* directory, const char* path, const char* mode, long* fd) {
  if (fd == nullptr) return OS_ERROR_INVALID_PARAMETER;
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->openDescriptor != nullptr) {
    int result = overrides->openDescriptor(directory, path, mode, fd);
    if (result != OSA_CALL_REAL) return result;
  }
  int descriptor = -1;
  int result = OpenBeneath(directory, path, mode, &descriptor);
  if (result == OS_OK) *fd = descriptor;
  return result;
}

int osMakeDirBeneath(const char* directory, const char* path) {
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->makeDir != nullptr) {
    int result = overrides->makeDir(directory, path);
    if (result != OSA_CALL_REAL) return result;
  }
  Descriptor parent;
  std::string last;
  int error = 0;
  int result = OpenParent(directory, path, &parent, &last, &error);
  if (result != OS_OK) return result;
  if (mkdirat(parent.Get(), last.c_str(), 0777) == 0) return OS_OK;
  return WalkError(errno);
}

int osDeleteFileBeneath(const char* directory, const char* path) {
  Descriptor parent;
  std::string last;
  int error = 0;
  int result = OpenParent(directory, path, &parent, &last, &error);
  if (result != OS_OK) return result;
  if (IsLink(parent.Get(), last)) return OS_ERROR_OUTSIDE_DIRECTORY;
  if (unlinkat(parent.Get(), last.c_str(), 0) == 0) return OS_OK;
  return MissingLast(errno);
}

int osMoveFileBeneath(const char* directory, const char* from, const char* to) {
  Descriptor fromParent;
  std::string fromLast;
  int error = 0;
  int result = OpenParent(directory, from, &fromParent, &fromLast, &error);
  if (result != OS_OK) return result;
  Descriptor toParent;
  std::string toLast;
  result = OpenParent(directory, to, &toParent, &toLast, &error);
  if (result != OS_OK) return result;
  if (IsLink(fromParent.Get(), fromLast) || IsLink(toParent.Get(), toLast)) {
    return OS_ERROR_OUTSIDE_DIRECTORY;
  }
  if (renameat(fromParent.Get(), fromLast.c_str(), toParent.Get(), toLast.c_str()) == 0) {
    return OS_OK;
  }
  if (errno != ENOENT) return WalkError(errno);
  struct stat info;
  return fstatat(fromParent.Get(), fromLast.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0
             ? OS_ERROR_PATH_NOT_FOUND
             : OS_ERROR_FILE_NOT_FOUND;
}

int osFileExistsBeneath(const char* directory, const char* path) {
  Descriptor parent;
  std::string last;
  int error = 0;
  int result = OpenParent(directory, path, &parent, &last, &error);
  if (result != OS_OK) return result;
  struct stat info;
  if (fstatat(parent.Get(), last.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return MissingLast(errno);
  return S_ISLNK(info.st_mode) ? OS_ERROR_OUTSIDE_DIRECTORY : OS_OK;
}

int osDescriptorIsAtBeneath(const char* directory, const char* path, long fd, int* same) {
  if (same == nullptr) return OS_ERROR_INVALID_PARAMETER;
  struct stat open;
  if (fstat(static_cast<int>(fd), &open) != 0) {
    return osa_internal::combined_error(osa_internal::file_error_from_errno(errno), errno);
  }
  *same = 0;
  Descriptor parent;
  std::string last;
  int error = 0;
  int result = OpenParent(directory, path, &parent, &last, &error);
  if (result == OS_ERROR_PATH_NOT_FOUND) return OS_OK;  // a directory on the way is gone
  if (result != OS_OK) return osa_internal::combined_error(result, error);
  struct stat named;
  if (fstatat(parent.Get(), last.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? OS_OK : osa_internal::combined_error(WalkError(errno), errno);
  }
  *same = named.st_dev == open.st_dev && named.st_ino == open.st_ino ? 1 : 0;
  return OS_OK;
}

FILE* osFileStream(tOsFile file) { return reinterpret_cast<FILE*>(file); }
