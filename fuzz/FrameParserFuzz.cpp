// libFuzzer harness for the frame parser (FramedDataSocket::Receive).
//
// The input's first byte chooses how the rest is split into reads (0: as
// much as each read asks for, n: at most n bytes per read); the rest is the
// byte stream a peer sent. The reads are served through the platform
// layer's receive override, so no network is involved. The harness aborts
// when an invariant breaks: the receive buffer grows beyond the largest
// frame, a message is empty or too long, a call that met no framing error
// leaves input unread, or a call after a framing error is not refused.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "osa/osa.h"
#include "zor/sockets/FrameHeader.h"
#include "zor/sockets/FramedDataSocket.h"

namespace {

using Zor::Sockets::FramedDataSocket;
using Zor::Sockets::FrameHeader;

struct Input {
  long socket = -1;
  const uint8_t* data = nullptr;
  size_t size = 0;
  size_t at = 0;
  size_t chunk = 0;
};

Input input;

int serve_recv(long socket, void* buffer, int length, int /*flags*/, int* count) {
  if (socket != input.socket) return OSA_CALL_REAL;
  *count = 0;
  if (input.at >= input.size) return OS_ERROR_WOULD_BLOCK;
  size_t n = std::min({static_cast<size_t>(length), input.chunk, input.size - input.at});
  memcpy(buffer, input.data + input.at, n);
  input.at += n;
  *count = static_cast<int>(n);
  return OS_OK;
}

class CheckingUser : public FramedDataSocket::User {
 public:
  void MessageReceived(FramedDataSocket& /*socket*/, void* data, unsigned int size) override {
    if (size == 0 || size > FrameHeader::MAX_MESSAGE_SIZE) abort();
    // Every byte handed out must be readable.
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    unsigned int sum = 0;
    for (unsigned int i = 0; i < size; ++i) sum += bytes[i];
    checksum += sum;
  }
  // The served reads never fail or end the stream.
  void SocketError(FramedDataSocket& /*socket*/) override { abort(); }
  void SocketClosed(FramedDataSocket& /*socket*/) override { abort(); }
  void MessageFramingError(FramedDataSocket& /*socket*/) override { ++framingErrors; }

  unsigned int framingErrors = 0;
  volatile unsigned int checksum = 0;
};

long fuzz_socket() {
  static long id = [] {
    long created = -1;
    if (osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &created) != OS_OK) abort();
    return created;
  }();
  return id;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static tOsaOverrides table = [] {
    tOsaOverrides overrides{};
    overrides.tcpRecv = serve_recv;
    return overrides;
  }();
  if (size == 0) return 0;
  osSetOverrides(&table);
  input.socket = fuzz_socket();
  input.chunk = data[0] == 0 ? SIZE_MAX : data[0];
  input.data = data + 1;
  input.size = size - 1;
  input.at = 0;

  CheckingUser user;
  FramedDataSocket socket(&user, input.socket, tOsTCPSocketAddress{0x7f000001u, 0});
  socket.Receive();
  if (socket.GetReceiveBufferCapacity() > FramedDataSocket::MAX_FRAME_SIZE) abort();
  if (user.framingErrors == 0 && input.at != input.size) abort();
  if (user.framingErrors > 0 && socket.Receive()) abort();
  socket.ReleaseSocketID();  // the socket is kept for the next input
  return 0;
}
