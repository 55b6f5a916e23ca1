// Helpers shared by the chassis tests: real Master and Agent daemons (each a
// KestrinServer under its own root), the command-line client run under a
// chosen root, raw add-log records with a fixed time, and the exact system
// log line the Master writes for them.
#ifndef KESTRIN_TESTS_E2E_CHASSIS_SUPPORT_H_
#define KESTRIN_TESTS_E2E_CHASSIS_SUPPORT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "KestrinServer.h"
#include "kestrin/Records.h"

namespace kestrin_e2e {

using Texts = std::vector<std::string>;

constexpr uint32_t LOOPBACK = 0x7f000001;
// The time every raw record carries: 2023-11-14T22:13:20.000042 in UTC.
constexpr int32_t FIXED_SECONDS = 1700000000;

// Kestrin.conf of a chassis daemon: the role, quiet pacing, and an own log
// that admits debug lines (so accepted and closed sockets show in it).
std::string ChassisConfiguration(const std::string& role);

// A loopback port nobody listens on now: bound to port 0, then released.
uint16_t FreePort();
// Whether something accepts connections on 127.0.0.1:port.
bool Listening(uint16_t port);

// Points this process at `server`'s root (queue keys, client library).
void UseRoot(const KestrinServer& server);

// Runs `argv` (argv[0] an absolute path) to its end, at most `timeoutMs`;
// its standard output and error go to `output` when given. Returns the exit
// status, or -1 when it had to be killed or could not be started.
int RunCommand(const std::vector<std::string>& argv, int timeoutMs, std::string* output = nullptr);

// Runs build/bin/kestrin-log under `root` to its end (at most 10 s); returns
// its standard output, or "<failed>".
std::string RunKestrinLog(const std::string& root, const std::vector<std::string>& arguments);

// Registers module "app<i>" ("App<i>" in logs, file "agent<i>.log") on the
// daemon under `root` with kestrin-log; returns its handle there.
uint32_t RegisterModule(const std::string& root, int i);

// A raw add-log record for the system log and the module's file, severity
// information, PID 99, the fixed time.
kestrin::tKesAddLogMessage Record(uint32_t handle, int32_t eventId, const std::string& text);
// Puts `message` on `server`'s queue as the client library does.
void Send(const KestrinServer& server, const kestrin::tKesAddLogMessage& message);

// The line the Master writes into system.log for Record(..., eventId, text)
// of a module shown as `nameInLog`.
std::string SystemLine(const std::string& nameInLog, int eventId, const std::string& text);

int CountStartingWith(const Texts& texts, const std::string& start);
int CountEndingWith(const Texts& texts, const std::string& end);

}  // namespace kestrin_e2e

#endif  // KESTRIN_TESTS_E2E_CHASSIS_SUPPORT_H_
