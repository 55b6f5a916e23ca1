// Test fixture for Zor::Sockets::ServerSocketManager: a manager listening on
// 127.0.0.1 with a kernel-chosen port, raw clients to talk to it, Select()
// guarded by a watchdog, and scripted platform results for the manager's own
// sockets. Not part of the library.
#ifndef KESTRIN_ZOR_SOCKETS_SERVER_SOCKET_MANAGER_FIXTURE_H_
#define KESTRIN_ZOR_SOCKETS_SERVER_SOCKET_MANAGER_FIXTURE_H_

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "osa/osa.h"
#include "zor/sockets/ServerSocketManager.h"
#include "zor/sockets/SocketTestSupport.h"

namespace socket_test {

// Scripted results of the platform calls that the manager makes. Select and
// accept results apply to the manager's listening socket only, receive and
// send failures to every socket (raw clients do not read or write while
// they are set). OSA_CALL_REAL lets the real call run.
struct ManagerScript {
  struct Accept {
    int code;  // OSA_CALL_REAL, a failure, or OS_OK with the values below
    long socketId;
    tOsTCPSocketAddress farEnd;
  };

  long listening = -1;
  std::vector<int> selectResults;  // then the real call
  size_t selectCalls = 0;
  long fakeReady = -1;           // with OS_OK: the one ready identifier reported
  bool impossibleCount = false;  // report one more ready socket than given
  std::deque<Accept> accepts;    // then the real call
  int recvResult = OSA_CALL_REAL;
  int sendResult = OSA_CALL_REAL;
  unsigned long clock = 0;
};

ManagerScript& manager_script();

// The override table that plays manager_script(); `withClock` adds the clock.
tOsaOverrides manager_overrides(bool withClock);

class ManagerFixture : public ::testing::Test {
 protected:
  typedef Zor::Sockets::SocketHandle Handle;

  ManagerFixture();
  ~ManagerFixture() override;
  void SetUp() override;

  // A raw client connected to the manager (closed by the fixture).
  long Connect();
  void CloseClient(long client);
  // One Select(); a watchdog connects a client to wake it (and fails the
  // test) should it find nothing to do within 5 seconds.
  bool SelectOnce();
  // Selects until `done` holds, at most 50 times.
  void SelectUntil(const std::function<bool()>& done);
  // Connects a client and selects until it is accepted; its handle.
  Handle AcceptClient(long* client = nullptr);
  // A client whose header is invalid: accepted, then dropped as a socket
  // error. Its handle.
  Handle CauseSocketError();
  bool HasEvent(const std::string& wanted) const;

  ScopedSocketLog log_;
  RecordingManagerUser user_;
  Zor::Sockets::ServerSocketManager manager_;
  uint16_t port_ = 0;
  std::vector<long> clients_;
};

}  // namespace socket_test

#endif  // KESTRIN_ZOR_SOCKETS_SERVER_SOCKET_MANAGER_FIXTURE_H_
