// GenericCriticalSection's constructor failures, with the platform's mutex
// calls made to fail through the wrappers of OsaFaultInjection.
#include <gtest/gtest.h>

#include "osa/osa.h"
#include "zor/CriticalSection.h"
#include "zor/OsaFaultInjection.h"
#include "zor/ZorException.h"

namespace {

class CriticalSectionFault : public ::testing::Test {
 protected:
  void SetUp() override { osa_fault::Reset(); }
  void TearDown() override { osa_fault::Reset(); }
};

TEST_F(CriticalSectionFault, ConstructorPassesBothFlagsToInitialize) {
  {
    Zor::GenericCriticalSection section(false, true);
    EXPECT_EQ(osa_fault::Get().lastLockNow, 0);
    EXPECT_EQ(osa_fault::Get().lastThrowOnError, 1);
  }
  Zor::GenericCriticalSection locked(true, false);
  EXPECT_EQ(osa_fault::Get().lastLockNow, 1);
  EXPECT_EQ(osa_fault::Get().lastThrowOnError, 0);
  EXPECT_EQ(locked.Release(), 0);
}

TEST_F(CriticalSectionFault, InitializeFailureThrowsWithExactText) {
  osa_fault::Get().initializeMutex = OS_ERROR_NO_MEMORY;
  try {
    Zor::GenericCriticalSection section(false, true);
    FAIL() << "no exception";
  } catch (const Zor::OsaErrorException& e) {
    EXPECT_EQ(e.GetError(), static_cast<uint32_t>(OS_ERROR_NO_MEMORY));
    EXPECT_STREQ(e.what(),
                 "OsaErrorException thrown by GenericCriticalSection::GenericCriticalSection "
                 "call to osInitializeLwtMutex for OSA error 3");
  }
}

TEST_F(CriticalSectionFault, LockNowFailureThrowsWithExactTextAndCleansUp) {
  osa_fault::Get().lockMutex = OS_ERROR_GENERAL;
  try {
    Zor::GenericCriticalSection section(true, true);
    FAIL() << "no exception";
  } catch (const Zor::OsaErrorException& e) {
    EXPECT_EQ(e.GetError(), static_cast<uint32_t>(OS_ERROR_GENERAL));
    EXPECT_STREQ(e.what(),
                 "OsaErrorException thrown by GenericCriticalSection::GenericCriticalSection "
                 "call to osLockLwtMutex for OSA error 1");
  }
  // The mutex created before the failed lock is not leaked.
  EXPECT_EQ(osa_fault::Get().cleanupCalls, 1);
}

TEST_F(CriticalSectionFault, InitializeFailureWithoutThrowLeavesUsableObject) {
  osa_fault::Get().initializeMutex = OS_ERROR_NO_MEMORY;
  Zor::GenericCriticalSection section(true, false);
  osa_fault::Get().initializeMutex = 0;
  // No mutex behind the object: the platform refuses the calls, nothing throws.
  EXPECT_EQ(section.Acquire(), OS_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(section.Release(), OS_ERROR_INVALID_PARAMETER);
}

TEST_F(CriticalSectionFault, LockNowFailureWithoutThrowConstructs) {
  osa_fault::Get().lockMutex = OS_ERROR_GENERAL;
  Zor::GenericCriticalSection section(true, false);
  EXPECT_EQ(section.Acquire(), OS_ERROR_GENERAL);
  osa_fault::Get().lockMutex = 0;
  EXPECT_EQ(section.Acquire(), 0);
  EXPECT_EQ(section.Release(), 0);
}

TEST_F(CriticalSectionFault, DestructorCleansUpOnlyOwnMutex) {
  unsigned long mutex = 0;
  ASSERT_EQ(osInitializeLwtMutex(&mutex, 0, 0), OS_OK);
  { Zor::GenericCriticalSection borrowed(mutex, true); }
  EXPECT_EQ(osa_fault::Get().cleanupCalls, 0);
  { Zor::GenericCriticalSection owned; }
  EXPECT_EQ(osa_fault::Get().cleanupCalls, 1);
  EXPECT_EQ(osCleanupLwtMutex(&mutex), OS_OK);
}

}  // namespace
