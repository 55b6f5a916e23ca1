#include "RawPeer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ChassisSupport.h"
#include "KestrinServer.h"
#include "osa/osa.h"

namespace kestrin_e2e {

std::string U16(unsigned value) {
  return std::string{static_cast<char>((value >> 8) & 0xff), static_cast<char>(value & 0xff)};
}

std::string U32(unsigned long value) { return U16((value >> 16) & 0xffff) + U16(value & 0xffff); }

std::string Frame(const std::string& body) {
  return std::string{'F', 1} + U16(static_cast<unsigned>(body.size())) + body;
}

std::string Header(unsigned type, unsigned version) {
  return U16(version) + U16(type);
}

std::string AddLogFixedPart(unsigned long handle) {
  return Header(kestrin::KES_ADD_LOG) + U32(handle) + U16(0) + U16(3) + U32(4) + U32(0) + U32(77) +
         U32(FIXED_SECONDS) + U32(42) + U32(5) + U32(99);
}

std::string UnregFixedPart(unsigned nameOffset, unsigned nameLength) {
  return Header(kestrin::KES_UNREG_ADD_LOG) + U16(0) + U16(3) + U32(4) + U32(0) + U32(77) +
         U32(FIXED_SECONDS) + U32(42) + U32(5) + U32(99) + U16(nameOffset) + U16(nameLength) +
         U16(0) + U16(0) + U16(0) + U16(0) + U16(0) + U16(0);
}

long VmRssKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
  }
  return -1;
}

int OpenDescriptors(pid_t pid) {
  std::error_code error;
  int count = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error);
       !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    ++count;
  }
  return count;
}

void ConnectBurst(uint16_t port, int count) {
  std::vector<long> sockets;
  tOsTCPSocketAddress address{LOOPBACK, port};
  for (int i = 0; i < count; ++i) {
    long socket = -1;
    if (osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &socket) != OS_OK) break;
    osTCPSetNonBlocking(socket, 1);
    const int result = osTCPConnect(socket, &address);
    EXPECT_TRUE(result == OS_OK || result == OS_ERROR_IN_PROGRESS) << result;
    sockets.push_back(socket);
  }
  std::vector<long> pending = sockets;
  for (int rounds = 0; rounds < 100 && !pending.empty(); ++rounds) {
    std::vector<long> ready = pending;
    int readyCount = static_cast<int>(ready.size());
    if (osTCPSelectWrite(ready.data(), &readyCount, 100) != OS_OK) continue;
    std::vector<long> still;
    for (long socket : pending) {
      if (std::find(ready.begin(), ready.begin() + readyCount, socket) ==
          ready.begin() + readyCount) {
        still.push_back(socket);
      }
    }
    pending.swap(still);
  }
  EXPECT_TRUE(pending.empty()) << pending.size() << " connections never completed";
  for (long socket : sockets) osTCPClose(socket);
}

std::string UnregAddLogFrame(const std::string& module, const std::string& logFile,
                             const std::string& text) {
  const unsigned moduleLength = static_cast<unsigned>(module.size());
  const unsigned fileOffset = moduleLength + 1;
  const unsigned fileLength = static_cast<unsigned>(logFile.size());
  const unsigned textOffset = fileOffset + fileLength + 1;
  const std::string fixed =
      Header(kestrin::KES_UNREG_ADD_LOG) + U16(0) + U16(3) + U32(4) + U32(0) + U32(77) +
      U32(FIXED_SECONDS) + U32(42) + U32(5) + U32(99) + U16(0) + U16(moduleLength) + U16(0) +
      U16(moduleLength) + U16(fileOffset) + U16(fileLength) + U16(textOffset) +
      U16(static_cast<unsigned>(text.size()));
  return Frame(fixed + module + '\0' + logFile + '\0' + text + '\0');
}

int ListenQueueLength(uint16_t port) {
  std::ifstream table("/proc/net/tcp");
  char local[32];
  snprintf(local, sizeof local, "0100007F:%04X", port);
  std::string line;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string slot, localAddress, remoteAddress, state, queues;
    fields >> slot >> localAddress >> remoteAddress >> state >> queues;
    if (localAddress != local || state != "0A") continue;
    // "tx_queue:rx_queue"; for a listening socket rx_queue is the accept queue.
    return static_cast<int>(strtol(queues.substr(queues.find(':') + 1).c_str(), nullptr, 16));
  }
  return -1;
}

RawPeer::RawPeer(uint16_t port, uint32_t source) {
  if (osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &socket_) != OS_OK) return;
  if (source != 0) {
    tOsTCPSocketAddress local{source, 0};
    if (osTCPBind(socket_, &local) != OS_OK) {
      Close();
      return;
    }
  }
  tOsTCPSocketAddress address{LOOPBACK, port};
  if (osTCPConnect(socket_, &address) != OS_OK) Close();
}

RawPeer::~RawPeer() { Close(); }

std::string RawPeer::Name() const {
  tOsTCPSocketAddress address{};
  osTCPGetLocalAddress(socket_, &address);
  char text[64] = {};
  osTCPAddressToString(&address, text, sizeof text);
  return text;
}

bool RawPeer::SendAll(const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size() && socket_ >= 0) {
    int count = 0;
    if (osTCPSend(socket_, bytes.data() + sent, static_cast<int>(bytes.size() - sent), 0,
                  &count) != OS_OK) {
      return false;
    }
    sent += static_cast<size_t>(count);
  }
  return sent == bytes.size();
}

bool RawPeer::ClosedByMaster(int timeoutMs) {
  osTCPSetNonBlocking(socket_, 1);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    char byte = 0;
    int count = 0;
    const int result = osTCPRecv(socket_, &byte, 1, 0, &count);
    if (result != OS_ERROR_WOULD_BLOCK && count == 0) return true;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    // Wakes as soon as the Master closes (or sends): no polling delay.
    long sockets[1] = {socket_};
    int ready = 1;
    osTCPSelect(sockets, &ready, static_cast<long>(left.count()));
  }
}

void RawPeer::Close() {
  if (socket_ >= 0) osTCPClose(socket_);
  socket_ = -1;
}

}  // namespace kestrin_e2e
