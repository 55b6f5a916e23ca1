#include "zor/sockets/FrameHeader.h"

#include <stdio.h>

#include <string>

#include "zor/sockets/SocketReport.h"

namespace Zor {
namespace Sockets {

namespace {

// A marker byte as it appears in a log line: a NUL or control byte written
// as itself would cut or garble the line.
std::string marker_text(char marker) {
  const unsigned char byte = static_cast<unsigned char>(marker);
  if (byte >= 0x20 && byte < 0x7f) return std::string(1, marker);
  char escaped[8];
  snprintf(escaped, sizeof escaped, "\\x%02X", byte);
  return escaped;
}

}  // namespace

FrameHeader::FrameHeader(const unsigned char* bytes)
    : marker_(static_cast<char>(bytes[0])),
      version_(bytes[1]),
      size_(static_cast<unsigned int>(bytes[2]) << 8 | bytes[3]) {}

bool FrameHeader::WriteMessageHeader(void* buffer, unsigned int messageSize) {
  if (messageSize > MAX_MESSAGE_SIZE) return false;
  unsigned char* bytes = static_cast<unsigned char*>(buffer);
  bytes[0] = static_cast<unsigned char>(MARKER);
  bytes[1] = VERSION;
  bytes[2] = static_cast<unsigned char>(messageSize >> 8);
  bytes[3] = static_cast<unsigned char>(messageSize & 0xff);
  return true;
}

bool FrameHeader::IsValid() const {
  if (marker_ == MARKER && version_ == VERSION && size_ != 0) return true;
  report_socket_event(SOCKET_LOG_ERROR, "Received invalid message header of ( " +
                                            marker_text(marker_) + ", " + std::to_string(version_) +
                                            ", " + std::to_string(size_) + " )");
  return false;
}

}  // namespace Sockets
}  // namespace Zor
