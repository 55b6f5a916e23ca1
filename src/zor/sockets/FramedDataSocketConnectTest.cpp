// Zor::Sockets::FramedDataSocket: construction, option setters, Connect()
// with its retries, and Close(), against real loopback sockets. Connect
// attempts and sleeps are counted through the platform layer's overrides.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>

#include <string>
#include <vector>

#include "osa/osa.h"
#include "zor/sockets/FramedDataSocket.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_test {
namespace {

using ::testing::ElementsAre;
using Zor::Sockets::FramedDataSocket;

constexpr long NEVER_OPEN = INT_MAX;
constexpr long HUGE_BUFFER = 1L << 40;  // beyond what the platform accepts (error 2)

std::string id_text(long id) { return std::to_string(id); }

std::string address_text(uint16_t port) { return "127.0.0.1:" + std::to_string(port); }

// What the overrides saw; reset by the fixture.
std::vector<long> connect_sockets;
int failing_connects = 0;  // this many attempts fail with OS_ERROR_CONN_REFUSED first
std::vector<unsigned long> sleeps;
int sleep_result = OS_OK;

int counting_connect(long socket, const tOsTCPSocketAddress* /*address*/) {
  connect_sockets.push_back(socket);
  if (failing_connects > 0) {
    --failing_connects;
    return OS_ERROR_CONN_REFUSED;
  }
  return OSA_CALL_REAL;
}

int counting_sleep(unsigned long milliseconds) {
  sleeps.push_back(milliseconds);
  return sleep_result;
}

class FramedDataSocketConnect : public ::testing::Test {
 protected:
  FramedDataSocketConnect() {
    connect_sockets.clear();
    failing_connects = 0;
    sleeps.clear();
    sleep_result = OS_OK;
    table_.tcpConnect = counting_connect;
    table_.sleep = counting_sleep;
  }

  tOsaOverrides table_{};
  ScopedSocketLog log_;
  RecordingSocketUser user_;
};

TEST_F(FramedDataSocketConnect, ClientConstructorCreatesSocketAndAppliesOptions) {
  FramedDataSocket socket(&user_, false, 65536, 32768);
  ASSERT_TRUE(socket.IsOpen());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Socket " + id_text(socket.GetSocketID()) + " created")));
  EXPECT_TRUE(user_.Events().empty());
}

TEST_F(FramedDataSocketConnect, ClientConstructorStopsAtFirstFailingOption) {
  FramedDataSocket socket(&user_, false, HUGE_BUFFER, HUGE_BUFFER);
  EXPECT_FALSE(socket.IsOpen());
  // Created, then the receive buffer fails and closes it: the send buffer
  // size is never tried.
  std::vector<LogEntry> entries = log_->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].level, 8);
  EXPECT_THAT(entries[0].text, ::testing::MatchesRegex("Zor Sockets: Socket [0-9]+ created"));
  const std::string id = entries[0].text.substr(20, entries[0].text.size() - 28);
  EXPECT_EQ(entries[1], zs(1,
                           "Error 2 trying to set receive buffer size to 1099511627776 on "
                           "socket " +
                               id));
}

TEST_F(FramedDataSocketConnect, ClientConstructorSendBufferFailureClosesSocket) {
  FramedDataSocket socket(&user_, false, 0, HUGE_BUFFER);
  EXPECT_FALSE(socket.IsOpen());
  std::vector<LogEntry> entries = log_->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[1].level, 1);
  EXPECT_THAT(entries[1].text,
              ::testing::MatchesRegex("Zor Sockets: Error 2 trying to set send buffer size to "
                                      "1099511627776 on socket [0-9]+"));
}

TEST_F(FramedDataSocketConnect, ServerConstructorAdoptsSocketAndFarEndWithoutOptions) {
  const tOsTCPSocketAddress farEnd{0x0a000002u, 4242};
  FramedDataSocket socket(&user_, NEVER_OPEN, farEnd);
  EXPECT_EQ(socket.GetSocketID(), NEVER_OPEN);
  EXPECT_EQ(socket.GetAddressOfFarEnd().ipAddress, 0x0a000002u);
  EXPECT_EQ(socket.GetAddressOfFarEnd().port, 4242);
  // Any option call on this identifier would have failed and been logged.
  EXPECT_TRUE(log_->Entries().empty());
  socket.ReleaseSocketID();
}

TEST_F(FramedDataSocketConnect, NonBlockingSetterFailureClosesSocketAndLogs) {
  FramedDataSocket socket(&user_, NEVER_OPEN, loopback(1));
  EXPECT_FALSE(socket.SetSocketIsNonBlocking(true));
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(2, "Error 307 trying to close socket 2147483647"),
                          zs(1,
                             "Error 307 trying to set non-blocking mode to 1 on socket "
                             "2147483647")));
}

TEST_F(FramedDataSocketConnect, BufferSizeSetterFailureNamesValueAndSocket) {
  FramedDataSocket receiving(&user_, NEVER_OPEN, loopback(1));
  EXPECT_FALSE(receiving.SetReceiveBufferSize(4096));
  FramedDataSocket sending(&user_, NEVER_OPEN, loopback(1));
  EXPECT_FALSE(sending.SetSendBufferSize(8192));
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(2, "Error 307 trying to close socket 2147483647"),
                          zs(1,
                             "Error 307 trying to set receive buffer size to 4096 on socket "
                             "2147483647"),
                          zs(2, "Error 307 trying to close socket 2147483647"),
                          zs(1,
                             "Error 307 trying to set send buffer size to 8192 on socket "
                             "2147483647")));
}

TEST_F(FramedDataSocketConnect, ZeroBufferSizeSucceedsWithoutTouchingTheSocket) {
  FramedDataSocket socket(&user_, NEVER_OPEN, loopback(1));
  EXPECT_TRUE(socket.SetReceiveBufferSize(0));
  EXPECT_TRUE(socket.SetSendBufferSize(0));
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_TRUE(log_->Entries().empty());
  socket.ReleaseSocketID();
}

TEST_F(FramedDataSocketConnect, NegativeBufferSizeFailsWithoutClosing) {
  FramedDataSocket socket(&user_, false, 0, 0);
  log_->Clear();
  EXPECT_FALSE(socket.SetReceiveBufferSize(-1));
  EXPECT_FALSE(socket.SetSendBufferSize(-5));
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_TRUE(log_->Entries().empty());
}

TEST_F(FramedDataSocketConnect, SettersOnClosedSocketStoreValueForTheNextSocket) {
  ScopedOverrides overrides(table_);
  FramedDataSocket socket(&user_, false, 0, 0);
  socket.Close();
  log_->Clear();
  EXPECT_TRUE(socket.SetSocketIsNonBlocking(false));
  EXPECT_TRUE(socket.SetReceiveBufferSize(HUGE_BUFFER));
  EXPECT_TRUE(log_->Entries().empty());
  RawListener listener;
  EXPECT_FALSE(socket.Connect(listener.Address(), 0, 0));
  // The new socket got the stored size, which failed: no connect was tried.
  EXPECT_TRUE(connect_sockets.empty());
  std::vector<LogEntry> entries = log_->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_THAT(entries[1].text,
              ::testing::MatchesRegex("Zor Sockets: Error 2 trying to set receive buffer size to "
                                      "1099511627776 on socket [0-9]+"));
}

TEST_F(FramedDataSocketConnect, ConnectLogsSuccessAtDebugLevel) {
  RawListener listener;
  FramedDataSocket socket(&user_, false, 0, 0);
  log_->Clear();
  ASSERT_TRUE(socket.Connect(listener.Address(), 0, 0));
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Socket " + id_text(socket.GetSocketID()) +
                                    " connected to server at " + address_text(listener.Port()))));
  EXPECT_EQ(socket.GetAddressOfFarEnd().port, listener.Port());
  EXPECT_EQ(socket.GetAddressOfFarEnd().ipAddress, 0x7f000001u);
  long peer = listener.Accept();
  EXPECT_NE(peer, -1);
  raw_close(peer);
}

TEST_F(FramedDataSocketConnect, ConnectToPortWithoutListenerLogsRefusalAndKeepsSocket) {
  const uint16_t port = unused_port();
  FramedDataSocket socket(&user_, false, 0, 0);
  const long id = socket.GetSocketID();
  log_->Clear();
  EXPECT_FALSE(socket.Connect(loopback(port), 0, 0));
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(1, "Error 301 trying to connect to far end at " + address_text(port) +
                                    " on socket " + id_text(id))));
  EXPECT_EQ(socket.GetSocketID(), id);
  EXPECT_TRUE(user_.Events().empty());
}

TEST_F(FramedDataSocketConnect, ConnectWithZeroRetriesMakesOneAttemptWithoutSleeping) {
  ScopedOverrides overrides(table_);
  failing_connects = 100;
  FramedDataSocket socket(&user_, false, 0, 0);
  EXPECT_FALSE(socket.Connect(loopback(unused_port()), 0, 10));
  EXPECT_EQ(connect_sockets.size(), 1u);
  EXPECT_TRUE(sleeps.empty());
}

TEST_F(FramedDataSocketConnect, ConnectRetriesSleepSecondsBetweenAttempts) {
  ScopedOverrides overrides(table_);
  failing_connects = 100;
  FramedDataSocket socket(&user_, false, 0, 0);
  EXPECT_FALSE(socket.Connect(loopback(unused_port()), 2, 3));
  EXPECT_EQ(connect_sockets.size(), 3u);
  EXPECT_THAT(sleeps, ElementsAre(3000u, 3000u));
}

TEST_F(FramedDataSocketConnect, ConnectStopsAtFirstSuccessfulAttempt) {
  ScopedOverrides overrides(table_);
  failing_connects = 2;
  RawListener listener;
  FramedDataSocket socket(&user_, false, 0, 0);
  EXPECT_TRUE(socket.Connect(listener.Address(), 5, 1));
  EXPECT_EQ(connect_sockets.size(), 3u);
  EXPECT_THAT(sleeps, ElementsAre(1000u, 1000u));
  long peer = listener.Accept();
  EXPECT_NE(peer, -1);
  raw_close(peer);
}

TEST_F(FramedDataSocketConnect, FailedSocketIsKeptForTheNextAttempt) {
  ScopedOverrides overrides(table_);
  failing_connects = 100;
  FramedDataSocket socket(&user_, false, 0, 0);
  const long id = socket.GetSocketID();
  log_->Clear();
  EXPECT_FALSE(socket.Connect(loopback(unused_port()), 3, 0));
  EXPECT_THAT(connect_sockets, ElementsAre(id, id, id, id));
  std::vector<std::string> texts = log_->Texts();
  EXPECT_EQ(texts.size(), 4u);  // one refusal per attempt, no new socket
  for (const std::string& text : texts) EXPECT_EQ(text.find(" created"), std::string::npos);
}

TEST_F(FramedDataSocketConnect, ClosedSocketIsReplacedOnTheNextAttempt) {
  ScopedOverrides overrides(table_);
  RawListener listener;
  FramedDataSocket socket(&user_, false, 0, 0);
  socket.Close();
  log_->Clear();
  ASSERT_TRUE(socket.Connect(listener.Address(), 0, 0));
  const long id = socket.GetSocketID();
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Socket " + id_text(id) + " created"),
                          zs(8, "Socket " + id_text(id) + " connected to server at " +
                                    address_text(listener.Port()))));
  raw_close(listener.Accept());
}

TEST_F(FramedDataSocketConnect, SleepFailureAbandonsRetries) {
  ScopedOverrides overrides(table_);
  failing_connects = 100;
  sleep_result = OS_ERROR_GENERAL;
  FramedDataSocket socket(&user_, false, 0, 0);
  log_->Clear();
  EXPECT_FALSE(socket.Connect(loopback(unused_port()), 5, 2));
  EXPECT_EQ(connect_sockets.size(), 1u);
  EXPECT_THAT(sleeps, ElementsAre(2000u));
  std::vector<LogEntry> entries = log_->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[1], zs(1, "In Connect(): osSleep returned 1; abandoning retries"));
}

TEST_F(FramedDataSocketConnect, NonBlockingConnectIsReportedAsFailedAttempt) {
  RawListener listener;
  FramedDataSocket socket(&user_, true, 0, 0);
  const long id = socket.GetSocketID();
  log_->Clear();
  // A non-blocking connect only starts the handshake: the platform says
  // OS_ERROR_IN_PROGRESS, which counts as a failed attempt.
  EXPECT_FALSE(socket.Connect(listener.Address(), 0, 0));
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(1, "Error 308 trying to connect to far end at " +
                                    address_text(listener.Port()) + " on socket " + id_text(id))));
}

TEST_F(FramedDataSocketConnect, ConnectAfterCloseStartsWithFreshFraming) {
  ConnectedClient client;
  ASSERT_TRUE(client.Ok());
  ASSERT_TRUE(send_all(client.Peer(), raw_header('X', 1, 1) + "x"));
  client.ReceiveMessages(1);
  ASSERT_EQ(client.User().Count("framing"), 1);
  EXPECT_FALSE(client.Socket().Receive());  // refused from now on
  client.Socket().Close();
  RawListener second;
  client.Socket().SetSocketIsNonBlocking(false);  // see NonBlockingConnectIsReportedAsFailedAttempt
  ASSERT_TRUE(client.Socket().Connect(second.Address(), 0, 0));
  client.Socket().SetSocketIsNonBlocking(true);
  long peer = second.Accept();
  ASSERT_TRUE(send_all(peer, frame("fresh")));
  client.User().Clear();
  client.ReceiveMessages(1);
  EXPECT_THAT(client.User().Events(), ElementsAre("message:fresh"));
  raw_close(peer);
}

TEST_F(FramedDataSocketConnect, CloseMakesReceiveRefuseAndIsHarmlessTwice) {
  ConnectedClient client;
  ASSERT_TRUE(client.Ok());
  client.Socket().Close();
  client.Socket().Close();
  log_->Clear();
  EXPECT_FALSE(client.Socket().Receive());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(2,
                             "Invalid call to FramedDataSocket::Receive: IsOpen: 0 "
                             "invalidDataReceived: 0")));
  EXPECT_TRUE(wait_for_close(client.Peer()));
}

}  // namespace
}  // namespace socket_test
