// The write path of an open Zor::RollingFile allocates nothing: this test
// program counts every operator new while a file is written and flushed.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <new>
#include <string>

#include "zor/RollingFile.h"
#include "zor/RollingFileTestSupport.h"

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_allocations{0};

}  // namespace

// The counting operator new pairs malloc with free in operator delete; gcc
// cannot see that the two replaced operators belong together.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(size_t size) {
  if (g_counting.load()) ++g_allocations;
  void* memory = malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

// Every form of new that the plain delete may free comes from malloc too.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  if (g_counting.load()) ++g_allocations;
  return malloc(size == 0 ? 1 : size);
}

void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

namespace rolling_file_test {
namespace {

TEST_F(RollingFile, WritesAndFlushesOfAnOpenFileDoNotAllocate) {
  Zor::RollingFile file(path("quiet.log").c_str());
  configure(file, 1L << 30, 3, false);
  ASSERT_EQ(file.Printf("opened %d\n", 0), 9);
  const std::string text = "some text";
  g_allocations = 0;
  g_counting = true;
  for (int i = 0; i < 1000; ++i) {
    file.Printf("line %d %s %ld\n", i, text.c_str(), 12345L);
    if (i % 100 == 0) file.Flush();
  }
  g_counting = false;
  EXPECT_EQ(g_allocations.load(), 0);
  // 9 bytes first, then 1000 lines of 22 bytes plus the digits of 0..999
  // (10 * 1 + 90 * 2 + 900 * 3 = 2890).
  EXPECT_EQ(file.GetCurrentSize(), 9u + 22000u + 2890u);
}

// The counter itself works: a string built on the heap is counted.
TEST_F(RollingFile, AllocationCounterCountsHeapAllocations) {
  g_allocations = 0;
  g_counting = true;
  std::string* heap = new std::string(100, 'x');
  g_counting = false;
  delete heap;
  EXPECT_GE(g_allocations.load(), 1);
}

}  // namespace
}  // namespace rolling_file_test
