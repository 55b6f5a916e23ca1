#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "osa/osa.h"
#include "qrt/QrtDiag.h"
#include "qrt/QrtFakeDaemon.h"

namespace {

using qrt_test::FakeDaemon;
using qrt_test::PrivateRoot;

int register_names(const char* inLog, const char* file) {
  int handle = -1;
  int result = QrtDiagRegisterModule("module", inLog, 0, file, &handle);
  return result == QRT_OK ? handle : -1000 - result;
}

int semaphore_value(const FakeDaemon& daemon) {
  int value = -1;
  osSysVSemaphoreGetValue(daemon.SemaphoreId(), &value);
  return value;
}

TEST(QrtRegister, SegmentNamesAreExported) {
  EXPECT_STREQ("KesRegTable", KesRegTableSharedMemoryName);
  EXPECT_STREQ("KesFilters", KesSharedMemoryName);
}

TEST(QrtRegister, FirstRegistrationFillsSlotOne) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("Radio", "RadioCtl", 0, "radio.log", &handle));
  EXPECT_EQ(1, handle);
  const tKesRegTableEntry& slot = daemon.Table()[1];
  EXPECT_EQ(34, slot.version);
  EXPECT_EQ(0, slot.state);
  EXPECT_EQ(1u, slot.handle);
  EXPECT_STREQ("Radio", slot.moduleName);
  EXPECT_STREQ("RadioCtl", slot.moduleNameInLog);
  EXPECT_STREQ("radio.log", slot.logFileName);
  // The signature belongs to the daemon's table check and stays.
  EXPECT_STREQ("not_used", slot.signature);
  // Nothing else changed: slot 2 is still free.
  EXPECT_EQ(2, daemon.Table()[2].state);
  EXPECT_EQ(1, semaphore_value(daemon));
}

TEST(QrtRegister, SameNamesGiveSameHandle) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int first = -1;
  int second = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("A", "Shown", 0, "shared.log", &first));
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("A", "Shown", 0, "shared.log", &second));
  EXPECT_EQ(first, second);
  // The first module name plays no part in the match.
  int third = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("OtherModule", "Shown", 0, "shared.log", &third));
  EXPECT_EQ(first, third);
  EXPECT_STREQ("A", daemon.Table()[first].moduleName);
  EXPECT_EQ(2, daemon.Table()[2].state);
}

TEST(QrtRegister, DifferentNameInLogOrFileGivesNewHandle) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  EXPECT_EQ(1, register_names("Shown", "a.log"));
  EXPECT_EQ(2, register_names("Shown", "b.log"));
  EXPECT_EQ(3, register_names("Other", "a.log"));
  EXPECT_EQ(1, register_names("Shown", "a.log"));
}

TEST(QrtRegister, ReusesSlotRegisteredByAnotherProcess) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  daemon.Register(5, "Elsewhere", "elsewhere.log");
  EXPECT_EQ(5, register_names("Elsewhere", "elsewhere.log"));
  EXPECT_EQ(1, register_names("New", "new.log"));
}

TEST(QrtRegister, DaemonsDefaultSlotZeroMatchesItsNames) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  EXPECT_EQ(0, register_names("NoNameSupplied", "QrtInternal.log"));
  EXPECT_EQ(2, daemon.Table()[1].state);
}

TEST(QrtRegister, TakesFirstUnregisteredSlotFromOne) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  daemon.Register(1, "One", "one.log");
  daemon.Register(2, "Two", "two.log");
  daemon.Register(4, "Four", "four.log");
  EXPECT_EQ(3, register_names("Three", "three.log"));
  // Any state other than 0 counts as unregistered, not only the fresh 2.
  daemon.Table()[5].state = 7;
  EXPECT_EQ(5, register_names("Five", "five.log"));
  EXPECT_EQ(0, daemon.Table()[5].state);
  EXPECT_EQ(5u, daemon.Table()[5].handle);
}

TEST(QrtRegister, FullTableIsAnError) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  for (int slot = 1; slot < KES_REG_TABLE_SLOTS; ++slot) {
    std::string name = "m" + std::to_string(slot);
    ASSERT_EQ(slot, register_names(name.c_str(), "f.log"));
  }
  int handle = 12345;
  EXPECT_EQ(QRT_ERROR_TABLE_FULL, QrtDiagRegisterModule("x", "x", 0, "x.log", &handle));
  EXPECT_EQ(12345, handle);
  EXPECT_EQ(1, semaphore_value(daemon));
  // Names already registered are still found.
  EXPECT_EQ(200, register_names("m200", "f.log"));
}

TEST(QrtRegister, LongNamesAreCutToTheirFieldsAndStillMatch) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  std::string module(300, 'M');
  std::string inLog(200, 'n');
  std::string file(600, 'f');
  int handle = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule(module.c_str(), inLog.c_str(), 0, file.c_str(), &handle));
  const tKesRegTableEntry& slot = daemon.Table()[handle];
  EXPECT_EQ(std::string(127, 'M'), slot.moduleName);
  EXPECT_EQ(std::string(127, 'n'), slot.moduleNameInLog);
  EXPECT_EQ(std::string(511, 'f'), slot.logFileName);
  EXPECT_STREQ("not_used", slot.signature);
  int again = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule(module.c_str(), inLog.c_str(), 0, file.c_str(), &again));
  EXPECT_EQ(handle, again);
}

TEST(QrtRegister, WaitsForTheSemaphore) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  // Another process holds the table.
  ASSERT_EQ(OS_OK, osSysVSemaphoreSetValue(daemon.SemaphoreId(), 0));
  auto registration = std::async(std::launch::async, [] { return register_names("W", "w.log"); });
  EXPECT_EQ(std::future_status::timeout, registration.wait_for(std::chrono::milliseconds(200)));
  EXPECT_EQ(2, daemon.Table()[1].state);
  ASSERT_EQ(OS_OK, osSysVSemaphoreAdd(daemon.SemaphoreId(), 1));
  EXPECT_EQ(1, registration.get());
  EXPECT_EQ(1, semaphore_value(daemon));
}

TEST(QrtRegister, MissingDaemonIsAnErrorQuicklyAndCreatesNothing) {
  PrivateRoot root(false);
  auto start = std::chrono::steady_clock::now();
  int handle = 77;
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, QrtDiagRegisterModule("m", "m", 0, "m.log", &handle));
  EXPECT_EQ(77, handle);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  void* address = nullptr;
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND,
            osAttachSharedMemory("KesRegTable", KES_REG_TABLE_SIZE, &address) & 0xffff);
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND,
            osAttachSharedMemory("KesFilters", KES_FILTER_SEGMENT_SIZE, &address) & 0xffff);
}

TEST(QrtRegister, KeyFileWithoutDaemonIsNoDaemon) {
  PrivateRoot root(true);
  int handle = -1;
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, QrtDiagRegisterModule("m", "m", 0, "m.log", &handle));
  int id = -1;
  EXPECT_NE(OS_OK, osSysVSemaphoreOpen(root.Key(KES_SEMAPHORE_PROJECT_ID), 0, &id));
}

TEST(QrtRegister, MissingSemaphoreIsNoDaemon) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  ASSERT_EQ(OS_OK, osSysVSemaphoreRemove(daemon.SemaphoreId()));
  int handle = -1;
  EXPECT_EQ(QRT_ERROR_NO_DAEMON, QrtDiagRegisterModule("m", "m", 0, "m.log", &handle));
  EXPECT_EQ(2, daemon.Table()[1].state);
}

TEST(QrtRegister, InvalidParameters) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  int handle = -1;
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagRegisterModule(nullptr, "m", 0, "m.log", &handle));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagRegisterModule("m", nullptr, 0, "m.log", &handle));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagRegisterModule("m", "m", 0, nullptr, &handle));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagRegisterModule("m", "m", 0, "", &handle));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagRegisterModule("m", "m", 0, "m.log", nullptr));
  EXPECT_EQ(2, daemon.Table()[1].state);
}

constexpr int CONCURRENT_NAMES = 20;
constexpr int CONCURRENT_THREADS = 8;

// Registers every name, starting at a different one per caller; returns the
// handles by name index (negative on failure).
std::vector<int> register_all(int offset) {
  std::vector<int> handles(CONCURRENT_NAMES, -1);
  for (int i = 0; i < CONCURRENT_NAMES; ++i) {
    int index = (i + offset) % CONCURRENT_NAMES;
    std::string name = "concurrent" + std::to_string(index);
    handles[index] = register_names(name.c_str(), "concurrent.log");
  }
  return handles;
}

void expect_consistent(const std::vector<std::vector<int>>& results) {
  std::map<int, int> nameOfHandle;
  for (int index = 0; index < CONCURRENT_NAMES; ++index) {
    int handle = results[0][index];
    EXPECT_GE(handle, 1);
    EXPECT_LE(handle, CONCURRENT_NAMES);
    for (const std::vector<int>& result : results) EXPECT_EQ(handle, result[index]);
    EXPECT_TRUE(nameOfHandle.emplace(handle, index).second) << "handle " << handle << " twice";
  }
}

TEST(QrtRegister, ConcurrentThreadsGetConsistentHandles) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  std::vector<std::future<std::vector<int>>> futures;
  for (int t = 0; t < CONCURRENT_THREADS; ++t) {
    futures.push_back(std::async(std::launch::async, register_all, t * 3));
  }
  std::vector<std::vector<int>> results;
  for (auto& future : futures) results.push_back(future.get());
  expect_consistent(results);
  EXPECT_EQ(2, daemon.Table()[CONCURRENT_NAMES + 1].state);
  EXPECT_EQ(1, semaphore_value(daemon));
}

TEST(QrtRegister, ConcurrentProcessesGetConsistentHandles) {
  FakeDaemon daemon;
  ASSERT_TRUE(daemon.Ok());
  constexpr int PROCESSES = 3;
  int fds[PROCESSES][2];
  pid_t children[PROCESSES];
  for (int p = 0; p < PROCESSES; ++p) {
    ASSERT_EQ(0, pipe(fds[p]));
    children[p] = fork();
    ASSERT_GE(children[p], 0);
    if (children[p] == 0) {
      std::vector<int> handles = register_all(p * 7);
      ssize_t ignored = write(fds[p][1], handles.data(), handles.size() * sizeof(int));
      (void)ignored;
      _exit(0);
    }
    close(fds[p][1]);
  }
  std::vector<std::vector<int>> results;
  for (int p = 0; p < PROCESSES; ++p) {
    std::vector<int> handles(CONCURRENT_NAMES, -1);
    size_t want = handles.size() * sizeof(int);
    size_t got = 0;
    while (got < want) {
      ssize_t n = read(fds[p][0], reinterpret_cast<char*>(handles.data()) + got, want - got);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    close(fds[p][0]);
    int status = 0;
    waitpid(children[p], &status, 0);
    EXPECT_EQ(want, got);
    results.push_back(handles);
  }
  expect_consistent(results);
}

}  // namespace
