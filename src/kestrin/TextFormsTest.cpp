#include <gtest/gtest.h>

#include <string>

#include "kestrin/TextForms.h"

namespace kestrin {
namespace {

TEST(ToLowerCase, FoldsOnlyAsciiCapitals) {
  EXPECT_EQ('a', ToLowerCase('A'));
  EXPECT_EQ('z', ToLowerCase('Z'));
  EXPECT_EQ('q', ToLowerCase('q'));
  EXPECT_EQ('@', ToLowerCase('@'));  // just before 'A'
  EXPECT_EQ('[', ToLowerCase('['));  // just after 'Z'
  EXPECT_EQ('5', ToLowerCase('5'));
  EXPECT_EQ('\xC4', ToLowerCase('\xC4'));  // Latin-1 capital A umlaut stays
}

TEST(AsciiStringToLowerCase, ChangesStringInPlace) {
  std::string text = "MiXeD Case 42 \xC4\r";
  AsciiStringToLowerCase(text);
  EXPECT_EQ("mixed case 42 \xC4\r", text);
  std::string empty;
  AsciiStringToLowerCase(empty);
  EXPECT_EQ("", empty);
}

TEST(TrimWhiteSpace, RemovesBlanksAndTabsAroundText) {
  EXPECT_EQ("abc", TrimWhiteSpace(" \t abc\t \t"));
  EXPECT_EQ("a b\tc", TrimWhiteSpace("\ta b\tc "));
  EXPECT_EQ("abc", TrimWhiteSpace("abc"));
}

TEST(TrimWhiteSpace, OnlyBlanksAndTabsGiveEmptyString) {
  EXPECT_EQ("", TrimWhiteSpace(" \t \t "));
  EXPECT_EQ("", TrimWhiteSpace(""));
}

TEST(TrimWhiteSpace, KeepsOtherControlCharacters) {
  EXPECT_EQ("abc\r", TrimWhiteSpace(" abc\r"));
  EXPECT_EQ("\nabc", TrimWhiteSpace("\nabc "));
  EXPECT_EQ("\vx\f", TrimWhiteSpace("\vx\f"));
}

TEST(EventClass, StringOfEachClass) {
  EXPECT_STREQ("unspecified", GetEventClassString(0));
  EXPECT_STREQ("fault", GetEventClassString(1));
  EXPECT_STREQ("information", GetEventClassString(2));
  EXPECT_STREQ("state", GetEventClassString(4));
  EXPECT_STREQ("audit", GetEventClassString(8));
  EXPECT_STREQ("configuration", GetEventClassString(16));
  EXPECT_STREQ("data", GetEventClassString(32));
  EXPECT_STREQ("maintenance", GetEventClassString(64));
  EXPECT_STREQ("metrics", GetEventClassString(128));
  EXPECT_STREQ("security", GetEventClassString(256));
}

TEST(EventClass, StringOfThreeIsQuestionMarks) { EXPECT_STREQ("???", GetEventClassString(3)); }

TEST(EventClass, StringOfOtherValuesIsQuestionMarks) {
  EXPECT_STREQ("???", GetEventClassString(512));
  EXPECT_STREQ("???", GetEventClassString(0x100000001UL));  // fault's bit plus bit 32
  EXPECT_STREQ("???", GetEventClassString(~0UL));
}

TEST(EventClass, FromStringOfEachWord) {
  EXPECT_EQ(1u, GetEventClassFromString("fault"));
  EXPECT_EQ(2u, GetEventClassFromString("info"));
  EXPECT_EQ(4u, GetEventClassFromString("state"));
  EXPECT_EQ(8u, GetEventClassFromString("audit"));
  EXPECT_EQ(16u, GetEventClassFromString("config"));
  EXPECT_EQ(32u, GetEventClassFromString("data"));
  EXPECT_EQ(64u, GetEventClassFromString("maintenance"));
  EXPECT_EQ(128u, GetEventClassFromString("metrics"));
  EXPECT_EQ(256u, GetEventClassFromString("security"));
}

TEST(EventClass, FromStringOfConfigurationGives16) {
  EXPECT_EQ(16u, GetEventClassFromString("Configuration"));
}

TEST(EventClass, FromStringOfInformationalGives2) {
  EXPECT_EQ(2u, GetEventClassFromString("informational"));
}

TEST(EventClass, FromStringOfEmptyStringGivesZero) {
  EXPECT_EQ(0u, GetEventClassFromString(""));
  EXPECT_EQ(0u, GetEventClassFromString("unspecified"));
  EXPECT_EQ(0u, GetEventClassFromString(nullptr));
}

TEST(EventClass, FromStringEarlierWordWins) {
  EXPECT_EQ(1u, GetEventClassFromString("SECURITY FAULT"));
  EXPECT_EQ(2u, GetEventClassFromString("state information"));
  EXPECT_EQ(16u, GetEventClassFromString("data configuration"));
  EXPECT_EQ(32u, GetEventClassFromString("metrics data"));
}

TEST(EventClass, EveryTextReadsBackAsItsClass) {
  for (uint32_t value = 1; value <= 256; value <<= 1) {
    EXPECT_EQ(value, GetEventClassFromString(GetEventClassString(value))) << value;
  }
}

TEST(LoggingDestination, RegisteredAndEventGiveEvReg) {
  EXPECT_STREQ("Ev|Reg", LoggingDestinationAsString(0x06));
  EXPECT_STREQ("Ev|Reg", LoggingDestinationAsString(0x03));
  EXPECT_STREQ("Ev|Reg", LoggingDestinationAsString(0x07));
  EXPECT_STREQ("Ev|Reg", LoggingDestinationAsString(0xFF));
}

TEST(LoggingDestination, OnlyRegisteredGivesReg) {
  EXPECT_STREQ("Reg", LoggingDestinationAsString(0x02));
  EXPECT_STREQ("Reg", LoggingDestinationAsString(0xFA));
}

TEST(LoggingDestination, OnlyEventBitsGiveEv) {
  EXPECT_STREQ("Ev", LoggingDestinationAsString(0x01));
  EXPECT_STREQ("Ev", LoggingDestinationAsString(0x04));
  EXPECT_STREQ("Ev", LoggingDestinationAsString(0x05));
  EXPECT_STREQ("Ev", LoggingDestinationAsString(0x0D));
}

TEST(LoggingDestination, NoneOfTheThreeBitsGivesNone) {
  EXPECT_STREQ("None", LoggingDestinationAsString(0x00));
  EXPECT_STREQ("None", LoggingDestinationAsString(0x08));
  EXPECT_STREQ("None", LoggingDestinationAsString(0xF8));
}

}  // namespace
}  // namespace kestrin
