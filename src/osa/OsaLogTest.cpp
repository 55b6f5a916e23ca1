// The system log under a private root: the root's own dev/log socket.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "osa/OsaTestSupport.h"
#include "osa/osa.h"

namespace {

using osa_test::ScopedEnv;
using osa_test::TempDir;

// A datagram socket bound at `path`, as a system logger listens.
class Listener {
 public:
  explicit Listener(const std::string& path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    timeval timeout{2, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  }
  ~Listener() { close(fd_); }
  bool Bound() const { return bound_; }
  std::string Receive() {
    char buffer[4096];
    const ssize_t count = recv(fd_, buffer, sizeof buffer, 0);
    return count < 0 ? "<nothing>" : std::string(buffer, static_cast<size_t>(count));
  }

 private:
  int fd_ = -1;
  bool bound_ = false;
};

TEST(OsaSyslog, UnderAPrivateRootLinesGoToTheRootsOwnSocket) {
  TempDir root;
  ASSERT_EQ(0, mkdir(root.File("dev").c_str(), 0755));
  Listener listener(root.File("dev/log"));
  ASSERT_TRUE(listener.Bound());
  ScopedEnv variable("KESTRIN_ROOT", root.Path().c_str());
  osOpenSyslog("kestrin-test");
  osSyslog(OS_LOG_ERR, "disk %s at %d%%", "full", 100);
  const std::string line = listener.Receive();
  // "<27>Nov 23 22:10:01 kestrin-test[1234]: disk full at 100%": daemon (3 << 3) | err (3).
  ASSERT_EQ("<27>", line.substr(0, 4)) << line;
  const std::string tail = " kestrin-test[" + std::to_string(getpid()) + "]: disk full at 100%";
  ASSERT_GE(line.size(), tail.size());
  EXPECT_EQ(tail, line.substr(line.size() - tail.size())) << line;
  EXPECT_EQ(4u + 15u + tail.size(), line.size()) << line;  // "Mmm dd hh:mm:ss"
  osSyslog(OS_LOG_INFO, "%s", "second");
  EXPECT_EQ("<30>", listener.Receive().substr(0, 4));
  osCloseSyslog();
}

TEST(OsaSyslog, NoListenerUnderAPrivateRootDropsTheLine) {
  TempDir root;
  ScopedEnv variable("KESTRIN_ROOT", root.Path().c_str());
  osOpenSyslog("kestrin-test");
  osSyslog(OS_LOG_ERR, "%s", "nobody hears this");  // must neither fail nor block
  osCloseSyslog();
  struct stat info;
  EXPECT_NE(0, stat(root.File("dev/log").c_str(), &info));
}

}  // namespace
