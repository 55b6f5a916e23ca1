#include <gtest/gtest.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

// What a test task reports back to the test.
struct TaskProbe {
  std::atomic<bool> done{false};
  unsigned long taskId = 0;
  void* argument = nullptr;
  size_t stackSize = 0;
  char name[16] = {0};
};

void probe_entry(void* raw) {
  auto* probe = static_cast<TaskProbe*>(raw);
  osGetTaskId(&probe->taskId);
  probe->argument = raw;
  pthread_attr_t attributes;
  if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
    pthread_attr_getstacksize(&attributes, &probe->stackSize);
    pthread_attr_destroy(&attributes);
  }
  pthread_getname_np(pthread_self(), probe->name, sizeof probe->name);
  probe->done = true;
}

// Uses 128 KiB of stack: more than a tiny requested stack would hold.
void deep_stack_entry(void* raw) {
  volatile char block[128 * 1024];
  for (size_t i = 0; i < sizeof block; i += 512) block[i] = static_cast<char>(i);
  static_cast<std::atomic<bool>*>(raw)->store(block[512] == static_cast<char>(512));
}

bool wait_for(const std::atomic<bool>& flag) {
  for (int i = 0; i < 5000 && !flag; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return flag;
}

TEST(OsaCreateTask, RunsEntryAndReportsItsTaskId) {
  TaskProbe probe;
  unsigned long reported = 0;
  ASSERT_EQ(OS_OK, osCreateTask("probe", 0, 0, probe_entry, &probe, &reported));
  ASSERT_TRUE(wait_for(probe.done));
  EXPECT_EQ(&probe, probe.argument);
  EXPECT_EQ(reported, probe.taskId);
  unsigned long mine = 0;
  osGetTaskId(&mine);
  EXPECT_NE(mine, reported);
  EXPECT_NE(0u, reported);
}

TEST(OsaCreateTask, NullTaskIdIsAllowed) {
  TaskProbe probe;
  ASSERT_EQ(OS_OK, osCreateTask(nullptr, 5, 0, probe_entry, &probe, nullptr));
  ASSERT_TRUE(wait_for(probe.done));
}

TEST(OsaCreateTask, NamesTheThreadCutTo15Characters) {
  TaskProbe probe;
  ASSERT_EQ(OS_OK, osCreateTask("KestrinTimerTickThread", 0, 0, probe_entry, &probe, nullptr));
  ASSERT_TRUE(wait_for(probe.done));
  EXPECT_STREQ("KestrinTimerTic", probe.name);
}

TEST(OsaCreateTask, TinyStackIsRaisedToASafeSize) {
  TaskProbe probe;
  ASSERT_EQ(OS_OK, osCreateTask("tiny", 0, 1024, probe_entry, &probe, nullptr));
  ASSERT_TRUE(wait_for(probe.done));
  EXPECT_GE(probe.stackSize, 256u * 1024u);
  std::atomic<bool> deepDone{false};
  ASSERT_EQ(OS_OK, osCreateTask("deep", 0, 1024, deep_stack_entry, &deepDone, nullptr));
  EXPECT_TRUE(wait_for(deepDone));
}

TEST(OsaCreateTask, LargeStackIsHonoured) {
  TaskProbe probe;
  ASSERT_EQ(OS_OK, osCreateTask("large", 0, 4 * 1024 * 1024, probe_entry, &probe, nullptr));
  ASSERT_TRUE(wait_for(probe.done));
  EXPECT_GE(probe.stackSize, 4u * 1024u * 1024u);
}

TEST(OsaCreateTask, NullEntryIsInvalid) {
  unsigned long id = 77;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osCreateTask("x", 0, 0, nullptr, nullptr, &id));
  EXPECT_EQ(77u, id);
}

TEST(OsaLowerTaskPriority, LowersOnlyTheCallingThread) {
  const int mainBefore = getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
  int lowered = -100;
  std::thread worker([&] {
    ASSERT_EQ(OS_OK, osLowerTaskPriority());
    errno = 0;
    lowered = getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
  });
  worker.join();
  EXPECT_EQ(19, lowered);
  EXPECT_EQ(mainBefore, getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid))));
}

TEST(OsaGetTaskId, MainThreadIdIsTheProcessId) {
  // gtest runs tests on the main thread.
  unsigned long id = 0;
  ASSERT_EQ(OS_OK, osGetTaskId(&id));
  EXPECT_EQ(static_cast<unsigned long>(getpid()), id);
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetTaskId(nullptr));
}

TEST(OsaGetTaskId, StableWithinAThread) {
  unsigned long first = 0, second = 0;
  osGetTaskId(&first);
  osGetTaskId(&second);
  EXPECT_EQ(first, second);
}

TEST(OsaClock, MeasuresASleep) {
  unsigned long before = osGetClock();
  ASSERT_EQ(OS_OK, osSleep(60));
  unsigned long elapsed = osGetClock() - before;
  EXPECT_GE(elapsed, 60u);
  EXPECT_LT(elapsed, 5000u);
}

TEST(OsaClock, FollowsTheMonotonicClock) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  unsigned long expected = static_cast<unsigned long>(now.tv_sec) * 1000UL +
                           static_cast<unsigned long>(now.tv_nsec / 1000000L);
  unsigned long clock = osGetClock();
  EXPECT_GE(clock, expected);
  EXPECT_LT(clock - expected, 1000u);
}

TEST(OsaSleep, ZeroReturnsAtOnce) {
  unsigned long before = osGetClock();
  EXPECT_EQ(OS_OK, osSleep(0));
  EXPECT_LT(osGetClock() - before, 1000u);
}

std::atomic<int> g_signals{0};
void count_signal(int) { g_signals++; }

TEST(OsaSleep, ResumesAfterASignalUntilTheTimeHasPassed) {
  struct sigaction action, old;
  memset(&action, 0, sizeof action);
  action.sa_handler = count_signal;  // no SA_RESTART: the signal interrupts nanosleep
  sigaction(SIGUSR1, &action, &old);
  g_signals = 0;
  pthread_t sleeper = pthread_self();
  std::thread interrupter([sleeper] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    pthread_kill(sleeper, SIGUSR1);
  });
  unsigned long before = osGetClock();
  EXPECT_EQ(OS_OK, osSleep(200));
  unsigned long elapsed = osGetClock() - before;
  interrupter.join();
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_EQ(1, g_signals.load());
  EXPECT_GE(elapsed, 200u);
  EXPECT_LT(elapsed, 5000u);
}

unsigned long g_sleptFor = 0;
int injected_sleep(unsigned long milliseconds) {
  g_sleptFor = milliseconds;
  return OS_ERROR_GENERAL;
}
int real_sleep(unsigned long milliseconds) {
  g_sleptFor = milliseconds;
  return OSA_CALL_REAL;
}
unsigned long fixed_clock() { return 123456789UL; }

TEST(OsaOverrides, SleepOverrideGivesTheInjectedResult) {
  tOsaOverrides overrides{};
  overrides.sleep = injected_sleep;
  osSetOverrides(&overrides);
  unsigned long before = osGetClock();
  int rc = osSleep(10000);
  osSetOverrides(nullptr);
  EXPECT_EQ(OS_ERROR_GENERAL, rc);
  EXPECT_EQ(10000u, g_sleptFor);
  EXPECT_LT(osGetClock() - before, 1000u);
}

TEST(OsaOverrides, CallRealSleepsForReal) {
  tOsaOverrides overrides{};
  overrides.sleep = real_sleep;
  osSetOverrides(&overrides);
  unsigned long before = osGetClock();
  int rc = osSleep(40);
  osSetOverrides(nullptr);
  EXPECT_EQ(OS_OK, rc);
  EXPECT_EQ(40u, g_sleptFor);
  EXPECT_GE(osGetClock() - before, 40u);
}

TEST(OsaOverrides, ClockOverrideReplacesTheClockUntilRemoved) {
  tOsaOverrides overrides{};
  overrides.clock = fixed_clock;
  osSetOverrides(&overrides);
  EXPECT_EQ(123456789UL, osGetClock());
  osSetOverrides(nullptr);
  EXPECT_NE(123456789UL, osGetClock());
}

TEST(OsaOverrides, NullMembersLeaveTheRealCalls) {
  tOsaOverrides overrides{};
  osSetOverrides(&overrides);
  unsigned long before = osGetClock();
  EXPECT_EQ(OS_OK, osSleep(20));
  EXPECT_GE(osGetClock() - before, 20u);
  osSetOverrides(nullptr);
}

TEST(OsaOverrides, InstallingWhileThreadsReadIsSafe) {
  std::atomic<bool> stop{false};
  std::atomic<long> reads{0};
  std::thread reader([&] {
    while (!stop) {
      osGetClock();
      reads++;
    }
  });
  tOsaOverrides overrides{};
  overrides.clock = fixed_clock;
  // Keep switching until the reader has gone through many calls meanwhile.
  for (int i = 0; reads < 1000 && i < 50000000; ++i) {
    osSetOverrides(i % 2 ? &overrides : nullptr);
  }
  osSetOverrides(nullptr);
  stop = true;
  reader.join();
  EXPECT_GE(reads.load(), 1000);
}

}  // namespace

namespace {

// Sets the time-scale variable for one test and makes the layer read it
// again; restores the real time scale at the end.
class ScopedTimeScale {
 public:
  explicit ScopedTimeScale(const char* value) {
    if (value == nullptr) {
      unsetenv(OS_TEST_TIME_SCALE_VARIABLE);
    } else {
      setenv(OS_TEST_TIME_SCALE_VARIABLE, value, 1);
    }
    osa_internal::forget_test_time_scale();
  }
  ~ScopedTimeScale() {
    unsetenv(OS_TEST_TIME_SCALE_VARIABLE);
    osa_internal::forget_test_time_scale();
  }
};

}  // namespace

TEST(OsaTestTimeScale, UnsetLeavesTimeAsItIs) {
  ScopedTimeScale scale(nullptr);
  EXPECT_EQ(1UL, osGetTestTimeScale());
}

TEST(OsaTestTimeScale, OutOfRangeOrMalformedValuesAreIgnored) {
  for (const char* value : {"1", "0", "1001", "abc", "10x", ""}) {
    ScopedTimeScale scale(value);
    EXPECT_EQ(1UL, osGetTestTimeScale()) << value;
  }
}

TEST(OsaTestTimeScale, SleepsAreShortenedAndTheClockRunsFaster) {
  ScopedTimeScale scale("100");
  EXPECT_EQ(100UL, osGetTestTimeScale());
  const auto realStart = std::chrono::steady_clock::now();
  const unsigned long start = osGetClock();
  ASSERT_EQ(OS_OK, osSleep(5000));
  const unsigned long elapsed = osGetClock() - start;
  const auto realElapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now() - realStart)
                               .count();
  // 5000 ms of scaled time pass in about 50 real milliseconds.
  EXPECT_GE(elapsed, 5000UL);
  EXPECT_LT(elapsed, 60000UL);
  EXPECT_GE(realElapsed, 50);
  EXPECT_LT(realElapsed, 1000);
}
