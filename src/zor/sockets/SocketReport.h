// Internal to the socket classes: how they write to the socket library's
// logger. Not for use outside src/zor/sockets.
#ifndef KESTRIN_ZOR_SOCKETS_SOCKET_REPORT_H_
#define KESTRIN_ZOR_SOCKETS_SOCKET_REPORT_H_

#include <string>

#include "osa/osa.h"

namespace Zor {
namespace Sockets {

// Levels passed to the logger: the client severity codes.
enum : unsigned long {
  SOCKET_LOG_ERROR = 1,
  SOCKET_LOG_WARNING = 2,
  SOCKET_LOG_INFO = 4,
  SOCKET_LOG_DEBUG = 8
};

// Writes "Zor Sockets: " followed by `text` at `level` to the logger held by
// GetLogInterfaceHolder(). May be called from any thread.
void report_socket_event(unsigned long level, const std::string& text);

// "a.b.c.d:port", as the platform layer writes it.
std::string socket_address_text(const tOsTCPSocketAddress& address);

// 1 or 0, the way flags appear in the socket classes' messages.
inline const char* flag_text(bool flag) { return flag ? "1" : "0"; }

}  // namespace Sockets
}  // namespace Zor

#endif  // KESTRIN_ZOR_SOCKETS_SOCKET_REPORT_H_
