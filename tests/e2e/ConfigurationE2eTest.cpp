// Kestrin.conf through the real daemon: per-file levels and sizes, the
// re-read on `hup` and SIGHUP, missing files and sections, the role rules
// and roll-over at start-up.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <string>
#include <vector>

#include "KestrinServer.h"
#include "osa/osa.h"
#include "qrt/QrtDiag.h"

namespace kestrin_e2e {
namespace {

using Texts = std::vector<std::string>;

constexpr char DUMP_END[] = "****************END of registration table dump****************";
constexpr char HUP_REQUEST[] = "run(): hup request received.";
constexpr char CONFIGURATION_COMPLETE[] = "Configuration complete\n";
constexpr char PACING[] =
    "MessagesBeforeSleep = 80\n"
    "SleepTime = 10\n";

// The system-log (and operational-log) line of a MakeAddLogRecord record of
// module "AppLog".
std::string SystemLine(const std::string& severity, int eventId, const std::string& message) {
  return "<" + severity + ">\t2023-11-14T22:13:20.000042\t" + ThisHostName() +
         "\tAppLog\t[99]:\teventID=" + std::to_string(eventId) + "; message=" + message;
}

// The private-file line of a MakeAddLogRecord record of module "AppLog".
std::string PrivateLine(const std::string& severityWord, int eventId, const std::string& message) {
  return "2023-11-14T22:13:20.000 [" + severityWord + "] {AppLog} (" + std::to_string(eventId) +
         ") - " + message;
}

// The lines of `name` written for module "AppLog".
Texts AppLines(const KestrinServer& server, const std::string& name) {
  Texts found;
  for (const std::string& line : server.LogLines(name)) {
    if (line.find("\tAppLog\t") != std::string::npos) found.push_back(line);
  }
  return found;
}

bool WaitForOwnLogCount(const KestrinServer& server, const std::string& text, int count) {
  return WaitUntil([&]() { return Count(server.OwnLogTexts(), text) >= count; });
}

// Asks for a registration-table dump and waits until the `count`-th dump
// has ended: every request sent before it has then been handled.
void DumpAndWait(KestrinServer& server, int count) {
  server.SendHeader(15);
  ASSERT_TRUE(WaitForOwnLogCount(server, DUMP_END, count));
}

void StartReady(KestrinServer& server, const std::vector<std::string>& arguments = {}) {
  server.Start(arguments);
  ASSERT_TRUE(server.WaitForReady()) << server.Stdout();
}

void StopAndExpectExitZero(KestrinServer& server) {
  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
}

// Runs `kestrin hup` and waits until the daemon has read both files again
// for the `reads`-th time (the start-up read counts as the first).
void HupAndWait(KestrinServer& server, int reads) {
  Finished hup = server.Run({"hup"});
  ASSERT_EQ(0, hup.status) << hup.out;
  ASSERT_TRUE(server.WaitForOutput(CONFIGURATION_COMPLETE, 10000, reads)) << server.Stdout();
  ASSERT_TRUE(WaitForOwnLogCount(server, HUP_REQUEST, reads - 1));
}

int RegisterApp() {
  int handle = -1;
  EXPECT_EQ(QRT_OK, QrtDiagRegisterModule("App", "AppLog", 0, "app.log", &handle));
  return handle;
}

std::string DumpLineOfApp(int handle, int filter) {
  return "Slot " + std::to_string(handle) +
         ": module: App (AppLog), file: app.log, Filter: " + std::to_string(filter);
}

// ---- levels -----------------------------------------------------------------

TEST(E2eConfiguration, EachFileWritesOnlyTheLevelsItsSectionAdmits) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\n") + PACING +
                                              "LogLevel = debug\n"
                                              "\n"
                                              "[system.log]\n"
                                              "LogLevel = warn\n"
                                              "\n"
                                              "[/app.log]\n"
                                              "LogLevel = ERROR\n");
  StartReady(server);
  const int handle = RegisterApp();
  const struct {
    uint32_t severity;
    const char* text;
  } sent[] = {
      {8, "a debug line"}, {4, "an info line"}, {2, "a warning line"}, {1, "an error line"}};
  for (const auto& each : sent) {
    SendAddLogRecord(server, MakeAddLogRecord(handle, 0x3, each.severity, 10, each.text));
  }
  DumpAndWait(server, 1);
  ASSERT_TRUE(server.WaitForLogLine("system.log", "an error line"));
  ASSERT_TRUE(server.WaitForLogLine("app.log", "an error line"));
  EXPECT_EQ(Texts({SystemLine("warning", 10, "a warning line"),
                   SystemLine("error", 10, "an error line")}),
            AppLines(server, "system.log"));
  EXPECT_EQ(Texts({PrivateLine("ERROR", 10, "an error line")}), server.LogLines("app.log"));
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "LogLevel of debug read from config section of configuration file"));
  EXPECT_EQ(1,
            Count(texts, "LogLevel of warning read from system.log section of configuration file"));
  EXPECT_EQ(1, Count(texts,
                     "LogLevel of error (reduced to Major, the most severe allowed) read from "
                     "/app.log section of configuration file"));
  // The private file's level, Major, is published to the client's filter
  // slot as 2: the client sends errors and warnings, the daemon keeps errors.
  EXPECT_EQ(1, Count(texts, DumpLineOfApp(handle, 2)));
  StopAndExpectExitZero(server);
}

// ---- sizes and backups --------------------------------------------------------

// Each private line below is exactly 128 bytes, so a 1024-byte file rolls
// over after every 8th line.
std::string Line128(int number) {
  std::string text = "line " + std::to_string(number) + " ";
  text.resize(128 - PrivateLine("INFO ", 7, "").size() - 1, 'x');
  return text;
}

std::string LinesOf(int first, int last) {
  std::string text;
  for (int n = first; n <= last; ++n) text += PrivateLine("INFO ", 7, Line128(n)) + "\n";
  return text;
}

TEST(E2eConfiguration, FileSizeAndBackupCountRollTheFileIntoNumberedBackups) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\n") + PACING +
                                              "\n"
                                              "[app.log]\n"
                                              "FileSize = 1kb\n"
                                              "BackupCount = 2\n"
                                              "ZipBackups = no\n");
  StartReady(server);
  const int handle = RegisterApp();
  ASSERT_EQ(128u, PrivateLine("INFO ", 7, Line128(1)).size() + 1);
  for (int n = 1; n <= 25; ++n) {
    SendAddLogRecord(server, MakeAddLogRecord(handle, 0x2, 4, 7, Line128(n)));
  }
  DumpAndWait(server, 1);
  ASSERT_TRUE(server.WaitForLogLine("app.log", "line 25 "));
  // Three roll-overs; the oldest eight lines fell off the end.
  EXPECT_EQ(LinesOf(25, 25), server.ReadFile("kv/log/app.log"));
  EXPECT_EQ(LinesOf(17, 24), server.ReadFile("kv/log/app.log.1"));
  EXPECT_EQ(LinesOf(9, 16), server.ReadFile("kv/log/app.log.2"));
  EXPECT_EQ("", server.ReadFile("kv/log/app.log.3"));
  const std::string path = server.Root() + "/kv/log/app.log";
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "FileSize of 1024 read from app.log section of configuration file"));
  EXPECT_EQ(1, Count(texts, "BackupCount of 2 read from app.log section of configuration file"));
  EXPECT_EQ(1, Count(texts, "ZipBackups of false read from app.log section of configuration file"));
  EXPECT_EQ(3, Count(texts, "RollingFile: File " + path + " has been rolled over"));
  EXPECT_EQ(1, Count(texts, "RollingFile: Deleted file " + path + ".2"));
  StopAndExpectExitZero(server);
}

// The backup is compressed in the background: app.log.1 becomes
// app.log.1.gz, whose content is the rolled-over lines.
TEST(E2eConfiguration, ZipBackupsCompressesTheBackupInTheBackground) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\n") + PACING +
                                              "\n"
                                              "[app.log]\n"
                                              "FileSize = 1024\n"
                                              "BackupCount = 1\n"
                                              "ZipBackups = yes\n");
  StartReady(server);
  const int handle = RegisterApp();
  for (int n = 1; n <= 9; ++n) {
    SendAddLogRecord(server, MakeAddLogRecord(handle, 0x2, 4, 7, Line128(n)));
  }
  DumpAndWait(server, 1);
  ASSERT_TRUE(server.WaitForLogLine("app.log", "line 9 "));
  const std::string zipped = server.Root() + "/kv/log/app.log.1.gz";
  ASSERT_TRUE(WaitUntil([&]() {
    return std::filesystem::exists(zipped) &&
           !std::filesystem::exists(server.Root() + "/kv/log/app.log.1");
  }));
  // The compressed file takes its place before the plain one is removed.
  const std::string bytes = server.ReadFile("kv/log/app.log.1.gz");
  ASSERT_GE(bytes.size(), 2u);
  EXPECT_EQ(std::string("\x1f\x8b"), bytes.substr(0, 2)) << "the gzip magic number";
  EXPECT_EQ(0, osRunShellCommand(("gzip -dc " + zipped + " > " + zipped + ".text").c_str()));
  EXPECT_EQ(LinesOf(1, 8), server.ReadFile("kv/log/app.log.1.gz.text"));
  EXPECT_EQ(LinesOf(9, 9), server.ReadFile("kv/log/app.log"));
  StopAndExpectExitZero(server);
}

TEST(E2eConfiguration, KeyAfterABlankLineIsIgnoredAndTheFileUsesTheDefault) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\n") + PACING +
                                              "\n"
                                              "[system.log]\n"
                                              "\n"
                                              "LogLevel = error\n");
  StartReady(server);
  const int handle = RegisterApp();
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x1, 8, 5, "debug passes the default"));
  DumpAndWait(server, 1);
  ASSERT_TRUE(server.WaitForLogLine("system.log", "debug passes the default"));
  EXPECT_EQ(Texts({SystemLine("debug", 5, "debug passes the default")}),
            AppLines(server, "system.log"));
  for (const std::string& text : server.OwnLogTexts()) {
    EXPECT_EQ(std::string::npos, text.find("read from system.log section")) << text;
  }
  StopAndExpectExitZero(server);
}

TEST(E2eConfiguration, OutOfRangeValuesAreClampedInFileSectionsAndIgnoredInConfig) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf",
                   "[config]\n"
                   "MessagesBeforeSleep = 5000\n"
                   "SleepTime = 501\n"
                   "FileSize = 20mb\n"
                   "BackupCount = -1\n"
                   "\n"
                   "[app.log]\n"
                   "FileSize = 100\n"
                   "BackupCount = -1\n"
                   "LogLevel = loud\n"
                   "ZipBackups = maybe\n");
  StartReady(server);
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "MESSAGES_BEFORE_SLEEP deemed to be unreasonable. Resetting to 1000"));
  EXPECT_EQ(1, Count(texts, "SLEEP_TIME deemed to be unreasonable. Resetting to 10ms"));
  EXPECT_EQ(1, Count(texts,
                     "FileSize of 20971520 read from config section of configuration file is "
                     "outside the valid range; using the default"));
  EXPECT_EQ(1, Count(texts,
                     "BackupCount of 4294967295 read from config section of configuration file "
                     "is outside the valid range; using the default"));
  EXPECT_EQ(1, Count(texts,
                     "FileSize of 100 read from app.log section of configuration file is less "
                     "than the minimum of 1024; using the minimum."));
  EXPECT_EQ(1, Count(texts,
                     "BackupCount of 4294967295 read from app.log section of configuration file "
                     "is greater than the maximum of 100; using the maximum."));
  EXPECT_EQ(1, Count(texts,
                     "Invalid LogLevel (loud) read from app.log section of configuration file; "
                     "using default"));
  EXPECT_EQ(1, Count(texts,
                     "Invalid ZipBackups read from app.log section of configuration file; using "
                     "the default"));
  StopAndExpectExitZero(server);
}

// ---- re-reading -----------------------------------------------------------------

std::string SystemLogAt(const std::string& level) {
  return std::string("[config]\n") + PACING + "\n[system.log]\nLogLevel = " + level + "\n";
}

TEST(E2eConfiguration, HupVerbRereadsAndTheChangedLevelTakesEffect) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", SystemLogAt("warn"));
  StartReady(server);
  const int handle = RegisterApp();
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x1, 4, 1, "before the re-read"));
  DumpAndWait(server, 1);
  server.WriteFile("kv/etc/Kestrin.conf", SystemLogAt("info"));
  HupAndWait(server, 2);
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x1, 4, 2, "after the re-read"));
  ASSERT_TRUE(server.WaitForLogLine("system.log", "after the re-read"));
  EXPECT_EQ(Texts({SystemLine("information", 2, "after the re-read")}),
            AppLines(server, "system.log"));
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1,
            Count(texts, "LogLevel of warning read from system.log section of configuration file"));
  EXPECT_EQ(1, Count(texts, "LogLevel of info read from system.log section of configuration file"));
  EXPECT_EQ(1, Count(texts, HUP_REQUEST));
  StopAndExpectExitZero(server);
}

TEST(E2eConfiguration, SighupRereadsAndTheChangedLevelTakesEffect) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", SystemLogAt("warn"));
  StartReady(server);
  const int handle = RegisterApp();
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x1, 4, 1, "before the signal"));
  DumpAndWait(server, 1);
  server.WriteFile("kv/etc/Kestrin.conf", SystemLogAt("info"));
  server.Signal(SIGHUP);
  ASSERT_TRUE(server.WaitForOutput(CONFIGURATION_COMPLETE, 10000, 2));
  ASSERT_TRUE(server.WaitForOwnLogText("HUP signal received; reloading configuration"));
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x1, 4, 2, "after the signal"));
  ASSERT_TRUE(server.WaitForLogLine("system.log", "after the signal"));
  EXPECT_EQ(Texts({SystemLine("information", 2, "after the signal")}),
            AppLines(server, "system.log"));
  EXPECT_EQ(1, Count(server.OwnLogTexts(),
                     "LogLevel of info read from system.log section of configuration file"));
  StopAndExpectExitZero(server);
}

// The loop waits in its blocking receive; SIGHUP interrupts it. The
// interrupted receive is not an error, and the configuration is read once.
TEST(E2eConfiguration, SighupWhileWaitingOnTheQueueRereadsOnceAndWritesNoErrorLine) {
  KestrinServer server;
  StartReady(server);
  DumpAndWait(server, 1);
  server.WriteFile("kv/etc/Kestrin.conf", "[config]\nMessagesBeforeSleep = 40\nSleepTime = 10\n");
  server.Signal(SIGHUP);
  ASSERT_TRUE(server.WaitForOutput(CONFIGURATION_COMPLETE, 10000, 2));
  ASSERT_TRUE(server.WaitForOwnLogText("Number of log requests to process before sleeping = 40"));
  DumpAndWait(server, 2);
  StopAndExpectExitZero(server);

  const std::string out = server.Stdout();
  size_t reads = 0;
  for (size_t at = out.find(CONFIGURATION_COMPLETE); at != std::string::npos;
       at = out.find(CONFIGURATION_COMPLETE, at + 1)) {
    ++reads;
  }
  EXPECT_EQ(2u, reads) << "one start-up read and exactly one re-read";
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "HUP signal received; reloading configuration"));
  EXPECT_EQ(2, Count(texts, "Done reading config file."));
  EXPECT_EQ(1, Count(texts, "Number of log requests to process before sleeping = 40"));
  // Nothing at warning or error level after the signal.
  const Texts lines = server.LogLines("Kestrin.log");
  bool afterSignal = false;
  for (const std::string& line : lines) {
    if (line.find("HUP signal received; reloading configuration") != std::string::npos) {
      afterSignal = true;
    }
    EXPECT_EQ(std::string::npos, line.find("msgrcv")) << line;
    if (afterSignal) {
      EXPECT_EQ(std::string::npos, line.find(" [ERROR] ")) << line;
      EXPECT_EQ(std::string::npos, line.find(" [WARN ] ")) << line;
    }
  }
}

TEST(E2eConfiguration, RemovingAFileSectionAndRereadingReturnsTheFileToTheDefaults) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\n") + PACING +
                                              "\n"
                                              "[app.log]\n"
                                              "LogLevel = error\n");
  StartReady(server);
  const int handle = RegisterApp();
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x2, 4, 1, "hidden by the section"));
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x2, 1, 2, "an error passes"));
  DumpAndWait(server, 1);
  EXPECT_EQ(1, Count(server.OwnLogTexts(), DumpLineOfApp(handle, 2)));
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\n") + PACING);
  HupAndWait(server, 2);
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x2, 4, 3, "shown by the default"));
  DumpAndWait(server, 2);
  ASSERT_TRUE(server.WaitForLogLine("app.log", "shown by the default"));
  EXPECT_EQ(Texts({PrivateLine("ERROR", 2, "an error passes"),
                   PrivateLine("INFO ", 3, "shown by the default")}),
            server.LogLines("app.log"));
  // The default level, debug, is published to the client's filter as 8.
  EXPECT_EQ(1, Count(server.OwnLogTexts(), DumpLineOfApp(handle, 8)));
  StopAndExpectExitZero(server);
}

// ---- missing file and section ---------------------------------------------------

// The taxonomy is missing as well: its alarm (7001) is issued after the one
// a missing configuration file would raise, so once the 7001 line is there
// a 7002 line would be too.
TEST(E2eConfiguration, MissingFileAtTheDefaultPathIsReportedWithoutAnAlarm) {
  KestrinServer server;
  std::filesystem::remove(server.Root() + "/kv/etc/Kestrin.conf");
  std::filesystem::remove(server.Root() + "/kv/etc/KestrinTaxonomy");
  StartReady(server);
  const std::string path = server.Root() + "/kv/etc/Kestrin.conf";
  EXPECT_TRUE(server.WaitForOwnLogText("Unable to open config file " + path +
                                       " (DataFile::DataFile failed to open file " + path +
                                       ".); using default configuration"));
  ASSERT_TRUE(server.WaitForLogLine("system.log", "eventID=7001;"));
  for (const std::string& line : server.LogLines("system.log")) {
    EXPECT_EQ(std::string::npos, line.find("eventID=7002;")) << line;
  }
  EXPECT_EQ(0, Count(server.OwnLogTexts(), "Didn't find 'config' section of " + path));
  StopAndExpectExitZero(server);
}

TEST(E2eConfiguration, MissingFileNamedOnTheCommandLineRaisesAlarm7002) {
  KestrinServer server;
  const std::string path = server.Root() + "/kv/etc/Missing.conf";
  StartReady(server, {"-c", path});
  EXPECT_TRUE(server.WaitForOwnLogText("Unable to open config file " + path +
                                       " (DataFile::DataFile failed to open file " + path +
                                       ".); using default configuration"));
  ASSERT_TRUE(server.WaitForLogLine("system.log", "eventID=7002;"));
  const std::string tail = "\t" + ThisHostName() + "\tKestrin\t[" + std::to_string(server.Pid()) +
                           "]:\teventID=7002; message=";
  int found = 0;
  for (const std::string& line : server.LogLines("system.log")) {
    if (line.find("eventID=7002;") == std::string::npos) continue;
    ++found;
    EXPECT_EQ(0u, line.find("<error>\t")) << line;
    ASSERT_GE(line.size(), tail.size());
    EXPECT_EQ(tail, line.substr(line.size() - tail.size())) << "an empty text: " << line;
  }
  EXPECT_EQ(1, found);
  StopAndExpectExitZero(server);
}

TEST(E2eConfiguration, FileWithoutAConfigSectionWarnsAndKeepsThePacing) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", "[system.log]\nLogLevel = notice\n");
  StartReady(server);
  const std::string path = server.Root() + "/kv/etc/Kestrin.conf";
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "Didn't find 'config' section of " + path));
  EXPECT_EQ(1,
            Count(texts, "LogLevel of notice read from system.log section of configuration file"));
  for (const std::string& text : texts) {
    EXPECT_EQ(std::string::npos, text.find("deemed to be unreasonable")) << text;
    EXPECT_EQ(std::string::npos, text.find("Number of log requests")) << text;
  }
  StopAndExpectExitZero(server);
}

// ---- the role ---------------------------------------------------------------------

TEST(E2eConfiguration, RoleWithBlanksAroundTheEqualsSignEndsStartUpWithStatusOne) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\nRole = Solo\n") + PACING);
  server.Start();
  EXPECT_EQ(1, server.WaitForExit());
  const std::string text =
      "Invalid Role specified in Kestrin.conf; unable to determine which role to play and "
      "therefore exiting.";
  EXPECT_NE(std::string::npos, server.Stdout().find(" ERROR " + text + "\n")) << server.Stdout();
  EXPECT_EQ(std::string::npos, server.Stdout().find(CONFIGURATION_COMPLETE));
  EXPECT_EQ(1, Count(server.OwnLogTexts(), text));
}

TEST(E2eConfiguration, ChangedOrInvalidRoleOnARereadOnlyWarns) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\nRole=Solo\n") + PACING);
  StartReady(server);
  EXPECT_TRUE(server.WaitForOwnLogText("Role of \"Solo\" read from configuration"));
  const std::string mismatch =
      "Role of Master read from configuration does  not match the active role of Solo; must "
      "restart Kestrin to change roles; ignoring the new role.";
  const std::string invalid = "Invalid Role of  Agent specified in Kestrin.conf; ignoring.";

  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\nRole=Master\n") + PACING);
  HupAndWait(server, 2);
  EXPECT_TRUE(server.WaitForOwnLogText(mismatch));
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\nRole = Agent\n") + PACING);
  HupAndWait(server, 3);
  EXPECT_TRUE(server.WaitForOwnLogText(invalid));
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\nRole=Solo\n") + PACING);
  HupAndWait(server, 4);
  DumpAndWait(server, 1);

  EXPECT_TRUE(server.Running());
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, mismatch));
  EXPECT_EQ(1, Count(texts, invalid));
  EXPECT_EQ(1, Count(texts, "Role of \"Solo\" read from configuration")) << "start-up only";
  StopAndExpectExitZero(server);
}

// ---- roll-over at start-up --------------------------------------------------------

TEST(E2eConfiguration, RollOnStartUpRollsTheFileOverOnlyOnTheFirstRead) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\n") + PACING +
                                              "\n"
                                              "[app.log]\n"
                                              "ZipBackups = false\n"
                                              "RollOnStartUp = true\n");
  server.WriteFile("kv/log/app.log", "from the last run\n");
  StartReady(server);
  EXPECT_EQ("from the last run\n", server.ReadFile("kv/log/app.log.1"));
  EXPECT_EQ("", server.ReadFile("kv/log/app.log"));
  const int handle = RegisterApp();
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x2, 4, 1, "before the re-read"));
  HupAndWait(server, 2);
  SendAddLogRecord(server, MakeAddLogRecord(handle, 0x2, 4, 2, "after the re-read"));
  DumpAndWait(server, 1);
  ASSERT_TRUE(server.WaitForLogLine("app.log", "after the re-read"));
  EXPECT_EQ(Texts({PrivateLine("INFO ", 1, "before the re-read"),
                   PrivateLine("INFO ", 2, "after the re-read")}),
            server.LogLines("app.log"));
  EXPECT_EQ("from the last run\n", server.ReadFile("kv/log/app.log.1"));
  EXPECT_EQ("", server.ReadFile("kv/log/app.log.2"));
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(2,
            Count(texts, "RollOnStartUp of true read from app.log section of configuration file"));
  EXPECT_EQ(1, Count(texts, "RollingFile: File " + server.Root() +
                                "/kv/log/app.log has been rolled over"));
  StopAndExpectExitZero(server);
}

}  // namespace
}  // namespace kestrin_e2e
