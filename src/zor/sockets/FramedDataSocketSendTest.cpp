// Zor::Sockets::FramedDataSocket::Send: whole frames, partial sends, the
// bounded wait for writability, the retry limits, the result-code mapping
// and callbacks after the send lock, over real loopback connections.
// Results the kernel cannot be made to give are scripted through the
// platform layer's overrides.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "osa/osa.h"
#include "zor/sockets/FramedDataSocket.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_test {
namespace {

using ::testing::ElementsAre;
using Zor::Sockets::FramedDataSocket;

std::string id_text(long id) { return std::to_string(id); }

// The write-select override's script and what it saw.
int select_write_calls = 0;
int select_write_failures = 0;  // this many calls return select_write_result first
int select_write_result = OS_ERROR_TIMEOUT;
unsigned long fake_clock = 0;
FramedDataSocket* close_on_select = nullptr;

int scripted_select_write(long* /*sockets*/, int* /*count*/, long /*timeoutMs*/) {
  ++select_write_calls;
  fake_clock += 1000;
  if (close_on_select != nullptr) {
    close_on_select->Close();
    return OS_ERROR_TIMEOUT;
  }
  if (select_write_failures > 0) {
    --select_write_failures;
    return select_write_result;
  }
  return OSA_CALL_REAL;
}

unsigned long scripted_clock() { return fake_clock; }

class FramedDataSocketSend : public ::testing::Test {
 protected:
  FramedDataSocketSend() : client_(true) {
    select_write_calls = 0;
    select_write_failures = 0;
    select_write_result = OS_ERROR_TIMEOUT;
    fake_clock = 0;
    close_on_select = nullptr;
    log_->Clear();
  }

  // Installs the write-select and clock overrides besides the script.
  void ScriptWaits(ScriptedSocketCalls& calls) {
    tOsaOverrides extra{};
    extra.tcpSelectWrite = scripted_select_write;
    extra.clock = scripted_clock;
    calls.SetExtra(extra);
  }

  ScopedSocketLog log_;
  ConnectedClient client_;
  const std::string frame_ = frame("hello!");  // 10 bytes
};

TEST_F(FramedDataSocketSend, SendDeliversWholeFrameToPeer) {
  ASSERT_TRUE(client_.Ok());
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), 10);
  EXPECT_EQ(receive_bytes(client_.Peer(), 10), frame_);
  EXPECT_TRUE(log_->Entries().empty());
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, SendWithLengthZeroReturnsZeroWithoutTouchingTheSocket) {
  ScriptedSocketCalls calls(client_.Id());
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 0), 0);
  EXPECT_EQ(calls.SendCalls(), 0);
  client_.Socket().Close();
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 0), 0);  // not even a closed socket matters
  EXPECT_TRUE(log_->Entries().empty());
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, SendWithNullDataIsRejected) {
  ScriptedSocketCalls calls(client_.Id());
  EXPECT_EQ(client_.Socket().Send(nullptr, 10), -1);
  EXPECT_EQ(calls.SendCalls(), 0);
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(1, "Send error: Invalid parameters: 0 10")));
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, SendWithNegativeLengthIsRejected) {
  ScriptedSocketCalls calls(client_.Id());
  EXPECT_EQ(client_.Socket().Send(frame_.data(), -1), -1);
  EXPECT_EQ(calls.SendCalls(), 0);
  std::ostringstream pointer;
  pointer << static_cast<const void*>(frame_.data());
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(1, "Send error: Invalid parameters: " + pointer.str() + " -1")));
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, SendOnClosedSocketFailsWithoutCallback) {
  client_.Socket().Close();
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(4, "Send failed: Socket is closed")));
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, TwentyConsecutiveSendRetriesFailWithSocketError) {
  ScriptedSocketCalls calls(client_.Id());
  for (int i = 0; i < 25; ++i) calls.AddSend(code_step(OS_ERROR_RETRY));
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
  EXPECT_EQ(calls.SendCalls(), 20);
  const std::string id = id_text(client_.Id());
  std::vector<LogEntry> expected(20, zs(8, "Socket " + id + ": osTCPSend returned OS_ERROR_RETRY"));
  expected.push_back(zs(1, "osTCPSend on socket " + id + " received too many OS_ERROR_RETRYs"));
  EXPECT_EQ(log_->Entries(), expected);
  EXPECT_THAT(client_.User().Events(), ElementsAre("error"));
}

TEST_F(FramedDataSocketSend, NineteenSendRetriesThenTheFrameGoesOut) {
  ScriptedSocketCalls calls(client_.Id());
  for (int i = 0; i < 19; ++i) calls.AddSend(code_step(OS_ERROR_RETRY));
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), 10);
  EXPECT_EQ(calls.SendCalls(), 20);
  EXPECT_EQ(receive_bytes(client_.Peer(), 10), frame_);
  EXPECT_EQ(log_->Entries().size(), 19u);
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, RetryCountStartsAgainWithEachSend) {
  ScriptedSocketCalls calls(client_.Id());
  for (int send = 0; send < 2; ++send) {
    for (int i = 0; i < 19; ++i) calls.AddSend(code_step(OS_ERROR_RETRY));
    calls.AddSend(real_step());
  }
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), 10);
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), 10);
  EXPECT_EQ(receive_bytes(client_.Peer(), 20), frame_ + frame_);
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, RetriesCountAcrossPartialSendsWithinOneCall) {
  ScriptedSocketCalls calls(client_.Id());
  for (int i = 0; i < 10; ++i) calls.AddSend(code_step(OS_ERROR_RETRY));
  calls.AddSend(accept_step(3));
  for (int i = 0; i < 10; ++i) calls.AddSend(code_step(OS_ERROR_RETRY));
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
  EXPECT_THAT(client_.User().Events(), ElementsAre("error"));
}

TEST_F(FramedDataSocketSend, PartialSendWaitsForWritabilityAndSendsTheRest) {
  ScriptedSocketCalls calls(client_.Id());
  calls.AddSend(accept_step(3));
  calls.AddSend(accept_step(4));
  calls.AddSend(accept_step(100));
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), 10);
  EXPECT_EQ(calls.SentBytes(), frame_);
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(8, "Send partly blocked; sent 3 out of 10"),
                                           zs(8, "Send partly blocked; sent 4 out of 7")));
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, WouldBlockWaitsForWritabilityThenSends) {
  ScriptedSocketCalls calls(client_.Id());
  calls.AddSend(code_step(OS_ERROR_WOULD_BLOCK));
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), 10);
  EXPECT_EQ(receive_bytes(client_.Peer(), 10), frame_);
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(8, "Send returned OS_ERROR_WOULD_BLOCK")));
}

TEST_F(FramedDataSocketSend, LargeFrameOnSmallBuffersIsSentInPiecesAsPeerReads) {
  ConnectedClient small(true, 0, 4096);
  ASSERT_TRUE(small.Ok());
  ASSERT_EQ(osTCPSetRcvBuf(small.Peer(), 16384), OS_OK);
  const std::string big = frame(pattern(65535, 7));
  std::string received;
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    received = receive_bytes(small.Peer(), big.size(), 10000);
  });
  EXPECT_EQ(small.Socket().Send(big.data(), static_cast<int>(big.size())),
            static_cast<int>(big.size()));
  reader.join();
  EXPECT_TRUE(received == big);
  bool partial = false;
  for (const LogEntry& entry : log_->Entries()) {
    if (entry.text.rfind("Zor Sockets: Send partly blocked; sent ", 0) == 0 ||
        entry.text == "Zor Sockets: Send returned OS_ERROR_WOULD_BLOCK") {
      partial = true;
    }
  }
  EXPECT_TRUE(partial);
  EXPECT_TRUE(small.User().Events().empty());
}

TEST_F(FramedDataSocketSend, WriteWaitTimesOutAfterTwentySecondsWithoutCallback) {
  ScriptedSocketCalls calls(client_.Id());
  ScriptWaits(calls);
  calls.AddSend(code_step(OS_ERROR_WOULD_BLOCK));
  select_write_failures = 1000;  // never writable; each poll moves the clock one second
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
  EXPECT_EQ(select_write_calls, 20);  // the 20th poll finds 20000 ms gone
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Send returned OS_ERROR_WOULD_BLOCK"),
                          zs(1, "In FramedDataSocket, timed out waiting for socket " +
                                    id_text(client_.Id()) + " to unblock")));
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, WriteWaitGivesUpWhenSocketIsClosed) {
  ScriptedSocketCalls calls(client_.Id());
  ScriptWaits(calls);
  calls.AddSend(code_step(OS_ERROR_WOULD_BLOCK));
  close_on_select = &client_.Socket();
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
  EXPECT_EQ(select_write_calls, 1);
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Send returned OS_ERROR_WOULD_BLOCK"),
                          zs(8, "waitTillReadyToWrite giving up because socket is closed")));
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, SelectRetriesDuringWriteWaitAreRepeated) {
  ScriptedSocketCalls calls(client_.Id());
  ScriptWaits(calls);
  calls.AddSend(code_step(OS_ERROR_WOULD_BLOCK));
  select_write_failures = 5;
  select_write_result = OS_ERROR_SELECT_RETRY;
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), 10);
  EXPECT_EQ(log_->Count("Zor Sockets: In FramedDataSocket, osTCPSelect returned 325; will retry"),
            5u);
  EXPECT_EQ(receive_bytes(client_.Peer(), 10), frame_);
  EXPECT_TRUE(client_.User().Events().empty());
}

TEST_F(FramedDataSocketSend, TwentySelectRetriesDuringWriteWaitEndWithSocketError) {
  ScriptedSocketCalls calls(client_.Id());
  ScriptWaits(calls);
  calls.AddSend(code_step(OS_ERROR_WOULD_BLOCK));
  select_write_failures = 1000;
  select_write_result = OS_ERROR_RETRY;
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
  EXPECT_EQ(select_write_calls, 20);
  std::vector<LogEntry> expected{zs(8, "Send returned OS_ERROR_WOULD_BLOCK")};
  for (int i = 0; i < 20; ++i) {
    expected.push_back(zs(8, "In FramedDataSocket, osTCPSelect returned 317; will retry"));
  }
  expected.push_back(zs(1,
                        "In FramedDataSocket, error 317 returned by osTCPSelect; maximum "
                        "number of retries already attempted"));
  EXPECT_EQ(log_->Entries(), expected);
  EXPECT_THAT(client_.User().Events(), ElementsAre("error"));
}

TEST_F(FramedDataSocketSend, OtherSelectErrorDuringWriteWaitEndsWithSocketError) {
  ScriptedSocketCalls calls(client_.Id());
  ScriptWaits(calls);
  calls.AddSend(code_step(OS_ERROR_WOULD_BLOCK));
  select_write_failures = 1;
  select_write_result = OS_ERROR_BAD_SOCKET;
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(8, "Send returned OS_ERROR_WOULD_BLOCK"),
                          zs(1, "In FramedDataSocket, error 307 returned by osTCPSelect")));
  EXPECT_THAT(client_.User().Events(), ElementsAre("error"));
}

TEST_F(FramedDataSocketSend, PeerGoneResultsReportSocketClosed) {
  for (int rc : {OS_ERROR_CONN_RESET, OS_ERROR_BROKEN_PIPE, OS_ERROR_NOT_CONNECTED}) {
    log_->Clear();
    client_.User().Clear();
    ScriptedSocketCalls calls(client_.Id());
    calls.AddSend(code_step(rc));
    EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
    EXPECT_THAT(log_->Entries(),
                ElementsAre(zs(4, "Error " + std::to_string(rc) + " on socket " +
                                      id_text(client_.Id()) + " (socket closed)")));
    EXPECT_THAT(client_.User().Events(), ElementsAre("closed"));
  }
}

TEST_F(FramedDataSocketSend, SendToVanishedPeerReportsSocketClosed) {
  ASSERT_TRUE(client_.Ok());
  raw_close(client_.Peer());
  int result = 0;
  for (int i = 0; i < 200 && result != -1; ++i) {
    result = client_.Socket().Send(frame_.data(), 10);
    if (result != -1) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(result, -1);
  std::vector<LogEntry> entries = log_->Entries();
  ASSERT_FALSE(entries.empty());
  EXPECT_EQ(entries.back().level, 4);
  EXPECT_THAT(entries.back().text,
              ::testing::MatchesRegex("Zor Sockets: Error 3(03|11) on socket " +
                                      id_text(client_.Id()) + " \\(socket closed\\)"));
  EXPECT_THAT(client_.User().Events(), ElementsAre("closed"));
}

TEST_F(FramedDataSocketSend, OtherSendFailureReportsSocketError) {
  ScriptedSocketCalls calls(client_.Id());
  calls.AddSend(code_step(OS_ERROR_SOCKET));
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(1, "Error 300 on socket " + id_text(client_.Id()))));
  EXPECT_THAT(client_.User().Events(), ElementsAre("error"));
}

TEST_F(FramedDataSocketSend, CallbacksRunAfterTheSendLockIsReleased) {
  ScriptedSocketCalls calls(client_.Id());
  calls.AddSend(code_step(OS_ERROR_SOCKET));
  calls.AddSend(real_step());  // the send from the SocketError callback
  calls.AddSend(code_step(OS_ERROR_BROKEN_PIPE));
  LockProbe probe;
  bool sentFromError = false;
  bool sentFromClosed = false;
  int results[2] = {0, 0};
  client_.User().onError = [&](FramedDataSocket& socket) {
    sentFromError = probe.Run([&] { results[0] = socket.Send(frame_.data(), 10); });
  };
  client_.User().onClosed = [&](FramedDataSocket& socket) {
    sentFromClosed = probe.Run([&] { results[1] = socket.Send(frame_.data(), 10); });
  };
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
  EXPECT_EQ(client_.Socket().Send(frame_.data(), 10), -1);
  probe.Join();
  EXPECT_TRUE(sentFromError);
  EXPECT_TRUE(sentFromClosed);
  EXPECT_EQ(results[0], 10);
  EXPECT_EQ(results[1], 10);
  EXPECT_EQ(receive_bytes(client_.Peer(), 20), frame_ + frame_);
}

// Several threads send on one non-blocking socket with small buffers, so
// sends are partial and wait; the peer must still see whole frames, each
// thread's in its order.
TEST_F(FramedDataSocketSend, ConcurrentSendersNeverInterleaveFrames) {
  ConnectedClient sender(true, 0, 4096);
  ASSERT_TRUE(sender.Ok());
  constexpr int THREADS = 4;
  constexpr int FRAMES = 150;
  RecordingSocketUser peerUser;
  FramedDataSocket peer(&peerUser, sender.Peer(), loopback(0));
  std::thread reader([&] {
    while (peer.Receive()) {
    }
  });
  std::vector<std::thread> senders;
  std::atomic<int> failures{0};
  for (int t = 0; t < THREADS; ++t) {
    senders.emplace_back([&, t] {
      for (int n = 0; n < FRAMES; ++n) {
        std::string body = std::to_string(t) + ":" + std::to_string(n) + ":" +
                           pattern(static_cast<size_t>(1 + (n * 997) % 6000), t * 1000 + n);
        std::string bytes = frame(body);
        if (sender.Socket().Send(bytes.data(), static_cast<int>(bytes.size())) !=
            static_cast<int>(bytes.size())) {
          ++failures;
        }
      }
    });
  }
  for (std::thread& thread : senders) thread.join();
  sender.Socket().Close();  // the reader sees the end of the stream
  reader.join();
  peer.ReleaseSocketID();  // the ConnectedClient closes it
  EXPECT_EQ(failures.load(), 0);
  std::vector<std::string> messages = peerUser.Messages();
  ASSERT_EQ(messages.size(), static_cast<size_t>(THREADS * FRAMES));
  std::map<int, int> next;
  for (const std::string& body : messages) {
    size_t first = body.find(':');
    size_t second = body.find(':', first + 1);
    int t = std::stoi(body.substr(0, first));
    int n = std::stoi(body.substr(first + 1, second - first - 1));
    EXPECT_EQ(n, next[t]++);
    EXPECT_TRUE(body.substr(second + 1) ==
                pattern(static_cast<size_t>(1 + (n * 997) % 6000), t * 1000 + n));
  }
}

TEST_F(FramedDataSocketSend, CloseFromAnotherThreadWhileSendingIsSafe) {
  ASSERT_TRUE(client_.Ok());
  std::atomic<bool> stop{false};
  std::thread drain([&] {
    while (!stop) receive_bytes(client_.Peer(), 65536, 20);
  });
  // Each sender sends until a send fails, which the close makes happen.
  std::vector<std::thread> senders;
  std::atomic<int> sent{0};
  std::atomic<int> failed{0};
  for (int t = 0; t < 3; ++t) {
    senders.emplace_back([&] {
      for (;;) {
        int result = client_.Socket().Send(frame_.data(), 10);
        if (result == -1) break;
        EXPECT_EQ(result, 10);
        ++sent;
      }
      ++failed;
    });
  }
  while (sent < 100) std::this_thread::yield();
  client_.Socket().Close();
  for (std::thread& thread : senders) thread.join();
  stop = true;
  drain.join();
  EXPECT_EQ(failed.load(), 3);
  EXPECT_FALSE(client_.Socket().IsOpen());
  EXPECT_GT(log_->Count("Zor Sockets: Send failed: Socket is closed"), 0u);
}

}  // namespace
}  // namespace socket_test
