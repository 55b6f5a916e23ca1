// Zor::Sockets::FrameHeader: the exact wire bytes and the validity rule with
// its message.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zor/sockets/FrameHeader.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_test {
namespace {

using ::testing::ElementsAre;
using Zor::Sockets::FrameHeader;

FrameHeader header_of(const std::string& bytes) {
  return FrameHeader(reinterpret_cast<const unsigned char*>(bytes.data()));
}

std::vector<int> bytes_of(const unsigned char* buffer) {
  return std::vector<int>(buffer, buffer + 4);
}

TEST(FrameHeader, WritesMarkerVersionAndBigEndianSize) {
  unsigned char buffer[4] = {0, 0, 0, 0};
  ASSERT_TRUE(FrameHeader::WriteMessageHeader(buffer, 0x1234));
  EXPECT_THAT(bytes_of(buffer), ElementsAre(0x46, 0x01, 0x12, 0x34));
}

TEST(FrameHeader, WritesSmallestAndLargestBodySizes) {
  unsigned char buffer[4];
  ASSERT_TRUE(FrameHeader::WriteMessageHeader(buffer, 1));
  EXPECT_THAT(bytes_of(buffer), ElementsAre(0x46, 0x01, 0x00, 0x01));
  ASSERT_TRUE(FrameHeader::WriteMessageHeader(buffer, 65535));
  EXPECT_THAT(bytes_of(buffer), ElementsAre(0x46, 0x01, 0xff, 0xff));
}

TEST(FrameHeader, RefusesBodySizeBeyondSixteenBitsAndWritesNothing) {
  unsigned char buffer[4] = {9, 9, 9, 9};
  EXPECT_FALSE(FrameHeader::WriteMessageHeader(buffer, 65536));
  EXPECT_THAT(bytes_of(buffer), ElementsAre(9, 9, 9, 9));
}

TEST(FrameHeader, ReadsFieldsWithSizeMostSignificantByteFirst) {
  FrameHeader header = header_of(std::string("F\x01\x02\x03", 4));
  EXPECT_EQ(header.GetMarker(), 'F');
  EXPECT_EQ(header.GetVersion(), 1);
  EXPECT_EQ(header.GetMessageSize(), 0x0203u);
}

TEST(FrameHeader, WrittenHeaderReadsBackValid) {
  ScopedSocketLog log;
  unsigned char buffer[4];
  FrameHeader::WriteMessageHeader(buffer, 777);
  FrameHeader header(buffer);
  EXPECT_TRUE(header.IsValid());
  EXPECT_EQ(header.GetMessageSize(), 777u);
  EXPECT_TRUE(log->Entries().empty());
}

TEST(FrameHeader, ZeroSizeIsInvalidAndLogged) {
  ScopedSocketLog log;
  EXPECT_FALSE(header_of(std::string("F\x01\x00\x00", 4)).IsValid());
  EXPECT_THAT(log->Entries(), ElementsAre(zs(1, "Received invalid message header of ( F, 1, 0 )")));
}

TEST(FrameHeader, WrongMarkerIsInvalidAndLogged) {
  ScopedSocketLog log;
  EXPECT_FALSE(header_of(std::string("G\x01\x00\x05", 4)).IsValid());
  EXPECT_THAT(log->Entries(), ElementsAre(zs(1, "Received invalid message header of ( G, 1, 5 )")));
}

TEST(FrameHeader, WrongVersionIsInvalidAndLogged) {
  ScopedSocketLog log;
  EXPECT_FALSE(header_of(std::string("F\x02\x01\x00", 4)).IsValid());
  EXPECT_THAT(log->Entries(),
              ElementsAre(zs(1, "Received invalid message header of ( F, 2, 256 )")));
}

TEST(FrameHeader, UnprintableMarkerIsEscapedInTheMessage) {
  ScopedSocketLog log;
  EXPECT_FALSE(header_of(std::string("\x00\xff\xff\xff", 4)).IsValid());
  EXPECT_FALSE(header_of(std::string("\x7f\x01\x00\x01", 4)).IsValid());
  EXPECT_THAT(log->Entries(),
              ElementsAre(zs(1, "Received invalid message header of ( \\x00, 255, 65535 )"),
                          zs(1, "Received invalid message header of ( \\x7F, 1, 1 )")));
}

}  // namespace
}  // namespace socket_test
