// Helpers for the platform layer's tests: private temporary directories,
// KESTRIN_ROOT set for one scope, names unique to one test run, and child
// processes that report back through a pipe.
#ifndef KESTRIN_OSA_OSA_TEST_SUPPORT_H_
#define KESTRIN_OSA_OSA_TEST_SUPPORT_H_

#include <stdlib.h>
#include <sys/types.h>

#include <string>

namespace osa_test {

// A fresh directory under /tmp, removed with its contents at scope end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Sets (or, with a null value, unsets) an environment variable and restores
// its earlier value at scope end.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  bool hadValue_;
  std::string oldValue_;
};

// `stem` followed by the process id and a counter: distinct across parallel
// test processes and across calls.
std::string unique_name(const std::string& stem);

// Writes the whole file; returns false on failure.
bool write_file(const std::string& path, const std::string& content);

// The whole file, or "<missing>" when it cannot be read.
std::string read_file(const std::string& path);

// A forked child that runs `body`, writes its int result to the parent over a
// pipe, then waits (until killed) when `stayAlive` is set or ends otherwise.
class Child {
 public:
  Child(int (*body)(void*), void* argument, bool stayAlive);
  ~Child();  // kills and reaps the child if it still runs
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The child's result; -1000 when it ended without sending one.
  int Result();
  // Kills with SIGKILL and reaps.
  void Kill();
  // Waits for the child to end; returns its exit status or -1.
  int Wait();
  pid_t Pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int readFd_ = -1;
};

}  // namespace osa_test

#endif  // KESTRIN_OSA_OSA_TEST_SUPPORT_H_
