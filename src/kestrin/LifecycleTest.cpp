#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <sstream>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kestrin/DaemonTestSupport.h"
#include "kestrin/Globals.h"
#include "kestrin/Lifecycle.h"
#include "kestrin/RequestLoop.h"
#include "kestrin/Role.h"
#include "osa/osa.h"
#include "protocol/SharedLayout.h"

// The host name is wrapped so that a test can make it unreadable.
extern "C" {
int __real_osTCPGetHostName(char* buffer, size_t size);
}

namespace {
int s_hostNameResult = OSA_CALL_REAL;
}

extern "C" int __wrap_osTCPGetHostName(char* buffer, size_t size) {
  if (s_hostNameResult != OSA_CALL_REAL) return s_hostNameResult;
  return __real_osTCPGetHostName(buffer, size);
}

namespace kestrin {
namespace {

using Texts = std::vector<std::string>;

class RecordingRole : public SoloRole {
 public:
  void ShutDown(int reason, const char* text) override {
    fprintf(stderr, "ShutDown(%d, %s)\n", reason, text);
  }
  void ShutDownPending() override { ++shutDownPendingCalls; }
  int shutDownPendingCalls = 0;
};

int SyslogToStandardError(int priority, const char* text) {
  fprintf(stderr, "syslog(%d): %s\n", priority, text);
  return 0;
}

// The System V key of this root's key file with `projectId`.
int KeyOf(char projectId) {
  char keyFile[PATH_MAX];
  int key = 0;
  EXPECT_EQ(OS_OK, osMapPath(KES_FTOK_TARGET, keyFile, sizeof keyFile));
  EXPECT_EQ(OS_OK, osSysVKey(keyFile, projectId, &key));
  return key;
}

class Lifecycle : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    ::testing::FLAGS_gtest_death_test_style = "fast";
    overrides_ = tOsaOverrides{};
    overrides_.syslog = SyslogToStandardError;
    osSetOverrides(&overrides_);
    run_as_daemon = false;
    MastersPort = KES_DEFAULT_MASTERS_PORT;
    MastersHostname.clear();
    QueueKey = 'Q';
    ConfigDirectoryName = "/kv/etc/";
    PathnameOfConfigFile.clear();
    PathnameOfTaxonomyFile.clear();
    UsingDefaultPathnameOfConfigFile = true;
    NameOfKestrinsOwnLog = "Kestrin.log";
    LogAddLogMessages = false;
    LogNonAddLogMessages = false;
    hup_received = 0;
    graceful_quit = 0;
    abortive_quit = 0;
    termination_requested = 0;
    s_hostNameResult = OSA_CALL_REAL;
    RolePtr = nullptr;
    RemoveClientQueues();
  }

  void TearDown() override {
    RemoveClientQueues();
    RolePtr = nullptr;
    hup_received = 0;
    graceful_quit = 0;
    abortive_quit = 0;
    termination_requested = 0;
    DaemonTest::TearDown();
  }

  // The queues the tests may make, keyed with 'Q' and 'X'.
  static void RemoveClientQueues() {
    for (char projectId : {'Q', 'X'}) {
      int queueId = -1;
      if (osSysVQueueOpen(KeyOf(projectId), 0, &queueId) == OS_OK) osSysVQueueRemove(queueId);
    }
  }

  static int MakeQueue(char projectId) {
    int queueId = -1;
    EXPECT_EQ(OS_OK, osSysVQueueOpen(KeyOf(projectId), 1, &queueId));
    return queueId;
  }

  // parse_command_line over the given words (the program name first).
  static void Parse(std::initializer_list<const char*> words) {
    std::vector<std::string> storage(words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : storage) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    parse_command_line(static_cast<int>(storage.size()), argv.data());
  }

  // The own log's texts written while parsing `words`.
  static Texts ParseTexts(std::initializer_list<const char*> words) {
    OwnLogCapture own;
    Parse(words);
    return own.Texts();
  }

  // Expects that parsing `words` ends the process with `status`, its
  // standard output (sent to standard error in the child) matching
  // `pattern`.
  void ExpectParseExit(std::initializer_list<const char*> words, int status, const char* pattern) {
    EXPECT_EXIT(
        {
          alarm(20);
          dup2(2, 1);
          osGetTaskId(&MainThreadsTaskId);
          Parse(words);
          _exit(99);
        },
        ::testing::ExitedWithCode(status), pattern);
  }

  tOsaOverrides overrides_{};
};

std::string PathnameLines(const std::string& directory) {
  return "PathnameOfConfigFile: " + directory +
         "Kestrin.conf\nPathnameOfTaxonomyFile: " + directory + "KestrinTaxonomy";
}

std::string Joined(const Texts& texts) {
  std::string joined;
  for (const std::string& text : texts) joined += (joined.empty() ? "" : "\n") + text;
  return joined;
}

// ---- command line -------------------------------------------------------------

TEST_F(Lifecycle, StartSetsRunAsDaemonWithItsDebugLine) {
  Texts texts = ParseTexts({"kestrin", "start"});
  EXPECT_TRUE(run_as_daemon);
  EXPECT_EQ("Start daemon process", texts.front());
}

TEST_F(Lifecycle, PortZeroKeeps8090AndSaysThePortIsInvalid) {
  EXPECT_EQ("port number is invalid; using default port", ParseTexts({"k", "-p", "0"}).front());
  EXPECT_EQ(8090, MastersPort);
}

TEST_F(Lifecycle, PortAbcKeeps8090AndSaysThePortIsInvalid) {
  EXPECT_EQ("port number is invalid; using default port", ParseTexts({"k", "-p", "abc"}).front());
  EXPECT_EQ(8090, MastersPort);
}

TEST_F(Lifecycle, PortAbove65535IsInvalid) {
  EXPECT_EQ("port number is invalid; using default port", ParseTexts({"k", "-p", "65536"}).front());
  EXPECT_EQ(8090, MastersPort);
}

TEST_F(Lifecycle, ValidPortIsTakenAndLogged) {
  EXPECT_EQ("MastersPort 65535", ParseTexts({"k", "-p", "65535"}).front());
  EXPECT_EQ(65535, MastersPort);
}

TEST_F(Lifecycle, PortAsLastArgumentIsReportedAndStartUpGoesOn) {
  Texts texts = ParseTexts({"k", "-p"});
  EXPECT_EQ("-p must be followed by port number; using default port", texts.front());
  EXPECT_EQ(8090, MastersPort);
  EXPECT_EQ(PathnameLines("/kv/etc/"), Joined(Texts(texts.begin() + 1, texts.end())));
}

TEST_F(Lifecycle, HostnameIsTakenAndLogged) {
  EXPECT_EQ("MastersHostname chassis-master", ParseTexts({"k", "-h", "chassis-master"}).front());
  EXPECT_EQ("chassis-master", MastersHostname);
}

TEST_F(Lifecycle, HostnameAsLastArgumentIsReportedAndStartUpGoesOn) {
  EXPECT_EQ("-h must be followed by hostname; using default hostname",
            ParseTexts({"k", "-h"}).front());
  EXPECT_EQ("", MastersHostname);
}

TEST_F(Lifecycle, QueueKeyTakesOnlyTheFirstCharacter) {
  EXPECT_EQ("QueueKey X", ParseTexts({"k", "-q", "XYZ"}).front());
  EXPECT_EQ('X', QueueKey);
}

TEST_F(Lifecycle, QueueKeyAsLastArgumentKeepsQ) {
  EXPECT_EQ("-q must be followed by queue key; using default", ParseTexts({"k", "-q"}).front());
  EXPECT_EQ('Q', QueueKey);
}

TEST_F(Lifecycle, DirectoryWithoutSlashFormsBothDefaultPathnames) {
  Texts texts = ParseTexts({"k", "-d", "/some/dir"});
  EXPECT_EQ("ConfigDirectoryName /some/dir/\n" + PathnameLines("/some/dir/"), Joined(texts));
  EXPECT_EQ("/some/dir/Kestrin.conf", PathnameOfConfigFile);
  EXPECT_EQ("/some/dir/KestrinTaxonomy", PathnameOfTaxonomyFile);
  EXPECT_TRUE(UsingDefaultPathnameOfConfigFile);
}

TEST_F(Lifecycle, DirectoryWithSlashGivesTheSamePathnames) {
  Parse({"k", "-d", "/some/dir/"});
  EXPECT_EQ("/some/dir/", ConfigDirectoryName);
  EXPECT_EQ("/some/dir/Kestrin.conf", PathnameOfConfigFile);
  EXPECT_EQ("/some/dir/KestrinTaxonomy", PathnameOfTaxonomyFile);
}

TEST_F(Lifecycle, GivenPathnamesAreKeptAndTheConfigurationIsNoLongerTheDefault) {
  Texts texts = ParseTexts({"k", "-c", "/x/k.conf", "-d", "/d", "-a", "/x/tax"});
  EXPECT_EQ("/x/k.conf", PathnameOfConfigFile);
  EXPECT_EQ("/x/tax", PathnameOfTaxonomyFile);
  EXPECT_FALSE(UsingDefaultPathnameOfConfigFile);
  EXPECT_EQ("PathnameOfConfigFile: /x/k.conf", texts[1]);
  EXPECT_EQ("PathnameOfTaxonomyFile: /x/tax", texts[2]);
}

TEST_F(Lifecycle, NoOptionsUseTheConfigurationDirectoryForBothFiles) {
  EXPECT_EQ(PathnameLines("/kv/etc/"), Joined(ParseTexts({"k"})));
  EXPECT_FALSE(run_as_daemon);
}

TEST_F(Lifecycle, OwnLogNameIsNormalised) {
  Parse({"k", "-l", "//own/daemon.log"});
  EXPECT_EQ("own/daemon.log", NameOfKestrinsOwnLog);
}

TEST_F(Lifecycle, TraceOptionsSetTheirFlags) {
  Parse({"k", "-LogAddLog"});
  EXPECT_TRUE(LogAddLogMessages);
  EXPECT_FALSE(LogNonAddLogMessages);
  Parse({"k", "-LogReqs"});
  EXPECT_TRUE(LogNonAddLogMessages);
}

TEST_F(Lifecycle, EachArgumentIsExaminedOnceLeftToRight) {
  Parse({"k", "-h", "start", "-p", "1", "-p", "2"});
  EXPECT_EQ("start", MastersHostname) << "an option's value is never a verb";
  EXPECT_FALSE(run_as_daemon);
  EXPECT_EQ(2, MastersPort);
}

TEST_F(Lifecycle, UsageTextIsExact) {
  std::ostringstream out;
  print_usage(out, "/usr/bin/kestrin");
  EXPECT_EQ(
      "/usr/bin/kestrin: Command-line options:\n"
      "\n"
      "start - start as a daemon process\n"
      "stop  - stop a currently running Kestrin\n"
      "hup   - ask a currently running Kestrin to re-read its configuration\n"
      "        --> If none of start, stop, or hup is specified, runs as a\n"
      "            foreground application\n"
      "\n"
      "-d <directory> - directory in which to look for the alarm taxonomy file\n"
      "                 KestrinTaxonomy (if -a is not given) and the configuration\n"
      "                 file Kestrin.conf (if -c is not given); defaults to /kv/etc\n"
      "-a <pathname>  - full pathname of the alarm taxonomy file\n"
      "-c <pathname>  - full pathname of the configuration file\n"
      "-l <pathname>  - relative pathname of Kestrin's own log file; defaults to\n"
      "                 Kestrin.log\n"
      "\n"
      "-h <hostname>  - host name or IP address of the Master; may be given when\n"
      "                 running as either the Master or an Agent (on the standard\n"
      "                 chassis the default is right)\n"
      "-p <port>      - port used by Agents to connect to the Master; usually not\n"
      "                 to be given\n",
      out.str());
}

TEST_F(Lifecycle, UsageTextLeavesOutTheQueueKeyAndTraceOptions) {
  std::ostringstream out;
  print_usage(out, "kestrin");
  EXPECT_EQ(std::string::npos, out.str().find("-q"));
  EXPECT_EQ(std::string::npos, out.str().find("-LogAddLog"));
  EXPECT_EQ(std::string::npos, out.str().find("-LogReqs"));
}

TEST_F(Lifecycle, PathnameAfterCAsLastArgumentPrintsUsageAndExitsOne) {
  OwnLogCapture own;
  ExpectParseExit({"kestrin", "-c"}, 1,
                  "kestrin: Command-line options:.*syslog\\(2\\): Unable to start. Invoked "
                  "incorrectly");
  EXPECT_EQ(Texts({"-c must be followed by pathname"}), own.Texts());
}

TEST_F(Lifecycle, MissingValuesAfterDAAndLAreFatal) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"-d", "-d must be followed by directory name"},
      {"-a", "-a must be followed by pathname"},
      {"-l", "-l must be followed by a file name"}};
  for (const auto& option : cases) {
    OwnLogCapture own;
    ExpectParseExit({"kestrin", "-p", "5", option.first}, 1,
                    "Command-line options:.*Unable to start. Invoked incorrectly");
    EXPECT_EQ(Texts({"MastersPort 5", option.second}), own.Texts()) << option.first;
  }
}

TEST_F(Lifecycle, UnknownArgumentIsPrintedThenTheUsage) {
  ExpectParseExit({"kestrin", "-x"}, 1,
                  "^Invalid command-line argument -x\nkestrin: Command-line options:");
}

// ---- stop and hup clients -----------------------------------------------------

// Receives the next record a client sent to `queueId`.
void ExpectNextRecord(int queueId, uint16_t type) {
  unsigned char buffer[sizeof(long) + 64] = {};
  long textSize = 0;
  ASSERT_EQ(OS_OK, osSysVQueueReceive(queueId, buffer, 64, 1, &textSize));
  EXPECT_EQ(8, textSize);
  long typeWord = 0;
  memcpy(&typeWord, buffer, sizeof typeWord);
  EXPECT_EQ(1, typeWord);
  tKesMessage header;
  memcpy(&header, buffer + sizeof(long), sizeof header);
  EXPECT_EQ(34, header.version);
  EXPECT_EQ(type, header.type);
  const unsigned char* tail = buffer + sizeof(long) + 4;
  EXPECT_EQ(0, tail[0] | tail[1] | tail[2] | tail[3]);
}

// Receives the one record a client sent to `queueId`.
void ExpectHeaderOnlyRecord(int queueId, uint16_t type) {
  ExpectNextRecord(queueId, type);
  unsigned char buffer[sizeof(long) + 64] = {};
  long textSize = 0;
  EXPECT_EQ(OS_ERROR_WOULD_BLOCK, osSysVQueueReceive(queueId, buffer, 64, 1, &textSize));
}

TEST_F(Lifecycle, StopAfterDashQStillSendsToTheQueueOfQAndStartIsNeverSeen) {
  const int queueQ = MakeQueue('Q');
  OwnLogCapture own;
  ExpectParseExit({"kestrin", "-q", "X", "stop", "start"}, 0, "^Stop request sent to Kestrin.\n$");
  ExpectHeaderOnlyRecord(queueQ, KES_SHUTDOWN_REQUEST);
  int queueX = -1;
  EXPECT_NE(OS_OK, osSysVQueueOpen(KeyOf('X'), 0, &queueX)) << "no queue keyed with X was made";
  EXPECT_EQ(Texts({"QueueKey X", "Stopping Kestrin"}), own.Texts());
}

TEST_F(Lifecycle, HupSendsAReloadRecordAndExitsZero) {
  const int queueQ = MakeQueue('Q');
  OwnLogCapture own;
  ExpectParseExit({"kestrin", "hup"}, 0, "^Hup request sent to Kestrin.\n$");
  ExpectHeaderOnlyRecord(queueQ, KES_RELOAD_REQUEST);
  EXPECT_EQ(Texts({"Hupping Kestrin"}), own.Texts());
}

TEST_F(Lifecycle, StopWithoutAQueuePrintsTheKillLineAndExitsOne) {
  ExpectParseExit({"kestrin", "stop"}, 1,
                  "^Unable to open Kestrin message queue. You'll have to 'kill -9' Kestrin\n$");
}

TEST_F(Lifecycle, HupWithoutAQueuePrintsTheRestartLineAndExitsOne) {
  ExpectParseExit({"kestrin", "hup"}, 1,
                  "^Unable to open Kestrin message queue. Try restarting Kestrin.\n$");
}

TEST_F(Lifecycle, MissingKeyFileGivesTheKeyLines) {
  const std::string keyFile =
      PrivateRootEnvironment::Root() + "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH";
  std::filesystem::rename(keyFile, keyFile + ".away");
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(send_shutdown_message());
  EXPECT_FALSE(send_hup_message());
  std::string printed = ::testing::internal::GetCapturedStdout();
  std::filesystem::rename(keyFile + ".away", keyFile);
  EXPECT_EQ(
      "Unable to find a key for the Kestrin message queue. You'll have to 'kill -9' Kestrin\n"
      "Unable to find a key for the Kestrin message queue. Try restarting Kestrin.\n",
      printed);
}

TEST_F(Lifecycle, StopTellsTheRoleThatAShutdownIsPendingFirst) {
  const int queueQ = MakeQueue('Q');
  RecordingRole role;
  RolePtr = &role;
  ::testing::internal::CaptureStdout();
  EXPECT_TRUE(send_shutdown_message());
  EXPECT_EQ("Stop request sent to Kestrin.\n", ::testing::internal::GetCapturedStdout());
  EXPECT_EQ(1, role.shutDownPendingCalls);
  EXPECT_TRUE(send_hup_message());
  EXPECT_EQ(1, role.shutDownPendingCalls) << "hup does not tell the role";
  ExpectNextRecord(queueQ, KES_SHUTDOWN_REQUEST);
  ExpectHeaderOnlyRecord(queueQ, KES_RELOAD_REQUEST);
}

TEST_F(Lifecycle, FullQueueMakesTheSendFailWithItsErrno) {
  const int queueQ = MakeQueue('Q');
  int sent = 0;
  while (SendHeaderOnlyRecord(queueQ, KES_TIMER_TICK, true) == OS_OK && sent < 100000) ++sent;
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(send_hup_message());
  EXPECT_EQ("Message queue send failed to transfer any data. Errno 11\n",
            ::testing::internal::GetCapturedStdout());
}

// ---- signals, host information, clean-up ---------------------------------------

TEST_F(Lifecycle, SignalHandlersOnlySetTheirFlags) {
  setup_signal_handling();
  raise(SIGHUP);
  EXPECT_EQ(1, hup_received);
  EXPECT_EQ(0, graceful_quit);
  raise(SIGINT);
  EXPECT_EQ(1, graceful_quit);
  EXPECT_EQ(0, abortive_quit);
  raise(SIGQUIT);
  EXPECT_EQ(1, abortive_quit);
  EXPECT_EQ(0, termination_requested);
}

TEST_F(Lifecycle, ForegroundSigtermOnlySetsTheTerminationFlag) {
  setup_foreground_termination();
  raise(SIGTERM);
  EXPECT_EQ(1, termination_requested);
  EXPECT_EQ(0, graceful_quit);
  EXPECT_EQ(0, abortive_quit);
  EXPECT_EQ(0, hup_received);
  osSetSignalHandler(SIGTERM, SIG_DFL);
}

TEST_F(Lifecycle, HostAndProcessInfoAreSavedAndLogged) {
  char expected[256] = {};
  ASSERT_EQ(OS_OK, osTCPGetHostName(expected, sizeof expected));
  OwnLogCapture own;
  init_host_and_process_info();
  EXPECT_STREQ(expected, Hostname);
  EXPECT_EQ(static_cast<unsigned long>(getpid()), ProcessID);
  EXPECT_EQ(Texts({std::string("Saving hostname ") + expected,
                   "Saving process ID " + std::to_string(getpid())}),
            own.Texts());
}

TEST_F(Lifecycle, UnreadableHostnameBecomesUnknownHost) {
  s_hostNameResult = OS_ERROR_BUFFER_TOO_SMALL;
  OwnLogCapture own;
  init_host_and_process_info();
  EXPECT_STREQ("UnknownHost", Hostname);
  Texts texts = own.Texts();
  ASSERT_EQ(3u, texts.size());
  EXPECT_EQ("Error 8 retrieving hostname", texts[0]);
  EXPECT_EQ("Saving hostname UnknownHost", texts[1]);
  EXPECT_NE(std::string::npos, own.Raw().find("[WARN ] {Kestrin} (-1) - Error 8"));
}

TEST_F(Lifecycle, CleanUpShutsTheRoleDownLogsFlushesAndExitsZero) {
  RecordingRole role;
  RolePtr = &role;
  const int queueQ = MakeQueue('Q');
  systemlog->Flush();
  std::error_code noSize;
  const uintmax_t fileSize = std::filesystem::file_size(systemlog->GetPathName(), noSize);
  const size_t before = noSize ? 0 : static_cast<size_t>(fileSize);
  systemlog->Printf("written before the clean-up\n");
  OwnLogCapture own;
  EXPECT_EXIT(
      {
        osGetTaskId(&MainThreadsTaskId);
        clean_up(queueQ, 902, "run(): too many consecutive failures in quick succession. Exiting.");
      },
      ::testing::ExitedWithCode(0),
      "^ShutDown\\(902, run\\(\\): too many consecutive failures in quick succession. "
      "Exiting.\\)\nsyslog\\(6\\): Kestrin shutting down\n$");
  EXPECT_EQ(Texts({"run(): too many consecutive failures in quick succession. Exiting."}),
            own.Texts());
  // Read without flushing: this process's buffer holds the same line, and
  // only what the child wrote counts.
  std::ifstream written(systemlog->GetPathName(), std::ios::binary);
  std::ostringstream content;
  content << written.rdbuf();
  EXPECT_EQ("written before the clean-up\n", content.str().substr(before))
      << "the child flushed the files before _exit";
  unsigned long waiting = 0;
  unsigned long limit = 0;
  EXPECT_EQ(OS_OK, osSysVQueueStat(queueQ, &waiting, &limit)) << "the queue stays";
}

TEST_F(Lifecycle, TerminationSignalHandsTheStopToTheMainLoopWhichCleansUpWith901) {
  RecordingRole role;
  RolePtr = &role;
  QueueKey = 'Q';
  OwnLogCapture own;
  EXPECT_EXIT(
      {
        alarm(20);
        osGetTaskId(&MainThreadsTaskId);
        createKestrinsQueue();
        std::thread([]() { terminationSignal(SIGTERM); }).detach();
        run();
        _exit(99);
      },
      ::testing::ExitedWithCode(0),
      "ShutDown\\(901, Termination signal received from service manager. Shutting down.\\)");
  Texts texts = own.Texts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ("Termination signal received from service manager. Shutting down.", texts.back());
}

// No tick thread runs here: only the signal can end the main thread's wait
// in its receive.
TEST_F(Lifecycle, ForegroundSigtermInterruptsTheReceiveAndCleansUpWith901) {
  RecordingRole role;
  RolePtr = &role;
  QueueKey = 'Q';
  OwnLogCapture own;
  EXPECT_EXIT(
      {
        alarm(20);
        osGetTaskId(&MainThreadsTaskId);
        createKestrinsQueue();
        setup_foreground_termination();
        static const int TERMINATION[] = {SIGTERM};
        osBlockSignals(TERMINATION, 1, 0);
        std::thread([]() {
          // Blocked here, so the signal sent to the process lands on the
          // main thread.
          osBlockSignals(TERMINATION, 1, 1);
          osSleep(200);
          kill(getpid(), SIGTERM);
        }).detach();
        run();
        _exit(99);
      },
      ::testing::ExitedWithCode(0),
      "ShutDown\\(901, Termination signal received from service manager. Shutting down.\\)");
  Texts texts = own.Texts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ("Termination signal received from service manager. Shutting down.", texts.back());
  for (const std::string& text : texts) EXPECT_EQ(std::string::npos, text.find("msgrcv")) << text;
}

}  // namespace
}  // namespace kestrin
