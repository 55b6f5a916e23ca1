#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "kestrin/AlarmTestSupport.h"
#include "kestrin/DaemonTestSupport.h"
#include "kestrin/InternalLog.h"
#include "kestrin/Lifecycle.h"
#include "kestrin/RequestLoop.h"
#include "kestrin/Role.h"

// The queue's status and byte limit and the thread start are wrapped so that
// a test can decide what they give; unset, the real calls run.
extern "C" {
int __real_osSysVQueueStat(int queueId, unsigned long* messageCount, unsigned long* byteLimit);
int __real_osSysVQueueSetByteLimit(int queueId, unsigned long byteLimit);
int __real_osCreateTask(const char* name, int priority, unsigned long stackSize, tOsTaskEntry entry,
                        void* argument, unsigned long* taskId);
int __real_osTCPGetHostName(char* buffer, size_t size);
int __real_osSysVQueueReceive(int queueId, void* message, size_t maxTextSize, int noWait,
                              long* textSize);
}

namespace {

bool s_fakeStat = false;
unsigned long s_fakeByteLimit = 0;
int s_statResult = OS_OK;
int s_setLimitResult = OSA_CALL_REAL;
std::vector<unsigned long> s_limitsSet;
int s_createTaskResult = OSA_CALL_REAL;
std::string s_createdTaskName;
unsigned long s_createdTaskStack = 0;
int s_createdTaskPriority = -1;
const char* s_fakeHostName = nullptr;
std::atomic<int> s_hostNameCalls{0};
std::atomic<int> s_receiveCalls{0};

}  // namespace

extern "C" {
int __wrap_osSysVQueueStat(int queueId, unsigned long* messageCount, unsigned long* byteLimit) {
  if (s_statResult != OS_OK) return s_statResult;
  int result = __real_osSysVQueueStat(queueId, messageCount, byteLimit);
  if (result == OS_OK && s_fakeStat) *byteLimit = s_fakeByteLimit;
  return result;
}

int __wrap_osSysVQueueSetByteLimit(int queueId, unsigned long byteLimit) {
  s_limitsSet.push_back(byteLimit);
  if (s_setLimitResult != OSA_CALL_REAL) return s_setLimitResult;
  return __real_osSysVQueueSetByteLimit(queueId, byteLimit);
}

int __wrap_osCreateTask(const char* name, int priority, unsigned long stackSize, tOsTaskEntry entry,
                        void* argument, unsigned long* taskId) {
  s_createdTaskName = name == nullptr ? "<null>" : name;
  s_createdTaskStack = stackSize;
  s_createdTaskPriority = priority;
  if (s_createTaskResult != OSA_CALL_REAL) return s_createTaskResult;
  return __real_osCreateTask(name, priority, stackSize, entry, argument, taskId);
}

int __wrap_osSysVQueueReceive(int queueId, void* message, size_t maxTextSize, int noWait,
                              long* textSize) {
  ++s_receiveCalls;
  return __real_osSysVQueueReceive(queueId, message, maxTextSize, noWait, textSize);
}

int __wrap_osTCPGetHostName(char* buffer, size_t size) {
  ++s_hostNameCalls;
  if (s_fakeHostName == nullptr) return __real_osTCPGetHostName(buffer, size);
  osLStrCpyn(buffer, s_fakeHostName, size);
  return OS_OK;
}
}

namespace kestrin {
namespace {

using Texts = std::vector<std::string>;

// A role that records the requests handed to it. ShutDown writes its
// arguments to standard error, where death tests can see them.
class RecordingRole : public Role {
 public:
  struct Call {
    std::string operation;
    unsigned int size;
    unsigned int slot;
    uint16_t type;
  };

  bool StartUp() override { return true; }
  void ShutDown(int reason, const char* text) override {
    fprintf(stderr, "ShutDown(%d, %s)\n", reason, text);
  }
  void ShutDownPending() override { calls.push_back({"ShutDownPending", 0, 0, 0}); }
  void LocalAddLogMessage(tKesLoggerMessage* message, unsigned int size,
                          unsigned int slot) override {
    calls.push_back({"AddLog", size, slot, message->header.type});
    lastText = message->addLog.text;
  }
  void LocalLogFileSizeMessage(tKesLoggerMessage* message, unsigned int size) override {
    calls.push_back({"LogFileSize", size, 0, message->header.type});
  }
  void LocalCoreRegisterMessage(tKesLoggerMessage* message, unsigned int size) override {
    calls.push_back({"CoreRegister", size, 0, message->header.type});
  }
  void LocalRegHandleMessage(tKesLoggerMessage* message, unsigned int size) override {
    calls.push_back({"RegHandle", size, 0, message->header.type});
  }

  std::vector<Call> calls;
  std::string lastText;
};

// Every osSleep of the loop: its length and the record count at the time.
std::vector<std::pair<unsigned long, uint64_t>> g_sleeps;
int RecordSleep(unsigned long milliseconds) {
  g_sleeps.emplace_back(milliseconds, NumMessagesReadFromQueue);
  return OS_OK;
}

int SyslogToStandardError(int priority, const char* text) {
  fprintf(stderr, "syslog(%d): %s\n", priority, text);
  return 0;
}

class RequestLoop : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    ResetRequestLoopForTesting();
    FakeClientLibrary::Install();
    InternalEventManager::Instance().SystemCanGenerateEvents();
    s_fakeStat = false;
    s_statResult = OS_OK;
    s_setLimitResult = OS_ERROR_ACCESS_DENIED | (EPERM << 16);
    s_limitsSet.clear();
    s_createTaskResult = OSA_CALL_REAL;
    s_fakeHostName = nullptr;
    hup_received = 0;
    graceful_quit = 0;
    abortive_quit = 0;
    termination_requested = 0;
    LogAddLogMessages = false;
    LogNonAddLogMessages = false;
    MESSAGES_BEFORE_SLEEP = 80;
    SLEEP_TIME = 10;
    QueueKey = 'Q';
    PathnameOfConfigFile = PrivateRootEnvironment::Root() + "/kv/etc/absent.conf";
    PathnameOfTaxonomyFile = PrivateRootEnvironment::Root() + "/kv/etc/absent.taxonomy";
    RolePtr = &role_;
    g_sleeps.clear();
    overrides_ = tOsaOverrides{};
    overrides_.sleep = RecordSleep;
    // Nothing of these tests reaches the machine's system log.
    overrides_.syslog = SyslogToStandardError;
    osSetOverrides(&overrides_);
    createKestrinsQueue();
    ASSERT_NE(-1, sys5q);
    // What the set-up's own queue creation did is not the tests' business.
    FakeClientLibrary::Events().clear();
    s_limitsSet.clear();
  }

  void TearDown() override {
    RolePtr = nullptr;
    hup_received = 0;
    graceful_quit = 0;
    abortive_quit = 0;
    termination_requested = 0;
    DaemonTest::TearDown();
  }

  // Puts `textSize` bytes of `text` on the queue behind the type word.
  void SendText(const void* text, size_t textSize, long typeWord = 1) {
    std::vector<char> buffer(sizeof(long) + textSize);
    memcpy(buffer.data(), &typeWord, sizeof typeWord);
    memcpy(buffer.data() + sizeof(long), text, textSize);
    ASSERT_EQ(OS_OK, osSysVQueueSend(sys5q, buffer.data(), textSize, 1));
  }

  // A record as every sender puts it: its size plus the 4 zero bytes.
  void SendRecord(const void* record, size_t recordSize, long typeWord = 1) {
    std::vector<char> text(recordSize + KES_QUEUE_LENGTH_ALLOWANCE, 0);
    memcpy(text.data(), record, recordSize);
    SendText(text.data(), text.size(), typeWord);
  }

  void SendHeader(uint16_t type, uint16_t version = KES_INTERFACE_VERSION, long typeWord = 1) {
    tKesMessage header{version, type};
    SendRecord(&header, sizeof header, typeWord);
  }

  void SendShutdown() { SendHeader(KES_SHUTDOWN_REQUEST); }

  void SendAddLog(const tKesAddLogMessage& message) { SendRecord(&message, SizeOf(message)); }

  // run() on this thread, ended after 10 s at the latest by a guard that
  // quits the loop (and fails the test) should it still be running.
  void RunLoop() {
    std::atomic<bool> done{false};
    std::atomic<bool> timedOut{false};
    std::thread guard([&]() {
      for (int i = 0; i < 1000 && !done; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      if (done) return;
      timedOut = true;
      graceful_quit = 1;
      SendHeaderOnlyRecord(sys5q, KES_TIMER_TICK, true);
    });
    run();
    done = true;
    guard.join();
    EXPECT_FALSE(timedOut) << "run() did not return in time";
  }

  // The loop in a child process that must end with `status`; the child is a
  // fork writing into this test's root, and a 20-second alarm ends it should
  // it hang. `stderrPattern` must match its standard error.
  void ExpectLoopExit(int status, const char* stderrPattern) {
    ::testing::FLAGS_gtest_death_test_style = "fast";
    EXPECT_EXIT(
        {
          alarm(20);
          osGetTaskId(&MainThreadsTaskId);
          run();
          _exit(99);
        },
        ::testing::ExitedWithCode(status), stderrPattern);
  }

  static std::vector<std::string> EventIds() {
    std::vector<std::string> ids;
    for (const std::string& event : FakeClientLibrary::Events()) {
      // "handle|destination|severity|eventId|class|text"
      size_t start = 0;
      for (int field = 0; field < 3; ++field) start = event.find('|', start) + 1;
      ids.push_back(event.substr(start, event.find('|', start) - start));
    }
    return ids;
  }

  RecordingRole role_;
  tOsaOverrides overrides_{};
};

// ---- queue creation --------------------------------------------------------

TEST_F(RequestLoop, CreatingTheQueueAgainReusesItAndCountsTheWaitingRecords) {
  const int first = sys5q;
  SendHeader(KES_TIMER_TICK);
  SendHeader(KES_TIMER_TICK);
  OwnLogCapture own;
  createKestrinsQueue();
  EXPECT_EQ(first, sys5q);
  EXPECT_EQ(2u, NumMessagesInitiallyInQueue);
  EXPECT_EQ("The message queue is ready.", own.Texts().back());
}

TEST_F(RequestLoop, RefusedByteLimitIsLoggedAndAlarmedButNotFatal) {
  s_fakeStat = true;
  s_fakeByteLimit = 16384;
  OwnLogCapture own;
  createKestrinsQueue();
  EXPECT_EQ(std::vector<unsigned long>({4194304}), s_limitsSet);
  Texts texts = own.Texts();
  ASSERT_GE(texts.size(), 3u);
  EXPECT_EQ(
      Texts({"message queue was 16384 bytes, changing to 4194304 bytes",
             "unable to increase message queue size, errno = 1", "The message queue is ready."}),
      Texts(texts.end() - 3, texts.end()));
  EXPECT_NE(std::string::npos, own.Raw().find("[ERROR] {Kestrin} (-1) - unable to increase"));
  EXPECT_EQ(Texts({"7040"}), EventIds());
}

TEST_F(RequestLoop, ByteLimitOfExactlyFourMebibytesIsLeftAlone) {
  s_fakeStat = true;
  s_fakeByteLimit = 4194304;
  OwnLogCapture own;
  createKestrinsQueue();
  EXPECT_TRUE(s_limitsSet.empty());
  EXPECT_EQ(std::string::npos, own.Raw().find("message queue was"));
  EXPECT_TRUE(EventIds().empty());
}

TEST_F(RequestLoop, LargerByteLimitIsLoweredToFourMebibytes) {
  s_fakeStat = true;
  s_fakeByteLimit = 8388608;
  s_setLimitResult = OS_OK;
  OwnLogCapture own;
  createKestrinsQueue();
  EXPECT_EQ(std::vector<unsigned long>({4194304}), s_limitsSet);
  EXPECT_EQ(1, CountOf(own.Texts(), "message queue was 8388608 bytes, changing to 4194304 bytes"));
  EXPECT_TRUE(EventIds().empty());
}

TEST_F(RequestLoop, QueueStatusFailureEndsTheProcess) {
  ::testing::FLAGS_gtest_death_test_style = "fast";
  s_statResult = OS_ERROR_ACCESS_DENIED | (EACCES << 16);
  OwnLogCapture own;
  EXPECT_EXIT(
      {
        osGetTaskId(&MainThreadsTaskId);
        createKestrinsQueue();
      },
      ::testing::ExitedWithCode(1), "");
  EXPECT_EQ("unable to stat the message queue, errno = 13", own.Texts().back());
}

TEST_F(RequestLoop, MissingKeyFileEndsTheProcessWithTheFtokLine) {
  ::testing::FLAGS_gtest_death_test_style = "fast";
  const std::string keyFile =
      PrivateRootEnvironment::Root() + "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH";
  std::filesystem::rename(keyFile, keyFile + ".away");
  OwnLogCapture own;
  EXPECT_EXIT(
      {
        osGetTaskId(&MainThreadsTaskId);
        createKestrinsQueue();
      },
      ::testing::ExitedWithCode(1), "");
  std::filesystem::rename(keyFile + ".away", keyFile);
  EXPECT_EQ("ftok failed, errno = 2", own.Texts().back());
}

// ---- checks of each record -------------------------------------------------

TEST_F(RequestLoop, SevenBytesOfTextAreDroppedWithEvent7013) {
  const char text[7] = {34, 0, 7, 0, 0, 0, 0};
  SendText(text, sizeof text);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"Received message from queue with body size 3, which is less than the minimum "
                   "of 4",
                   "run(): shutdown request received."}),
            own.Texts());
  EXPECT_EQ(Texts({"7013"}), EventIds());
  EXPECT_TRUE(role_.calls.empty());
}

TEST_F(RequestLoop, EightBytesOfTextPassTheSizeCheck) {
  SendHeader(KES_NO_OP_REQUEST);  // 4-byte record + 4: 8 bytes of text
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"run(): NO-OP request received.", "run(): shutdown request received."}),
            own.Texts());
}

TEST_F(RequestLoop, EmptyRecordCountsAsAReceiveFailure) {
  SendText("", 0);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"run(): msgrcv returned 0, error 0", "run(): shutdown request received."}),
            own.Texts());
  EXPECT_EQ(1u, NumMessagesReadFromQueue) << "only the shutdown request counts as read";
}

TEST_F(RequestLoop, TypeWordTwoIsDroppedAsAnInvalidHeader) {
  SendHeader(KES_NO_OP_REQUEST, KES_INTERFACE_VERSION, 2);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"Received message from queue with invalid header of 2",
                   "run(): shutdown request received."}),
            own.Texts());
  EXPECT_EQ(Texts({"7011"}), EventIds());
}

TEST_F(RequestLoop, Version33IsDroppedWithTheMismatchTextNamingTheIpcQueue) {
  SendHeader(KES_SHUTDOWN_REQUEST, 33);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"Version mismatch: received a message from IPC queue with version 33; expecting "
                   "version 34. Ensure that the QRT Library, the Master, and the Agents are all "
                   "using the same version.",
                   "run(): shutdown request received."}),
            own.Texts());
  EXPECT_EQ(Texts({"7010"}), EventIds());
}

TEST_F(RequestLoop, VersionCheckNamesTheSourceItIsGiven) {
  OwnLogCapture own;
  EXPECT_TRUE(checkMessageVersion(tKesMessage{34, 1}, "agent"));
  EXPECT_FALSE(checkMessageVersion(tKesMessage{35, 1}, "agent"));
  EXPECT_EQ(Texts({"Version mismatch: received a message from agent with version 35; expecting "
                   "version 34. Ensure that the QRT Library, the Master, and the Agents are all "
                   "using the same version."}),
            own.Texts());
}

TEST_F(RequestLoop, RecordChecksCalledDirectlyGiveTheLoopsVerdicts) {
  tKesLoggerMessage message{};
  message.mtype = 1;
  message.header = tKesMessage{KES_INTERFACE_VERSION, KES_NO_OP_REQUEST};
  OwnLogCapture own;
  EXPECT_TRUE(CheckQueueRecord(message, 8));
  EXPECT_FALSE(CheckQueueRecord(message, 7));
  message.mtype = 2;
  EXPECT_FALSE(CheckQueueRecord(message, 8));
  message.mtype = 1;
  message.header.version = 33;
  EXPECT_FALSE(CheckQueueRecord(message, 8));
  EXPECT_EQ(Texts({"Received message from queue with body size 3, which is less than the minimum "
                   "of 4",
                   "Received message from queue with invalid header of 2",
                   "Version mismatch: received a message from IPC queue with version 33; expecting "
                   "version 34. Ensure that the QRT Library, the Master, and the Agents are all "
                   "using the same version."}),
            own.Texts());
  EXPECT_EQ(Texts({"7013", "7011", "7010"}), EventIds());
}

// ---- stale requests ------------------------------------------------------------

TEST_F(RequestLoop, StaleStopHupAndReportAreIgnoredOrMarkedAndAFreshStopStops) {
  SendShutdown();
  SendHeader(KES_RELOAD_REQUEST);
  tKesLoggerMessage report;
  timeval when{1700000000, 0};
  unsigned int size = FormatKesInternalLogRequestMessage(&report.internalLogRequest, when,
                                                         KES_SEVERITY_INFO, 9, "early report");
  SendRecord(&report.internalLogRequest, size);
  createKestrinsQueue();  // a restart: three records were waiting
  ASSERT_EQ(3u, NumMessagesInitiallyInQueue);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"Ignoring stale shutdown request.", "Ignoring stale hup request.",
                   "STALE MESSAGE: early report", "run(): shutdown request received."}),
            own.Texts());
  EXPECT_EQ(4u, NumMessagesReadFromQueue);
}

TEST_F(RequestLoop, FreshHupReloadsTheConfiguration) {
  SendHeader(KES_RELOAD_REQUEST);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  Texts texts = own.Texts();
  ASSERT_GE(texts.size(), 3u);
  EXPECT_EQ("run(): hup request received.", texts[0]);
  bool reread = false;
  for (const std::string& text : texts) {
    reread = reread || text.find("Unable to open config file " + PathnameOfConfigFile) == 0;
  }
  EXPECT_TRUE(reread) << "the configuration file was not read again";
  EXPECT_EQ("run(): shutdown request received.", texts.back());
}

TEST_F(RequestLoop, FreshInternalReportIsWrittenWithItsOwnTime) {
  tKesLoggerMessage report;
  timeval when{1700000000, 250000};
  unsigned int size = FormatKesInternalLogRequestMessage(&report.internalLogRequest, when,
                                                         KES_SEVERITY_WARNING, 12, "from a thread");
  SendRecord(&report.internalLogRequest, size);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(0u, own.Raw().find("2023-11-14T22:13:20.250 [WARN ] {Kestrin} (12) - from a thread\n"));
}

TEST_F(RequestLoop, InternalReportFailingValidationIsDropped) {
  tKesLoggerMessage report;
  timeval when{1700000000, 0};
  unsigned int size = FormatKesInternalLogRequestMessage(&report.internalLogRequest, when,
                                                         KES_SEVERITY_INFO, 1, "abc");
  report.internalLogRequest.messageToLog[3] = 'd';  // no NUL at the record's end
  SendRecord(&report.internalLogRequest, size);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"InternalLogRequestMessage: String not null-terminated, or message size "
                   "incorrect. String: abcd",
                   "run(): shutdown request received."}),
            own.Texts());
}

// ---- unrecognised requests and the failure throttle ----------------------------

TEST_F(RequestLoop, UnrecognizedTypesAreReportedAsSigned16BitNumbers) {
  for (uint16_t type : {3, 4, 9, 10, 16, 99, 65535}) SendHeader(type);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  Texts expected;
  for (const char* type : {"3", "4", "9", "10", "16", "99", "-1"}) {
    expected.push_back(std::string("run(): received unrecognized message type of ") + type);
  }
  expected.push_back("run(): shutdown request received.");
  EXPECT_EQ(expected, own.Texts());
  EXPECT_EQ(Texts({"7011"}), EventIds()) << "one alarm per hour";
}

TEST_F(RequestLoop, NineteenUnrecognizedRecordsDoNotEndTheLoop) {
  for (int i = 0; i < 19; ++i) SendHeader(3);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ("run(): shutdown request received.", own.Texts().back());
}

TEST_F(RequestLoop, TwentyUnrecognizedRecordsWithinFiveSecondsEndTheDaemonThrough902) {
  for (int i = 0; i < 20; ++i) SendHeader(99);
  SendShutdown();
  OwnLogCapture own;
  ExpectLoopExit(0,
                 "ShutDown\\(902, run\\(\\): too many consecutive failures in quick succession. "
                 "Exiting.\\)");
  Texts texts = own.Texts();
  ASSERT_EQ(11u, texts.size());
  EXPECT_EQ(
      "run(): received unrecognized message type of 99 (In future, similar messages may be "
      "suppressed.)",
      texts[9]);
  EXPECT_EQ("run(): too many consecutive failures in quick succession. Exiting.", texts[10]);
}

TEST_F(RequestLoop, RecordLongerThanTheBufferIsTakenOffReportedOnceAndTheLoopGoesOn) {
  std::vector<char> big(2000, 'x');
  SendText(big.data(), big.size());
  SendHeader(KES_NO_OP_REQUEST);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"run(): msgrcv returned -1, error 7; a message of 2000 bytes was taken off "
                   "the queue and dropped",
                   "run(): NO-OP request received.", "run(): shutdown request received."}),
            own.Texts());
  EXPECT_EQ(Texts({"7012"}), EventIds());
  unsigned long waiting = 0;
  unsigned long limit = 0;
  ASSERT_EQ(OS_OK, osSysVQueueStat(sys5q, &waiting, &limit));
  EXPECT_EQ(0u, waiting);
}

TEST_F(RequestLoop, EachOversizedRecordCountsAsOneFailure) {
  // Twenty of them within five seconds are twenty failures: 903. A thread
  // of the child feeds them while the loop runs, since the queue may hold
  // fewer at once.
  ::testing::FLAGS_gtest_death_test_style = "fast";
  OwnLogCapture own;
  EXPECT_EXIT(
      {
        alarm(20);
        osGetTaskId(&MainThreadsTaskId);
        std::thread([]() {
          std::vector<char> big(sizeof(long) + 1800, 'x');
          const long typeWord = 1;
          memcpy(big.data(), &typeWord, sizeof typeWord);
          for (int sent = 0; sent < 20;) {
            if (osSysVQueueSend(sys5q, big.data(), 1800, 0) == OS_OK) ++sent;
          }
        }).detach();
        run();
        _exit(99);
      },
      ::testing::ExitedWithCode(0),
      "ShutDown\\(903, run\\(\\): too many consecutive failures. Exiting.\\)");
  Texts texts = own.Texts();
  ASSERT_EQ(11u, texts.size());
  EXPECT_EQ(
      "run(): msgrcv returned -1, error 7; a message of 1800 bytes was taken off the queue and "
      "dropped",
      texts[0]);
  EXPECT_EQ("run(): too many consecutive failures. Exiting.", texts[10]);
}

// ---- reports left waiting at clean-up ------------------------------------------

class WaitingReports : public RequestLoop {
 protected:
  void SendReport(const char* text, unsigned short severity = KES_SEVERITY_WARNING) {
    tKesLoggerMessage report;
    timeval when{1700000000, 0};
    unsigned int size =
        FormatKesInternalLogRequestMessage(&report.internalLogRequest, when, severity, 7, text);
    SendRecord(&report.internalLogRequest, size);
  }

  // Every record on the queue, taken off: its type and text size, or "big"
  // and the size for one too large for the loop's buffer.
  Texts TakeAll() {
    Texts left;
    for (;;) {
      std::vector<long> buffer(1 + 8192 / sizeof(long));
      long textSize = 0;
      if (osSysVQueueReceive(sys5q, buffer.data(), 8192, 1, &textSize) != OS_OK) return left;
      const auto* record = reinterpret_cast<const tKesLoggerMessage*>(buffer.data());
      left.push_back(textSize > static_cast<long>(KES_MAX_QUEUE_TEXT)
                         ? "big " + std::to_string(textSize)
                         : std::to_string(record->header.type) + " " + std::to_string(textSize));
    }
  }

  unsigned long Waiting() {
    unsigned long count = 0;
    unsigned long limit = 0;
    EXPECT_EQ(OS_OK, osSysVQueueStat(sys5q, &count, &limit));
    return count;
  }
};

TEST_F(WaitingReports, ReportsAtTheFrontAreWrittenAndTheRestIsLeftAlone) {
  SendReport("first");
  SendReport("second", KES_SEVERITY_DEBUG);
  SendHeader(KES_TIMER_TICK);
  SendHeader(KES_DUMP_REG_TABLE);
  OwnLogCapture own;
  WriteWaitingInternalReports();
  EXPECT_EQ(Texts({"first", "second"}), own.Texts());
  EXPECT_EQ(2u, NumMessagesReadFromQueue) << "the tick and the dump were never taken off";
  EXPECT_EQ(Texts({"13 8", "15 8"}), TakeAll());
}

TEST_F(WaitingReports, ReportsBehindOtherRecordsAreWrittenAndTheOthersKeepTheirOrder) {
  SendHeader(KES_TIMER_TICK);
  SendReport("first");
  SendHeader(KES_DUMP_REG_TABLE);
  std::vector<char> big(2000, 'x');
  SendText(big.data(), big.size());
  SendReport("second");
  SendHeader(KES_RELOAD_REQUEST);
  OwnLogCapture own;
  WriteWaitingInternalReports();
  EXPECT_EQ(Texts({"first", "second"}), own.Texts());
  EXPECT_EQ(Texts({"13 8", "15 8", "big 2000", "14 8"}), TakeAll());
}

TEST_F(WaitingReports, WithoutReportsNothingIsTakenOff) {
  SendHeader(KES_TIMER_TICK);
  SendHeader(KES_DUMP_REG_TABLE);
  OwnLogCapture own;
  WriteWaitingInternalReports();
  EXPECT_TRUE(own.Texts().empty());
  EXPECT_EQ(0u, NumMessagesReadFromQueue);
  EXPECT_EQ(Texts({"13 8", "15 8"}), TakeAll());
}

TEST_F(WaitingReports, ReportsWaitingSinceTheStartAreMarkedStale) {
  SendReport("from before the start");
  createKestrinsQueue();
  ASSERT_EQ(1u, NumMessagesInitiallyInQueue);
  SendReport("from now");
  OwnLogCapture own;
  WriteWaitingInternalReports();
  EXPECT_EQ(Texts({"STALE MESSAGE: from before the start", "from now"}), own.Texts());
}

TEST_F(WaitingReports, ABadReportIsReportedAndDroppedAsTheLoopWould) {
  tKesLoggerMessage report;
  timeval when{1700000000, 0};
  unsigned int size = FormatKesInternalLogRequestMessage(&report.internalLogRequest, when,
                                                         KES_SEVERITY_INFO, 1, "abc");
  report.internalLogRequest.messageToLog[3] = 'd';
  SendRecord(&report.internalLogRequest, size);
  OwnLogCapture own;
  WriteWaitingInternalReports();
  EXPECT_EQ(Texts({"InternalLogRequestMessage: String not null-terminated, or message size "
                   "incorrect. String: abcd"}),
            own.Texts());
  EXPECT_EQ(0u, Waiting());
}

TEST_F(WaitingReports, AQueueKeptFullLeavesEveryRecordInPlace) {
  SendHeader(KES_TIMER_TICK);
  SendReport("waits for the next start");
  // Fill the queue to its byte limit, whatever it is here.
  for (size_t size : {8000, 1000, 100, 8}) {
    std::vector<char> filler(size, 'f');
    std::vector<char> buffer(sizeof(long) + size);
    const long typeWord = 1;
    memcpy(buffer.data(), &typeWord, sizeof typeWord);
    memcpy(buffer.data() + sizeof(long), filler.data(), size);
    while (osSysVQueueSend(sys5q, buffer.data(), size, 1) == OS_OK) {
    }
  }
  const unsigned long before = Waiting();
  OwnLogCapture own;
  WriteWaitingInternalReports();
  EXPECT_EQ(Texts({"The request queue stayed full during clean-up; 1 internal reports stay on it "
                   "for the next start"}),
            own.Texts());
  EXPECT_EQ(before, Waiting());
  const Texts left = TakeAll();
  ASSERT_GE(left.size(), 2u);
  EXPECT_EQ("13 8", left[0]);
  EXPECT_EQ("12 " + std::to_string(KesQueueSendLength(22 + 24)), left[1]);
}

// ---- NO-OP, ticks, dumps, obsolete requests -------------------------------------

TEST_F(RequestLoop, ThirdNoOpLogsTheSentenceThreeTimesInOneLine) {
  for (int i = 0; i < 3; ++i) SendHeader(KES_NO_OP_REQUEST);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  const std::string once = "run(): NO-OP request received.";
  EXPECT_EQ(Texts({once, once + once, once + once + once, "run(): shutdown request received."}),
            own.Texts());
  EXPECT_NE(std::string::npos, own.Raw().find("[ERROR] {Kestrin} (-1) - " + once + once + once));
}

TEST_F(RequestLoop, TickFlushesTheFilesAndLogsStatisticsOnTheFirstOfEvery600) {
  systemlog->Printf("unflushed\n");
  ASSERT_TRUE(systemlog->HasUnflushedData());
  SendHeader(KES_TIMER_TICK);
  SendHeader(KES_TIMER_TICK);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_FALSE(systemlog->HasUnflushedData());
  EXPECT_EQ(
      Texts({"Tick number 0 received; 1 messages received", "run(): shutdown request received."}),
      own.Texts());
}

TEST_F(RequestLoop, DumpRequestWritesTheRegistrationTable) {
  Register(5, "Mod5", "Mod5InLog", "five.log");
  SendHeader(KES_DUMP_REG_TABLE);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"***************START of registration table dump***************",
                   "Slot 0: module: NoNameSupplied (NoNameSupplied), file: QrtInternal.log, "
                   "Filter: 8",
                   "Slot 5: module: Mod5 (Mod5InLog), file: five.log, Filter: 8",
                   "****************END of registration table dump****************",
                   "run(): shutdown request received."}),
            own.Texts());
}

TEST_F(RequestLoop, ObsoleteRegisterLogsAndDeregisterIsIgnored) {
  SendHeader(KES_REGISTER_OBSOLETE);
  SendHeader(KES_DEREGISTER_OBSOLETE);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"ERROR! process_register_message was called. This function is obsolete.",
                   "run(): shutdown request received."}),
            own.Texts());
}

// ---- requests for the role --------------------------------------------------

TEST_F(RequestLoop, AddLogGoesToTheRoleWithItsSizeAndSlot) {
  SendAddLog(AddLogRecord(0, 0x1, 4, 5, "hi"));
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  ASSERT_EQ(1u, role_.calls.size());
  EXPECT_EQ("AddLog", role_.calls[0].operation);
  EXPECT_EQ(43u, role_.calls[0].size);
  EXPECT_EQ(0u, role_.calls[0].slot);
  EXPECT_EQ("hi", role_.lastText);
  EXPECT_EQ(Texts({"run(): shutdown request received."}), own.Texts()) << "no trace by default";
}

TEST_F(RequestLoop, AddLogTraceNeedsTheLogAddLogOption) {
  LogAddLogMessages = true;
  SendAddLog(AddLogRecord(0, 0x1, 4, 5, "hi"));
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"From queue: Add Log Message: version 34, handle 0, flags 0, destination Ev, "
                   "severity Info, event class unspecified, event ID 5, time 1700000000.000042, "
                   "card 0, PID 99, \"hi\"",
                   "run(): shutdown request received."}),
            own.Texts());
}

TEST_F(RequestLoop, InvalidAddLogIsReportedAndNeverReachesTheRole) {
  SendAddLog(AddLogRecord(9, 0x1, 4, 5, "hello"));
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_TRUE(role_.calls.empty());
  EXPECT_EQ(Texts({"AddLogMessage: handle 0x9 isn't active. Card: 0, caller's PID: 99, msg: hello",
                   "run(): shutdown request received."}),
            own.Texts());
}

TEST_F(RequestLoop, LogFileSizeAndCoreRegisterAreTracedWithoutAnOption) {
  tKesLogFileSizeMessage size{};
  size.header = tKesMessage{KES_INTERFACE_VERSION, KES_LOG_FILE_SIZE};
  size.sizeOrCount = 5;
  strcpy(size.fileName, "f.log");
  SendRecord(&size, 8 + 6);
  tKesCoreRegister core{};
  core.header = tKesMessage{KES_INTERFACE_VERSION, KES_CORE_REGISTER};
  strcpy(core.queueName, "q1");
  SendRecord(&core, 4 + 3);
  SendShutdown();
  OwnLogCapture own;
  RunLoop();
  EXPECT_EQ(Texts({"From queue: Log File Size Message: version 34, max file size 5 kB, file name "
                   "f.log",
                   "From queue: Core Register Message: version 34, queue name \"q1\"",
                   "run(): shutdown request received."}),
            own.Texts());
  ASSERT_EQ(2u, role_.calls.size());
  EXPECT_EQ("LogFileSize", role_.calls[0].operation);
  EXPECT_EQ(14u, role_.calls[0].size);
  EXPECT_EQ("CoreRegister", role_.calls[1].operation);
  EXPECT_EQ(7u, role_.calls[1].size);
}

tKesRegHandleMessage RegHandle() {
  tKesRegHandleMessage message{};
  message.header = tKesMessage{KES_INTERFACE_VERSION, KES_REG_HANDLE};
  message.handle = 4;
  message.moduleNameInLogOffset = 0;
  message.moduleNameInLogLength = 1;
  message.logFileNameOffset = 2;
  message.logFileNameLength = 5;
  memcpy(message.stringArea, "m\0f.log", 8);
  return message;
}

TEST_F(RequestLoop, RegHandleIsTracedOnlyWithTheLogReqsOption) {
  tKesRegHandleMessage message = RegHandle();
  SendRecord(&message, 16 + 8);
  LogNonAddLogMessages = false;
  SendShutdown();
  OwnLogCapture quiet;
  RunLoop();
  EXPECT_EQ(Texts({"run(): shutdown request received."}), quiet.Texts());

  LogNonAddLogMessages = true;
  SendRecord(&message, 16 + 8);
  SendShutdown();
  OwnLogCapture traced;
  RunLoop();
  EXPECT_EQ(Texts({"From queue: Registration Handle Message: version 34, handle 4, mod name in "
                   "log m, file name f.log",
                   "run(): shutdown request received."}),
            traced.Texts());
  ASSERT_EQ(2u, role_.calls.size());
  EXPECT_EQ("RegHandle", role_.calls[1].operation);
  EXPECT_EQ(24u, role_.calls[1].size);
}

// ---- batching pause ---------------------------------------------------------

TEST_F(RequestLoop, The80thRecordIsFollowedByA10MillisecondPause) {
  for (int i = 0; i < 80; ++i) SendHeader(KES_TIMER_TICK);
  SendShutdown();
  RunLoop();
  ASSERT_EQ(1u, g_sleeps.size());
  EXPECT_EQ(10u, g_sleeps[0].first);
  EXPECT_EQ(80u, g_sleeps[0].second);
}

TEST_F(RequestLoop, RejectedRecordsNeverCauseAPause) {
  for (int i = 0; i < 79; ++i) SendHeader(KES_TIMER_TICK);
  SendHeader(KES_TIMER_TICK, 33);  // the 80th record, rejected
  for (int i = 0; i < 80; ++i) SendHeader(KES_TIMER_TICK);
  SendShutdown();
  RunLoop();
  ASSERT_EQ(1u, g_sleeps.size());
  EXPECT_EQ(160u, g_sleeps[0].second);
}

TEST_F(RequestLoop, BusyQueueTakesOneReceivePerRecord) {
  for (int i = 0; i < 10; ++i) SendHeader(KES_TIMER_TICK);
  SendShutdown();
  s_receiveCalls = 0;
  RunLoop();
  EXPECT_EQ(11, s_receiveCalls.load());
}

TEST_F(RequestLoop, PacingFollowsTheConfiguredBatchAndSleep) {
  MESSAGES_BEFORE_SLEEP = 3;
  SLEEP_TIME = 7;
  for (int i = 0; i < 7; ++i) SendHeader(KES_TIMER_TICK);
  SendShutdown();  // the 8th record: a shutdown returns at once, no pause
  RunLoop();
  EXPECT_EQ((std::vector<std::pair<unsigned long, uint64_t>>({{7, 3}, {7, 6}})), g_sleeps);
}

// ---- signals and flags ------------------------------------------------------

// Sends `signalNumber` to `thread` after 300 ms, and a shutdown request
// 300 ms later when `thenStop` is set.
std::thread SignalLater(pthread_t thread, int signalNumber, bool thenStop) {
  return std::thread([=]() {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    pthread_kill(thread, signalNumber);
    if (!thenStop) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    SendHeaderOnlyRecord(sys5q, KES_SHUTDOWN_REQUEST, true);
  });
}

TEST_F(RequestLoop, SighupWhileBlockedReloadsOnceWithoutAnErrorLine) {
  setup_signal_handling();
  OwnLogCapture own;
  std::thread sender = SignalLater(pthread_self(), SIGHUP, true);
  RunLoop();
  sender.join();
  Texts texts = own.Texts();
  EXPECT_EQ(1, CountOf(texts, "HUP signal received; reloading configuration"));
  for (const std::string& text : texts) EXPECT_EQ(std::string::npos, text.find("msgrcv"));
  EXPECT_EQ("run(): shutdown request received.", texts.back());
  EXPECT_EQ(0, hup_received);
}

TEST_F(RequestLoop, SigintWhileBlockedLogsEintrThenThePendingKill) {
  setup_signal_handling();
  OwnLogCapture own;
  std::thread sender = SignalLater(pthread_self(), SIGINT, false);
  RunLoop();
  sender.join();
  EXPECT_EQ(Texts({"run(): msgrcv returned -1, error EINTR",
                   "Kestrin detected a pending kill of itself. Cleaning up."}),
            own.Texts());
  EXPECT_NE(std::string::npos, own.Raw().find("[WARN ] {Kestrin} (-1) - run(): msgrcv returned"));
}

TEST_F(RequestLoop, SigquitAbortsWithStatusOneAndNoCleanUp) {
  setup_signal_handling();
  raise(SIGQUIT);
  ASSERT_EQ(1, abortive_quit);
  OwnLogCapture own;
  ExpectLoopExit(1, "syslog\\(2\\): Kestrin: Abort requested");
  EXPECT_TRUE(own.Texts().empty());
}

TEST_F(RequestLoop, TerminationRequestEndsTheLoopThroughCleanUp901) {
  termination_requested = 1;
  OwnLogCapture own;
  ExpectLoopExit(0,
                 "ShutDown\\(901, Termination signal received from service manager. Shutting "
                 "down.\\)");
  EXPECT_EQ(Texts({"Termination signal received from service manager. Shutting down."}),
            own.Texts());
}

// ---- the timer-tick thread ----------------------------------------------------

int FailingSleep(unsigned long) { return OS_ERROR_GENERAL; }

std::atomic<int> g_passes{0};
int CountingSleep(unsigned long) {
  if (++g_passes >= 63) graceful_quit = 1;
  return OS_OK;
}

TEST_F(RequestLoop, TickThreadSendsEightByteTickRecords) {
  g_passes = 0;
  overrides_.sleep = CountingSleep;
  osSetOverrides(&overrides_);
  TimerTickThread(0);  // 63 passes, then the quit flag ends it
  for (int i = 0; i < 3; ++i) {
    unsigned char buffer[sizeof(long) + 64] = {};
    long textSize = 0;
    ASSERT_EQ(OS_OK, osSysVQueueReceive(sys5q, buffer, 64, 1, &textSize));
    long typeWord = 0;
    memcpy(&typeWord, buffer, sizeof typeWord);
    EXPECT_EQ(1, typeWord);
    EXPECT_EQ(8, textSize);
    const unsigned char* text = buffer + sizeof(long);
    tKesMessage header;
    memcpy(&header, text, sizeof header);
    EXPECT_EQ(34, header.version);
    EXPECT_EQ(KES_TIMER_TICK, header.type);
    EXPECT_EQ(0, text[4] | text[5] | text[6] | text[7]);
  }
  EXPECT_EQ(0, abortive_quit);
}

TEST_F(RequestLoop, TickThreadRefreshesTheHostNameOnThe62ndPass) {
  g_passes = 0;
  s_hostNameCalls = 0;
  s_fakeHostName = "renamed-host";
  overrides_.sleep = CountingSleep;
  osSetOverrides(&overrides_);
  OwnLogCapture own;
  TimerTickThread(0);
  EXPECT_EQ(1, s_hostNameCalls);
  EXPECT_STREQ("renamed-host", Hostname);
  EXPECT_EQ(1, CountOf(own.Texts(), "Saving new hostname renamed-host"));
}

TEST_F(RequestLoop, TickThreadGivesUpAfter21FailedPassesAndSetsAbortiveQuit) {
  overrides_.sleep = FailingSleep;
  osSetOverrides(&overrides_);
  OwnLogCapture own;
  TimerTickThread(0);
  EXPECT_EQ(1, abortive_quit);
  EXPECT_EQ(21, CountOf(own.Texts(), "TimerTickThread(): osSleep failed: error 1"));
  EXPECT_EQ(21u, own.Texts().size());
}

int ImmediateSleep(unsigned long) { return OS_OK; }

TEST_F(RequestLoop, TickThreadSendFailuresFailThePass) {
  overrides_.sleep = ImmediateSleep;
  osSetOverrides(&overrides_);
  const int queue = sys5q;
  sys5q = -5;  // no such queue
  OwnLogCapture own;
  TimerTickThread(0);
  sys5q = queue;
  EXPECT_EQ(1, abortive_quit);
  EXPECT_EQ(21, CountOf(own.Texts(), "TimerTickThread(): Failed to send message: error -1"));
}

TEST_F(RequestLoop, TickThreadEndsAtOnceWhenAQuitFlagIsSet) {
  graceful_quit = 1;
  g_passes = 0;
  overrides_.sleep = CountingSleep;
  osSetOverrides(&overrides_);
  TimerTickThread(0);
  EXPECT_EQ(0, g_passes);
}

TEST_F(RequestLoop, TickThreadStartsWithAnEmptyNameAnd8KiBStack) {
  s_createTaskResult = OS_ERROR_NO_MEMORY;
  OwnLogCapture own;
  StartTimerTickThread();
  EXPECT_EQ("", s_createdTaskName);
  EXPECT_EQ(8192u, s_createdTaskStack);
  EXPECT_EQ(0, s_createdTaskPriority);
  EXPECT_EQ(Texts({"osCreateTask returned 3; cannot start timer-tick thread"}), own.Texts());
}

}  // namespace
}  // namespace kestrin
