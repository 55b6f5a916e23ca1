#include "osa/OsaTestSupport.h"

#include <errno.h>
#include <ftw.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>

namespace osa_test {

namespace {

int remove_entry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

}  // namespace

TempDir::TempDir() {
  char pattern[] = "/tmp/kestrin-osa-XXXXXX";
  const char* made = mkdtemp(pattern);
  path_ = made == nullptr ? std::string() : std::string(made);
}

TempDir::~TempDir() {
  if (!path_.empty()) nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  const char* old = getenv(name);
  hadValue_ = old != nullptr;
  if (hadValue_) oldValue_ = old;
  if (value == nullptr) {
    unsetenv(name);
  } else {
    setenv(name, value, 1);
  }
}

ScopedEnv::~ScopedEnv() {
  if (hadValue_) {
    setenv(name_.c_str(), oldValue_.c_str(), 1);
  } else {
    unsetenv(name_.c_str());
  }
}

std::string unique_name(const std::string& stem) {
  static std::atomic<int> counter{0};
  return stem + "_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
}

bool write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary);
  out << content;
  return static_cast<bool>(out);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<missing>";
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

Child::Child(int (*body)(void*), void* argument, bool stayAlive) {
  int fds[2];
  if (pipe(fds) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    close(fds[0]);
    int result = body(argument);
    ssize_t ignored = write(fds[1], &result, sizeof result);
    (void)ignored;
    if (stayAlive) {
      for (;;) pause();
    }
    _exit(0);
  }
  close(fds[1]);
  readFd_ = fds[0];
}

Child::~Child() {
  if (pid_ > 0) Kill();
  if (readFd_ >= 0) close(readFd_);
}

int Child::Result() {
  int result = -1000;
  ssize_t got;
  do {
    got = read(readFd_, &result, sizeof result);
  } while (got < 0 && errno == EINTR);
  return got == static_cast<ssize_t>(sizeof result) ? result : -1000;
}

void Child::Kill() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  Wait();
}

int Child::Wait() {
  if (pid_ <= 0) return -1;
  int status = 0;
  pid_t done;
  do {
    done = waitpid(pid_, &status, 0);
  } while (done < 0 && errno == EINTR);
  pid_ = -1;
  return done > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace osa_test
