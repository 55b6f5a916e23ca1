// A private KESTRIN_ROOT for a whole test program.
//
// The log directory is fixed by the first LogFile a process makes, so the
// root must be in place before any test runs: a test program that includes
// this header gets a fresh root directory (with kv/etc, kv/log and the queue
// key file) for its whole run, removed at the end.
#ifndef KESTRIN_KESTRIN_PRIVATE_ROOT_ENVIRONMENT_H_
#define KESTRIN_KESTRIN_PRIVATE_ROOT_ENVIRONMENT_H_

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace kestrin {

class PrivateRootEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    char pattern[] = "/tmp/kestrin_root_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    Root() = pattern;
    std::filesystem::create_directories(Root() + "/kv/etc");
    std::filesystem::create_directories(Root() + "/kv/log");
    std::ofstream(Root() + "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH") << "key\n";
    setenv("KESTRIN_ROOT", Root().c_str(), 1);
    // A death test run in a new process of this program ("threadsafe"
    // style) makes a root of its own and ends with exit(), which skips
    // TearDown: the root goes at exit then. A forked child ("fast" style)
    // shares the parent's root and must leave it alone, hence the pid.
    Creator() = getpid();
    atexit([] {
      if (getpid() != Creator()) return;
      std::error_code ignored;
      std::filesystem::remove_all(Root(), ignored);
    });
  }

  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(Root(), ignored);
  }

  // The root directory, without a trailing "/".
  static std::string& Root() {
    static std::string root;
    return root;
  }
  static std::string LogDirectory() { return Root() + "/kv/log/"; }

 private:
  static pid_t& Creator() {
    static pid_t creator = 0;
    return creator;
  }
};

// Registers the environment before main() runs.
inline ::testing::Environment* const kPrivateRootEnvironment =
    ::testing::AddGlobalTestEnvironment(new PrivateRootEnvironment);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_PRIVATE_ROOT_ENVIRONMENT_H_
