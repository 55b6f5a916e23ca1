// The daemon's own events through the real client library, against the
// resources a running daemon keeps (key file, registration table, filter
// segment, semaphore and request queue) under a private root: the events
// must arrive on the queue as add-log records of the handle registered for
// "Kestrin", exactly as a client's would.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kestrin/AlarmUtils.h"
#include "kestrin/Globals.h"
#include "qrt/QrtDiag.h"
#include "qrt/QrtFakeDaemon.h"

namespace kestrin {
namespace {

using qrt_test::FakeDaemon;
using qrt_test::PrivateRoot;
using qrt_test::QueuedMessage;
using qrt_test::read_u16;
using qrt_test::read_u32;

constexpr size_t TEXT_OFFSET = 40;

// Takes the next add-log record off the daemon's queue and checks its
// fields; `handle` is the registered one.
void ExpectAddLog(const FakeDaemon& daemon, int handle, uint16_t destination, uint32_t severity,
                  uint32_t eventId, const std::string& text, uint32_t eventClass) {
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message)) << "no message for event " << eventId;
  EXPECT_EQ(1, message.type);
  const std::vector<unsigned char>& bytes = message.text;
  ASSERT_GT(bytes.size(), TEXT_OFFSET + text.size());
  EXPECT_EQ(34, read_u16(bytes, 0));
  EXPECT_EQ(1, read_u16(bytes, 2));
  EXPECT_EQ(static_cast<uint32_t>(handle), read_u32(bytes, 4));
  EXPECT_EQ(destination, read_u16(bytes, 10));
  EXPECT_EQ(severity, read_u32(bytes, 12));
  EXPECT_EQ(eventClass, read_u32(bytes, 16));
  EXPECT_EQ(eventId, read_u32(bytes, 20));
  EXPECT_EQ(text, std::string(reinterpret_cast<const char*>(bytes.data()) + TEXT_OFFSET));
}

TEST(InternalEventsWithClientLibrary, EventsReachTheDaemonsQueueAsAddLogRecords) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  InternalEventManager manager;  // the real client library
  manager.GenerateEvent(1, QRT_SEVERITY_WARNING, 7010, "deferred", 1);
  EXPECT_EQ(0ul, daemon.QueuedCount());
  EXPECT_EQ(-1, manager.GetHandle());

  manager.SystemCanGenerateEvents();
  manager.GenerateEvent(1, QRT_SEVERITY_ERROR, 7001, "direct", 2);
  const int handle = manager.GetHandle();
  ASSERT_GE(handle, 1);
  ASSERT_LT(handle, 256);
  EXPECT_EQ(2ul, daemon.QueuedCount());
  ExpectAddLog(daemon, handle, 1, QRT_SEVERITY_WARNING, 7010, "deferred", 1);
  ExpectAddLog(daemon, handle, 1, QRT_SEVERITY_ERROR, 7001, "direct", 2);

  const tKesRegTableEntry& slot = daemon.Table()[handle];
  EXPECT_EQ(KES_SLOT_STATE_REGISTERED, slot.state);
  EXPECT_STREQ("Kestrin", slot.moduleName);
  EXPECT_STREQ("Kestrin", slot.moduleNameInLog);
  EXPECT_STREQ(NameOfKestrinsOwnLog.c_str(), slot.logFileName);
  EXPECT_STREQ("Kestrin.log", slot.logFileName);
}

TEST(InternalEventsWithClientLibrary, WithoutADaemonEventsStayDeferredUntilOneIsThere) {
  InternalEventManager manager;
  {
    PrivateRoot empty(/*withKeyFile=*/false);
    manager.GenerateEvent(1, QRT_SEVERITY_ERROR, 7002, "no daemon yet", 1);
    manager.SystemCanGenerateEvents();
    EXPECT_EQ(-1, manager.GetHandle());
    EXPECT_EQ(1u, manager.GetDeferredEventCount());
  }
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  manager.GenerateEvent(1, QRT_SEVERITY_WARNING, 7012, "daemon found", 1);
  EXPECT_EQ(0u, manager.GetDeferredEventCount());
  ASSERT_NE(-1, manager.GetHandle());
  ExpectAddLog(daemon, manager.GetHandle(), 1, QRT_SEVERITY_ERROR, 7002, "no daemon yet", 1);
  ExpectAddLog(daemon, manager.GetHandle(), 1, QRT_SEVERITY_WARNING, 7012, "daemon found", 1);
}

TEST(InternalEventsWithClientLibrary, EventAboveThePublishedFilterIsNotQueued) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  InternalEventManager manager;
  manager.SystemCanGenerateEvents();
  const int handle = manager.GetHandle();
  ASSERT_GE(handle, 1);
  // The daemon publishes "warnings and errors only" for the own log.
  daemon.Filters()->filter[handle] = QRT_SEVERITY_WARNING;
  manager.GenerateEvent(1, QRT_SEVERITY_DEBUG, 7031, "filtered", 2);
  manager.GenerateEvent(1, QRT_SEVERITY_WARNING, 7030, "passes", 1);
  EXPECT_EQ(1ul, daemon.QueuedCount());
  ExpectAddLog(daemon, handle, 1, QRT_SEVERITY_WARNING, 7030, "passes", 1);
}

}  // namespace
}  // namespace kestrin
