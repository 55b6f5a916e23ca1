// kestrin::AgentRole against a raw loopback "Master" and the real request
// queue: connecting and giving up, forwarding (unregistered, then registered
// once the Master's handle is known), filtering, the receive thread's checks
// and the ways the connection ends. Waits of minutes are made instant
// through the platform layer's sleep override.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kestrin/AddLog.h"
#include "kestrin/AgentRole.h"
#include "kestrin/RequestLoop.h"
#include "kestrin/RoleTestSupport.h"

namespace kestrin {
namespace {

using Texts = std::vector<std::string>;

// Platform overrides: connects refused and counted, sleeps counted (and
// instant).
std::atomic<int> s_connects{0};
std::atomic<int> s_sleeps{0};
std::atomic<unsigned long> s_sleptMs{0};

int RefuseConnect(long /*socket*/, const tOsTCPSocketAddress* /*address*/) {
  ++s_connects;
  return OS_ERROR_CONN_REFUSED;
}

int CountSleep(unsigned long milliseconds) {
  ++s_sleeps;
  s_sleptMs += milliseconds;
  return OS_OK;
}

int CountRealSleep(unsigned long milliseconds) {
  ++s_sleeps;
  s_sleptMs += milliseconds;
  return OSA_CALL_REAL;
}

class AgentRoleTest : public RoleTest {
 protected:
  void SetUp() override {
    RoleTest::SetUp();
    s_connects = 0;
    s_sleeps = 0;
    s_sleptMs = 0;
    Register(5, "moduleA", "ModA", "moduleA.log");
  }

  void TearDown() override {
    agent_.reset();
    RoleTest::TearDown();
  }

  // Starts an Agent connected to the raw Master `master_`.
  void StartConnected() {
    agent_.reset(new AgentRole(listener_.Address(), "SomeCard"));
    ASSERT_TRUE(agent_->StartUp());
    master_.Adopt(listener_.Accept());
    ASSERT_NE(-1, master_.Id());
  }

  // Waits until the receive thread is inside Receive(): a frame too short to
  // be a record comes back as a report only from there. A ShutDown() before
  // that finds the socket closed when the thread first calls Receive(),
  // which refuses without a callback, so no SocketClosed would be reported.
  void WaitUntilReceiving() {
    ASSERT_TRUE(master_.Send(Frame("abc")));
    ASSERT_TRUE(WaitForReport("1|Received invalid message from Master; sizeOfData = 7"));
    reports_.clear();
  }

  // A queue record holding an add-log for slot 5.
  static tKesLoggerMessage AddLogFor(unsigned int slot, uint32_t severity, const char* text,
                                     unsigned int* size) {
    tKesLoggerMessage message;
    memset(&message, 0, sizeof message);
    message.mtype = 1;
    message.addLog = AddLogRecord(slot, 3, severity, 4711, text);
    message.addLog.cardId = 9;
    *size = SizeOf(message.addLog);
    return message;
  }

  // The RegHandle frame a Master sends for `handle` and the two names.
  static std::string RegHandleFrame(uint32_t handle, const std::string& nameInLog,
                                    const std::string& file) {
    tKesRegHandleMessage record;
    memset(&record, 0, sizeof record);
    record.header = {KES_INTERFACE_VERSION, KES_REG_HANDLE};
    record.handle = handle;
    record.moduleNameInLogOffset = 0;
    record.moduleNameInLogLength = static_cast<uint16_t>(nameInLog.size());
    record.logFileNameOffset = static_cast<uint16_t>(nameInLog.size() + 1);
    record.logFileNameLength = static_cast<uint16_t>(file.size());
    memcpy(record.stringArea, nameInLog.c_str(), nameInLog.size() + 1);
    memcpy(record.stringArea + nameInLog.size() + 1, file.c_str(), file.size() + 1);
    const size_t size = 16 + nameInLog.size() + 1 + file.size() + 1;
    HostToNetwork(&record);
    return Frame(BytesOf(record, size));
  }

  RawListener listener_;
  RawConnection master_;
  std::unique_ptr<AgentRole> agent_;
};

TEST_F(AgentRoleTest, NoMasterAddressConfiguredStartUpFailsWithoutConnecting) {
  tOsaOverrides& overrides = overrides_;
  overrides.tcpConnect = RefuseConnect;
  osSetOverrides(&overrides);
  OwnLogCapture own;
  AgentRole agent(tOsTCPSocketAddress{0, 0}, "SomeCard");
  EXPECT_FALSE(agent.StartUp());
  EXPECT_EQ(0, s_connects);
  EXPECT_TRUE(own.Texts().empty());
}

TEST_F(AgentRoleTest, MasterUnreachableGivesUpAfterTwentyFiveAttemptsFiveSecondsApart) {
  tOsaOverrides& overrides = overrides_;
  overrides.tcpConnect = RefuseConnect;
  overrides.sleep = CountSleep;
  osSetOverrides(&overrides);
  OwnLogCapture own;
  AgentRole agent(FreeLoopbackAddress(), "SomeCard");
  EXPECT_FALSE(agent.StartUp());
  EXPECT_EQ(25, s_connects);
  EXPECT_EQ(125, s_sleeps);
  EXPECT_EQ(125000UL, s_sleptMs);
  EXPECT_EQ(Texts({"Connect() failed; shutting down Kestrin Agent"}), own.Texts());
  EXPECT_NE(std::string::npos, own.Raw().find(" [WARN ] {Kestrin} (-1) - Connect() failed; "
                                              "shutting down Kestrin Agent\n"))
      << own.Raw();
}

TEST_F(AgentRoleTest, StopRequestDuringTheConnectLoopEndsItWithinASecond) {
  tOsaOverrides& overrides = overrides_;
  overrides.tcpConnect = RefuseConnect;
  overrides.sleep = CountRealSleep;
  osSetOverrides(&overrides);
  AgentRole agent(FreeLoopbackAddress(), "SomeCard");
  std::atomic<bool> done{false};
  bool result = true;
  std::thread starter([&]() {
    result = agent.StartUp();
    done = true;
  });
  ASSERT_TRUE(WaitUntil([]() { return s_connects >= 1 && s_sleeps >= 1; }, 5000));
  const auto stop = std::chrono::steady_clock::now();
  agent.ShutDownPending();
  ASSERT_TRUE(WaitUntil([&]() { return done.load(); }, 3000));
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - stop);
  starter.join();
  EXPECT_FALSE(result);
  // The one-second sleep under way finishes; no other starts.
  EXPECT_LE(took.count(), 1100);
  EXPECT_EQ(1, s_connects);
}

TEST_F(AgentRoleTest, ConnectSucceedingWhileShuttingDownClosesTheSocket) {
  // The stop arrives between the connect and the start of the thread: the
  // first sleep of ShutDown's wait happens while StartUp has not returned.
  tOsaOverrides& overrides = overrides_;
  overrides.sleep = CountSleep;
  osSetOverrides(&overrides);
  agent_.reset(new AgentRole(listener_.Address(), "SomeCard"));
  testing::internal::CaptureStdout();
  agent_->ShutDown(KES_REASON_NORMAL_SHUTDOWN, "Normal shutdown.");
  EXPECT_EQ("AgentRole::ShutDown\n", testing::internal::GetCapturedStdout());
  OwnLogCapture own;
  EXPECT_FALSE(agent_->StartUp());
  EXPECT_EQ(Texts({"Connect() succeeded but agent was shutting down; closed socket."}),
            own.Texts());
  EXPECT_FALSE(agent_->IsConnected());
}

TEST_F(AgentRoleTest, FirstRequestOfAClientTravelsUnregisteredWithItsThreeNames) {
  StartConnected();
  unsigned int size = 0;
  tKesLoggerMessage message = AddLogFor(5, 4, "first line", &size);
  const tKesAddLogMessage original = message.addLog;
  agent_->LocalAddLogMessage(&message, size, 5);

  tKesUnregAddLogMessage expected;
  memset(&expected, 0, sizeof expected);
  const unsigned int expectedSize =
      FormatKesUnregAddLogMessage(&expected, &original, size, "moduleA", "ModA", "moduleA.log");
  HostToNetwork(&expected);
  const std::string frame = master_.ReadFrame();
  EXPECT_EQ(Frame(BytesOf(expected, expectedSize)), frame);
  // The names in the order module, name in log, file, then the text.
  EXPECT_NE(std::string::npos,
            frame.find(std::string("moduleA\0ModA\0moduleA.log\0first line\0", 36)));
  EXPECT_EQ(-1, agent_->MastersHandleFor(5));
}

TEST_F(AgentRoleTest, AfterTheMastersRegHandleTheNextRequestIsRegisteredWithItsHandle) {
  StartConnected();
  unsigned int size = 0;
  tKesLoggerMessage first = AddLogFor(5, 4, "first", &size);
  agent_->LocalAddLogMessage(&first, size, 5);
  ASSERT_FALSE(master_.ReadFrame().empty());

  const std::string regHandle = RegHandleFrame(42, "ModA", "moduleA.log");
  ASSERT_TRUE(master_.Send(regHandle));
  // The receive thread puts it on the local queue, host order, type word 1,
  // with the frame's size as the queue length.
  ASSERT_TRUE(WaitForRecords(1));
  ASSERT_EQ(1u, records_.size());
  QueuedRecord& queued = records_[0];
  EXPECT_EQ(1, queued.message.mtype);
  EXPECT_EQ(static_cast<long>(regHandle.size()), queued.textSize);
  EXPECT_EQ(KES_REG_HANDLE, queued.message.header.type);
  EXPECT_EQ(42u, queued.message.regHandle.handle);
  EXPECT_EQ(std::string(4, '\0'), queued.Bytes().substr(queued.RecordSize()));
  EXPECT_EQ(-1, agent_->MastersHandleFor(5)) << "the map is written on the main thread only";

  agent_->LocalRegHandleMessage(&queued.message, queued.RecordSize());
  EXPECT_EQ(42, agent_->MastersHandleFor(5));

  tKesLoggerMessage second = AddLogFor(5, 4, "second", &size);
  tKesAddLogMessage expected = second.addLog;
  expected.handle = 42;
  HostToNetwork(&expected);
  agent_->LocalAddLogMessage(&second, size, 5);
  EXPECT_EQ(Frame(BytesOf(expected, size)), master_.ReadFrame());
}

TEST_F(AgentRoleTest, RegHandleMatchesTheFirstSlotWithBothNames) {
  Register(3, "other", "ModA", "other.log");
  Register(7, "moduleB", "ModA", "moduleA.log");
  agent_.reset(new AgentRole(listener_.Address(), "SomeCard"));
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  const std::string frame = RegHandleFrame(17, "ModA", "moduleA.log");
  memcpy(message.text, frame.data() + 4, frame.size() - 4);
  NetworkToHost(&message.regHandle);
  agent_->LocalRegHandleMessage(&message, static_cast<unsigned int>(frame.size() - 4));
  EXPECT_EQ(17, agent_->MastersHandleFor(5));
  EXPECT_EQ(-1, agent_->MastersHandleFor(3));
  EXPECT_EQ(-1, agent_->MastersHandleFor(7));
}

TEST_F(AgentRoleTest, RegHandleNamingALogNoLocalSlotHasIsIgnoredWithoutAMessage) {
  agent_.reset(new AgentRole(listener_.Address(), "SomeCard"));
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  const std::string frame = RegHandleFrame(17, "Nobody", "nobody.log");
  memcpy(message.text, frame.data() + 4, frame.size() - 4);
  NetworkToHost(&message.regHandle);
  OwnLogCapture own;
  agent_->LocalRegHandleMessage(&message, static_cast<unsigned int>(frame.size() - 4));
  for (unsigned int slot = 0; slot < 256; ++slot) EXPECT_EQ(-1, agent_->MastersHandleFor(slot));
  EXPECT_TRUE(own.Texts().empty());
}

TEST_F(AgentRoleTest, RequestsTheSlotsFileFiltersOutAreNotForwarded) {
  StartConnected();
  AddLogFileEntry(5, 0, 99);
  ASSERT_FALSE(logFileArray[5].IsNil());
  logFileArray[5]->severityFilter.Set(DetailedSeverity::WARN_LEVEL);
  unsigned int size = 0;
  tKesLoggerMessage info = AddLogFor(5, 4, "info line", &size);
  agent_->LocalAddLogMessage(&info, size, 5);
  tKesLoggerMessage warning = AddLogFor(5, 2, "warning line", &size);
  agent_->LocalAddLogMessage(&warning, size, 5);
  logFileArray[5]->severityFilter.Set(DetailedSeverity::DEBUG_LEVEL);
  tKesLoggerMessage debug = AddLogFor(5, 8, "debug line", &size);
  agent_->LocalAddLogMessage(&debug, size, 5);
  EXPECT_NE(std::string::npos, master_.ReadFrame().find("warning line"));
  EXPECT_NE(std::string::npos, master_.ReadFrame().find("debug line"));
  EXPECT_EQ("", master_.ReadFrame(200));
}

TEST_F(AgentRoleTest, FirstRequestOfASlotMakesItsLogFileObject) {
  StartConnected();
  ASSERT_TRUE(logFileArray[5].IsNil());
  logger->severityFilter.Set(DetailedSeverity::DEBUG_LEVEL);
  unsigned int size = 0;
  tKesLoggerMessage message = AddLogFor(5, 1, "error line", &size);
  agent_->LocalAddLogMessage(&message, size, 5);
  ASSERT_FALSE(logFileArray[5].IsNil());
  EXPECT_EQ("moduleA.log", logFileArray[5]->GetName());
  EXPECT_NE(std::string::npos, master_.ReadFrame().find("error line"));
}

TEST_F(AgentRoleTest, LogFileSizeRequestIsForwardedAsItIs) {
  StartConnected();
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  message.mtype = 1;
  message.logFileSize.header = {KES_INTERFACE_VERSION, KES_LOG_FILE_SIZE};
  message.logFileSize.sizeOrCount = 0x80000003u;
  strcpy(message.logFileSize.fileName, "moduleA.log");
  const unsigned int size = 8 + 12;
  tKesLogFileSizeMessage expected = message.logFileSize;
  HostToNetwork(&expected);
  agent_->LocalLogFileSizeMessage(&message, size);
  const std::string frame = master_.ReadFrame();
  EXPECT_EQ(Frame(BytesOf(expected, size)), frame);
  EXPECT_EQ(std::string("F\x01\x00\x14\x00\x22\x00\x06\x80\x00\x00\x03", 12),
            frame.substr(0, 12));
}

TEST_F(AgentRoleTest, CoreRegisterIsIgnoredWithOneErrorLine) {
  StartConnected();
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  message.coreRegister.header = {KES_INTERFACE_VERSION, KES_CORE_REGISTER};
  OwnLogCapture own;
  agent_->LocalCoreRegisterMessage(&message, 10);
  EXPECT_EQ(Texts({"Error: Agent received local CoreRegister message: ignoring. Alarm telset may "
                   "not be operational."}),
            own.Texts());
  EXPECT_EQ("", master_.ReadFrame(200));
}

TEST_F(AgentRoleTest, MasterClosingTheConnectionLogsSocketClosedAndStopsTheDaemon) {
  StartConnected();
  master_.Close();
  ASSERT_TRUE(WaitForReport("2|AgentRole::SocketClosed"));
  EXPECT_TRUE(WaitUntil([&]() { return agent_->ReceiveThreadHasStopped(); }));
  EXPECT_EQ(1, graceful_quit.load());
  EXPECT_TRUE(WaitForReport("8|AgentRole receive thread terminating."));
  EXPECT_EQ(0, CountOf(reports_, "2|AgentRole receive thread terminating unexpectedly."));
}

TEST_F(AgentRoleTest, FramingErrorFromTheMasterStopsTheDaemon) {
  StartConnected();
  ASSERT_TRUE(master_.Send(std::string("X\x01\x00\x02" "ab", 6)));
  ASSERT_TRUE(WaitForReport("2|AgentRole::MessageFramingError"));
  EXPECT_EQ(1, graceful_quit.load());
  // The receive call still reads the body the bad header announced, so the
  // thread ends when the daemon's clean-up closes the connection.
  testing::internal::CaptureStdout();
  agent_->ShutDown(KES_REASON_NORMAL_SHUTDOWN, "Normal shutdown.");
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(agent_->ReceiveThreadHasStopped());
}

TEST_F(AgentRoleTest, ShortFrameFromTheMasterIsDroppedThrottled) {
  StartConnected();
  ASSERT_TRUE(master_.Send(Frame("abc")));
  ASSERT_TRUE(WaitForReport("1|Received invalid message from Master; sizeOfData = 7"));
  EXPECT_EQ(0, graceful_quit.load());
  EXPECT_TRUE(records_.empty());
}

TEST_F(AgentRoleTest, RecordOtherThanRegHandleFromTheMasterIsDroppedWithAnError) {
  StartConnected();
  tKesAddLogMessage record = AddLogRecord(5, 3, 4, 1, "x");
  HostToNetwork(&record);
  ASSERT_TRUE(master_.Send(Frame(BytesOf(record, 42))));
  ASSERT_TRUE(WaitForReport("1|Invalid or unknown message type of 1 received from Master"));
  EXPECT_TRUE(records_.empty());
  EXPECT_EQ(0, graceful_quit.load());
}

TEST_F(AgentRoleTest, RegHandleBelowTwentyBytesIsDroppedThrottled) {
  StartConnected();
  const std::string full = RegHandleFrame(42, "ModA", "moduleA.log");
  ASSERT_TRUE(master_.Send(Frame(full.substr(4, 15))));
  ASSERT_TRUE(WaitForReport(
      "1|Received invalid RegHandle message from Master; sizeOfData = 19; minimum is 20"));
  EXPECT_TRUE(records_.empty());
}

TEST_F(AgentRoleTest, RegHandleTooLargeForTheQueueIsDropped) {
  StartConnected();
  const std::string full = RegHandleFrame(42, "ModA", "moduleA.log");
  ASSERT_TRUE(master_.Send(Frame(full.substr(4) + std::string(2000, 'z'))));
  ASSERT_TRUE(WaitForReport(
      "1|Received invalid RegHandle message from Master; sizeOfData = " +
      std::to_string(full.size() + 2000) + "; maximum is 1724"));
  EXPECT_TRUE(records_.empty());
  EXPECT_EQ(0, graceful_quit.load());
}

TEST_F(AgentRoleTest, ShutDownEndsTheReceiveThreadPromptlyAndPrintsEachTime) {
  StartConnected();
  WaitUntilReceiving();
  OwnLogCapture own;
  testing::internal::CaptureStdout();
  const auto start = std::chrono::steady_clock::now();
  agent_->ShutDown(KES_REASON_NORMAL_SHUTDOWN, "Normal shutdown.");
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  agent_->ShutDown(KES_REASON_NORMAL_SHUTDOWN, "Normal shutdown.");
  EXPECT_EQ("AgentRole::ShutDown\nAgentRole::ShutDown\n", testing::internal::GetCapturedStdout());
  EXPECT_TRUE(agent_->ReceiveThreadHasStopped());
  EXPECT_LT(took.count(), 1000);
  EXPECT_TRUE(master_.PeerClosed());
  // The thread's last reports wait on the queue, for clean-up to write; the
  // role itself takes nothing off the queue.
  EXPECT_TRUE(own.Texts().empty());
  Collect();
  EXPECT_EQ(1, CountOf(reports_, "2|AgentRole::SocketClosed"));
  EXPECT_EQ(1, CountOf(reports_, "8|AgentRole receive thread terminating."));
  EXPECT_EQ(0, CountOf(reports_, "2|AgentRole receive thread terminating unexpectedly."));
}

TEST_F(AgentRoleTest, ShutDownLeavesOtherWaitingRecordsAlone) {
  StartConnected();
  ASSERT_EQ(OS_OK, SendHeaderOnlyRecord(sys5q, KES_TIMER_TICK, true));
  ASSERT_EQ(OS_OK, SendHeaderOnlyRecord(sys5q, KES_DUMP_REG_TABLE, true));
  testing::internal::CaptureStdout();
  agent_->ShutDown(KES_REASON_NORMAL_SHUTDOWN, "Normal shutdown.");
  testing::internal::GetCapturedStdout();
  Collect();
  ASSERT_EQ(2u, records_.size());
  EXPECT_EQ(KES_TIMER_TICK, records_[0].message.header.type);
  EXPECT_EQ(KES_DUMP_REG_TABLE, records_[1].message.header.type);
}

TEST_F(AgentRoleTest, ShutDownWaitsAtMostTwentyTimesOneHundredMilliseconds) {
  tOsaOverrides& overrides = overrides_;
  overrides.sleep = CountSleep;
  osSetOverrides(&overrides);
  // Never started: the thread never stops, so the whole wait is spent.
  AgentRole agent(listener_.Address(), "SomeCard");
  testing::internal::CaptureStdout();
  agent.ShutDown(KES_REASON_NORMAL_SHUTDOWN, "Normal shutdown.");
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(20, s_sleeps);
  EXPECT_EQ(2000UL, s_sleptMs);
}

}  // namespace
}  // namespace kestrin
