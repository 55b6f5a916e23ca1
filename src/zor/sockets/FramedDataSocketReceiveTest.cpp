// Zor::Sockets::FramedDataSocket::Receive: frame reassembly from partial
// reads, bursts, the message limit, framing errors and their order, peers
// that close, the retry limit and the result-code mapping, over real
// loopback connections. Reads the kernel cannot be made to split or fail
// are scripted through the platform layer's overrides.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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

class FramedDataSocketReceive : public ::testing::Test {
 protected:
  FramedDataSocketReceive() : client_(true) { log_->Clear(); }

  // Sends `bytes` from the peer and waits until all of them can be read.
  void PeerSends(const std::string& bytes) {
    ASSERT_TRUE(send_all(client_.Peer(), bytes));
    ASSERT_TRUE(wait_for_bytes(client_.Id(), bytes.size()));
  }

  std::string InvalidCallMessage(bool open, bool invalid) {
    return std::string("Invalid call to FramedDataSocket::Receive: IsOpen: ") + (open ? "1" : "0") +
           " invalidDataReceived: " + (invalid ? "1" : "0");
  }

  ScopedSocketLog log_;
  ConnectedClient client_;
};

TEST_F(FramedDataSocketReceive, ReceiveDeliversBodyOfOneFrame) {
  PeerSends(frame("abc"));
  unsigned int delivered = 99;
  EXPECT_TRUE(client_.Socket().Receive(0, &delivered));
  EXPECT_EQ(delivered, 1u);
  EXPECT_THAT(client_.User().Events(), ElementsAre("message:abc"));
  EXPECT_TRUE(log_->Entries().empty());
}

TEST_F(FramedDataSocketReceive, ReceiveDeliversWholeFrameWhenHeaderIsIncluded) {
  client_.Socket().SetReceivedDataShouldIncludeHeader(true);
  PeerSends(frame("abc") + frame("de"));
  EXPECT_TRUE(client_.Socket().Receive());
  EXPECT_THAT(client_.User().Messages(), ElementsAre(frame("abc"), frame("de")));
}

TEST_F(FramedDataSocketReceive, NothingToReadEndsTheCallSuccessfully) {
  unsigned int delivered = 99;
  EXPECT_TRUE(client_.Socket().Receive(0, &delivered));
  EXPECT_EQ(delivered, 0u);
  EXPECT_TRUE(client_.User().Events().empty());
  EXPECT_TRUE(log_->Entries().empty());
}

TEST_F(FramedDataSocketReceive, FrameSplitIntoOneByteReadsIsDeliveredOnce) {
  ScriptedSocketCalls calls(client_.Id());
  calls.AddRecvBytes(frame("abc") + frame("xy") + frame("z"), 1);
  unsigned int delivered = 0;
  EXPECT_TRUE(client_.Socket().Receive(0, &delivered));
  EXPECT_EQ(delivered, 3u);
  EXPECT_THAT(client_.User().Events(), ElementsAre("message:abc", "message:xy", "message:z"));
  // Each read asks for what the header or frame still lacks; the last read
  // finds nothing more (OS_ERROR_WOULD_BLOCK).
  EXPECT_THAT(calls.RecvLengths(), ElementsAre(4, 3, 2, 1, 3, 2, 1,  // "abc"
                                               4, 3, 2, 1, 2, 1,     // "xy"
                                               4, 3, 2, 1, 1,        // "z"
                                               4));
}

TEST_F(FramedDataSocketReceive, FrameTricklingInByteByByteAcrossCallsIsDeliveredOnce) {
  const std::string bytes = frame("hello");
  for (size_t i = 0; i < bytes.size(); ++i) {
    ASSERT_TRUE(send_all(client_.Peer(), bytes.substr(i, 1)));
    ASSERT_TRUE(wait_for_bytes(client_.Id(), 1));
    unsigned int delivered = 99;
    EXPECT_TRUE(client_.Socket().Receive(0, &delivered));
    EXPECT_EQ(delivered, i + 1 == bytes.size() ? 1u : 0u) << "after byte " << i;
  }
  EXPECT_THAT(client_.User().Events(), ElementsAre("message:hello"));
}

TEST_F(FramedDataSocketReceive, BurstOfManyFramesIsDeliveredInOrder) {
  std::string burst;
  std::vector<std::string> bodies;
  for (unsigned int n = 0; n < 500; ++n) {
    bodies.push_back(std::to_string(n) + pattern(n % 37, n));
    burst += frame(bodies.back());
  }
  PeerSends(burst);
  unsigned int delivered = 0;
  EXPECT_TRUE(client_.Socket().Receive(0, &delivered));
  EXPECT_EQ(delivered, 500u);
  EXPECT_EQ(client_.User().Messages(), bodies);
}

TEST_F(FramedDataSocketReceive, FramesInOneReadChunkAreSplitByTheirSizes) {
  ScriptedSocketCalls calls(client_.Id());
  calls.AddRecv(data_step(frame("abc") + frame("defgh") + frame("i")));
  EXPECT_TRUE(client_.Socket().Receive());
  EXPECT_THAT(client_.User().Messages(), ElementsAre("abc", "defgh", "i"));
  EXPECT_THAT(calls.RecvLengths(), ElementsAre(4, 3, 4, 5, 4, 1, 4));
}

TEST_F(FramedDataSocketReceive, MessageLimitStopsAfterThatManyMessages) {
  std::string burst;
  for (int n = 0; n < 10; ++n) burst += frame("m" + std::to_string(n));
  PeerSends(burst);
  unsigned int delivered = 0;
  EXPECT_TRUE(client_.Socket().Receive(3, &delivered));
  EXPECT_EQ(delivered, 3u);
  EXPECT_EQ(client_.User().Messages().size(), 3u);
  EXPECT_TRUE(client_.Socket().Receive(0, &delivered));
  EXPECT_EQ(delivered, 7u);
  EXPECT_EQ(client_.User().Messages().back(), "m9");
}

TEST_F(FramedDataSocketReceive, ZeroSizeHeaderIsAFramingErrorAndLaterCallsAreRefused) {
  PeerSends(raw_header('F', 1, 0) + frame("never"));
  unsigned int delivered = 99;
  EXPECT_FALSE(client_.Socket().Receive(0, &delivered));
  EXPECT_EQ(delivered, 0u);
  EXPECT_THAT(client_.User().Events(), ElementsAre("framing"));
  EXPECT_FALSE(client_.Socket().Receive(0, &delivered));
  EXPECT_EQ(delivered, 0u);
  EXPECT_THAT(client_.User().Events(), ElementsAre("framing"));
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(1, "Received invalid message header of ( F, 1, 0 )"),
                                           zs(2, InvalidCallMessage(true, true))));
}

TEST_F(FramedDataSocketReceive, ZeroSizeHeaderMakesNoZeroLengthRead) {
  ScriptedSocketCalls calls(client_.Id());
  calls.AddRecv(data_step(raw_header('F', 1, 0) + frame("x")));
  EXPECT_FALSE(client_.Socket().Receive());
  // A read of 0 bytes would come back as "closed by far end".
  EXPECT_THAT(calls.RecvLengths(), ElementsAre(4));
  EXPECT_THAT(client_.User().Events(), ElementsAre("framing"));
}

TEST_F(FramedDataSocketReceive, WrongMarkerIsAFramingErrorAndLaterCallsAreRefused) {
  PeerSends(raw_header('G', 1, 5));
  EXPECT_FALSE(client_.Socket().Receive());
  EXPECT_THAT(client_.User().Events(), ElementsAre("framing"));
  PeerSends(frame("late"));
  EXPECT_FALSE(client_.Socket().Receive());
  EXPECT_THAT(client_.User().Events(), ElementsAre("framing"));
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(1, "Received invalid message header of ( G, 1, 5 )"),
                                           zs(2, InvalidCallMessage(true, true))));
}

TEST_F(FramedDataSocketReceive, WrongVersionIsAFramingErrorAndLaterCallsAreRefused) {
  PeerSends(raw_header('F', 2, 5));
  EXPECT_FALSE(client_.Socket().Receive());
  EXPECT_FALSE(client_.Socket().Receive());
  EXPECT_THAT(client_.User().Events(), ElementsAre("framing"));
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(1, "Received invalid message header of ( F, 2, 5 )"),
                                           zs(2, InvalidCallMessage(true, true))));
}

TEST_F(FramedDataSocketReceive, InvalidHeaderBodyIsStillReadInTheSameCall) {
  PeerSends(raw_header('X', 1, 3) + "abc" + frame("ok"));
  // The call that meets the invalid header reads on: the body it announced
  // and what follows. Its result is that of the last read handled.
  EXPECT_TRUE(client_.Socket().Receive());
  EXPECT_THAT(client_.User().Events(), ElementsAre("framing", "message:abc", "message:ok"));
  EXPECT_FALSE(client_.Socket().Receive());
}

TEST_F(FramedDataSocketReceive, CallEndsWithResultOfLastReadAfterInvalidHeader) {
  PeerSends(raw_header('X', 1, 5) + "ab");
  EXPECT_TRUE(client_.Socket().Receive());  // the last read handled was part of a body
  EXPECT_THAT(client_.User().Events(), ElementsAre("framing"));
  EXPECT_FALSE(client_.Socket().Receive());
}

TEST_F(FramedDataSocketReceive, PeerClosingMidFrameReportsSocketClosed) {
  ASSERT_TRUE(send_all(client_.Peer(), raw_header('F', 1, 10) + "abc"));
  raw_close(client_.Peer());
  bool result = true;
  for (int i = 0; i < 100 && result; ++i) {
    wait_readable(client_.Id(), 100);
    result = client_.Socket().Receive();
  }
  EXPECT_FALSE(result);
  EXPECT_THAT(client_.User().Events(), ElementsAre("closed"));
  EXPECT_THAT(log_->Entries(),
              ElementsAre(zs(4, "Socket " + id_text(client_.Id()) + " closed by far end")));
  EXPECT_TRUE(client_.Socket().IsOpen());  // closing is the user's decision
}

TEST_F(FramedDataSocketReceive, PeerClosingBetweenFramesReportsClosedAfterTheFrames) {
  ASSERT_TRUE(send_all(client_.Peer(), frame("one") + frame("two")));
  raw_close(client_.Peer());
  bool result = true;
  for (int i = 0; i < 100 && result; ++i) {
    wait_readable(client_.Id(), 100);
    result = client_.Socket().Receive();
  }
  EXPECT_FALSE(result);
  EXPECT_THAT(client_.User().Events(), ElementsAre("message:one", "message:two", "closed"));
}

TEST_F(FramedDataSocketReceive, BlockingReceiveReturnsOnlyWhenPeerCloses) {
  ConnectedClient blocking(false);
  ASSERT_TRUE(blocking.Ok());
  bool result = true;
  unsigned int delivered = 0;
  std::thread reader([&] { result = blocking.Socket().Receive(0, &delivered); });
  ASSERT_TRUE(send_all(blocking.Peer(), frame("a")));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(send_all(blocking.Peer(), frame("b") + frame("c")));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  raw_close(blocking.Peer());
  reader.join();
  EXPECT_FALSE(result);
  EXPECT_EQ(delivered, 3u);
  EXPECT_THAT(blocking.User().Events(),
              ElementsAre("message:a", "message:b", "message:c", "closed"));
}

// Close() from another thread wakes a blocked Receive(), which ends as for
// a peer that closed; the peer sees the connection end.
TEST_F(FramedDataSocketReceive, CloseFromAnotherThreadWakesABlockedReceive) {
  ConnectedClient blocking(false);
  ASSERT_TRUE(blocking.Ok());
  std::atomic<bool> done{false};
  bool result = true;
  std::thread reader([&] {
    result = blocking.Socket().Receive();
    done = true;
  });
  ASSERT_TRUE(send_all(blocking.Peer(), frame("a")));
  for (int waited = 0; waited < 5000 && blocking.User().Events().empty(); waited += 5) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_FALSE(done);
  blocking.Socket().Close();
  for (int waited = 0; waited < 5000 && !done; waited += 5) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_TRUE(done) << "Receive() still blocked after Close()";
  reader.join();
  EXPECT_FALSE(result);
  EXPECT_THAT(blocking.User().Events(), ElementsAre("message:a", "closed"));
  EXPECT_FALSE(blocking.Socket().IsOpen());
  EXPECT_EQ(receive_bytes(blocking.Peer(), 1, 2000), "");
}

// A Close() that lands while a frame is being delivered (here from the
// callback itself; from another thread it can land there too) ends the call
// as a close, not as a failed read of a closed socket.
TEST_F(FramedDataSocketReceive, CloseDuringDeliveryEndsTheCallAsClosed) {
  ConnectedClient blocking(false);
  ASSERT_TRUE(blocking.Ok());
  blocking.User().onMessage = [](Zor::Sockets::FramedDataSocket& socket, const std::string&) {
    socket.Close();
  };
  ASSERT_TRUE(send_all(blocking.Peer(), frame("a")));
  EXPECT_FALSE(blocking.Socket().Receive());
  EXPECT_THAT(blocking.User().Events(), ElementsAre("message:a", "closed"));
  EXPECT_FALSE(blocking.Socket().IsOpen());
}

TEST_F(FramedDataSocketReceive, TwentyConsecutiveRecvRetriesEndWithSocketError) {
  ScriptedSocketCalls calls(client_.Id());
  for (int i = 0; i < 25; ++i) calls.AddRecv(code_step(OS_ERROR_RETRY));
  EXPECT_FALSE(client_.Socket().Receive());
  EXPECT_EQ(calls.RecvCalls(), 20);
  const std::string id = id_text(client_.Id());
  std::vector<LogEntry> expected(20, zs(8, "Socket " + id + ": osTCPRecv returned OS_ERROR_RETRY"));
  expected.push_back(zs(1, "Socket " + id + " received too many OS_ERROR_RETRYs on osTCPRecv"));
  EXPECT_EQ(log_->Entries(), expected);
  EXPECT_THAT(client_.User().Events(), ElementsAre("error"));
}

TEST_F(FramedDataSocketReceive, NineteenRecvRetriesThenDataDeliversTheFrame) {
  ScriptedSocketCalls calls(client_.Id());
  for (int i = 0; i < 19; ++i) calls.AddRecv(code_step(OS_ERROR_RETRY));
  calls.AddRecv(data_step(frame("ok")));
  EXPECT_TRUE(client_.Socket().Receive());
  EXPECT_THAT(client_.User().Events(), ElementsAre("message:ok"));
  EXPECT_EQ(log_->Entries().size(), 19u);
}

TEST_F(FramedDataSocketReceive, RecvRetryCountStartsAgainAfterAnyOtherResult) {
  ScriptedSocketCalls calls(client_.Id());
  const std::string bytes = frame("abc");
  for (char byte : bytes) {
    for (int i = 0; i < 19; ++i) calls.AddRecv(code_step(OS_ERROR_RETRY));
    calls.AddRecv(data_step(std::string(1, byte)));
  }
  EXPECT_TRUE(client_.Socket().Receive());
  EXPECT_THAT(client_.User().Events(), ElementsAre("message:abc"));
}

TEST_F(FramedDataSocketReceive, PeerGoneResultsReportSocketClosed) {
  for (int rc : {OS_ERROR_CONN_RESET, OS_ERROR_BROKEN_PIPE, OS_ERROR_NOT_CONNECTED}) {
    log_->Clear();
    client_.User().Clear();
    ScriptedSocketCalls calls(client_.Id());
    calls.AddRecv(code_step(rc));
    EXPECT_FALSE(client_.Socket().Receive());
    EXPECT_THAT(log_->Entries(), ElementsAre(zs(4, "Socket " + id_text(client_.Id()) +
                                                       " closed by near or far end (result " +
                                                       std::to_string(rc) + ")")));
    EXPECT_THAT(client_.User().Events(), ElementsAre("closed"));
  }
}

TEST_F(FramedDataSocketReceive, OtherRecvFailureReportsSocketError) {
  ScriptedSocketCalls calls(client_.Id());
  calls.AddRecv(code_step(OS_ERROR_SOCKET));
  EXPECT_FALSE(client_.Socket().Receive());
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(1, "Error 300 on socket " + id_text(client_.Id()))));
  EXPECT_THAT(client_.User().Events(), ElementsAre("error"));
}

TEST_F(FramedDataSocketReceive, PlatformReportingMoreThanAskedIsLoggedAsLogicError) {
  ScriptedSocketCalls calls(client_.Id());
  Step lying = data_step(raw_header('F', 1, 3));
  lying.extraCount = 1;  // 4 bytes given, 5 reported
  calls.AddRecv(lying);
  calls.AddRecv(data_step("bc"));
  EXPECT_TRUE(client_.Socket().Receive());
  EXPECT_THAT(log_->Entries(), ElementsAre(zs(1, "LOGIC ERROR: expected 4 bytes, received 5")));
  // Handling went on: the header counted, and the frame completed with the
  // byte the platform claimed (never written, so zero) and the next two.
  EXPECT_THAT(client_.User().Messages(), ElementsAre(std::string("\0bc", 3)));
  EXPECT_THAT(calls.RecvLengths(), ElementsAre(4, 2, 4));
}

TEST_F(FramedDataSocketReceive, ReceiveBufferGrowsToTheLargestFrameAndNoFurther) {
  EXPECT_EQ(client_.Socket().GetReceiveBufferCapacity(), 0u);
  PeerSends(frame(std::string(10, 'a')));
  client_.Socket().Receive();
  EXPECT_EQ(client_.Socket().GetReceiveBufferCapacity(), 14u);  // the frame
  PeerSends(frame(std::string(20, 'b')));
  client_.Socket().Receive();
  EXPECT_EQ(client_.Socket().GetReceiveBufferCapacity(), 28u);  // twice the old size
  PeerSends(frame(std::string(40000, 'c')));
  client_.Socket().Receive();
  EXPECT_EQ(client_.Socket().GetReceiveBufferCapacity(), 40004u);
  PeerSends(frame(std::string(65535, 'd')));
  client_.Socket().Receive();
  EXPECT_EQ(client_.Socket().GetReceiveBufferCapacity(), 65539u);  // not 80008
  PeerSends(frame(std::string(65535, 'e')) + frame("f"));
  client_.Socket().Receive();
  EXPECT_EQ(client_.Socket().GetReceiveBufferCapacity(), 65539u);
  std::vector<std::string> messages = client_.User().Messages();
  ASSERT_EQ(messages.size(), 6u);
  EXPECT_TRUE(messages[3] == std::string(65535, 'd'));
  EXPECT_TRUE(messages[4] == std::string(65535, 'e'));
  EXPECT_EQ(messages[5], "f");
}

TEST_F(FramedDataSocketReceive, LargestFrameIsDeliveredIntact) {
  const std::string body = pattern(65535, 3);
  ASSERT_TRUE(send_all(client_.Peer(), frame(body)));
  ASSERT_TRUE(client_.ReceiveMessages(1));
  ASSERT_EQ(client_.User().Messages().size(), 1u);
  EXPECT_TRUE(client_.User().Messages()[0] == body);
}

TEST_F(FramedDataSocketReceive, UserMayChangeTheMessageBytesInPlace) {
  class Rewriter : public RecordingSocketUser {
   public:
    void MessageReceived(FramedDataSocket& socket, void* data, unsigned int size) override {
      static_cast<unsigned char*>(data)[0] = '1';  // e.g. a queue type word over the header
      RecordingSocketUser::MessageReceived(socket, data, size);
    }
  } rewriter;
  FramedDataSocket reader(&rewriter, client_.Id(), loopback(0));
  reader.SetReceivedDataShouldIncludeHeader(true);
  reader.SetSocketIsNonBlocking(true);
  PeerSends(frame("xyz"));
  EXPECT_TRUE(reader.Receive());
  reader.ReleaseSocketID();
  EXPECT_THAT(rewriter.Messages(), ElementsAre(std::string("1\x01\x00\x03xyz", 7)));
}

}  // namespace
}  // namespace socket_test
