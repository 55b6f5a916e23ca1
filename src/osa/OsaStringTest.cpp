#include <gtest/gtest.h>

#include "osa/osa.h"

TEST(OsLStrCpyn, CutsAndTerminates) {
  char buf[4];
  osLStrCpyn(buf, "abcdef", sizeof buf);
  EXPECT_STREQ("abc", buf);
}
