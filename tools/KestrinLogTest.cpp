#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "qrt/QrtFakeDaemon.h"

namespace {

using qrt_test::append_text;
using qrt_test::append_u16;
using qrt_test::append_u32;
using qrt_test::FakeDaemon;
using qrt_test::PrivateRoot;
using qrt_test::QueuedMessage;
using qrt_test::read_u32;

constexpr size_t HANDLE_OFFSET = 4;
constexpr size_t PID_OFFSET = 36;

std::string tool_path() {
  const char* buildDir = getenv("KESTRIN_BUILD_DIR");
  if (buildDir != nullptr && buildDir[0] != '\0') return std::string(buildDir) + "/bin/kestrin-log";
  char self[PATH_MAX] = {0};
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string path(self, n > 0 ? static_cast<size_t>(n) : 0);
  return path.substr(0, path.rfind('/')) + "/../bin/kestrin-log";
}

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs kestrin-log with `arguments` (shell words) and `input` on its
// standard input, keeping its output in files of `dir`.
ToolRun run_tool(const std::string& dir, const std::string& arguments,
                 const std::string& input = "") {
  std::ofstream(dir + "/stdin") << input;
  std::string command = "'" + tool_path() + "' " + arguments + " <'" + dir + "/stdin' >'" + dir +
                        "/stdout' 2>'" + dir + "/stderr'";
  ToolRun run;
  int raw = system(command.c_str());
  run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  run.out = read_file(dir + "/stdout");
  run.err = read_file(dir + "/stderr");
  return run;
}

// An add-log record's bytes with the time words and PID taken from
// `received`.
std::vector<unsigned char> expected_add_log(uint32_t handle, uint16_t destination,
                                            uint32_t severity, uint32_t eventClass,
                                            uint32_t eventId, const std::string& text,
                                            const std::vector<unsigned char>& received) {
  std::vector<unsigned char> bytes;
  append_u16(&bytes, 34);
  append_u16(&bytes, 1);
  append_u32(&bytes, handle);
  append_u16(&bytes, 0);
  append_u16(&bytes, destination);
  append_u32(&bytes, severity);
  append_u32(&bytes, eventClass);
  append_u32(&bytes, eventId);
  append_u32(&bytes, read_u32(received, 24));
  append_u32(&bytes, read_u32(received, 28));
  append_u32(&bytes, 0);
  append_u32(&bytes, read_u32(received, PID_OFFSET));
  append_text(&bytes, text);
  bytes.push_back(0);
  append_u32(&bytes, 0);
  return bytes;
}

std::vector<unsigned char> expected_size_record(uint32_t sizeOrCount, const std::string& name) {
  std::vector<unsigned char> bytes;
  append_u16(&bytes, 34);
  append_u16(&bytes, 6);
  append_u32(&bytes, sizeOrCount);
  append_text(&bytes, name);
  bytes.push_back(0);
  append_u32(&bytes, 0);
  return bytes;
}

TEST(KestrinLog, SendsTheMessageGivenOnTheCommandLine) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ToolRun run = run_tool(daemon.Root().Path(),
                         "-m Radio -n RadioCtl -f radio.log -s warning -e 7001 -c security "
                         "-d private link 'up now'");
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("", run.err);
  const tKesRegTableEntry& slot = daemon.Table()[1];
  EXPECT_EQ(0, slot.state);
  EXPECT_STREQ("Radio", slot.moduleName);
  EXPECT_STREQ("RadioCtl", slot.moduleNameInLog);
  EXPECT_STREQ("radio.log", slot.logFileName);
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(1, message.type);
  EXPECT_EQ(expected_add_log(1, 2, 2, 256, 7001, "link up now", message.text), message.text);
  EXPECT_NE(0u, read_u32(message.text, PID_OFFSET));
  EXPECT_NE(static_cast<uint32_t>(getpid()), read_u32(message.text, PID_OFFSET));
  EXPECT_FALSE(daemon.Receive(&message));
}

TEST(KestrinLog, DefaultsAreInfoToBothUnderItsOwnName) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ToolRun run = run_tool(daemon.Root().Path(), "hello");
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_STREQ("kestrin-log", daemon.Table()[1].moduleName);
  EXPECT_STREQ("kestrin-log", daemon.Table()[1].moduleNameInLog);
  EXPECT_STREQ("kestrin-log.log", daemon.Table()[1].logFileName);
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_add_log(1, 3, 4, 0, 0, "hello", message.text), message.text);
}

TEST(KestrinLog, LongOptionsAndEverySeverityWord) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  const char* words[] = {"error", "warning", "info", "debug"};
  for (const char* word : words) {
    ToolRun run = run_tool(daemon.Root().Path(), std::string("--module M --name-in-log N ") +
                                                     "--file n.log --severity " + word +
                                                     " --event-id 4294967295 --class fault "
                                                     "--destination system text");
    EXPECT_EQ(0, run.status) << run.err;
  }
  const uint32_t codes[] = {1, 2, 4, 8};
  for (uint32_t code : codes) {
    QueuedMessage message;
    ASSERT_TRUE(daemon.Receive(&message));
    EXPECT_EQ(expected_add_log(1, 1, code, 1, 0xffffffffu, "text", message.text), message.text);
  }
}

TEST(KestrinLog, SendsEachLineOfStandardInput) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ToolRun run = run_tool(daemon.Root().Path(), "-s error", "first line\n\nsecond line\n");
  EXPECT_EQ(0, run.status) << run.err;
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_add_log(1, 3, 1, 0, 0, "first line", message.text), message.text);
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_add_log(1, 3, 1, 0, 0, "second line", message.text), message.text);
  EXPECT_FALSE(daemon.Receive(&message));
}

TEST(KestrinLog, SizeAndBackupRequestsSendNoMessage) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ToolRun run = run_tool(daemon.Root().Path(), "-f radio.log --set-size 2048 --set-backups 5",
                         "not to be sent\n");
  EXPECT_EQ(0, run.status) << run.err;
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_size_record(2048, "radio.log"), message.text);
  ASSERT_TRUE(daemon.Receive(&message));
  EXPECT_EQ(expected_size_record(0x80000005u, "radio.log"), message.text);
  EXPECT_FALSE(daemon.Receive(&message));
  // No registration either.
  EXPECT_EQ(2, daemon.Table()[1].state);
}

TEST(KestrinLog, DumpRequest) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ToolRun run = run_tool(daemon.Root().Path(), "--dump");
  EXPECT_EQ(0, run.status) << run.err;
  QueuedMessage message;
  ASSERT_TRUE(daemon.Receive(&message));
  std::vector<unsigned char> expected;
  append_u16(&expected, 34);
  append_u16(&expected, 15);
  append_u32(&expected, 0);
  EXPECT_EQ(expected, message.text);
  EXPECT_FALSE(daemon.Receive(&message));
}

TEST(KestrinLog, RegisterPrintsTheSameHandleEachTime) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  daemon.Register(1, "Taken", "taken.log");
  for (int i = 0; i < 2; ++i) {
    ToolRun run = run_tool(daemon.Root().Path(), "-r -n Mine -f mine.log");
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("handle 2\n", run.out);
  }
  EXPECT_EQ(0u, daemon.QueuedCount());
}

TEST(KestrinLog, MessageAboveTheFilterIsNotSent) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  daemon.Filters()->filter[1] = 2;
  ToolRun run = run_tool(daemon.Root().Path(), "-s debug quiet");
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(0u, daemon.QueuedCount());
}

TEST(KestrinLog, DaemonNotRunningIsExitOneWithAClearMessage) {
  PrivateRoot root(false);
  std::string expected = "kestrin-log: the Kestrin daemon is not running (no request queue under " +
                         root.Path() + ")\n";
  ToolRun run = run_tool(root.Path(), "hello");
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(expected, run.err);
  run = run_tool(root.Path(), "--dump");
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(expected, run.err);
  run = run_tool(root.Path(), "-f a.log --set-size 10");
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(expected, run.err);
}

TEST(KestrinLog, UsageErrorsAreExitTwoAndSendNothing) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  const std::string& dir = daemon.Root().Path();
  ToolRun run = run_tool(dir, "-s loud x");
  EXPECT_EQ(2, run.status);
  EXPECT_EQ(
      "kestrin-log: unknown severity 'loud' (use error, warning, info or debug)\n"
      "Try 'kestrin-log --help'.\n",
      run.err);
  run = run_tool(dir, "-d file x");
  EXPECT_EQ(2, run.status);
  EXPECT_EQ(
      "kestrin-log: unknown destination 'file' (use system, private or both)\n"
      "Try 'kestrin-log --help'.\n",
      run.err);
  run = run_tool(dir, "-c loud x");
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("kestrin-log: unknown event class 'loud'\nTry 'kestrin-log --help'.\n", run.err);
  run = run_tool(dir, "-e 12x x");
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("kestrin-log: invalid event ID '12x'\nTry 'kestrin-log --help'.\n", run.err);
  run = run_tool(dir, "-e 4294967296 x");
  EXPECT_EQ(2, run.status);
  run = run_tool(dir, "--set-size -1");
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("kestrin-log: invalid size '-1'\nTry 'kestrin-log --help'.\n", run.err);
  run = run_tool(dir, "--set-backups 2147483648");
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("kestrin-log: invalid backup count '2147483648'\nTry 'kestrin-log --help'.\n", run.err);
  run = run_tool(dir, "--bogus x");
  EXPECT_EQ(2, run.status);
  EXPECT_EQ("kestrin-log: invalid option or missing value: --bogus\nTry 'kestrin-log --help'.\n",
            run.err);
  run = run_tool(dir, "-m");
  EXPECT_EQ(2, run.status);
  EXPECT_EQ(0u, daemon.QueuedCount());
  EXPECT_EQ(2, daemon.Table()[1].state);
}

TEST(KestrinLog, HelpDescribesEveryOption) {
  PrivateRoot root(false);
  ToolRun run = run_tool(root.Path(), "--help");
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("", run.err);
  EXPECT_EQ(0u, run.out.find("Usage: kestrin-log [options] [message ...]\n"));
  const char* options[] = {"--module",   "--name-in-log", "--file",  "--register",
                           "--severity", "--event-id",    "--class", "--destination",
                           "--set-size", "--set-backups", "--dump",  "--help"};
  for (const char* option : options) EXPECT_NE(std::string::npos, run.out.find(option)) << option;
  EXPECT_EQ(run.out, run_tool(root.Path(), "-h").out);
}

}  // namespace
