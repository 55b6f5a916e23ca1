// The single-instance guard, in this process and across real processes: the
// probe program (SingleProcessInstanceMutexProbe.cpp) constructs a guard
// under a private KESTRIN_ROOT and prints what it found.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "zor/ComponentName.h"
#include "zor/SingleProcessInstanceMutex.h"
#include "zor/TemporaryDirectory.h"

extern char** environ;

namespace {

// Sets or unsets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    const char* old = getenv(name);
    hadOld_ = old != nullptr;
    if (hadOld_) old_ = old;
    if (value == nullptr) {
      unsetenv(name);
    } else {
      setenv(name, value, 1);
    }
  }
  ~ScopedEnv() {
    if (hadOld_) {
      setenv(name_.c_str(), old_.c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
  }

 private:
  std::string name_;
  bool hadOld_ = false;
  std::string old_;
};

// One run of the probe program.
class Probe {
 public:
  // Starts `program` (with "hold" when `hold`) in an environment where the
  // variables in `env` replace those of this process; a null value removes
  // the variable.
  Probe(const std::string& program, bool hold, const std::map<std::string, const char*>& env) {
    // Everything the child needs is built before fork: the child only
    // redirects and execs.
    std::vector<std::string> entries = environment(env);
    std::vector<char*> envp;
    for (std::string& entry : entries) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    if (hold) argv.push_back(const_cast<char*>("hold"));
    argv.push_back(nullptr);
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(toChild[0], 0);
      dup2(fromChild[1], 1);
      execve(program.c_str(), argv.data(), envp.data());
      _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    input_ = toChild[1];
    output_ = fromChild[0];
  }

  ~Probe() {
    if (input_ >= 0) close(input_);
    if (output_ >= 0) close(output_);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  // The probe's report line (without its line end), or "" after 10 s.
  std::string ReadLine() {
    std::string line;
    char c;
    while (true) {
      struct pollfd ready = {output_, POLLIN, 0};
      if (poll(&ready, 1, 10000) <= 0) return "";
      if (read(output_, &c, 1) != 1 || c == '\n') return line;
      line += c;
    }
  }

  // Kills the probe with SIGKILL and waits for it to end.
  void Kill() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  // Waits for a probe that ends by itself; returns its exit status.
  int Wait() {
    int status = -1;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  static std::vector<std::string> environment(const std::map<std::string, const char*>& env) {
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      std::string text(*entry);
      std::string name = text.substr(0, text.find('='));
      if (env.count(name) == 0) entries.push_back(text);
    }
    for (const auto& [name, value] : env) {
      if (value != nullptr) entries.push_back(name + "=" + value);
    }
    return entries;
  }

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
};

// The report of a probe that runs to its end.
std::string run_probe(const std::map<std::string, const char*>& env,
                      const std::string& program = SPIM_PROBE_PATH) {
  Probe probe(program, false, env);
  std::string line = probe.ReadLine();
  EXPECT_EQ(probe.Wait(), 0);
  return line;
}

class SingleProcessInstanceMutex : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(root_.Path().empty()); }
  void TearDown() override { Zor::ComponentName::Set(""); }

  std::map<std::string, const char*> env(const char* sudoUser = nullptr) const {
    return {{"KESTRIN_ROOT", root_.Path().c_str()}, {"SUDO_USER", sudoUser}};
  }

  Zor::TemporaryDirectory root_;
};

TEST_F(SingleProcessInstanceMutex, NameIsSpimAndComponentNameWithoutSudoUser) {
  ScopedEnv root("KESTRIN_ROOT", root_.Path().c_str());
  ScopedEnv sudo("SUDO_USER", nullptr);
  Zor::ComponentName::Set("kestrin");
  Zor::SingleProcessInstanceMutex guard;
  EXPECT_EQ(guard.GetName(), "SPIM_kestrin");
}

TEST_F(SingleProcessInstanceMutex, NameAppendsSudoUserWhenSet) {
  ScopedEnv root("KESTRIN_ROOT", root_.Path().c_str());
  ScopedEnv sudo("SUDO_USER", "alice");
  Zor::ComponentName::Set("kestrin");
  Zor::SingleProcessInstanceMutex guard;
  EXPECT_EQ(guard.GetName(), "SPIM_kestrin_alice");
}

TEST_F(SingleProcessInstanceMutex, FreshNameMakesThisProcessFirst) {
  ScopedEnv root("KESTRIN_ROOT", root_.Path().c_str());
  ScopedEnv sudo("SUDO_USER", nullptr);
  Zor::ComponentName::Set("fresh_name_test");
  Zor::SingleProcessInstanceMutex guard;
  EXPECT_EQ(guard.GetResult(), 0);
  EXPECT_EQ(guard.GetState(), 0);
  EXPECT_TRUE(guard.IAmFirst());
}

TEST_F(SingleProcessInstanceMutex, ProbeUsesItsExecutableName) {
  EXPECT_EQ(run_probe(env()), "first=1 state=0 result=0 name=SPIM_spim_probe");
}

TEST_F(SingleProcessInstanceMutex, SecondLiveInstanceIsNotFirstUntilTheFirstIsKilled) {
  Probe first(SPIM_PROBE_PATH, true, env());
  EXPECT_EQ(first.ReadLine(), "first=1 state=0 result=0 name=SPIM_spim_probe");
  EXPECT_EQ(run_probe(env()), "first=0 state=1 result=0 name=SPIM_spim_probe");
  EXPECT_EQ(run_probe(env()), "first=0 state=1 result=0 name=SPIM_spim_probe");
  first.Kill();
  EXPECT_EQ(run_probe(env()), "first=1 state=2 result=0 name=SPIM_spim_probe");
}

TEST_F(SingleProcessInstanceMutex, NameOfAnEndedInstanceIsReclaimed) {
  EXPECT_EQ(run_probe(env()), "first=1 state=0 result=0 name=SPIM_spim_probe");
  EXPECT_EQ(run_probe(env()), "first=1 state=2 result=0 name=SPIM_spim_probe");
}

TEST_F(SingleProcessInstanceMutex, InstancesOfDifferentSudoUsersDoNotExcludeEachOther) {
  Probe alice(SPIM_PROBE_PATH, true, env("alice"));
  EXPECT_EQ(alice.ReadLine(), "first=1 state=0 result=0 name=SPIM_spim_probe_alice");
  EXPECT_EQ(run_probe(env("bob")), "first=1 state=0 result=0 name=SPIM_spim_probe_bob");
  EXPECT_EQ(run_probe(env()), "first=1 state=0 result=0 name=SPIM_spim_probe");
  EXPECT_EQ(run_probe(env("alice")), "first=0 state=1 result=0 name=SPIM_spim_probe_alice");
}

TEST_F(SingleProcessInstanceMutex, InstancesUnderDifferentRootsDoNotExcludeEachOther) {
  Zor::TemporaryDirectory otherRoot;
  Probe first(SPIM_PROBE_PATH, true, env());
  EXPECT_EQ(first.ReadLine(), "first=1 state=0 result=0 name=SPIM_spim_probe");
  EXPECT_EQ(run_probe({{"KESTRIN_ROOT", otherRoot.Path().c_str()}, {"SUDO_USER", nullptr}}),
            "first=1 state=0 result=0 name=SPIM_spim_probe");
}

TEST_F(SingleProcessInstanceMutex, ExecutableNamedWithExeSuffixClaimsNameWithoutIt) {
  const std::string copy = root_.Join("Probe.ExE");
  std::filesystem::copy_file(SPIM_PROBE_PATH, copy);
  EXPECT_EQ(run_probe(env(), copy), "first=1 state=0 result=0 name=SPIM_Probe");
}

}  // namespace
