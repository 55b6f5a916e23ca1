#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "osa/osa.h"
#include "qrt/QrtDiag.h"
#include "qrt/QrtFakeDaemon.h"

namespace {

using qrt_test::append_text;
using qrt_test::append_u16;
using qrt_test::append_u32;
using qrt_test::FakeDaemon;
using qrt_test::PrivateRoot;
using qrt_test::QueuedMessage;

// A log-file-size record as the queue carries it, with the 4 zero bytes.
std::vector<unsigned char> expected_size_record(uint32_t sizeOrCount, const std::string& name) {
  std::vector<unsigned char> bytes;
  append_u16(&bytes, 34);
  append_u16(&bytes, 6);
  append_u32(&bytes, sizeOrCount);
  append_text(&bytes, name);
  bytes.push_back(0);
  append_u32(&bytes, 0);
  return bytes;
}

TEST(QrtRequests, SetLogFileSizeSendsTheSizeInKilobytes) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ASSERT_EQ(QRT_OK, QrtDiagSetLogFileSize("radio.log", 2048));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(1, message.type);
  EXPECT_EQ(expected_size_record(2048, "radio.log"), message.text);
  EXPECT_EQ(22u, message.text.size());
}

TEST(QrtRequests, SetLogFileBackupsSetsTheTopBit) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ASSERT_EQ(QRT_OK, QrtDiagSetLogFileBackups("radio.log", 5));
  ASSERT_EQ(QRT_OK, QrtDiagSetLogFileBackups("radio.log", 0));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_size_record(0x80000005u, "radio.log"), message.text);
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_size_record(0x80000000u, "radio.log"), message.text);
}

TEST(QrtRequests, ValuesNeedingTheTopBitAreRefused) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  EXPECT_EQ(QRT_OK, QrtDiagSetLogFileSize("a.log", 0x7fffffffUL));
  EXPECT_EQ(QRT_OK, QrtDiagSetLogFileBackups("a.log", 0x7fffffffUL));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagSetLogFileSize("a.log", 0x80000000UL));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagSetLogFileBackups("a.log", 0x80000000UL));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_size_record(0x7fffffffu, "a.log"), message.text);
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_size_record(0xffffffffu, "a.log"), message.text);
  EXPECT_FALSE(daemon.Receive(&message));
}

TEST(QrtRequests, FileNameIsCutAt511Characters) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  std::string name(600, 'n');
  ASSERT_EQ(QRT_OK, QrtDiagSetLogFileSize(name.c_str(), 64));
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(8u + 511 + 1 + 4, message.text.size());
  EXPECT_EQ(expected_size_record(64, name.substr(0, 511)), message.text);
}

TEST(QrtRequests, MissingOrEmptyFileNameIsRefused) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagSetLogFileSize(nullptr, 1));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagSetLogFileSize("", 1));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagSetLogFileBackups(nullptr, 1));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagSetLogFileBackups("", 1));
  EXPECT_EQ(0u, daemon.QueuedCount());
}

TEST(QrtRequests, DumpRequestIsABareHeader) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ASSERT_EQ(QRT_OK, QrtDiagDumpRegistrationTable());
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(1, message.type);
  std::vector<unsigned char> expected;
  append_u16(&expected, 34);
  append_u16(&expected, 15);
  append_u32(&expected, 0);
  EXPECT_EQ(expected, message.text);
}

TEST(QrtRequests, FullQueueIsQueueFullWithoutWaiting) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ASSERT_EQ(OS_OK, osSysVQueueSetByteLimit(daemon.QueueId(), 10));
  ASSERT_EQ(QRT_OK, QrtDiagDumpRegistrationTable());
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(QRT_ERROR_QUEUE_FULL, QrtDiagDumpRegistrationTable());
  EXPECT_EQ(QRT_ERROR_QUEUE_FULL, QrtDiagSetLogFileSize("a.log", 1));
  EXPECT_EQ(QRT_ERROR_QUEUE_FULL, QrtDiagSetLogFileBackups("a.log", 1));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(1u, daemon.QueuedCount());
}

TEST(QrtRequests, MissingDaemonIsNoDaemonQuickly) {
  PrivateRoot root(false);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, QrtDiagSetLogFileSize("a.log", 1));
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, QrtDiagSetLogFileBackups("a.log", 1));
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, QrtDiagDumpRegistrationTable());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(QrtRequests, KeyFileWithoutQueueIsNoDaemonAndCreatesNoQueue) {
  PrivateRoot root(true);
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, QrtDiagDumpRegistrationTable());
  int id = -1;
  EXPECT_NE(OS_OK, osSysVQueueOpen(root.Key(KES_QUEUE_PROJECT_ID), 0, &id));
}

TEST(QrtRequests, QueueRemovedAndMadeAgainIsFoundAgain) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ASSERT_EQ(QRT_OK, QrtDiagDumpRegistrationTable());
  // A restarted daemon on a machine where the queue was removed by hand.
  ASSERT_EQ(OS_OK, osSysVQueueRemove(daemon.QueueId()));
  int queueId = -1;
  ASSERT_EQ(OS_OK, osSysVQueueOpen(daemon.Root().Key(KES_QUEUE_PROJECT_ID), 1, &queueId));
  EXPECT_EQ(QRT_OK, QrtDiagDumpRegistrationTable());
  unsigned long count = 0;
  osSysVQueueStat(queueId, &count, nullptr);
  EXPECT_EQ(1u, count);
  osSysVQueueRemove(queueId);
}

}  // namespace
