// The card's role at start-up: Solo runs; a Master serves until stopped; an
// Agent, explicit or chosen automatically, ends start-up when it has no
// Master to reach.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KestrinServer.h"
#include "osa/osa.h"

namespace kestrin_e2e {
namespace {

// A loopback port nobody listens on now (bound to port 0, then released).
uint16_t FreePort() {
  long socket = -1;
  EXPECT_EQ(OS_OK, osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &socket));
  tOsTCPSocketAddress address{0x7f000001, 0};
  EXPECT_EQ(OS_OK, osTCPBind(socket, &address));
  EXPECT_EQ(OS_OK, osTCPGetLocalAddress(socket, &address));
  osTCPClose(socket);
  return address.port;
}

TEST(E2eRole, ConfiguredAgentWithoutAMasterFailsStartUp) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", "[config]\nRole=Agent\n");
  server.Start({});
  EXPECT_EQ(1, server.WaitForExit());
  EXPECT_EQ(1, Count(server.OwnLogTexts(), "Failed to start role; exiting"));
}

TEST(E2eRole, ConfiguredMasterServesUntilStopped) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", "[config]\nRole=Master\n");
  server.Start({"-h", "127.0.0.1", "-p", std::to_string(FreePort())});
  ASSERT_TRUE(server.WaitForReady());
  EXPECT_TRUE(server.WaitForOwnLogText("Role of \"Master\" read from configuration"));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
  EXPECT_NE(std::string::npos, server.Stdout().find("MasterRole::ShutDown\n"));
}

// Start-up reports readiness to the waiting shell before the role is made,
// so `start` itself succeeds; the detached daemon then ends with status 1.
TEST(E2eRole, StartAsAnAgentWithoutAMasterEndsTheDetachedDaemonWithStatusOne) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", "[config]\nRole=Agent\n");
  server.Start({"start"});
  EXPECT_EQ(0, server.WaitForExit());
  ASSERT_TRUE(server.AdoptDetachedDaemon());
  EXPECT_EQ(1, server.WaitForExit());
  EXPECT_EQ(1, Count(server.OwnLogTexts(), "Failed to start role; exiting"));
}

// 127.0.0.2 is not an address of an interface of this host (only 127.0.0.1
// is), so it names a foreign Master; nobody listens there, and the Agent
// gives up after its connect passes (made short by the test time scale).
TEST(E2eRole, AutomaticRoleWithAForeignMasterAddressIsAgent) {
  KestrinServer server;
  server.Start({"-h", "127.0.0.2", "-p", std::to_string(FreePort())},
               {"KESTRIN_TEST_TIME_SCALE=100"});
  EXPECT_EQ(1, server.WaitForExit(60000));
  EXPECT_EQ(1, Count(server.OwnLogTexts(), "Connect() failed; shutting down Kestrin Agent"));
}

TEST(E2eRole, AutomaticRoleWithThisHostAsMasterRunsSolo) {
  KestrinServer server;
  server.Start({"-h", "127.0.0.1"});
  ASSERT_TRUE(server.WaitForReady());
  EXPECT_NE(std::string::npos, server.Stdout().find(" INFO  MastersHostname 127.0.0.1\n"));
  server.SendHeader(15);
  EXPECT_TRUE(
      server.WaitForOwnLogText("****************END of registration table dump****************"));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
}

TEST(E2eRole, ConfiguredSoloRunsWhateverTheMastersHostname) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", "[config]\nRole=Solo\n");
  server.Start({"-h", "192.0.2.1"});
  ASSERT_TRUE(server.WaitForReady());
  EXPECT_TRUE(server.WaitForOwnLogText("Role of \"Solo\" read from configuration"));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
}

}  // namespace
}  // namespace kestrin_e2e
