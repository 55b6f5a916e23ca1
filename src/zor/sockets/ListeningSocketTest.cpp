// Zor::Sockets::ListeningSocket: listening on loopback, keeping the socket
// across failed attempts, and accepting every pending connection with the
// result-code rules of the accept loop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "osa/osa.h"
#include "zor/sockets/ListeningSocket.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_test {
namespace {

using ::testing::ElementsAre;
using Listener = Zor::Sockets::ListeningSocket;

std::string id_text(long id) { return std::to_string(id); }

class RecordingListenerUser : public Listener::User {
 public:
  ~RecordingListenerUser() override {
    for (long id : accepted) raw_close(id);
  }
  void SocketAccepted(Listener& /*listener*/, long socketId,
                      const tOsTCPSocketAddress& farEnd) override {
    accepted.push_back(socketId);
    farEnds.push_back(farEnd);
  }
  void AcceptError(Listener& /*listener*/) override { ++acceptErrors; }

  std::vector<long> accepted;
  std::vector<tOsTCPSocketAddress> farEnds;
  int acceptErrors = 0;
};

// Results for osTCPAccept on the listening socket under test; the real call
// runs once they are used up.
long scripted_listener = -1;
std::vector<int> accept_results;
size_t accept_calls = 0;

int scripted_accept(long socket, long* /*newSocket*/, tOsTCPSocketAddress* /*farEnd*/) {
  if (socket != scripted_listener) return OSA_CALL_REAL;
  size_t call = accept_calls++;
  if (call >= accept_results.size() || accept_results[call] == OSA_CALL_REAL) {
    return OSA_CALL_REAL;
  }
  return accept_results[call];
}

uint16_t local_port(long socketId) {
  tOsTCPSocketAddress address{0, 0};
  osTCPGetLocalAddress(socketId, &address);
  return address.port;
}

class ListeningSocket : public ::testing::Test {
 protected:
  ListeningSocket() : listener_(user_, loopback(0)) {
    accept_results.clear();
    accept_calls = 0;
    scripted_listener = -1;
    table_.tcpAccept = scripted_accept;
  }

  // Inits and scripts accepts of the listening socket.
  void ScriptAccepts(const std::vector<int>& results) {
    scripted_listener = listener_.GetSocketID();
    accept_results = results;
  }

  ScopedSocketLog log_;
  RecordingListenerUser user_;
  Listener listener_;
  tOsaOverrides table_{};
};

TEST_F(ListeningSocket, InitListensOnTheLocalAddressAndLogsBinding) {
  ASSERT_TRUE(listener_.Init());
  const std::string id = id_text(listener_.GetSocketID());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Socket " + id + " created"),
                          zs(8, "Binding socket " + id + " to address 127.0.0.1:0"),
                          zs(8, "Socket " + id + " listening at 127.0.0.1:0")));
  const uint16_t port = local_port(listener_.GetSocketID());
  ASSERT_NE(port, 0);
  long client = raw_connect(port);
  EXPECT_NE(client, -1);
  raw_close(client);
}

TEST_F(ListeningSocket, InitAfterSuccessReturnsTrueAtOnce) {
  ASSERT_TRUE(listener_.Init());
  const long id = listener_.GetSocketID();
  log_->Clear();
  EXPECT_TRUE(listener_.Init());
  EXPECT_EQ(listener_.GetSocketID(), id);
  EXPECT_TRUE(log_->Entries().empty());
}

TEST_F(ListeningSocket, BindFailureKeepsTheSocketForTheNextAttempt) {
  RawListener blocker;
  Listener listener(user_, blocker.Address());
  EXPECT_FALSE(listener.Init());
  const std::string id = id_text(listener.GetSocketID());
  const std::string address = "127.0.0.1:" + std::to_string(blocker.Port());
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(8, "Socket " + id + " created"),
                                           zs(8, "Binding socket " + id + " to address " + address),
                                           zs(1, "Error 305 trying to bind the listening socket " +
                                                     id + " to " + address)));
  EXPECT_TRUE(listener.IsOpen());
  blocker.Close();
  log_->Clear();
  EXPECT_TRUE(listener.Init());
  EXPECT_EQ(id_text(listener.GetSocketID()), id);
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(8, "Binding socket " + id + " to address " + address),
                                           zs(8, "Socket " + id + " listening at " + address)));
}

TEST_F(ListeningSocket, AcceptTakesEveryPendingConnection) {
  ASSERT_TRUE(listener_.Init());
  const uint16_t port = local_port(listener_.GetSocketID());
  std::vector<long> clients;
  for (int i = 0; i < 3; ++i) clients.push_back(raw_connect(port));
  ASSERT_TRUE(wait_readable(listener_.GetSocketID(), 5000));
  log_->Clear();
  EXPECT_TRUE(listener_.Accept());
  ASSERT_EQ(user_.accepted.size(), 3u);
  std::vector<LogEntry> expected;
  for (long id : user_.accepted) expected.push_back(zs(8, "Accepted socket " + id_text(id)));
  EXPECT_EQ(log_->Entries(), expected);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(user_.farEnds[i].ipAddress, 0x7f000001u);
    EXPECT_EQ(user_.farEnds[i].port, local_port(clients[i]));
    raw_close(clients[i]);
  }
  EXPECT_EQ(user_.acceptErrors, 0);
}

TEST_F(ListeningSocket, AcceptWithNothingPendingReturnsTrue) {
  ASSERT_TRUE(listener_.Init());
  log_->Clear();
  EXPECT_TRUE(listener_.Accept());
  EXPECT_TRUE(user_.accepted.empty());
  EXPECT_TRUE(log_->Entries().empty());
}

TEST_F(ListeningSocket, ConnectionAbortedByPeerIsSkipped) {
  ASSERT_TRUE(listener_.Init());
  long client = raw_connect(local_port(listener_.GetSocketID()));
  ScopedOverrides overrides(table_);
  ScriptAccepts({OS_ERROR_CONN_ABORTED_BY_PEER});
  log_->Clear();
  EXPECT_TRUE(listener_.Accept());
  ASSERT_EQ(user_.accepted.size(), 1u);
  const std::string id = id_text(listener_.GetSocketID());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Ignoring error 310 on socket " + id + " (CONN_ABORTED_BY_PEER)"),
                          zs(8, "Accepted socket " + id_text(user_.accepted[0]))));
  EXPECT_EQ(user_.acceptErrors, 0);
  raw_close(client);
}

TEST_F(ListeningSocket, TwentyAcceptRetriesEndWithAcceptError) {
  ASSERT_TRUE(listener_.Init());
  ScopedOverrides overrides(table_);
  ScriptAccepts(std::vector<int>(25, OS_ERROR_RETRY));
  log_->Clear();
  EXPECT_FALSE(listener_.Accept());
  EXPECT_EQ(accept_calls, 20u);
  const std::string id = id_text(listener_.GetSocketID());
  std::vector<LogEntry> expected(20,
                                 zs(8, "Socket " + id + ": osTCPAccept returned OS_ERROR_RETRY"));
  expected.push_back(zs(1, "Listening socket " + id + " received too many OS_ERROR_RETRYs"));
  EXPECT_EQ(log_->Entries(), expected);
  EXPECT_EQ(user_.acceptErrors, 1);
}

TEST_F(ListeningSocket, NineteenAcceptRetriesThenNothingPendingSucceeds) {
  ASSERT_TRUE(listener_.Init());
  ScopedOverrides overrides(table_);
  ScriptAccepts(std::vector<int>(19, OS_ERROR_RETRY));
  EXPECT_TRUE(listener_.Accept());
  EXPECT_EQ(accept_calls, 20u);
  EXPECT_EQ(user_.acceptErrors, 0);
}

TEST_F(ListeningSocket, AcceptRetryCountStartsAgainAfterAnAcceptedConnection) {
  ASSERT_TRUE(listener_.Init());
  long client = raw_connect(local_port(listener_.GetSocketID()));
  ScopedOverrides overrides(table_);
  std::vector<int> results(19, OS_ERROR_RETRY);
  results.push_back(OSA_CALL_REAL);  // the pending connection
  results.insert(results.end(), 19, OS_ERROR_RETRY);
  ScriptAccepts(results);
  EXPECT_TRUE(listener_.Accept());
  EXPECT_EQ(user_.accepted.size(), 1u);
  EXPECT_EQ(user_.acceptErrors, 0);
  raw_close(client);
}

TEST_F(ListeningSocket, OtherAcceptFailureEndsWithAcceptError) {
  ASSERT_TRUE(listener_.Init());
  ScopedOverrides overrides(table_);
  ScriptAccepts({OS_ERROR_SOCKET});
  log_->Clear();
  EXPECT_FALSE(listener_.Accept());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(1, "Error 300 on socket " + id_text(listener_.GetSocketID()))));
  EXPECT_EQ(user_.acceptErrors, 1);
}

// Close() from another thread while the accept loop runs: the accept call
// then fails, which ends the loop without an accept error.
Listener* closed_during_accept = nullptr;

int accept_after_close(long /*socket*/, long* /*newSocket*/, tOsTCPSocketAddress* /*farEnd*/) {
  closed_during_accept->Close();
  return OS_ERROR_SOCKET;
}

TEST_F(ListeningSocket, CloseDuringAcceptEndsItWithoutAcceptError) {
  ASSERT_TRUE(listener_.Init());
  const std::string id = id_text(listener_.GetSocketID());
  closed_during_accept = &listener_;
  table_.tcpAccept = accept_after_close;
  ScopedOverrides overrides(table_);
  log_->Clear();
  EXPECT_FALSE(listener_.Accept());
  EXPECT_EQ(user_.acceptErrors, 0);
  EXPECT_EQ(listener_.GetSocketID(), -1);
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Socket " + id + " was closed while accepting (error 300)")));
}

TEST_F(ListeningSocket, CloseThenInitListensAgain) {
  ASSERT_TRUE(listener_.Init());
  listener_.Close();
  EXPECT_FALSE(listener_.IsOpen());
  EXPECT_TRUE(listener_.Init());
  long client = raw_connect(local_port(listener_.GetSocketID()));
  EXPECT_NE(client, -1);
  raw_close(client);
}

}  // namespace
}  // namespace socket_test
