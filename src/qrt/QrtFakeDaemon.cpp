#include "qrt/QrtFakeDaemon.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "osa/osa.h"

namespace qrt_test {

const char FAKE_REG_TABLE_NAME[] = "KesRegTable";
const char FAKE_FILTER_SEGMENT_NAME[] = "KesFilters";

namespace {

constexpr int MAX_ROOT_ATTEMPTS = 20;
constexpr uint32_t DEFAULT_FILTER = 8;

// The directory stem: process id and a counter, so that no two roots of one
// run (whose connections the library remembers) ever share a path.
std::string root_stem() {
  static std::atomic<int> counter{0};
  return "/tmp/kestrin-qrt-" + std::to_string(getpid()) + "-" + std::to_string(counter++) + "-";
}

bool queue_exists(int key) {
  int id = -1;
  return key != -1 && osSysVQueueOpen(key, 0, &id) == OS_OK;
}

bool semaphore_exists(int key) {
  int id = -1;
  return key != -1 && osSysVSemaphoreOpen(key, 0, &id) == OS_OK;
}

void initialise_table(tKesRegTableEntry* table) {
  memset(table, 0, KES_REG_TABLE_SIZE);
  for (int slot = 0; slot < KES_REG_TABLE_SLOTS; ++slot) {
    table[slot].version = 34;
    table[slot].state = KES_SLOT_STATE_FREE;
    osLStrCpyn(table[slot].signature, KES_SLOT_SIGNATURE, 26);
  }
  table[0].state = KES_SLOT_STATE_REGISTERED;
  table[0].handle = 0;
  osLStrCpyn(table[0].moduleName, "NoNameSupplied", sizeof table[0].moduleName);
  osLStrCpyn(table[0].moduleNameInLog, "NoNameSupplied", sizeof table[0].moduleNameInLog);
  osLStrCpyn(table[0].logFileName, "QrtInternal.log", sizeof table[0].logFileName);
}

}  // namespace

PrivateRoot::PrivateRoot(bool withKeyFile) {
  const char* old = getenv("KESTRIN_ROOT");
  hadRoot_ = old != nullptr;
  if (hadRoot_) oldRoot_ = old;
  for (int attempt = 0; attempt < MAX_ROOT_ATTEMPTS; ++attempt) {
    if (MakeDirectory(withKeyFile)) break;
    RemoveDirectory();
  }
  if (path_.empty()) ADD_FAILURE() << "cannot make a private root";
}

PrivateRoot::~PrivateRoot() {
  RemoveDirectory();
  if (hadRoot_) {
    setenv("KESTRIN_ROOT", oldRoot_.c_str(), 1);
  } else {
    unsetenv("KESTRIN_ROOT");
  }
}

bool PrivateRoot::MakeDirectory(bool withKeyFile) {
  std::string pattern = root_stem() + "XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) return false;
  path_ = buffer.data();
  setenv("KESTRIN_ROOT", path_.c_str(), 1);
  if (!withKeyFile) return true;
  std::error_code error;
  std::filesystem::create_directories(path_ + "/kv/etc", error);
  std::ofstream(KeyFile()) << "";
  // A key that already names a queue or semaphore belongs to someone else.
  int queueKey = Key(KES_QUEUE_PROJECT_ID);
  int semaphoreKey = Key(KES_SEMAPHORE_PROJECT_ID);
  return queueKey != -1 && semaphoreKey != -1 && !queue_exists(queueKey) &&
         !semaphore_exists(semaphoreKey);
}

void PrivateRoot::RemoveDirectory() {
  if (path_.empty()) return;
  std::error_code error;
  std::filesystem::remove_all(path_, error);
  path_.clear();
}

std::string PrivateRoot::KeyFile() const { return path_ + KES_FTOK_TARGET; }

int PrivateRoot::Key(int projectId) const {
  int key = -1;
  if (osSysVKey(KeyFile().c_str(), projectId, &key) != OS_OK) return -1;
  return key;
}

FakeDaemon::FakeDaemon() : root_(true) {
  void* address = nullptr;
  if (osShareMemory(FAKE_REG_TABLE_NAME, KES_REG_TABLE_SIZE, &address) != OS_OK) {
    ADD_FAILURE() << "cannot make the registration table";
    return;
  }
  table_ = static_cast<tKesRegTableEntry*>(address);
  initialise_table(table_);
  if (osShareMemory(FAKE_FILTER_SEGMENT_NAME, KES_FILTER_SEGMENT_SIZE, &address) != OS_OK) {
    ADD_FAILURE() << "cannot make the filter segment";
    return;
  }
  filters_ = static_cast<tKesFilterSegment*>(address);
  memset(filters_, 0, KES_FILTER_SEGMENT_SIZE);
  for (uint32_t& filter : filters_->filter) filter = DEFAULT_FILTER;
  if (osSysVSemaphoreOpen(root_.Key(KES_SEMAPHORE_PROJECT_ID), 1, &semaphoreId_) != OS_OK ||
      osSysVSemaphoreSetValue(semaphoreId_, 1) != OS_OK) {
    ADD_FAILURE() << "cannot make the semaphore";
    return;
  }
  if (osSysVQueueOpen(root_.Key(KES_QUEUE_PROJECT_ID), 1, &queueId_) != OS_OK) {
    ADD_FAILURE() << "cannot make the queue";
    return;
  }
  ok_ = true;
}

FakeDaemon::~FakeDaemon() {
  if (queueId_ != -1) osSysVQueueRemove(queueId_);
  if (semaphoreId_ != -1) osSysVSemaphoreRemove(semaphoreId_);
  osUnshareMemory(FAKE_REG_TABLE_NAME);
  osUnshareMemory(FAKE_FILTER_SEGMENT_NAME);
}

bool FakeDaemon::Receive(QueuedMessage* message) const {
  struct {
    long type;
    unsigned char text[8192];
  } buffer;
  long textSize = 0;
  if (osSysVQueueReceive(queueId_, &buffer, sizeof buffer.text, 1, &textSize) != OS_OK) {
    return false;
  }
  message->type = buffer.type;
  message->text.assign(buffer.text, buffer.text + textSize);
  return true;
}

unsigned long FakeDaemon::QueuedCount() const {
  unsigned long count = 0;
  osSysVQueueStat(queueId_, &count, nullptr);
  return count;
}

void FakeDaemon::Register(int handle, const char* moduleNameInLog, const char* logFileName) const {
  tKesRegTableEntry& slot = table_[handle];
  slot.handle = static_cast<uint32_t>(handle);
  osLStrCpyn(slot.moduleName, moduleNameInLog, sizeof slot.moduleName);
  osLStrCpyn(slot.moduleNameInLog, moduleNameInLog, sizeof slot.moduleNameInLog);
  osLStrCpyn(slot.logFileName, logFileName, sizeof slot.logFileName);
  slot.state = KES_SLOT_STATE_REGISTERED;
}

void append_u16(std::vector<unsigned char>* bytes, uint16_t value) {
  unsigned char raw[sizeof value];
  memcpy(raw, &value, sizeof value);
  bytes->insert(bytes->end(), raw, raw + sizeof raw);
}

void append_u32(std::vector<unsigned char>* bytes, uint32_t value) {
  unsigned char raw[sizeof value];
  memcpy(raw, &value, sizeof value);
  bytes->insert(bytes->end(), raw, raw + sizeof raw);
}

void append_text(std::vector<unsigned char>* bytes, const std::string& text) {
  bytes->insert(bytes->end(), text.begin(), text.end());
}

uint32_t read_u32(const std::vector<unsigned char>& bytes, size_t offset) {
  uint32_t value = 0;
  if (offset + sizeof value <= bytes.size()) memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

uint16_t read_u16(const std::vector<unsigned char>& bytes, size_t offset) {
  uint16_t value = 0;
  if (offset + sizeof value <= bytes.size()) memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

}  // namespace qrt_test
