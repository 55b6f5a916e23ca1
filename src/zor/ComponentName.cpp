#include "zor/ComponentName.h"

#include "osa/osa.h"
#include "zor/CriticalSection.h"
#include "zor/Scoped.h"

namespace Zor {

namespace {

// Names are read into buffers of this size, terminator included.
constexpr size_t NAME_BUFFER_SIZE = 64;

char lower_ascii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// True when `name` ends in ".exe" in any mix of case. Names shorter than the
// suffix never match (nothing before the name is read).
bool ends_in_exe(const std::string& name) {
  static const char SUFFIX[] = ".exe";
  const size_t suffixLength = sizeof SUFFIX - 1;
  if (name.size() < suffixLength) return false;
  const size_t start = name.size() - suffixLength;
  for (size_t i = 0; i < suffixLength; ++i) {
    if (lower_ascii(name[start + i]) != SUFFIX[i]) return false;
  }
  return true;
}

std::string process_name() {
  char buffer[NAME_BUFFER_SIZE];
  if (osGetProcessFileName(0, buffer, sizeof buffer) == OS_OK) return buffer;
  unsigned long processId = 0;
  if (osGetProcessId(&processId) == OS_OK &&
      osItoaEx(static_cast<long>(processId), buffer, sizeof buffer, 1) == OS_OK) {
    return buffer;
  }
  return "unknown";
}

// Serialises the first computation, which may otherwise run on two threads.
CriticalSection& name_lock() {
  static GenericCriticalSection lock;
  return lock;
}

}  // namespace

std::string& ComponentName::stored() {
  static std::string name;
  return name;
}

const std::string& ComponentName::Get() {
  ScopedCriticalSectionLock hold(name_lock());
  std::string& name = stored();
  if (name.empty()) {
    name = process_name();
    if (ends_in_exe(name)) name.resize(name.size() - 4);
  }
  return name;
}

const char* ComponentName::Name() { return Get().c_str(); }

void ComponentName::Set(const char* name) {
  ScopedCriticalSectionLock hold(name_lock());
  stored() = name == nullptr ? "" : name;
}

}  // namespace Zor
