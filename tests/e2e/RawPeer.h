// Raw TCP peers of a Master for the end-to-end tests: frames and records
// built byte by byte in network order, one blocking connection that may
// come from a chosen loopback address, bursts of connections, and what
// /proc tells of the Master (resident memory, open descriptors).
#ifndef KESTRIN_TESTS_E2E_RAW_PEER_H_
#define KESTRIN_TESTS_E2E_RAW_PEER_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "kestrin/Records.h"

namespace kestrin_e2e {

// Big-endian 16- and 32-bit fields.
std::string U16(unsigned value);
std::string U32(unsigned long value);
// A frame: marker 'F', version 1, the body's size, the body.
std::string Frame(const std::string& body);
// A record header in network byte order.
std::string Header(unsigned type, unsigned version = kestrin::KES_INTERFACE_VERSION);
// The fixed part of an add-log record (40 bytes) from card 5, PID 99.
std::string AddLogFixedPart(unsigned long handle);
// The fixed part of an unregistered add-log record (52 bytes) with the
// given module name offset and length; the other strings are empty at 0.
std::string UnregFixedPart(unsigned nameOffset, unsigned nameLength);
// A whole unregistered add-log frame with these strings (module name in log
// the same as the module name), from card 5, PID 99, the fixed time.
std::string UnregAddLogFrame(const std::string& module, const std::string& logFile,
                             const std::string& text);

// Connections waiting in the accept queue of the socket listening on
// 127.0.0.1:port (from /proc/net/tcp); -1 when there is none.
int ListenQueueLength(uint16_t port);

long VmRssKiB(pid_t pid);
int OpenDescriptors(pid_t pid);

// Opens `count` connections to the Master at once (non-blocking), waits up
// to 10 s for them to complete, then closes them all.
void ConnectBurst(uint16_t port, int count);

// One raw TCP connection to 127.0.0.1:port, blocking; from `source` (a
// loopback address, host byte order) when given.
class RawPeer {
 public:
  explicit RawPeer(uint16_t port, uint32_t source = 0);
  ~RawPeer();
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;

  bool Connected() const { return socket_ >= 0; }
  // "a.b.c.d:port" of this end, as the Master names it.
  std::string Name() const;
  bool SendAll(const std::string& bytes);
  // Whether the Master closed this connection (within `timeoutMs`).
  bool ClosedByMaster(int timeoutMs);
  void Close();

 private:
  long socket_ = -1;
};

}  // namespace kestrin_e2e

#endif  // KESTRIN_TESTS_E2E_RAW_PEER_H_
