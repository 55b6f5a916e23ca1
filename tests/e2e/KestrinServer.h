// End-to-end test harness: the real daemon under a private root.
//
// A KestrinServer makes a fresh root (kv/etc with the key file, a quiet
// Kestrin.conf and an empty KestrinTaxonomy, kv/log), points this process's
// KESTRIN_ROOT at it, and starts build/bin/kestrin there with standard
// output and standard error kept in files. Tests then talk to the daemon
// over its real queue (raw records, or the client library) and read the
// exact lines it wrote. Every wait is bounded. At the end the daemon is
// killed if it still runs, its standard error is scanned for sanitizer
// reports, and the root and the System V objects keyed on it are removed.
//
// One server per test; tests run in parallel processes, each with its own
// root (and so its own keys, segments and single-instance lock).
#ifndef KESTRIN_TESTS_E2E_KESTRIN_SERVER_H_
#define KESTRIN_TESTS_E2E_KESTRIN_SERVER_H_

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "flt/StrictJson.h"
#include "kestrin/Records.h"

namespace kestrin_e2e {

// The outcome of a process that ran to its end.
struct Finished {
  int status = -1;  // exit status; 128 + signal when killed; -1 when it did not end in time
  std::string out;  // standard output
};

class KestrinServer {
 public:
  // With `withKeyFile` false the root lacks the key file.
  explicit KestrinServer(bool withKeyFile = true);
  ~KestrinServer();
  KestrinServer(const KestrinServer&) = delete;
  KestrinServer& operator=(const KestrinServer&) = delete;

  const std::string& Root() const { return root_; }
  // Writes `content` to `relative` under the root (directories made).
  void WriteFile(const std::string& relative, const std::string& content) const;
  // The content of `relative` under the root; empty when missing.
  std::string ReadFile(const std::string& relative) const;
  // The lines of kv/log/<name>, without line ends.
  std::vector<std::string> LogLines(const std::string& name) const;
  // The texts after ") - " of the daemon's own log (kv/log/Kestrin.log).
  std::vector<std::string> OwnLogTexts() const;

  // Starts the daemon with `arguments` in the foreground (or as `start`
  // says). `environment` entries ("NAME=value") are added to this
  // process's; NOTIFY_SOCKET is dropped unless given there. The daemon runs
  // with TZ=UTC.
  void Start(const std::vector<std::string>& arguments = {},
             const std::vector<std::string>& environment = {});
  // Starts the daemon as Start does, but with standard output and standard
  // error both the writing end of one pipe, as `kestrin start 2>&1 | cat`
  // runs it. This server holds the reading end, which WaitForPipeEnd reads.
  void StartPiped(const std::vector<std::string>& arguments = {});
  // Reads the pipe of StartPiped until no process holds its writing end any
  // more (true) or `timeoutMs` has passed (false). What was read is what
  // Stdout() and Stderr() give, and is scanned for sanitizer reports at the
  // end.
  bool WaitForPipeEnd(int timeoutMs = 20000);
  // Waits until the daemon printed "Configuration complete" (its queue and
  // semaphore exist by then); false after `timeoutMs`.
  bool WaitForReady(int timeoutMs = 10000);
  // Waits until the daemon's standard output holds `text` `count` times.
  bool WaitForOutput(const std::string& text, int timeoutMs = 10000, int count = 1);
  // Waits until kv/log/<name> holds a line containing `text`.
  bool WaitForLogLine(const std::string& name, const std::string& text, int timeoutMs = 10000);
  // Waits until the daemon's own log holds a line whose text equals `text`.
  bool WaitForOwnLogText(const std::string& text, int timeoutMs = 10000);
  // The daemon's exit status (128 + signal when a signal ended it); -1 when
  // it still runs after `timeoutMs`.
  int WaitForExit(int timeoutMs = 10000);
  bool Running() const { return pid_ > 0; }
  pid_t Pid() const { return pid_; }
  // Adopts a daemon that detached from the process Start began (its pid
  // read from its own log); false when none could be found.
  bool AdoptDetachedDaemon(int timeoutMs = 10000);
  void Signal(int signalNumber) const;
  std::string Stdout() const;
  std::string Stderr() const;

  // Runs another kestrin process (a client, or a second daemon) to its end.
  Finished Run(const std::vector<std::string>& arguments, int timeoutMs = 10000,
               const std::vector<std::string>& environment = {});

  // Puts `textSize` bytes after the type word on the daemon's queue (keyed
  // with `queueKey`).
  void SendText(const void* text, size_t textSize, long typeWord = 1, char queueKey = 'Q') const;
  // Sends a record as every sender does: its bytes and 4 zero bytes.
  void SendRecord(const void* record, size_t recordSize, long typeWord = 1,
                  char queueKey = 'Q') const;
  void SendHeader(uint16_t type, uint16_t version = 34, long typeWord = 1,
                  char queueKey = 'Q') const;

  // Words put in front of the daemon's command line by every later Start
  // and Run, e.g. {"/usr/sbin/ip", "netns", "exec", NAME} to run the daemon
  // in a network namespace. The first word is an absolute path; the last
  // must exec the daemon in place, so that Pid() stays the daemon's.
  void SetLauncher(const std::vector<std::string>& words) { launcher_ = words; }
  // Reads the root's files through `prefix` (for example "/proc/PID/root"
  // of a daemon in a mount namespace of its own); empty: directly.
  void SetFileView(const std::string& prefix) { view_ = prefix; }

  // The path of the daemon executable.
  static std::string DaemonPath();

 private:
  // With `outputFd` >= 0 the child's standard output and error are that
  // descriptor, and the two paths are not used.
  pid_t Spawn(const std::vector<std::string>& arguments,
              const std::vector<std::string>& environment, const std::string& outPath,
              const std::string& errPath, int outputFd = -1) const;
  void MakeRoot(bool withKeyFile);
  void KillDaemon();
  void CheckForSanitizerReports(const std::string& errors, const std::string& what) const;
  void RemoveSystemVObjects() const;

  std::string root_;
  pid_t pid_ = -1;
  int runs_ = 0;  // numbered output files of Start and Run
  std::string outPath_;
  std::string errPath_;
  std::vector<std::string> errPaths_;  // every process's standard error, scanned at the end
  std::vector<std::string> launcher_;  // in front of the daemon's path; empty: none
  std::string view_;                   // in front of the root when reading files
  int pipeFd_ = -1;  // reading end of StartPiped's pipe; -1 when none or once it ended
};

// Whether `lines` holds `line`, and how often.
int Count(const std::vector<std::string>& lines, const std::string& line);
// This card's host name, as the daemon prints it in its lines.
std::string ThisHostName();
// A raw add-log record from PID 99 with the fixed time 1700000000.000042
// (2023-11-14T22:13:20.000042 in UTC, the daemon's zone).
kestrin::tKesAddLogMessage MakeAddLogRecord(uint32_t handle, uint16_t destination,
                                            uint32_t severity, int32_t eventId,
                                            const std::string& text);
// Sends `message` as the client library does: the record up to its text's
// terminating NUL, and 4 zero bytes.
void SendAddLogRecord(const KestrinServer& server, const kestrin::tKesAddLogMessage& message);
// The lines of kv/log/faultrecords.jsonl, each parsed with a strict JSON
// parser; a line that does not parse is a test failure and is left out. A
// last line without its line end (still being written) is not looked at.
std::vector<flt_test::JsonObject> FaultRecords(const KestrinServer& server);

// Every entry under `server`'s root but the log directory (kv/log) and the
// harness's own output files, by relative path: its kind and content (a
// link's target), so that comparing two of them shows any change outside
// the log directory.
std::map<std::string, std::string> EntriesOutsideLogDirectory(const KestrinServer& server);

// Polls `done` every 20 ms until it holds (true) or `timeoutMs` has passed
// (false).
bool WaitUntil(const std::function<bool()>& done, int timeoutMs = 10000);

// An LED device of a server's root (R/dev/led<number>) replaced by a FIFO
// whose reading end this object holds open, non-blocking, for its whole
// life: the daemon opens the device for writing once per byte, and an open
// for writing of a FIFO blocks until a reader exists. Create it before the
// daemon starts and let it outlive the daemon (declare it after the server).
class LedFifo {
 public:
  LedFifo(const KestrinServer& server, int number);
  ~LedFifo();
  LedFifo(const LedFifo&) = delete;
  LedFifo& operator=(const LedFifo&) = delete;

  bool Open() const { return fd_ >= 0; }
  // Every byte written so far, once at least `count` have arrived or after
  // `timeoutMs`; the bytes stay available to later calls.
  std::string WaitForBytes(size_t count, int timeoutMs = 10000);
  // The bytes written so far, without waiting.
  std::string Bytes();

 private:
  void ReadAvailable();

  std::string path_;
  int fd_ = -1;
  std::string bytes_;
};
// The System V key of this root's key file with `projectId`; -1 when missing.
int KeyOf(char projectId);

}  // namespace kestrin_e2e

#endif  // KESTRIN_TESTS_E2E_KESTRIN_SERVER_H_
