#include <gtest/gtest.h>
#include <signal.h>
#include <sys/msg.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "osa/OsaTestSupport.h"
#include "osa/osa.h"

namespace {

struct QueueBuffer {
  long type;
  char text[64];
};

// A private queue keyed on a file of its own, removed at scope end.
class PrivateQueue {
 public:
  PrivateQueue() {
    keyFile_ = dir_.File("key");
    osa_test::write_file(keyFile_, "k");
    EXPECT_EQ(OS_OK, osSysVKey(keyFile_.c_str(), 'Q', &key_));
    EXPECT_EQ(OS_OK, osSysVQueueOpen(key_, 1, &id_));
  }
  ~PrivateQueue() { osSysVQueueRemove(id_); }
  int Id() const { return id_; }
  int Key() const { return key_; }

 private:
  osa_test::TempDir dir_;
  std::string keyFile_;
  int key_ = 0;
  int id_ = -1;
};

TEST(OsSysVKey, MissingFileIsNotFoundWithErrno) {
  int key = 0;
  int result = osSysVKey("/nonexistent-kestrin-key-file", 'Q', &key);
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, result & 0xffff);
  EXPECT_EQ(ENOENT, osGetSpecificErrorCode(result));
}

TEST(OsSysVQueue, OpenWithoutCreateFindsOnlyExistingQueue) {
  PrivateQueue queue;
  int again = -1;
  ASSERT_EQ(OS_OK, osSysVQueueOpen(queue.Key(), 0, &again));
  EXPECT_EQ(queue.Id(), again);
  ASSERT_EQ(OS_OK, osSysVQueueRemove(queue.Id()));
  int result = osSysVQueueOpen(queue.Key(), 0, &again);
  EXPECT_EQ(ENOENT, osGetSpecificErrorCode(result));
}

TEST(OsSysVQueue, SendAndReceiveKeepTypeWordAndTextSize) {
  PrivateQueue queue;
  QueueBuffer out{};
  out.type = 1;
  memcpy(out.text, "\x22\x00\x0d\x00\0\0\0\0", 8);
  ASSERT_EQ(OS_OK, osSysVQueueSend(queue.Id(), &out, 8, 1));
  QueueBuffer in{};
  long size = 0;
  ASSERT_EQ(OS_OK, osSysVQueueReceive(queue.Id(), &in, sizeof in.text, 1, &size));
  EXPECT_EQ(8, size);
  EXPECT_EQ(1, in.type);
  EXPECT_EQ(0, memcmp(out.text, in.text, 8));
}

TEST(OsSysVQueue, EmptyQueueWithoutWaitingWouldBlock) {
  PrivateQueue queue;
  QueueBuffer in{};
  long size = -5;
  EXPECT_EQ(OS_ERROR_WOULD_BLOCK, osSysVQueueReceive(queue.Id(), &in, sizeof in.text, 1, &size));
  EXPECT_EQ(-5, size);
}

TEST(OsSysVQueue, TooLongMessageStaysQueuedAndReportsE2big) {
  PrivateQueue queue;
  QueueBuffer out{};
  out.type = 1;
  ASSERT_EQ(OS_OK, osSysVQueueSend(queue.Id(), &out, 40, 1));
  QueueBuffer in{};
  long size = 0;
  int result = osSysVQueueReceive(queue.Id(), &in, 10, 1, &size);
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, result & 0xffff);
  EXPECT_EQ(E2BIG, osGetSpecificErrorCode(result));
  unsigned long count = 0;
  ASSERT_EQ(OS_OK, osSysVQueueStat(queue.Id(), &count, nullptr));
  EXPECT_EQ(1u, count);
}

TEST(OsSysVQueue, PeekCopiesARecordByPositionAndLeavesItQueued) {
  PrivateQueue queue;
  for (const char* text : {"first", "second"}) {
    QueueBuffer out{};
    out.type = 1;
    strcpy(out.text, text);
    ASSERT_EQ(OS_OK, osSysVQueueSend(queue.Id(), &out, strlen(text) + 1, 1));
  }
  QueueBuffer in{};
  long size = 0;
  ASSERT_EQ(OS_OK, osSysVQueuePeek(queue.Id(), 1, &in, sizeof in.text, &size));
  EXPECT_EQ(7, size);
  EXPECT_STREQ("second", in.text);
  ASSERT_EQ(OS_OK, osSysVQueuePeek(queue.Id(), 0, &in, sizeof in.text, &size));
  EXPECT_STREQ("first", in.text);
  size = -5;
  EXPECT_EQ(OS_ERROR_WOULD_BLOCK, osSysVQueuePeek(queue.Id(), 2, &in, sizeof in.text, &size));
  EXPECT_EQ(-5, size);
  int result = osSysVQueuePeek(queue.Id(), 0, &in, 3, &size);
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, result & 0xffff);
  EXPECT_EQ(E2BIG, osGetSpecificErrorCode(result));
  unsigned long count = 0;
  ASSERT_EQ(OS_OK, osSysVQueueStat(queue.Id(), &count, nullptr));
  EXPECT_EQ(2u, count);
}

TEST(OsSysVQueue, DiscardFirstTakesOffARecordOfAnySizeAndTellsItsSize) {
  PrivateQueue queue;
  size_t maxText = 0;
  ASSERT_EQ(OS_OK, osSysVQueueMaxTextSize(&maxText));
  EXPECT_GE(maxText, 2000u);
  std::vector<char> big(sizeof(long) + 2000, 'b');
  const long typeWord = 1;
  memcpy(big.data(), &typeWord, sizeof typeWord);
  ASSERT_EQ(OS_OK, osSysVQueueSend(queue.Id(), big.data(), 2000, 1));
  QueueBuffer small{};
  small.type = 1;
  ASSERT_EQ(OS_OK, osSysVQueueSend(queue.Id(), &small, 8, 1));
  long size = 0;
  ASSERT_EQ(OS_OK, osSysVQueueDiscardFirst(queue.Id(), &size));
  EXPECT_EQ(2000, size);
  ASSERT_EQ(OS_OK, osSysVQueueDiscardFirst(queue.Id(), nullptr));
  EXPECT_EQ(OS_ERROR_WOULD_BLOCK, osSysVQueueDiscardFirst(queue.Id(), &size));
}

TEST(OsSysVQueue, FullQueueWithoutWaitingWouldBlock) {
  PrivateQueue queue;
  ASSERT_EQ(OS_OK, osSysVQueueSetByteLimit(queue.Id(), 64));
  unsigned long limit = 0;
  ASSERT_EQ(OS_OK, osSysVQueueStat(queue.Id(), nullptr, &limit));
  EXPECT_EQ(64u, limit);
  QueueBuffer out{};
  out.type = 1;
  ASSERT_EQ(OS_OK, osSysVQueueSend(queue.Id(), &out, 64, 1));
  EXPECT_EQ(OS_ERROR_WOULD_BLOCK, osSysVQueueSend(queue.Id(), &out, 8, 1));
}

std::atomic<int> g_signalsSeen{0};
void CountSignal(int) { g_signalsSeen++; }

TEST(OsSysVQueue, SignalInterruptsBlockingReceiveAsRetry) {
  PrivateQueue queue;
  ASSERT_EQ(OS_OK, osSetSignalHandler(SIGUSR1, CountSignal));
  struct Args {
    pthread_t target;
  } args{pthread_self()};
  unsigned long taskId = 0;
  ASSERT_EQ(OS_OK, osCreateTask("", 0, 0,
                                [](void* a) {
                                  osSleep(200);
                                  pthread_kill(static_cast<Args*>(a)->target, SIGUSR1);
                                },
                                &args, &taskId));
  QueueBuffer in{};
  long size = 0;
  int result = osSysVQueueReceive(queue.Id(), &in, sizeof in.text, 0, &size);
  EXPECT_EQ(OS_ERROR_RETRY, result & 0xffff);
  EXPECT_EQ(EINTR, osGetSpecificErrorCode(result));
  EXPECT_EQ(1, g_signalsSeen.load());
  signal(SIGUSR1, SIG_DFL);
}

TEST(OsSysVSemaphore, SetAddAndRead) {
  osa_test::TempDir dir;
  std::string keyFile = dir.File("key");
  osa_test::write_file(keyFile, "k");
  int key = 0;
  ASSERT_EQ(OS_OK, osSysVKey(keyFile.c_str(), 'J', &key));
  int id = -1;
  ASSERT_EQ(OS_OK, osSysVSemaphoreOpen(key, 1, &id));
  ASSERT_EQ(OS_OK, osSysVSemaphoreSetValue(id, 1));
  ASSERT_EQ(OS_OK, osSysVSemaphoreAdd(id, -1));
  int value = -1;
  ASSERT_EQ(OS_OK, osSysVSemaphoreGetValue(id, &value));
  EXPECT_EQ(0, value);
  ASSERT_EQ(OS_OK, osSysVSemaphoreAdd(id, 1));
  ASSERT_EQ(OS_OK, osSysVSemaphoreGetValue(id, &value));
  EXPECT_EQ(1, value);
  EXPECT_EQ(OS_OK, osSysVSemaphoreRemove(id));
}

std::vector<std::string>* g_syslogLines = nullptr;
int RecordSyslog(int priority, const char* text) {
  g_syslogLines->push_back(std::to_string(priority) + ":" + text);
  return 0;
}

TEST(OsSyslog, OverrideSeesFormattedLine) {
  std::vector<std::string> lines;
  g_syslogLines = &lines;
  tOsaOverrides overrides{};
  overrides.syslog = RecordSyslog;
  osSetOverrides(&overrides);
  osSyslog(OS_LOG_ERR, "osGetTaskId returned %d", 7);
  osSetOverrides(nullptr);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("3:osGetTaskId returned 7", lines[0]);
}

int FixedTime(long* seconds, long* microseconds) {
  *seconds = 1234;
  *microseconds = 567;
  return OS_OK;
}

TEST(OsGetTimeOfDay, RealClockIsRecentAndOverrideReplacesIt) {
  long seconds = 0;
  long microseconds = -1;
  ASSERT_EQ(OS_OK, osGetTimeOfDay(&seconds, &microseconds));
  EXPECT_GT(seconds, 1600000000L);
  EXPECT_GE(microseconds, 0);
  EXPECT_LT(microseconds, 1000000);
  tOsaOverrides overrides{};
  overrides.timeOfDay = FixedTime;
  osSetOverrides(&overrides);
  osGetTimeOfDay(&seconds, &microseconds);
  osSetOverrides(nullptr);
  EXPECT_EQ(1234, seconds);
  EXPECT_EQ(567, microseconds);
}

}  // namespace

namespace {

int PathWithoutSlash(int kind, char* out, size_t outSize) {
  osLStrCpyn(out, kind == OS_PATH_LOG ? "/var/log" : "/etc", outSize);
  return OS_OK;
}

TEST(OsGetPath, OverrideReplacesTheDirectory) {
  tOsaOverrides overrides{};
  overrides.getPath = PathWithoutSlash;
  osSetOverrides(&overrides);
  char out[64];
  int result = osGetPath(OS_PATH_LOG, out, sizeof out);
  osSetOverrides(nullptr);
  EXPECT_EQ(OS_OK, result);
  EXPECT_STREQ("/var/log", out);
}

int RunNothing(const char* command) { return command[0] == 'x' ? 3 : OSA_CALL_REAL; }

TEST(OsRunShellCommand, RunsTheShellAndOverrideCanReplaceIt) {
  EXPECT_EQ(0, osRunShellCommand("true"));
  EXPECT_EQ(1 << 8, osRunShellCommand("exit 1"));
  tOsaOverrides overrides{};
  overrides.runShellCommand = RunNothing;
  osSetOverrides(&overrides);
  EXPECT_EQ(3, osRunShellCommand("x"));
  EXPECT_EQ(2 << 8, osRunShellCommand("exit 2"));
  osSetOverrides(nullptr);
}

}  // namespace
