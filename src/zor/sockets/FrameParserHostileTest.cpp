// Hostile input for the frame parser: thousands of random byte streams
// (fixed seed), each written by a real peer over loopback and read with
// Receive(). For each stream the events must be exactly those that a simple
// model of the framing rules predicts, framing errors must be reported (by
// callback and in the log) and refuse later calls, and the receive buffer
// must never grow beyond the largest frame.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "osa/osa.h"
#include "zor/sockets/FramedDataSocket.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_test {
namespace {

using Zor::Sockets::FramedDataSocket;

constexpr int STREAMS = 5000;
constexpr unsigned int SEED = 20240611;

// What one Receive() call over the whole stream (all of it readable, the
// peer still connected) must report: messages in order, "framing" at an
// invalid header, the body that header announced when it is all there, and
// further frames after it; nothing once an invalid header announces no body.
struct Expected {
  std::vector<std::string> events;
  int framingErrors = 0;
};

Expected model(const std::string& stream) {
  Expected expected;
  size_t at = 0;
  while (stream.size() - at >= 4) {
    const unsigned char* header = reinterpret_cast<const unsigned char*>(stream.data() + at);
    const size_t size = static_cast<size_t>(header[2]) << 8 | header[3];
    const bool valid = header[0] == 'F' && header[1] == 1 && size != 0;
    at += 4;
    if (!valid) {
      expected.events.push_back("framing");
      ++expected.framingErrors;
      if (size == 0) break;
    }
    if (stream.size() - at < size) break;
    expected.events.push_back("message:" + stream.substr(at, size));
    at += size;
  }
  return expected;
}

std::string random_bytes(std::mt19937& random, size_t count) {
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() & 0xff);
  return bytes;
}

// One hostile stream: random garbage, valid frames with a corrupted header,
// headers announcing nothing or far more than follows, the largest frames,
// and plausible-looking headers with random sizes.
std::string hostile_stream(std::mt19937& random, int n) {
  std::uniform_int_distribution<int> kind(0, 6);
  std::string stream;
  switch (n % 97 == 0 ? 7 : kind(random)) {
    case 0:
      return random_bytes(random, random() % 65);
    case 1:
      for (unsigned int frames = 1 + random() % 5; frames > 0; --frames) {
        stream += frame(random_bytes(random, 1 + random() % 200));
      }
      return stream + random_bytes(random, random() % 17);
    case 2: {
      for (unsigned int frames = 1 + random() % 4; frames > 0; --frames) {
        stream += frame(random_bytes(random, 1 + random() % 100));
      }
      stream[random() % 2] ^= static_cast<char>(1 + random() % 255);  // marker or version
      return stream;
    }
    case 3:
      return raw_header('F', 1, 0) + random_bytes(random, random() % 20);
    case 4:
      return raw_header('F', 1, 1000 + random() % 64536) + random_bytes(random, random() % 300);
    case 5: {
      std::string body = random_bytes(random, 1 + random() % 64);
      return raw_header('F', 1, static_cast<unsigned int>(body.size() + random() % 3)) + body +
             random_bytes(random, random() % 8);
    }
    case 6:
      for (unsigned int parts = random() % 6; parts > 0; --parts) {
        stream += raw_header('F', static_cast<unsigned char>(random() % 3), random() % 40) +
                  random_bytes(random, random() % 40);
      }
      return stream;
    default:  // the largest frames, then garbage
      return frame(random_bytes(random, 65535)) + frame(random_bytes(random, 65535)) +
             random_bytes(random, 10);
  }
}

TEST(FrameParserHostile, RandomStreamsAreReportedAsTheFramingRulesSayAndMemoryStaysBounded) {
  ScopedSocketLog log;
  RawListener listener;
  std::mt19937 random(SEED);
  int framingErrors = 0;
  for (int n = 0; n < STREAMS; ++n) {
    const std::string stream = hostile_stream(random, n);
    const Expected expected = model(stream);
    RecordingSocketUser user;
    // A receive buffer large enough for the longest stream to be there whole.
    FramedDataSocket socket(&user, false, 1 << 20, 0);
    ASSERT_TRUE(socket.Connect(listener.Address(), 0, 0));
    ASSERT_TRUE(socket.SetSocketIsNonBlocking(true));
    long peer = listener.Accept();
    ASSERT_NE(peer, -1);
    ASSERT_TRUE(send_all(peer, stream));
    ASSERT_TRUE(wait_for_bytes(socket.GetSocketID(), stream.size()));
    log->Clear();

    socket.Receive();
    ASSERT_LE(socket.GetReceiveBufferCapacity(), FramedDataSocket::MAX_FRAME_SIZE)
        << "stream " << n;
    ASSERT_EQ(user.Events(), expected.events) << "stream " << n;
    size_t headerMessages = 0;
    for (const LogEntry& entry : log->Entries()) {
      if (entry.text.rfind("Zor Sockets: Received invalid message header of ( ", 0) == 0) {
        EXPECT_EQ(entry.level, 1);
        ++headerMessages;
      }
    }
    ASSERT_EQ(headerMessages, static_cast<size_t>(expected.framingErrors)) << "stream " << n;

    // After a framing error every call is refused; otherwise the peer's
    // close is reported.
    raw_close(peer);
    ASSERT_TRUE(wait_readable(socket.GetSocketID(), 5000));
    const bool result = socket.Receive();
    EXPECT_FALSE(result);
    if (expected.framingErrors > 0) {
      EXPECT_EQ(user.Events(), expected.events) << "stream " << n;
      EXPECT_EQ(log->Entries().back().text,
                "Zor Sockets: Invalid call to FramedDataSocket::Receive: IsOpen: 1 "
                "invalidDataReceived: 1");
    } else {
      EXPECT_EQ(user.Events().back(), "closed") << "stream " << n;
    }
    ASSERT_LE(socket.GetReceiveBufferCapacity(), FramedDataSocket::MAX_FRAME_SIZE);
    framingErrors += expected.framingErrors > 0 ? 1 : 0;
  }
  // The generator does produce both kinds of stream in numbers.
  EXPECT_GT(framingErrors, STREAMS / 4);
  EXPECT_LT(framingErrors, STREAMS);
}

// The same streams, each handed to Receive() in pieces of random sizes
// through the platform's receive override: however the bytes are split,
// nothing breaks and the buffer stays bounded.
TEST(FrameParserHostile, RandomlySplitStreamsNeverBreakTheParser) {
  ScopedSocketLog log;
  std::mt19937 random(SEED + 1);
  long id = -1;
  ASSERT_EQ(osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &id), OS_OK);
  for (int n = 0; n < STREAMS; ++n) {
    const std::string stream = hostile_stream(random, n);
    const Expected expected = model(stream);
    RecordingSocketUser user;
    FramedDataSocket socket(&user, id, loopback(0));
    ScriptedSocketCalls calls(id);
    calls.AddRecvBytes(stream, 1 + random() % 9);
    // The whole stream is there to be read, so one call sees all of it.
    socket.Receive();
    ASSERT_EQ(user.Events(), expected.events) << "stream " << n;
    ASSERT_LE(socket.GetReceiveBufferCapacity(), FramedDataSocket::MAX_FRAME_SIZE);
    socket.ReleaseSocketID();
  }
  osTCPClose(id);
}

}  // namespace
}  // namespace socket_test
