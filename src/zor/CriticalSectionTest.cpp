#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "osa/osa.h"
#include "zor/CriticalSection.h"
#include "zor/ZorException.h"

namespace {

using namespace std::chrono_literals;

TEST(CriticalSection, NullCriticalSectionDoesNothingAndReturnsZero) {
  Zor::NullCriticalSection section;
  EXPECT_EQ(section.Acquire(), 0);
  EXPECT_EQ(section.Acquire(), 0);  // not a real lock: a second acquire does not block
  EXPECT_EQ(section.Release(), 0);
  EXPECT_EQ(section.Release(), 0);
}

// Two threads do a read-yield-write increment many times; without exclusion
// updates are lost.
void hammer(Zor::CriticalSection& section, long* counter, int rounds) {
  for (int i = 0; i < rounds; ++i) {
    section.Acquire();
    long value = *counter;
    std::this_thread::yield();
    *counter = value + 1;
    section.Release();
  }
}

TEST(CriticalSection, GenericCriticalSectionExcludesTwoThreads) {
  Zor::GenericCriticalSection section;
  long counter = 0;
  const int rounds = 20000;
  std::thread first(hammer, std::ref(section), &counter, rounds);
  std::thread second(hammer, std::ref(section), &counter, rounds);
  first.join();
  second.join();
  EXPECT_EQ(counter, 2L * rounds);
}

// Starts a thread that acquires `section` and sets `acquired`; checks that it
// stays blocked while the caller holds the lock.
void expect_blocked_until_release(Zor::CriticalSection& section) {
  std::atomic<bool> acquired{false};
  std::thread other([&] {
    section.Acquire();
    acquired = true;
    section.Release();
  });
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(acquired.load());
  EXPECT_EQ(section.Release(), 0);
  other.join();
  EXPECT_TRUE(acquired.load());
}

TEST(CriticalSection, GenericCriticalSectionBlocksSecondThreadUntilRelease) {
  Zor::GenericCriticalSection section;
  ASSERT_EQ(section.Acquire(), 0);
  expect_blocked_until_release(section);
}

TEST(CriticalSection, LockNowConstructorReturnsHoldingTheLock) {
  Zor::GenericCriticalSection section(true, true);
  expect_blocked_until_release(section);
}

TEST(CriticalSection, CallerMutexIsSharedAndNotCleanedUp) {
  unsigned long mutex = 0;
  ASSERT_EQ(osInitializeLwtMutex(&mutex, 0, 0), OS_OK);
  {
    Zor::GenericCriticalSection first(mutex);
    Zor::GenericCriticalSection second(mutex, true);
    ASSERT_EQ(first.Acquire(), 0);
    // `second` uses the same mutex, so it must wait for `first`.
    std::atomic<bool> acquired{false};
    std::thread other([&] {
      second.Acquire();
      acquired = true;
      second.Release();
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(acquired.load());
    EXPECT_EQ(first.Release(), 0);
    other.join();
    EXPECT_TRUE(acquired.load());
  }
  // Still the caller's and still usable after both objects are gone.
  EXPECT_NE(mutex, 0UL);
  EXPECT_EQ(osLockLwtMutex(&mutex), OS_OK);
  EXPECT_EQ(osUnlockLwtMutex(&mutex), OS_OK);
  EXPECT_EQ(osCleanupLwtMutex(&mutex), OS_OK);
}

// A zero handle names no mutex: the platform layer refuses it with
// OS_ERROR_INVALID_PARAMETER, a real failure of the lock calls.
TEST(CriticalSection, AcquireFailureThrowsOsaErrorWithExactText) {
  unsigned long noMutex = 0;
  Zor::GenericCriticalSection section(noMutex, true);
  try {
    section.Acquire();
    FAIL() << "no exception";
  } catch (const Zor::OsaErrorException& e) {
    EXPECT_EQ(e.GetError(), static_cast<uint32_t>(OS_ERROR_INVALID_PARAMETER));
    EXPECT_EQ(e.GetThrower(), "GenericCriticalSection::Acquire call to osLockLwtMutex");
    EXPECT_STREQ(e.what(),
                 "OsaErrorException thrown by GenericCriticalSection::Acquire call to "
                 "osLockLwtMutex for OSA error 2");
  }
}

TEST(CriticalSection, ReleaseFailureThrowsOsaErrorWithExactText) {
  unsigned long noMutex = 0;
  Zor::GenericCriticalSection section(noMutex, true);
  try {
    section.Release();
    FAIL() << "no exception";
  } catch (const Zor::OsaErrorException& e) {
    EXPECT_EQ(e.GetError(), static_cast<uint32_t>(OS_ERROR_INVALID_PARAMETER));
    EXPECT_STREQ(e.what(),
                 "OsaErrorException thrown by GenericCriticalSection::Release call to "
                 "osUnlockLwtMutex for OSA error 2");
  }
}

TEST(CriticalSection, WithoutThrowOnErrorFailuresAreReturned) {
  unsigned long noMutex = 0;
  Zor::GenericCriticalSection section(noMutex, false);
  EXPECT_EQ(section.Acquire(), OS_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(section.Release(), OS_ERROR_INVALID_PARAMETER);
}

TEST(CriticalSection, DefaultConstructorDoesNotLock) {
  Zor::GenericCriticalSection section;
  std::atomic<bool> acquired{false};
  std::thread other([&] {
    section.Acquire();
    acquired = true;
    section.Release();
  });
  other.join();
  EXPECT_TRUE(acquired.load());
}

}  // namespace
