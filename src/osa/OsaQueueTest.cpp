#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <string.h>

#include <chrono>
#include <string>
#include <thread>

#include "osa/OsaTestSupport.h"
#include "osa/osa.h"

namespace {

using osa_test::Child;
using osa_test::ScopedEnv;
using osa_test::unique_name;

// A queue name unique to this run, removed at scope end.
class QueueName {
 public:
  QueueName() : name_(unique_name("OsaQueue")) {}
  ~QueueName() { osQueueDelete(name_.c_str()); }
  const char* Get() const { return name_.c_str(); }

 private:
  std::string name_;
};

// Whether a POSIX queue of that name exists (opened without creating it).
bool queue_exists(const std::string& posixName) {
  mqd_t queue = mq_open(posixName.c_str(), O_RDONLY);
  if (queue == static_cast<mqd_t>(-1)) return false;
  mq_close(queue);
  return true;
}

long queue_of(const char* name) {
  long id = -1;
  EXPECT_EQ(OS_OK, osQueueGetId(name, &id));
  return id;
}

int send_from_child(void* name) {
  long id = -1;
  int rc = osQueueGetId(static_cast<const char*>(name), &id);
  if (rc != OS_OK) return rc;
  return osQueueSend(id, "from the child", 15);
}

TEST(OsaQueue, SentMessageIsReceivedWhole) {
  QueueName name;
  long id = queue_of(name.Get());
  ASSERT_GE(id, 0);
  ASSERT_EQ(OS_OK, osQueueSend(id, "alarm\0set", 9));
  char buffer[64];
  size_t received = 0;
  ASSERT_EQ(OS_OK, osQueueReceive(id, buffer, sizeof buffer, &received, 1000));
  ASSERT_EQ(9u, received);
  EXPECT_EQ(0, memcmp("alarm\0set", buffer, 9));
}

TEST(OsaQueue, MessagesKeepTheirOrder) {
  QueueName name;
  long id = queue_of(name.Get());
  ASSERT_EQ(OS_OK, osQueueSend(id, "one", 3));
  ASSERT_EQ(OS_OK, osQueueSend(id, "two", 3));
  char buffer[8];
  size_t received = 0;
  ASSERT_EQ(OS_OK, osQueueReceive(id, buffer, sizeof buffer, &received, 0));
  EXPECT_EQ("one", std::string(buffer, received));
  ASSERT_EQ(OS_OK, osQueueReceive(id, buffer, sizeof buffer, &received, 0));
  EXPECT_EQ("two", std::string(buffer, received));
}

TEST(OsaQueue, SameNameGivesTheSameId) {
  QueueName name;
  EXPECT_EQ(queue_of(name.Get()), queue_of(name.Get()));
}

TEST(OsaQueue, EmptyQueueTimesOut) {
  QueueName name;
  long id = queue_of(name.Get());
  char buffer[8];
  size_t received = 99;
  unsigned long before = osGetClock();
  EXPECT_EQ(OS_ERROR_TIMEOUT, osQueueReceive(id, buffer, sizeof buffer, &received, 80));
  unsigned long elapsed = osGetClock() - before;
  EXPECT_GE(elapsed, 75u);  // the deadline is on the realtime clock: allow rounding
  EXPECT_LT(elapsed, 5000u);
  EXPECT_EQ(99u, received);
  EXPECT_EQ(OS_ERROR_TIMEOUT, osQueueReceive(id, buffer, sizeof buffer, &received, 0));
}

TEST(OsaQueue, ReceiveWithoutTimeoutWaitsForAMessage) {
  QueueName name;
  long id = queue_of(name.Get());
  std::thread sender([id] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    osQueueSend(id, "late", 4);
  });
  char buffer[8];
  size_t received = 0;
  EXPECT_EQ(OS_OK, osQueueReceive(id, buffer, sizeof buffer, &received, -1));
  sender.join();
  EXPECT_EQ("late", std::string(buffer, received));
}

TEST(OsaQueue, FullQueueWouldBlockAtOnce) {
  QueueName name;
  long id = queue_of(name.Get());
  struct mq_attr attributes;
  ASSERT_EQ(0, mq_getattr(static_cast<mqd_t>(id), &attributes));
  for (long i = 0; i < attributes.mq_maxmsg; ++i) ASSERT_EQ(OS_OK, osQueueSend(id, "x", 1));
  unsigned long before = osGetClock();
  EXPECT_EQ(OS_ERROR_WOULD_BLOCK, osQueueSend(id, "y", 1));
  EXPECT_LT(osGetClock() - before, 1000u);
  char buffer[8];
  size_t received = 0;
  ASSERT_EQ(OS_OK, osQueueReceive(id, buffer, sizeof buffer, &received, 0));
  EXPECT_EQ(OS_OK, osQueueSend(id, "z", 1));
}

TEST(OsaQueue, ShortBufferGetsTheStartOfTheMessage) {
  QueueName name;
  long id = queue_of(name.Get());
  ASSERT_EQ(OS_OK, osQueueSend(id, "0123456789", 10));
  char buffer[4];
  size_t received = 0;
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, osQueueReceive(id, buffer, sizeof buffer, &received, 0));
  EXPECT_EQ(4u, received);
  EXPECT_EQ("0123", std::string(buffer, 4));
  // The message was taken off the queue.
  EXPECT_EQ(OS_ERROR_TIMEOUT, osQueueReceive(id, buffer, sizeof buffer, &received, 0));
}

TEST(OsaQueue, OversizedMessageIsInvalid) {
  QueueName name;
  long id = queue_of(name.Get());
  struct mq_attr attributes;
  ASSERT_EQ(0, mq_getattr(static_cast<mqd_t>(id), &attributes));
  std::string big(static_cast<size_t>(attributes.mq_msgsize) + 1, 'b');
  int rc = osQueueSend(id, big.data(), big.size());
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, rc & 0xffff);
  EXPECT_EQ(EMSGSIZE, osGetSpecificErrorCode(rc));
}

TEST(OsaQueue, EmptyMessageIsSent) {
  QueueName name;
  long id = queue_of(name.Get());
  ASSERT_EQ(OS_OK, osQueueSend(id, nullptr, 0));
  char buffer[4];
  size_t received = 99;
  EXPECT_EQ(OS_OK, osQueueReceive(id, buffer, sizeof buffer, &received, 0));
  EXPECT_EQ(0u, received);
}

TEST(OsaQueue, AnotherProcessReachesTheQueueByName) {
  QueueName name;
  long id = queue_of(name.Get());
  Child child(send_from_child, const_cast<char*>(name.Get()), false);
  EXPECT_EQ(OS_OK, child.Result());
  child.Wait();
  char buffer[32];
  size_t received = 0;
  ASSERT_EQ(OS_OK, osQueueReceive(id, buffer, sizeof buffer, &received, 2000));
  EXPECT_EQ(std::string("from the child", 15), std::string(buffer, received));
}

TEST(OsaQueue, NameIsMappedPerRoot) {
  std::string name = unique_name("OsaQueueRoot");
  char mapped[256];
  {
    ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root");
    ASSERT_EQ(OS_OK, osMapIpcName(name.c_str(), mapped, sizeof mapped));
    queue_of(name.c_str());
  }
  EXPECT_TRUE(queue_exists(std::string("/") + mapped));
  EXPECT_FALSE(queue_exists("/" + name));
  ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root");
  EXPECT_EQ(OS_OK, osQueueDelete(name.c_str()));
  EXPECT_FALSE(queue_exists(std::string("/") + mapped));
}

TEST(OsaQueueDelete, RemovesTheQueue) {
  std::string name = unique_name("OsaQueueGone");
  long id = queue_of(name.c_str());
  ASSERT_EQ(OS_OK, osQueueSend(id, "stale", 5));
  ASSERT_TRUE(queue_exists("/" + name));
  EXPECT_EQ(OS_OK, osQueueDelete(name.c_str()));
  EXPECT_FALSE(queue_exists("/" + name));
  // Looked up again, the name gives a new, empty queue.
  long again = queue_of(name.c_str());
  char buffer[8];
  size_t received = 0;
  EXPECT_EQ(OS_ERROR_TIMEOUT, osQueueReceive(again, buffer, sizeof buffer, &received, 0));
  EXPECT_EQ(OS_OK, osQueueDelete(name.c_str()));
}

TEST(OsaQueueDelete, MissingQueueGivesFileNotFoundWithErrno) {
  int rc = osQueueDelete(unique_name("OsaQueueMissing").c_str());
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, rc & 0xffff);
  EXPECT_EQ(ENOENT, osGetSpecificErrorCode(rc));
}

TEST(OsaQueue, InvalidArguments) {
  long id = 5;
  char buffer[4];
  size_t received = 0;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osQueueGetId(nullptr, &id));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osQueueGetId("", &id));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osQueueGetId("a/b", &id));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osQueueGetId("OsaQueueNull", nullptr));
  EXPECT_EQ(5, id);
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osQueueSend(-1, "x", 1));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osQueueSend(3, nullptr, 1));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osQueueReceive(-1, buffer, 4, &received, 0));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osQueueReceive(3, nullptr, 4, &received, 0));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osQueueReceive(3, buffer, 4, nullptr, 0));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osQueueDelete(nullptr));
}

TEST(OsaQueue, IdThatIsNotAQueueIsRefused) {
  // Descriptor 0 is open but is no message queue.
  int rc = osQueueSend(0, "x", 1);
  EXPECT_EQ(EBADF, osGetSpecificErrorCode(rc));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, rc & 0xffff);
}

}  // namespace
