#include "zor/sockets/SocketLog.h"

namespace Zor {
namespace Sockets {

LogInterfaceHolder& GetLogInterfaceHolder() {
  static LogInterfaceHolder holder;
  return holder;
}

void SetLogger(const AppFw::SmartPointerNTS<LogInterface>& logger) {
  GetLogInterfaceHolder().SetLogger(logger);
}

}  // namespace Sockets
}  // namespace Zor
