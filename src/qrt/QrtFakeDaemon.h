// Test support for the client library and the command-line client: a private
// KESTRIN_ROOT, and in it the resources that a running daemon keeps (key
// file, registration table, filter segment, semaphore, request queue), made
// and initialised the way the daemon makes them, so that a test can call the
// library or run the CLI and then read the exact bytes it put on the queue.
#ifndef KESTRIN_QRT_QRT_FAKE_DAEMON_H_
#define KESTRIN_QRT_QRT_FAKE_DAEMON_H_

#include <string>
#include <vector>

#include "protocol/SharedLayout.h"

namespace qrt_test {

// A fresh directory set as KESTRIN_ROOT until scope end (the earlier value is
// restored), removed with its contents. With `withKeyFile` it holds the
// daemon's key file, chosen so that no System V queue or semaphore exists
// yet for its keys (ftok keys of distinct files can collide).
class PrivateRoot {
 public:
  explicit PrivateRoot(bool withKeyFile);
  ~PrivateRoot();
  PrivateRoot(const PrivateRoot&) = delete;
  PrivateRoot& operator=(const PrivateRoot&) = delete;

  const std::string& Path() const { return path_; }
  // The key file's path under this root.
  std::string KeyFile() const;
  // The System V key of the key file with `projectId`; -1 when missing.
  int Key(int projectId) const;

 private:
  bool MakeDirectory(bool withKeyFile);
  void RemoveDirectory();

  std::string path_;
  bool hadRoot_ = false;
  std::string oldRoot_;
};

// One message taken off the queue: its type word and its text bytes (what
// msgrcv reported, the type word excluded).
struct QueuedMessage {
  long type = 0;
  std::vector<unsigned char> text;
};

// The daemon's resources under a private root; all removed at scope end.
// The table is zero-filled, then every slot gets version 34, state 2 and the
// signature "not_used"; slot 0 is registered as "NoNameSupplied" with the
// file "QrtInternal.log"; every filter is 8; the semaphore is at 1.
class FakeDaemon {
 public:
  FakeDaemon();
  ~FakeDaemon();
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  // False (with a test failure added) when a resource could not be made.
  bool Ok() const { return ok_; }
  const PrivateRoot& Root() const { return root_; }
  tKesRegTableEntry* Table() const { return table_; }
  tKesFilterSegment* Filters() const { return filters_; }
  int QueueId() const { return queueId_; }
  int SemaphoreId() const { return semaphoreId_; }

  // Takes one message off the queue without waiting; false when empty.
  bool Receive(QueuedMessage* message) const;
  // The number of messages on the queue.
  unsigned long QueuedCount() const;
  // Registers slot `handle` with the given names, as a client would.
  void Register(int handle, const char* moduleNameInLog, const char* logFileName) const;

 private:
  PrivateRoot root_;
  bool ok_ = false;
  tKesRegTableEntry* table_ = nullptr;
  tKesFilterSegment* filters_ = nullptr;
  int queueId_ = -1;
  int semaphoreId_ = -1;
};

// The segment names the daemon uses (a copy, so that tests also pin the
// library's exported values).
extern const char FAKE_REG_TABLE_NAME[];
extern const char FAKE_FILTER_SEGMENT_NAME[];

// Host-order bytes of integers, for building expected records.
void append_u16(std::vector<unsigned char>* bytes, uint16_t value);
void append_u32(std::vector<unsigned char>* bytes, uint32_t value);
void append_text(std::vector<unsigned char>* bytes, const std::string& text);

// The 32-bit host-order value at `offset` of `bytes` (0 past the end).
uint32_t read_u32(const std::vector<unsigned char>& bytes, size_t offset);
uint16_t read_u16(const std::vector<unsigned char>& bytes, size_t offset);

}  // namespace qrt_test

#endif  // KESTRIN_QRT_QRT_FAKE_DAEMON_H_
