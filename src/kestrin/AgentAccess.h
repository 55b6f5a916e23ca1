// Which peers a Master serves, and how: the settings of Kestrin.conf's
// "config" section that harden a Master against hostile peers. All are off
// by default, so that an unconfigured Master behaves as it always has.
//
//   ListenAddress     the IPv4 address to listen on instead of the Master's
//                     own address (read at start-up only)
//   AllowedAgents     IPv4 addresses and CIDR blocks, separated by commas: a
//                     connection from any other address is closed at once,
//                     never read and never counted as a socket error
//   MaxAgents         at most this many connections at a time
//   AgentIdleTimeout  seconds after which a silent connection is closed
//
// Threads: the configuration (main thread) replaces the settings on every
// read; the Master's select thread takes a copy when it needs them. The
// process-wide copy is guarded by a lock of its own.
#ifndef KESTRIN_KESTRIN_AGENT_ACCESS_H_
#define KESTRIN_KESTRIN_AGENT_ACCESS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace kestrin {

// An IPv4 block: the addresses whose top `prefixLength` bits equal those of
// `address` (host byte order).
struct AddressBlock {
  uint32_t address = 0;
  unsigned int prefixLength = 32;

  bool Contains(uint32_t candidate) const;
};

// "a.b.c.d" (a block of one address) or "a.b.c.d/n" with n from 0 to 32,
// surrounding blanks and tabs allowed. False for anything else.
bool ParseAddressBlock(const std::string& text, AddressBlock* block);

// "a.b.c.d" into `address` (host byte order); false for anything else.
bool ParseIPv4Address(const std::string& text, uint32_t* address);

struct AgentAccess {
  bool listenAddressSet = false;
  uint32_t listenAddress = 0;  // host byte order; used when listenAddressSet
  bool restricted = false;     // AllowedAgents was given: only `allowed` may connect
  std::vector<AddressBlock> allowed;
  unsigned int maxAgents = 0;            // 0: no limit
  unsigned long idleTimeoutSeconds = 0;  // 0: connections may stay silent for ever

  // Whether a peer at `address` (host byte order) may connect.
  bool Allows(uint32_t address) const;
};

// The settings in force; any thread. Every SetAgentAccess moves the
// generation on, so that a reader can tell cheaply whether to look again.
AgentAccess GetAgentAccess();
void SetAgentAccess(const AgentAccess& access);
uint64_t GetAgentAccessGeneration();

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_AGENT_ACCESS_H_
