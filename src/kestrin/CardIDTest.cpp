#include <gtest/gtest.h>
#include <string.h>

#include <sstream>

#include "kestrin/CardID.h"

namespace kestrin {
namespace {

std::string Printed(const CardID& id) {
  std::ostringstream out;
  out << id;
  return out.str();
}

TEST(CardID, ThisCardIsZero) { EXPECT_EQ(0ul, CardID::GetIDOfThisCard()); }

TEST(CardID, PrintsUnsignedDecimal) {
  EXPECT_EQ("0", Printed(CardID(0)));
  EXPECT_EQ("17", Printed(CardID(17)));
  EXPECT_EQ("4294967295", Printed(CardID(0xFFFFFFFFUL)));
}

TEST(CardID, KeepsLow32Bits) {
  EXPECT_EQ(5u, CardID(0x100000005UL).GetValue());
  EXPECT_EQ("5", Printed(CardID(0x100000005UL)));
}

TEST(CardIDString, ShortFormIsChassisDotSlot) {
  EXPECT_STREQ("B.0", GetShortCardIDString(0));
  EXPECT_STREQ("B.0", GetShortCardIDString(3));
  EXPECT_STREQ("B.0", GetShortCardIDString(0xFFFFFFFFUL));
}

TEST(CardIDString, LongFormNamesChassisAndSlot) {
  EXPECT_STREQ("Chassis=B/SCSlot=0", GetLongCardIDString(0));
  EXPECT_STREQ("Chassis=B/SCSlot=0", GetLongCardIDString(9));
  EXPECT_STREQ("Chassis=B/SCSlot=0", GetLongCardIDString(0xFFFFFFFFUL));
}

TEST(CardIDString, WithoutBufferReturnsOneStaticBuffer) {
  const char* first = GetShortCardIDString(1);
  EXPECT_EQ(first, GetShortCardIDString(2));
  const char* first_long = GetLongCardIDString(1);
  EXPECT_EQ(first_long, GetLongCardIDString(2));
  EXPECT_NE(first, first_long);
}

TEST(CardIDString, CopiesIntoCallerBuffer) {
  char buf[64];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(buf, GetShortCardIDString(4, buf, sizeof buf));
  EXPECT_STREQ("B.0", buf);
  EXPECT_EQ(buf, GetLongCardIDString(4, buf, sizeof buf));
  EXPECT_STREQ("Chassis=B/SCSlot=0", buf);
}

TEST(CardIDString, SmallBufferCutsText) {
  char buf[8];
  GetShortCardIDString(0, buf, 3);
  EXPECT_STREQ("B.", buf);
  GetLongCardIDString(0, buf, sizeof buf);
  EXPECT_STREQ("Chassis", buf);
  GetLongCardIDString(0, buf, 1);
  EXPECT_STREQ("", buf);
}

TEST(ChassisNumberString, ChassisZeroIsB) {
  char buf[16];
  EXPECT_EQ(buf, GetChassisNumberString(0, buf, sizeof buf));
  EXPECT_STREQ("B", buf);
}

TEST(ChassisNumberString, OtherChassisIsEAndNumber) {
  char buf[16];
  EXPECT_STREQ("E7", GetChassisNumberString(7, buf, sizeof buf));
  EXPECT_STREQ("E1", GetChassisNumberString(1, buf, sizeof buf));
  EXPECT_STREQ("E4294967295", GetChassisNumberString(0xFFFFFFFFu, buf, sizeof buf));
}

TEST(ChassisNumberString, SmallBufferCutsText) {
  char buf[3];
  EXPECT_STREQ("E1", GetChassisNumberString(123, buf, sizeof buf));
  EXPECT_STREQ("", GetChassisNumberString(0, buf, 1));
}

}  // namespace
}  // namespace kestrin
