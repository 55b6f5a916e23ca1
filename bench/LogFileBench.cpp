// Lines and bytes per second through kestrin::LogFile::LogPrivateMessage and
// LogPrintf into a rolling file of 1 MiB with 3 backups, with compression of
// the backups off and on. Also counts heap allocations on the per-line path,
// which must stay at zero.
//
// Run: build/bin/log_file_bench [--benchmark_min_time=2]
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <new>
#include <string>

#include "kestrin/LogFile.h"

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_allocations{0};

}  // namespace

// The counting operator new pairs malloc with free in operator delete; gcc
// cannot see that the two replaced operators belong together.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(size_t size) {
  if (g_counting.load(std::memory_order_relaxed)) g_allocations++;
  void* memory = malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

namespace {

// A private root for the benchmark's files, removed at exit.
std::string& Root() {
  static std::string root = [] {
    char pattern[] = "/tmp/kestrin_bench_XXXXXX";
    std::string dir = mkdtemp(pattern);
    setenv("KESTRIN_ROOT", dir.c_str(), 1);
    std::filesystem::create_directories(dir + "/kv/log");
    return dir;
  }();
  return root;
}

// A 200-byte message, as clients typically send.
const std::string& Message() {
  static const std::string text(200, 'm');
  return text;
}

void Configure(kestrin::LogFile& file, bool zip) {
  file.maxFileSize.Set(1L << 20);
  file.backupCount.Set(3);
  file.zipBackups.Set(zip);
}

void BM_LogPrivateMessage(benchmark::State& state) {
  Root();
  const bool zip = state.range(0) != 0;
  kestrin::LogFilePtr file(new kestrin::LogFile(zip ? "bench-zip.log" : "bench-plain.log"));
  Configure(*file, zip);
  long seconds = 1700000000;
  long microseconds = 0;
  // Every line has the same length; measure it once the file is open (the
  // first write may append to a file left by an earlier run).
  kestrin::LogPrivateMessage(file, seconds, microseconds, 4, 0, "benchModule", 1234,
                             Message().c_str(), false);
  size_t before = file->GetCurrentSize();
  kestrin::LogPrivateMessage(file, seconds, microseconds, 4, 0, "benchModule", 1234,
                             Message().c_str(), false);
  const int64_t lineLength = static_cast<int64_t>(file->GetCurrentSize() - before);
  g_allocations = 0;
  for (auto _ : state) {
    g_counting.store(true, std::memory_order_relaxed);
    kestrin::LogPrivateMessage(file, seconds, microseconds, 4, 0, "benchModule", 1234,
                               Message().c_str(), false);
    g_counting.store(false, std::memory_order_relaxed);
    microseconds += 37;
    if (microseconds >= 1000000) {
      microseconds = 0;
      ++seconds;
    }
  }
  file->Flush();
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * lineLength);
  // Includes the roll-overs (one per 1 MiB, each building backup names).
  state.counters["allocs_per_line"] =
      static_cast<double>(g_allocations.load()) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_LogPrivateMessage)->Arg(0)->Arg(1)->ArgName("zip")->UseRealTime();

void BM_LogPrintf(benchmark::State& state) {
  Root();
  const bool zip = state.range(0) != 0;
  kestrin::LogFile file(zip ? "printf-zip.log" : "printf-plain.log");
  Configure(file, zip);
  int64_t bytes = 0;
  for (auto _ : state) {
    int n = file.LogPrintf(static_cast<unsigned short>(4), "%s %d %s\n", "2026-11-22T05:16:29.123",
                           42, Message().c_str());
    if (n > 0) bytes += n;
  }
  file.Flush();
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_LogPrintf)->Arg(0)->Arg(1)->ArgName("zip")->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ignored;
  std::filesystem::remove_all(Root(), ignored);
  return 0;
}
