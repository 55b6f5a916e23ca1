#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>

#include "osa/osa.h"

namespace {

TEST(OsLStrCpyn, CutsAndTerminates) {
  char buf[4];
  EXPECT_EQ(buf, osLStrCpyn(buf, "abcdef", sizeof buf));
  EXPECT_STREQ("abc", buf);
}

TEST(OsLStrCpyn, CopiesWholeStringThatFits) {
  char buf[8];
  osLStrCpyn(buf, "abcdefg", sizeof buf);
  EXPECT_STREQ("abcdefg", buf);
}

TEST(OsLStrCpyn, NullSourceCopiesEmptyString) {
  char buf[4] = "xyz";
  osLStrCpyn(buf, nullptr, sizeof buf);
  EXPECT_STREQ("", buf);
}

TEST(OsLStrCpyn, SizeZeroWritesNothing) {
  char buf[4] = "xyz";
  EXPECT_EQ(buf, osLStrCpyn(buf, "abc", 0));
  EXPECT_STREQ("xyz", buf);
  EXPECT_EQ(nullptr, osLStrCpyn(nullptr, "abc", 4));
}

TEST(OsLStrCpyn, SizeOneGivesEmptyString) {
  char buf[4] = "xyz";
  osLStrCpyn(buf, "abc", 1);
  EXPECT_STREQ("", buf);
}

TEST(OsLStrCpyn, DoesNotReadPastTheCopiedPart) {
  // The source is not terminated within its array: only size - 1 bytes are read.
  const char source[3] = {'a', 'b', 'c'};
  char buf[3];
  osLStrCpyn(buf, source, sizeof buf);
  EXPECT_STREQ("ab", buf);
}

TEST(OsItoaEx, SignedNegative) {
  char buf[16];
  ASSERT_EQ(OS_OK, osItoaEx(-42, buf, sizeof buf, 1));
  EXPECT_STREQ("-42", buf);
}

TEST(OsItoaEx, UnsignedTakesTheBitsAsUnsigned) {
  char buf[32];
  ASSERT_EQ(OS_OK, osItoaEx(-1, buf, sizeof buf, 0));
  EXPECT_STREQ("18446744073709551615", buf);
  ASSERT_EQ(OS_OK, osItoaEx(12345, buf, sizeof buf, 0));
  EXPECT_STREQ("12345", buf);
}

TEST(OsItoaEx, ExactFit) {
  char buf[4];
  ASSERT_EQ(OS_OK, osItoaEx(123, buf, sizeof buf, 1));
  EXPECT_STREQ("123", buf);
}

TEST(OsItoaEx, TooSmallBufferIsReportedAndCut) {
  char buf[4];
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, osItoaEx(12345, buf, sizeof buf, 1));
  EXPECT_STREQ("123", buf);
}

TEST(OsItoaEx, NullOrEmptyBufferIsInvalid) {
  char buf[4];
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osItoaEx(1, nullptr, 4, 1));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osItoaEx(1, buf, 0, 1));
}

TEST(OsItoaEx, LongExtremes) {
  char buf[32];
  ASSERT_EQ(OS_OK, osItoaEx(LONG_MIN, buf, sizeof buf, 1));
  EXPECT_STREQ("-9223372036854775808", buf);
}

}  // namespace
