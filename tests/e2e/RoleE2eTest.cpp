// The card's role at start-up: Solo runs; Agent and Master, explicit or
// chosen automatically, are refused by this build with a clear message.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KestrinServer.h"

namespace kestrin_e2e {
namespace {

// Starts the daemon with `arguments` and expects start-up to fail with
// status 1 after naming `role` as unavailable.
void ExpectRoleRefused(KestrinServer& server, const std::vector<std::string>& arguments,
                       const std::string& role) {
  server.Start(arguments);
  EXPECT_EQ(1, server.WaitForExit());
  const std::string line =
      " ERROR Role of \"" + role + "\" is not available in this build; exiting.\n";
  EXPECT_NE(std::string::npos, server.Stdout().find(line)) << server.Stdout();
  EXPECT_EQ(1, Count(server.OwnLogTexts(),
                     "Role of \"" + role + "\" is not available in this build; exiting."));
}

TEST(E2eRole, ConfiguredAgentFailsStartUpClearly) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", "[config]\nRole=Agent\n");
  ExpectRoleRefused(server, {}, "Agent");
}

TEST(E2eRole, ConfiguredMasterFailsStartUpClearly) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", "[config]\nRole=Master\n");
  ExpectRoleRefused(server, {}, "Master");
}

// Start-up reports readiness to the waiting shell before the role is made,
// so `start` itself succeeds; the detached daemon then ends with status 1.
TEST(E2eRole, StartWithAnUnavailableRoleEndsTheDetachedDaemonWithStatusOne) {
  KestrinServer server;
  server.WriteFile("kv/etc/Kestrin.conf", "[config]\nRole=Master\n");
  server.Start({"start"});
  EXPECT_EQ(0, server.WaitForExit());
  ASSERT_TRUE(server.AdoptDetachedDaemon());
  EXPECT_EQ(1, server.WaitForExit());
  EXPECT_EQ(1, Count(server.OwnLogTexts(),
                     "Role of \"Master\" is not available in this build; exiting."));
}

TEST(E2eRole, AutomaticRoleWithAForeignMasterAddressIsAgentAndFailsStartUp) {
  KestrinServer server;
  ExpectRoleRefused(server, {"-h", "192.0.2.1"}, "Agent");
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
