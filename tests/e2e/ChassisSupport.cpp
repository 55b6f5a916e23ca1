#include "ChassisSupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "osa/osa.h"

extern char** environ;

namespace kestrin_e2e {

namespace {

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs `argv` with `environment`, output to `outPath`; the exit status, or
// -1 when it did not end within `timeoutMs` (it is then killed).
int RunWith(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
            const std::string& outPath, int timeoutMs) {
  std::vector<std::string> words = argv;
  std::vector<std::string> entries = environment;
  std::vector<char*> args;
  for (std::string& word : words) args.push_back(&word[0]);
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (std::string& entry : entries) envp.push_back(&entry[0]);
  envp.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0) _exit(126);
    dup2(out, 1);
    dup2(out, 2);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  if (pid < 0) return -1;
  int status = -1;
  if (!WaitUntil([&]() { return waitpid(pid, &status, WNOHANG) == pid; }, timeoutMs)) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> EnvironmentWithout(const char* name) {
  std::vector<std::string> entries;
  const size_t length = strlen(name);
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (strncmp(*entry, name, length) != 0 || (*entry)[length] != '=') entries.push_back(*entry);
  }
  return entries;
}

}  // namespace

std::string ChassisConfiguration(const std::string& role) {
  return "[config]\nRole=" + role +
         "\nMessagesBeforeSleep = 80\nSleepTime = 10\n[Kestrin.log]\nLogLevel = debug\n";
}

uint16_t FreePort() {
  long socket = -1;
  EXPECT_EQ(OS_OK, osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &socket));
  tOsTCPSocketAddress address{LOOPBACK, 0};
  EXPECT_EQ(OS_OK, osTCPBind(socket, &address));
  EXPECT_EQ(OS_OK, osTCPGetLocalAddress(socket, &address));
  osTCPClose(socket);
  return address.port;
}

bool Listening(uint16_t port) {
  long socket = -1;
  if (osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &socket) != OS_OK) return false;
  tOsTCPSocketAddress address{LOOPBACK, port};
  bool ok = osTCPConnect(socket, &address) == OS_OK;
  osTCPClose(socket);
  return ok;
}

void UseRoot(const KestrinServer& server) { setenv("KESTRIN_ROOT", server.Root().c_str(), 1); }

int RunCommand(const std::vector<std::string>& argv, int timeoutMs, std::string* output) {
  char pattern[] = "/tmp/kestrin_cmd_XXXXXX";
  const int fd = mkstemp(pattern);
  if (fd < 0) return -1;
  close(fd);
  const int status = RunWith(argv, EnvironmentWithout("KESTRIN_ROOT"), pattern, timeoutMs);
  if (output != nullptr) *output = ReadWhole(pattern);
  unlink(pattern);
  return status;
}

std::string RunKestrinLog(const std::string& root, const std::vector<std::string>& arguments) {
  const std::string daemon = KestrinServer::DaemonPath();
  std::vector<std::string> argv = {daemon.substr(0, daemon.rfind('/')) + "/kestrin-log"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment = EnvironmentWithout("KESTRIN_ROOT");
  environment.push_back("KESTRIN_ROOT=" + root);
  const std::string outPath = root + "/kestrin-log.out";
  if (RunWith(argv, environment, outPath, 10000) != 0) return "<failed>";
  return ReadWhole(outPath);
}

uint32_t RegisterModule(const std::string& root, int i) {
  const std::string n = std::to_string(i);
  const std::string out =
      RunKestrinLog(root, {"-r", "-m", "app" + n, "-n", "App" + n, "-f", "agent" + n + ".log"});
  EXPECT_EQ(0u, out.rfind("handle ", 0)) << out;
  return static_cast<uint32_t>(atoi(out.c_str() + 7));
}

kestrin::tKesAddLogMessage Record(uint32_t handle, int32_t eventId, const std::string& text) {
  kestrin::tKesAddLogMessage message;
  memset(&message, 0, sizeof message);
  message.header.version = kestrin::KES_INTERFACE_VERSION;
  message.header.type = kestrin::KES_ADD_LOG;
  message.handle = handle;
  message.destination = 3;  // the system log and the module's own file
  message.severity = 4;     // information
  message.eventId = eventId;
  message.timeSeconds = FIXED_SECONDS;
  message.timeMicroseconds = 42;
  message.pid = 99;
  osLStrCpyn(message.text, text.c_str(), sizeof message.text);
  return message;
}

void Send(const KestrinServer& server, const kestrin::tKesAddLogMessage& message) {
  UseRoot(server);
  server.SendRecord(&message,
                    offsetof(kestrin::tKesAddLogMessage, text) + strlen(message.text) + 1);
}

std::string SystemLine(const std::string& nameInLog, int eventId, const std::string& text) {
  return "<information>\t2023-11-14T22:13:20.000042\t" + ThisHostName() + "\t" + nameInLog +
         "\t[99]:\teventID=" + std::to_string(eventId) + "; message=" + text;
}

int CountStartingWith(const Texts& texts, const std::string& start) {
  int count = 0;
  for (const std::string& text : texts) count += text.rfind(start, 0) == 0 ? 1 : 0;
  return count;
}

int CountEndingWith(const Texts& texts, const std::string& end) {
  int count = 0;
  for (const std::string& text : texts) {
    const bool ends =
        text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
    count += ends ? 1 : 0;
  }
  return count;
}

}  // namespace kestrin_e2e
