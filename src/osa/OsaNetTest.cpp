#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "osa/OsaTestSupport.h"
#include "osa/osa.h"

namespace {

constexpr uint32_t LOOPBACK = 0x7f000001;

long new_socket() {
  long socket = -1;
  EXPECT_EQ(OS_OK, osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &socket));
  return socket;
}

// A listening socket on 127.0.0.1 with a port chosen by the kernel, and one
// accepted connection to it.
struct Loopback {
  long listener = -1;
  long client = -1;
  long server = -1;
  tOsTCPSocketAddress address{LOOPBACK, 0};
  tOsTCPSocketAddress farEnd{0, 0};

  Loopback() {
    listener = new_socket();
    tOsTCPSocketAddress any{LOOPBACK, 0};
    EXPECT_EQ(OS_OK, osTCPBind(listener, &any));
    EXPECT_EQ(OS_OK, osTCPListen(listener, 6));
    EXPECT_EQ(OS_OK, osTCPGetLocalAddress(listener, &address));
  }
  void Connect() {
    client = new_socket();
    EXPECT_EQ(OS_OK, osTCPConnect(client, &address));
    EXPECT_EQ(OS_OK, osTCPAccept(listener, &server, &farEnd));
  }
  ~Loopback() {
    for (long socket : {listener, client, server}) {
      if (socket >= 0) osTCPClose(socket);
    }
  }
};

TEST(OsaTCP, ListenerGetsAKernelChosenPort) {
  Loopback loop;
  EXPECT_EQ(LOOPBACK, loop.address.ipAddress);
  EXPECT_NE(0, loop.address.port);
}

TEST(OsaTCP, SendAndReceiveOverLoopback) {
  Loopback loop;
  loop.Connect();
  EXPECT_EQ(LOOPBACK, loop.farEnd.ipAddress);
  tOsTCPSocketAddress clientAddress{0, 0};
  ASSERT_EQ(OS_OK, osTCPGetLocalAddress(loop.client, &clientAddress));
  EXPECT_EQ(clientAddress.port, loop.farEnd.port);
  int count = -1;
  ASSERT_EQ(OS_OK, osTCPSend(loop.client, "\x00\x01hello", 7, 0, &count));
  EXPECT_EQ(7, count);
  char buffer[16];
  int got = 0;
  while (got < 7) {
    ASSERT_EQ(OS_OK, osTCPRecv(loop.server, buffer + got, 7 - got, 0, &count));
    ASSERT_GT(count, 0);
    got += count;
  }
  EXPECT_EQ(std::string("\x00\x01hello", 7), std::string(buffer, 7));
  ASSERT_EQ(OS_OK, osTCPSend(loop.server, "back", 4, 0, &count));
  ASSERT_EQ(OS_OK, osTCPRecv(loop.client, buffer, sizeof buffer, 0, &count));
  EXPECT_EQ("back", std::string(buffer, count));
}

TEST(OsaTCP, AcceptedSocketIsBlockingAndCloseOnExec) {
  Loopback loop;
  ASSERT_EQ(OS_OK, osTCPSetNonBlocking(loop.listener, 1));
  loop.Connect();
  EXPECT_EQ(0, fcntl(static_cast<int>(loop.server), F_GETFL) & O_NONBLOCK);
  EXPECT_NE(0, fcntl(static_cast<int>(loop.server), F_GETFD) & FD_CLOEXEC);
  EXPECT_NE(0, fcntl(static_cast<int>(loop.client), F_GETFD) & FD_CLOEXEC);
}

TEST(OsaTCP, AcceptWithNothingPendingWouldBlock) {
  Loopback loop;
  ASSERT_EQ(OS_OK, osTCPSetNonBlocking(loop.listener, 1));
  long accepted = 99;
  EXPECT_EQ(OS_ERROR_WOULD_BLOCK, osTCPAccept(loop.listener, &accepted, nullptr));
  EXPECT_EQ(99, accepted);
}

// In a child, whose descriptor limit the test may lower: a pending
// connection when no descriptor is left is refused with the reserve's help
// (the peer sees it closed), and with nothing pending the accept would block.
int refuse_without_descriptors(void*) {
  long listener = -1;
  if (osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &listener) != OS_OK) return 1;
  tOsTCPSocketAddress address{LOOPBACK, 0};
  if (osTCPBind(listener, &address) != OS_OK || osTCPListen(listener, 6) != OS_OK) return 2;
  osTCPSetNonBlocking(listener, 1);
  osTCPGetLocalAddress(listener, &address);
  long client = -1;
  osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &client);
  if (osTCPConnect(client, &address) != OS_OK) return 3;
  tOsTCPSocketAddress mine{0, 0};
  osTCPGetLocalAddress(client, &mine);
  while (dup(0) >= 0) {  // every descriptor taken (the child has its own table)
  }
  long accepted = -1;
  tOsTCPSocketAddress farEnd{0, 0};
  if (osTCPAccept(listener, &accepted, &farEnd) != OS_ERROR_NO_DESCRIPTORS) return 4;
  if (accepted != -1 || farEnd.ipAddress != LOOPBACK || farEnd.port != mine.port) return 5;
  char byte = 0;
  int count = -1;
  if (osTCPRecv(client, &byte, 1, 0, &count) != OS_OK || count != 0) return 6;  // closed
  if (osTCPAccept(listener, &accepted, &farEnd) != OS_ERROR_WOULD_BLOCK) return 7;
  return 0;
}

TEST(OsaTCP, AConnectionWithNoDescriptorLeftIsRefusedNotLeftPending) {
  osa_test::Child child(refuse_without_descriptors, nullptr, false);
  EXPECT_EQ(0, child.Result());
}

TEST(OsaTCP, EmptyNonBlockingReceiveWouldBlock) {
  Loopback loop;
  loop.Connect();
  ASSERT_EQ(OS_OK, osTCPSetNonBlocking(loop.server, 1));
  char buffer[8];
  int count = 99;
  EXPECT_EQ(OS_ERROR_WOULD_BLOCK, osTCPRecv(loop.server, buffer, sizeof buffer, 0, &count));
  EXPECT_EQ(0, count);
}

TEST(OsaTCP, PeerCloseGivesZeroBytes) {
  Loopback loop;
  loop.Connect();
  ASSERT_EQ(OS_OK, osTCPClose(loop.client));
  loop.client = -1;
  char buffer[8];
  int count = 99;
  EXPECT_EQ(OS_OK, osTCPRecv(loop.server, buffer, sizeof buffer, 0, &count));
  EXPECT_EQ(0, count);
}

TEST(OsaTCP, SendAfterPeerResetFailsWithoutSigpipe) {
  Loopback loop;
  loop.Connect();
  // Linger 0 makes close send a reset instead of an orderly shutdown.
  struct linger abort {
    1, 0
  };
  setsockopt(static_cast<int>(loop.server), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  ASSERT_EQ(OS_OK, osTCPClose(loop.server));
  loop.server = -1;
  int rc = OS_OK;
  int count = 0;
  for (int i = 0; i < 200 && rc == OS_OK; ++i) {
    rc = osTCPSend(loop.client, "data", 4, 0, &count);
    if (rc == OS_OK) usleep(5000);
  }
  // Reaching this line at all shows no SIGPIPE was raised.
  EXPECT_TRUE(rc == OS_ERROR_CONN_RESET || rc == OS_ERROR_BROKEN_PIPE) << rc;
  EXPECT_EQ(0, count);
  // Once reset, every further send fails the same way.
  rc = osTCPSend(loop.client, "data", 4, 0, &count);
  EXPECT_TRUE(rc == OS_ERROR_CONN_RESET || rc == OS_ERROR_BROKEN_PIPE) << rc;
}

TEST(OsaTCP, ConnectWithNoListenerIsRefused) {
  // A bound socket that does not listen holds the port without accepting.
  long holder = new_socket();
  tOsTCPSocketAddress any{LOOPBACK, 0};
  ASSERT_EQ(OS_OK, osTCPBind(holder, &any));
  tOsTCPSocketAddress target{0, 0};
  ASSERT_EQ(OS_OK, osTCPGetLocalAddress(holder, &target));
  long client = new_socket();
  EXPECT_EQ(OS_ERROR_CONN_REFUSED, osTCPConnect(client, &target));
  osTCPClose(client);
  osTCPClose(holder);
}

TEST(OsaTCP, ConnectingTwiceIsAlreadyConnected) {
  Loopback loop;
  loop.Connect();
  EXPECT_EQ(OS_ERROR_IS_CONNECTED, osTCPConnect(loop.client, &loop.address));
}

TEST(OsaTCP, NonBlockingConnectCompletes) {
  Loopback loop;
  long client = new_socket();
  ASSERT_EQ(OS_OK, osTCPSetNonBlocking(client, 1));
  int rc = osTCPConnect(client, &loop.address);
  EXPECT_TRUE(rc == OS_OK || rc == OS_ERROR_IN_PROGRESS) << rc;
  long sockets[1] = {client};
  int count = 1;
  EXPECT_EQ(OS_OK, osTCPSelectWrite(sockets, &count, 2000));
  EXPECT_EQ(1, count);
  EXPECT_EQ(client, sockets[0]);
  osTCPClose(client);
}

TEST(OsaTCP, BindToABusyPortIsAddressInUse) {
  Loopback loop;
  long second = new_socket();
  EXPECT_EQ(OS_ERROR_ADDR_IN_USE, osTCPBind(second, &loop.address));
  osTCPClose(second);
}

TEST(OsaTCP, BindToAForeignAddressIsNotAvailable) {
  // 192.0.2.1 is reserved for documentation: never an address of this host.
  // Binding sends nothing anywhere.
  long socket = new_socket();
  tOsTCPSocketAddress foreign{0xc0000201, 0};
  EXPECT_EQ(OS_ERROR_ADDR_NOT_AVAIL, osTCPBind(socket, &foreign));
  osTCPClose(socket);
}

TEST(OsaTCP, ReceiveOnUnconnectedSocketIsNotConnected) {
  long socket = new_socket();
  char buffer[4];
  int count = 0;
  EXPECT_EQ(OS_ERROR_NOT_CONNECTED, osTCPRecv(socket, buffer, sizeof buffer, 0, &count));
  osTCPClose(socket);
}

TEST(OsaTCP, DescriptorThatIsNotASocketIsABadSocket) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  char buffer[4];
  int count = 0;
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPRecv(fds[0], buffer, sizeof buffer, 0, &count));
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPSend(fds[1], "x", 1, 0, &count));
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPListen(fds[0], 1));
  close(fds[0]);
  close(fds[1]);
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPClose(-1));
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPSetNonBlocking(-1, 1));
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPSetReuseAddr(-1, 1));
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPSetRcvBuf(-1, 1024));
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPSetSndBuf(-1, 1024));
}

TEST(OsaTCP, SocketKinds) {
  long socket = -1;
  ASSERT_EQ(OS_OK, osTCPSocket(OS_SOCK_DGRAM, OS_IPPROTO_UDP, &socket));
  int type = 0;
  socklen_t length = sizeof type;
  getsockopt(static_cast<int>(socket), SOL_SOCKET, SO_TYPE, &type, &length);
  EXPECT_EQ(SOCK_DGRAM, type);
  osTCPClose(socket);
  ASSERT_EQ(OS_OK, osTCPSocket(OS_SOCK_STREAM, 0, &socket));
  getsockopt(static_cast<int>(socket), SOL_SOCKET, SO_TYPE, &type, &length);
  EXPECT_EQ(SOCK_STREAM, type);
  osTCPClose(socket);
}

TEST(OsaTCP, InvalidArguments) {
  long socket = 7;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSocket(3, 0, &socket));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSocket(OS_SOCK_STREAM, 99, &socket));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSocket(OS_SOCK_STREAM, 0, nullptr));
  EXPECT_EQ(7, socket);
  int count = 0;
  char buffer[4];
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSend(3, nullptr, 4, 0, &count));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSend(3, "x", -1, 0, &count));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSend(3, "x", 1, 0, nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPRecv(3, nullptr, 4, 0, &count));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPRecv(3, buffer, -1, 0, &count));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPRecv(3, buffer, 4, 0, nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPConnect(3, nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPBind(3, nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPAccept(3, nullptr, nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPGetLocalAddress(3, nullptr));
}

TEST(OsaTCPOptions, NonBlockingOnAndOff) {
  long socket = new_socket();
  ASSERT_EQ(OS_OK, osTCPSetNonBlocking(socket, 1));
  EXPECT_NE(0, fcntl(static_cast<int>(socket), F_GETFL) & O_NONBLOCK);
  ASSERT_EQ(OS_OK, osTCPSetNonBlocking(socket, 0));
  EXPECT_EQ(0, fcntl(static_cast<int>(socket), F_GETFL) & O_NONBLOCK);
  osTCPClose(socket);
}

int int_option(long socket, int option) {
  int value = -1;
  socklen_t length = sizeof value;
  getsockopt(static_cast<int>(socket), SOL_SOCKET, option, &value, &length);
  return value;
}

TEST(OsaTCPOptions, ReuseAddress) {
  long socket = new_socket();
  ASSERT_EQ(OS_OK, osTCPSetReuseAddr(socket, 1));
  EXPECT_EQ(1, int_option(socket, SO_REUSEADDR));
  ASSERT_EQ(OS_OK, osTCPSetReuseAddr(socket, 0));
  EXPECT_EQ(0, int_option(socket, SO_REUSEADDR));
  osTCPClose(socket);
}

TEST(OsaTCPOptions, BufferSizes) {
  long socket = new_socket();
  ASSERT_EQ(OS_OK, osTCPSetRcvBuf(socket, 65536));
  ASSERT_EQ(OS_OK, osTCPSetSndBuf(socket, 32768));
  // Linux doubles the value for its own bookkeeping; other kernels keep it.
  EXPECT_GE(int_option(socket, SO_RCVBUF), 65536);
  EXPECT_GE(int_option(socket, SO_SNDBUF), 32768);
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSetRcvBuf(socket, -1));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPSetSndBuf(socket, -1));
  osTCPClose(socket);
}

}  // namespace

namespace {

// Runs `body` on a thread and tells whether it ended within `limitMs`.
struct Waiter {
  std::atomic<bool> done{false};
  std::thread thread;
  template <typename Body>
  explicit Waiter(Body body) : thread([this, body]() {
    body();
    done = true;
  }) {}
  bool EndsWithin(int limitMs) {
    for (int waited = 0; waited < limitMs && !done; waited += 5) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done;
  }
  ~Waiter() { thread.join(); }
};

}  // namespace

TEST(OsaTCPShutdown, WakesABlockedReceiveWithZeroBytes) {
  Loopback loop;
  loop.Connect();
  int rc = -1;
  int count = 99;
  char buffer[8];
  Waiter receiver([&]() { rc = osTCPRecv(loop.server, buffer, sizeof buffer, 0, &count); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(receiver.done);
  ASSERT_EQ(OS_OK, osTCPShutdown(loop.server));
  ASSERT_TRUE(receiver.EndsWithin(5000));
  EXPECT_EQ(OS_OK, rc);
  EXPECT_EQ(0, count);
}

TEST(OsaTCPShutdown, WakesASelectOnAListeningSocket) {
  Loopback loop;
  int rc = -1;
  int ready = -1;
  long sockets[1] = {loop.listener};
  Waiter selector([&]() {
    ready = 1;
    rc = osTCPSelect(sockets, &ready, -1);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(selector.done);
  ASSERT_EQ(OS_OK, osTCPShutdown(loop.listener));
  ASSERT_TRUE(selector.EndsWithin(5000));
  EXPECT_EQ(OS_OK, rc);
  EXPECT_EQ(1, ready);
}

TEST(OsaTCPShutdown, TellsThePeerTheConnectionIsClosed) {
  Loopback loop;
  loop.Connect();
  ASSERT_EQ(OS_OK, osTCPShutdown(loop.client));
  char buffer[8];
  int count = 99;
  EXPECT_EQ(OS_OK, osTCPRecv(loop.server, buffer, sizeof buffer, 0, &count));
  EXPECT_EQ(0, count);
}

TEST(OsaTCPShutdown, UnconnectedSocketIsNotConnected) {
  long socket = new_socket();
  EXPECT_EQ(OS_ERROR_NOT_CONNECTED, osTCPShutdown(socket));
  osTCPClose(socket);
}

TEST(OsaTCPShutdown, InvalidSocketIsABadSocket) {
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPShutdown(-1));
}
