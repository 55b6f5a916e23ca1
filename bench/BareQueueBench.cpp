// The ceiling for the daemon's throughput on this machine: one client process
// sends M records of the add-log size (245 bytes of queue text, of which 200
// are the message) to a private System V queue, and one receiver takes them
// off and writes each message as a line into a file, with nothing else in
// between: no validation, no look-up, no formatting beyond "%s\n".
//
// Both sides behave as the daemon and its client library do: the client
// sends without waiting and, when the queue is full, waits 50 us and sends
// the same record again; the receiver first receives without waiting and
// waits only when the queue is empty, and sleeps 1 ms after every 1000
// records (the pacing MessagesBeforeSleep 1000, SleepTime 1). The queue's
// byte limit is 4 MiB, so run it where that is allowed:
//
//   unshare --ipc sh -c 'echo 4194304 > /proc/sys/kernel/msgmnb; bare_queue_bench'
//
// Printed: messages per second (until the last record is written and the
// file flushed), CPU seconds per million messages (receiver, client, both)
// and how often the client found the queue full.
//
// Usage: bare_queue_bench [messages] [repetitions]   (default 2000000, 3)
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kestrin/Records.h"
#include "osa/osa.h"

namespace {

constexpr int MESSAGE_LENGTH = 200;
constexpr unsigned long QUEUE_BYTE_LIMIT = 4194304;
constexpr useconds_t QUEUE_FULL_PAUSE_US = 50;
constexpr long MESSAGES_BEFORE_SLEEP = 1000;
constexpr unsigned long SLEEP_TIME_MS = 1;

using kestrin::tKesLoggerMessage;

constexpr size_t TEXT_OFFSET = offsetof(kestrin::tKesAddLogMessage, text);
constexpr size_t QUEUE_TEXT = kestrin::KesQueueSendLength(TEXT_OFFSET + MESSAGE_LENGTH + 1);

struct Result {
  double seconds = 0;
  double receiverCpu = 0;
  double clientCpu = 0;
  long queueFull = 0;
  long received = 0;
};

double CpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The client: `count` records, each repeated while the queue is full.
// Reports the number of full-queue refusals on `reportFd`.
[[noreturn]] void RunClient(int queueId, long count, int reportFd) {
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  message.mtype = 1;
  memset(message.addLog.text, 'a', MESSAGE_LENGTH);
  long queueFull = 0;
  for (long i = 0; i < count; ++i) {
    message.addLog.eventId = static_cast<int32_t>(i);
    while (osSysVQueueSend(queueId, &message, QUEUE_TEXT, 1) == OS_ERROR_WOULD_BLOCK) {
      ++queueFull;
      usleep(QUEUE_FULL_PAUSE_US);
    }
  }
  dprintf(reportFd, "%ld\n", queueFull);
  _exit(0);
}

// The receiver: takes `count` records off the queue and writes each message
// as a line into `file`.
long Receive(int queueId, long count, FILE* file) {
  static tKesLoggerMessage message;
  long received = 0;
  while (received < count) {
    long size = 0;
    int result = osSysVQueueReceive(queueId, &message, kestrin::KES_MAX_QUEUE_TEXT, 1, &size);
    if (result == OS_ERROR_WOULD_BLOCK) {
      result = osSysVQueueReceive(queueId, &message, kestrin::KES_MAX_QUEUE_TEXT, 0, &size);
    }
    if (result != OS_OK) continue;
    fprintf(file, "%s\n", message.addLog.text);
    if (++received % MESSAGES_BEFORE_SLEEP == 0) osSleep(SLEEP_TIME_MS);
  }
  fflush(file);
  return received;
}

Result RunOnce(long count) {
  Result result;
  int queueId = -1;
  if (osSysVQueueOpen(0 /* private key */, 1, &queueId) != OS_OK) return result;
  if (osSysVQueueSetByteLimit(queueId, QUEUE_BYTE_LIMIT) != OS_OK) {
    fprintf(stderr, "cannot set the queue limit to %lu bytes (run under unshare --ipc)\n",
            QUEUE_BYTE_LIMIT);
  }
  char path[] = "/tmp/kestrin_bare_bench_XXXXXX";
  int fd = mkstemp(path);
  FILE* file = fd < 0 ? nullptr : fdopen(fd, "w");
  if (file == nullptr) {
    osSysVQueueRemove(queueId);
    return result;
  }
  int report[2];
  if (pipe(report) != 0) return result;
  const double receiverBefore = CpuSeconds(RUSAGE_SELF);
  const double clientBefore = CpuSeconds(RUSAGE_CHILDREN);
  const auto start = std::chrono::steady_clock::now();
  pid_t client = fork();
  if (client == 0) RunClient(queueId, count, report[1]);
  close(report[1]);
  result.received = Receive(queueId, count, file);
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.receiverCpu = CpuSeconds(RUSAGE_SELF) - receiverBefore;
  waitpid(client, nullptr, 0);
  result.clientCpu = CpuSeconds(RUSAGE_CHILDREN) - clientBefore;
  FILE* reports = fdopen(report[0], "r");
  if (reports != nullptr) {
    if (fscanf(reports, "%ld", &result.queueFull) != 1) result.queueFull = -1;
    fclose(reports);
  }
  fclose(file);
  unlink(path);
  osSysVQueueRemove(queueId);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const long count = argc > 1 ? atol(argv[1]) : 2000000;
  const int repetitions = argc > 2 ? atoi(argv[2]) : 3;
  printf(
      "bare queue-to-file loop: %d-character messages (%zu bytes of queue text), %ld per run,\n"
      "receiver sleeps %lu ms after every %ld records\n",
      MESSAGE_LENGTH, QUEUE_TEXT, count, SLEEP_TIME_MS, MESSAGES_BEFORE_SLEEP);
  printf("%4s %9s %12s %16s %14s %14s %10s\n", "run", "seconds", "msgs/s", "receiver CPU s/M",
         "client CPU s/M", "total CPU s/M", "queue full");
  std::vector<double> rates;
  for (int run = 1; run <= repetitions; ++run) {
    Result r = RunOnce(count);
    if (r.received != count || r.seconds <= 0) {
      printf("%4d  run failed\n", run);
      continue;
    }
    const double million = static_cast<double>(count) / 1e6;
    rates.push_back(static_cast<double>(count) / r.seconds);
    printf("%4d %9.2f %12.0f %16.2f %14.2f %14.2f %10ld\n", run, r.seconds, rates.back(),
           r.receiverCpu / million, r.clientCpu / million, (r.receiverCpu + r.clientCpu) / million,
           r.queueFull);
  }
  if (!rates.empty()) {
    std::sort(rates.begin(), rates.end());
    printf("median %.0f msgs/s\n", rates[rates.size() / 2]);
  }
  return 0;
}
