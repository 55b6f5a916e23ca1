// Small helpers shared by the end-to-end benchmark programs: reading files,
// finding the daemon beside the benchmark, CPU accounting and polling.
#ifndef KESTRIN_BENCH_BENCH_SUPPORT_H_
#define KESTRIN_BENCH_BENCH_SUPPORT_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

namespace bench {

// The whole file, or "" when it cannot be read.
std::string ReadWhole(const std::string& path);
// The kestrin binary in the directory of the running benchmark.
std::string DaemonPath();
// Seconds since `since`.
double Elapsed(std::chrono::steady_clock::time_point since);
// User plus system CPU seconds of process `pid` so far; 0 when it is gone.
double ProcessCpuSeconds(pid_t pid);
// User plus system CPU seconds of all waited-for children.
double ChildrenCpuSeconds();
// Polls `done` every `pollMs` until it holds (true) or `timeoutMs` passed.
bool WaitFor(const std::function<bool()>& done, int timeoutMs, int pollMs = 5);
// Newline characters in the file; 0 when it does not exist.
long CountLines(const std::string& path);
// Size in bytes; 0 when the file does not exist.
long long FileSize(const std::string& path);

}  // namespace bench

#endif  // KESTRIN_BENCH_BENCH_SUPPORT_H_
