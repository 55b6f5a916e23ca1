#include "zor/sockets/SocketReport.h"

#include "zor/sockets/SocketLog.h"

namespace Zor {
namespace Sockets {

void report_socket_event(unsigned long level, const std::string& text) {
  GetLogInterfaceHolder().GetLogger()->Log("Zor Sockets: " + text, level);
}

std::string socket_address_text(const tOsTCPSocketAddress& address) {
  // "255.255.255.255:65535" and the terminator fit in 22 bytes.
  char buffer[32];
  if (osTCPAddressToString(&address, buffer, sizeof buffer) != OS_OK) return "?";
  return buffer;
}

}  // namespace Sockets
}  // namespace Zor
