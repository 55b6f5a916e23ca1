#include <gtest/gtest.h>
#include <net/if.h>
#include <string.h>
#include <sys/utsname.h>

#include <string>
#include <vector>

#include "osa/osa.h"

namespace {

constexpr uint32_t LOOPBACK = 0x7f000001;

TEST(OsaByteOrder, NetworkOrderIsBigEndian) {
  uint16_t shortValue = osTCPHostToNetworkShort(0x1234);
  const auto* bytes = reinterpret_cast<const unsigned char*>(&shortValue);
  EXPECT_EQ(0x12, bytes[0]);
  EXPECT_EQ(0x34, bytes[1]);
  uint32_t longValue = osTCPHostToNetworkLong(0x01020304);
  bytes = reinterpret_cast<const unsigned char*>(&longValue);
  EXPECT_EQ(0x01, bytes[0]);
  EXPECT_EQ(0x04, bytes[3]);
  EXPECT_EQ(0x1234, osTCPNetworkToHostShort(shortValue));
  EXPECT_EQ(0x01020304u, osTCPNetworkToHostLong(longValue));
}

TEST(OsaHostName, IsTheKernelsNodeName) {
  struct utsname names;
  ASSERT_EQ(0, uname(&names));
  char buffer[256];
  ASSERT_EQ(OS_OK, osTCPGetHostName(buffer, sizeof buffer));
  EXPECT_STREQ(names.nodename, buffer);
}

TEST(OsaHostName, TooSmallBufferIsCut) {
  struct utsname names;
  ASSERT_EQ(0, uname(&names));
  size_t length = strlen(names.nodename);
  ASSERT_GT(length, 0u);
  std::vector<char> buffer(length);  // one short of the terminator
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, osTCPGetHostName(buffer.data(), buffer.size()));
  EXPECT_EQ(std::string(names.nodename, length - 1), std::string(buffer.data()));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPGetHostName(nullptr, 8));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPGetHostName(buffer.data(), 0));
}

TEST(OsaIpList, ListsTheLoopbackInterface) {
  tOsIpListEntry entries[32];
  unsigned long count = 0;
  ASSERT_EQ(OS_OK, osTCPGetIpListEx(entries, sizeof entries, &count));
  ASSERT_GE(count, 1u);
  bool found = false;
  for (unsigned long i = 0; i < count; ++i) {
    if (entries[i].ipAddress != LOOPBACK) continue;
    found = true;
    EXPECT_EQ(0xff000000u, entries[i].netMask);
    EXPECT_NE(0u, entries[i].flags & IFF_LOOPBACK);
    EXPECT_NE(0u, entries[i].flags & IFF_UP);
    EXPECT_EQ(if_nametoindex("lo"), entries[i].interfaceIndex);
    EXPECT_EQ(0u, entries[i].broadcastAddress);  // loopback has no broadcast
  }
  EXPECT_TRUE(found);
  EXPECT_EQ(20u, sizeof(tOsIpListEntry));
}

TEST(OsaIpList, FullBufferReportsItsCapacity) {
  tOsIpListEntry all[32];
  unsigned long total = 0;
  ASSERT_EQ(OS_OK, osTCPGetIpListEx(all, sizeof all, &total));
  ASSERT_GE(total, 1u);
  tOsIpListEntry some[32];
  unsigned long count = 99;
  // A buffer with room for one less than exist, plus a few spare bytes.
  unsigned long size = (total - 1) * sizeof(tOsIpListEntry) + 7;
  ASSERT_EQ(OS_OK, osTCPGetIpListEx(some, size, &count));
  EXPECT_EQ(total - 1, count);
  for (unsigned long i = 0; i < count; ++i) EXPECT_EQ(all[i].ipAddress, some[i].ipAddress);
  ASSERT_EQ(OS_OK, osTCPGetIpListEx(nullptr, 0, &count));
  EXPECT_EQ(0u, count);
}

TEST(OsaIpList, InvalidArguments) {
  tOsIpListEntry entries[2];
  unsigned long count = 0;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPGetIpListEx(entries, sizeof entries, nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPGetIpListEx(nullptr, sizeof entries, &count));
}

std::string address_text(uint32_t ip, uint16_t port) {
  tOsTCPSocketAddress address{ip, port};
  char buffer[32];
  EXPECT_EQ(OS_OK, osTCPAddressToString(&address, buffer, sizeof buffer));
  return buffer;
}

TEST(OsaAddressToString, DottedQuadAndPort) {
  EXPECT_EQ("127.0.0.1:8080", address_text(LOOPBACK, 8080));
  EXPECT_EQ("0.0.0.0:0", address_text(0, 0));
  EXPECT_EQ("255.255.255.255:65535", address_text(0xffffffff, 65535));
  EXPECT_EQ("10.1.2.3:4", address_text(0x0a010203, 4));
}

TEST(OsaAddressToString, TooSmallBufferIsCut) {
  tOsTCPSocketAddress address{LOOPBACK, 8080};
  char buffer[10];
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, osTCPAddressToString(&address, buffer, sizeof buffer));
  EXPECT_STREQ("127.0.0.1", buffer);
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPAddressToString(nullptr, buffer, sizeof buffer));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPAddressToString(&address, nullptr, 10));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osTCPAddressToString(&address, buffer, 0));
}

TEST(OsaGetHostByName, DottedQuad) {
  tOsHostEntry entry;
  ASSERT_EQ(OS_OK, osGetHostByName("127.0.0.1", &entry));
  ASSERT_EQ(1u, entry.addressCount);
  EXPECT_EQ(LOOPBACK, entry.addresses[0]);
  ASSERT_EQ(OS_OK, osGetHostByName("10.20.30.40", &entry));
  ASSERT_EQ(1u, entry.addressCount);
  EXPECT_EQ(0x0a141e28u, entry.addresses[0]);
}

TEST(OsaGetHostByName, LocalhostGivesDistinctAddresses) {
  // Resolved from the hosts file: no name server is asked.
  tOsHostEntry entry;
  ASSERT_EQ(OS_OK, osGetHostByName("localhost", &entry));
  ASSERT_GE(entry.addressCount, 1u);
  bool loopback = false;
  for (unsigned i = 0; i < entry.addressCount; ++i) {
    loopback = loopback || entry.addresses[i] == LOOPBACK;
    for (unsigned j = i + 1; j < entry.addressCount; ++j) {
      EXPECT_NE(entry.addresses[i], entry.addresses[j]);
    }
  }
  EXPECT_TRUE(loopback);
}

TEST(OsaGetHostByName, MalformedNameIsNotFound) {
  // A label over 63 characters is refused by the resolver before any query
  // leaves the machine.
  std::string name = std::string(70, 'a') + ".invalid";
  tOsHostEntry entry;
  entry.addressCount = 77;
  EXPECT_EQ(OS_ERROR_HOST_NOT_FOUND, osGetHostByName(name.c_str(), &entry));
  EXPECT_EQ(77u, entry.addressCount);
}

TEST(OsaGetHostByName, InvalidArguments) {
  tOsHostEntry entry;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetHostByName(nullptr, &entry));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetHostByName("", &entry));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetHostByName("localhost", nullptr));
}

}  // namespace
