// Link-time wrappers (-Wl,--wrap) for platform calls that the overrides do
// not cover and the kernel cannot be made to fail on a fresh socket. Each
// returns its configured failure, or runs the real call when it is 0.
#include "osa/osa.h"

namespace socket_fault {

int socketResult = 0;
int nonBlockingResult = 0;
int reuseAddrResult = 0;
int listenResult = 0;

void Reset() { socketResult = nonBlockingResult = reuseAddrResult = listenResult = 0; }

}  // namespace socket_fault

extern "C" {

int __real_osTCPSocket(int type, int protocol, long* socket);
int __real_osTCPSetNonBlocking(long socket, int nonBlocking);
int __real_osTCPSetReuseAddr(long socket, int reuse);
int __real_osTCPListen(long socket, int backlog);

int __wrap_osTCPSocket(int type, int protocol, long* socket) {
  if (socket_fault::socketResult != 0) return socket_fault::socketResult;
  return __real_osTCPSocket(type, protocol, socket);
}

int __wrap_osTCPSetNonBlocking(long socket, int nonBlocking) {
  if (socket_fault::nonBlockingResult != 0) return socket_fault::nonBlockingResult;
  return __real_osTCPSetNonBlocking(socket, nonBlocking);
}

int __wrap_osTCPSetReuseAddr(long socket, int reuse) {
  if (socket_fault::reuseAddrResult != 0) return socket_fault::reuseAddrResult;
  return __real_osTCPSetReuseAddr(socket, reuse);
}

int __wrap_osTCPListen(long socket, int backlog) {
  if (socket_fault::listenResult != 0) return socket_fault::listenResult;
  return __real_osTCPListen(socket, backlog);
}

}  // extern "C"
