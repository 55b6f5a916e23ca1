// The logger through which the socket classes report.
#ifndef KESTRIN_ZOR_SOCKETS_SOCKET_LOG_H_
#define KESTRIN_ZOR_SOCKETS_SOCKET_LOG_H_

#include "appfw/SmartPointerNTS.h"
#include "zor/LogInterface.h"

namespace Zor {
namespace Sockets {

// The socket library's holder, a function-local static; holds the null
// logger until SetLogger installs another. Install before threads use it.
LogInterfaceHolder& GetLogInterfaceHolder();

// Installs `logger` (nil: back to the null logger).
void SetLogger(const AppFw::SmartPointerNTS<LogInterface>& logger);

}  // namespace Sockets
}  // namespace Zor

#endif  // KESTRIN_ZOR_SOCKETS_SOCKET_LOG_H_
