// Registration: finding or claiming a module's slot in the shared
// registration table, under the table's semaphore.
#include <string.h>

#include "osa/osa.h"
#include "protocol/SharedLayout.h"
#include "qrt/QrtConnection.h"
#include "qrt/QrtDiag.h"

namespace {

constexpr uint16_t INTERFACE_VERSION = 34;
constexpr int FIRST_CLIENT_SLOT = 1;

// The names as the table stores them: cut to their fields.
struct SlotNames {
  char moduleName[sizeof(tKesRegTableEntry::moduleName)];
  char moduleNameInLog[sizeof(tKesRegTableEntry::moduleNameInLog)];
  char logFileName[sizeof(tKesRegTableEntry::logFileName)];
};

bool is_registered(const tKesRegTableEntry& slot) {
  return __atomic_load_n(&slot.state, __ATOMIC_ACQUIRE) == KES_SLOT_STATE_REGISTERED;
}

bool names_match(const tKesRegTableEntry& slot, const SlotNames& names) {
  return strncmp(slot.moduleNameInLog, names.moduleNameInLog, sizeof slot.moduleNameInLog) == 0 &&
         strncmp(slot.logFileName, names.logFileName, sizeof slot.logFileName) == 0;
}

// Fills a free slot. The state goes to "registered" last, so that a reader
// that sees the slot registered also sees its names.
void fill_slot(tKesRegTableEntry* slot, int handle, const SlotNames& names) {
  slot->version = INTERFACE_VERSION;
  // The daemon checks an add-log's handle against this field.
  slot->handle = static_cast<uint32_t>(handle);
  memcpy(slot->moduleName, names.moduleName, sizeof slot->moduleName);
  memcpy(slot->moduleNameInLog, names.moduleNameInLog, sizeof slot->moduleNameInLog);
  memcpy(slot->logFileName, names.logFileName, sizeof slot->logFileName);
  __atomic_store_n(&slot->state, static_cast<uint16_t>(KES_SLOT_STATE_REGISTERED),
                   __ATOMIC_RELEASE);
}

// The handle for `names`, with the semaphore held: the registered slot with
// the same name in log and file name, else the first unregistered slot from
// 1, newly filled; -1 when the table is full.
int find_or_claim(tKesRegTableEntry* table, const SlotNames& names) {
  for (int handle = 0; handle < KES_REG_TABLE_SLOTS; ++handle) {
    if (is_registered(table[handle]) && names_match(table[handle], names)) return handle;
  }
  for (int handle = FIRST_CLIENT_SLOT; handle < KES_REG_TABLE_SLOTS; ++handle) {
    if (!is_registered(table[handle])) {
      fill_slot(&table[handle], handle, names);
      return handle;
    }
  }
  return -1;
}

int register_module(const char* moduleName, const char* moduleNameInLog, const char* logFileName,
                    int* handle) {
  if (moduleName == nullptr || moduleNameInLog == nullptr || logFileName == nullptr ||
      logFileName[0] == '\0' || handle == nullptr) {
    return QRT_ERROR_INVALID_PARAMETER;
  }
  SlotNames names{};
  osLStrCpyn(names.moduleName, moduleName, sizeof names.moduleName);
  osLStrCpyn(names.moduleNameInLog, moduleNameInLog, sizeof names.moduleNameInLog);
  osLStrCpyn(names.logFileName, logFileName, sizeof names.logFileName);

  qrt::Segments segments;
  int result = qrt::get_segments(&segments);
  if (result != QRT_OK) return result;
  int semaphore = -1;
  result = qrt::lock_table(&semaphore);
  if (result != QRT_OK) return result;
  int found = find_or_claim(segments.table, names);
  qrt::unlock_table(semaphore);
  if (found < 0) return QRT_ERROR_TABLE_FULL;
  *handle = found;
  return QRT_OK;
}

}  // namespace

extern "C" int QrtDiagRegisterModule(const char* moduleName, const char* moduleNameInLog, int flags,
                                     const char* logFileName, int* handle) {
  try {
    return register_module(moduleName, moduleNameInLog, logFileName, handle);
  } catch (...) {
    return QRT_ERROR_INTERNAL;
  }
}
