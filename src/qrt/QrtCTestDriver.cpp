// Runs the functions of QrtCTest.c, the client library used from C.
#include <gtest/gtest.h>

#include <string>

#include "qrt/QrtFakeDaemon.h"

extern "C" {
int qrt_c_register_and_log(void);
int qrt_c_without_daemon(const char** text);
unsigned long qrt_c_slot_size(void);
}

namespace {

using qrt_test::FakeDaemon;
using qrt_test::PrivateRoot;
using qrt_test::QueuedMessage;
using qrt_test::read_u16;
using qrt_test::read_u32;

TEST(QrtC, RegistersAndLogsFromC) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ASSERT_EQ(1, qrt_c_register_and_log());
  EXPECT_STREQ("CModuleInLog", daemon.Table()[1].moduleNameInLog);
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(1u, read_u32(message.text, 4));
  EXPECT_EQ(2, read_u16(message.text, 10));
  EXPECT_EQ(1u, read_u32(message.text, 12));
  EXPECT_EQ(0u, read_u32(message.text, 16));
  EXPECT_EQ(42u, read_u32(message.text, 20));
  EXPECT_EQ("from C: 7 seven", std::string(message.text.begin() + 40, message.text.end() - 5));
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(3, read_u16(message.text, 10));
  EXPECT_EQ(2u, read_u32(message.text, 12));
  EXPECT_EQ(8u, read_u32(message.text, 16));
  EXPECT_EQ(43u, read_u32(message.text, 20));
  EXPECT_EQ("classed", std::string(message.text.begin() + 40, message.text.end() - 5));
}

TEST(QrtC, NoDaemonFromC) {
  PrivateRoot root(false);
  const char* text = nullptr;
  EXPECT_EQ(1, qrt_c_without_daemon(&text));
  EXPECT_STREQ("the Kestrin daemon is not running", text);
}

TEST(QrtC, SharedLayoutHasTheSameSizeInC) { EXPECT_EQ(804u, qrt_c_slot_size()); }

}  // namespace
