#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "kestrin/OwnLogTestSupport.h"
#include "kestrin/RecordValidation.h"
#include "kestrin/RegTable.h"

// Segment and semaphore failures cannot be provoked through the real calls
// without touching the machine's /dev/shm or its IPC limits, so this program
// is linked with those calls wrapped: a test names the call (or, for
// osShareMemory, the segment) to fail and the error value to fail with.
extern "C" {
int __real_osShareMemory(const char* name, size_t size, void** address);
int __real_osSysVSemaphoreOpen(int key, int create, int* semaphoreId);
int __real_osSysVSemaphoreSetValue(int semaphoreId, int value);
}

namespace {
const char* s_failingSegment = nullptr;
const char* s_failingCall = "";
int s_injectedFailure = 0;

bool Fails(const char* call) { return strcmp(s_failingCall, call) == 0; }
}  // namespace

extern "C" {
int __wrap_osShareMemory(const char* name, size_t size, void** address) {
  if (s_failingSegment != nullptr && strcmp(name, s_failingSegment) == 0) {
    return s_injectedFailure;
  }
  return __real_osShareMemory(name, size, address);
}

int __wrap_osSysVSemaphoreOpen(int key, int create, int* semaphoreId) {
  if (Fails("semget")) return s_injectedFailure;
  return __real_osSysVSemaphoreOpen(key, create, semaphoreId);
}

int __wrap_osSysVSemaphoreSetValue(int semaphoreId, int value) {
  if (Fails("semctl")) return s_injectedFailure;
  return __real_osSysVSemaphoreSetValue(semaphoreId, value);
}
}

namespace kestrin {
namespace {

using Lines = std::vector<std::string>;
using SyslogLines = std::vector<std::pair<int, std::string>>;

SyslogLines s_syslog;

int CaptureSyslog(int priority, const char* text) {
  s_syslog.emplace_back(priority, text);
  return 0;  // keep test lines out of the machine's system log
}

const char START_LINE[] = "***************START of registration table dump***************";
const char END_LINE[] = "****************END of registration table dump****************";

// A client's view of a segment: a second mapping of the same named segment.
template <typename Layout>
Layout* AttachAsClient(const char* name, size_t size) {
  void* address = nullptr;
  EXPECT_EQ(OS_OK, osShareMemory(name, size, &address));
  return static_cast<Layout*>(address);
}

tKesRegTableEntry* ClientTable() {
  return AttachAsClient<tKesRegTableEntry>(KES_REG_TABLE_SEGMENT_NAME, KES_REG_TABLE_SIZE);
}

tKesFilterSegment* ClientFilters() {
  return AttachAsClient<tKesFilterSegment>(KES_FILTER_SEGMENT_NAME, KES_FILTER_SEGMENT_SIZE);
}

void RegisterClient(tKesRegTableEntry* table, int slot, const char* module, const char* inLog,
                    const char* file) {
  tKesRegTableEntry& entry = table[slot];
  entry.version = KES_INTERFACE_VERSION;
  entry.state = KES_SLOT_STATE_REGISTERED;
  entry.handle = static_cast<uint32_t>(slot);
  strcpy(entry.moduleName, module);
  strcpy(entry.moduleNameInLog, inLog);
  strcpy(entry.logFileName, file);
}

// Writes a table as an earlier daemon left it: every slot signed.
void SignEverySlot(tKesRegTableEntry* table) {
  for (int slot = 0; slot < KES_REG_TABLE_SLOTS; ++slot) {
    table[slot].version = KES_INTERFACE_VERSION;
    table[slot].state = KES_SLOT_STATE_FREE;
    strcpy(table[slot].signature, KES_SLOT_SIGNATURE);
  }
}

std::string KeyFile() {
  return PrivateRootEnvironment::Root() + "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH";
}

class RegTable : public OwnLogTest {
 protected:
  void SetUp() override {
    OwnLogTest::SetUp();
    ResetProcessState();
    osUnshareMemory(KES_REG_TABLE_SEGMENT_NAME);
    osUnshareMemory(KES_FILTER_SEGMENT_NAME);
    s_syslog.clear();
  }

  void TearDown() override {
    osSetOverrides(nullptr);
    s_failingSegment = nullptr;
    s_failingCall = "";
    if (ipcSemaphore != -1) {
      EXPECT_EQ(OS_OK, osSysVSemaphoreRemove(ipcSemaphore));
    }
    ResetProcessState();
    osUnshareMemory(KES_REG_TABLE_SEGMENT_NAME);
    osUnshareMemory(KES_FILTER_SEGMENT_NAME);
    LogFile::SeverityFilter::SetDefault(DetailedSeverity::DEBUG_LEVEL);
    OwnLogTest::TearDown();
  }

  // What a restarted daemon starts from: nothing attached, no semaphore,
  // no per-handle files.
  static void ResetProcessState() {
    sharedRegistrationTable = nullptr;
    mySegment = nullptr;
    ipcSemaphore = -1;
    for (LogFilePtr& file : logFileArray) file = LogFilePtr();
  }

  static LogFilePtr FileAtLevel(const char* name, DetailedSeverity::SeverityLevel level) {
    LogFilePtr file(new LogFile(name));
    file->severityFilter.Set(level);
    return file;
  }

  // The platform layer keeps the table's address, so it must outlive the
  // test; TearDown removes it.
  static void CaptureSyslogLines() {
    static tOsaOverrides overrides{};
    overrides.syslog = CaptureSyslog;
    osSetOverrides(&overrides);
  }

  static int SemaphoreValue() {
    int value = -1;
    EXPECT_EQ(OS_OK, osSysVSemaphoreGetValue(ipcSemaphore, &value));
    return value;
  }
};

// ---- Attaching and initialising the table ----------------------------------

TEST_F(RegTable, FreshZeroTableIsDetectedNewAtSlot0AndInitialized) {
  OwnLogCapture log;
  ASSERT_TRUE(InitializeSharedMemory());
  EXPECT_EQ(
      (Lines{"Created shared memory segment KesRegTable",
             "Found evidence that shared memory is new, slot 0",
             "Initializing the shared registration table",
             "Initializing shared memory with QrtInternal.log for handle zero",
             "UpdateLogFiltersInSharedMemory; default = 8", "Using shared memory KesFilters"}),
      log.Texts());

  tKesRegTableEntry* table = ClientTable();
  EXPECT_EQ(KES_INTERFACE_VERSION, table[0].version);
  EXPECT_EQ(0, table[0].state);
  EXPECT_EQ(0u, table[0].handle);
  EXPECT_STREQ("NoNameSupplied", table[0].moduleName);
  EXPECT_STREQ("NoNameSupplied", table[0].moduleNameInLog);
  EXPECT_STREQ("QrtInternal.log", table[0].logFileName);
  EXPECT_STREQ("not_used", table[0].signature);
  for (int slot = 1; slot < KES_REG_TABLE_SLOTS; ++slot) {
    ASSERT_EQ(KES_INTERFACE_VERSION, table[slot].version) << slot;
    ASSERT_EQ(2, table[slot].state) << slot;
    ASSERT_STREQ("not_used", table[slot].signature) << slot;
  }
}

TEST_F(RegTable, DaemonAndClientsShareTheSameSegments) {
  ASSERT_TRUE(InitializeSharedMemory());
  tKesRegTableEntry* table = ClientTable();
  ASSERT_NE(table, sharedRegistrationTable);  // a second mapping ...
  RegisterClient(table, 3, "m", "n", "f.log");
  EXPECT_EQ(0, sharedRegistrationTable[3].state);  // ... of the same memory
  EXPECT_STREQ("f.log", sharedRegistrationTable[3].logFileName);
  EXPECT_EQ(8u, ClientFilters()->filter[3]);
}

TEST_F(RegTable, FullySignedTableIsLeftUntouchedWithClientRegistrations) {
  tKesRegTableEntry* table = ClientTable();
  SignEverySlot(table);
  RegisterClient(table, 9, "modA", "modA-log", "a.log");
  // Even slot 0 is the clients' business in an existing table.
  RegisterClient(table, 0, "client0", "client0", "zero.log");
  table[0].handle = 77;
  std::vector<char> before(reinterpret_cast<char*>(table),
                           reinterpret_cast<char*>(table) + KES_REG_TABLE_SIZE);

  OwnLogCapture log;
  ASSERT_TRUE(InitializeSharedMemory());
  EXPECT_EQ(
      (Lines{"Created shared memory segment KesRegTable",
             "Determined that it is not necessary to initialize the shared-memory "
             "registration table",
             "UpdateLogFiltersInSharedMemory; default = 8", "Using shared memory KesFilters"}),
      log.Texts());
  EXPECT_EQ(0, memcmp(before.data(), table, KES_REG_TABLE_SIZE));
}

TEST_F(RegTable, FirstSlotWithoutSignatureProvesTheTableNew) {
  tKesRegTableEntry* table = ClientTable();
  SignEverySlot(table);
  RegisterClient(table, 9, "modA", "modA-log", "a.log");
  strcpy(table[17].signature, "not_usedX");
  table[200].signature[0] = '\0';

  OwnLogCapture log;
  ASSERT_TRUE(InitializeSharedMemory());
  Lines texts = log.Texts();
  ASSERT_LE(3u, texts.size());
  EXPECT_EQ("Found evidence that shared memory is new, slot 17", texts[1]);
  EXPECT_EQ("Initializing the shared registration table", texts[2]);
  EXPECT_EQ(2, table[9].state) << "a new table frees every slot but 0";
  EXPECT_STREQ("not_used", table[17].signature);
  EXPECT_STREQ("not_used", table[200].signature);
}

TEST_F(RegTable, RestartedDaemonKeepsClientRegistrations) {
  ASSERT_TRUE(InitializeSharedMemory());
  RegisterClient(ClientTable(), 12, "modB", "modB-log", "b.log");

  ResetProcessState();  // the daemon stops; the segments stay
  logFileArray[12] = FileAtLevel("b.log", DetailedSeverity::INFO_LEVEL);
  OwnLogCapture log;
  ASSERT_TRUE(InitializeSharedMemory());

  Lines texts = log.Texts();
  ASSERT_LE(2u, texts.size());
  EXPECT_EQ(
      "Determined that it is not necessary to initialize the shared-memory registration "
      "table",
      texts[1]);
  EXPECT_EQ(0, sharedRegistrationTable[12].state);
  EXPECT_STREQ("modB", sharedRegistrationTable[12].moduleName);
  EXPECT_STREQ("b.log", sharedRegistrationTable[12].logFileName);
  EXPECT_STREQ("QrtInternal.log", sharedRegistrationTable[0].logFileName);
  EXPECT_EQ(4u, mySegment->filter[12]) << "filters are recomputed on restart";

  // The client's old handle is still accepted.
  tKesLoggerMessage received{};
  received.addLog.handle = 12;
  unsigned int slot = 0;
  EXPECT_TRUE(ValidateAddLogMessage(&received.addLog, 41, &slot));
  EXPECT_EQ(12u, slot);
}

TEST_F(RegTable, NewTableZeroesTheFilterHeader) {
  tKesFilterSegment* filters = ClientFilters();
  memset(filters->header, 0xAB, sizeof filters->header);
  ASSERT_TRUE(InitializeSharedMemory());
  for (unsigned char byte : filters->header) ASSERT_EQ(0, byte);
}

TEST_F(RegTable, KeptTableLeavesTheFilterHeader) {
  SignEverySlot(ClientTable());
  tKesFilterSegment* filters = ClientFilters();
  memset(filters->header, 0xAB, sizeof filters->header);
  ASSERT_TRUE(InitializeSharedMemory());
  for (unsigned char byte : filters->header) ASSERT_EQ(0xAB, byte);
}

TEST_F(RegTable, RegistrationSegmentFailureIsReportedAndFails) {
  s_failingSegment = KES_REG_TABLE_SEGMENT_NAME;
  s_injectedFailure = (28 << 16) | OS_ERROR_NO_SPACE;
  OwnLogCapture log;
  EXPECT_FALSE(InitializeSharedMemory());
  EXPECT_EQ(Lines{"Unable to create a Registration shared-memory segment. Name KesRegTable, "
                  "Error: 28"},
            log.Texts());
  EXPECT_EQ(nullptr, sharedRegistrationTable);
  EXPECT_EQ(nullptr, mySegment);
}

TEST_F(RegTable, FilterSegmentFailureIsReportedAndFails) {
  s_failingSegment = KES_FILTER_SEGMENT_NAME;
  s_injectedFailure = (12 << 16) | OS_ERROR_NO_MEMORY;
  OwnLogCapture log;
  EXPECT_FALSE(InitializeSharedMemory());
  Lines texts = log.Texts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ("Unable to create a shared-memory segment. Error: 12", texts.back());
  EXPECT_EQ(nullptr, mySegment);
}

// ---- Filters -----------------------------------------------------------------

TEST_F(RegTable, Filter7ReadsEightWithoutLogFileOrConfiguredDefault) {
  ASSERT_TRUE(InitializeSharedMemory());
  EXPECT_EQ(8u, ClientFilters()->filter[7]);
}

TEST_F(RegTable, ConfiguredDefaultLevelFillsHandlesWithoutLogFile) {
  ASSERT_TRUE(InitializeSharedMemory());
  LogFile::SeverityFilter::SetDefault(DetailedSeverity::WARN_LEVEL);
  logFileArray[3] = FileAtLevel("three.log", DetailedSeverity::DEBUG_LEVEL);
  OwnLogCapture log;
  UpdateLogFiltersInSharedMemory();
  tKesFilterSegment* filters = ClientFilters();
  EXPECT_EQ(2u, filters->filter[7]);
  EXPECT_EQ(2u, filters->filter[255]);
  EXPECT_EQ(8u, filters->filter[3]);
  EXPECT_EQ((Lines{"UpdateLogFiltersInSharedMemory; default = 2",
                   "     3: File " + logFileArray[3]->GetPathName() + " log level = 8"}),
            log.Texts());
}

TEST_F(RegTable, HandleWithLogFileGetsItsFileLevel) {
  ASSERT_TRUE(InitializeSharedMemory());
  logFileArray[7] = FileAtLevel("app7.log", DetailedSeverity::INFO_LEVEL);
  logFileArray[200] = FileAtLevel("app200.log", DetailedSeverity::ERROR_LEVEL);
  OwnLogCapture log;
  UpdateLogFiltersInSharedMemory();
  tKesFilterSegment* filters = ClientFilters();
  EXPECT_EQ(4u, filters->filter[7]);
  EXPECT_EQ(1u, filters->filter[200]);
  EXPECT_EQ(8u, filters->filter[8]);
  EXPECT_EQ(
      (Lines{
          "UpdateLogFiltersInSharedMemory; default = 8",
          "     7: File " + PrivateRootEnvironment::LogDirectory() + "app7.log log level = 4",
          "     200: File " + PrivateRootEnvironment::LogDirectory() + "app200.log log level = 1"}),
      log.Texts());
}

TEST_F(RegTable, UpdateWithoutFilterSegmentDoesNothing) {
  OwnLogCapture log;
  UpdateLogFiltersInSharedMemory();
  EXPECT_EQ(Lines(), log.Texts());
}

// ---- The semaphore -----------------------------------------------------------

TEST_F(RegTable, CreateIpcSemaphoreSetsValueToOne) {
  create_ipc_semaphore();
  ASSERT_NE(-1, ipcSemaphore);
  EXPECT_EQ(1, SemaphoreValue());
}

TEST_F(RegTable, CreateIpcSemaphoreFreesALockLeftTaken) {
  create_ipc_semaphore();
  int first = ipcSemaphore;
  ASSERT_EQ(OS_OK, osSysVSemaphoreSetValue(ipcSemaphore, 0));  // a crashed holder
  ipcSemaphore = -1;
  create_ipc_semaphore();
  EXPECT_EQ(first, ipcSemaphore) << "the existing semaphore is reused";
  EXPECT_EQ(1, SemaphoreValue());
}

TEST_F(RegTable, CreateIpcSemaphoreKeysOnTheKeyFileWithJ) {
  create_ipc_semaphore();
  int key = 0;
  std::string keyFile = KeyFile();
  ASSERT_EQ(OS_OK, osSysVKey(keyFile.c_str(), 'J', &key));
  int id = -1;
  ASSERT_EQ(OS_OK, osSysVSemaphoreOpen(key, 0, &id));
  EXPECT_EQ(ipcSemaphore, id);
}

TEST_F(RegTable, MissingKeyFileEndsTheProcessWithFtokError) {
  std::string keyFile = KeyFile();
  std::filesystem::remove(keyFile);
  EXPECT_EXIT(create_ipc_semaphore(), ::testing::ExitedWithCode(1),
              "^ftok: No such file or directory\n$");
  std::ofstream(keyFile) << "key\n";
  EXPECT_EQ(-1, ipcSemaphore);
}

TEST_F(RegTable, OverlongRootEndsTheProcessWithFtokError) {
  std::string root(5000, 'r');
  EXPECT_EXIT(
      {
        setenv("KESTRIN_ROOT", root.c_str(), 1);
        create_ipc_semaphore();
      },
      ::testing::ExitedWithCode(1), "^ftok: File name too long\n$");
}

TEST_F(RegTable, SemgetFailureEndsTheProcess) {
  s_failingCall = "semget";
  s_injectedFailure = (28 << 16) | OS_ERROR_GENERAL;  // ENOSPC: no semaphore sets left
  EXPECT_EXIT(create_ipc_semaphore(), ::testing::ExitedWithCode(1),
              "^semget: No space left on device\n$");
}

TEST_F(RegTable, SemctlFailureEndsTheProcess) {
  s_failingCall = "semctl";
  s_injectedFailure = (34 << 16) | OS_ERROR_GENERAL;  // ERANGE
  EXPECT_EXIT(create_ipc_semaphore(), ::testing::ExitedWithCode(1),
              "^semctl: Numerical result out of range\n$");
  // The dying child had created the semaphore: remove it.
  int key = 0;
  ASSERT_EQ(OS_OK, osSysVKey(KeyFile().c_str(), 'J', &key));
  int made = -1;
  ASSERT_EQ(OS_OK, osSysVSemaphoreOpen(key, 0, &made));
  EXPECT_EQ(OS_OK, osSysVSemaphoreRemove(made));
}

TEST_F(RegTable, ScopedLockTakesAndReleases) {
  create_ipc_semaphore();
  OwnLogCapture log;
  {
    ScopedSemaphoreLock lock;
    EXPECT_TRUE(lock.Good());
    EXPECT_EQ(0, SemaphoreValue());
  }
  EXPECT_EQ(1, SemaphoreValue());
  EXPECT_EQ(Lines(), log.Texts());
}

TEST_F(RegTable, ScopedLockWithoutSemaphoreReportsNotInitialized) {
  OwnLogCapture log;
  {
    ScopedSemaphoreLock lock;
    EXPECT_FALSE(lock.Good());
  }
  EXPECT_EQ(Lines{"Semaphore is not initialized."}, log.Texts());
}

TEST_F(RegTable, ScopedLockOnRemovedSemaphoreReportsTakeAndReleaseFailures) {
  int gone = -1;
  ASSERT_EQ(OS_OK, osSysVSemaphoreOpen(0 /* IPC_PRIVATE */, 1, &gone));
  ASSERT_EQ(OS_OK, osSysVSemaphoreRemove(gone));
  ipcSemaphore = gone;
  OwnLogCapture log;
  {
    ScopedSemaphoreLock lock;
    EXPECT_FALSE(lock.Good());
  }
  // The destructor tries to release although the take failed (EINVAL = 22).
  EXPECT_EQ((Lines{"Failed to decrement semaphore; errno = 22.",
                   "Failed to release semaphore; errno = 22."}),
            log.Texts());
  ipcSemaphore = -1;
}

// ---- The dump ----------------------------------------------------------------

TEST_F(RegTable, DumpListsOnlyRegisteredSlots) {
  ASSERT_TRUE(InitializeSharedMemory());
  create_ipc_semaphore();
  tKesRegTableEntry* table = ClientTable();
  RegisterClient(table, 9, "modA", "modA-log", "a.log");
  RegisterClient(table, 10, "modC", "modC", "c.log");
  table[10].state = 1;
  logFileArray[9] = FileAtLevel("a.log", DetailedSeverity::INFO_LEVEL);
  UpdateLogFiltersInSharedMemory();

  OwnLogCapture log;
  DumpRegTable();
  EXPECT_EQ((Lines{START_LINE,
                   "Slot 0: module: NoNameSupplied (NoNameSupplied), file: QrtInternal.log, "
                   "Filter: 8",
                   "Slot 9: module: modA (modA-log), file: a.log, Filter: 4", END_LINE}),
            log.Texts());
  EXPECT_EQ(1, SemaphoreValue()) << "the lock is given back";
}

TEST_F(RegTable, DumpLinesAreWrittenAtInformationSeverity) {
  ASSERT_TRUE(InitializeSharedMemory());
  create_ipc_semaphore();
  OwnLogCapture log;
  DumpRegTable();
  std::string raw = log.Raw();
  EXPECT_NE(std::string::npos, raw.find(std::string("[INFO ] {Kestrin} (-1) - ") + START_LINE));
  EXPECT_NE(std::string::npos, raw.find("[INFO ] {Kestrin} (-1) - Slot 0: module: "));
  EXPECT_NE(std::string::npos, raw.find(std::string("[INFO ] {Kestrin} (-1) - ") + END_LINE));
}

TEST_F(RegTable, DumpListsNothingWhenInformationIsNotAdmitted) {
  ASSERT_TRUE(InitializeSharedMemory());
  create_ipc_semaphore();
  logger->severityFilter.Set(DetailedSeverity::WARN_LEVEL);
  CaptureSyslogLines();
  OwnLogCapture log;
  DumpRegTable();
  EXPECT_EQ(Lines(), log.Texts());
  // The opening and closing lines still appear: the own log refuses them, so
  // they reach the system log.
  EXPECT_EQ((SyslogLines{{OS_LOG_INFO, START_LINE}, {OS_LOG_INFO, END_LINE}}), s_syslog);
}

TEST_F(RegTable, DumpWithoutSemaphoreLogsNotInitializedAndStillLists) {
  ASSERT_TRUE(InitializeSharedMemory());
  OwnLogCapture log;
  DumpRegTable();
  EXPECT_EQ((Lines{START_LINE, "Semaphore is not initialized.",
                   "Slot 0: module: NoNameSupplied (NoNameSupplied), file: QrtInternal.log, "
                   "Filter: 8",
                   END_LINE}),
            log.Texts());
}

TEST_F(RegTable, DumpWithoutTableWritesOnlyTheFrame) {
  create_ipc_semaphore();
  OwnLogCapture log;
  DumpRegTable();
  EXPECT_EQ((Lines{START_LINE, END_LINE}), log.Texts());
}

}  // namespace
}  // namespace kestrin
