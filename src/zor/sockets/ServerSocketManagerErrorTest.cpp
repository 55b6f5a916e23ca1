// Zor::Sockets::ServerSocketManager failure paths: the socket-error limit
// and its five-minute window (time driven through the platform clock),
// select and accept failures, the impossible select count, identifiers that
// come back while still in use, and the select loop running against other
// threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "osa/osa.h"
#include "zor/sockets/ServerSocketManager.h"
#include "zor/sockets/ServerSocketManagerFixture.h"
#include "zor/sockets/SocketLog.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_test {
namespace {

using ::testing::ElementsAre;
using Zor::Sockets::ServerSocketManager;
using Zor::Sockets::SocketHandle;

std::string id_text(long id) { return std::to_string(id); }

std::string limit_message(int errors, int sockets) {
  return "Socket error limit exceeded; " + std::to_string(errors) + " errors on " +
         std::to_string(sockets) + " sockets in 300 seconds or less";
}

// ---- The socket-error limit ---------------------------------------------------

class ServerSocketManagerErrors : public ManagerFixture {
 protected:
  void SetUp() override {
    ManagerFixture::SetUp();
    table_ = manager_overrides(true);
    overrides_.reset(new ScopedOverrides(table_));
  }
  void TearDown() override { overrides_.reset(); }

  // A socket error recorded at clock value `now`.
  void ErrorAt(unsigned long now) {
    manager_script().clock = now;
    CauseSocketError();
  }

  tOsaOverrides table_{};
  std::unique_ptr<ScopedOverrides> overrides_;
};

TEST_F(ServerSocketManagerErrors, FourthSocketErrorWithinFiveMinutesIsTooMany) {
  const SocketHandle h1 = CauseSocketError();
  const SocketHandle h2 = CauseSocketError();
  const SocketHandle h3 = CauseSocketError();
  EXPECT_EQ(user_.Count("too-many"), 0);
  log_->Clear();
  const SocketHandle h4 = CauseSocketError();
  EXPECT_THAT(user_.Events(),
              ElementsAre(event("accepted", h1), event("closed", h1), event("accepted", h2),
                          event("closed", h2), event("accepted", h3), event("closed", h3),
                          event("accepted", h4), event("closed", h4), "too-many"));
  EXPECT_TRUE(log_->Has(1, "Zor Sockets: " + limit_message(4, 1)));
}

TEST_F(ServerSocketManagerErrors, FramingErrorIsHandledAsSocketError) {
  long client = -1;
  const SocketHandle handle = AcceptClient(&client);
  ASSERT_TRUE(send_all(client, raw_header('F', 1, 0)));
  SelectUntil([&] { return HasEvent(event("closed", handle)); });
  EXPECT_EQ(manager_.GetNumberOfClients(), 0u);
  manager_script().recvResult = OSA_CALL_REAL;
  EXPECT_TRUE(wait_for_close(client));
  for (int i = 0; i < 3; ++i) CauseSocketError();  // the first one counted too
  EXPECT_EQ(user_.Count("too-many"), 1);
}

TEST_F(ServerSocketManagerErrors, ReceiveErrorIsHandledAsSocketError) {
  for (int i = 0; i < 4; ++i) {
    long client = -1;
    const SocketHandle handle = AcceptClient(&client);
    ASSERT_TRUE(send_all(client, frame("x")));
    manager_script().recvResult = OS_ERROR_SOCKET;
    SelectUntil([&] { return HasEvent(event("closed", handle)); });
    manager_script().recvResult = OSA_CALL_REAL;
  }
  EXPECT_EQ(user_.Count("too-many"), 1);
  EXPECT_EQ(user_.Events().back(), "too-many");
}

TEST_F(ServerSocketManagerErrors, SendErrorIsHandledAsSocketError) {
  for (int i = 0; i < 4; ++i) {
    const SocketHandle handle = AcceptClient();
    manager_script().sendResult = OS_ERROR_SOCKET;
    EXPECT_EQ(manager_.Send(handle, "F\x01\x00\x01x", 5), -1);
    manager_script().sendResult = OSA_CALL_REAL;
    EXPECT_TRUE(HasEvent(event("closed", handle)));
  }
  EXPECT_EQ(user_.Count("too-many"), 1);
}

TEST_F(ServerSocketManagerErrors, ClientsThatCloseAreNotSocketErrors) {
  for (int i = 0; i < 6; ++i) {
    long client = -1;
    const SocketHandle handle = AcceptClient(&client);
    CloseClient(client);
    SelectUntil([&] { return HasEvent(event("closed", handle)); });
  }
  EXPECT_EQ(user_.Count("too-many"), 0);
}

TEST_F(ServerSocketManagerErrors, ErrorExactlyFiveMinutesOldStillCounts) {
  ErrorAt(1000);
  ErrorAt(1000);
  ErrorAt(1000);
  ErrorAt(301000);  // 300000 ms later: not older than the period
  EXPECT_EQ(user_.Count("too-many"), 1);
}

TEST_F(ServerSocketManagerErrors, ErrorsOlderThanFiveMinutesNoLongerCount) {
  ErrorAt(1000);
  ErrorAt(1000);
  ErrorAt(1000);
  ErrorAt(301001);  // the first three are 300001 ms old: dropped
  ErrorAt(301001);
  ErrorAt(301001);
  EXPECT_EQ(user_.Count("too-many"), 0);
  ErrorAt(301001);  // the fourth within the window
  EXPECT_EQ(user_.Count("too-many"), 1);
}

TEST_F(ServerSocketManagerErrors, ErrorLimitScalesWithTheNumberOfSockets) {
  AcceptClient();  // a client that stays: every error counts 2 sockets
  for (int i = 0; i < 6; ++i) CauseSocketError();
  EXPECT_EQ(user_.Count("too-many"), 0);
  log_->Clear();
  CauseSocketError();
  EXPECT_EQ(user_.Count("too-many"), 1);
  EXPECT_TRUE(log_->Has(1, "Zor Sockets: " + limit_message(7, 2)));
}

TEST_F(ServerSocketManagerErrors, LargestSocketCountInThePeriodSetsTheLimit) {
  long bystander = -1;
  const SocketHandle stays = AcceptClient(&bystander);
  for (int i = 0; i < 4; ++i) CauseSocketError();  // records of 2 sockets
  CloseClient(bystander);
  SelectUntil([&] { return HasEvent(event("closed", stays)); });
  CauseSocketError();  // a record of 1 socket: 5 records > 3, but not > 3 x 2
  EXPECT_EQ(user_.Count("too-many"), 0);
  CauseSocketError();
  EXPECT_EQ(user_.Count("too-many"), 0);
  log_->Clear();
  CauseSocketError();  // 7 records > 3 x 2
  EXPECT_EQ(user_.Count("too-many"), 1);
  EXPECT_TRUE(log_->Has(1, "Zor Sockets: " + limit_message(7, 2)));
}

// ---- Select and accept failures ----------------------------------------------

class ServerSocketManagerSelect : public ManagerFixture {
 protected:
  void SetUp() override {
    ManagerFixture::SetUp();
    table_ = manager_overrides(false);
    overrides_.reset(new ScopedOverrides(table_));
  }
  void TearDown() override { overrides_.reset(); }

  tOsaOverrides table_{};
  std::unique_ptr<ScopedOverrides> overrides_;
};

TEST_F(ServerSocketManagerSelect, TimeoutResultSelectsAgainAtOnce) {
  manager_script().selectResults = {OS_ERROR_TIMEOUT, OS_ERROR_TIMEOUT, OS_ERROR_TIMEOUT};
  Connect();
  EXPECT_TRUE(SelectOnce());
  EXPECT_EQ(manager_script().selectCalls, 4u);
  EXPECT_EQ(user_.Count("accepted:"), 1);
  for (const LogEntry& entry : log_->Entries()) EXPECT_NE(entry.level, 1) << entry.text;
}

TEST_F(ServerSocketManagerSelect, SelectRetriesAreRepeated) {
  manager_script().selectResults = std::vector<int>(19, OS_ERROR_SELECT_RETRY);
  Connect();
  EXPECT_TRUE(SelectOnce());
  EXPECT_EQ(log_->Count("Zor Sockets: osTCPSelect returned 325; will retry"), 19u);
  EXPECT_EQ(user_.Count("accepted:"), 1);
  EXPECT_EQ(user_.Count("select-error"), 0);
}

TEST_F(ServerSocketManagerSelect, TwentySelectRetriesEndWithSelectError) {
  manager_script().selectResults = std::vector<int>(30, OS_ERROR_RETRY);
  EXPECT_FALSE(manager_.Select());
  EXPECT_EQ(manager_script().selectCalls, 20u);
  std::vector<LogEntry> expected(20, zs(8, "osTCPSelect returned 317; will retry"));
  expected.push_back(zs(1,
                        "Error 317 returned by osTCPSelect; maximum number of retries already "
                        "attempted"));
  EXPECT_EQ(log_->Entries(), expected);
  EXPECT_THAT(user_.Events(), ElementsAre("select-error"));
}

TEST_F(ServerSocketManagerSelect, TimeoutResetsTheSelectErrorCount) {
  std::vector<int> results(19, OS_ERROR_RETRY);
  results.push_back(OS_ERROR_TIMEOUT);
  results.insert(results.end(), 19, OS_ERROR_RETRY);
  manager_script().selectResults = results;
  Connect();
  EXPECT_TRUE(SelectOnce());
  EXPECT_EQ(user_.Count("select-error"), 0);
  EXPECT_EQ(user_.Count("accepted:"), 1);
}

TEST_F(ServerSocketManagerSelect, OtherSelectErrorEndsWithSelectError) {
  manager_script().selectResults = {OS_ERROR_SOCKET};
  EXPECT_FALSE(manager_.Select());
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(1, "Error 300 returned by osTCPSelect")));
  EXPECT_THAT(user_.Events(), ElementsAre("select-error"));
}

// Writes the socket library's messages to stderr, where a death test can
// match them.
class StderrLogger : public Zor::LogInterface {
 protected:
  void DoLogging(const char* text, unsigned short /*level*/, unsigned long /*code*/,
                 unsigned char /*kind*/) override {
    fprintf(stderr, "%s\n", text);
  }
};

TEST_F(ServerSocketManagerSelect, ImpossibleSelectCountEndsTheProcessWithStatusOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        static StderrLogger logger;
        Zor::Sockets::SetLogger(AppFw::SmartPointerNTS<Zor::LogInterface>(&logger, false));
        manager_script().impossibleCount = true;
        manager_.Select();
      },
      ::testing::ExitedWithCode(1),
      "Zor Sockets: Number of sockets specified by osTCPSelect  is invalid; exiting\\.");
}

TEST_F(ServerSocketManagerSelect, VanishedSocketInReadArrayIsLogged) {
  manager_script().fakeReady = 99999;
  EXPECT_TRUE(manager_.Select());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8,
                             "Socket 99999 returned in read array from select no longer "
                             "exists. (Listening socket is " +
                                 id_text(manager_.GetListeningSocketID()) + ".)")));
  EXPECT_TRUE(user_.Events().empty());
}

TEST_F(ServerSocketManagerSelect, AcceptErrorReachesTheUser) {
  manager_script().accepts.push_back({OS_ERROR_SOCKET, -1, {0, 0}});
  Connect();
  EXPECT_TRUE(SelectOnce());
  EXPECT_THAT(user_.Events(), ElementsAre("accept-error"));
  EXPECT_TRUE(
      log_->Has(1, "Zor Sockets: Error 300 on socket " + id_text(manager_.GetListeningSocketID())));
}

TEST_F(ServerSocketManagerSelect, ReusedIdentifierReplacesTheOldClient) {
  long first = -1;
  const SocketHandle old = AcceptClient(&first);
  // The identifier the manager holds for the first client, from its log.
  std::string accepted;
  for (const LogEntry& entry : log_->Entries()) {
    if (entry.text.rfind("Zor Sockets: Accepted socket ", 0) == 0) accepted = entry.text;
  }
  const long id = std::stol(accepted.substr(std::string("Zor Sockets: Accepted socket ").size()));
  log_->Clear();
  // The platform hands out the same identifier again, as if the old socket
  // had been closed behind the manager's back and the number reused.
  manager_script().accepts.push_back({OS_OK, id, loopback(4321)});
  manager_script().accepts.push_back({OS_ERROR_WOULD_BLOCK, -1, {0, 0}});
  manager_script().fakeReady = manager_.GetListeningSocketID();
  EXPECT_TRUE(manager_.Select());
  manager_script().fakeReady = -1;
  std::vector<SocketHandle> handles = user_.Accepted();
  ASSERT_EQ(handles.size(), 2u);
  const SocketHandle replacement = handles[1];
  EXPECT_THAT(user_.Events(), ElementsAre(event("accepted", old), event("closed", old),
                                          event("accepted", replacement)));
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Accepted socket " + id_text(id)),
                          zs(2, "ID of accepted socket, " + id_text(id) +
                                    ", was already in use; old socket being removed")));
  EXPECT_EQ(manager_.GetNumberOfClients(), 1u);
  EXPECT_EQ(manager_.GetAddressOfFarEnd(replacement).port, 4321);
  // The identifier was not closed with the old entry: it now serves the new
  // handle.
  ASSERT_TRUE(send_all(first, frame("still here")));
  SelectUntil([&] { return user_.Count("message:") == 1; });
  EXPECT_TRUE(HasEvent(event("message", replacement) + ":still here"));
}

TEST_F(ServerSocketManagerSelect, AcceptedSocketThatCannotBeMadeNonBlockingIsDropped) {
  const SocketHandle before = AcceptClient();
  log_->Clear();
  manager_script().accepts.push_back({OS_OK, INT_MAX, loopback(1)});
  manager_script().accepts.push_back({OS_ERROR_WOULD_BLOCK, -1, {0, 0}});
  manager_script().fakeReady = manager_.GetListeningSocketID();
  EXPECT_TRUE(manager_.Select());
  manager_script().fakeReady = -1;
  EXPECT_THAT(user_.Events(), ElementsAre(event("accepted", before)));
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Accepted socket 2147483647"),
                          zs(2, "Error 307 trying to close socket 2147483647"),
                          zs(1,
                             "Error 307 trying to set non-blocking mode to 1 on socket "
                             "2147483647")));
  EXPECT_EQ(manager_.GetNumberOfClients(), 1u);
  // The dropped socket used up a handle.
  const SocketHandle after = AcceptClient();
  EXPECT_EQ(after.Value(), before.Value() + 2);
}

TEST_F(ServerSocketManagerSelect, ClientLimitCloseFailureIsLogged) {
  manager_.SetMaximumNumberOfClients(1);
  AcceptClient();
  log_->Clear();
  manager_script().accepts.push_back({OS_OK, INT_MAX, loopback(1)});
  manager_script().accepts.push_back({OS_ERROR_WOULD_BLOCK, -1, {0, 0}});
  manager_script().fakeReady = manager_.GetListeningSocketID();
  EXPECT_TRUE(manager_.Select());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Accepted socket 2147483647"),
                          zs(2, "Maximum number of clients exceeded: closing socket 2147483647"),
                          zs(2, "Error 307 closing socket 2147483647")));
  EXPECT_EQ(user_.Count("accepted:"), 1);
}

TEST_F(ServerSocketManagerSelect, SameAddressRuleKeepsClientsAtOtherAddresses) {
  manager_.SetCloseOtherSocketsAtSameIPAddress(true);
  long local = -1;
  const SocketHandle fromHere = AcceptClient(&local);
  // A connection that the platform reports as coming from 10.0.0.9.
  RawListener elsewhere;
  long remote = raw_connect(elsewhere.Port());
  long served = elsewhere.Accept();
  ASSERT_NE(served, -1);
  manager_script().accepts.push_back({OS_OK, served, tOsTCPSocketAddress{0x0a000009u, 5000}});
  manager_script().accepts.push_back({OS_ERROR_WOULD_BLOCK, -1, {0, 0}});
  manager_script().fakeReady = manager_.GetListeningSocketID();
  EXPECT_TRUE(manager_.Select());
  manager_script().fakeReady = -1;
  const SocketHandle fromThere = user_.Accepted().back();
  // A second client from 127.0.0.1 replaces only the first one.
  const SocketHandle again = AcceptClient();
  EXPECT_THAT(user_.Events(), ElementsAre(event("accepted", fromHere), event("accepted", fromThere),
                                          event("closed", fromHere), event("accepted", again)));
  EXPECT_EQ(manager_.GetNumberOfClients(), 2u);
  EXPECT_EQ(manager_.GetAddressOfFarEnd(fromThere).ipAddress, 0x0a000009u);
  raw_close(remote);
}

// ---- Threads ------------------------------------------------------------------------

class ServerSocketManagerThreads : public ManagerFixture {};

// A select thread serves clients that send while other threads send to the
// clients through the manager.
TEST_F(ServerSocketManagerThreads, SelectThreadServesWhileOtherThreadsSend) {
  constexpr int CLIENTS = 4;
  constexpr int FRAMES = 200;
  std::vector<long> clients(CLIENTS);
  std::vector<SocketHandle> handles;
  for (long& client : clients) handles.push_back(AcceptClient(&client));
  std::atomic<bool> stop{false};
  std::thread selectThread([&] {
    while (!stop && manager_.Select()) {
    }
  });
  std::vector<std::thread> threads;
  std::vector<std::string> received(CLIENTS);
  for (int c = 0; c < CLIENTS; ++c) {
    threads.emplace_back([&, c] {  // a client: sends its frames, then reads what came
      for (int n = 0; n < FRAMES; ++n) send_all(clients[c], frame("c" + std::to_string(n)));
      received[c] = receive_bytes(clients[c], 2 * FRAMES * 7, 10000);
    });
  }
  std::atomic<int> sendFailures{0};
  for (int s = 0; s < 2; ++s) {
    threads.emplace_back([&] {                 // a server-side sender
      const std::string bytes = frame("srv");  // 7 bytes
      for (int n = 0; n < FRAMES; ++n) {
        for (SocketHandle handle : handles) {
          if (manager_.Send(handle, bytes.data(), 7) != 7) ++sendFailures;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (user_.Count("message:") < CLIENTS * FRAMES &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  stop = true;
  send_all(clients[0], frame("wake"));
  selectThread.join();
  EXPECT_EQ(sendFailures.load(), 0);
  EXPECT_GE(user_.Count("message:"), CLIENTS * FRAMES);
  for (int c = 0; c < CLIENTS; ++c) {
    EXPECT_EQ(received[c].size(), static_cast<size_t>(2 * FRAMES * 7)) << "client " << c;
  }
}

// Close() from another thread while the select thread reads a stream of
// frames: the loop ends, and nothing is touched after it was freed.
TEST_F(ServerSocketManagerThreads, CloseFromAnotherThreadEndsTheSelectLoop) {
  constexpr int CLIENTS = 3;
  std::vector<long> clients(CLIENTS);
  for (long& client : clients) AcceptClient(&client);
  std::thread selectThread([&] {
    while (manager_.Select()) {
    }
  });
  std::vector<std::thread> senders;
  for (long client : clients) {
    senders.emplace_back([client] {
      const std::string bytes = frame("spam");
      while (send_all(client, bytes)) {
      }
    });
  }
  while (user_.Count("message:") < 300) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  manager_.Close();
  selectThread.join();
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(manager_.GetNumberOfClients(), 0u);
  EXPECT_EQ(user_.Count("closed:"), 0);
  EXPECT_FALSE(manager_.Select());
}

// Close() from another thread while the select thread waits with nothing to
// read: the wait is woken and the loop ends without a User callback.
TEST_F(ServerSocketManagerThreads, CloseWakesAnIdleSelect) {
  long client = -1;
  AcceptClient(&client);
  std::atomic<bool> done{false};
  std::thread selectThread([&] {
    while (manager_.Select()) {
    }
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(done);
  const std::vector<std::string> before = user_.Events();
  manager_.Close();
  for (int waited = 0; waited < 5000 && !done; waited += 5) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(done) << "Select() still waiting after Close()";
  selectThread.join();
  EXPECT_EQ(user_.Events(), before);
  EXPECT_EQ(receive_bytes(client, 1, 2000), "");
}

}  // namespace
}  // namespace socket_test
