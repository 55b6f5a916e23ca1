// A chassis of real daemons over loopback: one Master and three Agents, each
// under its own root. Requests logged on the Agents land once, exactly
// formatted, in the Master's files; a client's second request travels as a
// registered add-log; losing the Master ends the Agents; an Agent that
// cannot reach a Master, and a Master that cannot listen, give up as their
// waits say, made short by the platform layer's test time scale.
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "ChassisSupport.h"
#include "KestrinServer.h"
#include "osa/osa.h"

namespace kestrin_e2e {
namespace {

constexpr int AGENTS = 3;
// Passed through the environment to the platform layer of the daemons.
constexpr char FAST_TIME[] = "KESTRIN_TEST_TIME_SCALE=100";

class E2eChassis : public ::testing::Test {
 protected:
  void TearDown() override {
    // Each server removes the System V objects of the root it is given.
    for (auto& agent : agents_) {
      if (agent) UseRoot(*agent);
      agent.reset();
    }
    if (master_) UseRoot(*master_);
    master_.reset();
  }

  // Starts the Master on a free port, retrying with another port should the
  // one found be taken meanwhile. Its own log admits debug lines.
  void StartMaster(const std::vector<std::string>& extra = {}) {
    for (int attempt = 0; attempt < 5; ++attempt) {
      if (master_) UseRoot(*master_);
      master_.reset(new KestrinServer);
      master_->WriteFile("kv/etc/Kestrin.conf", ChassisConfiguration("Master"));
      port_ = FreePort();
      std::vector<std::string> arguments = {"-h", "127.0.0.1", "-p", std::to_string(port_)};
      arguments.insert(arguments.end(), extra.begin(), extra.end());
      master_->Start(arguments);
      ASSERT_TRUE(master_->WaitForReady()) << master_->Stdout();
      if (WaitUntil([&]() { return Listening(port_); }, 5000)) return;
    }
    FAIL() << "the Master never listened";
  }

  // A daemon configured as Agent of 127.0.0.1:`port`.
  std::unique_ptr<KestrinServer> MakeAgent(uint16_t port,
                                           const std::vector<std::string>& environment = {}) {
    std::unique_ptr<KestrinServer> agent(new KestrinServer);
    agent->WriteFile("kv/etc/Kestrin.conf", ChassisConfiguration("Agent"));
    agent->Start({"-h", "127.0.0.1", "-p", std::to_string(port)}, environment);
    return agent;
  }

  void StartAgents() {
    for (int i = 0; i < AGENTS; ++i) {
      agents_.push_back(MakeAgent(port_));
      ASSERT_TRUE(agents_.back()->WaitForReady()) << agents_.back()->Stdout();
    }
    // Each connection shows in the Master's own log.
    ASSERT_TRUE(WaitUntil(
        [&]() {
          const Texts texts = master_->OwnLogTexts();
          return CountEndingWith(texts, " has been accepted") -
                     CountEndingWith(texts, " has been closed") >=
                 AGENTS;
        },
        10000))
        << master_->ReadFile("kv/log/Kestrin.log");
  }

  // Registers module `i` on Agent `i` and returns its handle there.
  uint32_t RegisterOnAgent(int i) { return RegisterModule(agents_[i]->Root(), i); }

  uint16_t port_ = 0;
  std::unique_ptr<KestrinServer> master_;
  std::vector<std::unique_ptr<KestrinServer>> agents_;
};

TEST_F(E2eChassis, LinesLoggedOnEachAgentLandOnceExactlyFormattedInTheMastersFiles) {
  StartMaster({"-LogReqs"});
  StartAgents();
  for (int i = 0; i < AGENTS; ++i) {
    const uint32_t handle = RegisterOnAgent(i);
    Send(*agents_[i], Record(handle, 100 + i, "first line from agent " + std::to_string(i)));
  }
  for (int i = 0; i < AGENTS; ++i) {
    const std::string line = SystemLine("App" + std::to_string(i), 100 + i,
                                        "first line from agent " + std::to_string(i));
    ASSERT_TRUE(master_->WaitForLogLine("system.log", line, 10000))
        << master_->ReadFile("kv/log/system.log") << master_->ReadFile("kv/log/Kestrin.log");
  }
  const Texts lines = master_->LogLines("system.log");
  for (int i = 0; i < AGENTS; ++i) {
    const std::string name = "App" + std::to_string(i);
    EXPECT_EQ(
        1, Count(lines, SystemLine(name, 100 + i, "first line from agent " + std::to_string(i))));
    // The module's own file on the Master holds the line too; the Agents
    // write no file for it.
    const std::string own = master_->ReadFile("kv/log/agent" + std::to_string(i) + ".log");
    EXPECT_NE(std::string::npos, own.find("first line from agent " + std::to_string(i))) << own;
    EXPECT_EQ("", agents_[i]->ReadFile("kv/log/agent" + std::to_string(i) + ".log"));
    EXPECT_EQ(0, Count(agents_[i]->LogLines("system.log"),
                       SystemLine(name, 100 + i, "first line from agent " + std::to_string(i))));
  }
}

TEST_F(E2eChassis, SecondRequestOfAClientTravelsAsARegisteredAddLog) {
  StartMaster({"-LogReqs"});
  StartAgents();
  const uint32_t handle = RegisterOnAgent(1);
  Send(*agents_[1], Record(handle, 7, "one"));
  ASSERT_TRUE(master_->WaitForLogLine("system.log", SystemLine("App1", 7, "one"), 10000));
  // The Agent has the Master's handle once its RegHandle record went
  // through its own queue: a record sent after that travels registered.
  Send(*agents_[1], Record(handle, 8, "two"));
  ASSERT_TRUE(master_->WaitForLogLine("system.log", SystemLine("App1", 8, "two"), 10000));
  Send(*agents_[1], Record(handle, 9, "three"));
  ASSERT_TRUE(master_->WaitForLogLine("system.log", SystemLine("App1", 9, "three"), 10000));
  const Texts lines = master_->LogLines("system.log");
  EXPECT_EQ(1, Count(lines, SystemLine("App1", 7, "one")));
  EXPECT_EQ(1, Count(lines, SystemLine("App1", 8, "two")));
  EXPECT_EQ(1, Count(lines, SystemLine("App1", 9, "three")));
  // Only the first request arrived unregistered (traced with -LogReqs).
  int unregistered = 0;
  for (const std::string& text : master_->OwnLogTexts()) {
    unregistered += text.rfind("From agent: ", 0) == 0 &&
                            text.find(
                                ", module name app1, mod name in log App1, file name "
                                "agent1.log, \"one\"") != std::string::npos
                        ? 1
                        : 0;
  }
  EXPECT_EQ(1, unregistered) << master_->ReadFile("kv/log/Kestrin.log");
  // The Master wrote its RegHandle back: the Agent holds the handle.
  for (const std::string& text : master_->OwnLogTexts()) {
    EXPECT_EQ(std::string::npos, text.find("\"two\"")) << "traced as unregistered: " << text;
    EXPECT_EQ(std::string::npos, text.find("\"three\"")) << "traced as unregistered: " << text;
  }
}

TEST_F(E2eChassis, KillingTheMasterEndsEveryAgentCleanly) {
  StartMaster();
  StartAgents();
  master_->Signal(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, master_->WaitForExit());
  for (auto& agent : agents_) {
    EXPECT_TRUE(agent->WaitForOwnLogText("AgentRole::SocketClosed")) << agent->Stdout();
    EXPECT_EQ(0, agent->WaitForExit());
    EXPECT_NE(std::string::npos, agent->Stdout().find("AgentRole::ShutDown\n"));
    EXPECT_EQ(1, Count(agent->OwnLogTexts(), "Normal shutdown."));
  }
}

TEST_F(E2eChassis, StoppedMasterEndsItsSelectThreadAndTheAgents) {
  StartMaster();
  StartAgents();
  UseRoot(*master_);
  EXPECT_EQ(0, master_->Run({"stop"}).status);
  EXPECT_EQ(0, master_->WaitForExit());
  EXPECT_NE(std::string::npos, master_->Stdout().find("MasterRole::ShutDown\n"));
  for (auto& agent : agents_) {
    EXPECT_TRUE(agent->WaitForOwnLogText("AgentRole::SocketClosed"))
        << agent->ReadFile("kv/log/Kestrin.log");
    EXPECT_EQ(0, agent->WaitForExit());
  }
}

TEST_F(E2eChassis, AgentThatCannotReachTheMasterGivesUpAfterTwentyFiveAttempts) {
  const uint16_t port = FreePort();
  agents_.push_back(MakeAgent(port, {FAST_TIME}));
  KestrinServer& agent = *agents_.back();
  EXPECT_EQ(1, agent.WaitForExit(60000));
  const Texts texts = agent.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "Connect() failed; shutting down Kestrin Agent"));
  EXPECT_EQ(1, Count(texts, "Failed to start role; exiting"));
  EXPECT_EQ(25, CountStartingWith(texts,
                                  "Zor Sockets: Error 301 trying to connect to far end at "
                                  "127.0.0.1:" +
                                      std::to_string(port) + " on socket "))
      << agent.ReadFile("kv/log/Kestrin.log");
}

TEST_F(E2eChassis, MasterThatCannotListenTimesOutAfterThreeMinutes) {
  // Something else holds the Master's port for the whole time.
  long busy = -1;
  ASSERT_EQ(OS_OK, osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &busy));
  tOsTCPSocketAddress address{LOOPBACK, 0};
  ASSERT_EQ(OS_OK, osTCPBind(busy, &address));
  ASSERT_EQ(OS_OK, osTCPListen(busy, 1));
  ASSERT_EQ(OS_OK, osTCPGetLocalAddress(busy, &address));
  master_.reset(new KestrinServer);
  master_->WriteFile("kv/etc/Kestrin.conf", "[config]\nRole=Master\n");
  master_->Start({"-h", "127.0.0.1", "-p", std::to_string(address.port)}, {FAST_TIME});
  EXPECT_EQ(0, master_->WaitForExit(60000));
  osTCPClose(busy);
  const Texts texts = master_->OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "Timed out trying to initialize Master; shutting down."))
      << master_->ReadFile("kv/log/Kestrin.log");
  // One attempt per 10 s of scaled time for 3 minutes: 19 when no attempt
  // takes long; real time spent in the attempts may cost one at this scale.
  const int attempts =
      CountStartingWith(texts, "Zor Sockets: Error 305 trying to bind the listening socket ");
  EXPECT_GE(attempts, 17);
  EXPECT_LE(attempts, 19);
  EXPECT_NE(std::string::npos, master_->Stdout().find("MasterRole::ShutDown\n"));
}

}  // namespace
}  // namespace kestrin_e2e
