#include "kestrin/RegTable.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/Records.h"
#include "osa/osa.h"

namespace kestrin {

tKesRegTableEntry* sharedRegistrationTable = nullptr;
tKesFilterSegment* mySegment = nullptr;
int ipcSemaphore = -1;

namespace {

// The signature is written with this limit (the field itself is 28 bytes).
constexpr size_t SIGNATURE_COPY_LIMIT = 26;
// Used for a handle without a log file while no default level is set.
constexpr uint32_t UNSET_DEFAULT_FILTER = KES_SEVERITY_DEBUG;

constexpr char DEFAULT_MODULE_NAME[] = "NoNameSupplied";
constexpr char DEFAULT_LOG_FILE_NAME[] = "QrtInternal.log";

void Report(unsigned short severity, const std::string& text) {
  LogKestrinMessage(severity, text, NO_EVENT_ID);
}

// A field of a slot, cut at the field's end when a client left no NUL in it.
std::string FieldString(const char* field, size_t size) {
  return std::string(field, strnlen(field, size));
}

bool HasSignature(const tKesRegTableEntry& entry) {
  return strncmp(entry.signature, KES_SLOT_SIGNATURE, sizeof entry.signature) == 0;
}

// The first slot without the signature proves that no daemon initialised
// this table; -1 when every slot carries it.
int FirstUnsignedSlot(const tKesRegTableEntry* table) {
  for (int slot = 0; slot < KES_REG_TABLE_SLOTS; ++slot) {
    if (!HasSignature(table[slot])) return slot;
  }
  return -1;
}

void InitializeRegistrationTable(tKesRegTableEntry* table) {
  Report(KES_SEVERITY_DEBUG, "Initializing the shared registration table");
  for (int slot = 0; slot < KES_REG_TABLE_SLOTS; ++slot) {
    table[slot].version = KES_INTERFACE_VERSION;
    table[slot].state = KES_SLOT_STATE_FREE;
    osLStrCpyn(table[slot].signature, KES_SLOT_SIGNATURE, SIGNATURE_COPY_LIMIT);
  }
  // Handle 0 is the daemon's own default registration, always present.
  tKesRegTableEntry& first = table[0];
  first.state = KES_SLOT_STATE_REGISTERED;
  osLStrCpyn(first.moduleName, DEFAULT_MODULE_NAME, sizeof first.moduleName);
  osLStrCpyn(first.moduleNameInLog, DEFAULT_MODULE_NAME, sizeof first.moduleNameInLog);
  osLStrCpyn(first.logFileName, DEFAULT_LOG_FILE_NAME, sizeof first.logFileName);
  first.handle = 0;
  LogDebug("Initializing shared memory with QrtInternal.log for handle zero");
}

// Attaches the registration table and initialises it when it is new.
// Returns false when the segment cannot be had; `*isNew` tells whether the
// table was initialised.
bool AttachRegistrationTable(bool* isNew) {
  void* address = nullptr;
  int result = osShareMemory(KES_REG_TABLE_SEGMENT_NAME, KES_REG_TABLE_SIZE, &address);
  if (result != OS_OK) {
    Report(KES_SEVERITY_ERROR, std::string("Unable to create a Registration shared-memory "
                                           "segment. Name ") +
                                   KES_REG_TABLE_SEGMENT_NAME +
                                   ", Error: " + std::to_string(osGetSpecificErrorCode(result)));
    return false;
  }
  Report(KES_SEVERITY_DEBUG,
         std::string("Created shared memory segment ") + KES_REG_TABLE_SEGMENT_NAME);
  sharedRegistrationTable = static_cast<tKesRegTableEntry*>(address);

  int evidence = FirstUnsignedSlot(sharedRegistrationTable);
  *isNew = evidence >= 0;
  if (*isNew) {
    Report(KES_SEVERITY_INFO,
           "Found evidence that shared memory is new, slot " + std::to_string(evidence));
    InitializeRegistrationTable(sharedRegistrationTable);
  } else {
    // Clients registered before a daemon restart keep their handles.
    Report(KES_SEVERITY_DEBUG,
           "Determined that it is not necessary to initialize the shared-memory registration "
           "table");
  }
  return true;
}

uint32_t DefaultFilter() {
  if (!LogFile::SeverityFilter::HasSetDefaultBeenCalled()) return UNSET_DEFAULT_FILTER;
  return LogFile::SeverityFilter::GetDefault().AsQrtSeverityForFilter();
}

// perror's form, "<call>: <reason>", then the start-up failure status.
[[noreturn]] void ExitAfterFailedCall(const char* call, const char* reason) {
  fprintf(stderr, "%s: %s\n", call, reason);
  exit(1);
}

// The same for a call whose error value the platform layer gave.
[[noreturn]] void ExitAfterFailedCall(const char* call, int result) {
  ExitAfterFailedCall(call, strerror(osGetSpecificErrorCode(result)));
}

}  // namespace

bool InitializeSharedMemory() {
  // The table is checked and initialised without the semaphore: the
  // semaphore is created only after the request queue.
  bool isNew = false;
  if (!AttachRegistrationTable(&isNew)) return false;

  void* address = nullptr;
  int result = osShareMemory(KES_FILTER_SEGMENT_NAME, KES_FILTER_SEGMENT_SIZE, &address);
  if (result != OS_OK) {
    Report(KES_SEVERITY_ERROR, "Unable to create a shared-memory segment. Error: " +
                                   std::to_string(osGetSpecificErrorCode(result)));
    return false;
  }
  mySegment = static_cast<tKesFilterSegment*>(address);
  UpdateLogFiltersInSharedMemory();
  if (isNew) memset(mySegment->header, 0, sizeof mySegment->header);
  Report(KES_SEVERITY_DEBUG, std::string("Using shared memory ") + KES_FILTER_SEGMENT_NAME);
  return true;
}

void create_ipc_semaphore() {
  int key = 0;
  int result = KesIpcKey(KES_SEMAPHORE_PROJECT_ID, &key);
  // A key-file path too long to map is the one failure without an errno.
  if (result == OS_ERROR_BUFFER_TOO_SMALL) ExitAfterFailedCall("ftok", strerror(ENAMETOOLONG));
  if (result != OS_OK) ExitAfterFailedCall("ftok", result);

  int semaphore = -1;
  result = osSysVSemaphoreOpen(key, 1, &semaphore);
  if (result != OS_OK) ExitAfterFailedCall("semget", result);
  // Set on every start, whatever the value was: a lock left taken by a
  // crashed process is freed here.
  result = osSysVSemaphoreSetValue(semaphore, 1);
  if (result != OS_OK) ExitAfterFailedCall("semctl", result);
  ipcSemaphore = semaphore;
}

ScopedSemaphoreLock::ScopedSemaphoreLock() : good(true) {
  if (ipcSemaphore == -1) {
    Report(KES_SEVERITY_ERROR, "Semaphore is not initialized.");
    good = false;
    return;
  }
  int result = osSysVSemaphoreAdd(ipcSemaphore, -1);
  if (result != OS_OK) {
    Report(KES_SEVERITY_ERROR, "Failed to decrement semaphore; errno = " +
                                   std::to_string(osGetSpecificErrorCode(result)) + ".");
    good = false;
  }
}

ScopedSemaphoreLock::~ScopedSemaphoreLock() {
  if (ipcSemaphore == -1) return;
  // Released even when the take failed; the good mark is deliberately not
  // consulted here.
  int result = osSysVSemaphoreAdd(ipcSemaphore, 1);
  if (result != OS_OK) {
    Report(KES_SEVERITY_ERROR, "Failed to release semaphore; errno = " +
                                   std::to_string(osGetSpecificErrorCode(result)) + ".");
  }
}

void DumpRegTable() {
  LogInfo("***************START of registration table dump***************");
  {
    ScopedSemaphoreLock lock;
    for (int slot = 0; sharedRegistrationTable != nullptr && slot < KES_REG_TABLE_SLOTS; ++slot) {
      const tKesRegTableEntry& entry = sharedRegistrationTable[slot];
      if (entry.state != KES_SLOT_STATE_REGISTERED || !OwnLogAdmits(KES_SEVERITY_INFO)) continue;
      uint32_t filter = mySegment == nullptr ? 0 : mySegment->filter[slot];
      Report(KES_SEVERITY_INFO,
             "Slot " + std::to_string(slot) +
                 ": module: " + FieldString(entry.moduleName, sizeof entry.moduleName) + " (" +
                 FieldString(entry.moduleNameInLog, sizeof entry.moduleNameInLog) +
                 "), file: " + FieldString(entry.logFileName, sizeof entry.logFileName) +
                 ", Filter: " + std::to_string(filter));
    }
    LogInfo("****************END of registration table dump****************");
  }
}

void UpdateLogFiltersInSharedMemory() {
  if (mySegment == nullptr) return;
  const uint32_t defaultFilter = DefaultFilter();
  LogDebug("UpdateLogFiltersInSharedMemory; default = " + std::to_string(defaultFilter));
  for (int handle = 0; handle < KES_REG_TABLE_SLOTS; ++handle) {
    const LogFilePtr& file = logFileArray[handle];
    if (file.IsNil()) {
      mySegment->filter[handle] = defaultFilter;
      continue;
    }
    uint32_t filter = file->severityFilter.Get().AsQrtSeverityForFilter();
    mySegment->filter[handle] = filter;
    if (OwnLogAdmits(KES_SEVERITY_DEBUG)) {
      LogDebug("     " + std::to_string(handle) + ": File " + file->GetPathName() +
               " log level = " + std::to_string(filter));
    }
  }
}

}  // namespace kestrin
