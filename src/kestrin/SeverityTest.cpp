#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "kestrin/Severity.h"

namespace kestrin {
namespace {

using Level = DetailedSeverity::SeverityLevel;

int LevelOf(const std::string& word) { return DetailedSeverity::GetSeverityFromString(&word); }

int LevelFromQrt(unsigned short code) {
  DetailedSeverity severity(DetailedSeverity::EMERG_LEVEL);
  severity.SetFromQrtSeverity(code);
  return severity.GetLevel();
}

unsigned short FilterCodeOf(int level) {
  return DetailedSeverity(static_cast<Level>(level)).AsQrtSeverityForFilter();
}

TEST(DetailedSeverity, LevelsAreNumberedZeroToNine) {
  EXPECT_EQ(0, DetailedSeverity::EMERG_LEVEL);
  EXPECT_EQ(1, DetailedSeverity::ALERT_LEVEL);
  EXPECT_EQ(2, DetailedSeverity::CRIT_LEVEL);
  EXPECT_EQ(3, DetailedSeverity::ERROR_LEVEL);
  EXPECT_EQ(4, DetailedSeverity::MAJOR_LEVEL);
  EXPECT_EQ(5, DetailedSeverity::MINOR_LEVEL);
  EXPECT_EQ(6, DetailedSeverity::WARN_LEVEL);
  EXPECT_EQ(7, DetailedSeverity::NOTICE_LEVEL);
  EXPECT_EQ(8, DetailedSeverity::INFO_LEVEL);
  EXPECT_EQ(9, DetailedSeverity::DEBUG_LEVEL);
  EXPECT_EQ(4u, sizeof(DetailedSeverity));
}

TEST(DetailedSeverity, DefaultIsLevelThree) { EXPECT_EQ(3, DetailedSeverity().GetLevel()); }

TEST(DetailedSeverity, ConstructsFromLevel) {
  EXPECT_EQ(7, DetailedSeverity(DetailedSeverity::NOTICE_LEVEL).GetLevel());
  EXPECT_EQ(0, DetailedSeverity(DetailedSeverity::EMERG_LEVEL).GetLevel());
}

TEST(DetailedSeverity, ConstructsFromWord) {
  EXPECT_EQ(4, DetailedSeverity(std::string("Major")).GetLevel());
  EXPECT_EQ(9, DetailedSeverity(std::string("debug")).GetLevel());
  EXPECT_EQ(3, DetailedSeverity(std::string("")).GetLevel());
}

TEST(DetailedSeverity, SetReplacesLevel) {
  DetailedSeverity severity;
  severity.Set(DetailedSeverity::DEBUG_LEVEL);
  EXPECT_EQ(9, severity.GetLevel());
  severity.Set(DetailedSeverity::ALERT_LEVEL);
  EXPECT_EQ(1, severity.GetLevel());
}

TEST(DetailedSeverity, ComparesNumericLevels) {
  DetailedSeverity crit(DetailedSeverity::CRIT_LEVEL);
  DetailedSeverity warn(DetailedSeverity::WARN_LEVEL);
  EXPECT_TRUE(crit <= warn);
  EXPECT_FALSE(warn <= crit);
  EXPECT_TRUE(crit <= crit);
  EXPECT_TRUE(warn > crit);
  EXPECT_FALSE(crit > warn);
  EXPECT_FALSE(crit > crit);
  DetailedSeverity above_range(static_cast<Level>(12));
  EXPECT_TRUE(above_range > DetailedSeverity(DetailedSeverity::DEBUG_LEVEL));
}

TEST(DetailedSeverity, SetFromQrtSeverityMapsEachCode) {
  EXPECT_EQ(3, LevelFromQrt(1));
  EXPECT_EQ(6, LevelFromQrt(2));
  EXPECT_EQ(8, LevelFromQrt(4));
  EXPECT_EQ(9, LevelFromQrt(8));
}

TEST(DetailedSeverity, SetFromQrtSeverityCodeOneAndThreeGiveError) {
  EXPECT_EQ(3, LevelFromQrt(1));
  EXPECT_EQ(3, LevelFromQrt(3));
}

TEST(DetailedSeverity, SetFromQrtSeverityUnknownCodesGiveError) {
  for (unsigned short code : {0, 5, 6, 12, 16, 0xFFFF}) {
    EXPECT_EQ(3, LevelFromQrt(code)) << "code " << code;
  }
}

TEST(DetailedSeverity, AsQrtSeverityForFilterFollowsTable) {
  const unsigned short expected[] = {1, 1, 1, 1, 2, 2, 2, 4, 4, 8};
  for (int level = 0; level <= 9; ++level) {
    EXPECT_EQ(expected[level], FilterCodeOf(level)) << "level " << level;
  }
}

TEST(DetailedSeverity, AsQrtSeverityForFilterAboveNineGivesDebug) {
  EXPECT_EQ(8, FilterCodeOf(10));
  EXPECT_EQ(8, FilterCodeOf(1000));
}

TEST(DetailedSeverity, AsQrtSeverityForFilterBelowZeroGivesError) {
  EXPECT_EQ(1, FilterCodeOf(-1));
}

TEST(GetSeverityFromString, EachWordGivesItsLevel) {
  EXPECT_EQ(0, LevelOf("emerg"));
  EXPECT_EQ(1, LevelOf("alert"));
  EXPECT_EQ(2, LevelOf("crit"));
  EXPECT_EQ(3, LevelOf("error"));
  EXPECT_EQ(4, LevelOf("major"));
  EXPECT_EQ(5, LevelOf("minor"));
  EXPECT_EQ(6, LevelOf("warn"));
  EXPECT_EQ(7, LevelOf("note"));
  EXPECT_EQ(7, LevelOf("notic"));
  EXPECT_EQ(8, LevelOf("info"));
  EXPECT_EQ(9, LevelOf("debug"));
}

TEST(GetSeverityFromString, WarningGivesSix) { EXPECT_EQ(6, LevelOf("Warning")); }

TEST(GetSeverityFromString, UpperCaseNoticeGivesSeven) { EXPECT_EQ(7, LevelOf("NOTICE")); }

TEST(GetSeverityFromString, UnknownWordGivesThree) {
  EXPECT_EQ(3, LevelOf("fatal"));
  EXPECT_EQ(3, LevelOf(""));
}

TEST(GetSeverityFromString, NullPointerGivesThree) {
  EXPECT_EQ(3, DetailedSeverity::GetSeverityFromString(nullptr));
}

TEST(GetSeverityFromString, MatchesSubstrings) {
  EXPECT_EQ(0, LevelOf("Emergency"));
  EXPECT_EQ(2, LevelOf("critical"));
  EXPECT_EQ(6, LevelOf("warning"));
  EXPECT_EQ(8, LevelOf("information"));
  EXPECT_EQ(8, LevelOf("informational"));
  EXPECT_EQ(7, LevelOf("notice"));
  EXPECT_EQ(9, LevelOf("[DEBUGGING]"));
}

TEST(GetSeverityFromString, EarlierKeyWinsInFixedOrder) {
  EXPECT_EQ(3, LevelOf("minor error"));
  EXPECT_EQ(1, LevelOf("critical alert"));
  EXPECT_EQ(0, LevelOf("alert emerg"));
  EXPECT_EQ(2, LevelOf("error crit"));
  EXPECT_EQ(4, LevelOf("minor major"));
  EXPECT_EQ(6, LevelOf("debug info warn"));
  EXPECT_EQ(7, LevelOf("informational notice"));
  EXPECT_EQ(8, LevelOf("debug info"));
}

TEST(SeverityWords, DesignerWordsAreFiveCharactersWide) {
  EXPECT_STREQ("ERROR", GetSeverityStringForDesignerLogs(1));
  EXPECT_STREQ("WARN ", GetSeverityStringForDesignerLogs(2));
  EXPECT_STREQ("INFO ", GetSeverityStringForDesignerLogs(4));
  EXPECT_STREQ("DEBUG", GetSeverityStringForDesignerLogs(8));
  EXPECT_STREQ("???  ", GetSeverityStringForDesignerLogs(3));
  for (unsigned short code : {0, 1, 2, 3, 4, 8, 16}) {
    EXPECT_EQ(5u, strlen(GetSeverityStringForDesignerLogs(code))) << "code " << code;
  }
}

TEST(SeverityWords, OperationalWordsAreNotPadded) {
  EXPECT_STREQ("error", GetSeverityStringForOperationalLogs(1));
  EXPECT_STREQ("warning", GetSeverityStringForOperationalLogs(2));
  EXPECT_STREQ("information", GetSeverityStringForOperationalLogs(4));
  EXPECT_STREQ("debug", GetSeverityStringForOperationalLogs(8));
  EXPECT_STREQ("???  ", GetSeverityStringForOperationalLogs(0));
  EXPECT_STREQ("???  ", GetSeverityStringForOperationalLogs(0xFFFF));
}

TEST(SeverityWords, KestrinMessageContentWords) {
  EXPECT_STREQ("Error", GetSeverityStringForKestrinMessageContents(1));
  EXPECT_STREQ("Warn", GetSeverityStringForKestrinMessageContents(2));
  EXPECT_STREQ("Info", GetSeverityStringForKestrinMessageContents(4));
  EXPECT_STREQ("Debug", GetSeverityStringForKestrinMessageContents(8));
  EXPECT_STREQ("?????", GetSeverityStringForKestrinMessageContents(6));
  EXPECT_STREQ("?????", GetSeverityStringForKestrinMessageContents(32));
}

}  // namespace
}  // namespace kestrin
