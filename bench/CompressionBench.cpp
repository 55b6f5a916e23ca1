// CPU spent compressing a backup, per MiB of log lines: the rolling files'
// compression thread against the gzip program at its default level (-6).
//
//   compression_bench [MIB]   (default 64)
//
// Both compress the same file of log-like lines (time stamps, a few module
// names, varying numbers and words), so the figures compare like with like.
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "zor/RollingFile.h"

namespace {

double CpuSeconds(int who) {
  struct rusage usage;
  getrusage(who, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

long long FileSize(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

// Writes about `mib` MiB of log lines to `path`.
void WriteLines(const std::string& path, long mib) {
  static const char* kModules[] = {"Radio", "Switch", "Clock", "Fan", "Shelf"};
  static const char* kWords[] = {"link", "up",   "down", "retry", "port", "timeout",
                                 "sync", "lost", "ok",   "frame", "error", "queue"};
  FILE* out = fopen(path.c_str(), "w");
  if (out == nullptr) {
    perror(path.c_str());
    exit(1);
  }
  unsigned int state = 2024;
  const long long wanted = static_cast<long long>(mib) << 20;
  long long written = 0;
  for (long line = 0; written < wanted; ++line) {
    state = state * 1103515245u + 12345u;
    std::string text = "2026-11-23T10:" + std::to_string(10 + line / 60000 % 50) + ":" +
                       std::to_string(10 + line / 1000 % 50) + "." +
                       std::to_string(100 + line % 900) + " [INFO ] {" +
                       kModules[(state >> 8) % 5] + "} (" + std::to_string(state % 97) + ") - ";
    for (int word = 0; word < 8; ++word) {
      state = state * 1103515245u + 12345u;
      text += kWords[(state >> 16) % 12];
      text += word == 3 ? " " + std::to_string(state % 100000) + " " : " ";
    }
    text += "\n";
    fputs(text.c_str(), out);
    written += static_cast<long long>(text.size());
  }
  fclose(out);
}

}  // namespace

int main(int argc, char** argv) {
  const long mib = argc > 1 ? atol(argv[1]) : 64;
  if (mib <= 0) {
    fprintf(stderr, "usage: %s [MIB]\n", argv[0]);
    return 2;
  }
  char directory[] = "/tmp/kestrin-compression-bench-XXXXXX";
  if (mkdtemp(directory) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  const std::string dir = directory;
  const std::string name = dir + "/bench.log";
  const std::string copy = dir + "/copy.log";
  WriteLines(name, mib);
  if (system(("cp " + name + " " + copy).c_str()) != 0) return 1;
  const double megabytes = static_cast<double>(FileSize(name)) / (1 << 20);

  // The compression thread: a roll-over of a file holding the lines.
  Zor::RollingFile file(name.c_str());
  file.backupCount.Set(1);
  file.zipBackups.Set(true);
  const double before = CpuSeconds(RUSAGE_SELF);
  const auto start = std::chrono::steady_clock::now();
  file.RollOver();
  Zor::RollingFile::WaitForCompressions();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double threadCpu = CpuSeconds(RUSAGE_SELF) - before;
  const long long threadSize = FileSize(name + ".1.gz");

  // The gzip program on the same lines.
  const double childBefore = CpuSeconds(RUSAGE_CHILDREN);
  if (system(("gzip -6 -c " + copy + " > " + copy + ".gz").c_str()) != 0) return 1;
  const double gzipCpu = CpuSeconds(RUSAGE_CHILDREN) - childBefore;
  const long long gzipSize = FileSize(copy + ".gz");

  printf("compressed %.1f MiB of log lines\n", megabytes);
  printf("  compression thread: %.2f CPU ms/MiB (%.2f s wall), %.1f%% of the size\n",
         threadCpu * 1000 / megabytes, seconds, 100.0 * threadSize / FileSize(copy));
  printf("  gzip -6:            %.2f CPU ms/MiB, %.1f%% of the size\n", gzipCpu * 1000 / megabytes,
         100.0 * gzipSize / FileSize(copy));
  if (system(("rm -rf " + dir).c_str()) != 0) return 1;
  return 0;
}
