// A log disk that fills up and then has room again: the daemon runs in a
// mount namespace of its own whose log directory is a small tmpfs, which
// the test fills through /proc/PID/root and empties again. The loss must be
// loud (alarm 7050 on the LED and in the root's own syslog socket, which
// live elsewhere) and exact (every line either in the file or counted as
// lost), and the recovery must say so in the file and the own log.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "KestrinServer.h"
#include "qrt/QrtDiag.h"

namespace kestrin_e2e {
namespace {

constexpr char TAXONOMY[] =
    "[Lines lost]\n"
    "eID=7050\n"
    "newID=7050\n"
    "newSev=major\n"
    "eventClass=fault\n"
    "LED1=YELLOW_ON\n"
    "trap=true\n"
    "alarm=true\n"
    "visible=true\n";

constexpr int LINES_WHILE_FULL = 20;

// The root's own system log: a datagram socket at R/dev/log.
class SyslogSocket {
 public:
  explicit SyslogSocket(const std::string& path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~SyslogSocket() { close(fd_); }
  bool Bound() const { return bound_; }
  // Waits for a line holding `text`.
  bool WaitFor(const std::string& text) {
    return WaitUntil([&]() {
      char buffer[4096];
      ssize_t count;
      while ((count = recv(fd_, buffer, sizeof buffer, 0)) > 0) {
        lines_.emplace_back(buffer, static_cast<size_t>(count));
      }
      for (const std::string& line : lines_) {
        if (line.find(text) != std::string::npos) return true;
      }
      return false;
    });
  }

 private:
  int fd_ = -1;
  bool bound_ = false;
  std::vector<std::string> lines_;
};

bool CanMountInANamespace() {
  return std::system("unshare --mount --propagation private true >/dev/null 2>&1") == 0 &&
         getuid() == 0;
}

// Fills the file system holding `path` to the last byte.
void FillUp(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0) << path;
  const std::string block(4096, 'z');
  while (write(fd, block.data(), block.size()) > 0) {
  }
  while (write(fd, "z", 1) > 0) {
  }
  EXPECT_EQ(ENOSPC, errno);
  close(fd);
}

TEST(E2eDiskFull, LinesLostOnAFullDiskAreAlarmedCountedAndReportedOnRecovery) {
  if (!CanMountInANamespace()) GTEST_SKIP() << "needs root and mount namespaces";
  KestrinServer server;
  const std::string root = server.Root();
  server.WriteFile("kv/etc/KestrinTaxonomy", TAXONOMY);
  std::filesystem::create_directories(root + "/dev");
  SyslogSocket syslog(root + "/dev/log");
  ASSERT_TRUE(syslog.Bound());
  LedFifo led0(server, 0);
  ASSERT_TRUE(led0.Open());
  server.SetLauncher({"/usr/bin/unshare", "--mount", "--propagation", "private", "/bin/sh", "-c",
                      "mount -t tmpfs -o size=256k kestrin-test-log \"$0\" && exec \"$@\"",
                      root + "/kv/log"});
  server.Start();
  const std::string view = "/proc/" + std::to_string(server.Pid()) + "/root";
  server.SetFileView(view);
  ASSERT_TRUE(server.WaitForReady()) << server.Stdout() << server.Stderr();
  int handle = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("app", "App", 0, "app.log", &handle));
  auto log = [&](const std::string& text) {
    return QrtDiagAddLogWithEvClass(handle, QRT_DESTINATION_PRIVATE_FILE, QRT_SEVERITY_INFO, 1,
                                    text.c_str(), 2);
  };
  ASSERT_EQ(QRT_OK, log("before"));
  ASSERT_TRUE(server.WaitForLogLine("app.log", "before"));

  const std::string filler = view + root + "/kv/log/filler";
  FillUp(filler);
  const std::string long_text(400, 'd');
  for (int i = 0; i < LINES_WHILE_FULL; ++i) {
    ASSERT_EQ(QRT_OK, log("during " + std::to_string(i) + " " + long_text));
  }
  const std::string path = root + "/kv/log/app.log";
  EXPECT_TRUE(syslog.WaitFor("Lines cannot be written to " + path +
                             " (error 28); they are counted until writing works again"));
  EXPECT_EQ(std::string("\x99"), led0.WaitForBytes(1)) << "YELLOW_ON for alarm 7050";

  ASSERT_TRUE(std::filesystem::remove(filler));
  ASSERT_EQ(QRT_OK, log("after"));
  ASSERT_TRUE(server.WaitForLogLine("app.log", "after"));
  ASSERT_TRUE(server.WaitForLogLine("app.log", " lost: they could not be written to this file"));
  // Every line is either in the file or counted as lost.
  int written = 0;
  long lost = -1;
  std::string report;
  for (const std::string& line : server.LogLines("app.log")) {
    written += line.find(" - during ") != std::string::npos;
    const size_t at = line.find("{Kestrin} (7051) - ");
    if (at == std::string::npos) continue;
    report = line.substr(at + 19);
    lost = atol(report.c_str());
  }
  EXPECT_GT(lost, 0) << report;
  EXPECT_EQ(LINES_WHILE_FULL, written + lost) << report;
  const std::string lines = std::to_string(lost) + (lost == 1 ? " line was" : " lines were");
  EXPECT_EQ(0u, report.find(lines + " lost: they could not be written to this file during "))
      << report;
  EXPECT_NE(std::string::npos, report.find(" seconds (error 28)")) << report;
  EXPECT_TRUE(syslog.WaitFor(lines + " lost: they could not be written to " + path + " during "));
  bool ownLog = false;
  for (const std::string& text : server.OwnLogTexts()) {
    ownLog = ownLog || text.rfind(lines + " lost: they could not be written to " + path, 0) == 0;
  }
  EXPECT_TRUE(ownLog);

  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
}

}  // namespace
}  // namespace kestrin_e2e
