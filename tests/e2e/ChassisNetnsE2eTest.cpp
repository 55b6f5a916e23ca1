// A chassis whose cards do not share a network: the Master and each of three
// Agents run in a network namespace of their own, joined by veth links in a
// star (no bridge). The Master's namespace holds one link end per Agent,
// each on its own /30 subnet; the Master listens on the address of the first
// link, which the other Agents reach through their default route. Clients
// talk to the daemons over System V IPC, which network namespaces do not
// separate, so the test process drives each Agent directly under its root.
//
// Needs root and the ip program; skipped, saying why, without them. The
// namespaces (and with them the links) are removed at the end of each test,
// failed or not; every ip call is bounded in time.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "ChassisSupport.h"
#include "KestrinServer.h"

namespace kestrin_e2e {
namespace {

constexpr int AGENTS = 3;
constexpr int IP_TIMEOUT_MS = 10000;
constexpr char MASTERS_PORT[] = "8090";
const char* const IP_PROGRAMS[] = {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"};

// Link k joins the Master (10.231.k.1) and Agent k (10.231.k.2).
std::string MasterEnd(int k) { return "10.231." + std::to_string(k) + ".1"; }
std::string AgentEnd(int k) { return "10.231." + std::to_string(k) + ".2"; }

std::string IpProgram() {
  for (const char* path : IP_PROGRAMS) {
    if (access(path, X_OK) == 0) return path;
  }
  return "";
}

// The namespaces and links of one chassis, made by the constructor (check
// Error()) and removed by the destructor. Names carry this process's id, so
// that parallel runs do not meet; link names stay within 15 characters.
class StarNetwork {
 public:
  StarNetwork(const std::string& ip, int agents) : ip_(ip) {
    const std::string id = std::to_string(getpid());
    master_ = "kestrin" + id + "m";
    for (int k = 0; k < agents; ++k) agents_.push_back("kestrin" + id + "a" + std::to_string(k));
    if (!Ip({"netns", "add", master_})) return;
    made_.push_back(master_);
    Ip({"-n", master_, "link", "set", "lo", "up"});
    for (int k = 0; k < agents && error_.empty(); ++k) {
      Join(k, "kc" + id + "m" + std::to_string(k), "kc" + id + "a" + std::to_string(k));
    }
  }
  ~StarNetwork() {
    // Deleting a namespace deletes the link ends inside it.
    for (const std::string& name : made_) Ip({"netns", "del", name});
  }
  StarNetwork(const StarNetwork&) = delete;
  StarNetwork& operator=(const StarNetwork&) = delete;

  // Empty when every step worked; else the failed command and its output.
  const std::string& Error() const { return error_; }
  // The words that run a program in the Master's or Agent k's namespace.
  std::vector<std::string> InMaster() const { return {ip_, "netns", "exec", master_}; }
  std::vector<std::string> InAgent(int k) const { return {ip_, "netns", "exec", agents_[k]}; }

 private:
  void Join(int k, const std::string& masterLink, const std::string& agentLink) {
    const std::string& agent = agents_[k];
    const std::string prefix = "/30";
    if (!Ip({"netns", "add", agent})) return;
    made_.push_back(agent);
    Ip({"-n", agent, "link", "set", "lo", "up"}) &&
        Ip({"link", "add", masterLink, "type", "veth", "peer", "name", agentLink}) &&
        Ip({"link", "set", masterLink, "netns", master_}) &&
        Ip({"link", "set", agentLink, "netns", agent}) &&
        Ip({"-n", master_, "addr", "add", MasterEnd(k) + prefix, "dev", masterLink}) &&
        Ip({"-n", agent, "addr", "add", AgentEnd(k) + prefix, "dev", agentLink}) &&
        Ip({"-n", master_, "link", "set", masterLink, "up"}) &&
        Ip({"-n", agent, "link", "set", agentLink, "up"}) &&
        Ip({"-n", agent, "route", "add", "default", "via", MasterEnd(k)});
  }

  // Runs ip with `words`; a failure is kept in error_ (the first one only).
  bool Ip(const std::vector<std::string>& words) {
    std::vector<std::string> argv = {ip_};
    argv.insert(argv.end(), words.begin(), words.end());
    std::string output;
    if (RunCommand(argv, IP_TIMEOUT_MS, &output) == 0) return true;
    if (error_.empty()) {
      for (const std::string& word : argv) error_ += word + " ";
      error_ += "failed: " + output;
    }
    return false;
  }

  std::string ip_;
  std::string master_;
  std::vector<std::string> agents_;
  std::vector<std::string> made_;  // namespaces to delete
  std::string error_;
};

class E2eChassisNetns : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "network namespaces need root";
    const std::string ip = IpProgram();
    if (ip.empty()) GTEST_SKIP() << "the ip program (iproute2) is not installed";
    network_.reset(new StarNetwork(ip, AGENTS));
    if (!network_->Error().empty()) {
      GTEST_SKIP() << "cannot build network namespaces here: " << network_->Error();
    }
  }

  void TearDown() override {
    // Daemons first (each server removes the System V objects of its root),
    // then the namespaces they ran in.
    for (auto& agent : agents_) {
      if (agent) UseRoot(*agent);
      agent.reset();
    }
    if (master_) UseRoot(*master_);
    master_.reset();
    network_.reset();
  }

  void StartChassis() {
    master_.reset(new KestrinServer);
    master_->WriteFile("kv/etc/Kestrin.conf", ChassisConfiguration("Master"));
    master_->SetLauncher(network_->InMaster());
    master_->Start({"-h", MasterEnd(0), "-p", MASTERS_PORT});
    ASSERT_TRUE(master_->WaitForReady()) << master_->Stdout() << master_->Stderr();
    for (int k = 0; k < AGENTS; ++k) {
      agents_.emplace_back(new KestrinServer);
      KestrinServer& agent = *agents_.back();
      agent.WriteFile("kv/etc/Kestrin.conf", ChassisConfiguration("Agent"));
      agent.SetLauncher(network_->InAgent(k));
      agent.Start({"-h", MasterEnd(0), "-p", MASTERS_PORT});
      ASSERT_TRUE(agent.WaitForReady()) << agent.Stdout() << agent.Stderr();
    }
    // Every Agent's connection arrives from its own link's address.
    for (int k = 0; k < AGENTS; ++k) {
      const std::string accepted = "Socket from " + AgentEnd(k) + ":";
      ASSERT_TRUE(WaitUntil(
          [&]() {
            const Texts texts = master_->OwnLogTexts();
            for (const std::string& text : texts) {
              if (text.rfind(accepted, 0) == 0 &&
                  CountEndingWith(Texts{text}, " has been accepted") == 1) {
                return true;
              }
            }
            return false;
          },
          20000))
          << accepted << "\n"
          << master_->ReadFile("kv/log/Kestrin.log") << agents_[k]->ReadFile("kv/log/Kestrin.log");
    }
  }

  std::unique_ptr<StarNetwork> network_;
  std::unique_ptr<KestrinServer> master_;
  std::vector<std::unique_ptr<KestrinServer>> agents_;
};

TEST_F(E2eChassisNetns, LineLoggedOnEachAgentLandsOnceExactlyFormattedOnTheMaster) {
  StartChassis();
  for (int k = 0; k < AGENTS; ++k) {
    const uint32_t handle = RegisterModule(agents_[k]->Root(), k);
    Send(*agents_[k], Record(handle, 200 + k, "across namespaces from agent " + std::to_string(k)));
  }
  for (int k = 0; k < AGENTS; ++k) {
    const std::string line = SystemLine("App" + std::to_string(k), 200 + k,
                                        "across namespaces from agent " + std::to_string(k));
    ASSERT_TRUE(master_->WaitForLogLine("system.log", line, 20000))
        << master_->ReadFile("kv/log/system.log") << master_->ReadFile("kv/log/Kestrin.log");
  }
  const Texts lines = master_->LogLines("system.log");
  for (int k = 0; k < AGENTS; ++k) {
    const std::string text = "across namespaces from agent " + std::to_string(k);
    EXPECT_EQ(1, Count(lines, SystemLine("App" + std::to_string(k), 200 + k, text)));
    // The module's own file is on the Master, not on the Agent.
    const Texts own = master_->LogLines("agent" + std::to_string(k) + ".log");
    EXPECT_EQ(1, Count(own, "2023-11-14T22:13:20.000 [INFO ] {App" + std::to_string(k) + "} (" +
                                std::to_string(200 + k) + ") - " + text))
        << master_->ReadFile("kv/log/agent" + std::to_string(k) + ".log");
    EXPECT_EQ("", agents_[k]->ReadFile("kv/log/agent" + std::to_string(k) + ".log"));
  }
}

TEST_F(E2eChassisNetns, KillingTheMasterEndsEveryAgentWithSocketClosed) {
  StartChassis();
  master_->Signal(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, master_->WaitForExit());
  for (auto& agent : agents_) {
    EXPECT_TRUE(agent->WaitForOwnLogText("AgentRole::SocketClosed", 20000))
        << agent->ReadFile("kv/log/Kestrin.log");
    EXPECT_EQ(0, agent->WaitForExit(20000));
    EXPECT_NE(std::string::npos, agent->Stdout().find("AgentRole::ShutDown\n"));
    EXPECT_EQ(1, Count(agent->OwnLogTexts(), "Normal shutdown."));
  }
}

}  // namespace
}  // namespace kestrin_e2e
