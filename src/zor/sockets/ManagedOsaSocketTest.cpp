// Zor::Sockets::ManagedOsaSocket: creation, ownership and closing, with the
// exact messages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>

#include <string>
#include <thread>
#include <vector>

#include "osa/osa.h"
#include "zor/sockets/ManagedOsaSocket.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_test {
namespace {

using ::testing::ElementsAre;
using Zor::Sockets::ManagedOsaSocket;

// A descriptor number that is never open: closing it fails with
// OS_ERROR_BAD_SOCKET.
constexpr long NEVER_OPEN = INT_MAX;

bool is_open_descriptor(long id) { return osTCPSetNonBlocking(id, 0) == OS_OK; }

TEST(ManagedOsaSocket, ConstructionCreatesSocketAndLogsItsId) {
  ScopedSocketLog log;
  ManagedOsaSocket socket(OS_SOCK_STREAM, OS_IPPROTO_TCP);
  ASSERT_TRUE(socket.IsOpen());
  EXPECT_TRUE(is_open_descriptor(socket.Get()));
  EXPECT_THAT(log->Entries(),
              ElementsAre(zs(8, "Socket " + std::to_string(socket.Get()) + " created")));
}

TEST(ManagedOsaSocket, InitOnOpenSocketKeepsIt) {
  ScopedSocketLog log;
  ManagedOsaSocket socket(OS_SOCK_STREAM, OS_IPPROTO_TCP);
  const long id = socket.Get();
  log->Clear();
  EXPECT_TRUE(socket.Init(OS_SOCK_STREAM, OS_IPPROTO_TCP));
  EXPECT_EQ(socket.Get(), id);
  EXPECT_TRUE(log->Entries().empty());
}

TEST(ManagedOsaSocket, CreationFailureLeavesNoSocketAndLogsTheCode) {
  ScopedSocketLog log;
  ManagedOsaSocket socket(99, OS_IPPROTO_TCP);  // no such socket type
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(socket.Get(), -1);
  EXPECT_FALSE(socket.Init(99, OS_IPPROTO_TCP));
  EXPECT_THAT(log->Entries(), ElementsAre(zs(1, "Error 2 trying to create a socket"),
                                          zs(1, "Error 2 trying to create a socket")));
}

TEST(ManagedOsaSocket, InitAfterCloseCreatesNewSocket) {
  ManagedOsaSocket socket(OS_SOCK_STREAM, OS_IPPROTO_TCP);
  socket.Close();
  EXPECT_TRUE(socket.Init(OS_SOCK_STREAM, OS_IPPROTO_TCP));
  EXPECT_TRUE(is_open_descriptor(socket.Get()));
}

TEST(ManagedOsaSocket, CloseClearsIdentifierAndClosesDescriptor) {
  ScopedSocketLog log;
  ManagedOsaSocket socket(OS_SOCK_STREAM, OS_IPPROTO_TCP);
  const long id = socket.Get();
  log->Clear();
  socket.Close();
  EXPECT_EQ(socket.Get(), -1);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_FALSE(is_open_descriptor(id));
  EXPECT_TRUE(log->Entries().empty());
  socket.Close();  // nothing open: nothing happens
  EXPECT_TRUE(log->Entries().empty());
}

TEST(ManagedOsaSocket, CloseFailureIsLoggedAsWarningAndIdentifierCleared) {
  ScopedSocketLog log;
  ManagedOsaSocket socket(NEVER_OPEN);
  EXPECT_TRUE(socket.IsOpen());
  socket.Close();
  EXPECT_EQ(socket.Get(), -1);
  EXPECT_THAT(log->Entries(), ElementsAre(zs(2, "Error 307 trying to close socket 2147483647")));
}

TEST(ManagedOsaSocket, AdoptedIdentifierIsClosedByDestructor) {
  long id = -1;
  ASSERT_EQ(osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &id), OS_OK);
  { ManagedOsaSocket socket(id); }
  EXPECT_FALSE(is_open_descriptor(id));
}

TEST(ManagedOsaSocket, ReleaseGivesUpOwnershipWithoutClosing) {
  long id = -1;
  {
    ManagedOsaSocket socket(OS_SOCK_STREAM, OS_IPPROTO_TCP);
    id = socket.Release();
    EXPECT_EQ(socket.Get(), -1);
  }
  EXPECT_TRUE(is_open_descriptor(id));
  osTCPClose(id);
}

TEST(ManagedOsaSocket, CloseDuringAPlatformCallTakesEffectWhenTheCallEnds) {
  ManagedOsaSocket socket(OS_SOCK_STREAM, OS_IPPROTO_TCP);
  const long id = socket.Get();
  {
    ManagedOsaSocket::ScopedUse first(socket);
    ManagedOsaSocket::ScopedUse second(socket);
    EXPECT_EQ(first.Id(), id);
    socket.Close();
    EXPECT_FALSE(socket.IsOpen());
    ManagedOsaSocket::ScopedUse late(socket);
    EXPECT_EQ(late.Id(), -1);  // a call that starts now finds no socket
    EXPECT_TRUE(is_open_descriptor(id));
  }
  EXPECT_FALSE(is_open_descriptor(id));
}

TEST(ManagedOsaSocket, DeferredCloseFailureIsLoggedByTheLastUser) {
  ScopedSocketLog log;
  ManagedOsaSocket socket(NEVER_OPEN);
  {
    ManagedOsaSocket::ScopedUse use(socket);
    socket.Close();
    EXPECT_TRUE(log->Entries().empty());
  }
  EXPECT_THAT(log->Entries(), ElementsAre(zs(2, "Error 307 trying to close socket 2147483647")));
}

TEST(ManagedOsaSocket, ConcurrentClosesReachThePlatformOnce) {
  for (int round = 0; round < 50; ++round) {
    ScopedSocketLog log;
    ManagedOsaSocket socket(NEVER_OPEN);
    std::vector<std::thread> closers;
    for (int i = 0; i < 4; ++i) closers.emplace_back([&socket] { socket.Close(); });
    for (std::thread& closer : closers) closer.join();
    // Each platform close of this identifier fails and is logged: one message
    // means one call.
    ASSERT_EQ(log->Count("Zor Sockets: Error 307 trying to close socket 2147483647"), 1u);
  }
}

}  // namespace
}  // namespace socket_test
