// The daemon's command line, start-up, verbs, single instance, signals and
// service-manager paths, with the real executable.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "KestrinServer.h"
#include "osa/osa.h"
#include "qrt/QrtDiag.h"

namespace kestrin_e2e {
namespace {

using Texts = std::vector<std::string>;

constexpr char STOP_SENT[] = "Stop request sent to Kestrin.\n";
constexpr char HUP_SENT[] = "Hup request sent to Kestrin.\n";
constexpr char BANNER[] = "***** Kestrin is starting up. Interface version 34 *****";

// The last line of `text` (without its line end).
std::string LastLine(const std::string& text) {
  std::string body = text;
  if (!body.empty() && body.back() == '\n') body.pop_back();
  size_t newline = body.rfind('\n');
  return newline == std::string::npos ? body : body.substr(newline + 1);
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string UsageText(const std::string& program) {
  return program +
         ": Command-line options:\n"
         "\n"
         "start - start as a daemon process\n"
         "stop  - stop a currently running Kestrin\n"
         "hup   - ask a currently running Kestrin to re-read its configuration\n"
         "        --> If none of start, stop, or hup is specified, runs as a\n"
         "            foreground application\n"
         "\n"
         "-d <directory> - directory in which to look for the alarm taxonomy file\n"
         "                 KestrinTaxonomy (if -a is not given) and the configuration\n"
         "                 file Kestrin.conf (if -c is not given); defaults to /kv/etc\n"
         "-a <pathname>  - full pathname of the alarm taxonomy file\n"
         "-c <pathname>  - full pathname of the configuration file\n"
         "-l <pathname>  - relative pathname of Kestrin's own log file; defaults to\n"
         "                 Kestrin.log\n"
         "\n"
         "-h <hostname>  - host name or IP address of the Master; may be given when\n"
         "                 running as either the Master or an Agent (on the standard\n"
         "                 chassis the default is right)\n"
         "-p <port>      - port used by Agents to connect to the Master; usually not\n"
         "                 to be given\n";
}

// Starts the daemon and waits until it is ready and its loop has handled a
// request (so that it waits in its receive).
void StartAndSettle(KestrinServer& server, const std::vector<std::string>& arguments = {},
                    char queueKey = 'Q') {
  server.Start(arguments);
  ASSERT_TRUE(server.WaitForReady()) << server.Stdout();
  server.SendHeader(15, 34, 1, queueKey);  // a dump: its closing line shows the loop at work
  ASSERT_TRUE(
      server.WaitForOwnLogText("****************END of registration table dump****************"));
}

void ExpectNormalShutdown(KestrinServer& server) {
  EXPECT_EQ(0, server.WaitForExit());
  Texts texts = server.OwnLogTexts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ("Normal shutdown.", texts.back());
}

// ---- verbs ------------------------------------------------------------------

TEST(E2eLifecycle, StopVerbStopsTheDaemonWhichExitsZero) {
  KestrinServer server;
  StartAndSettle(server);
  Finished stop = server.Run({"stop"});
  EXPECT_EQ(0, stop.status);
  EXPECT_TRUE(EndsWith(stop.out, STOP_SENT)) << stop.out;
  EXPECT_TRUE(EndsWith(stop.out.substr(0, stop.out.size() - strlen(STOP_SENT)),
                       " DEBUG Stopping Kestrin\n"))
      << stop.out;
  ExpectNormalShutdown(server);
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "run(): shutdown request received."));
}

TEST(E2eLifecycle, StopAfterDashQStillGoesToTheQueueKeyedWithQ) {
  KestrinServer server;
  StartAndSettle(server);
  Finished stop = server.Run({"-q", "X", "stop"});
  EXPECT_EQ(0, stop.status);
  EXPECT_EQ(STOP_SENT, LastLine(stop.out) + "\n");
  ExpectNormalShutdown(server);
}

TEST(E2eLifecycle, StopDoesNotReachADaemonRunningWithAnotherQueueKey) {
  KestrinServer server;
  StartAndSettle(server, {"-q", "X"}, 'X');
  Finished stop = server.Run({"stop"});
  EXPECT_EQ(1, stop.status);
  EXPECT_EQ("Unable to open Kestrin message queue. You'll have to 'kill -9' Kestrin",
            LastLine(stop.out));
  EXPECT_TRUE(server.Running());
  server.Signal(SIGINT);
  ExpectNormalShutdown(server);
}

TEST(E2eLifecycle, StopStartStopsTheDaemonAndNeverSeesStart) {
  KestrinServer server;
  StartAndSettle(server);
  Finished stop = server.Run({"stop", "start"});
  EXPECT_EQ(0, stop.status);
  EXPECT_EQ(std::string::npos, stop.out.find("Start daemon process")) << stop.out;
  ExpectNormalShutdown(server);
}

TEST(E2eLifecycle, StopWithoutAnyQueueSaysKillNineAndExitsOne) {
  KestrinServer server;
  Finished stop = server.Run({"stop"});
  EXPECT_EQ(1, stop.status);
  EXPECT_EQ("Unable to open Kestrin message queue. You'll have to 'kill -9' Kestrin",
            LastLine(stop.out));
}

TEST(E2eLifecycle, HupWithoutAnyQueueSaysRestartAndExitsOne) {
  KestrinServer server;
  Finished hup = server.Run({"hup"});
  EXPECT_EQ(1, hup.status);
  EXPECT_EQ("Unable to open Kestrin message queue. Try restarting Kestrin.", LastLine(hup.out));
}

TEST(E2eLifecycle, StopWithoutTheKeyFileSaysNoKeyAndExitsOne) {
  KestrinServer server(false);
  Finished stop = server.Run({"stop"});
  EXPECT_EQ(1, stop.status);
  EXPECT_EQ("Unable to find a key for the Kestrin message queue. You'll have to 'kill -9' Kestrin",
            LastLine(stop.out));
  Finished hup = server.Run({"hup"});
  EXPECT_EQ(1, hup.status);
  EXPECT_EQ("Unable to find a key for the Kestrin message queue. Try restarting Kestrin.",
            LastLine(hup.out));
}

TEST(E2eLifecycle, HupVerbMakesTheRunningDaemonReadItsConfigurationAgain) {
  KestrinServer server;
  StartAndSettle(server);
  server.WriteFile("kv/etc/Kestrin.conf", "[config]\nMessagesBeforeSleep = 40\nSleepTime = 10\n");
  Finished hup = server.Run({"hup"});
  EXPECT_EQ(0, hup.status);
  EXPECT_EQ(HUP_SENT, LastLine(hup.out) + "\n");
  EXPECT_TRUE(server.WaitForOutput("Configuration complete\n", 10000, 2));
  EXPECT_TRUE(server.WaitForOwnLogText("Number of log requests to process before sleeping = 40"));
  EXPECT_EQ(1, Count(server.OwnLogTexts(), "run(): hup request received."));
  EXPECT_TRUE(server.Running());
  server.Signal(SIGINT);
  ExpectNormalShutdown(server);
}

// ---- start-up ---------------------------------------------------------------

TEST(E2eLifecycle, SecondInstanceIsRefusedWithStatusOneAndTouchesNothing) {
  KestrinServer server;
  StartAndSettle(server);
  Finished second = server.Run({});
  EXPECT_EQ(1, second.status);
  EXPECT_TRUE(EndsWith(second.out, " ERROR Kestrin is already running. Exiting.\n")) << second.out;
  EXPECT_EQ(std::string::npos, second.out.find("message queue")) << second.out;
  EXPECT_EQ(1, Count(server.OwnLogTexts(), BANNER));
  EXPECT_TRUE(server.Running());
  EXPECT_EQ(0, server.Run({"stop"}).status);
  ExpectNormalShutdown(server);
}

TEST(E2eLifecycle, InvalidArgumentPrintsItAndTheUsageAndExitsOne) {
  KestrinServer server;
  Finished run = server.Run({"-x"});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("Invalid command-line argument -x\n" + UsageText(KestrinServer::DaemonPath()), run.out);
}

TEST(E2eLifecycle, PathnameAfterCMissingPrintsTheUsageAndExitsOne) {
  KestrinServer server;
  Finished run = server.Run({"-c"});
  EXPECT_EQ(1, run.status);
  EXPECT_TRUE(EndsWith(
      run.out, " ERROR -c must be followed by pathname\n" + UsageText(KestrinServer::DaemonPath())))
      << run.out;
}

TEST(E2eLifecycle, MissingPortValueIsOnlyReportedAndTheDaemonStarts) {
  KestrinServer server;
  server.Start({"-p"});
  ASSERT_TRUE(server.WaitForReady());
  EXPECT_NE(
      std::string::npos,
      server.Stdout().find(" ERROR -p must be followed by port number; using default port\n"));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  ExpectNormalShutdown(server);
}

TEST(E2eLifecycle, InvalidPortKeepsTheDefaultAndTheDaemonStarts) {
  KestrinServer server;
  server.Start({"-p", "abc"});
  ASSERT_TRUE(server.WaitForReady());
  EXPECT_NE(std::string::npos,
            server.Stdout().find(" ERROR port number is invalid; using default port\n"));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  ExpectNormalShutdown(server);
}

TEST(E2eLifecycle, DirectoryOptionTakesBothFilesFromThatDirectory) {
  KestrinServer server;
  server.WriteFile("alt/Kestrin.conf", "[config]\nMessagesBeforeSleep = 7\nSleepTime = 10\n");
  server.WriteFile("alt/KestrinTaxonomy", "");
  server.Start({"-d", server.Root() + "/alt"});
  ASSERT_TRUE(server.WaitForReady());
  const std::string out = server.Stdout();
  EXPECT_NE(std::string::npos,
            out.find(" INFO  PathnameOfConfigFile: " + server.Root() + "/alt/Kestrin.conf\n"));
  EXPECT_NE(std::string::npos,
            out.find(" INFO  PathnameOfTaxonomyFile: " + server.Root() + "/alt/KestrinTaxonomy\n"));
  EXPECT_TRUE(server.WaitForOwnLogText("Number of log requests to process before sleeping = 7"));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  ExpectNormalShutdown(server);
}

TEST(E2eLifecycle, DefaultDirectoryIsTheConfigurationDirectoryUnderTheRoot) {
  KestrinServer server;
  server.Start();
  ASSERT_TRUE(server.WaitForReady());
  EXPECT_NE(std::string::npos, server.Stdout().find(" INFO  PathnameOfConfigFile: " +
                                                    server.Root() + "/kv/etc/Kestrin.conf\n"));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  ExpectNormalShutdown(server);
}

TEST(E2eLifecycle, OwnLogOptionNamesTheOwnLogFile) {
  KestrinServer server;
  server.Start({"-l", "/mine.log"});
  ASSERT_TRUE(server.WaitForReady());
  EXPECT_TRUE(server.WaitForLogLine("mine.log", BANNER));
  EXPECT_TRUE(server.LogLines("Kestrin.log").empty());
  EXPECT_EQ(0, server.Run({"stop"}).status);
  EXPECT_EQ(0, server.WaitForExit());
}

// ---- signals ------------------------------------------------------------------

// The loop normally waits in its receive, which SIGINT interrupts (the
// EINTR line); a signal that lands while a tick is being handled is seen at
// the top of the next pass instead. Either way the loop ends cleanly.
TEST(E2eLifecycle, SigintEndsTheLoopAndCleansUpWithStatusZero) {
  KestrinServer server;
  StartAndSettle(server);
  server.Signal(SIGINT);
  EXPECT_EQ(0, server.WaitForExit());
  Texts texts = server.OwnLogTexts();
  ASSERT_GE(texts.size(), 3u);
  EXPECT_EQ(Texts({"Kestrin detected a pending kill of itself. Cleaning up.", "Normal shutdown."}),
            Texts(texts.end() - 2, texts.end()));
  const std::string eintr = "run(): msgrcv returned -1, error EINTR";
  EXPECT_LE(Count(texts, eintr), 1);
  if (Count(texts, eintr) == 1) {
    EXPECT_EQ(eintr, texts[texts.size() - 3]);
  }
}

TEST(E2eLifecycle, SigquitAbortsWithStatusOneWithoutCleanUp) {
  KestrinServer server;
  StartAndSettle(server);
  server.Signal(SIGQUIT);
  EXPECT_EQ(1, server.WaitForExit());
  EXPECT_EQ(0, Count(server.OwnLogTexts(), "Normal shutdown."));
  EXPECT_EQ(0,
            Count(server.OwnLogTexts(), "Kestrin detected a pending kill of itself. Cleaning up."));
}

TEST(E2eLifecycle, SighupWhileWaitingRereadsOnceWithoutAnErrorLine) {
  KestrinServer server;
  StartAndSettle(server);
  server.Signal(SIGHUP);
  EXPECT_TRUE(server.WaitForOutput("Configuration complete\n", 10000, 2));
  EXPECT_TRUE(server.WaitForOwnLogText("HUP signal received; reloading configuration"));
  EXPECT_TRUE(server.Running());
  EXPECT_EQ(0, server.Run({"stop"}).status);
  ExpectNormalShutdown(server);
  Texts texts = server.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "HUP signal received; reloading configuration"));
  for (const std::string& text : texts) EXPECT_EQ(std::string::npos, text.find("msgrcv")) << text;
}

// The number of records waiting on the daemon's queue; -1 when it cannot
// be read.
long WaitingRecords() {
  int queueId = -1;
  unsigned long count = 0;
  unsigned long limit = 0;
  if (osSysVQueueOpen(KeyOf('Q'), 0, &queueId) != OS_OK) return -1;
  if (osSysVQueueStat(queueId, &count, &limit) != OS_OK) return -1;
  return static_cast<long>(count);
}

// The numbers N of the lines "line N" in app.log, in file order.
std::vector<int> LoggedLineNumbers(const KestrinServer& server) {
  std::vector<int> numbers;
  const std::string mark = " - line ";
  for (const std::string& line : server.LogLines("app.log")) {
    const size_t at = line.find(mark);
    if (at != std::string::npos) numbers.push_back(atoi(line.c_str() + at + mark.size()));
  }
  return numbers;
}

// What `kill` and container runtimes send to a daemon in the foreground: it
// stops the way the service manager stops it, and the lines it took off the
// queue are in their file although no tick has flushed them.
TEST(E2eLifecycle, SigtermInTheForegroundCleansUpWith901AndWritesEveryLine) {
  KestrinServer server;
  StartAndSettle(server);
  int handle = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("App", "AppLog", 0, "app.log", &handle));
  constexpr int LINES = 300;
  for (int i = 0; i < LINES; ++i) {
    const std::string text = "line " + std::to_string(i);
    int result = QRT_ERROR_QUEUE_FULL;
    for (int attempt = 0; attempt < 5000 && result == QRT_ERROR_QUEUE_FULL; ++attempt) {
      result = QrtDiagAddLogWithEvClass(handle, QRT_DESTINATION_PRIVATE_FILE, QRT_SEVERITY_INFO, 1,
                                        text.c_str(), QRT_EVENT_CLASS_INFORMATION);
      if (result == QRT_ERROR_QUEUE_FULL) usleep(1000);
    }
    ASSERT_EQ(QRT_OK, result) << text;
  }
  // A stop leaves records still waiting on the queue for the next start:
  // the signal goes once the daemon has taken every line.
  ASSERT_TRUE(WaitUntil([]() { return WaitingRecords() == 0; }, 10000));
  server.Signal(SIGTERM);
  EXPECT_EQ(0, server.WaitForExit());
  std::vector<int> expected(LINES);
  for (int i = 0; i < LINES; ++i) expected[static_cast<size_t>(i)] = i;
  EXPECT_EQ(expected, LoggedLineNumbers(server));
  Texts texts = server.OwnLogTexts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ("Termination signal received from service manager. Shutting down.", texts.back());
  EXPECT_EQ(0, Count(texts, "Normal shutdown."));
  // The interrupted receive is part of the stop, not a failure to report.
  for (const std::string& text : texts) EXPECT_EQ(std::string::npos, text.find("msgrcv")) << text;
}

// A SIGTERM that arrives while the daemon is still starting is kept and
// taken by the main loop's first pass.
TEST(E2eLifecycle, SigtermDuringStartUpStopsTheDaemonOnceItRuns) {
  KestrinServer server;
  server.Start();
  // Said once the handler is in place, while signals wait for the loop.
  ASSERT_TRUE(server.WaitForOutput("The message queue is ready.\n"));
  server.Signal(SIGTERM);
  EXPECT_EQ(0, server.WaitForExit());
  Texts texts = server.OwnLogTexts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ("Termination signal received from service manager. Shutting down.", texts.back());
}

// A datagram socket standing in for the service manager's notify socket.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path) : path_(path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    bound_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~NotifySocket() {
    if (fd_ >= 0) close(fd_);
    unlink(path_.c_str());
  }
  bool Bound() const { return bound_; }

  // The next notification, or "" after `timeoutMs`.
  std::string Next(int timeoutMs = 10000) {
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, timeoutMs) != 1) return "";
    char buffer[512];
    ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
  }

 private:
  std::string path_;
  int fd_ = -1;
  bool bound_ = false;
};

TEST(E2eLifecycle, SigtermUnderAServiceManagerCleansUpWith901AndReportsStopping) {
  KestrinServer server;
  NotifySocket manager(server.Root() + "/notify.sock");
  ASSERT_TRUE(manager.Bound());
  server.Start({"start"}, {"NOTIFY_SOCKET=" + server.Root() + "/notify.sock"});
  EXPECT_NE(std::string::npos, manager.Next().find("READY=1"));
  ASSERT_TRUE(server.WaitForReady());
  server.Signal(SIGTERM);
  EXPECT_EQ(0, server.WaitForExit());
  EXPECT_NE(std::string::npos, manager.Next().find("STOPPING=1"));
  Texts texts = server.OwnLogTexts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ("Termination signal received from service manager. Shutting down.", texts.back());
  EXPECT_EQ(0, Count(texts, "Normal shutdown."));
  // Said before the own log exists, so only on standard output.
  EXPECT_NE(std::string::npos, server.Stdout().find(" DEBUG Going into the background....\n"));
}

// The target of the symbolic link `path`; empty when it cannot be read.
std::string LinkTarget(const std::string& path) {
  char target[PATH_MAX];
  const ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
  return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

// `kestrin start | cat`: the caller's pipe ends once the original process
// has exited, while the daemon runs on with its standard streams on
// /dev/null; what it printed while starting came through the pipe.
TEST(E2eLifecycle, StartLetsGoOfTheCallersPipeOnceTheDaemonIsReady) {
  KestrinServer server;
  server.StartPiped({"start"});
  EXPECT_TRUE(server.WaitForPipeEnd(20000))
      << "the daemon still holds the caller's pipe; read so far:\n"
      << server.Stdout();
  EXPECT_EQ(0, server.WaitForExit());
  const std::string out = server.Stdout();
  EXPECT_NE(std::string::npos, out.find(" DEBUG Going into the background....\n")) << out;
  EXPECT_NE(std::string::npos, out.find("Configuration complete\n")) << out;
  ASSERT_TRUE(server.AdoptDetachedDaemon());
  EXPECT_NE(getpid(), server.Pid());
  const std::string descriptors = "/proc/" + std::to_string(server.Pid()) + "/fd/";
  for (const char* stream : {"0", "1", "2"}) {
    EXPECT_EQ("/dev/null", LinkTarget(descriptors + stream)) << "standard stream " << stream;
  }
  // Still serving its queue.
  server.SendHeader(15);
  EXPECT_TRUE(
      server.WaitForOwnLogText("****************END of registration table dump****************"));
  EXPECT_EQ(0, server.Run({"stop"}).status);
  ExpectNormalShutdown(server);
}

TEST(E2eLifecycle, StartWithoutAServiceManagerDetachesAndSigtermStopsIt) {
  KestrinServer server;
  server.Start({"start"});
  EXPECT_EQ(0, server.WaitForExit()) << "the shell gets its prompt back once the daemon is up";
  EXPECT_NE(std::string::npos, server.Stdout().find(" DEBUG Going into the background....\n"));
  ASSERT_TRUE(server.AdoptDetachedDaemon());
  EXPECT_NE(getpid(), server.Pid());
  Finished second = server.Run({});
  EXPECT_EQ(1, second.status) << "the detached daemon keeps the single-instance claim";
  server.Signal(SIGTERM);
  EXPECT_EQ(0, server.WaitForExit());
  Texts texts = server.OwnLogTexts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ("Termination signal received from service manager. Shutting down.", texts.back());
}

}  // namespace
}  // namespace kestrin_e2e
