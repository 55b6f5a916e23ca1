// kestrin::MasterRole with raw loopback "Agents" and the real request queue:
// listening (and giving up when the port stays busy), what each record an
// Agent sends becomes on the queue, the registration of an Agent's client
// and the RegHandle answer, the checks and their throttled messages,
// pacing, and shutting down. Minutes of waiting pass instantly through the
// platform layer's sleep and clock overrides.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kestrin/AlarmTestSupport.h"
#include "kestrin/MasterRole.h"
#include "kestrin/RecordPrinters.h"
#include "kestrin/RoleTestSupport.h"
#include "qrt/QrtDiag.h"
#include "zor/sockets/SocketLog.h"

namespace kestrin {
namespace {

using Texts = std::vector<std::string>;

// A fake clock that only sleeps move; sleeps counted.
std::atomic<unsigned long> s_now{0};
std::atomic<int> s_sleeps{0};
std::atomic<int> s_pacingSleeps{0};

int AdvanceClock(unsigned long milliseconds) {
  ++s_sleeps;
  s_now += milliseconds;
  return OS_OK;
}

unsigned long FakeClock() { return s_now.load(); }

// As AdvanceClock, but from the 25th sleep on it waits (in real time) until
// the test opens the gate.
std::atomic<bool> s_gateOpen{false};
int AdvanceClockThroughGate(unsigned long milliseconds) {
  AdvanceClock(milliseconds);
  while (s_sleeps >= 25 && !s_gateOpen) RealSleep(1);
  return OS_OK;
}

// Counts the select thread's pauses (SLEEP_TIME is set to 7 ms below) and
// lets every sleep run for real.
int CountPacingSleep(unsigned long milliseconds) {
  if (milliseconds == 7) ++s_pacingSleeps;
  return OSA_CALL_REAL;
}

std::string Body(const void* record, size_t size) {
  return std::string(static_cast<const char*>(record), size);
}

class MasterRoleTest : public RoleTest {
 protected:
  void SetUp() override {
    RoleTest::SetUp();
    s_now = 0;
    s_sleeps = 0;
    s_pacingSleeps = 0;
    NumMessagesReceived = 0;
    savedBatch_ = MESSAGES_BEFORE_SLEEP;
    savedSleep_ = SLEEP_TIME;
    MESSAGES_BEFORE_SLEEP = 1000;
    SLEEP_TIME = 1;
  }

  void TearDown() override {
    master_.reset();
    Zor::Sockets::GetLogInterfaceHolder().ClearLogger();
    MESSAGES_BEFORE_SLEEP = savedBatch_;
    SLEEP_TIME = savedSleep_;
    RoleTest::TearDown();
  }

  // Starts a Master on a free loopback port and connects `agent_` to it.
  void StartServing() {
    address_ = FreeLoopbackAddress();
    master_.reset(new MasterRole(address_, "CRC"));
    ASSERT_TRUE(master_->StartUp());
    ASSERT_TRUE(WaitUntil([&]() { return agent_.Connect(address_); }));
  }

  // The unregistered add-log an Agent sends for its client, host order.
  static tKesUnregAddLogMessage UnregRecord(const char* module, const char* nameInLog,
                                            const char* file, const char* text,
                                            unsigned int* size) {
    tKesAddLogMessage addLog = AddLogRecord(9, 3, 4, 4711, text);
    addLog.cardId = 12;
    tKesUnregAddLogMessage record;
    memset(&record, 0, sizeof record);
    *size = FormatKesUnregAddLogMessage(&record, &addLog, SizeOf(addLog), module, nameInLog, file);
    return record;
  }

  static std::string UnregFrame(tKesUnregAddLogMessage record, unsigned int size) {
    HostToNetwork(&record);
    return Frame(Body(&record, size));
  }

  int savedBatch_ = 0;
  int savedSleep_ = 0;
  tOsTCPSocketAddress address_{0, 0};
  std::unique_ptr<MasterRole> master_;
  RawConnection agent_;
};

TEST_F(MasterRoleTest, ListeningPortBusyRetriesEveryTenSecondsAlarmsAndTimesOutAfterThreeMinutes) {
  FakeClientLibrary::Install();
  InternalEventManager::Instance().SystemCanGenerateEvents();
  AppFw::SmartPointerNTS<Zor::LogInterface> reports(new KestrinsInternalLogger);
  Zor::Sockets::SetLogger(reports);
  RawListener busy;
  tOsaOverrides& overrides = overrides_;
  overrides.sleep = AdvanceClock;
  overrides.clock = FakeClock;
  osSetOverrides(&overrides);
  master_.reset(new MasterRole(busy.Address(), "CRC"));
  ASSERT_TRUE(master_->StartUp());
  ASSERT_TRUE(WaitUntil([&]() { return master_->SelectThreadHasStopped(); }));
  // Attempts at 0, 10 s, ..., 180 s; at 190 s more than 3 minutes have passed.
  EXPECT_EQ(190, s_sleeps);
  EXPECT_EQ(190000UL, s_now.load());
  EXPECT_EQ(1, graceful_quit.load());
  ASSERT_TRUE(WaitForReport("1|Timed out trying to initialize Master; shutting down."));
  int bindFailures = 0;
  for (const std::string& report : reports_) {
    bindFailures += report.find("Zor Sockets: Error 305 trying to bind the listening socket") !=
                            std::string::npos
                        ? 1
                        : 0;
  }
  EXPECT_EQ(19, bindFailures);
  // One alarm, raised at the second failed attempt; never cleared.
  EXPECT_EQ(Texts({"7|1|1|7030|1|"}), FakeClientLibrary::Events());
}

TEST_F(MasterRoleTest, ListeningAfterAFailureClearsTheAlarm) {
  FakeClientLibrary::Install();
  InternalEventManager::Instance().SystemCanGenerateEvents();
  std::unique_ptr<RawListener> busy(new RawListener);
  const tOsTCPSocketAddress address = busy->Address();
  s_gateOpen = false;
  tOsaOverrides& overrides = overrides_;
  overrides.sleep = AdvanceClockThroughGate;
  overrides.clock = FakeClock;
  osSetOverrides(&overrides);
  master_.reset(new MasterRole(address, "CRC"));
  ASSERT_TRUE(master_->StartUp());
  ASSERT_TRUE(WaitUntil([&]() { return s_sleeps >= 25; }));
  busy.reset();  // the fourth attempt finds the port free
  s_gateOpen = true;
  ASSERT_TRUE(WaitUntil([&]() { return agent_.Connect(address); }));
  // The clear follows the successful listen on the select thread; stopping
  // that thread first makes its events safe to read here. ShutDown waits
  // with osSleep, so the real one is put back first.
  osSetOverrides(nullptr);
  master_->ShutDown(901, "test");
  ASSERT_TRUE(master_->SelectThreadHasStopped());
  EXPECT_EQ(Texts({"7|1|1|7030|1|", "7|1|4|7031|2|"}), FakeClientLibrary::Events());
  Collect();
  std::string reports;
  for (const std::string& report : reports_) reports += report + "\n";
  EXPECT_EQ(0, graceful_quit.load()) << reports;
}

TEST_F(MasterRoleTest, AcceptedAndClosedAgentsAreLoggedWithTheirAddress) {
  StartServing();
  tOsTCPSocketAddress local{0, 0};
  ASSERT_EQ(OS_OK, osTCPGetLocalAddress(agent_.Id(), &local));
  const std::string address = "127.0.0.1:" + std::to_string(local.port);
  EXPECT_TRUE(WaitForReport("8|Socket from " + address + " has been accepted"));
  agent_.Close();
  EXPECT_TRUE(WaitForReport("8|Socket from " + address + " has been closed"));
  EXPECT_EQ(0, graceful_quit.load());
}

TEST_F(MasterRoleTest, GreetingFromAnAgentIsIgnoredSilently) {
  StartServing();
  tKesAgentGreetingsMessage greeting;
  const unsigned int size = FormatKesAgentGreetingsMessage(&greeting, "SomeCard");
  HostToNetwork(&greeting);
  ASSERT_TRUE(agent_.Send(Frame(Body(&greeting, size))));
  tKesLogFileSizeMessage marker;
  memset(&marker, 0, sizeof marker);
  marker.header = {KES_INTERFACE_VERSION, KES_LOG_FILE_SIZE};
  marker.sizeOrCount = 64;
  strcpy(marker.fileName, "a.log");
  HostToNetwork(&marker);
  ASSERT_TRUE(agent_.Send(Frame(Body(&marker, 14))));
  ASSERT_TRUE(WaitForRecords(1));
  EXPECT_EQ(1u, records_.size());
  EXPECT_EQ(KES_LOG_FILE_SIZE, records_[0].message.header.type);
  for (const std::string& report : reports_) {
    EXPECT_EQ(0u, report.rfind("8|Socket from ", 0)) << report;
  }
  // The count goes up as each record's handling ends, after the record is queued.
  EXPECT_TRUE(WaitUntil([]() { return NumMessagesReceived.load() >= 2u; }));
  EXPECT_EQ(2u, NumMessagesReceived.load());
}

TEST_F(MasterRoleTest, UnregisteredAddLogGetsExactlyOneRegHandleAndOneQueuedAddLog) {
  StartServing();
  unsigned int size = 0;
  const tKesUnregAddLogMessage record =
      UnregRecord("agentModule", "AgentMod", "agent.log", "hello from the agent", &size);
  ASSERT_TRUE(agent_.Send(UnregFrame(record, size)));

  const std::string reply = agent_.ReadFrame();
  ASSERT_GE(reply.size(), 20u);
  tKesRegHandleMessage regHandle;
  memset(&regHandle, 0, sizeof regHandle);
  memcpy(&regHandle, reply.data() + 4, reply.size() - 4);
  NetworkToHost(&regHandle);
  const uint32_t handle = regHandle.handle;
  EXPECT_GE(handle, 1u);
  EXPECT_LE(handle, 255u);
  tKesRegHandleMessage expected;
  memset(&expected, 0, sizeof expected);
  const unsigned int expectedSize = FormatKesRegHandleMessage(&expected, handle, &record);
  HostToNetwork(&expected);
  EXPECT_EQ(Frame(Body(&expected, expectedSize)), reply);
  EXPECT_EQ("", agent_.ReadFrame(300)) << "exactly one RegHandle";

  // The client library registered the names in the shared table.
  const tKesRegTableEntry& slot = sharedRegistrationTable[handle];
  EXPECT_STREQ("agentModule", slot.moduleName);
  EXPECT_STREQ("AgentMod", slot.moduleNameInLog);
  EXPECT_STREQ("agent.log", slot.logFileName);

  ASSERT_TRUE(WaitForRecords(1));
  RealSleep(100);
  Collect();
  ASSERT_EQ(1u, records_.size());
  const QueuedRecord& queued = records_[0];
  tKesAddLogMessage expectedAddLog;
  memset(&expectedAddLog, 0, sizeof expectedAddLog);
  const unsigned int addLogSize = FormatKesAddLogMessage(&expectedAddLog, handle, &record);
  EXPECT_EQ(1, queued.message.mtype);
  EXPECT_EQ(static_cast<long>(addLogSize + 4), queued.textSize);
  EXPECT_EQ(Body(&expectedAddLog, addLogSize) + std::string(4, '\0'), queued.Bytes());
  EXPECT_STREQ("hello from the agent", queued.message.addLog.text);
  EXPECT_EQ(12u, queued.message.addLog.cardId);
}

TEST_F(MasterRoleTest, SameNamesGetTheSameHandleAgain) {
  StartServing();
  unsigned int size = 0;
  const tKesUnregAddLogMessage record = UnregRecord("m", "M", "m.log", "one", &size);
  ASSERT_TRUE(agent_.Send(UnregFrame(record, size)));
  const std::string first = agent_.ReadFrame();
  ASSERT_TRUE(agent_.Send(UnregFrame(record, size)));
  const std::string second = agent_.ReadFrame();
  ASSERT_FALSE(first.empty());
  EXPECT_EQ(first, second);
}

TEST_F(MasterRoleTest, UnregisteredAddLogIsTracedWhenNonAddLogTracingIsOn) {
  LogNonAddLogMessages = true;
  StartServing();
  unsigned int size = 0;
  const tKesUnregAddLogMessage record = UnregRecord("m", "M", "m.log", "traced", &size);
  ASSERT_TRUE(agent_.Send(UnregFrame(record, size)));
  ASSERT_FALSE(agent_.ReadFrame().empty());
  std::ostringstream line;
  line << "8|From agent: " << record;
  EXPECT_TRUE(WaitForReport(line.str()));
}

TEST_F(MasterRoleTest, RegistrationFailureIsLoggedAndTheRequestDropped) {
  StartServing();
  unsigned int size = 0;
  // The client library finds no free slot in a full table.
  for (int filled = 0;; ++filled) {
    int handle = -1;
    const std::string name = "filler" + std::to_string(filled) + ".log";
    if (QrtDiagRegisterModule("filler", "Filler", 0, name.c_str(), &handle) != QRT_OK) break;
    ASSERT_LT(filled, KES_REG_TABLE_SLOTS);
  }
  const tKesUnregAddLogMessage record =
      UnregRecord("nowhere", "Nowhere", "nowhere.log", "lost", &size);
  ASSERT_TRUE(agent_.Send(UnregFrame(record, size)));
  EXPECT_TRUE(WaitForReport("1|Error handling UnregAddLog: Error " +
                            std::to_string(QRT_ERROR_TABLE_FULL) +
                            " trying to register for logging"));
  EXPECT_EQ("", agent_.ReadFrame(200));
  EXPECT_TRUE(records_.empty());
}

TEST_F(MasterRoleTest, InvalidUnregisteredAddLogIsDroppedByTheValidator) {
  StartServing();
  unsigned int size = 0;
  tKesUnregAddLogMessage record = UnregRecord("m", "M", "m.log", "text", &size);
  record.messageLength = 40;  // runs past the received bytes
  ASSERT_TRUE(agent_.Send(UnregFrame(record, size)));
  ASSERT_TRUE(WaitUntil([&]() {
    Collect();
    for (const std::string& report : reports_) {
      if (report.rfind("1|UnregAddLogMessage (msgString)", 0) == 0) return true;
    }
    return false;
  }));
  EXPECT_EQ("", agent_.ReadFrame(200));
  EXPECT_TRUE(records_.empty());
}

TEST_F(MasterRoleTest, UnregisteredAddLogBelowFiftySixBytesIsDroppedThrottled) {
  StartServing();
  unsigned int size = 0;
  tKesUnregAddLogMessage record = UnregRecord("m", "M", "m.log", "text", &size);
  HostToNetwork(&record);
  ASSERT_TRUE(agent_.Send(Frame(Body(&record, 51))));
  EXPECT_TRUE(
      WaitForReport("1|Invalid UnregAddLog received from Agent; size = 55; minimum size = 56"));
}

TEST_F(MasterRoleTest, RegisteredAddLogIsEnqueuedInHostOrder) {
  StartServing();
  Register(9, "mod", "Mod", "mod.log");
  tKesAddLogMessage record = AddLogRecord(9, 3, 2, 4711, "registered line");
  record.cardId = 12;
  const unsigned int size = SizeOf(record);
  const tKesAddLogMessage original = record;
  HostToNetwork(&record);
  ASSERT_TRUE(agent_.Send(Frame(Body(&record, size))));
  ASSERT_TRUE(WaitForRecords(1));
  EXPECT_EQ(static_cast<long>(size + 4), records_[0].textSize);
  EXPECT_EQ(Body(&original, size) + std::string(4, '\0'), records_[0].Bytes());
}

TEST_F(MasterRoleTest, AddLogOfFortyFourBytesIsDroppedAndTheConnectionStaysOpen) {
  StartServing();
  tKesAddLogMessage record = AddLogRecord(9, 3, 2, 4711, "");
  HostToNetwork(&record);
  ASSERT_TRUE(agent_.Send(Frame(Body(&record, 40))));
  EXPECT_TRUE(WaitForReport(
      "1|Received invalid AddLog message from Agent; sizeOfData = 44; minimum is 45"));
  // 45 bytes: a record with an empty text, passed on.
  ASSERT_TRUE(agent_.Send(Frame(Body(&record, 41))));
  ASSERT_TRUE(WaitForRecords(1));
  EXPECT_EQ(45, records_[0].textSize);
  EXPECT_EQ(0, graceful_quit.load());
}

TEST_F(MasterRoleTest, AddLogTooLongForTheClientLibraryIsReported) {
  StartServing();
  tKesAddLogMessage record = AddLogRecord(9, 3, 2, 4711, "x");
  HostToNetwork(&record);
  const std::string body = Body(&record, 40) + std::string(1000, 'y');
  ASSERT_TRUE(agent_.Send(Frame(body)));
  EXPECT_TRUE(WaitForReport("1|Error " + std::to_string(QRT_ERROR_INVALID_PARAMETER) +
                            " trying to enqueue AddLog message from Agent; sizeOfData = 1044"));
  EXPECT_TRUE(records_.empty());
}

TEST_F(MasterRoleTest, LogFileSizeIsPassedOnAndAShortOneDropped) {
  StartServing();
  tKesLogFileSizeMessage record;
  memset(&record, 0, sizeof record);
  record.header = {KES_INTERFACE_VERSION, KES_LOG_FILE_SIZE};
  record.sizeOrCount = 0x80000005u;
  strcpy(record.fileName, "agent.log");
  const tKesLogFileSizeMessage original = record;
  HostToNetwork(&record);
  ASSERT_TRUE(agent_.Send(Frame(Body(&record, 7))));
  EXPECT_TRUE(WaitForReport(
      "1|Received invalid LogFileSize message from Agent; sizeOfData = 11; minimum is 12"));
  ASSERT_TRUE(agent_.Send(Frame(Body(&record, 18))));
  ASSERT_TRUE(WaitForRecords(1));
  EXPECT_EQ(22, records_[0].textSize);
  EXPECT_EQ(Body(&original, 18) + std::string(4, '\0'), records_[0].Bytes());
}

TEST_F(MasterRoleTest, LogFileSizeTooLargeForTheQueueIsDropped) {
  StartServing();
  tKesLogFileSizeMessage record;
  memset(&record, 0, sizeof record);
  record.header = {KES_INTERFACE_VERSION, KES_LOG_FILE_SIZE};
  HostToNetwork(&record);
  ASSERT_TRUE(agent_.Send(Frame(Body(&record, 8) + std::string(3000, 'f'))));
  EXPECT_TRUE(WaitForReport(
      "1|Received invalid LogFileSize message from Agent; sizeOfData = 3012; maximum is 1724"));
  EXPECT_TRUE(records_.empty());
}

TEST_F(MasterRoleTest, ShortFrameIsDroppedThrottled) {
  StartServing();
  ASSERT_TRUE(agent_.Send(Frame("abc")));
  EXPECT_TRUE(WaitForReport("1|Received invalid message from Agent; sizeOfData = 7"));
}

TEST_F(MasterRoleTest, UnknownTypeIsDroppedThrottled) {
  StartServing();
  tKesMessage header{KES_INTERFACE_VERSION, KES_TIMER_TICK};
  HostToNetwork(&header);
  ASSERT_TRUE(agent_.Send(Frame(Body(&header, 4))));
  EXPECT_TRUE(
      WaitForReport("1|Invalid message type of 13 received from Agent; ignoring."));
  EXPECT_TRUE(records_.empty());
}

TEST_F(MasterRoleTest, VersionMismatchIsDropped) {
  StartServing();
  tKesLogFileSizeMessage record;
  memset(&record, 0, sizeof record);
  record.header = {33, KES_LOG_FILE_SIZE};
  strcpy(record.fileName, "a.log");
  HostToNetwork(&record);
  ASSERT_TRUE(agent_.Send(Frame(Body(&record, 14))));
  EXPECT_TRUE(WaitForReport(
      "1|Version mismatch: received a message from agent with version 33; expecting version 34. "
      "Ensure that the QRT Library, the Master, and the Agents are all using the same version."));
  EXPECT_TRUE(records_.empty());
}

TEST_F(MasterRoleTest, SelectThreadPausesAfterHalfTheMainLoopsBatch) {
  MESSAGES_BEFORE_SLEEP = 7;  // pause after every 3 records
  SLEEP_TIME = 7;
  tOsaOverrides& overrides = overrides_;
  overrides.sleep = CountPacingSleep;
  osSetOverrides(&overrides);
  StartServing();
  tKesAgentGreetingsMessage greeting;
  const unsigned int size = FormatKesAgentGreetingsMessage(&greeting, "SomeCard");
  HostToNetwork(&greeting);
  std::string frames;
  for (int i = 0; i < 6; ++i) frames += Frame(Body(&greeting, size));
  frames += Frame("abc");  // dropped records count too
  ASSERT_TRUE(agent_.Send(frames));
  ASSERT_TRUE(WaitForReport("1|Received invalid message from Agent; sizeOfData = 7"));
  EXPECT_TRUE(WaitUntil([]() { return NumMessagesReceived.load() >= 7u; }));
  EXPECT_EQ(7u, NumMessagesReceived.load());
  EXPECT_EQ(2, s_pacingSleeps);
}

TEST_F(MasterRoleTest, ShutDownEndsTheSelectThreadPromptlyAndPrintsEachTime) {
  StartServing();
  ASSERT_TRUE(WaitUntil([&]() {
    Collect();
    return !reports_.empty();
  }));
  testing::internal::CaptureStdout();
  const auto start = std::chrono::steady_clock::now();
  master_->ShutDown(KES_REASON_NORMAL_SHUTDOWN, "Normal shutdown.");
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  master_->ShutDown(KES_REASON_NORMAL_SHUTDOWN, "Normal shutdown.");
  EXPECT_EQ("MasterRole::ShutDown\nMasterRole::ShutDown\n", testing::internal::GetCapturedStdout());
  EXPECT_TRUE(master_->SelectThreadHasStopped());
  EXPECT_LT(took.count(), 1000);
  EXPECT_TRUE(agent_.PeerClosed());
  EXPECT_TRUE(WaitForReport("8|MasterRole select thread terminating."));
  EXPECT_EQ(0, graceful_quit.load());
}

TEST_F(MasterRoleTest, ThreadThatDoesNotStopIsReportedAfterTwoSeconds) {
  tOsaOverrides& overrides = overrides_;
  overrides.sleep = AdvanceClock;
  osSetOverrides(&overrides);
  // Never started: the select thread never reports a stop.
  MasterRole master(FreeLoopbackAddress(), "CRC");
  OwnLogCapture own;
  testing::internal::CaptureStdout();
  master.ShutDown(KES_REASON_NORMAL_SHUTDOWN, "Normal shutdown.");
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(20, s_sleeps);
  EXPECT_EQ(Texts({"MasterRole thread failed to stop"}), own.Texts());
}

TEST_F(MasterRoleTest, RegHandleRequestOnTheMasterLogsOneErrorLine) {
  MasterRole master(FreeLoopbackAddress(), "CRC");
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  message.regHandle.header = {KES_INTERFACE_VERSION, KES_REG_HANDLE};
  OwnLogCapture own;
  master.LocalRegHandleMessage(&message, 18);
  EXPECT_EQ(Texts({"Error: Main card received RegHandle message: ignoring. Logging system may be "
                   "configured incorrectly."}),
            own.Texts());
}

TEST_F(MasterRoleTest, LocalAddLogIsProcessedOnTheMasterWithTheCardId) {
  Register(4, "local", "Local", "local.log");
  MasterRole master(FreeLoopbackAddress(), "CRC");
  EXPECT_TRUE(master.ShouldLogCardID());
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  message.addLog = AddLogRecord(4, 1, 1, 4711, "local line");
  FileCapture system(systemlog);
  master.LocalAddLogMessage(&message, SizeOf(message.addLog), 4);
  const std::vector<std::string> lines = system.Lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find("local line"));
}

}  // namespace
}  // namespace kestrin
