#include "BenchSupport.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace bench {

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string DaemonPath() {
  char self[PATH_MAX] = {0};
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string path(self, n > 0 ? static_cast<size_t>(n) : 0);
  return path.substr(0, path.rfind('/')) + "/kestrin";
}

double Elapsed(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// User plus system CPU seconds of process `pid` so far.
double ProcessCpuSeconds(pid_t pid) {
  std::string stat = ReadWhole("/proc/" + std::to_string(pid) + "/stat");
  size_t end = stat.rfind(')');
  if (end == std::string::npos) return 0;
  std::istringstream fields(stat.substr(end + 2));
  std::string field;
  unsigned long long utime = 0;
  unsigned long long stime = 0;
  // After the command come state (3rd field) ... utime (14th), stime (15th).
  for (int index = 3; index <= 15 && fields >> field; ++index) {
    if (index == 14) utime = std::stoull(field);
    if (index == 15) stime = std::stoull(field);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double ChildrenCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

bool WaitFor(const std::function<bool()>& done, int timeoutMs, int pollMs) {
  auto start = std::chrono::steady_clock::now();
  while (!done()) {
    if (Elapsed(start) * 1000 > timeoutMs) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(pollMs));
  }
  return true;
}

long CountLines(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return 0;
  static char buffer[1 << 16];
  long lines = 0;
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, file)) > 0) {
    const char* at = buffer;
    const char* end = buffer + n;
    while ((at = static_cast<const char*>(memchr(at, '\n', static_cast<size_t>(end - at))))) {
      ++lines;
      ++at;
    }
  }
  fclose(file);
  return lines;
}

long long FileSize(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : 0;
}

}  // namespace bench
