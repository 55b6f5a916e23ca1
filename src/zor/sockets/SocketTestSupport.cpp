#include "zor/sockets/SocketTestSupport.h"

#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <future>
#include <ostream>

#include "appfw/SmartPointerNTS.h"
#include "zor/sockets/FrameHeader.h"
#include "zor/sockets/SocketLog.h"

namespace socket_test {

using Zor::Sockets::FramedDataSocket;
using Zor::Sockets::FrameHeader;

namespace {

typedef std::chrono::steady_clock SteadyClock;

long remaining_ms(SteadyClock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
  return left.count() > 0 ? static_cast<long>(left.count()) : 0;
}

// The state behind ScriptedSocketCalls.
struct Script {
  std::mutex mutex;
  long socket = -1;
  std::deque<Step> recv;
  std::deque<Step> send;
  int recvCalls = 0;
  std::vector<int> recvLengths;
  int sendCalls = 0;
  std::string sent;
};

Script& script() {
  static Script state;
  return state;
}

int scripted_recv(long socket, void* buffer, int length, int /*flags*/, int* count) {
  Script& s = script();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (socket != s.socket) return OSA_CALL_REAL;
  ++s.recvCalls;
  s.recvLengths.push_back(length);
  *count = 0;
  if (s.recv.empty()) return OS_ERROR_WOULD_BLOCK;
  Step& step = s.recv.front();
  switch (step.kind) {
    case Step::DATA: {
      size_t n = std::min(static_cast<size_t>(length), step.bytes.size());
      memcpy(buffer, step.bytes.data(), n);
      *count = static_cast<int>(n) + step.extraCount;
      step.bytes.erase(0, n);
      if (step.bytes.empty()) s.recv.pop_front();
      return OS_OK;
    }
    case Step::CODE: {
      int rc = step.code;
      s.recv.pop_front();
      return rc;
    }
    case Step::CLOSED:
      s.recv.pop_front();
      return OS_OK;
    case Step::REAL:
      s.recv.pop_front();
      return OSA_CALL_REAL;
  }
  return OSA_CALL_REAL;
}

int scripted_send(long socket, const void* data, int length, int /*flags*/, int* count) {
  Script& s = script();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (socket != s.socket) return OSA_CALL_REAL;
  ++s.sendCalls;
  if (s.send.empty()) return OSA_CALL_REAL;
  Step step = s.send.front();
  s.send.pop_front();
  *count = 0;
  if (step.kind == Step::CODE) return step.code;
  if (step.kind != Step::DATA) return OSA_CALL_REAL;
  int n = std::min(length, step.limit);
  s.sent.append(static_cast<const char*>(data), static_cast<size_t>(n));
  *count = n;
  return OS_OK;
}

}  // namespace

// ---- Logging ----------------------------------------------------------------

void PrintTo(const LogEntry& entry, std::ostream* out) {
  *out << entry.level << " \"" << entry.text << "\"";
}

std::vector<LogEntry> SocketLogRecorder::Entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

std::vector<std::string> SocketLogRecorder::Texts() const {
  std::vector<std::string> texts;
  for (const LogEntry& entry : Entries()) texts.push_back(entry.text);
  return texts;
}

size_t SocketLogRecorder::Count(const std::string& text) const {
  std::vector<std::string> texts = Texts();
  return static_cast<size_t>(std::count(texts.begin(), texts.end(), text));
}

bool SocketLogRecorder::Has(unsigned short level, const std::string& text) const {
  std::vector<LogEntry> entries = Entries();
  return std::find(entries.begin(), entries.end(), LogEntry{level, text}) != entries.end();
}

void SocketLogRecorder::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

void SocketLogRecorder::DoLogging(const char* text, unsigned short level, unsigned long /*code*/,
                                  unsigned char /*kind*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back(LogEntry{level, text});
}

ScopedSocketLog::ScopedSocketLog() {
  Zor::Sockets::SetLogger(AppFw::SmartPointerNTS<Zor::LogInterface>(&recorder_, false));
}

ScopedSocketLog::~ScopedSocketLog() {
  Zor::Sockets::SetLogger(AppFw::SmartPointerNTS<Zor::LogInterface>());
}

LogEntry zs(unsigned short level, const std::string& text) {
  return LogEntry{level, "Zor Sockets: " + text};
}

// ---- Platform overrides -----------------------------------------------------

ScopedOverrides::ScopedOverrides(const tOsaOverrides& table) : table_(table) {
  osSetOverrides(&table_);
}

ScopedOverrides::~ScopedOverrides() { osSetOverrides(nullptr); }

Step data_step(const std::string& bytes) { return Step{Step::DATA, 0, bytes, 0, 0}; }
Step accept_step(int limit) { return Step{Step::DATA, 0, "", limit, 0}; }
Step code_step(int code) { return Step{Step::CODE, code, "", 0, 0}; }
Step closed_step() { return Step{Step::CLOSED, 0, "", 0, 0}; }
Step real_step() { return Step{Step::REAL, 0, "", 0, 0}; }

ScriptedSocketCalls::ScriptedSocketCalls(long socketId) {
  {
    Script& s = script();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.socket = socketId;
    s.recv.clear();
    s.send.clear();
    s.recvCalls = 0;
    s.recvLengths.clear();
    s.sendCalls = 0;
    s.sent.clear();
  }
  tOsaOverrides table{};
  table.tcpRecv = scripted_recv;
  table.tcpSend = scripted_send;
  overrides_ = new ScopedOverrides(table);
}

ScriptedSocketCalls::~ScriptedSocketCalls() {
  delete overrides_;
  Script& s = script();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.socket = -1;
}

void ScriptedSocketCalls::SetSocket(long socketId) {
  Script& s = script();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.socket = socketId;
}

void ScriptedSocketCalls::AddRecv(const Step& step) {
  Script& s = script();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.recv.push_back(step);
}

void ScriptedSocketCalls::AddRecvBytes(const std::string& bytes, size_t chunk) {
  for (size_t at = 0; at < bytes.size(); at += chunk) AddRecv(data_step(bytes.substr(at, chunk)));
}

void ScriptedSocketCalls::AddSend(const Step& step) {
  Script& s = script();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.send.push_back(step);
}

void ScriptedSocketCalls::SetExtra(const tOsaOverrides& extra) {
  tOsaOverrides table = extra;
  table.tcpRecv = scripted_recv;
  table.tcpSend = scripted_send;
  delete overrides_;
  overrides_ = new ScopedOverrides(table);
}

int ScriptedSocketCalls::RecvCalls() const {
  Script& s = script();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.recvCalls;
}

std::vector<int> ScriptedSocketCalls::RecvLengths() const {
  Script& s = script();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.recvLengths;
}

int ScriptedSocketCalls::SendCalls() const {
  Script& s = script();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.sendCalls;
}

std::string ScriptedSocketCalls::SentBytes() const {
  Script& s = script();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.sent;
}

// ---- Loopback sockets -------------------------------------------------------

tOsTCPSocketAddress loopback(uint16_t port) { return tOsTCPSocketAddress{0x7f000001u, port}; }

RawListener::RawListener() {
  if (osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &id_) != OS_OK) return;
  tOsTCPSocketAddress address = loopback(0);
  tOsTCPSocketAddress bound{0, 0};
  if (osTCPBind(id_, &address) != OS_OK || osTCPListen(id_, 64) != OS_OK ||
      osTCPGetLocalAddress(id_, &bound) != OS_OK) {
    Close();
    return;
  }
  port_ = bound.port;
}

RawListener::~RawListener() { Close(); }

long RawListener::Accept() {
  if (id_ == -1 || !wait_readable(id_, 5000)) return -1;
  long accepted = -1;
  tOsTCPSocketAddress farEnd;
  return osTCPAccept(id_, &accepted, &farEnd) == OS_OK ? accepted : -1;
}

void RawListener::Close() {
  if (id_ != -1) osTCPClose(id_);
  id_ = -1;
}

uint16_t unused_port() {
  RawListener listener;
  return listener.Port();
}

long raw_connect(uint16_t port) {
  long id = -1;
  if (osTCPSocket(OS_SOCK_STREAM, OS_IPPROTO_TCP, &id) != OS_OK) return -1;
  tOsTCPSocketAddress address = loopback(port);
  if (osTCPConnect(id, &address) != OS_OK) {
    osTCPClose(id);
    return -1;
  }
  return id;
}

void raw_close(long socketId) {
  if (socketId != -1) osTCPClose(socketId);
}

bool send_all(long socketId, const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    int count = 0;
    int rc =
        osTCPSend(socketId, bytes.data() + sent, static_cast<int>(bytes.size() - sent), 0, &count);
    if (rc == OS_ERROR_RETRY) continue;
    if (rc != OS_OK) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

bool wait_readable(long socketId, long timeoutMs) {
  long sockets[1] = {socketId};
  int count = 1;
  return osTCPSelect(sockets, &count, timeoutMs) == OS_OK && count == 1;
}

std::string receive_bytes(long socketId, size_t size, long timeoutMs) {
  const auto deadline = SteadyClock::now() + std::chrono::milliseconds(timeoutMs);
  std::string received;
  std::vector<char> buffer(65536);
  while (received.size() < size) {
    if (!wait_readable(socketId, remaining_ms(deadline))) break;
    int count = 0;
    int want = static_cast<int>(std::min(buffer.size(), size - received.size()));
    int rc = osTCPRecv(socketId, buffer.data(), want, 0, &count);
    if (rc == OS_ERROR_RETRY || rc == OS_ERROR_WOULD_BLOCK) continue;
    if (rc != OS_OK || count == 0) break;
    received.append(buffer.data(), static_cast<size_t>(count));
  }
  return received;
}

bool wait_for_close(long socketId, long timeoutMs) {
  const auto deadline = SteadyClock::now() + std::chrono::milliseconds(timeoutMs);
  std::vector<char> buffer(65536);
  for (;;) {
    if (!wait_readable(socketId, remaining_ms(deadline))) return false;
    int count = 0;
    int rc = osTCPRecv(socketId, buffer.data(), static_cast<int>(buffer.size()), 0, &count);
    if (rc == OS_ERROR_RETRY || rc == OS_ERROR_WOULD_BLOCK) continue;
    if (rc != OS_OK || count == 0) return true;
  }
}

bool wait_for_bytes(long socketId, size_t size, long timeoutMs) {
  if (size == 0) return true;
  const auto deadline = SteadyClock::now() + std::chrono::milliseconds(timeoutMs);
  std::vector<char> buffer(size + 1);
  for (;;) {
    int count = 0;
    int rc = osTCPRecv(socketId, buffer.data(), static_cast<int>(buffer.size()),
                       MSG_PEEK | MSG_DONTWAIT, &count);
    if (rc == OS_OK && static_cast<size_t>(count) >= size) return true;
    if (remaining_ms(deadline) == 0) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::string frame(const std::string& body) {
  std::string bytes(FrameHeader::HEADER_SIZE, '\0');
  FrameHeader::WriteMessageHeader(&bytes[0], static_cast<unsigned int>(body.size()));
  return bytes + body;
}

std::string raw_header(char marker, unsigned char version, unsigned int size) {
  std::string bytes(4, '\0');
  bytes[0] = marker;
  bytes[1] = static_cast<char>(version);
  bytes[2] = static_cast<char>((size >> 8) & 0xff);
  bytes[3] = static_cast<char>(size & 0xff);
  return bytes;
}

std::string pattern(size_t count, unsigned int seed) {
  std::string bytes(count, '\0');
  unsigned int value = seed * 2654435761u + 1;
  for (size_t i = 0; i < count; ++i) {
    value = value * 1103515245u + 12345u;
    bytes[i] = static_cast<char>(value >> 16);
  }
  return bytes;
}

// ---- RecordingSocketUser ------------------------------------------------------

void RecordingSocketUser::MessageReceived(FramedDataSocket& socket, void* data, unsigned int size) {
  std::string bytes(static_cast<const char*>(data), size);
  record("message:" + bytes);
  if (onMessage) onMessage(socket, bytes);
}

void RecordingSocketUser::SocketError(FramedDataSocket& socket) {
  record("error");
  if (onError) onError(socket);
}

void RecordingSocketUser::SocketClosed(FramedDataSocket& socket) {
  record("closed");
  if (onClosed) onClosed(socket);
}

void RecordingSocketUser::MessageFramingError(FramedDataSocket& /*socket*/) { record("framing"); }

std::vector<std::string> RecordingSocketUser::Events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

std::vector<std::string> RecordingSocketUser::Messages() const {
  std::vector<std::string> messages;
  for (const std::string& event : Events()) {
    if (event.compare(0, 8, "message:") == 0) messages.push_back(event.substr(8));
  }
  return messages;
}

int RecordingSocketUser::Count(const std::string& event) const {
  std::vector<std::string> events = Events();
  return static_cast<int>(std::count(events.begin(), events.end(), event));
}

void RecordingSocketUser::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.clear();
}

void RecordingSocketUser::record(const std::string& event) {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back(event);
}

// ---- ConnectedClient --------------------------------------------------------

ConnectedClient::ConnectedClient(bool nonBlocking, long receiveBufferSize, long sendBufferSize)
    : socket_(new FramedDataSocket(&user_, false, receiveBufferSize, sendBufferSize)) {
  // A non-blocking connect only starts the handshake (OS_ERROR_IN_PROGRESS),
  // so the socket connects blocking and changes mode afterwards.
  if (!socket_->Connect(listener_.Address(), 0, 0)) return;
  peer_ = listener_.Accept();
  if (nonBlocking) socket_->SetSocketIsNonBlocking(true);
}

ConnectedClient::~ConnectedClient() {
  socket_.reset();
  raw_close(peer_);
}

bool ConnectedClient::ReceiveMessages(size_t messages) {
  const auto deadline = SteadyClock::now() + std::chrono::seconds(5);
  while (user_.Messages().size() < messages) {
    if (remaining_ms(deadline) == 0) return false;
    wait_readable(Id(), 100);
    if (!socket_->Receive()) return user_.Messages().size() >= messages;
  }
  return true;
}

// ---- RecordingManagerUser ------------------------------------------------------

std::string event(const std::string& kind, Zor::Sockets::SocketHandle handle) {
  return kind + ":" + std::to_string(handle.Value());
}

void RecordingManagerUser::SocketAccepted(Manager& manager, Handle handle) {
  record(event("accepted", handle), handle);
  if (onAccepted) onAccepted(manager, handle);
}

void RecordingManagerUser::SocketClosed(Manager& manager, Handle handle) {
  record(event("closed", handle));
  if (onClosed) onClosed(manager, handle);
}

void RecordingManagerUser::MessageReceived(Manager& manager, Handle handle, void* data,
                                           unsigned int size) {
  std::string bytes(static_cast<const char*>(data), size);
  record(event("message", handle) + ":" + bytes);
  if (onMessage) onMessage(manager, handle, bytes);
}

void RecordingManagerUser::SelectError(Manager& manager) {
  record("select-error");
  if (onSelectError) onSelectError(manager);
}

void RecordingManagerUser::AcceptError(Manager& /*manager*/) { record("accept-error"); }

void RecordingManagerUser::TooManySocketErrors(Manager& manager) {
  record("too-many");
  if (onTooMany) onTooMany(manager);
}

bool RecordingManagerUser::AdmitClient(Manager& /*manager*/, const tOsTCPSocketAddress& farEnd) {
  return !admit || admit(farEnd);
}

void RecordingManagerUser::ClientRefused(Manager& /*manager*/, const tOsTCPSocketAddress& farEnd,
                                         Zor::Sockets::ClientRefusal reason) {
  char address[64] = {};
  osTCPAddressToString(&farEnd, address, sizeof address);
  record(std::string("refused:") + address +
         (reason == Zor::Sockets::ClientRefusal::NOT_ADMITTED ? ":not-admitted"
                                                              : ":no-descriptors"));
}

void RecordingManagerUser::ClientIdle(Manager& /*manager*/, Handle handle) {
  record(event("idle", handle));
}

std::vector<std::string> RecordingManagerUser::Events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

std::vector<RecordingManagerUser::Handle> RecordingManagerUser::Accepted() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return accepted_;
}

int RecordingManagerUser::Count(const std::string& prefix) const {
  int count = 0;
  for (const std::string& recorded : Events()) {
    if (recorded.compare(0, prefix.size(), prefix) == 0) ++count;
  }
  return count;
}

void RecordingManagerUser::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.clear();
  accepted_.clear();
}

void RecordingManagerUser::record(const std::string& recorded, Handle handle) {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back(recorded);
  if (handle != Handle()) accepted_.push_back(handle);
}

// ---- LockProbe ----------------------------------------------------------------

bool LockProbe::Run(const std::function<void()>& work, long timeoutMs) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  threads_.emplace_back([work, done] {
    work();
    done->set_value();
  });
  return finished.wait_for(std::chrono::milliseconds(timeoutMs)) == std::future_status::ready;
}

void LockProbe::Join() {
  for (std::thread& thread : threads_) {
    if (thread.joinable()) thread.join();
  }
  threads_.clear();
}

}  // namespace socket_test
