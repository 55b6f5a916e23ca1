#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kestrin/AgentAccess.h"
#include "kestrin/AlarmTaxonomy.h"
#include "kestrin/AlarmTestSupport.h"
#include "kestrin/AlarmUtils.h"
#include "kestrin/Configuration.h"
#include "kestrin/Globals.h"
#include "kestrin/LogFileNames.h"
#include "kestrin/RegTable.h"
#include "kestrin/TestTempDir.h"
#include "osa/osa.h"

namespace kestrin {
namespace {

using Lines = std::vector<std::string>;
using MaxFileSizeSetting = Zor::DefaultableValue<long, Zor::RollingFile, 1>;
using BackupCountSetting = Zor::DefaultableValue<unsigned int, Zor::RollingFile, 2>;
using ZipBackupsSetting = Zor::DefaultableValue<bool, Zor::RollingFile, 3>;

// Pacing keys that draw no warning, for tests about other keys.
const char QUIET_CONFIG[] = "[config]\nMessagesBeforeSleep=80\nSleepTime=10\n";

// The lines that contain any of `parts`, in their order.
Lines ContainingAny(const Lines& lines, const std::vector<std::string>& parts) {
  Lines found;
  for (const std::string& line : lines) {
    for (const std::string& part : parts) {
      if (line.find(part) != std::string::npos) {
        found.push_back(line);
        break;
      }
    }
  }
  return found;
}
Lines Containing(const Lines& lines, const std::string& part) {
  return ContainingAny(lines, std::vector<std::string>{part});
}

const std::vector<std::string> PACING_MESSAGES = {"before sleeping", "MESSAGES_BEFORE_SLEEP"};

// Every test starts as a fresh daemon would: the next read is the start-up
// read, no role, pacing 80/10, no known files, events possible through the
// fake client library. The own log (not in the table of files) takes
// everything.
class Configuration : public OwnLogTest {
 protected:
  void SetUp() override {
    OwnLogTest::SetUp();
    FakeClientLibrary::Install();
    IssueDeferredKestrinAlarms();
    MarkNextConfigurationReadAsFirstForTesting();
    KestrinsRoleType = ROLE_DEFAULT;
    MESSAGES_BEFORE_SLEEP = 80;
    SLEEP_TIME = 10;
    UsingDefaultPathnameOfConfigFile = true;
    logFileMap.clear();
    ResetLogFileNamesForTesting();
    SetAgentAccess(AgentAccess());
    MaxLogFiles = KES_DEFAULT_MAX_LOG_FILES;
    path_ = dir_.PathOf("Kestrin.conf");
    PathnameOfConfigFile = path_;
  }
  void TearDown() override {
    logFileMap.clear();
    mySegment = nullptr;
    OwnLogTest::TearDown();
  }

  // Writes `content` as Kestrin.conf, reads it and returns what was logged.
  Lines Read(const std::string& content) {
    dir_.Write("Kestrin.conf", content);
    OwnLogCapture log;
    read_private_config_file();
    return ReportLines(log);
  }

  // The file of that name in the table; fails the test when absent.
  LogFile& File(const std::string& name) {
    auto found = logFileMap.find(name);
    if (found == logFileMap.end() || found->second.IsNil()) {
      ADD_FAILURE() << "no log file " << name;
      static LogFile none("none.log");
      return none;
    }
    return *found->second;
  }

  TestTempDir dir_;
  std::string path_;
};

// ---- The role ------------------------------------------------------------------

TEST_F(Configuration, RoleWithSpacesAroundTheEqualsSignEndsTheProcessAtStartUp) {
  dir_.Write("Kestrin.conf", "[config]\nRole = Master\n");
  OwnLogCapture log;
  // The child is a new process: it becomes the main thread of its own.
  EXPECT_EXIT(
      {
        osGetTaskId(&MainThreadsTaskId);
        read_private_config_file();
      },
      ::testing::ExitedWithCode(1), "");
  EXPECT_EQ(Lines{"ERROR|-1|Invalid Role specified in Kestrin.conf; unable to determine which "
                  "role to play and therefore exiting."},
            ReportLines(log));
}

TEST_F(Configuration, UnknownRoleWordEndsTheProcessAtStartUp) {
  dir_.Write("Kestrin.conf", "[config]\nRole=master\n");
  EXPECT_EXIT(read_private_config_file(), ::testing::ExitedWithCode(1), "");
}

TEST_F(Configuration, RoleWithoutSpacesIsAccepted) {
  Lines lines = Read("[config]\nRole=Master\n");
  EXPECT_EQ(ROLE_MASTER, KestrinsRoleType);
  EXPECT_EQ(Lines{"DEBUG|-1|Role of \"Master\" read from configuration"},
            Containing(lines, "Role"));
}

TEST_F(Configuration, EachRoleWordSetsItsRole) {
  Read("[config]\nRole=Agent\n");
  EXPECT_EQ(ROLE_AGENT, KestrinsRoleType);
  MarkNextConfigurationReadAsFirstForTesting();
  Read("[config]\nRole=Solo\n");
  EXPECT_EQ(ROLE_SOLO, KestrinsRoleType);
}

TEST_F(Configuration, EmptyOrAbsentRoleMeansNoRole) {
  KestrinsRoleType = ROLE_SOLO;
  Lines lines = Read("[config]\nRole=\n");
  EXPECT_EQ(ROLE_DEFAULT, KestrinsRoleType);
  EXPECT_EQ(Lines{"DEBUG|-1|Role of \"Default\" read from configuration"},
            Containing(lines, "Role"));
  MarkNextConfigurationReadAsFirstForTesting();
  KestrinsRoleType = ROLE_SOLO;
  Read(QUIET_CONFIG);
  EXPECT_EQ(ROLE_DEFAULT, KestrinsRoleType);
}

TEST_F(Configuration, ChangedRoleOnReReadWarnsAndKeepsTheActiveRole) {
  Read("[config]\nRole=Solo\n");
  Lines lines = Read("[config]\nRole=Master\n");
  EXPECT_EQ(ROLE_SOLO, KestrinsRoleType);
  EXPECT_EQ(Lines{"WARN|-1|Role of Master read from configuration does  not match the active "
                  "role of Solo; must restart Kestrin to change roles; ignoring the new role."},
            Containing(lines, "Role"));
}

TEST_F(Configuration, InvalidRoleOnReReadWarnsAndIsIgnored) {
  Read("[config]\nRole=Agent\n");
  Lines lines = Read("[config]\nRole = Agent\n");
  EXPECT_EQ(ROLE_AGENT, KestrinsRoleType);
  EXPECT_EQ(Lines{"WARN|-1|Invalid Role of  Agent specified in Kestrin.conf; ignoring."},
            Containing(lines, "Role"));
}

TEST_F(Configuration, SameOrEmptyRoleOnReReadSaysNothing) {
  Read("[config]\nRole=Solo\n");
  EXPECT_TRUE(Containing(Read("[config]\nRole=Solo\n"), "Role").empty());
  EXPECT_TRUE(Containing(Read("[config]\nRole=\n"), "Role").empty());
  EXPECT_EQ(ROLE_SOLO, KestrinsRoleType);
}

TEST_F(Configuration, RoleNamedOnReReadDiffersFromTheAutomaticRole) {
  Read(QUIET_CONFIG);  // no role: automatic, printed "Default"
  Lines lines = Read("[config]\nRole=Solo\n");
  EXPECT_EQ(ROLE_DEFAULT, KestrinsRoleType);
  EXPECT_EQ(Lines{"WARN|-1|Role of Solo read from configuration does  not match the active role "
                  "of Default; must restart Kestrin to change roles; ignoring the new role."},
            Containing(lines, "Role"));
}

// ---- Pacing ------------------------------------------------------------------------

TEST_F(Configuration, MessagesBeforeSleepAbove1000Gives1000WithAWarning) {
  Lines lines = Read("[config]\nMessagesBeforeSleep=5000\nSleepTime=10\n");
  EXPECT_EQ(1000, MESSAGES_BEFORE_SLEEP);
  EXPECT_EQ((Lines{"DEBUG|-1|Number of log requests to process before sleeping = 5000",
                   "WARN|-1|MESSAGES_BEFORE_SLEEP deemed to be unreasonable. Resetting to 1000"}),
            ContainingAny(lines, PACING_MESSAGES));
}

TEST_F(Configuration, MessagesBeforeSleepZeroOrNegativeGives80WithAWarning) {
  MESSAGES_BEFORE_SLEEP = 500;
  Lines lines = Read("[config]\nMessagesBeforeSleep=0\nSleepTime=10\n");
  EXPECT_EQ(80, MESSAGES_BEFORE_SLEEP);
  EXPECT_EQ((Lines{"DEBUG|-1|Number of log requests to process before sleeping = 0",
                   "WARN|-1|MESSAGES_BEFORE_SLEEP deemed to be unreasonable. Resetting to 80"}),
            ContainingAny(lines, PACING_MESSAGES));
  MESSAGES_BEFORE_SLEEP = 500;
  lines = Read("[config]\nMessagesBeforeSleep=-3\nSleepTime=10\n");
  EXPECT_EQ(80, MESSAGES_BEFORE_SLEEP);
  EXPECT_EQ((Lines{"DEBUG|-1|Number of log requests to process before sleeping = -3",
                   "WARN|-1|MESSAGES_BEFORE_SLEEP deemed to be unreasonable. Resetting to 80"}),
            ContainingAny(lines, PACING_MESSAGES));
}

TEST_F(Configuration, MessagesBeforeSleepWithinRangeIsTaken) {
  Lines lines = Read("[config]\nMessagesBeforeSleep=1000\nSleepTime=1\n");
  EXPECT_EQ(1000, MESSAGES_BEFORE_SLEEP);
  EXPECT_EQ(1, SLEEP_TIME);
  EXPECT_EQ((Lines{"DEBUG|-1|Number of log requests to process before sleeping = 1000",
                   "DEBUG|-1|Sleep time between batches of log requests = 1 milliseconds"}),
            ContainingAny(lines, {"before sleeping", "Sleep time"}));
}

TEST_F(Configuration, SleepTime501Gives10WithAWarning) {
  Lines lines = Read("[config]\nMessagesBeforeSleep=80\nSleepTime=501\n");
  EXPECT_EQ(10, SLEEP_TIME);
  EXPECT_EQ((Lines{"DEBUG|-1|Sleep time between batches of log requests = 501 milliseconds",
                   "WARN|-1|SLEEP_TIME deemed to be unreasonable. Resetting to 10ms"}),
            ContainingAny(lines, {"SLEEP_TIME", "Sleep time"}));
}

TEST_F(Configuration, ConfigSectionWithoutPacingKeysGives80And10WithTwoWarnings) {
  MESSAGES_BEFORE_SLEEP = 7;
  SLEEP_TIME = 7;
  Lines lines = Read("[config]\nZipBackups=yes\n");
  EXPECT_EQ(80, MESSAGES_BEFORE_SLEEP);
  EXPECT_EQ(10, SLEEP_TIME);
  EXPECT_EQ((Lines{"DEBUG|-1|Role of \"Default\" read from configuration",
                   "DEBUG|-1|Number of log requests to process before sleeping = 0",
                   "WARN|-1|MESSAGES_BEFORE_SLEEP deemed to be unreasonable. Resetting to 80",
                   "DEBUG|-1|Sleep time between batches of log requests = 0 milliseconds",
                   "WARN|-1|SLEEP_TIME deemed to be unreasonable. Resetting to 10ms",
                   "DEBUG|-1|ZipBackups of true read from config section of configuration file"}),
            lines);
}

TEST_F(Configuration, FileWithoutConfigSectionKeepsPacingAndWarnsOnlyOfTheSection) {
  MESSAGES_BEFORE_SLEEP = 500;
  SLEEP_TIME = 50;
  Lines lines = Read("; nothing but a comment\n");
  EXPECT_EQ(500, MESSAGES_BEFORE_SLEEP);
  EXPECT_EQ(50, SLEEP_TIME);
  EXPECT_EQ(Lines{"WARN|-1|Didn't find 'config' section of " + path_}, lines);
}

TEST_F(Configuration, SecondConfigSectionIsProcessedAgainAndLaterValuesWin) {
  Read(
      "[config]\nMessagesBeforeSleep=200\nSleepTime=20\nBackupCount=7\n\n"
      "[config]\nMessagesBeforeSleep=300\nSleepTime=30\n");
  EXPECT_EQ(300, MESSAGES_BEFORE_SLEEP);
  EXPECT_EQ(30, SLEEP_TIME);
  // A value set only by the first section stays.
  EXPECT_EQ(7u, BackupCountSetting::GetDefault());
}

TEST_F(Configuration, SectionNamesAreCaseSensitive) {
  Lines lines = Read("[Config]\nMessagesBeforeSleep=5\n");
  EXPECT_EQ(80, MESSAGES_BEFORE_SLEEP);
  EXPECT_EQ(1u, logFileMap.count("Config"));
  EXPECT_EQ(Lines{"WARN|-1|Didn't find 'config' section of " + path_}, Containing(lines, "Didn't"));
}

// ---- File size -----------------------------------------------------------------------

TEST_F(Configuration, FileSizeBelowTheMinimumInAFileSectionGivesTheMinimum) {
  Lines lines = Read(std::string(QUIET_CONFIG) + "\n[app.log]\nFileSize=100\n");
  EXPECT_EQ(1024, File("app.log").maxFileSize.Get());
  EXPECT_FALSE(File("app.log").maxFileSize.IsUsingDefault());
  EXPECT_EQ(Lines{"WARN|-1|FileSize of 100 read from app.log section of configuration file is "
                  "less than the minimum of 1024; using the minimum."},
            Containing(lines, "FileSize"));
}

TEST_F(Configuration, FileSizeAboveTheMaximumInAFileSectionGivesTheMaximum) {
  Lines lines = Read(std::string(QUIET_CONFIG) + "\n[app.log]\nFileSize=20mb\n");
  EXPECT_EQ(15728640, File("app.log").maxFileSize.Get());
  EXPECT_EQ(Lines{"WARN|-1|FileSize of 20971520 read from app.log section of configuration file "
                  "is greater than the maximum of 15728640; using the maximum."},
            Containing(lines, "FileSize"));
}

TEST_F(Configuration, FileSizeOutOfRangeInConfigIsIgnoredAndTheBuiltInDefaultStays) {
  Lines lines = Read("[config]\nMessagesBeforeSleep=80\nSleepTime=10\nFileSize=100\n");
  EXPECT_EQ(1048576, MaxFileSizeSetting::GetDefault());
  EXPECT_EQ(Lines{"WARN|-1|FileSize of 100 read from config section of configuration file is "
                  "outside the valid range; using the default"},
            Containing(lines, "FileSize"));
  lines = Read("[config]\nMessagesBeforeSleep=80\nSleepTime=10\nFileSize=20mb\n");
  EXPECT_EQ(1048576, MaxFileSizeSetting::GetDefault());
  EXPECT_EQ(Lines{"WARN|-1|FileSize of 20971520 read from config section of configuration file "
                  "is outside the valid range; using the default"},
            Containing(lines, "FileSize"));
}

TEST_F(Configuration, FileSizeWithinRangeIsTakenAtBothBounds) {
  Lines lines = Read(
      "[config]\nMessagesBeforeSleep=80\nSleepTime=10\nFileSize=1024\n\n"
      "[app.log]\nFileSize=15mb\n");
  EXPECT_EQ(1024, MaxFileSizeSetting::GetDefault());
  EXPECT_EQ(15728640, File("app.log").maxFileSize.Get());
  EXPECT_EQ((Lines{"DEBUG|-1|FileSize of 1024 read from config section of configuration file",
                   "DEBUG|-1|FileSize of 15728640 read from app.log section of configuration "
                   "file"}),
            Containing(lines, "FileSize"));
}

TEST_F(Configuration, FileSizeJustOutsideTheBoundsIsClamped) {
  Read(std::string(QUIET_CONFIG) + "\n[a.log]\nFileSize=1023\n\n[b.log]\nFileSize=15728641\n");
  EXPECT_EQ(1024, File("a.log").maxFileSize.Get());
  EXPECT_EQ(15728640, File("b.log").maxFileSize.Get());
}

TEST_F(Configuration, FileSizeOfTwoGigabytesOrMoreCountsAsNegative) {
  // Sizes are compared as the cards' signed 32-bit long.
  Lines lines = Read(std::string(QUIET_CONFIG) + "\n[app.log]\nFileSize=3gb\n");
  EXPECT_EQ(1024, File("app.log").maxFileSize.Get());
  EXPECT_EQ(Lines{"WARN|-1|FileSize of -1073741824 read from app.log section of configuration "
                  "file is less than the minimum of 1024; using the minimum."},
            Containing(lines, "FileSize"));
}

TEST_F(Configuration, InvalidFileSizeMakesTheFileUseTheDefault) {
  Lines lines = Read(std::string(QUIET_CONFIG) + "\n[app.log]\nFileSize=10 k\n");
  EXPECT_TRUE(File("app.log").maxFileSize.IsUsingDefault());
  EXPECT_EQ(Lines{"WARN|-1|Invalid FileSize read from app.log section of configuration file; "
                  "using the default"},
            Containing(lines, "FileSize"));
}

// ---- Backup count ----------------------------------------------------------------------

TEST_F(Configuration, NegativeBackupCountInAFileSectionGives100) {
  Lines lines = Read(std::string(QUIET_CONFIG) + "\n[app.log]\nBackupCount=-1\n");
  EXPECT_EQ(100u, File("app.log").backupCount.Get());
  EXPECT_EQ(Lines{"WARN|-1|BackupCount of 4294967295 read from app.log section of configuration "
                  "file is greater than the maximum of 100; using the maximum."},
            Containing(lines, "BackupCount"));
}

TEST_F(Configuration, NegativeBackupCountInConfigIsIgnored) {
  Lines lines = Read("[config]\nMessagesBeforeSleep=80\nSleepTime=10\nBackupCount=-1\n");
  EXPECT_EQ(3u, BackupCountSetting::GetDefault());
  EXPECT_EQ(Lines{"WARN|-1|BackupCount of 4294967295 read from config section of configuration "
                  "file is outside the valid range; using the default"},
            Containing(lines, "BackupCount"));
}

TEST_F(Configuration, BackupCountWithinRangeIsTakenAtBothBounds) {
  Lines lines = Read(
      "[config]\nMessagesBeforeSleep=80\nSleepTime=10\nBackupCount=0\n\n"
      "[app.log]\nBackupCount=100\n\n[b.log]\nBackupCount=101\n");
  EXPECT_EQ(0u, BackupCountSetting::GetDefault());
  EXPECT_EQ(100u, File("app.log").backupCount.Get());
  EXPECT_EQ(100u, File("b.log").backupCount.Get());
  EXPECT_EQ((Lines{"DEBUG|-1|BackupCount of 0 read from config section of configuration file",
                   "DEBUG|-1|BackupCount of 100 read from app.log section of configuration file",
                   "WARN|-1|BackupCount of 101 read from b.log section of configuration file is "
                   "greater than the maximum of 100; using the maximum."}),
            Containing(lines, "BackupCount"));
}

TEST_F(Configuration, BlankBackupCountCountsAsAbsent) {
  Lines lines = Read(std::string(QUIET_CONFIG) + "\n[app.log]\nBackupCount=  \n");
  EXPECT_TRUE(File("app.log").backupCount.IsUsingDefault());
  EXPECT_TRUE(Containing(lines, "BackupCount").empty());
}

// ---- Booleans ---------------------------------------------------------------------------

TEST_F(Configuration, ZipBackupsWordsAndTheInvalidWord) {
  Lines lines = Read(
      "[config]\nMessagesBeforeSleep=80\nSleepTime=10\nZipBackups=No\n\n"
      "[a.log]\nZipBackups=Y\n\n[b.log]\nZipBackups=maybe\n");
  EXPECT_FALSE(ZipBackupsSetting::GetDefault());
  EXPECT_TRUE(File("a.log").zipBackups.Get());
  EXPECT_FALSE(File("a.log").zipBackups.IsUsingDefault());
  EXPECT_TRUE(File("b.log").zipBackups.IsUsingDefault());
  EXPECT_EQ(
      (Lines{"DEBUG|-1|ZipBackups of false read from config section of configuration file",
             "DEBUG|-1|ZipBackups of true read from a.log section of configuration file",
             "WARN|-1|Invalid ZipBackups read from b.log section of configuration file; using "
             "the default"}),
      Containing(lines, "ZipBackups"));
}

TEST_F(Configuration, InvalidZipBackupsInConfigKeepsTheDefault) {
  Read("[config]\nMessagesBeforeSleep=80\nSleepTime=10\nZipBackups=1\n");
  EXPECT_TRUE(ZipBackupsSetting::GetDefault());
}

TEST_F(Configuration, RollOnStartUpIsTrueOnlyWhenReadValidAndTrue) {
  Lines lines = Read(std::string(QUIET_CONFIG) +
                     "\n[a.log]\nRollOnStartUp=yes\n\n[b.log]\nRollOnStartUp=sometimes\n\n"
                     "[c.log]\nRollOnStartUp=false\n\n[d.log]\nFileSize=2kb\n");
  EXPECT_TRUE(File("a.log").ShouldRollOnStartUp());
  EXPECT_FALSE(File("b.log").ShouldRollOnStartUp());
  EXPECT_FALSE(File("c.log").ShouldRollOnStartUp());
  EXPECT_FALSE(File("d.log").ShouldRollOnStartUp());
  EXPECT_EQ(
      (Lines{"DEBUG|-1|RollOnStartUp of true read from a.log section of configuration file",
             "WARN|-1|Invalid RollOnStartUp read from b.log section of configuration file; "
             "using the default",
             "DEBUG|-1|RollOnStartUp of false read from c.log section of configuration file"}),
      Containing(lines, "RollOnStartUp"));
}

TEST_F(Configuration, RollOnStartUpIsNotReadFromConfig) {
  Lines lines = Read(std::string(QUIET_CONFIG) + "RollOnStartUp=true\n");
  EXPECT_TRUE(Containing(lines, "RollOnStartUp").empty());
}

TEST_F(Configuration, FilesAreRolledOverOnTheFirstReadOnly) {
  const std::string path = PrivateRootEnvironment::LogDirectory() + "roll.log";
  std::ofstream(path) << "before start-up\n";
  const std::string content =
      std::string(QUIET_CONFIG) + "\n[roll.log]\nRollOnStartUp=true\nZipBackups=false\n";
  Read(content);
  std::ifstream backup(path + ".1");
  std::stringstream saved;
  saved << backup.rdbuf();
  EXPECT_EQ("before start-up\n", saved.str());
  EXPECT_EQ(0u, std::filesystem::file_size(path));

  std::ofstream(path) << "after start-up\n";
  Read(content);  // a re-read rolls nothing
  EXPECT_FALSE(std::filesystem::exists(path + ".2"));
  EXPECT_EQ(std::string("after start-up\n").size(), std::filesystem::file_size(path));
}

// ---- Levels ---------------------------------------------------------------------------

TEST_F(Configuration, CriticalLevelIsReducedToMajorWithItsMessage) {
  Lines lines = Read(std::string(QUIET_CONFIG) + "\n[app.log]\nLogLevel=CRITICAL\n");
  EXPECT_EQ(DetailedSeverity::MAJOR_LEVEL, File("app.log").severityFilter.Get().GetLevel());
  EXPECT_EQ(Lines{"DEBUG|-1|LogLevel of critical (reduced to Major, the most severe allowed) read "
                  "from app.log section of configuration file"},
            Containing(lines, "LogLevel"));
}

TEST_F(Configuration, EveryLevelWordGivesItsLevelAndPrintedWord) {
  struct Case {
    const char* word;
    DetailedSeverity::SeverityLevel level;
    const char* printed;
  };
  const char* reduced = " (reduced to Major, the most severe allowed)";
  const Case cases[] = {
      {"debug", DetailedSeverity::DEBUG_LEVEL, "debug"},
      {"Info", DetailedSeverity::INFO_LEVEL, "info"},
      {"informational", DetailedSeverity::INFO_LEVEL, "info"},
      {"NOTICE", DetailedSeverity::NOTICE_LEVEL, "notice"},
      {"warn", DetailedSeverity::WARN_LEVEL, "warning"},
      {"Warning", DetailedSeverity::WARN_LEVEL, "warning"},
      {"minor", DetailedSeverity::MINOR_LEVEL, "minor"},
      {"major", DetailedSeverity::MAJOR_LEVEL, "major"},
      {"error", DetailedSeverity::MAJOR_LEVEL, "error"},
      {"crit", DetailedSeverity::MAJOR_LEVEL, "critical"},
      {"critical", DetailedSeverity::MAJOR_LEVEL, "critical"},
      {"alert", DetailedSeverity::MAJOR_LEVEL, "alert"},
      {"emerg", DetailedSeverity::MAJOR_LEVEL, "emergency"},
      {"Emergency", DetailedSeverity::MAJOR_LEVEL, "emergency"},
  };
  for (const Case& c : cases) {
    Lines lines = Read(std::string(QUIET_CONFIG) + "\n[app.log]\nLogLevel = " + c.word + " \n");
    EXPECT_EQ(c.level, File("app.log").severityFilter.Get().GetLevel()) << c.word;
    const bool isReduced =
        c.level == DetailedSeverity::MAJOR_LEVEL && std::string(c.printed) != "major";
    EXPECT_EQ(Lines{std::string("DEBUG|-1|LogLevel of ") + c.printed + (isReduced ? reduced : "") +
                    " read from app.log section of configuration file"},
              Containing(lines, "LogLevel"))
        << c.word;
  }
}

TEST_F(Configuration, UnknownLevelWordMakesTheFileUseTheDefault) {
  Lines lines = Read(
      "[config]\nMessagesBeforeSleep=80\nSleepTime=10\nLogLevel=Loud\n\n"
      "[app.log]\nLogLevel=Verbose\n");
  EXPECT_TRUE(File("app.log").severityFilter.IsUsingDefault());
  EXPECT_EQ(DetailedSeverity::DEBUG_LEVEL, LogFile::SeverityFilter::GetDefault().GetLevel());
  EXPECT_EQ((Lines{"WARN|-1|Invalid LogLevel (loud) read from config section of configuration "
                   "file; using default",
                   "WARN|-1|Invalid LogLevel (verbose) read from app.log section of "
                   "configuration file; using default"}),
            Containing(lines, "LogLevel"));
}

// ---- Files and defaults ------------------------------------------------------------------

TEST_F(Configuration, ConfigSectionSetsTheDefaultsOfAllFiles) {
  Read(
      "[config]\nMessagesBeforeSleep=80\nSleepTime=10\nFileSize=2mb\nBackupCount=5\n"
      "ZipBackups=no\nLogLevel=warning\n\n[app.log]\nRollOnStartUp=no\n");
  EXPECT_EQ(2097152, MaxFileSizeSetting::GetDefault());
  EXPECT_EQ(5u, BackupCountSetting::GetDefault());
  EXPECT_FALSE(ZipBackupsSetting::GetDefault());
  EXPECT_EQ(DetailedSeverity::WARN_LEVEL, LogFile::SeverityFilter::GetDefault().GetLevel());
  LogFile& file = File("app.log");
  EXPECT_TRUE(file.maxFileSize.IsUsingDefault());
  EXPECT_EQ(2097152, file.maxFileSize.Get());
  EXPECT_EQ(5u, file.backupCount.Get());
  EXPECT_FALSE(file.zipBackups.Get());
  EXPECT_EQ(DetailedSeverity::WARN_LEVEL, file.severityFilter.Get().GetLevel());
}

TEST_F(Configuration, BuiltInDefaultsAreReEstablishedOnEveryRead) {
  Read(
      "[config]\nMessagesBeforeSleep=80\nSleepTime=10\nFileSize=2mb\nBackupCount=5\n"
      "ZipBackups=no\nLogLevel=warning\n");
  Read(QUIET_CONFIG);
  EXPECT_EQ(1048576, MaxFileSizeSetting::GetDefault());
  EXPECT_EQ(3u, BackupCountSetting::GetDefault());
  EXPECT_TRUE(ZipBackupsSetting::GetDefault());
  EXPECT_EQ(DetailedSeverity::DEBUG_LEVEL, LogFile::SeverityFilter::GetDefault().GetLevel());
}

TEST_F(Configuration, FileSectionIntroducesAFileUnderItsNormalizedName) {
  Read(std::string(QUIET_CONFIG) + "\n[//new/file.log]\nBackupCount=9\n");
  ASSERT_EQ(1u, logFileMap.count("new/file.log"));
  EXPECT_EQ(9u, File("new/file.log").backupCount.Get());
  EXPECT_EQ(PrivateRootEnvironment::LogDirectory() + "new/file.log",
            File("new/file.log").GetPathName());
}

TEST_F(Configuration, FileSectionAppliesToAKnownFile) {
  LogFilePtr known(new LogFile("known.log"));
  logFileMap["known.log"] = known;
  Read(std::string(QUIET_CONFIG) + "\n[known.log]\nBackupCount=9\n");
  EXPECT_EQ(1u, logFileMap.size());
  EXPECT_EQ(9u, known->backupCount.Get());
}

TEST_F(Configuration, EmptySectionNameIsSkipped) {
  Read(std::string(QUIET_CONFIG) + "\n[]\nBackupCount=9\n");
  EXPECT_TRUE(logFileMap.empty());
}

TEST_F(Configuration, KeyAfterABlankLineIsIgnoredSoTheFileUsesTheDefault) {
  Lines lines = Read(std::string(QUIET_CONFIG) + "\n[app.log]\n\nFileSize=2048\nBackupCount=9\n");
  EXPECT_TRUE(File("app.log").maxFileSize.IsUsingDefault());
  EXPECT_TRUE(File("app.log").backupCount.IsUsingDefault());
  EXPECT_TRUE(Containing(lines, "app.log").empty());
}

TEST_F(Configuration, RemovingAFileSectionReturnsTheFileToTheDefaultsButKeepsItsRollFlag) {
  Read(std::string(QUIET_CONFIG) +
       "\n[app.log]\nFileSize=2kb\nBackupCount=9\nZipBackups=no\nLogLevel=minor\n"
       "RollOnStartUp=yes\n");
  LogFile& file = File("app.log");
  ASSERT_FALSE(file.maxFileSize.IsUsingDefault());
  Read(QUIET_CONFIG);
  EXPECT_TRUE(file.maxFileSize.IsUsingDefault());
  EXPECT_TRUE(file.backupCount.IsUsingDefault());
  EXPECT_TRUE(file.zipBackups.IsUsingDefault());
  EXPECT_TRUE(file.severityFilter.IsUsingDefault());
  EXPECT_EQ(1048576, file.maxFileSize.Get());
  EXPECT_TRUE(file.ShouldRollOnStartUp());
  EXPECT_EQ(1u, logFileMap.count("app.log"));  // once known, a file stays known
}

TEST_F(Configuration, SetAllFilesToUseDefaultsLeavesTheRollFlag) {
  LogFilePtr file(new LogFile("x.log"));
  logFileMap["x.log"] = file;
  file->maxFileSize.Set(2048);
  file->backupCount.Set(1);
  file->zipBackups.Set(false);
  file->severityFilter.Set(DetailedSeverity::MINOR_LEVEL);
  file->SetRollOnStartUp(true);
  SetAllFilesToUseDefaults();
  EXPECT_TRUE(file->maxFileSize.IsUsingDefault());
  EXPECT_TRUE(file->backupCount.IsUsingDefault());
  EXPECT_TRUE(file->zipBackups.IsUsingDefault());
  EXPECT_TRUE(file->severityFilter.IsUsingDefault());
  EXPECT_TRUE(file->ShouldRollOnStartUp());
}

TEST_F(Configuration, LevelFiltersArePublishedToSharedMemory) {
  tKesFilterSegment segment{};
  mySegment = &segment;
  LogFilePtr file(new LogFile("pub.log"));
  logFileMap["pub.log"] = file;
  logFileArray[5] = file;
  Read(
      "[config]\nMessagesBeforeSleep=80\nSleepTime=10\nLogLevel=info\n\n"
      "[pub.log]\nLogLevel=warning\n");
  EXPECT_EQ(2u, segment.filter[5]);  // warnings and errors
  EXPECT_EQ(4u, segment.filter[6]);  // no file: the default level, info
  logFileArray[5].Reset();
}

// ---- A missing file --------------------------------------------------------------------

TEST_F(Configuration, MissingFileAtTheDefaultPathIsLoggedWithoutAnAlarm) {
  Read(
      "[config]\nMessagesBeforeSleep=80\nSleepTime=10\nBackupCount=7\n\n"
      "[app.log]\nBackupCount=9\n");
  tKesFilterSegment segment{};
  mySegment = &segment;
  PathnameOfConfigFile = dir_.PathOf("absent.conf");
  OwnLogCapture log;
  read_private_config_file();
  EXPECT_EQ(Lines{"ERROR|-1|Unable to open config file " + dir_.PathOf("absent.conf") +
                  " (DataFile::DataFile failed to open file " + dir_.PathOf("absent.conf") +
                  ".); using default configuration"},
            ReportLines(log));
  EXPECT_TRUE(FakeClientLibrary::Events().empty());
  // Files follow the defaults, which keep their previous values; the
  // filters are not published.
  EXPECT_TRUE(File("app.log").backupCount.IsUsingDefault());
  EXPECT_EQ(7u, BackupCountSetting::GetDefault());
  EXPECT_EQ(0u, segment.filter[0]);
}

TEST_F(Configuration, MissingFileNamedOnTheCommandLineRaisesAlarm7002) {
  UsingDefaultPathnameOfConfigFile = false;
  PathnameOfConfigFile = dir_.PathOf("absent.conf");
  OwnLogCapture log;
  read_private_config_file();
  EXPECT_EQ(1u, Containing(ReportLines(log), "Unable to open config file").size());
  EXPECT_EQ(Lines{FakeClientLibrary::Event(1, 1, 7002, 1, "")}, FakeClientLibrary::Events());
}

TEST_F(Configuration, MissingFileAtStartUpRollsNothingAndLaterReadsAreNotFirst) {
  const std::string path = PrivateRootEnvironment::LogDirectory() + "late.log";
  std::ofstream(path) << "content\n";
  PathnameOfConfigFile = dir_.PathOf("absent.conf");
  read_private_config_file();
  PathnameOfConfigFile = path_;
  dir_.Write("Kestrin.conf", std::string(QUIET_CONFIG) +
                                 "\n[late.log]\nRollOnStartUp=yes\nZipBackups=no\n\n"
                                 "[config]\nRole = Agent\n");
  OwnLogCapture log;
  read_private_config_file();  // not the start-up read: no roll, no exit
  EXPECT_FALSE(std::filesystem::exists(path + ".1"));
  EXPECT_EQ(Lines{"WARN|-1|Invalid Role of  Agent specified in Kestrin.conf; ignoring."},
            Containing(ReportLines(log), "Role"));
}

// ---- Reporting ----------------------------------------------------------------------------

TEST_F(Configuration, MessagesAreNotComposedForAnOwnLogThatRefusesThem) {
  static Lines syslog;
  syslog.clear();
  tOsaOverrides overrides{};
  overrides.syslog = [](int priority, const char* text) {
    syslog.push_back(text);
    return 0;
  };
  osSetOverrides(&overrides);
  logger->severityFilter.Set(DetailedSeverity::INFO_LEVEL);  // no debug
  Lines lines =
      Read("[config]\nMessagesBeforeSleep=5000\nSleepTime=10\n\n[app.log]\nFileSize=2kb\n");
  osSetOverrides(nullptr);
  EXPECT_EQ(Lines{"WARN|-1|MESSAGES_BEFORE_SLEEP deemed to be unreasonable. Resetting to 1000"},
            lines);
  EXPECT_TRUE(syslog.empty());
}

TEST_F(Configuration, ReloadReadsTheConfigurationThenTheTaxonomy) {
  dir_.Write("Kestrin.conf", "[config]\nRole=Solo\nMessagesBeforeSleep=90\nSleepTime=10\n");
  read_private_config_file();
  dir_.Write("Kestrin.conf", "[config]\nRole=Solo\nMessagesBeforeSleep=95\nSleepTime=10\n");
  PathnameOfTaxonomyFile = dir_.Write("KestrinTaxonomy", "[a]\neID = 12\nnewID = 13\n");
  AlarmMap.clear();
  ::testing::internal::CaptureStdout();
  reload_configuration();
  EXPECT_EQ("Configuration complete\n", ::testing::internal::GetCapturedStdout());
  EXPECT_EQ(95, MESSAGES_BEFORE_SLEEP);
  EXPECT_EQ(13, AlarmMap[12].newID);
  AlarmMap.clear();
}

// ---- The sample files of the repository ------------------------------------------------

std::string SampleFile(const char* name) {
  return std::string(KESTRIN_SOURCE_DIR) + "/etc/" + name;
}

TEST_F(Configuration, SampleConfigurationReadsWithoutWarnings) {
  PathnameOfConfigFile = SampleFile("Kestrin.conf");
  OwnLogCapture log;
  read_private_config_file();
  Lines lines = ReportLines(log);
  EXPECT_TRUE(Containing(lines, "WARN|").empty()) << ::testing::PrintToString(lines);
  EXPECT_TRUE(Containing(lines, "ERROR|").empty()) << ::testing::PrintToString(lines);
  EXPECT_EQ(ROLE_SOLO, KestrinsRoleType);
  EXPECT_FALSE(logFileMap.empty());
}

TEST_F(Configuration, SampleTaxonomyLoadsAndMapsItsExampleAlarm) {
  PathnameOfTaxonomyFile = SampleFile("KestrinTaxonomy");
  AlarmMap.clear();
  OwnLogCapture log;
  ::testing::internal::CaptureStdout();
  load_configuration_file();
  ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(Lines{"DEBUG|-1|Done reading config file."}, ReportLines(log));
  ASSERT_EQ(1u, AlarmMap.count(1001));
  const EventMap& entry = AlarmMap[1001];
  EXPECT_TRUE(entry.alarm);
  EXPECT_FALSE(entry.LED2.empty());
  LED_Colour colour;
  LED_States state;
  EXPECT_TRUE(LED_Controller::mapStateString(entry.LED2.c_str(), &colour, &state));
  // The daemon's own alarm for lines it cannot write, and its clear.
  ASSERT_EQ(1u, AlarmMap.count(7050));
  EXPECT_TRUE(AlarmMap[7050].alarm);
  EXPECT_TRUE(AlarmMap[7050].trap);
  EXPECT_TRUE(LED_Controller::mapStateString(AlarmMap[7050].LED2.c_str(), &colour, &state));
  ASSERT_EQ(1u, AlarmMap.count(7051));
  EXPECT_FALSE(AlarmMap[7051].alarm);
  AlarmMap.clear();
}

// ---- Limits and the Master's peers ---------------------------------------------

TEST_F(Configuration, MaxLogFilesIsReadInItsRangeAndFallsBackToTheDefault) {
  EXPECT_EQ(512, MaxLogFiles);
  EXPECT_EQ(Lines{"DEBUG|-1|MaxLogFiles of 600 read from config section of configuration file"},
            Containing(Read(std::string(QUIET_CONFIG) + "MaxLogFiles = 600\n"), "MaxLogFiles"));
  EXPECT_EQ(600, MaxLogFiles);
  EXPECT_EQ(Lines{"WARN|-1|MaxLogFiles of 15 read from config section of configuration file is "
                  "not a number from 16 to 65536; using the default of 512"},
            Containing(Read(std::string(QUIET_CONFIG) + "MaxLogFiles = 15\n"), "MaxLogFiles"));
  EXPECT_EQ(512, MaxLogFiles);
  Read(std::string(QUIET_CONFIG) + "MaxLogFiles = 65536\n");
  EXPECT_EQ(65536, MaxLogFiles);
  EXPECT_EQ(1u, Containing(Read(std::string(QUIET_CONFIG) + "MaxLogFiles = 1e3\n"),
                           "is not a number from 16 to 65536")
                    .size());
  EXPECT_EQ(512, MaxLogFiles);
  EXPECT_TRUE(Containing(Read(QUIET_CONFIG), "MaxLogFiles").empty());
  EXPECT_EQ(512, MaxLogFiles) << "a read without the key takes the default again";
}

TEST_F(Configuration, AMasterIsOpenToEveryoneUntilConfiguredOtherwise) {
  Read(QUIET_CONFIG);
  const AgentAccess access = GetAgentAccess();
  EXPECT_FALSE(access.listenAddressSet);
  EXPECT_FALSE(access.restricted);
  EXPECT_EQ(0u, access.maxAgents);
  EXPECT_EQ(0u, access.idleTimeoutSeconds);
}

TEST_F(Configuration, AgentAccessKeysAreReadAndReported) {
  const Lines lines = Read(std::string(QUIET_CONFIG) +
                           "ListenAddress = 10.0.0.1\nAllowedAgents = 10.1.0.0/16, 10.2.3.4\n"
                           "MaxAgents = 12\nAgentIdleTimeout = 300\n");
  EXPECT_EQ((Lines{"DEBUG|-1|ListenAddress of 10.0.0.1 read from config section of configuration "
                   "file",
                   "DEBUG|-1|AllowedAgents of 10.1.0.0/16, 10.2.3.4 read from config section of "
                   "configuration file",
                   "DEBUG|-1|MaxAgents of 12 read from config section of configuration file",
                   "DEBUG|-1|AgentIdleTimeout of 300 read from config section of configuration "
                   "file"}),
            ContainingAny(lines, {"ListenAddress", "AllowedAgents", "MaxAgents", "AgentIdle"}));
  const AgentAccess access = GetAgentAccess();
  EXPECT_TRUE(access.listenAddressSet);
  EXPECT_EQ(0x0a000001u, access.listenAddress);
  EXPECT_TRUE(access.restricted);
  ASSERT_EQ(2u, access.allowed.size());
  EXPECT_TRUE(access.Allows(0x0a01ffffu));
  EXPECT_TRUE(access.Allows(0x0a020304u));
  EXPECT_FALSE(access.Allows(0x0a020305u));
  EXPECT_EQ(12u, access.maxAgents);
  EXPECT_EQ(300u, access.idleTimeoutSeconds);
}

TEST_F(Configuration, BadAgentAccessValuesAreReportedAndNeverOpenTheMasterWider) {
  const Lines lines = Read(std::string(QUIET_CONFIG) +
                           "ListenAddress = 10.0.0.300\nAllowedAgents = 10.0.0.0/40\n"
                           "MaxAgents = 0\nAgentIdleTimeout = forever\n");
  EXPECT_EQ((Lines{"WARN|-1|Invalid ListenAddress (10.0.0.300) read from config section of "
                   "configuration file; listening on the Master's address",
                   "WARN|-1|Invalid entry (10.0.0.0/40) in AllowedAgents read from config section "
                   "of configuration file; ignoring it",
                   "DEBUG|-1|AllowedAgents of 10.0.0.0/40 read from config section of "
                   "configuration file",
                   "WARN|-1|MaxAgents of 0 read from config section of configuration file is not a "
                   "number from 1 to 65535; using no limit",
                   "WARN|-1|AgentIdleTimeout of forever read from config section of configuration "
                   "file is not a number from 1 to 86400; using no time-out"}),
            ContainingAny(lines, {"ListenAddress", "AllowedAgents", "MaxAgents", "AgentIdle"}));
  const AgentAccess access = GetAgentAccess();
  EXPECT_FALSE(access.listenAddressSet);
  EXPECT_TRUE(access.restricted);
  EXPECT_FALSE(access.Allows(0x0a000001u)) << "a list of nothing valid lets nobody in";
  EXPECT_EQ(0u, access.maxAgents);
  EXPECT_EQ(0u, access.idleTimeoutSeconds);
}

TEST_F(Configuration, AReReadKeepsTheListenAddressInUse) {
  Read(std::string(QUIET_CONFIG) + "ListenAddress = 10.0.0.1\nMaxAgents = 3\n");
  const Lines lines = Read(std::string(QUIET_CONFIG) + "ListenAddress = 10.0.0.2\nMaxAgents = 4\n");
  EXPECT_EQ(Lines{"WARN|-1|ListenAddress read from configuration differs from the one in use; must "
                  "restart Kestrin to change it; ignoring the new address."},
            Containing(lines, "differs from the one in use"));
  EXPECT_EQ(0x0a000001u, GetAgentAccess().listenAddress);
  EXPECT_EQ(4u, GetAgentAccess().maxAgents) << "the other settings apply at once";
}

TEST_F(Configuration, FileSectionsLeadingOutsideAreRefusedAndIgnored) {
  const Lines lines =
      Read(std::string(QUIET_CONFIG) + "[../x.log]\nFileSize = 2048\n[good.log]\nFileSize = 2048\n");
  EXPECT_EQ(Lines{"ERROR|7013|Refused log file name \"../x.log\": it leads outside the log "
                  "directory"},
            Containing(lines, "Refused"));
  EXPECT_EQ(0u, logFileMap.count("../x.log"));
  EXPECT_EQ(2048, File("good.log").maxFileSize.Get());
}

}  // namespace
}  // namespace kestrin
