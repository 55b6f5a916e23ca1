// Failures of the listening socket's set-up steps and of a client's first
// option, injected at link time (SocketFaultInjection.cpp).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "osa/osa.h"
#include "zor/sockets/FramedDataSocket.h"
#include "zor/sockets/ListeningSocket.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_fault {
extern int socketResult;
extern int nonBlockingResult;
extern int reuseAddrResult;
extern int listenResult;
void Reset();
}  // namespace socket_fault

namespace socket_test {
namespace {

using ::testing::ElementsAre;
using Zor::Sockets::FramedDataSocket;
using Zor::Sockets::ListeningSocket;

class NullListenerUser : public ListeningSocket::User {
 public:
  void SocketAccepted(ListeningSocket&, long socketId, const tOsTCPSocketAddress&) override {
    raw_close(socketId);
  }
  void AcceptError(ListeningSocket&) override {}
};

class ListeningSocketFault : public ::testing::Test {
 protected:
  ListeningSocketFault() : listener_(user_, loopback(0)) { socket_fault::Reset(); }
  ~ListeningSocketFault() override { socket_fault::Reset(); }

  std::string Id() const { return std::to_string(listener_.GetSocketID()); }

  ScopedSocketLog log_;
  NullListenerUser user_;
  ListeningSocket listener_;
};

TEST_F(ListeningSocketFault, CreationFailureIsLogged) {
  socket_fault::socketResult = OS_ERROR_SOCKET;
  EXPECT_FALSE(listener_.Init());
  EXPECT_FALSE(listener_.IsOpen());
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(1, "Error 300 trying to create a socket")));
}

TEST_F(ListeningSocketFault, NonBlockingFailureIsLoggedAndTheSocketKept) {
  socket_fault::nonBlockingResult = OS_ERROR_SOCKET;
  EXPECT_FALSE(listener_.Init());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Socket " + Id() + " created"),
                          zs(1, "Error 300 trying to make listening socket non-blocking")));
  const long id = listener_.GetSocketID();
  socket_fault::Reset();
  log_->Clear();
  EXPECT_TRUE(listener_.Init());
  EXPECT_EQ(listener_.GetSocketID(), id);
  EXPECT_EQ(log_->Count("Zor Sockets: Socket " + Id() + " created"), 0u);
}

TEST_F(ListeningSocketFault, ReuseAddressFailureNamesTheSocket) {
  socket_fault::reuseAddrResult = OS_ERROR_SOCKET;
  EXPECT_FALSE(listener_.Init());
  EXPECT_THAT(
      log_->Entries(),
      ElementsAre(zs(8, "Socket " + Id() + " created"),
                  zs(1, "Error 300 trying to make address reusable on listening socket " + Id())));
  EXPECT_TRUE(listener_.IsOpen());
}

// The socket stays bound after a failed listen, so the next attempt's bind
// fails on it: the steps are kept as they are.
TEST_F(ListeningSocketFault, ListenFailureNamesTheSocketAndKeepsItBound) {
  socket_fault::listenResult = OS_ERROR_SOCKET;
  EXPECT_FALSE(listener_.Init());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Socket " + Id() + " created"),
                          zs(8, "Binding socket " + Id() + " to address 127.0.0.1:0"),
                          zs(1, "Error 300 trying to listen on socket " + Id())));
  socket_fault::Reset();
  log_->Clear();
  EXPECT_FALSE(listener_.Init());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Binding socket " + Id() + " to address 127.0.0.1:0"),
                          zs(1, "Error 300 trying to bind the listening socket " + Id() +
                                    " to 127.0.0.1:0")));
}

TEST(FramedDataSocketFault, NonBlockingFailureInClientConstructorSkipsTheOtherOptions) {
  socket_fault::Reset();
  ScopedSocketLog log;
  RecordingSocketUser user;
  socket_fault::nonBlockingResult = OS_ERROR_SOCKET;
  // A receive buffer size that would fail and be logged, were it tried.
  FramedDataSocket socket(&user, true, 1L << 40, 0);
  socket_fault::Reset();
  EXPECT_FALSE(socket.IsOpen());
  std::vector<LogEntry> entries = log->Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[1].level, 1);
  EXPECT_THAT(entries[1].text,
              ::testing::MatchesRegex("Zor Sockets: Error 300 trying to set non-blocking mode to "
                                      "1 on socket [0-9]+"));
}

}  // namespace
}  // namespace socket_test
