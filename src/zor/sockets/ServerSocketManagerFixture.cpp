#include "zor/sockets/ServerSocketManagerFixture.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace socket_test {

namespace {

int scripted_select(long* sockets, int* count, long /*timeoutMs*/) {
  ManagerScript& s = manager_script();
  if (*count < 1 || sockets[0] != s.listening) return OSA_CALL_REAL;
  size_t call = s.selectCalls++;
  if (call < s.selectResults.size() && s.selectResults[call] != OSA_CALL_REAL) {
    return s.selectResults[call];
  }
  if (s.impossibleCount) {
    *count += 1;
    return OS_OK;
  }
  if (s.fakeReady != -1) {
    sockets[0] = s.fakeReady;
    for (int i = 1; i < *count; ++i) sockets[i] = -1;
    *count = 1;
    return OS_OK;
  }
  return OSA_CALL_REAL;
}

int scripted_accept(long socket, long* newSocket, tOsTCPSocketAddress* farEnd) {
  ManagerScript& s = manager_script();
  if (socket != s.listening || s.accepts.empty()) return OSA_CALL_REAL;
  ManagerScript::Accept next = s.accepts.front();
  s.accepts.pop_front();
  if (next.code == OS_OK) *newSocket = next.socketId;
  if (next.code == OS_OK || next.code == OS_ERROR_NO_DESCRIPTORS) *farEnd = next.farEnd;
  return next.code;
}

int scripted_recv(long /*socket*/, void* /*buffer*/, int /*length*/, int /*flags*/, int* count) {
  *count = 0;
  return manager_script().recvResult;
}

int scripted_send(long /*socket*/, const void* /*data*/, int /*length*/, int /*flags*/,
                  int* count) {
  *count = 0;
  return manager_script().sendResult;
}

unsigned long scripted_clock() { return manager_script().clock; }

}  // namespace

ManagerScript& manager_script() {
  static ManagerScript script;
  return script;
}

tOsaOverrides manager_overrides(bool withClock) {
  tOsaOverrides table{};
  table.tcpSelect = scripted_select;
  table.tcpAccept = scripted_accept;
  table.tcpRecv = scripted_recv;
  table.tcpSend = scripted_send;
  if (withClock) table.clock = scripted_clock;
  return table;
}

ManagerFixture::ManagerFixture() : manager_(&user_, loopback(0)) {
  manager_script() = ManagerScript();
}

ManagerFixture::~ManagerFixture() {
  for (long client : clients_) raw_close(client);
}

void ManagerFixture::SetUp() {
  ASSERT_TRUE(manager_.Init(0, 0));
  tOsTCPSocketAddress bound{0, 0};
  ASSERT_EQ(osTCPGetLocalAddress(manager_.GetListeningSocketID(), &bound), OS_OK);
  port_ = bound.port;
  manager_script().listening = manager_.GetListeningSocketID();
  log_->Clear();
}

long ManagerFixture::Connect() {
  long client = raw_connect(port_);
  EXPECT_NE(client, -1);
  clients_.push_back(client);
  return client;
}

void ManagerFixture::CloseClient(long client) {
  raw_close(client);
  clients_.erase(std::remove(clients_.begin(), clients_.end(), client), clients_.end());
}

bool ManagerFixture::SelectOnce() {
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  bool woken = false;
  std::thread watchdog([&] {
    std::unique_lock<std::mutex> lock(mutex);
    if (finished.wait_for(lock, std::chrono::seconds(5), [&] { return done; })) return;
    woken = true;
    lock.unlock();
    long waker = raw_connect(port_);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    raw_close(waker);
  });
  bool result = manager_.Select();
  {
    std::lock_guard<std::mutex> lock(mutex);
    done = true;
  }
  finished.notify_all();
  watchdog.join();
  EXPECT_FALSE(woken) << "Select() found nothing to do for 5 seconds";
  return result;
}

void ManagerFixture::SelectUntil(const std::function<bool()>& done) {
  for (int i = 0; i < 50 && !done(); ++i) SelectOnce();
  EXPECT_TRUE(done());
}

ManagerFixture::Handle ManagerFixture::AcceptClient(long* client) {
  const size_t before = user_.Accepted().size();
  long connected = Connect();
  if (client != nullptr) *client = connected;
  SelectUntil([&] { return user_.Accepted().size() > before; });
  std::vector<Handle> accepted = user_.Accepted();
  return accepted.size() > before ? accepted.back() : Handle();
}

ManagerFixture::Handle ManagerFixture::CauseSocketError() {
  long client = -1;
  Handle handle = AcceptClient(&client);
  EXPECT_TRUE(send_all(client, raw_header('X', 1, 1) + "x"));
  SelectUntil([&] { return HasEvent(event("closed", handle)); });
  CloseClient(client);
  return handle;
}

bool ManagerFixture::HasEvent(const std::string& wanted) const {
  std::vector<std::string> events = user_.Events();
  return std::find(events.begin(), events.end(), wanted) != events.end();
}

}  // namespace socket_test
