#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "appfw/SmartPointerNTS.h"

namespace {

// Counts its own destructions in a counter owned by the test.
class Tracked {
 public:
  explicit Tracked(int* deletions, int value = 0) : deletions_(deletions), value_(value) {}
  virtual ~Tracked() { ++*deletions_; }
  int Value() const { return value_; }

 private:
  int* deletions_;
  int value_;
};

class DerivedTracked : public Tracked {
 public:
  DerivedTracked(int* deletions, int* derivedDeletions)
      : Tracked(deletions, 7), derivedDeletions_(derivedDeletions) {}
  ~DerivedTracked() override { ++*derivedDeletions_; }

 private:
  int* derivedDeletions_;
};

using Ptr = AppFw::SmartPointerNTS<Tracked>;

TEST(SmartPointerNTS, NilPointerIsNilAndCountsZero) {
  Ptr nil;
  EXPECT_TRUE(nil.IsNil());
  EXPECT_EQ(nil.Get(), nullptr);
  EXPECT_EQ(nil.GetRefCount(), 0);
  Ptr copy(nil);
  EXPECT_TRUE(copy.IsNil());
  EXPECT_EQ(copy.GetRefCount(), 0);
  EXPECT_EQ(nil.GetRefCount(), 0);
}

TEST(SmartPointerNTS, LonePointerCountsOneAndDeletesObjectOnReset) {
  int deletions = 0;
  Ptr lone(new Tracked(&deletions));
  EXPECT_FALSE(lone.IsNil());
  EXPECT_EQ(lone.GetRefCount(), 1);
  lone.Reset();
  EXPECT_EQ(deletions, 1);
  EXPECT_TRUE(lone.IsNil());
  EXPECT_EQ(lone.GetRefCount(), 0);
}

TEST(SmartPointerNTS, FirstCopyMakesCountTwoInBoth) {
  int deletions = 0;
  Ptr first(new Tracked(&deletions));
  Ptr second(first);
  EXPECT_EQ(first.GetRefCount(), 2);
  EXPECT_EQ(second.GetRefCount(), 2);
  EXPECT_EQ(first.Get(), second.Get());
}

TEST(SmartPointerNTS, CopyFromConstSourceCreatesCountInSource) {
  int deletions = 0;
  const Ptr source(new Tracked(&deletions));
  Ptr copy = source;
  EXPECT_EQ(source.GetRefCount(), 2);
  EXPECT_EQ(copy.GetRefCount(), 2);
}

TEST(SmartPointerNTS, FurtherCopiesShareAndIncrementTheCount) {
  int deletions = 0;
  Ptr a(new Tracked(&deletions));
  Ptr b(a);
  Ptr c(b);
  Ptr d(a);
  EXPECT_EQ(a.GetRefCount(), 4);
  EXPECT_EQ(c.GetRefCount(), 4);
  c.Reset();
  EXPECT_EQ(a.GetRefCount(), 3);
  EXPECT_EQ(d.GetRefCount(), 3);
  EXPECT_EQ(c.GetRefCount(), 0);
}

TEST(SmartPointerNTS, LastOwnerDeletesObjectExactlyOnce) {
  int deletions = 0;
  {
    Ptr a(new Tracked(&deletions));
    {
      Ptr b(a);
      Ptr c(a);
    }
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(a.GetRefCount(), 1);
  }
  EXPECT_EQ(deletions, 1);
}

TEST(SmartPointerNTS, NonDeletableObjectCopiedManyTimesIsNeverDeleted) {
  int deletions = 0;
  Tracked object(&deletions);
  {
    Ptr original(&object, false);
    std::vector<Ptr> copies(50, original);
    for (int round = 0; round < 10; ++round) {
      Ptr copy(original);
      Ptr assigned;
      assigned = copy;
      copy.Reset();
    }
    copies.clear();
    original.Reset();
    Ptr again(&object, false);
  }
  EXPECT_EQ(deletions, 0);
}

TEST(SmartPointerNTS, NonDeletableObjectSharesTheDummyCount) {
  int deletions = 0;
  Tracked object(&deletions);
  Ptr original(&object, false);
  EXPECT_EQ(original.GetRefCount(), AppFw::DummyRefCountForNonDeletableObjects);
  int32_t before = AppFw::DummyRefCountForNonDeletableObjects;
  {
    Ptr copy(original);
    EXPECT_EQ(AppFw::DummyRefCountForNonDeletableObjects, before + 1);
    EXPECT_EQ(copy.GetRefCount(), before + 1);
  }
  EXPECT_EQ(AppFw::DummyRefCountForNonDeletableObjects, before);
}

TEST(SmartPointerNTS, NonDeletableNullIsPlainNil) {
  Ptr nil(nullptr, false);
  EXPECT_TRUE(nil.IsNil());
  EXPECT_EQ(nil.GetRefCount(), 0);
}

TEST(SmartPointerNTS, AssignmentReleasesPreviousObject) {
  int firstDeletions = 0;
  int secondDeletions = 0;
  Ptr a(new Tracked(&firstDeletions));
  Ptr b(new Tracked(&secondDeletions));
  a = b;
  EXPECT_EQ(firstDeletions, 1);
  EXPECT_EQ(secondDeletions, 0);
  EXPECT_EQ(a.Get(), b.Get());
  EXPECT_EQ(a.GetRefCount(), 2);
}

TEST(SmartPointerNTS, SelfAssignmentKeepsObject) {
  int deletions = 0;
  Ptr a(new Tracked(&deletions, 3));
  Ptr& alias = a;
  a = alias;
  EXPECT_EQ(deletions, 0);
  ASSERT_FALSE(a.IsNil());
  EXPECT_EQ(a->Value(), 3);
  EXPECT_EQ(a.GetRefCount(), 1);
}

TEST(SmartPointerNTS, AssignRawPointerReleasesPreviousObject) {
  int firstDeletions = 0;
  int secondDeletions = 0;
  Ptr a(new Tracked(&firstDeletions));
  Ptr shared(a);
  a.assign(new Tracked(&secondDeletions, 5));
  EXPECT_EQ(firstDeletions, 0);  // still held by `shared`
  EXPECT_EQ(shared.GetRefCount(), 1);
  EXPECT_EQ(a.GetRefCount(), 1);
  EXPECT_EQ(a->Value(), 5);
  shared.Reset();
  EXPECT_EQ(firstDeletions, 1);
}

TEST(SmartPointerNTS, AssignSameRawPointerKeepsObject) {
  int deletions = 0;
  Tracked* raw = new Tracked(&deletions);
  Ptr a(raw);
  a.assign(raw);
  EXPECT_EQ(deletions, 0);
  EXPECT_EQ(a.Get(), raw);
}

TEST(SmartPointerNTS, AssignNonDeletableNeverDeletes) {
  int deletions = 0;
  Tracked object(&deletions);
  Ptr a;
  a.assign(&object, false);
  Ptr b(a);
  a.Reset();
  b.Reset();
  EXPECT_EQ(deletions, 0);
}

TEST(SmartPointerNTS, SwapExchangesObjectsAndCounts) {
  int deletions = 0;
  Ptr a(new Tracked(&deletions, 1));
  Ptr aCopy(a);
  Ptr b(new Tracked(&deletions, 2));
  a.swap(b);
  EXPECT_EQ(a->Value(), 2);
  EXPECT_EQ(a.GetRefCount(), 1);
  EXPECT_EQ(b->Value(), 1);
  EXPECT_EQ(b.GetRefCount(), 2);
  EXPECT_EQ(b.Get(), aCopy.Get());
  EXPECT_EQ(deletions, 0);
}

TEST(SmartPointerNTS, ArrowStarAndGetReachTheObject) {
  int deletions = 0;
  Tracked* raw = new Tracked(&deletions, 42);
  Ptr p(raw);
  EXPECT_EQ(p.Get(), raw);
  EXPECT_EQ(p->Value(), 42);
  EXPECT_EQ((*p).Value(), 42);
}

TEST(SmartPointerNTS, CopyToBaseSharesCountAndDeletesThroughVirtualDestructor) {
  int deletions = 0;
  int derivedDeletions = 0;
  {
    AppFw::SmartPointerNTS<DerivedTracked> derived(
        new DerivedTracked(&deletions, &derivedDeletions));
    Ptr base(derived);
    EXPECT_EQ(base.GetRefCount(), 2);
    EXPECT_EQ(derived.GetRefCount(), 2);
    EXPECT_EQ(base->Value(), 7);
    derived.Reset();
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(base.GetRefCount(), 1);
  }
  EXPECT_EQ(deletions, 1);
  EXPECT_EQ(derivedDeletions, 1);
}

TEST(SmartPointerNTS, ResetOfLastSharedCopyDeletes) {
  int deletions = 0;
  Ptr a(new Tracked(&deletions));
  Ptr b(a);
  a.Reset();
  EXPECT_EQ(deletions, 0);
  EXPECT_EQ(b.GetRefCount(), 1);
  b.Reset();
  EXPECT_EQ(deletions, 1);
}

}  // namespace
