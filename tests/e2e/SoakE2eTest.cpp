// Soak tests: several clients flood numbered lines through the real daemon
// and the client library into one file that rolls over every few kilobytes
// with compression on; kestrin-seqcheck then reads the file and every backup
// and must find every line of every client exactly once, in order. Variants:
// default and fast pacing, and a re-read request (SIGHUP) every second
// during the flood. Sized for CI; KESTRIN_SOAK_LONG=1 sends twenty times as
// many lines (and keeps enough backups for them).
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "KestrinServer.h"
#include "qrt/QrtDiag.h"

namespace kestrin_e2e {
namespace {

constexpr int CLIENTS = 4;

bool LongMode() {
  const char* value = getenv("KESTRIN_SOAK_LONG");
  return value != nullptr && value[0] == '1';
}

// Lines per client: about 40 KiB of each in CI.
int LinesPerClient() { return LongMode() ? 8000 : 400; }

struct Soak {
  const char* pacing;  // the "config" section's pacing keys
  bool hupEverySecond;
  int pauseMicroseconds;  // between a client's lines: long enough a flood for several HUPs
};

class E2eSoak : public ::testing::TestWithParam<Soak> {
 protected:
  void SetUp() override {
    // Backups for every line: about 100 bytes a line, 4 KiB a file.
    const int backups = LongMode() ? 100 : 60;
    const std::string size = LongMode() ? "64kb" : "4kb";
    server_.WriteFile("kv/etc/Kestrin.conf", std::string("[config]\nRole=Solo\n") +
                                                 GetParam().pacing + "\n[soak.log]\nFileSize=" +
                                                 size + "\nBackupCount=" +
                                                 std::to_string(backups) + "\nZipBackups=true\n");
    server_.Start();
    ASSERT_TRUE(server_.WaitForReady()) << server_.Stdout();
  }
  void TearDown() override {
    if (!server_.Running()) return;
    EXPECT_EQ(0, server_.Run({"stop"}).status);
    EXPECT_EQ(0, server_.WaitForExit());
  }

  // Sends `lines` numbered lines as module "clientC", sending a line again
  // while the queue is full, so that none is lost on the client's side.
  static void Flood(int client, int lines, int pauseMicroseconds) {
    const std::string module = "client" + std::to_string(client);
    int handle = -1;
    ASSERT_EQ(QRT_OK, QrtDiagRegisterModule(module.c_str(), module.c_str(), 0, "soak.log", &handle));
    const std::string filler(30, 'x');
    for (int i = 0; i < lines; ++i) {
      const std::string text = "seq " + std::to_string(i) + " " + filler;
      int result;
      while ((result = QrtDiagAddLogWithEvClass(handle, QRT_DESTINATION_PRIVATE_FILE,
                                                QRT_SEVERITY_INFO, 1, text.c_str(), 2)) ==
             QRT_ERROR_QUEUE_FULL) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      ASSERT_EQ(QRT_OK, result);
      if (pauseMicroseconds != 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(pauseMicroseconds));
      }
    }
  }

  std::string LogPath() const { return server_.Root() + "/kv/log/soak.log"; }

  // Whether no backup is left plain (compression has caught up).
  bool AllCompressed() const {
    for (int n = 1; n <= 100; ++n) {
      if (FileExists(LogPath() + "." + std::to_string(n))) return false;
    }
    return true;
  }

  static bool FileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

  KestrinServer server_;
};

TEST_P(E2eSoak, EveryClientsLinesArriveOnceAndInOrderThroughRollOversAndCompression) {
  const int lines = LinesPerClient();
  std::atomic<bool> flooding{true};
  std::thread hups([&]() {
    while (GetParam().hupEverySecond && flooding) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      if (flooding) server_.Signal(SIGHUP);
    }
  });
  std::vector<std::thread> clients;
  for (int client = 0; client < CLIENTS; ++client) {
    const int pause = GetParam().pauseMicroseconds;
    clients.emplace_back([client, lines, pause]() { Flood(client, lines, pause); });
  }
  for (std::thread& client : clients) client.join();
  flooding = false;
  hups.join();
  // Every line is in, and every backup compressed, once the checker counts
  // them all with no problem (it reads the live file too, which may still be
  // growing while the daemon drains its queue).
  const std::string tool = KestrinServer::DaemonPath();
  const std::string seqcheck = tool.substr(0, tool.rfind('/')) + "/kestrin-seqcheck";
  const std::string report = server_.Root() + "/seqcheck.txt";
  const std::string summary = "kestrin-seqcheck: " + std::to_string(lines * CLIENTS) +
                              " lines from " + std::to_string(CLIENTS) + " sources, 0 problems\n";
  int status = -1;
  const bool settled = WaitUntil(
      [&]() {
        if (!AllCompressed()) return false;
        status = std::system((seqcheck + " " + LogPath() +
                              " '\\{(client[0-9]+)\\}.* seq ([0-9]+) ' >" + report)
                                 .c_str());
        return status == 0 && server_.ReadFile("seqcheck.txt") == summary;
      },
      60000);
  EXPECT_TRUE(settled) << "backups left plain, or lines missing";
  EXPECT_EQ(0, status) << server_.ReadFile("seqcheck.txt");
  EXPECT_EQ(summary, server_.ReadFile("seqcheck.txt"));
  if (GetParam().hupEverySecond) {
    int reloads = 0;
    for (const std::string& text : server_.OwnLogTexts()) {
      reloads += text == "HUP signal received; reloading configuration";
    }
    EXPECT_GE(reloads, 2) << "the configuration was not re-read during the flood";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Pacing, E2eSoak,
    ::testing::Values(Soak{"MessagesBeforeSleep=80\nSleepTime=10\n", false, 0},
                      Soak{"MessagesBeforeSleep=1000\nSleepTime=1\n", false, 0},
                      Soak{"MessagesBeforeSleep=1000\nSleepTime=1\n", true, 7000}),
    [](const ::testing::TestParamInfo<Soak>& soak) {
      if (soak.param.hupEverySecond) return std::string("FastWithAHupEverySecond");
      return std::string(soak.index == 0 ? "DefaultPacing" : "FastPacing");
    });

}  // namespace
}  // namespace kestrin_e2e
