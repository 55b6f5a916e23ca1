// Test support for the Agent and Master roles: the daemon fixture with a
// real request queue (the one the client library finds under the program's
// private root), a reader of what the roles' threads put on it, and raw
// loopback peers that speak the frame protocol byte by byte.
#ifndef KESTRIN_KESTRIN_ROLE_TEST_SUPPORT_H_
#define KESTRIN_KESTRIN_ROLE_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <limits.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kestrin/DaemonTestSupport.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/Lifecycle.h"
#include "kestrin/Records.h"
#include "osa/osa.h"
#include "protocol/SharedLayout.h"

namespace kestrin {

constexpr uint32_t LOOPBACK_ADDRESS = 0x7f000001;

// One record taken off the request queue.
struct QueuedRecord {
  long textSize = 0;
  tKesLoggerMessage message;
  unsigned int RecordSize() const { return static_cast<unsigned int>(textSize - 4); }
  std::string Bytes() const {
    return std::string(message.text, static_cast<size_t>(textSize));
  }
};

// Real time, whatever the platform's sleep override does.
inline void RealSleep(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// Polls `done` every 5 ms for at most `limitMs` real milliseconds.
inline bool WaitUntil(const std::function<bool()>& done, int limitMs = 5000) {
  for (int waited = 0; waited < limitMs; waited += 5) {
    if (done()) return true;
    RealSleep(5);
  }
  return done();
}

// The fixture: DaemonTest plus the request queue keyed on the root's key
// file with 'Q' (so the client library's sends arrive there too), the quit
// flags cleared and a debug-level own log.
class RoleTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    int key = -1;
    ASSERT_EQ(OS_OK, KesIpcKey(KES_QUEUE_PROJECT_ID, &key));
    int queueId = -1;
    ASSERT_EQ(OS_OK, osSysVQueueOpen(key, 1, &queueId));
    sys5q = queueId;
    Drain();
    graceful_quit = 0;
    LogNonAddLogMessages = false;
  }

  void TearDown() override {
    osSetOverrides(nullptr);
    graceful_quit = 0;
    DaemonTest::TearDown();
  }

  // Every record now on the queue, without waiting.
  std::vector<QueuedRecord> Drain() {
    std::vector<QueuedRecord> records;
    for (;;) {
      QueuedRecord record;
      if (osSysVQueueReceive(sys5q, &record.message, KES_MAX_QUEUE_TEXT, 1, &record.textSize) !=
          OS_OK) {
        return records;
      }
      records.push_back(record);
    }
  }

  // Collects what arrives on the queue: internal reports as
  // "severity|text", other records kept whole.
  void Collect() {
    for (const QueuedRecord& record : Drain()) {
      if (record.message.header.type == KES_INTERNAL_LOG_REQUEST) {
        reports_.push_back(std::to_string(record.message.internalLogRequest.severity) + "|" +
                           record.message.internalLogRequest.messageToLog);
      } else {
        records_.push_back(record);
      }
    }
  }

  // Waits until the reports include `report` ("severity|text").
  bool WaitForReport(const std::string& report, int limitMs = 5000) {
    return WaitUntil(
        [&]() {
          Collect();
          return CountOf(reports_, report) > 0;
        },
        limitMs);
  }

  // Waits until `count` records other than reports have arrived.
  bool WaitForRecords(size_t count, int limitMs = 5000) {
    return WaitUntil(
        [&]() {
          Collect();
          return records_.size() >= count;
        },
        limitMs);
  }

  std::vector<std::string> reports_;
  std::vector<QueuedRecord> records_;
  // The platform overrides a test installs: they must outlive the role's
  // threads, which the derived fixtures end before TearDown removes them.
  tOsaOverrides overrides_{};
};

// A frame: the 4-byte header announcing `body`, then the body.
inline std::string Frame(const std::string& body) {
  std::string frame = {'F', '\x01', static_cast<char>((body.size() >> 8) & 0xff),
                       static_cast<char>(body.size() & 0xff)};
  return frame + body;
}

// The bytes of a record.
template <typename Record>
std::string BytesOf(const Record& record, size_t size) {
  return std::string(reinterpret_cast<const char*>(&record), size);
}

// One end of a raw loopback TCP connection: reads and writes bytes and
// frames, every wait bounded.
class RawConnection {
 public:
  RawConnection() = default;
  explicit RawConnection(long id) : id_(id) {}
  ~RawConnection() { Close(); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  long Id() const { return id_; }
  void Adopt(long id) {
    Close();
    id_ = id;
  }
  void Close() {
    if (id_ != -1) osTCPClose(id_);
    id_ = -1;
  }

  // Connects to `address`; false on failure.
  bool Connect(const tOsTCPSocketAddress& address) {
    Close();
    if (osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &id_) != OS_OK) return false;
    return osTCPConnect(id_, &address) == OS_OK;
  }

  bool Send(const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
      int count = 0;
      int rc = osTCPSend(id_, bytes.data() + sent, static_cast<int>(bytes.size() - sent), 0,
                         &count);
      if (rc == OS_ERROR_RETRY) continue;
      if (rc != OS_OK) return false;
      sent += static_cast<size_t>(count);
    }
    return true;
  }

  // Reads exactly `size` bytes within `limitMs`; fewer when the time ran
  // out or the peer closed.
  std::string Read(size_t size, long limitMs = 5000) {
    std::string bytes;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    while (bytes.size() < size) {
      const long left = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                              end - std::chrono::steady_clock::now())
                                              .count());
      if (left <= 0) break;
      long sockets[1] = {id_};
      int count = 1;
      if (osTCPSelect(sockets, &count, left) != OS_OK) continue;
      char buffer[4096];
      int got = 0;
      size_t want = std::min(sizeof buffer, size - bytes.size());
      if (osTCPRecv(id_, buffer, static_cast<int>(want), 0, &got) != OS_OK || got == 0) break;
      bytes.append(buffer, static_cast<size_t>(got));
    }
    return bytes;
  }

  // One whole frame (header included); empty when none came in time.
  std::string ReadFrame(long limitMs = 5000) {
    std::string header = Read(4, limitMs);
    if (header.size() < 4) return "";
    const size_t size = (static_cast<unsigned char>(header[2]) << 8) |
                        static_cast<unsigned char>(header[3]);
    return header + Read(size, limitMs);
  }

  // Whether the peer closed the connection within `limitMs`.
  bool PeerClosed(long limitMs = 5000) {
    long sockets[1] = {id_};
    int count = 1;
    if (osTCPSelect(sockets, &count, limitMs) != OS_OK) return false;
    char byte;
    int got = -1;
    int rc = osTCPRecv(id_, &byte, 1, 0, &got);
    return rc != OS_OK || got == 0;
  }

 private:
  long id_ = -1;
};

// A listening socket on 127.0.0.1 with a port the kernel picked.
class RawListener {
 public:
  RawListener() {
    osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &id_);
    tOsTCPSocketAddress any{LOOPBACK_ADDRESS, 0};
    osTCPBind(id_, &any);
    osTCPListen(id_, 6);
    osTCPGetLocalAddress(id_, &address_);
  }
  ~RawListener() { Close(); }
  RawListener(const RawListener&) = delete;
  RawListener& operator=(const RawListener&) = delete;

  const tOsTCPSocketAddress& Address() const { return address_; }
  // Accepts one connection, waiting at most `limitMs`; -1 when none came.
  long Accept(long limitMs = 5000) {
    long sockets[1] = {id_};
    int count = 1;
    if (osTCPSelect(sockets, &count, limitMs) != OS_OK) return -1;
    long accepted = -1;
    return osTCPAccept(id_, &accepted, nullptr) == OS_OK ? accepted : -1;
  }
  void Close() {
    if (id_ != -1) osTCPClose(id_);
    id_ = -1;
  }

 private:
  long id_ = -1;
  tOsTCPSocketAddress address_{LOOPBACK_ADDRESS, 0};
};

// A loopback port nobody listens on now (bound, then released).
inline tOsTCPSocketAddress FreeLoopbackAddress() {
  RawListener listener;
  return listener.Address();
}

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_ROLE_TEST_SUPPORT_H_
