// The request queue and main loop of the real daemon: checks of each record,
// stale requests, the failure limits, NO-OP accumulation, table dumps and a
// restart that keeps the registrations.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "KestrinServer.h"
#include "qrt/QrtDiag.h"

namespace kestrin_e2e {
namespace {

using Texts = std::vector<std::string>;

constexpr char DUMP_START[] = "***************START of registration table dump***************";
constexpr char DUMP_END[] = "****************END of registration table dump****************";

void StartReady(KestrinServer& server) {
  server.Start();
  ASSERT_TRUE(server.WaitForReady()) << server.Stdout();
}

// The lines of system.log with the daemon's own event `eventId`.
Texts OwnEventLines(const KestrinServer& server, int eventId) {
  Texts found;
  const std::string mark = "\tKestrin\t[" + std::to_string(server.Pid()) +
                           "]:\teventID=" + std::to_string(eventId) + "; message=";
  for (const std::string& line : server.LogLines("system.log")) {
    if (line.find(mark) != std::string::npos) found.push_back(line);
  }
  return found;
}

void StopAndExpectExitZero(KestrinServer& server) {
  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
}

TEST(E2eRequestLoop, StaleStopLeftBeforeStartIsIgnoredAndASecondStopStops) {
  KestrinServer server;
  StartReady(server);
  StopAndExpectExitZero(server);
  // No daemon runs; the queue stays and takes the request.
  EXPECT_EQ(0, server.Run({"stop"}).status);
  StartReady(server);
  EXPECT_TRUE(server.WaitForOwnLogText("Ignoring stale shutdown request."));
  server.SendHeader(15);
  EXPECT_TRUE(server.WaitForOwnLogText(DUMP_END));
  EXPECT_TRUE(server.Running()) << "a stale stop does not stop the new daemon";
  StopAndExpectExitZero(server);
  EXPECT_EQ("Normal shutdown.", server.OwnLogTexts().back());
}

TEST(E2eRequestLoop, StaleHupLeftBeforeStartIsIgnored) {
  KestrinServer server;
  StartReady(server);
  StopAndExpectExitZero(server);
  EXPECT_EQ(0, server.Run({"hup"}).status);
  StartReady(server);
  EXPECT_TRUE(server.WaitForOwnLogText("Ignoring stale hup request."));
  EXPECT_EQ(0, Count(server.OwnLogTexts(), "run(): hup request received."));
  StopAndExpectExitZero(server);
}

TEST(E2eRequestLoop, SevenBytesOfTextAreDroppedWithEvent7013) {
  KestrinServer server;
  StartReady(server);
  const unsigned char text[7] = {34, 0, 7, 0, 0, 0, 0};
  server.SendText(text, sizeof text);
  const std::string line =
      "Received message from queue with body size 3, which is less than the minimum of 4";
  EXPECT_TRUE(server.WaitForOwnLogText(line));
  ASSERT_TRUE(server.WaitForLogLine("system.log", "eventID=7013;"));
  Texts events = OwnEventLines(server, 7013);
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ(0u, events[0].find("<error>\t"));
  EXPECT_NE(std::string::npos, events[0].find("; message=" + line));
  StopAndExpectExitZero(server);
}

TEST(E2eRequestLoop, EightBytesOfTextPassTheSizeCheck) {
  KestrinServer server;
  StartReady(server);
  server.SendHeader(7);  // a 4-byte NO-OP record and 4 zero bytes
  EXPECT_TRUE(server.WaitForOwnLogText("run(): NO-OP request received."));
  StopAndExpectExitZero(server);
}

TEST(E2eRequestLoop, TypeWordTwoIsDroppedAsAnInvalidHeader) {
  KestrinServer server;
  StartReady(server);
  server.SendHeader(5, 34, 2);  // a shutdown request behind type word 2
  EXPECT_TRUE(server.WaitForOwnLogText("Received message from queue with invalid header of 2"));
  EXPECT_TRUE(server.WaitForLogLine("system.log", "eventID=7011;"));
  EXPECT_TRUE(server.Running());
  StopAndExpectExitZero(server);
}

TEST(E2eRequestLoop, Version33IsDroppedWithTheMismatchTextNamingTheIpcQueue) {
  KestrinServer server;
  StartReady(server);
  server.SendHeader(5, 33);
  EXPECT_TRUE(server.WaitForOwnLogText(
      "Version mismatch: received a message from IPC queue with version 33; expecting version "
      "34. Ensure that the QRT Library, the Master, and the Agents are all using the same "
      "version."));
  EXPECT_TRUE(server.WaitForLogLine("system.log", "eventID=7010;"));
  EXPECT_TRUE(server.Running());
  StopAndExpectExitZero(server);
}

TEST(E2eRequestLoop, UnrecognizedTypesThreeAndNinetyNineAreReported) {
  KestrinServer server;
  StartReady(server);
  server.SendHeader(3);
  server.SendHeader(99);
  EXPECT_TRUE(server.WaitForOwnLogText("run(): received unrecognized message type of 99"));
  EXPECT_EQ(1, Count(server.OwnLogTexts(), "run(): received unrecognized message type of 3"));
  StopAndExpectExitZero(server);
}

TEST(E2eRequestLoop, TwentyUnrecognizedRecordsEndTheDaemonThroughCleanUp902WithStatusZero) {
  KestrinServer server;
  StartReady(server);
  for (int i = 0; i < 20; ++i) server.SendHeader(3);
  EXPECT_EQ(0, server.WaitForExit());
  Texts texts = server.OwnLogTexts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ("run(): too many consecutive failures in quick succession. Exiting.", texts.back());
}

constexpr char OVERSIZED_REPORT[] =
    "run(): msgrcv returned -1, error 7; a message of 2000 bytes was taken off the queue and "
    "dropped";

// One record too large for the loop's buffer is taken off and reported; the
// good traffic behind it is served.
TEST(E2eRequestLoop, RecordLongerThanTheBufferIsDroppedAndTheDaemonGoesOn) {
  KestrinServer server;
  StartReady(server);
  std::vector<char> big(2000, 'x');
  server.SendText(big.data(), big.size());
  server.SendHeader(7);
  EXPECT_TRUE(server.WaitForOwnLogText("run(): NO-OP request received."));
  EXPECT_EQ(1, Count(server.OwnLogTexts(), OVERSIZED_REPORT));
  EXPECT_TRUE(server.Running());
  StopAndExpectExitZero(server);
}

// The same record left on the queue before a start no longer ends every
// restart.
TEST(E2eRequestLoop, RecordLongerThanTheBufferLeftBeforeStartIsDroppedAtStart) {
  KestrinServer server;
  StartReady(server);
  StopAndExpectExitZero(server);
  std::vector<char> big(2000, 'x');
  server.SendText(big.data(), big.size());
  StartReady(server);
  server.SendHeader(7);
  EXPECT_TRUE(server.WaitForOwnLogText("run(): NO-OP request received."));
  EXPECT_EQ(1, Count(server.OwnLogTexts(), OVERSIZED_REPORT));
  StopAndExpectExitZero(server);
}

TEST(E2eRequestLoop, ThirdNoOpLogsTheSentenceThreeTimesInOneLine) {
  KestrinServer server;
  StartReady(server);
  for (int i = 0; i < 3; ++i) server.SendHeader(7);
  const std::string once = "run(): NO-OP request received.";
  EXPECT_TRUE(server.WaitForOwnLogText(once + once + once));
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, once));
  EXPECT_EQ(1, Count(texts, once + once));
  StopAndExpectExitZero(server);
}

TEST(E2eRequestLoop, DumpRequestListsTheRegisteredSlots) {
  KestrinServer server;
  StartReady(server);
  int handle = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("App", "AppLog", 0, "app.log", &handle));
  ASSERT_EQ(QRT_OK, QrtDiagDumpRegistrationTable());
  ASSERT_TRUE(server.WaitForOwnLogText(DUMP_END));
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, DUMP_START));
  EXPECT_EQ(1, Count(texts,
                     "Slot 0: module: NoNameSupplied (NoNameSupplied), file: "
                     "QrtInternal.log, Filter: 8"));
  EXPECT_EQ(1, Count(texts, "Slot " + std::to_string(handle) +
                                ": module: App (AppLog), file: app.log, Filter: 8"));
  StopAndExpectExitZero(server);
}

TEST(E2eRequestLoop, RestartedDaemonKeepsTheRegistrations) {
  KestrinServer server;
  StartReady(server);
  int handle = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("App", "AppLog", 0, "kept.log", &handle));
  StopAndExpectExitZero(server);
  StartReady(server);
  EXPECT_TRUE(server.WaitForOwnLogText(
      "Determined that it is not necessary to initialize the shared-memory registration table"));
  ASSERT_EQ(QRT_OK, QrtDiagAddLog(handle, QRT_DESTINATION_PRIVATE_FILE, QRT_SEVERITY_WARNING, 31,
                                  "after the restart"));
  EXPECT_TRUE(server.WaitForLogLine("kept.log", " [WARN ] {AppLog} (31) - after the restart"));
  int again = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("App", "AppLog", 0, "kept.log", &again));
  EXPECT_EQ(handle, again);
  StopAndExpectExitZero(server);
}

}  // namespace
}  // namespace kestrin_e2e
