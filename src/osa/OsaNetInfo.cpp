// Host and address information: the host name, the interfaces' IPv4
// addresses, name resolution, address text and byte order.
#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

uint32_t host_order_address(const struct sockaddr* raw) {
  if (raw == nullptr || raw->sa_family != AF_INET) return 0;
  return ntohl(reinterpret_cast<const struct sockaddr_in*>(raw)->sin_addr.s_addr);
}

tOsIpListEntry entry_for(const struct ifaddrs& interface) {
  tOsIpListEntry entry;
  entry.ipAddress = host_order_address(interface.ifa_addr);
  entry.netMask = host_order_address(interface.ifa_netmask);
  entry.broadcastAddress =
      (interface.ifa_flags & IFF_BROADCAST) ? host_order_address(interface.ifa_broadaddr) : 0;
  entry.flags = interface.ifa_flags;
  entry.interfaceIndex = if_nametoindex(interface.ifa_name);
  return entry;
}

int resolver_error(int error) {
  switch (error) {
    case EAI_AGAIN:
      return OS_ERROR_RETRY;
    case EAI_MEMORY:
      return OS_ERROR_NO_MEMORY;
    case EAI_SYSTEM:
      return osa_internal::socket_error_from_errno(errno);
    default:
      return OS_ERROR_HOST_NOT_FOUND;
  }
}

}  // namespace

uint16_t osTCPHostToNetworkShort(uint16_t value) { return htons(value); }
uint32_t osTCPHostToNetworkLong(uint32_t value) { return htonl(value); }
uint16_t osTCPNetworkToHostShort(uint16_t value) { return ntohs(value); }
uint32_t osTCPNetworkToHostLong(uint32_t value) { return ntohl(value); }

int osTCPGetHostName(char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return OS_ERROR_INVALID_PARAMETER;
  struct utsname names;
  if (uname(&names) != 0) return OS_ERROR_GENERAL;
  osLStrCpyn(buffer, names.nodename, size);
  return strlen(names.nodename) < size ? OS_OK : OS_ERROR_BUFFER_TOO_SMALL;
}

int osTCPGetIpListEx(tOsIpListEntry* entries, unsigned long bufferSize, unsigned long* count) {
  if (count == nullptr || (entries == nullptr && bufferSize != 0)) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  struct ifaddrs* interfaces = nullptr;
  if (getifaddrs(&interfaces) != 0) return osa_internal::socket_error_from_errno(errno);
  unsigned long capacity = bufferSize / sizeof(tOsIpListEntry);
  unsigned long filled = 0;
  for (struct ifaddrs* it = interfaces; it != nullptr && filled < capacity; it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET) continue;
    entries[filled++] = entry_for(*it);
  }
  freeifaddrs(interfaces);
  *count = filled;
  return OS_OK;
}

int osTCPAddressToString(const tOsTCPSocketAddress* address, char* buffer, size_t size) {
  if (address == nullptr || buffer == nullptr || size == 0) return OS_ERROR_INVALID_PARAMETER;
  char text[32];
  uint32_t ip = address->ipAddress;
  snprintf(text, sizeof text, "%u.%u.%u.%u:%u", (ip >> 24) & 0xff, (ip >> 16) & 0xff,
           (ip >> 8) & 0xff, ip & 0xff, static_cast<unsigned>(address->port));
  osLStrCpyn(buffer, text, size);
  return strlen(text) < size ? OS_OK : OS_ERROR_BUFFER_TOO_SMALL;
}

int osGetHostByName(const char* hostName, tOsHostEntry* entry) {
  if (hostName == nullptr || hostName[0] == '\0' || entry == nullptr) {
    return OS_ERROR_INVALID_PARAMETER;
  }
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;  // one answer per address, not one per socket type
  struct addrinfo* results = nullptr;
  int rc = getaddrinfo(hostName, nullptr, &hints, &results);
  if (rc != 0) return resolver_error(rc);
  tOsHostEntry found;
  memset(&found, 0, sizeof found);
  for (struct addrinfo* it = results; it != nullptr; it = it->ai_next) {
    uint32_t address = host_order_address(it->ai_addr);
    bool seen = false;
    for (unsigned i = 0; i < found.addressCount; ++i) seen = seen || found.addresses[i] == address;
    if (!seen && found.addressCount < OS_MAX_HOST_ADDRESSES) {
      found.addresses[found.addressCount++] = address;
    }
  }
  freeaddrinfo(results);
  if (found.addressCount == 0) return OS_ERROR_HOST_NOT_FOUND;
  *entry = found;
  return OS_OK;
}
