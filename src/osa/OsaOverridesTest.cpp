#include <gtest/gtest.h>

#include "osa/osa.h"

namespace {

// Installs a fault-injection table for one scope.
class ScopedOverrides {
 public:
  explicit ScopedOverrides(const tOsaOverrides& table) : table_(table) { osSetOverrides(&table_); }
  ~ScopedOverrides() { osSetOverrides(nullptr); }

 private:
  tOsaOverrides table_;
};

int g_calls = 0;

int fail_send(long, const void*, int, int, int* count) {
  ++g_calls;
  *count = 0;
  return OS_ERROR_RETRY;
}
int fail_recv(long, void*, int, int, int* count) {
  ++g_calls;
  *count = 0;
  return OS_ERROR_CONN_RESET;
}
int fail_accept(long, long*, tOsTCPSocketAddress*) {
  ++g_calls;
  return OS_ERROR_CONN_ABORTED_BY_PEER;
}
int fail_connect(long, const tOsTCPSocketAddress*) {
  ++g_calls;
  return OS_ERROR_UNREACHABLE;
}
int fail_select(long*, int*, long) {
  ++g_calls;
  return OS_ERROR_SELECT_RETRY;
}
int fail_select_write(long*, int*, long) {
  ++g_calls;
  return OS_ERROR_RETRY;
}
int pass_send(long, const void*, int, int, int*) {
  ++g_calls;
  return OSA_CALL_REAL;
}
int pass_select(long*, int*, long) {
  ++g_calls;
  return OSA_CALL_REAL;
}

TEST(OsaOverrides, EachSocketCallReturnsTheInjectedCode) {
  tOsaOverrides table{};
  table.tcpSend = fail_send;
  table.tcpRecv = fail_recv;
  table.tcpAccept = fail_accept;
  table.tcpConnect = fail_connect;
  table.tcpSelect = fail_select;
  table.tcpSelectWrite = fail_select_write;
  ScopedOverrides installed(table);
  g_calls = 0;
  int count = 5;
  char buffer[4];
  long socket = -1;
  long sockets[1] = {0};
  int ready = 1;
  tOsTCPSocketAddress address{0x7f000001, 1};
  EXPECT_EQ(OS_ERROR_RETRY, osTCPSend(3, "x", 1, 0, &count));
  EXPECT_EQ(OS_ERROR_CONN_RESET, osTCPRecv(3, buffer, 4, 0, &count));
  EXPECT_EQ(OS_ERROR_CONN_ABORTED_BY_PEER, osTCPAccept(3, &socket, nullptr));
  EXPECT_EQ(OS_ERROR_UNREACHABLE, osTCPConnect(3, &address));
  EXPECT_EQ(OS_ERROR_SELECT_RETRY, osTCPSelect(sockets, &ready, -1));
  EXPECT_EQ(OS_ERROR_RETRY, osTCPSelectWrite(sockets, &ready, -1));
  EXPECT_EQ(6, g_calls);
}

TEST(OsaOverrides, CallRealGoesOnWithTheRealCall) {
  tOsaOverrides table{};
  table.tcpSend = pass_send;
  table.tcpSelect = pass_select;
  ScopedOverrides installed(table);
  g_calls = 0;
  int count = 5;
  // The real calls run and see the bad socket and the empty wait.
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPSend(-1, "x", 1, 0, &count));
  long sockets[1] = {-1};
  int ready = 1;
  EXPECT_EQ(OS_ERROR_TIMEOUT, osTCPSelect(sockets, &ready, 1));
  EXPECT_EQ(2, g_calls);
}

TEST(OsaOverrides, RemovedTableRestoresTheRealCalls) {
  {
    tOsaOverrides table{};
    table.tcpSend = fail_send;
    ScopedOverrides installed(table);
  }
  int count = 5;
  g_calls = 0;
  EXPECT_EQ(OS_ERROR_BAD_SOCKET, osTCPSend(-1, "x", 1, 0, &count));
  EXPECT_EQ(0, g_calls);
}

}  // namespace
