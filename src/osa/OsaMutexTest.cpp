#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "osa/osa.h"

namespace {

TEST(OsaLwtMutex, LifecycleSetsAndClearsTheHandle) {
  unsigned long mutex = 0;
  ASSERT_EQ(OS_OK, osInitializeLwtMutex(&mutex, 0, 0));
  EXPECT_NE(0u, mutex);
  EXPECT_EQ(OS_OK, osLockLwtMutex(&mutex));
  EXPECT_EQ(OS_OK, osUnlockLwtMutex(&mutex));
  EXPECT_EQ(OS_OK, osCleanupLwtMutex(&mutex));
  EXPECT_EQ(0u, mutex);
}

TEST(OsaLwtMutex, FlagsAreAcceptedAndDoNotLock) {
  unsigned long mutex = 0;
  ASSERT_EQ(OS_OK, osInitializeLwtMutex(&mutex, 1, 1));
  // Not locked by the flag: a lock from another thread succeeds at once.
  std::thread other([&mutex] {
    EXPECT_EQ(OS_OK, osLockLwtMutex(&mutex));
    EXPECT_EQ(OS_OK, osUnlockLwtMutex(&mutex));
  });
  other.join();
  EXPECT_EQ(OS_OK, osCleanupLwtMutex(&mutex));
}

TEST(OsaLwtMutex, ExcludesOtherThreads) {
  unsigned long mutex = 0;
  ASSERT_EQ(OS_OK, osInitializeLwtMutex(&mutex, 0, 0));
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        osLockLwtMutex(&mutex);
        long seen = counter;
        counter = seen + 1;
        osUnlockLwtMutex(&mutex);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(80000, counter);
  EXPECT_EQ(OS_OK, osCleanupLwtMutex(&mutex));
}

TEST(OsaLwtMutex, NullOrEmptyHandleIsInvalid) {
  unsigned long empty = 0;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osInitializeLwtMutex(nullptr, 0, 0));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osLockLwtMutex(nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osUnlockLwtMutex(nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osCleanupLwtMutex(nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osLockLwtMutex(&empty));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osUnlockLwtMutex(&empty));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osCleanupLwtMutex(&empty));
}

#if defined(__SANITIZE_THREAD__)
#define KESTRIN_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KESTRIN_UNDER_TSAN 1
#endif
#endif

TEST(OsaLwtMutex, CleanupOfALockedMutexFailsAndKeepsIt) {
#ifdef KESTRIN_UNDER_TSAN
  // ThreadSanitizer reports destroying a locked mutex, which is what this
  // test does on purpose, and the report would fail every later fork test.
  GTEST_SKIP() << "destroys a locked mutex on purpose; ThreadSanitizer reports that";
#endif
  unsigned long mutex = 0;
  ASSERT_EQ(OS_OK, osInitializeLwtMutex(&mutex, 0, 0));
  ASSERT_EQ(OS_OK, osLockLwtMutex(&mutex));
  unsigned long before = mutex;
  // glibc reports EBUSY for a locked mutex, which has no closer code.
  EXPECT_NE(OS_OK, osCleanupLwtMutex(&mutex));
  EXPECT_EQ(before, mutex);
  EXPECT_EQ(OS_OK, osUnlockLwtMutex(&mutex));
  EXPECT_EQ(OS_OK, osCleanupLwtMutex(&mutex));
}

}  // namespace
