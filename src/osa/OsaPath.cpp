// Fixed paths and IPC names under KESTRIN_ROOT.
//
// A root R moves every fixed absolute path of the system under R, so that
// tests and side-by-side installations never touch the machine's real /kv.
// IPC names get a suffix derived from R so that two roots never share a
// queue, a segment or a single-instance claim.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

// The value of KESTRIN_ROOT without trailing slashes; empty when unset, empty
// or "/" (all of which leave paths as they are).
std::string root_directory() {
  const char* root = getenv("KESTRIN_ROOT");
  if (root == nullptr) return std::string();
  std::string value(root);
  while (!value.empty() && value.back() == '/') value.pop_back();
  return value;
}

// Copies `text` into `out`, cutting it to fit.
int copy_out(const std::string& text, char* out, size_t outSize) {
  osLStrCpyn(out, text.c_str(), outSize);
  return text.size() < outSize ? OS_OK : OS_ERROR_BUFFER_TOO_SMALL;
}

// 64-bit FNV-1a: small, stable across builds and platforms.
uint64_t fnv1a_64(const std::string& text) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : text) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

}  // namespace

int osMapPath(const char* path, char* out, size_t outSize) {
  if (path == nullptr || out == nullptr || outSize == 0) return OS_ERROR_INVALID_PARAMETER;
  std::string root = root_directory();
  // Relative paths are not fixed paths of the system: they stay as given.
  if (root.empty() || path[0] != '/') return copy_out(path, out, outSize);
  return copy_out(root + path, out, outSize);
}

int osMapIpcName(const char* name, char* out, size_t outSize) {
  if (name == nullptr || out == nullptr || outSize == 0) return OS_ERROR_INVALID_PARAMETER;
  std::string root = root_directory();
  if (root.empty()) return copy_out(name, out, outSize);
  char suffix[18];
  snprintf(suffix, sizeof suffix, "_%016llx", static_cast<unsigned long long>(fnv1a_64(root)));
  return copy_out(std::string(name) + suffix, out, outSize);
}

int osGetPath(int kind, char* out, size_t outSize) {
  if (out == nullptr || outSize == 0) return OS_ERROR_INVALID_PARAMETER;
  const tOsaOverrides* overrides = osa_internal::installed_overrides();
  if (overrides != nullptr && overrides->getPath != nullptr) {
    int result = overrides->getPath(kind, out, outSize);
    if (result != OSA_CALL_REAL) return result;
  }
  switch (kind) {
    case OS_PATH_CONFIG:
      return osMapPath("/kv/etc/", out, outSize);
    case OS_PATH_LOG:
      return osMapPath("/kv/log/", out, outSize);
    default:
      return OS_ERROR_INVALID_PARAMETER;
  }
}

namespace osa_internal {

bool posix_ipc_name(const char* name, char* out, size_t outSize) {
  if (name == nullptr || name[0] == '\0' || out == nullptr || outSize < 2) return false;
  const char* bare = name[0] == '/' ? name + 1 : name;
  // POSIX IPC names are one path component: "/" followed by no other "/".
  if (bare[0] == '\0' || strchr(bare, '/') != nullptr) return false;
  out[0] = '/';
  return osMapIpcName(bare, out + 1, outSize - 1) == OS_OK;
}

}  // namespace osa_internal
