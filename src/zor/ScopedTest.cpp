#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "zor/CriticalSection.h"
#include "zor/Scoped.h"

namespace {

// Records the order of calls made on it.
class RecordingSection : public Zor::CriticalSection {
 public:
  int Acquire() override {
    calls += "A";
    ++held;
    return 0;
  }
  int Release() override {
    calls += "R";
    --held;
    return 0;
  }
  std::string calls;
  int held = 0;
};

TEST(Scoped, LockAcquiresOnConstructionAndReleasesOnDestruction) {
  RecordingSection section;
  {
    Zor::ScopedCriticalSectionLock lock(section);
    EXPECT_EQ(section.calls, "A");
    EXPECT_EQ(section.held, 1);
  }
  EXPECT_EQ(section.calls, "AR");
  EXPECT_EQ(section.held, 0);
}

TEST(Scoped, UnlockReleasesOnConstructionAndAcquiresOnDestruction) {
  RecordingSection section;
  {
    Zor::ScopedCriticalSectionLock lock(section);
    {
      Zor::ScopedCriticalSectionUnlock unlock(section);
      EXPECT_EQ(section.calls, "AR");
      EXPECT_EQ(section.held, 0);
    }
    EXPECT_EQ(section.calls, "ARA");
    EXPECT_EQ(section.held, 1);
  }
  EXPECT_EQ(section.calls, "ARAR");
}

TEST(Scoped, LockReleasesWhenTheBlockThrows) {
  RecordingSection section;
  try {
    Zor::ScopedCriticalSectionLock lock(section);
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(section.calls, "AR");
}

TEST(Scoped, LockWorksWithGenericCriticalSection) {
  Zor::GenericCriticalSection section(false, true);
  {
    Zor::ScopedCriticalSectionLock lock(section);
    Zor::ScopedCriticalSectionUnlock unlock(section);
  }
  // Released at the end: taking it again does not block.
  EXPECT_EQ(section.Acquire(), 0);
  EXPECT_EQ(section.Release(), 0);
}

TEST(Scoped, VarChangeSetsBoolAndRestoresIt) {
  bool flag = false;
  {
    Zor::ScopedVarChange<bool> change(flag, true);
    EXPECT_TRUE(flag);
    {
      Zor::ScopedVarChange<bool> inner(flag, false);
      EXPECT_FALSE(flag);
    }
    EXPECT_TRUE(flag);
  }
  EXPECT_FALSE(flag);
}

TEST(Scoped, VarChangeRestoresSavedValueNotTheOpposite) {
  bool flag = true;
  {
    Zor::ScopedVarChange<bool> change(flag, true);
    EXPECT_TRUE(flag);
  }
  EXPECT_TRUE(flag);
}

TEST(Scoped, VarChangeRestoresOtherTypes) {
  int number = 3;
  {
    Zor::ScopedVarChange<int> change(number, 9);
    EXPECT_EQ(number, 9);
    number = 12;  // changes inside the scope are undone as well
  }
  EXPECT_EQ(number, 3);
}

TEST(Scoped, HelpersAreNotCopyable) {
  EXPECT_FALSE(std::is_copy_constructible<Zor::ScopedCriticalSectionLock>::value);
  EXPECT_FALSE(std::is_copy_constructible<Zor::ScopedCriticalSectionUnlock>::value);
  EXPECT_FALSE(std::is_copy_constructible<Zor::ScopedVarChange<bool>>::value);
  EXPECT_FALSE(std::is_copy_constructible<Zor::GenericCriticalSection>::value);
  EXPECT_FALSE(std::is_copy_assignable<Zor::GenericCriticalSection>::value);
}

}  // namespace
