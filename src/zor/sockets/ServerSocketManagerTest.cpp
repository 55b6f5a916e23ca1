// Zor::Sockets::ServerSocketManager with real loopback clients: listening,
// accepting, messages by handle, handles never reused, the client limit and
// the same-address rule, sending to clients, far-end addresses and Close().
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <thread>
#include <vector>

#include "osa/osa.h"
#include "zor/sockets/ServerSocketManager.h"
#include "zor/sockets/ServerSocketManagerFixture.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_test {
namespace {

using ::testing::ElementsAre;
using Zor::Sockets::ServerSocketManager;
using Zor::Sockets::SocketHandle;

std::string id_text(long id) { return std::to_string(id); }

uint16_t local_port(long socketId) {
  tOsTCPSocketAddress address{0, 0};
  osTCPGetLocalAddress(socketId, &address);
  return address.port;
}

std::vector<unsigned long> sleeps;
int sleep_result = OS_OK;

int counting_sleep(unsigned long milliseconds) {
  sleeps.push_back(milliseconds);
  return sleep_result;
}

class ServerSocketManagerInit : public ::testing::Test {
 protected:
  ServerSocketManagerInit() {
    sleeps.clear();
    sleep_result = OS_OK;
    table_.sleep = counting_sleep;
  }

  ScopedSocketLog log_;
  RecordingManagerUser user_;
  tOsaOverrides table_{};
};

TEST_F(ServerSocketManagerInit, InitListensOnTheLocalAddress) {
  ServerSocketManager manager(&user_, loopback(0));
  ASSERT_TRUE(manager.Init(0, 0));
  const uint16_t port = local_port(manager.GetListeningSocketID());
  ASSERT_NE(port, 0);
  long client = raw_connect(port);
  EXPECT_NE(client, -1);
  raw_close(client);
}

TEST_F(ServerSocketManagerInit, InitWithZeroRetriesMakesOneAttemptWithoutSleeping) {
  ScopedOverrides overrides(table_);
  RawListener blocker;
  ServerSocketManager manager(&user_, blocker.Address());
  EXPECT_FALSE(manager.Init(0, 10));
  EXPECT_TRUE(sleeps.empty());
  EXPECT_EQ(log_->Count("Zor Sockets: Error 305 trying to bind the listening socket " +
                        id_text(manager.GetListeningSocketID()) +
                        " to 127.0.0.1:" + std::to_string(blocker.Port())),
            1u);
}

TEST_F(ServerSocketManagerInit, InitRetriesOnTheSameSocketWithSleepsBetween) {
  ScopedOverrides overrides(table_);
  RawListener blocker;
  ServerSocketManager manager(&user_, blocker.Address());
  EXPECT_FALSE(manager.Init(2, 5));
  EXPECT_THAT(sleeps, ElementsAre(5000u, 5000u));
  const std::string id = id_text(manager.GetListeningSocketID());
  EXPECT_EQ(log_->Count("Zor Sockets: Socket " + id + " created"), 1u);
  EXPECT_EQ(log_->Count("Zor Sockets: Error 305 trying to bind the listening socket " + id +
                        " to 127.0.0.1:" + std::to_string(blocker.Port())),
            3u);
}

TEST_F(ServerSocketManagerInit, InitSleepFailureAbandonsRetries) {
  ScopedOverrides overrides(table_);
  sleep_result = OS_ERROR_GENERAL;
  RawListener blocker;
  ServerSocketManager manager(&user_, blocker.Address());
  EXPECT_FALSE(manager.Init(3, 1));
  EXPECT_THAT(sleeps, ElementsAre(1000u));
  EXPECT_EQ(log_->Entries().back(), zs(1, "In Connect(): osSleep returned 1; abandoning retries"));
}

TEST_F(ServerSocketManagerInit, SelectWithoutListeningSocketReturnsFalse) {
  ServerSocketManager manager(&user_, loopback(0));
  EXPECT_FALSE(manager.Select());
  EXPECT_TRUE(user_.Events().empty());
}

class ServerSocketManagerClients : public ManagerFixture {};

TEST_F(ServerSocketManagerClients, SelectAcceptsClientAndReportsItsHandle) {
  Connect();
  EXPECT_TRUE(SelectOnce());
  ASSERT_EQ(user_.Accepted().size(), 1u);
  const SocketHandle handle = user_.Accepted()[0];
  EXPECT_NE(handle, SocketHandle());
  EXPECT_THAT(user_.Events(), ElementsAre(event("accepted", handle)));
  EXPECT_EQ(manager_.GetNumberOfClients(), 1u);
}

TEST_F(ServerSocketManagerClients, SelectAcceptsEveryPendingConnection) {
  for (int i = 0; i < 3; ++i) Connect();
  ASSERT_TRUE(wait_readable(manager_.GetListeningSocketID(), 5000));
  EXPECT_TRUE(SelectOnce());
  std::vector<SocketHandle> handles = user_.Accepted();
  ASSERT_EQ(handles.size(), 3u);
  EXPECT_LT(handles[0], handles[1]);
  EXPECT_LT(handles[1], handles[2]);
  EXPECT_EQ(manager_.GetNumberOfClients(), 3u);
}

TEST_F(ServerSocketManagerClients, MessagesArriveWithTheirClientsHandle) {
  long first = -1;
  long second = -1;
  const SocketHandle h1 = AcceptClient(&first);
  const SocketHandle h2 = AcceptClient(&second);
  ASSERT_TRUE(send_all(first, frame("from one")));
  ASSERT_TRUE(send_all(second, frame("from two")));
  SelectUntil([&] { return user_.Count("message:") == 2; });
  EXPECT_TRUE(HasEvent(event("message", h1) + ":from one"));
  EXPECT_TRUE(HasEvent(event("message", h2) + ":from two"));
}

TEST_F(ServerSocketManagerClients, WholeFrameIsDeliveredWhenHeaderIsIncluded) {
  manager_.SetReceivedDataShouldIncludeHeader(true);
  long client = -1;
  const SocketHandle handle = AcceptClient(&client);
  ASSERT_TRUE(send_all(client, frame("rec")));
  SelectUntil([&] { return user_.Count("message:") == 1; });
  EXPECT_TRUE(HasEvent(event("message", handle) + ":" + frame("rec")));
}

TEST_F(ServerSocketManagerClients, AtMostHundredMessagesPerClientPerSelect) {
  long client = -1;
  AcceptClient(&client);
  std::string burst;
  for (int n = 0; n < 250; ++n) burst += frame("m");
  ASSERT_TRUE(send_all(client, burst));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  SelectOnce();
  EXPECT_EQ(user_.Count("message:"), 100);
  SelectOnce();
  EXPECT_EQ(user_.Count("message:"), 200);
  SelectOnce();
  EXPECT_EQ(user_.Count("message:"), 250);
}

TEST_F(ServerSocketManagerClients, SelectArrayGrowsBeyondTwelveClients) {
  std::vector<long> clients(20);
  for (long& client : clients) AcceptClient(&client);
  for (size_t i = 0; i < clients.size(); ++i) {
    ASSERT_TRUE(send_all(clients[i], frame("c" + std::to_string(i))));
  }
  SelectUntil([&] { return user_.Count("message:") == 20; });
  EXPECT_EQ(manager_.GetNumberOfClients(), 20u);
}

TEST_F(ServerSocketManagerClients, ClosedClientIsReportedOnceWithItsHandle) {
  long client = -1;
  const SocketHandle handle = AcceptClient(&client);
  CloseClient(client);
  SelectUntil([&] { return HasEvent(event("closed", handle)); });
  EXPECT_THAT(user_.Events(), ElementsAre(event("accepted", handle), event("closed", handle)));
  EXPECT_EQ(manager_.GetNumberOfClients(), 0u);
}

TEST_F(ServerSocketManagerClients, HandlesOfClosedClientsAreNeverGivenOutAgain) {
  std::vector<SocketHandle> handles;
  for (int round = 0; round < 5; ++round) {
    long client = -1;
    handles.push_back(AcceptClient(&client));
    CloseClient(client);
    SelectUntil([&] { return HasEvent(event("closed", handles.back())); });
  }
  for (size_t i = 1; i < handles.size(); ++i) EXPECT_LT(handles[i - 1], handles[i]);
  // A second manager draws from the same process-wide counter.
  RecordingManagerUser otherUser;
  ServerSocketManager other(&otherUser, loopback(0));
  ASSERT_TRUE(other.Init(0, 0));
  long client = raw_connect(local_port(other.GetListeningSocketID()));
  ASSERT_TRUE(wait_readable(other.GetListeningSocketID(), 5000));
  other.Select();
  ASSERT_EQ(otherUser.Accepted().size(), 1u);
  EXPECT_LT(handles.back(), otherUser.Accepted()[0]);
  raw_close(client);
}

TEST_F(ServerSocketManagerClients, HandlesStartAtOneInAFreshProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Connect();
        SelectOnce();
        std::vector<SocketHandle> accepted = user_.Accepted();
        exit(accepted.empty() ? 100 : static_cast<int>(accepted[0].Value()));
      },
      ::testing::ExitedWithCode(1), "");
}

TEST_F(ServerSocketManagerClients, MaximumClientsRefusesExtraClientSilently) {
  manager_.SetMaximumNumberOfClients(2);
  const SocketHandle h1 = AcceptClient();
  const SocketHandle h2 = AcceptClient();
  log_->Clear();
  long third = Connect();
  SelectOnce();
  EXPECT_THAT(user_.Events(), ElementsAre(event("accepted", h1), event("accepted", h2)));
  EXPECT_EQ(manager_.GetNumberOfClients(), 2u);
  std::vector<LogEntry> entries = log_->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_THAT(entries[0].text, ::testing::MatchesRegex("Zor Sockets: Accepted socket [0-9]+"));
  const std::string id =
      entries[0].text.substr(std::string("Zor Sockets: Accepted socket ").size());
  EXPECT_EQ(entries[1], zs(2, "Maximum number of clients exceeded: closing socket " + id));
  EXPECT_TRUE(wait_for_close(third));
}

TEST_F(ServerSocketManagerClients, ClientLimitIsOffByDefault) {
  for (int i = 0; i < 5; ++i) AcceptClient();
  EXPECT_EQ(user_.Count("accepted:"), 5);
  EXPECT_EQ(manager_.GetNumberOfClients(), 5u);
}

TEST_F(ServerSocketManagerClients, SameAddressRuleReplacesTheOldClient) {
  manager_.SetCloseOtherSocketsAtSameIPAddress(true);
  long first = -1;
  const SocketHandle h1 = AcceptClient(&first);
  const SocketHandle h2 = AcceptClient();
  EXPECT_THAT(user_.Events(),
              ElementsAre(event("accepted", h1), event("closed", h1), event("accepted", h2)));
  EXPECT_EQ(manager_.GetNumberOfClients(), 1u);
  EXPECT_TRUE(wait_for_close(first));
}

TEST_F(ServerSocketManagerClients, SameAddressRuleIsOffByDefault) {
  const SocketHandle h1 = AcceptClient();
  const SocketHandle h2 = AcceptClient();
  EXPECT_THAT(user_.Events(), ElementsAre(event("accepted", h1), event("accepted", h2)));
  EXPECT_EQ(manager_.GetNumberOfClients(), 2u);
}

TEST_F(ServerSocketManagerClients, SendReachesTheClient) {
  long client = -1;
  const SocketHandle handle = AcceptClient(&client);
  const std::string bytes = frame("to you");
  EXPECT_EQ(manager_.Send(handle, bytes.data(), static_cast<int>(bytes.size())),
            static_cast<int>(bytes.size()));
  EXPECT_EQ(receive_bytes(client, bytes.size()), bytes);
}

TEST_F(ServerSocketManagerClients, SendToUnknownHandleFails) {
  const std::string bytes = frame("x");
  EXPECT_EQ(manager_.Send(SocketHandle(4000000000u), bytes.data(), 5), -1);
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(8, "Send failing because socket handle not found")));
}

TEST_F(ServerSocketManagerClients, SendToClosedHandleFails) {
  long client = -1;
  const SocketHandle handle = AcceptClient(&client);
  CloseClient(client);
  SelectUntil([&] { return HasEvent(event("closed", handle)); });
  log_->Clear();
  EXPECT_EQ(manager_.Send(handle, "F\x01\x00\x01x", 5), -1);
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(8, "Send failing because socket handle not found")));
}

TEST_F(ServerSocketManagerClients, PeerGoneOnSendReportsClosedHandle) {
  const SocketHandle handle = AcceptClient();
  tOsaOverrides table = manager_overrides(false);
  ScopedOverrides overrides(table);
  manager_script().sendResult = OS_ERROR_BROKEN_PIPE;
  EXPECT_EQ(manager_.Send(handle, "F\x01\x00\x01x", 5), -1);
  EXPECT_TRUE(HasEvent(event("closed", handle)));
  EXPECT_EQ(manager_.GetNumberOfClients(), 0u);
  EXPECT_EQ(user_.Count("too-many"), 0);
}

TEST_F(ServerSocketManagerClients, GetAddressOfFarEndGivesTheClientsAddress) {
  long client = -1;
  const SocketHandle handle = AcceptClient(&client);
  tOsTCPSocketAddress farEnd = manager_.GetAddressOfFarEnd(handle);
  EXPECT_EQ(farEnd.ipAddress, 0x7f000001u);
  EXPECT_EQ(farEnd.port, local_port(client));
}

TEST_F(ServerSocketManagerClients, GetAddressOfFarEndOfUnknownHandleLogsAndGivesZeros) {
  tOsTCPSocketAddress farEnd = manager_.GetAddressOfFarEnd(SocketHandle(4000000000u));
  EXPECT_EQ(farEnd.ipAddress, 0u);
  EXPECT_EQ(farEnd.port, 0);
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "GetAddressOfFarEnd failing because socket handle not found")));
}

TEST_F(ServerSocketManagerClients, CloseClosesEverythingWithoutCallingTheUser) {
  long first = -1;
  long second = -1;
  AcceptClient(&first);
  AcceptClient(&second);
  const std::vector<std::string> before = user_.Events();
  log_->Clear();
  manager_.Close();
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(8, "Closing the ServerSocketManager")));
  EXPECT_EQ(user_.Events(), before);
  EXPECT_EQ(manager_.GetNumberOfClients(), 0u);
  EXPECT_TRUE(wait_for_close(first));
  EXPECT_TRUE(wait_for_close(second));
  EXPECT_EQ(raw_connect(port_), -1);
  EXPECT_FALSE(manager_.Select());
}

TEST_F(ServerSocketManagerClients, CallbacksRunWithoutTheLock) {
  LockProbe probe;
  std::vector<bool> free;
  auto probeLock = [&](ServerSocketManager& manager) {
    free.push_back(probe.Run([&manager] { manager.GetNumberOfClients(); }));
  };
  user_.onAccepted = [&](ServerSocketManager& m, SocketHandle) { probeLock(m); };
  user_.onMessage = [&](ServerSocketManager& m, SocketHandle, const std::string&) { probeLock(m); };
  user_.onClosed = [&](ServerSocketManager& m, SocketHandle) { probeLock(m); };
  user_.onTooMany = [&](ServerSocketManager& m) { probeLock(m); };
  long client = -1;
  const SocketHandle handle = AcceptClient(&client);
  ASSERT_TRUE(send_all(client, frame("hi")));
  SelectUntil([&] { return user_.Count("message:") == 1; });
  CloseClient(client);
  SelectUntil([&] { return HasEvent(event("closed", handle)); });
  for (int i = 0; i < 4; ++i) CauseSocketError();  // closed events and TooManySocketErrors
  probe.Join();
  EXPECT_EQ(user_.Count("too-many"), 1);
  EXPECT_EQ(free.size(), 12u);  // 5 accepted, 1 message, 5 closed, 1 too-many
  for (bool wasFree : free) EXPECT_TRUE(wasFree);
}

// The client being read is removed from the maps by a callback (here Close()
// drops every entry) while its Receive() still runs: the counted reference
// taken for the read keeps the object alive until Receive() returns.
TEST_F(ServerSocketManagerClients, CountedReferenceKeepsSocketAliveDuringItsCallbacks) {
  long client = -1;
  const SocketHandle handle = AcceptClient(&client);
  user_.onMessage = [](ServerSocketManager& manager, SocketHandle, const std::string&) {
    manager.Close();
  };
  ASSERT_TRUE(send_all(client, frame("first") + frame("second")));
  SelectUntil([&] { return user_.Count("message:") >= 1; });
  EXPECT_THAT(user_.Events(),
              ElementsAre(event("accepted", handle), event("message", handle) + ":first"));
  EXPECT_EQ(manager_.GetNumberOfClients(), 0u);
  EXPECT_TRUE(wait_for_close(client));
}

}  // namespace
}  // namespace socket_test
