// A real Master hardened through Kestrin.conf (ListenAddress, AllowedAgents,
// MaxAgents, AgentIdleTimeout) against raw TCP peers, a Master that runs
// out of descriptors, hostile log-file names in unregistered add-logs, and
// a Master under valgrind whose internal reports must carry no uninitialised
// byte onto the world-readable queue.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ChassisSupport.h"
#include "KestrinServer.h"
#include "RawPeer.h"
#include "osa/osa.h"

namespace kestrin_e2e {
namespace {

constexpr uint32_t OTHER_LOOPBACK = 0x7f000002;  // 127.0.0.2

// Polls `done` every millisecond until it holds or `timeoutMs` has passed.
template <typename Done>
bool WaitUntilQuick(Done done, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

class E2eMasterHardening : public ::testing::Test {
 protected:
  void TearDown() override {
    if (agent_) UseRoot(*agent_);
    agent_.reset();
    if (master_) UseRoot(*master_);
    master_.reset();
  }

  // Starts a Master whose "config" section has `settings` too, listening on
  // a free port (through `launcher` when given).
  void StartMaster(const std::string& settings, const std::vector<std::string>& launcher = {},
                   uint32_t listenCheck = LOOPBACK) {
    master_.reset(new KestrinServer);
    std::string configuration = ChassisConfiguration("Master");
    configuration.replace(configuration.find("\n") + 1, 0, settings);
    master_->WriteFile("kv/etc/Kestrin.conf", configuration);
    if (!launcher.empty()) master_->SetLauncher(launcher);
    port_ = FreePort();
    master_->Start({"-h", "127.0.0.1", "-p", std::to_string(port_)});
    ASSERT_TRUE(master_->WaitForReady(60000)) << master_->Stdout();
    ASSERT_TRUE(WaitUntil([&]() { return ListeningOn(listenCheck); }, 30000))
        << master_->ReadFile("kv/log/Kestrin.log");
  }

  bool ListeningOn(uint32_t address) {
    long socket = -1;
    if (osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &socket) != OS_OK) return false;
    tOsTCPSocketAddress target{address, port_};
    const bool connected = osTCPConnect(socket, &target) == OS_OK;
    osTCPClose(socket);
    return connected;
  }

  void StartAgent() {
    agent_.reset(new KestrinServer);
    agent_->WriteFile("kv/etc/Kestrin.conf", ChassisConfiguration("Agent"));
    agent_->Start({"-h", "127.0.0.1", "-p", std::to_string(port_)});
    ASSERT_TRUE(agent_->WaitForReady()) << agent_->Stdout();
    handle_ = RegisterModule(agent_->Root(), 0);
  }

  // Honest line `n` from the Agent reaches the Master's system log.
  void ExpectHonestLine(int n) {
    Send(*agent_, Record(handle_, 300 + n, "honest " + std::to_string(n)));
    EXPECT_TRUE(master_->WaitForLogLine("system.log",
                                        SystemLine("App0", 300 + n, "honest " + std::to_string(n)),
                                        20000))
        << master_->ReadFile("kv/log/Kestrin.log");
  }

  bool OwnLogHas(const std::string& text) { return master_->WaitForOwnLogText(text, 20000); }

  void ExpectMasterRunning() { EXPECT_EQ(-1, master_->WaitForExit(0)) << "the Master ended"; }

  uint16_t port_ = 0;
  std::unique_ptr<KestrinServer> master_;
  std::unique_ptr<KestrinServer> agent_;
  uint32_t handle_ = 0;
};

TEST_F(E2eMasterHardening, UnregisteredAddLogsNamingFilesOutsideAreRefused) {
  StartMaster("");
  StartAgent();
  master_->WriteFile("x.log", "precious\n");
  const auto before = EntriesOutsideLogDirectory(*master_);
  RawPeer peer(port_);
  ASSERT_TRUE(peer.Connected());
  const std::vector<std::string> names = {"../x.log", "a/../../x.log", "x/..", "a\nb.log"};
  for (const std::string& name : names) {
    ASSERT_TRUE(peer.SendAll(UnregAddLogFrame("hostile", name, "through the Master")));
  }
  ASSERT_TRUE(OwnLogHas("Refused log file name \"a#012b.log\": it holds control characters"));
  const Texts texts = master_->OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "Refused log file name \"../x.log\": it leads outside the log "
                            "directory"));
  EXPECT_EQ(1, Count(texts, "Refused log file name \"a/../../x.log\": it leads outside the log "
                            "directory"));
  EXPECT_EQ(1, Count(texts, "Refused log file name \"x/..\": it leads outside the log directory"));
  ExpectHonestLine(0);
  EXPECT_EQ(before, EntriesOutsideLogDirectory(*master_));
  EXPECT_FALSE(peer.ClosedByMaster(200)) << "the peer's connection stays";
}

TEST_F(E2eMasterHardening, PeersFromRefusedAddressesNeverReachTheErrorLimit) {
  StartMaster("AllowedAgents = 10.1.1.0/24, 127.0.0.1\n");
  StartAgent();
  ExpectHonestLine(0);
  // One after the other, each closed by the Master before the next: a burst
  // would overflow the listening backlog, and the kernel would retry the
  // dropped connections for seconds.
  for (int i = 0; i < 2000; ++i) {
    RawPeer peer(port_, OTHER_LOOPBACK);
    ASSERT_TRUE(peer.Connected()) << i;
    peer.SendAll(std::string("F\x01\0\0", 4));
    ASSERT_TRUE(peer.ClosedByMaster(5000)) << i;
  }
  ASSERT_TRUE(WaitUntil(
      [&]() {
        return CountStartingWith(master_->OwnLogTexts(), "Refused a connection from 127.0.0.2:") >
               0;
      },
      10000))
      << master_->ReadFile("kv/log/Kestrin.log");
  ExpectHonestLine(1);
  ExpectMasterRunning();
  const Texts texts = master_->OwnLogTexts();
  EXPECT_EQ(0, CountStartingWith(texts, "Zor Sockets: Socket error limit exceeded"));
  EXPECT_EQ(0, CountStartingWith(texts, "Zor Sockets: Received invalid message header"))
      << "a refused peer is never read";
  EXPECT_EQ(10, CountEndingWith(texts, ": not among AllowedAgents") +
                    CountEndingWith(texts,
                                    ": not among AllowedAgents (In future, similar messages may be "
                                    "suppressed.)"))
      << "throttled: ten lines, then one every ten seconds at most";
}

TEST_F(E2eMasterHardening, MaxAgentsClosesTheConnectionBeyondTheLimit) {
  StartMaster("MaxAgents = 2\n");
  StartAgent();
  RawPeer second(port_);
  ASSERT_TRUE(second.Connected());
  ASSERT_TRUE(WaitUntil(
      [&]() { return CountEndingWith(master_->OwnLogTexts(), " has been accepted") >= 3; }))
      << master_->ReadFile("kv/log/Kestrin.log");
  RawPeer third(port_);
  ASSERT_TRUE(third.Connected());
  EXPECT_TRUE(third.ClosedByMaster(10000));
  EXPECT_TRUE(WaitUntil([&]() {
    return CountStartingWith(master_->OwnLogTexts(),
                             "Zor Sockets: Maximum number of clients exceeded: closing socket ") ==
           1;
  })) << master_->ReadFile("kv/log/Kestrin.log");
  EXPECT_FALSE(second.ClosedByMaster(300));
  ExpectHonestLine(0);
}

TEST_F(E2eMasterHardening, AgentIdleTimeoutClosesASilentPeerAndKeepsATalkingOne) {
  StartMaster("AgentIdleTimeout = 2\n");
  RawPeer silent(port_);
  RawPeer talking(port_);
  ASSERT_TRUE(silent.Connected());
  ASSERT_TRUE(talking.Connected());
  const std::string greeting = Frame(Header(kestrin::KES_AGENT_GREETINGS) + "Talker" + '\0');
  // One byte every half second for four seconds: never silent for two.
  for (size_t n = 0; n < 8; ++n) {
    ASSERT_TRUE(talking.SendAll(greeting.substr(n % greeting.size(), 1)));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  EXPECT_TRUE(silent.ClosedByMaster(1000));
  EXPECT_TRUE(OwnLogHas("Closed the connection from " + silent.Name() + ": silent for 2 seconds"));
  EXPECT_FALSE(talking.ClosedByMaster(100));
  // Silent from now on, it goes too.
  EXPECT_TRUE(talking.ClosedByMaster(5000));
  ExpectMasterRunning();
}

TEST_F(E2eMasterHardening, ListenAddressBindsOnlyThere) {
  StartMaster("ListenAddress = 127.0.0.2\n", {}, OTHER_LOOPBACK);
  EXPECT_TRUE(ListeningOn(OTHER_LOOPBACK));
  EXPECT_FALSE(ListeningOn(LOOPBACK));
  const std::string address = " to address 127.0.0.2:" + std::to_string(port_);
  const bool boundThere = WaitUntil([&]() {
    for (const std::string& text : master_->OwnLogTexts()) {
      if (text.rfind("Zor Sockets: Binding socket ", 0) == 0 &&
          text.size() > address.size() &&
          text.compare(text.size() - address.size(), address.size(), address) == 0) {
        return true;
      }
    }
    return false;
  });
  EXPECT_TRUE(boundThere) << master_->ReadFile("kv/log/Kestrin.log");
}

TEST_F(E2eMasterHardening, RunningOutOfDescriptorsRefusesConnectionsAndNeverEndsTheMaster) {
  StartMaster("", {"/usr/bin/prlimit", "--nofile=256:256", "--"});
  StartAgent();
  ExpectHonestLine(0);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < 1200 && limit.rlim_max >= 1200) {
    limit.rlim_cur = 1200;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  std::vector<std::unique_ptr<RawPeer>> idle;
  // One at a time, each taken off the listening backlog (accepted, or
  // refused) before the next: a burst would overflow the backlog, and the
  // kernel would retry the dropped connections for seconds.
  for (int i = 0; i < 1000; ++i) {
    idle.emplace_back(new RawPeer(port_));
    ASSERT_TRUE(idle.back()->Connected()) << i;
    ASSERT_TRUE(WaitUntilQuick([&]() { return ListenQueueLength(port_) == 0; }, 5000))
        << "the Master stopped accepting at connection " << i;
  }
  ASSERT_TRUE(WaitUntil(
      [&]() {
        return CountStartingWith(master_->OwnLogTexts(), "Refused a connection from 127.0.0.1:") >
               0;
      },
      20000))
      << master_->ReadFile("kv/log/Kestrin.log");
  ExpectMasterRunning();
  idle.clear();
  ExpectHonestLine(1);
  ExpectMasterRunning();
  const Texts texts = master_->OwnLogTexts();
  EXPECT_EQ(0, CountStartingWith(texts, "MasterRole::SelectThread::FatalError"));
  EXPECT_EQ(0, CountStartingWith(texts, "Refused a connection from 0.0.0.0:0"))
      << "every refusal used the reserve";
}

TEST_F(E2eMasterHardening, InternalReportsCarryNoUninitialisedBytesUnderValgrind) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "valgrind does not run sanitized programs";
#else
  if (access("/usr/bin/valgrind", X_OK) != 0) GTEST_SKIP() << "valgrind is not installed";
  StartMaster("", {"/usr/bin/valgrind", "--tool=memcheck", "--error-exitcode=99", "-q"});
  RawPeer peer(port_);
  ASSERT_TRUE(peer.Connected());
  // Each a report of the select thread, put on the queue for the main thread.
  ASSERT_TRUE(peer.SendAll(Frame(Header(99) + "xxxx")));
  ASSERT_TRUE(peer.SendAll(Frame(Header(kestrin::KES_ADD_LOG) + "short")));
  ASSERT_TRUE(OwnLogHas("Invalid message type of 99 received from Agent; ignoring."));
  ASSERT_TRUE(OwnLogHas("Received invalid AddLog message from Agent; sizeOfData = 13; minimum is 45"));
  EXPECT_EQ(0, master_->Run({"stop"}, 60000).status);
  EXPECT_EQ(0, master_->WaitForExit(60000));
  EXPECT_EQ(std::string::npos, master_->Stderr().find("uninitialised")) << master_->Stderr();
  EXPECT_EQ(std::string::npos, master_->Stderr().find("==")) << master_->Stderr();
#endif
}

}  // namespace
}  // namespace kestrin_e2e
