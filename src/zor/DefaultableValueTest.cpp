#include <gtest/gtest.h>

#include <type_traits>

#include "zor/DefaultableValue.h"

namespace {

// Owner tags: each test uses its own instantiations so that class-wide
// defaults set by one test do not leak into another.
struct FollowOwner {};
struct SetOwner {};
struct CallOwner {};
struct UseDefaultOwner {};
struct SetDefaultOwner {};
struct SeparateOwner {};
struct OtherOwner {};
struct BoolOwner {};

TEST(DefaultableValue, NewValueFollowsZeroDefault) {
  Zor::DefaultableValue<long, FollowOwner, 1> value;
  EXPECT_TRUE(value.IsUsingDefault());
  EXPECT_EQ(value.Get(), 0);
  EXPECT_EQ(value(), 0);
  EXPECT_FALSE((Zor::DefaultableValue<long, FollowOwner, 1>::HasSetDefaultBeenCalled()));
  EXPECT_EQ((Zor::DefaultableValue<long, FollowOwner, 1>::GetDefault()), 0);
}

TEST(DefaultableValue, SetStoresOwnValueAndStopsFollowingDefault) {
  using Value = Zor::DefaultableValue<long, SetOwner, 1>;
  Value value;
  value.Set(1234);
  EXPECT_FALSE(value.IsUsingDefault());
  EXPECT_EQ(value.Get(), 1234);
  Value::SetDefault(99);
  EXPECT_EQ(value.Get(), 1234);
  Value follower;
  EXPECT_EQ(follower.Get(), 99);
}

TEST(DefaultableValue, CallOperatorSetsAndGets) {
  Zor::DefaultableValue<unsigned int, CallOwner, 2> value;
  value(7u);
  EXPECT_EQ(value(), 7u);
  EXPECT_FALSE(value.IsUsingDefault());
}

TEST(DefaultableValue, UseDefaultSwitchesBetweenDefaultAndOwnValue) {
  using Value = Zor::DefaultableValue<long, UseDefaultOwner, 1>;
  Value::SetDefault(10);
  Value value;
  value.Set(20);
  value.UseDefault(true);
  EXPECT_EQ(value.Get(), 10);
  value.UseDefault(false);
  EXPECT_EQ(value.Get(), 20);
}

TEST(DefaultableValue, SetDefaultChangesEveryFollowerAndMarksItSet) {
  using Value = Zor::DefaultableValue<long, SetDefaultOwner, 1>;
  Value a;
  Value b;
  EXPECT_FALSE(Value::HasSetDefaultBeenCalled());
  Value::SetDefault(0);  // setting the same value still counts as set
  EXPECT_TRUE(Value::HasSetDefaultBeenCalled());
  Value::SetDefault(15728640);
  EXPECT_EQ(Value::GetDefault(), 15728640);
  EXPECT_EQ(a.Get(), 15728640);
  EXPECT_EQ(b(), 15728640);
}

TEST(DefaultableValue, EachInstantiationHasItsOwnDefault) {
  using First = Zor::DefaultableValue<long, SeparateOwner, 1>;
  using OtherNumber = Zor::DefaultableValue<long, SeparateOwner, 2>;
  using OtherClass = Zor::DefaultableValue<long, OtherOwner, 1>;
  First::SetDefault(5);
  EXPECT_EQ(First().Get(), 5);
  EXPECT_EQ(OtherNumber().Get(), 0);
  EXPECT_EQ(OtherClass().Get(), 0);
  EXPECT_FALSE(OtherNumber::HasSetDefaultBeenCalled());
  EXPECT_FALSE(OtherClass::HasSetDefaultBeenCalled());
}

TEST(DefaultableValue, BoolStartsFalse) {
  using Value = Zor::DefaultableValue<bool, BoolOwner, 3>;
  Value value;
  EXPECT_FALSE(value.Get());
  Value::SetDefault(true);
  EXPECT_TRUE(value.Get());
  value.Set(false);
  EXPECT_FALSE(value.Get());
}

TEST(DefaultableValue, HasVirtualDestructor) {
  EXPECT_TRUE((std::has_virtual_destructor<Zor::DefaultableValue<long, FollowOwner, 1>>::value));
}

}  // namespace
