#include "kestrin/AgentAccess.h"

#include <atomic>
#include <mutex>

#include "kestrin/TextForms.h"

namespace kestrin {

namespace {

std::mutex& AccessLock() {
  static std::mutex* lock = new std::mutex;
  return *lock;
}

std::atomic<uint64_t> s_generation{0};

AgentAccess& CurrentAccess() {
  static AgentAccess* access = new AgentAccess;
  return *access;
}

// A decimal number of one to three digits, at most `maximum`.
bool ParseSmallNumber(const std::string& text, unsigned int maximum, unsigned int* value) {
  if (text.empty() || text.size() > 3) return false;
  unsigned int n = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    n = n * 10 + static_cast<unsigned int>(c - '0');
  }
  if (n > maximum) return false;
  *value = n;
  return true;
}

}  // namespace

bool AddressBlock::Contains(uint32_t candidate) const {
  if (prefixLength == 0) return true;
  const uint32_t mask = prefixLength >= 32 ? 0xffffffffu : ~(0xffffffffu >> prefixLength);
  return (candidate & mask) == (address & mask);
}

bool ParseIPv4Address(const std::string& text, uint32_t* address) {
  uint32_t value = 0;
  size_t start = 0;
  for (int part = 0; part < 4; ++part) {
    const size_t dot = text.find('.', start);
    if ((part < 3) != (dot != std::string::npos)) return false;
    unsigned int octet = 0;
    if (!ParseSmallNumber(text.substr(start, dot == std::string::npos ? std::string::npos
                                                                      : dot - start),
                          255, &octet)) {
      return false;
    }
    value = (value << 8) | octet;
    start = dot + 1;
  }
  *address = value;
  return true;
}

bool ParseAddressBlock(const std::string& text, AddressBlock* block) {
  const std::string trimmed = TrimWhiteSpace(text);
  const size_t slash = trimmed.find('/');
  AddressBlock parsed;
  if (!ParseIPv4Address(trimmed.substr(0, slash), &parsed.address)) return false;
  if (slash != std::string::npos &&
      !ParseSmallNumber(trimmed.substr(slash + 1), 32, &parsed.prefixLength)) {
    return false;
  }
  *block = parsed;
  return true;
}

bool AgentAccess::Allows(uint32_t address) const {
  if (!restricted) return true;
  for (const AddressBlock& block : allowed) {
    if (block.Contains(address)) return true;
  }
  return false;
}

AgentAccess GetAgentAccess() {
  std::lock_guard<std::mutex> guard(AccessLock());
  return CurrentAccess();
}

void SetAgentAccess(const AgentAccess& access) {
  std::lock_guard<std::mutex> guard(AccessLock());
  CurrentAccess() = access;
  ++s_generation;
}

uint64_t GetAgentAccessGeneration() { return s_generation.load(); }

}  // namespace kestrin
