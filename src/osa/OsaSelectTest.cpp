#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "osa/osa.h"

namespace {

constexpr uint32_t LOOPBACK = 0x7f000001;

// A listener on 127.0.0.1 and one connection to it, closed at scope end.
struct Connection {
  long listener = -1;
  long client = -1;
  long server = -1;

  Connection() {
    osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &listener);
    tOsTCPSocketAddress address{LOOPBACK, 0};
    osTCPBind(listener, &address);
    osTCPListen(listener, 6);
    osTCPGetLocalAddress(listener, &address);
    osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &client);
    EXPECT_EQ(OS_OK, osTCPConnect(client, &address));
    EXPECT_EQ(OS_OK, osTCPAccept(listener, &server, nullptr));
  }
  ~Connection() {
    osTCPClose(server);
    osTCPClose(client);
    osTCPClose(listener);
  }
};

TEST(OsaTCPSelect, NothingReadableTimesOut) {
  Connection link;
  long sockets[3] = {link.listener, link.client, link.server};
  int count = 3;
  unsigned long before = osGetClock();
  EXPECT_EQ(OS_ERROR_TIMEOUT, osTCPSelect(sockets, &count, 50));
  EXPECT_GE(osGetClock() - before, 45u);
  EXPECT_EQ(3, count);
  EXPECT_EQ(link.listener, sockets[0]);
}

TEST(OsaTCPSelect, ZeroWaitPollsOnce) {
  Connection link;
  long sockets[1] = {link.server};
  int count = 1;
  EXPECT_EQ(OS_ERROR_TIMEOUT, osTCPSelect(sockets, &count, 0));
}

TEST(OsaTCPSelect, RewritesTheArrayWithReadySocketsFirst) {
  Connection link;
  int sent = 0;
  ASSERT_EQ(OS_OK, osTCPSend(link.client, "x", 1, 0, &sent));
  long sockets[4] = {link.listener, link.client, link.server, 12345};
  sockets[3] = -1;  // entries below zero are skipped
  int count = 4;
  ASSERT_EQ(OS_OK, osTCPSelect(sockets, &count, 2000));
  EXPECT_EQ(1, count);
  EXPECT_EQ(link.server, sockets[0]);
  EXPECT_EQ(-1, sockets[1]);
}

TEST(OsaTCPSelect, PendingConnectionMakesTheListenerReadable) {
  Connection link;
  tOsTCPSocketAddress address{0, 0};
  osTCPGetLocalAddress(link.listener, &address);
  long second = -1;
  osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &second);
  ASSERT_EQ(OS_OK, osTCPConnect(second, &address));
  int sent = 0;
  ASSERT_EQ(OS_OK, osTCPSend(second, "y", 1, 0, &sent));
  ASSERT_EQ(OS_OK, osTCPSend(link.client, "x", 1, 0, &sent));
  long sockets[3] = {link.listener, link.client, link.server};
  int count = 3;
  ASSERT_EQ(OS_OK, osTCPSelect(sockets, &count, 2000));
  ASSERT_EQ(2, count);
  EXPECT_EQ(link.listener, sockets[0]);
  EXPECT_EQ(link.server, sockets[1]);
  EXPECT_EQ(-1, sockets[2]);
  osTCPClose(second);
}

TEST(OsaTCPSelect, ClosedPeerCountsAsReadable) {
  Connection link;
  osTCPClose(link.client);
  link.client = -1;
  long sockets[1] = {link.server};
  int count = 1;
  ASSERT_EQ(OS_OK, osTCPSelect(sockets, &count, 2000));
  EXPECT_EQ(1, count);
}

TEST(OsaTCPSelect, ClosedDescriptorIsABadSocket) {
  long socket = -1;
  osTCPSocket(OS_SOCK_STREAM, 0, &socket);
  osTCPClose(socket);
  long sockets[1] = {socket};
  int count = 1;
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPSelect(sockets, &count, 10));
  EXPECT_EQ(socket, sockets[0]);
  EXPECT_EQ(1, count);
}

TEST(OsaTCPSelect, InvalidArguments) {
  long sockets[1] = {0};
  int count = -1;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSelect(sockets, &count, 0));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSelect(nullptr, &count, 0));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSelect(sockets, nullptr, 0));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSelectWrite(nullptr, &count, 0));
}

TEST(OsaTCPSelect, EmptySetWaitsOnlyWithATimeout) {
  long sockets[1] = {-1};
  int count = 0;
  EXPECT_EQ(OS_ERROR_TIMEOUT, osTCPSelect(sockets, &count, 10));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSelect(sockets, &count, -1));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSelectWrite(sockets, &count, -1));
}

void ignore_signal(int) {}

TEST(OsaTCPSelect, InterruptedWaitAsksForARetry) {
  Connection link;
  struct sigaction action, old;
  memset(&action, 0, sizeof action);
  action.sa_handler = ignore_signal;
  sigaction(SIGUSR2, &action, &old);
  pthread_t waiter = pthread_self();
  std::thread interrupter([waiter] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    pthread_kill(waiter, SIGUSR2);
  });
  long sockets[1] = {link.server};
  int count = 1;
  int rc = osTCPSelect(sockets, &count, 5000);
  interrupter.join();
  sigaction(SIGUSR2, &old, nullptr);
  EXPECT_EQ(OS_ERROR_SELECT_RETRY, rc);
}

TEST(OsaTCPSelectWrite, ConnectedSocketIsWritable) {
  Connection link;
  long sockets[2] = {link.client, link.server};
  int count = 2;
  ASSERT_EQ(OS_OK, osTCPSelectWrite(sockets, &count, 0));
  EXPECT_EQ(2, count);
  EXPECT_EQ(link.client, sockets[0]);
  EXPECT_EQ(link.server, sockets[1]);
}

TEST(OsaTCPSelectWrite, FullSendBufferIsNotWritable) {
  Connection link;
  osTCPSetSndBuf(link.client, 4096);
  osTCPSetRcvBuf(link.server, 4096);
  osTCPSetNonBlocking(link.client, 1);
  char block[4096];
  memset(block, 'f', sizeof block);
  int sent = 0;
  int rc = OS_OK;
  for (int i = 0; i < 100000 && rc == OS_OK; ++i) {
    rc = osTCPSend(link.client, block, sizeof block, 0, &sent);
  }
  ASSERT_EQ(OS_ERROR_WOULD_BLOCK, rc);
  EXPECT_EQ(0, sent);
  long sockets[1] = {link.client};
  int count = 1;
  EXPECT_EQ(OS_ERROR_TIMEOUT, osTCPSelectWrite(sockets, &count, 20));
}

}  // namespace
