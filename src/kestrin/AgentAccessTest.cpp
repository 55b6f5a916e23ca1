#include "kestrin/AgentAccess.h"

#include <gtest/gtest.h>

namespace kestrin {
namespace {

constexpr uint32_t Ip(unsigned a, unsigned b, unsigned c, unsigned d) {
  return (a << 24) | (b << 16) | (c << 8) | d;
}

TEST(AgentAccess, ParsesDottedQuads) {
  uint32_t address = 0;
  ASSERT_TRUE(ParseIPv4Address("192.168.1.20", &address));
  EXPECT_EQ(Ip(192, 168, 1, 20), address);
  ASSERT_TRUE(ParseIPv4Address("0.0.0.0", &address));
  EXPECT_EQ(0u, address);
  for (const char* bad : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1..2.3", "a.b.c.d", "1.2.3.4 ",
                          "-1.2.3.4", "1.2.3.0004", "::1"}) {
    EXPECT_FALSE(ParseIPv4Address(bad, &address)) << bad;
  }
}

TEST(AgentAccess, ParsesBlocksWithAndWithoutPrefix) {
  AddressBlock block;
  ASSERT_TRUE(ParseAddressBlock(" 10.0.0.0/8 ", &block));
  EXPECT_EQ(Ip(10, 0, 0, 0), block.address);
  EXPECT_EQ(8u, block.prefixLength);
  ASSERT_TRUE(ParseAddressBlock("127.0.0.1", &block));
  EXPECT_EQ(32u, block.prefixLength);
  for (const char* bad : {"10.0.0.0/33", "10.0.0.0/", "10.0.0.0/x", "10.0.0/8", "/8"}) {
    EXPECT_FALSE(ParseAddressBlock(bad, &block)) << bad;
  }
}

TEST(AgentAccess, BlocksContainExactlyTheirAddresses) {
  AddressBlock block;
  ASSERT_TRUE(ParseAddressBlock("192.168.4.0/22", &block));
  EXPECT_TRUE(block.Contains(Ip(192, 168, 4, 0)));
  EXPECT_TRUE(block.Contains(Ip(192, 168, 7, 255)));
  EXPECT_FALSE(block.Contains(Ip(192, 168, 8, 0)));
  EXPECT_FALSE(block.Contains(Ip(192, 168, 3, 255)));
  ASSERT_TRUE(ParseAddressBlock("0.0.0.0/0", &block));
  EXPECT_TRUE(block.Contains(Ip(8, 8, 8, 8)));
  ASSERT_TRUE(ParseAddressBlock("127.0.0.2", &block));
  EXPECT_TRUE(block.Contains(Ip(127, 0, 0, 2)));
  EXPECT_FALSE(block.Contains(Ip(127, 0, 0, 1)));
}

TEST(AgentAccess, EveryoneIsAllowedUntilAListIsGiven) {
  AgentAccess access;
  EXPECT_TRUE(access.Allows(Ip(1, 2, 3, 4)));
  access.restricted = true;
  EXPECT_FALSE(access.Allows(Ip(1, 2, 3, 4))) << "an empty list lets nobody in";
  AddressBlock block;
  ASSERT_TRUE(ParseAddressBlock("1.2.3.0/24", &block));
  access.allowed.push_back(block);
  EXPECT_TRUE(access.Allows(Ip(1, 2, 3, 4)));
  EXPECT_FALSE(access.Allows(Ip(1, 2, 4, 4)));
}

TEST(AgentAccess, TheProcessWideCopyIsReplacedWhole) {
  AgentAccess access;
  access.maxAgents = 7;
  access.idleTimeoutSeconds = 30;
  SetAgentAccess(access);
  EXPECT_EQ(7u, GetAgentAccess().maxAgents);
  EXPECT_EQ(30u, GetAgentAccess().idleTimeoutSeconds);
  SetAgentAccess(AgentAccess());
  EXPECT_EQ(0u, GetAgentAccess().maxAgents);
}

}  // namespace
}  // namespace kestrin
