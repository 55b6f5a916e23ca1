// Shared set-up of the harnesses that reach daemon code.
//
// The daemon reports through its own log, syslog and its own alarm events;
// none of them may leave the harness. FuzzEnvironment::Get() (call it from
// LLVMFuzzerInitialize) makes a private root under the temporary directory
// and points KESTRIN_ROOT at it, so that every fixed path (configuration,
// log directory, LED devices, the queue key file) lies inside it; it
// swallows every syslog line through the platform layer's override, routes
// the daemon's own events to a function that drops them, and marks the
// process as daemonized so that no report is echoed to standard output. The
// root is removed when the process exits normally.
#ifndef KESTRIN_FUZZ_FUZZ_SUPPORT_H_
#define KESTRIN_FUZZ_FUZZ_SUPPORT_H_

#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "kestrin/AlarmUtils.h"
#include "kestrin/Globals.h"
#include "osa/osa.h"

namespace kestrin_fuzz {

// Removes `path` if it exists. The harnesses write each input as a new file
// rather than truncate the last one: ext4 flushes a file truncated to zero
// when it is closed, which would cost milliseconds per input.
inline void RemoveFile(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
}

class FuzzEnvironment {
 public:
  static FuzzEnvironment& Get() {
    static FuzzEnvironment* environment = new FuzzEnvironment;
    return *environment;
  }

  // The private root, without a trailing "/".
  const std::string& Root() const { return root_; }
  std::string ConfigDirectory() const { return root_ + "/kv/etc/"; }

 private:
  FuzzEnvironment() {
    const char* temp = getenv("TMPDIR");
    std::string pattern =
        std::string(temp != nullptr && *temp != '\0' ? temp : "/tmp") + "/kestrin_fuzz_XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
      perror("mkdtemp");
      abort();
    }
    root_ = pattern;
    std::filesystem::create_directories(root_ + "/kv/etc");
    std::filesystem::create_directories(root_ + "/kv/log");
    std::filesystem::create_directories(root_ + "/dev");
    std::ofstream(root_ + "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH") << "key\n";
    setenv("KESTRIN_ROOT", root_.c_str(), 1);

    static tOsaOverrides overrides = [] {
      tOsaOverrides table{};
      table.syslog = [](int, const char*) -> int { return OS_OK; };
      return table;
    }();
    osSetOverrides(&overrides);

    kestrin::Daemonized = true;
    kestrin::InternalEventManager::Instance().ResetForTesting(DropRegister, DropAddLog);
    kestrin::InternalEventManager::Instance().SystemCanGenerateEvents();
    atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(Get().root_, ignored);
    });
  }

  static int DropRegister(const char*, const char*, int, const char*, int* handle) {
    *handle = 1;
    return 0;
  }
  static int DropAddLog(int, unsigned char, unsigned short, unsigned long, const char*,
                        unsigned long) {
    return 0;
  }

  std::string root_;
};

}  // namespace kestrin_fuzz

#endif  // KESTRIN_FUZZ_FUZZ_SUPPORT_H_
