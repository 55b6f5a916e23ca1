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

TEST(ControlBytes, AreWrittenAsHashAndThreeOctalDigits) {
  EXPECT_EQ("ok#012<error>#011forged", EscapeControlBytes("ok\n<error>\tforged"));
  EXPECT_EQ("#033[2J#177#000#001#037 ~",
            EscapeControlBytes(std::string("\x1b[2J\x7f\0\x01\x1f ~", 10)));
  EXPECT_EQ("caf\xc3\xa9", EscapeControlBytes("caf\xc3\xa9")) << "UTF-8 stays as it is";
}

TEST(ControlBytes, CleanTextIsHandedBackWithoutACopy) {
  std::string storage = "untouched";
  const char* text = "a clean line";
  EXPECT_EQ(text, WithControlBytesEscaped(text, &storage));
  EXPECT_EQ("untouched", storage);
  EXPECT_EQ(nullptr, WithControlBytesEscaped(nullptr, &storage));
  EXPECT_STREQ("a#015b", WithControlBytesEscaped("a\rb", &storage));
  EXPECT_FALSE(HasControlBytes("plain text"));
  EXPECT_TRUE(HasControlBytes(std::string("nul\0inside", 10)));
  EXPECT_FALSE(HasControlBytes(static_cast<const char*>(nullptr)));
}

TEST(ControlBytes, EveryByteValueIsJudgedRightAtEveryPlaceOfAWord) {
  for (int value = 0; value < 256; ++value) {
    const bool control = value < 0x20 || value == 0x7f;
    for (size_t place = 0; place < 19; ++place) {
      std::string text(19, 'a');
      text[place] = static_cast<char>(value);
      ASSERT_EQ(control, HasControlBytes(text)) << value << " at " << place;
      // Bytes above 0x7F next to it must not make it look like one.
      text.assign(19, '\xff');
      text[place] = static_cast<char>(value);
      ASSERT_EQ(control, HasControlBytes(text)) << value << " among 0xFF at " << place;
    }
  }
}

}  // namespace
}  // namespace kestrin
