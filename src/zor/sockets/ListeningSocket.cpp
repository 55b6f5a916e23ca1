#include "zor/sockets/ListeningSocket.h"

#include <string>

#include "zor/sockets/SocketReport.h"

namespace Zor {
namespace Sockets {

namespace {

constexpr int LISTEN_BACKLOG = 6;
constexpr int MAX_ACCEPT_RETRIES = 20;  // consecutive OS_ERROR_RETRYs ending an Accept()
constexpr unsigned long NO_DESCRIPTOR_PAUSE_MS = 100;

std::string text(long value) { return std::to_string(value); }

// Logs the failure of one step of Init(): "Error r" followed by `what`.
bool step_failed(int rc, const std::string& what) {
  report_socket_event(SOCKET_LOG_ERROR, "Error " + text(rc) + what);
  return false;
}

}  // namespace

ListeningSocket::User::~User() = default;
void ListeningSocket::User::AcceptRefused(ListeningSocket&, const tOsTCPSocketAddress&) {}

ListeningSocket::ListeningSocket(User& user, const tOsTCPSocketAddress& localAddress)
    : user_(user), socket_(-1L), localAddress_(localAddress) {}

bool ListeningSocket::Init() {
  if (initialized_) return true;
  if (!prepare()) return false;
  initialized_ = true;
  report_socket_event(SOCKET_LOG_DEBUG, "Socket " + text(socket_.Get()) + " listening at " +
                                            socket_address_text(localAddress_));
  return true;
}

bool ListeningSocket::prepare() {
  if (!socket_.Init(OS_SOCK_STREAM, OS_IPPROTO_TCP)) return false;
  ManagedOsaSocket::ScopedUse use(socket_);
  const long id = use.Id();
  int rc = osTCPSetNonBlocking(id, 1);
  if (rc != OS_OK) return step_failed(rc, " trying to make listening socket non-blocking");
  rc = osTCPSetReuseAddr(id, 1);
  if (rc != OS_OK) {
    return step_failed(rc, " trying to make address reusable on listening socket " + text(id));
  }
  const std::string address = socket_address_text(localAddress_);
  report_socket_event(SOCKET_LOG_DEBUG, "Binding socket " + text(id) + " to address " + address);
  rc = osTCPBind(id, &localAddress_);
  if (rc != OS_OK) {
    return step_failed(rc, " trying to bind the listening socket " + text(id) + " to " + address);
  }
  rc = osTCPListen(id, LISTEN_BACKLOG);
  if (rc != OS_OK) return step_failed(rc, " trying to listen on socket " + text(id));
  return true;
}

bool ListeningSocket::Accept() {
  int retries = 0;
  for (;;) {
    long id;
    long accepted = -1;
    tOsTCPSocketAddress farEnd{0, 0};
    int rc;
    {
      ManagedOsaSocket::ScopedUse use(socket_);
      id = use.Id();
      rc = osTCPAccept(id, &accepted, &farEnd);
    }
    if (rc == OS_OK) {
      report_socket_event(SOCKET_LOG_DEBUG, "Accepted socket " + text(accepted));
      user_.SocketAccepted(*this, accepted, farEnd);
      retries = 0;
    } else if (rc == OS_ERROR_WOULD_BLOCK) {
      return true;
    } else if (rc == OS_ERROR_NO_DESCRIPTORS) {
      user_.AcceptRefused(*this, farEnd);
      // Without the platform's reserve the connection is still pending, and
      // the socket would be readable again at once: pause before the next
      // wait instead of spinning.
      if (farEnd.ipAddress == 0 && farEnd.port == 0) {
        osSleep(NO_DESCRIPTOR_PAUSE_MS);
        return true;
      }
    } else if (rc == OS_ERROR_CONN_ABORTED_BY_PEER) {
      // A client that gave up before being accepted is not an error.
      report_socket_event(SOCKET_LOG_DEBUG, "Ignoring error " + text(rc) + " on socket " +
                                                text(id) + " (CONN_ABORTED_BY_PEER)");
    } else if (rc == OS_ERROR_RETRY) {
      report_socket_event(SOCKET_LOG_DEBUG,
                          "Socket " + text(id) + ": osTCPAccept returned OS_ERROR_RETRY");
      if (++retries >= MAX_ACCEPT_RETRIES) {
        report_socket_event(SOCKET_LOG_ERROR,
                            "Listening socket " + text(id) + " received too many OS_ERROR_RETRYs");
        user_.AcceptError(*this);
        return false;
      }
    } else if (GetSocketID() == -1) {
      // Close() from another thread shut the socket down under this call:
      // the listener is finished, which is not an accept failure.
      report_socket_event(SOCKET_LOG_DEBUG,
                          "Socket " + text(id) + " was closed while accepting (error " + text(rc) +
                              ")");
      return false;
    } else {
      report_socket_event(SOCKET_LOG_ERROR, "Error " + text(rc) + " on socket " + text(id));
      user_.AcceptError(*this);
      return false;
    }
  }
}

void ListeningSocket::Close() {
  socket_.Close();
  initialized_ = false;
}

}  // namespace Sockets
}  // namespace Zor
