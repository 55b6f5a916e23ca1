// Zor::Sockets::ServerSocketManager guarding itself: peers the User refuses
// by address, connections refused for want of descriptors, and clients
// closed after staying silent for the idle time-out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "osa/osa.h"
#include "zor/sockets/ServerSocketManager.h"
#include "zor/sockets/ServerSocketManagerFixture.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_test {
namespace {

using ::testing::ElementsAre;
using Zor::Sockets::SocketHandle;

std::string address_text(long socketId) {
  tOsTCPSocketAddress address{0, 0};
  osTCPGetLocalAddress(socketId, &address);
  char text[64] = {};
  osTCPAddressToString(&address, text, sizeof text);
  return text;
}

class ServerSocketManagerGuard : public ManagerFixture {};

TEST_F(ServerSocketManagerGuard, ARefusedPeerIsClosedAtOnceNeverReadAndNeverAnError) {
  user_.admit = [](const tOsTCPSocketAddress&) { return false; };
  for (int i = 0; i < 5; ++i) {
    const long client = Connect();
    ASSERT_TRUE(send_all(client, raw_header('X', 9, 4)));  // a framing error, were it read
    SelectUntil([&]() { return user_.Count("refused:") == i + 1; });
    EXPECT_TRUE(wait_for_close(client));
    EXPECT_EQ(user_.Events().back(), "refused:" + address_text(client) + ":not-admitted");
  }
  EXPECT_EQ(user_.Count("accepted"), 0);
  EXPECT_EQ(user_.Count("too-many"), 0);
  EXPECT_EQ(manager_.GetNumberOfClients(), 0u);
  EXPECT_EQ(log_->Count("Zor Sockets: Received invalid message header of ( X, 9, 4 )"), 0u);
}

TEST_F(ServerSocketManagerGuard, ThePeersAddressDecides) {
  const long first = Connect();
  user_.admit = [&](const tOsTCPSocketAddress& farEnd) {
    tOsTCPSocketAddress mine{0, 0};
    osTCPGetLocalAddress(first, &mine);
    return farEnd.port == mine.port;
  };
  SelectUntil([&]() { return user_.Accepted().size() == 1; });
  Connect();
  SelectUntil([&]() { return user_.Count("refused:") == 1; });
  EXPECT_EQ(manager_.GetNumberOfClients(), 1u);
}

TEST_F(ServerSocketManagerGuard, RunningOutOfDescriptorsRefusesAndAcceptingGoesOn) {
  tOsaOverrides table = manager_overrides(false);
  ScopedOverrides overrides(table);
  manager_script().accepts.push_back({OS_ERROR_NO_DESCRIPTORS, -1, {0x7f000001, 4242}});
  Connect();
  SelectUntil([&]() { return user_.Accepted().size() == 1; });
  EXPECT_THAT(user_.Events(), ElementsAre("refused:127.0.0.1:4242:no-descriptors",
                                          event("accepted", user_.Accepted()[0])));
  EXPECT_EQ(user_.Count("accept-error"), 0);
}

unsigned long slept_ms = 0;
int record_sleep(unsigned long milliseconds) {
  slept_ms += milliseconds;
  return OS_OK;
}

TEST_F(ServerSocketManagerGuard, WithoutTheReserveAcceptingPausesInsteadOfSpinning) {
  tOsaOverrides table = manager_overrides(false);
  table.sleep = record_sleep;
  ScopedOverrides overrides(table);
  slept_ms = 0;
  manager_script().accepts.push_back({OS_ERROR_NO_DESCRIPTORS, -1, {0, 0}});
  Connect();
  EXPECT_TRUE(SelectOnce());
  EXPECT_THAT(user_.Events(), ElementsAre("refused:0.0.0.0:0:no-descriptors"));
  EXPECT_EQ(100u, slept_ms);
  SelectUntil([&]() { return user_.Accepted().size() == 1; });
  EXPECT_EQ(user_.Count("accept-error"), 0);
}

class ServerSocketManagerIdle : public ManagerFixture {
 protected:
  void SetUp() override {
    ManagerFixture::SetUp();
    table_ = manager_overrides(true);
    overrides_.reset(new ScopedOverrides(table_));
    manager_script().clock = 1000;
    manager_.SetIdleTimeout(2000);
  }
  void TearDown() override { overrides_.reset(); }

  tOsaOverrides table_{};
  std::unique_ptr<ScopedOverrides> overrides_;
};

TEST_F(ServerSocketManagerIdle, ASilentClientIsClosedAndATalkingOneKept) {
  long silentClient = -1;
  long talkingClient = -1;
  const SocketHandle silent = AcceptClient(&silentClient);
  const SocketHandle talking = AcceptClient(&talkingClient);
  manager_script().clock = 2500;
  ASSERT_TRUE(send_all(talkingClient, "F"));  // half a header is still a sign of life
  EXPECT_TRUE(SelectOnce());
  manager_script().clock = 3000;  // the silent one: 2000 since its accept
  EXPECT_TRUE(manager_.Select());
  EXPECT_THAT(user_.Events(), ElementsAre(event("accepted", silent), event("accepted", talking),
                                          event("idle", silent), event("closed", silent)));
  EXPECT_TRUE(wait_for_close(silentClient));
  EXPECT_EQ(manager_.GetNumberOfClients(), 1u);
  manager_script().clock = 4500;  // the talking one: 2000 since it last spoke
  EXPECT_TRUE(manager_.Select());
  EXPECT_EQ(user_.Events().back(), event("closed", talking));
  EXPECT_EQ(manager_.GetNumberOfClients(), 0u);
}

TEST_F(ServerSocketManagerIdle, WithoutATimeOutClientsMayStaySilentForEver) {
  manager_.SetIdleTimeout(0);
  long client = -1;
  AcceptClient(&client);
  manager_script().clock = 1000 + 86400000;
  ASSERT_TRUE(send_all(client, "F"));
  EXPECT_TRUE(SelectOnce());
  EXPECT_EQ(user_.Count("idle"), 0);
  EXPECT_EQ(manager_.GetNumberOfClients(), 1u);
}

}  // namespace
}  // namespace socket_test
