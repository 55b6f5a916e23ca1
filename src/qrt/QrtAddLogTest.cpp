#include <gtest/gtest.h>
#include <string.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "protocol/Records.h"
#include "osa/osa.h"
#include "qrt/QrtDiag.h"
#include "qrt/QrtFakeDaemon.h"
#include "qrt/QrtInternal.h"

namespace {

using qrt_test::append_text;
using qrt_test::append_u16;
using qrt_test::append_u32;
using qrt_test::FakeDaemon;
using qrt_test::PrivateRoot;
using qrt_test::QueuedMessage;
using qrt_test::read_u16;
using qrt_test::read_u32;

constexpr size_t FLAGS_OFFSET = 8;
constexpr size_t EVENT_ID_OFFSET = 20;
constexpr size_t PID_OFFSET = 36;
constexpr size_t SECONDS_OFFSET = 24;
constexpr size_t MICROSECONDS_OFFSET = 28;
constexpr size_t TEXT_OFFSET = 40;

// The bytes of an add-log record as the queue carries them, the time words
// taken from `received` (checked separately), then the 4 zero bytes.
std::vector<unsigned char> expected_add_log(uint32_t handle, uint16_t flags, uint16_t destination,
                                            uint32_t severity, uint32_t eventClass,
                                            uint32_t eventId, const std::string& text,
                                            const std::vector<unsigned char>& received) {
  std::vector<unsigned char> bytes;
  append_u16(&bytes, 34);
  append_u16(&bytes, 1);
  append_u32(&bytes, handle);
  append_u16(&bytes, flags);
  append_u16(&bytes, destination);
  append_u32(&bytes, severity);
  append_u32(&bytes, eventClass);
  append_u32(&bytes, eventId);
  append_u32(&bytes, read_u32(received, SECONDS_OFFSET));
  append_u32(&bytes, read_u32(received, MICROSECONDS_OFFSET));
  append_u32(&bytes, 0);
  append_u32(&bytes, static_cast<uint32_t>(getpid()));
  append_text(&bytes, text);
  bytes.push_back(0);
  append_u32(&bytes, 0);
  return bytes;
}

int register_module(const char* inLog) {
  int handle = -1;
  EXPECT_EQ(QRT_OK, QrtDiagRegisterModule("AddLogTest", inLog, 0, "addlog.log", &handle));
  return handle;
}

// Delivers one message so that no earlier drop of this process is still to
// be reported, and empties the queue.
void settle_dropped_flag(const FakeDaemon& daemon, int handle) {
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 0, "settle", 0));
  QueuedMessage message;
  while (daemon.Receive(&message)) {
  }
}

double now_seconds() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_sec) + now.tv_usec / 1e6;
}

TEST(QrtAddLog, SendsTheExactRecord) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Exact");
  settle_dropped_flag(daemon, handle);
  double before = now_seconds();
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 3, 2, 7001, "hello world", 16));
  double after = now_seconds();
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(1, message.type);
  // Record size 40 + 11 + 1, plus the 4 zero bytes of the length convention.
  ASSERT_EQ(56u, message.text.size());
  EXPECT_EQ(expected_add_log(handle, 0, 3, 2, 16, 7001, "hello world", message.text), message.text);
  double stamp =
      read_u32(message.text, SECONDS_OFFSET) + read_u32(message.text, MICROSECONDS_OFFSET) / 1e6;
  EXPECT_GE(stamp, before - 1e-6);
  EXPECT_LE(stamp, after + 1e-6);
  EXPECT_LT(read_u32(message.text, MICROSECONDS_OFFSET), 1000000u);
  EXPECT_FALSE(daemon.Receive(&message));
}

TEST(QrtAddLog, PrintfStyleFormatsTheTextAndLeavesTheClassToTheDaemon) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Printf");
  settle_dropped_flag(daemon, handle);
  ASSERT_EQ(QRT_OK, QrtDiagAddLog(handle, 2, 4, 12, "%s=%d;%05.1f", "level", 42, 3.5));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_add_log(handle, 0, 2, 4, 0, 12, "level=42;003.5", message.text), message.text);
}

TEST(QrtAddLog, HandleZeroIsTheDaemonsDefaultRegistration) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  settle_dropped_flag(daemon, 0);
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(0, 1, 1, 9, "zero", 1));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_add_log(0, 0, 1, 1, 1, 9, "zero", message.text), message.text);
}

TEST(QrtAddLog, SeverityAboveTheFilterIsNotSent) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Filtered");
  settle_dropped_flag(daemon, handle);
  daemon.Filters()->filter[handle] = 2;
  EXPECT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 3, 4, 1, "info", 0));
  EXPECT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 3, 8, 1, "debug", 0));
  EXPECT_EQ(QRT_OK, QrtDiagAddLog(handle, 3, 8, 1, "debug %d", 1));
  EXPECT_EQ(0u, daemon.QueuedCount());
  EXPECT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 3, 2, 1, "warning", 0));
  EXPECT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 3, 1, 1, "error", 0));
  EXPECT_EQ(2u, daemon.QueuedCount());
  // Each handle has its own filter.
  EXPECT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(0, 3, 8, 1, "debug on 0", 0));
  EXPECT_EQ(3u, daemon.QueuedCount());
}

TEST(QrtAddLog, FilteredMessageMakesNoQueueCall) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("NoCall");
  settle_dropped_flag(daemon, handle);
  daemon.Filters()->filter[handle] = 1;
  // With the queue gone, only a message that tries to send can notice.
  ASSERT_EQ(OS_OK, osSysVQueueRemove(daemon.QueueId()));
  EXPECT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 3, 2, 1, "filtered", 0));
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, QrtDiagAddLogWithEvClass(handle, 3, 1, 1, "sent", 0));
}

TEST(QrtAddLog, TextIsCutAt899Characters) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Long");
  settle_dropped_flag(daemon, handle);
  std::string text(1000, 'x');
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 1, text.c_str(), 0));
  ASSERT_EQ(QRT_OK, QrtDiagAddLog(handle, 2, 1, 1, "%s", text.c_str()));
  for (int i = 0; i < 2; ++i) {
    QueuedMessage message;
    ASSERT_TRUE(daemon.Receive(&message));
    ASSERT_EQ(40u + 899 + 1 + 4, message.text.size());
    EXPECT_EQ(expected_add_log(handle, 0, 2, 1, 0, 1, text.substr(0, 899), message.text),
              message.text);
  }
}

TEST(QrtAddLog, TextOf899CharactersIsKeptWhole) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Exactly899");
  settle_dropped_flag(daemon, handle);
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 1, std::string(899, 'y').c_str(), 0));
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 1, std::string(898, 'z').c_str(), 0));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(944u, message.text.size());
  EXPECT_EQ('y', message.text[TEXT_OFFSET + 898]);
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(943u, message.text.size());
}

TEST(QrtAddLog, NullTextIsSentEmpty) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Null");
  settle_dropped_flag(daemon, handle);
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 1, nullptr, 0));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_add_log(handle, 0, 2, 1, 0, 1, "", message.text), message.text);
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagAddLog(handle, 2, 1, 1, nullptr));
}

TEST(QrtAddLog, QueueFullDropsTheMessageAndFlagsTheNextOneThatGetsThrough) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Full");
  settle_dropped_flag(daemon, handle);
  std::string text(50, 'q');  // 91-byte record, 95 bytes on the queue
  ASSERT_EQ(OS_OK, osSysVQueueSetByteLimit(daemon.QueueId(), 100));
  unsigned long droppedBefore = QrtDiagGetDroppedCount();
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 1, text.c_str(), 0));
  EXPECT_EQ(QRT_ERROR_QUEUE_FULL, QrtDiagAddLogWithEvClass(handle, 2, 1, 2, text.c_str(), 0));
  EXPECT_EQ(QRT_ERROR_QUEUE_FULL, QrtDiagAddLog(handle, 2, 1, 3, "%s", text.c_str()));
  EXPECT_EQ(droppedBefore + 2, QrtDiagGetDroppedCount());
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(0, read_u16(message.text, FLAGS_OFFSET));
  EXPECT_EQ(1u, read_u32(message.text, 20));
  EXPECT_FALSE(daemon.Receive(&message));

  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 4, "after the drop", 0));
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_add_log(handle, 2, 2, 1, 0, 4, "after the drop", message.text), message.text);
  // Reported once: the message after it carries no flag.
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 5, "later", 0));
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(0, read_u16(message.text, FLAGS_OFFSET));
}

TEST(QrtAddLog, DropsFromManyThreadsAreAllCounted) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Threads");
  settle_dropped_flag(daemon, handle);
  ASSERT_EQ(OS_OK, osSysVQueueSetByteLimit(daemon.QueueId(), 1000));
  unsigned long droppedBefore = QrtDiagGetDroppedCount();
  std::atomic<unsigned long> refused{0};
  std::atomic<unsigned long> sent{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        int result = QrtDiagAddLog(handle, 2, 1, 1, "thread message %d", i);
        if (result == QRT_ERROR_QUEUE_FULL) ++refused;
        if (result == QRT_OK) ++sent;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(200u, refused + sent);
  EXPECT_GT(refused.load(), 0u);
  EXPECT_EQ(droppedBefore + refused, QrtDiagGetDroppedCount());
  EXPECT_EQ(sent.load(), daemon.QueuedCount());
  QueuedMessage message;
  while (daemon.Receive(&message)) {
  }
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 1, "after", 0));
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(2, read_u16(message.text, FLAGS_OFFSET));
}

TEST(QrtAddLog, ForkedChildSendsItsOwnProcessId) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Forked");
  settle_dropped_flag(daemon, handle);
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 1, "parent", 0));
  pid_t child = fork();
  if (child == 0) _exit(QrtDiagAddLogWithEvClass(handle, 2, 1, 2, "child", 0) == QRT_OK ? 0 : 1);
  ASSERT_GT(child, 0);
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 3, "parent again", 0));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(static_cast<uint32_t>(getpid()), read_u32(message.text, PID_OFFSET));
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(2u, read_u32(message.text, EVENT_ID_OFFSET));
  EXPECT_EQ(static_cast<uint32_t>(child), read_u32(message.text, PID_OFFSET));
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(static_cast<uint32_t>(getpid()), read_u32(message.text, PID_OFFSET));
}

// A shorter message after a longer one: every byte sent is still the
// record's own, up to the zeros of the length convention.
TEST(QrtAddLog, ShortMessageAfterALongOneCarriesNoStaleBytes) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Shorter");
  settle_dropped_flag(daemon, handle);
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 1, std::string(800, 'L').c_str(), 0));
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 2, "s", 0));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_add_log(handle, 0, 2, 1, 0, 2, "s", message.text), message.text);
}

// The queue the library remembers is removed and a new one made under the
// same key (a daemon restarted after its queue was deleted by hand): the
// next message finds the new queue.
TEST(QrtAddLog, QueueReplacedUnderTheSameKeyIsFoundAgain) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = register_module("Replaced");
  settle_dropped_flag(daemon, handle);
  ASSERT_EQ(OS_OK, osSysVQueueRemove(daemon.QueueId()));
  int replacement = -1;
  ASSERT_EQ(OS_OK, osSysVQueueOpen(daemon.Root().Key(KES_QUEUE_PROJECT_ID), 1, &replacement));
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, 2, 1, 9, "to the new queue", 0));
  struct {
    long type;
    char text[2048];
  } received;
  long size = 0;
  ASSERT_EQ(OS_OK, osSysVQueueReceive(replacement, &received, sizeof received.text, 1, &size));
  EXPECT_EQ(static_cast<long>(TEXT_OFFSET + 16 + 1 + 4), size);
  EXPECT_STREQ("to the new queue", received.text + TEXT_OFFSET);
  EXPECT_EQ(OS_OK, osSysVQueueRemove(replacement));
}

TEST(QrtAddLog, InvalidOrUnregisteredHandleIsRefused) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  EXPECT_EQ(QRT_ERROR_INVALID_HANDLE, QrtDiagAddLogWithEvClass(-1, 2, 1, 1, "x", 0));
  EXPECT_EQ(QRT_ERROR_INVALID_HANDLE, QrtDiagAddLogWithEvClass(256, 2, 1, 1, "x", 0));
  EXPECT_EQ(QRT_ERROR_INVALID_HANDLE, QrtDiagAddLogWithEvClass(9, 2, 1, 1, "x", 0));
  EXPECT_EQ(QRT_ERROR_INVALID_HANDLE, QrtDiagAddLog(9, 2, 1, 1, "x"));
  EXPECT_EQ(0u, daemon.QueuedCount());
}

TEST(QrtAddLog, MissingDaemonIsNoDaemon) {
  PrivateRoot root(false);
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, QrtDiagAddLogWithEvClass(0, 2, 1, 1, "x", 0));
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, QrtDiagAddLog(0, 2, 1, 1, "x"));
}

// A queue message as the Master hands it on: type word 1, then an add-log
// record that already carries its handle.
kestrin::tKesLoggerMessage relayed_record(const char* text) {
  kestrin::tKesLoggerMessage message;
  memset(&message, 0x5a, sizeof message);  // garbage beyond the record
  message.mtype = 1;
  kestrin::tKesAddLogMessage& record = message.addLog;
  record.header.version = 34;
  record.header.type = 1;
  record.handle = 77;
  record.flags = 1;
  record.destination = 3;
  record.severity = 8;
  record.eventClass = 256;
  record.eventId = 4242;
  record.timeSeconds = 1700000000;
  record.timeMicroseconds = 42;
  record.cardId = 5;
  record.pid = 999;
  memcpy(record.text, text, strlen(text));
  return message;
}

TEST(QrtAddLog, EnqueueSendsTheRecordAsGiven) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  kestrin::tKesLoggerMessage relayed = relayed_record("relayed text");
  ASSERT_EQ(QRT_OK, EnqueueAddLogMessage(&relayed, 0, 12));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(1, message.type);
  std::vector<unsigned char> expected;
  append_u16(&expected, 34);
  append_u16(&expected, 1);
  append_u32(&expected, 77);
  append_u16(&expected, 1);
  append_u16(&expected, 3);
  append_u32(&expected, 8);
  append_u32(&expected, 256);
  append_u32(&expected, 4242);
  append_u32(&expected, 1700000000);
  append_u32(&expected, 42);
  append_u32(&expected, 5);
  append_u32(&expected, 999);
  append_text(&expected, "relayed text");
  expected.push_back(0);
  append_u32(&expected, 0);
  EXPECT_EQ(expected, message.text);
}

TEST(QrtAddLog, EnqueueDoesNotFilterOrFlag) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  daemon.Filters()->filter[0] = 0;
  kestrin::tKesLoggerMessage relayed = relayed_record("x");
  relayed.addLog.handle = 0;
  ASSERT_EQ(QRT_OK, EnqueueAddLogMessage(&relayed, 1, 1));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(46u, message.text.size());
  EXPECT_EQ(1, read_u16(message.text, FLAGS_OFFSET));
}

TEST(QrtAddLog, EnqueueRejectsBadArguments) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  kestrin::tKesLoggerMessage relayed = relayed_record("x");
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, EnqueueAddLogMessage(nullptr, 0, 1));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, EnqueueAddLogMessage(&relayed, 0, 900));
  relayed.mtype = 2;
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, EnqueueAddLogMessage(&relayed, 0, 1));
  EXPECT_EQ(0u, daemon.QueuedCount());
}

TEST(QrtAddLog, QueuedRecordIsCutAtTheTextLengthAndRefusedForBadArguments) {
  kestrin::tKesLoggerMessage relayed = relayed_record("relayed text");
  kestrin::tKesLoggerMessage out;
  ASSERT_EQ(41u + 7u, FormatQueuedAddLogMessage(&out, &relayed, 7));
  EXPECT_EQ(1, out.mtype);
  EXPECT_STREQ("relayed", out.addLog.text);
  EXPECT_EQ(relayed.addLog.handle, out.addLog.handle);
  EXPECT_EQ(0, out.addLog.text[8]) << "bytes after the record are zero";
  EXPECT_EQ(0u, FormatQueuedAddLogMessage(&out, nullptr, 1));
  EXPECT_EQ(0u, FormatQueuedAddLogMessage(&out, &relayed, 900));
  relayed.mtype = 2;
  EXPECT_EQ(0u, FormatQueuedAddLogMessage(&out, &relayed, 1));
}

TEST(QrtAddLog, EnqueueWithoutWaitingOnAFullQueueIsQueueFullAndNotADrop) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ASSERT_EQ(OS_OK, osSysVQueueSetByteLimit(daemon.QueueId(), 60));
  kestrin::tKesLoggerMessage relayed = relayed_record("x");
  ASSERT_EQ(QRT_OK, EnqueueAddLogMessage(&relayed, 1, 1));
  unsigned long droppedBefore = QrtDiagGetDroppedCount();
  EXPECT_EQ(QRT_ERROR_QUEUE_FULL, EnqueueAddLogMessage(&relayed, 1, 1));
  EXPECT_EQ(droppedBefore, QrtDiagGetDroppedCount());
}

TEST(QrtAddLog, EnqueueWithoutDaemonIsNoDaemon) {
  PrivateRoot root(true);
  kestrin::tKesLoggerMessage relayed = relayed_record("x");
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, EnqueueAddLogMessage(&relayed, 0, 1));
}

}  // namespace
