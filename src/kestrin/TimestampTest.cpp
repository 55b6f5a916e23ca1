#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>

#include "kestrin/Timestamp.h"

namespace kestrin {
namespace {

// 2023-11-14T22:13:20 UTC.
constexpr long NOV_14_2023 = 1700000000L;
// The last second whose year still fits: 2147485547-12-31T23:59:59 UTC.
constexpr long LAST_CONVERTIBLE_SECOND = 67768036191676799L;

// Runs each test in a fixed time zone and restores the caller's afterwards.
class Timestamp : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = getenv("TZ");
    had_tz_ = tz != nullptr;
    if (had_tz_) saved_tz_ = tz;
    UseTimeZone("UTC");
  }

  void TearDown() override {
    if (had_tz_) {
      setenv("TZ", saved_tz_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

  static void UseTimeZone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
  }

  static std::string Stamp(long seconds) { return GetTimestampString(seconds); }

 private:
  bool had_tz_ = false;
  std::string saved_tz_;
};

TEST_F(Timestamp, FormatsDateAndTimeWithTrailingPeriod) {
  EXPECT_EQ("2023-11-14T22:13:20.", Stamp(NOV_14_2023));
  EXPECT_EQ("1970-01-01T00:00:00.", Stamp(0));
  EXPECT_EQ("2000-02-29T09:05:07.", Stamp(951815107L));
  EXPECT_EQ("1969-12-31T23:59:59.", Stamp(-1));
}

TEST_F(Timestamp, UsesLocalTime) {
  UseTimeZone("EST5");  // five hours west of UTC, no daylight saving
  EXPECT_EQ("2023-11-14T17:13:21.", Stamp(NOV_14_2023 + 1));
}

TEST_F(Timestamp, SameSecondConvertsOnce) {
  unsigned long before = TimestampConversionCount();
  std::string first = Stamp(NOV_14_2023 + 100);
  std::string second = Stamp(NOV_14_2023 + 100);
  EXPECT_EQ("2023-11-14T22:15:00.", first);
  EXPECT_EQ(first, second);
  EXPECT_EQ(before + 1, TimestampConversionCount());
}

TEST_F(Timestamp, EarlierSecondReformats) {
  unsigned long before = TimestampConversionCount();
  EXPECT_EQ("2023-11-14T22:15:11.", Stamp(NOV_14_2023 + 111));
  EXPECT_EQ("2023-11-14T22:15:10.", Stamp(NOV_14_2023 + 110));
  EXPECT_EQ("2023-11-14T22:15:11.", Stamp(NOV_14_2023 + 111));
  EXPECT_EQ(before + 3, TimestampConversionCount());
}

TEST_F(Timestamp, FirstCallAlwaysFormats) {
  // A fresh process, so that this is the very first call; a cache that
  // started at second 0 would hand back its empty text.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const char* text = GetTimestampString(0);
        fprintf(stderr, "[%s] conversions=%lu\n", text, TimestampConversionCount());
        exit(0);
      },
      ::testing::ExitedWithCode(0), "\\[1970-01-01T00:00:00\\.\\] conversions=1");
}

TEST_F(Timestamp, WithoutBufferReturnsCache) {
  const char* first = GetTimestampString(NOV_14_2023 + 200);
  const char* second = GetTimestampString(NOV_14_2023 + 201);
  EXPECT_EQ(first, second);
  EXPECT_STREQ("2023-11-14T22:16:41.", second);
}

TEST_F(Timestamp, CopiesIntoCallerBuffer) {
  char buf[32];
  memset(buf, 'x', sizeof buf);
  const char* result = GetTimestampString(NOV_14_2023 + 300, buf, sizeof buf);
  EXPECT_EQ(buf, result);
  EXPECT_STREQ("2023-11-14T22:18:20.", buf);
}

TEST_F(Timestamp, SmallBufferCutsText) {
  char buf[11];
  memset(buf, 'x', sizeof buf);
  GetTimestampString(NOV_14_2023 + 400, buf, sizeof buf);
  EXPECT_STREQ("2023-11-14", buf);
  // The cut copy leaves the cached text whole.
  EXPECT_STREQ("2023-11-14T22:20:00.", GetTimestampString(NOV_14_2023 + 400));
}

TEST_F(Timestamp, ZeroSizeBufferIsLeftAlone) {
  char buf[4] = {'x', 'y', 'z', '\0'};
  EXPECT_EQ(buf, GetTimestampString(NOV_14_2023 + 500, buf, 0));
  EXPECT_STREQ("xyz", buf);
}

TEST_F(Timestamp, LargestConvertibleSecondFormatsWholeYear) {
  EXPECT_EQ("2147485547-12-31T23:59:59.", Stamp(LAST_CONVERTIBLE_SECOND));
}

TEST_F(Timestamp, FailedConversionGivesYear1900) {
  EXPECT_EQ("1900-01-01T00:00:00.", Stamp(LAST_CONVERTIBLE_SECOND + 1));
  EXPECT_EQ("1900-01-01T00:00:00.", Stamp(LONG_MAX));
  EXPECT_EQ("1900-01-01T00:00:00.", Stamp(LONG_MIN));
}

}  // namespace
}  // namespace kestrin
