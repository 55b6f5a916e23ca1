#include "zor/sockets/ServerSocketManager.h"

#include <stdlib.h>

#include <atomic>
#include <string>

#include "zor/Scoped.h"
#include "zor/sockets/SocketReport.h"

namespace Zor {
namespace Sockets {

namespace {

constexpr size_t INITIAL_SELECT_ARRAY_SIZE = 12;
constexpr int MAX_SELECT_RETRIES = 19;              // a 20th select error fails
constexpr unsigned int MESSAGES_PER_RECEIVE = 100;  // per client per select

std::string text(long value) { return std::to_string(value); }

std::atomic<unsigned int> next_handle_value{1};

}  // namespace

SocketHandle SocketHandle::Next() {
  return SocketHandle(next_handle_value.fetch_add(1, std::memory_order_relaxed));
}

ServerSocketManager::User::~User() = default;
void ServerSocketManager::User::SocketAccepted(ServerSocketManager&, SocketHandle) {}
void ServerSocketManager::User::SocketClosed(ServerSocketManager&, SocketHandle) {}
bool ServerSocketManager::User::AdmitClient(ServerSocketManager&, const tOsTCPSocketAddress&) {
  return true;
}
void ServerSocketManager::User::ClientRefused(ServerSocketManager&, const tOsTCPSocketAddress&,
                                              ClientRefusal) {}
void ServerSocketManager::User::ClientIdle(ServerSocketManager&, SocketHandle) {}

ServerSocketManager::ServerSocketManager(User* user, const tOsTCPSocketAddress& localAddress)
    : user_(user),
      listeningSocket_(*this, localAddress),
      selectArray_(INITIAL_SELECT_ARRAY_SIZE, -1),
      lock_(false, true) {}

ServerSocketManager::~ServerSocketManager() = default;

bool ServerSocketManager::Init(unsigned int retries, unsigned long secondsBetweenRetries) {
  for (unsigned int attempt = 0; attempt <= retries; ++attempt) {
    if (attempt > 0) {
      int rc = osSleep(secondsBetweenRetries * 1000);
      if (rc != OS_OK) {
        // The text names Connect() as the client side's does; it is kept so.
        report_socket_event(SOCKET_LOG_ERROR,
                            "In Connect(): osSleep returned " + text(rc) + "; abandoning retries");
        return false;
      }
    }
    if (listeningSocket_.Init()) return true;
    if (attempt == retries) break;  // keeps `attempt` from wrapping when retries is the maximum
  }
  return false;
}

// ---- Settings and queries --------------------------------------------------

void ServerSocketManager::SetReceivedDataShouldIncludeHeader(bool include) {
  ScopedCriticalSectionLock lock(lock_);
  receivedDataShouldIncludeHeader_ = include;
}

void ServerSocketManager::SetMaximumNumberOfClients(unsigned int maximum) {
  ScopedCriticalSectionLock lock(lock_);
  maximumNumberOfClients_ = maximum;
}

void ServerSocketManager::SetCloseOtherSocketsAtSameIPAddress(bool closeOthers) {
  ScopedCriticalSectionLock lock(lock_);
  closeOtherSocketsAtSameIPAddress_ = closeOthers;
}

void ServerSocketManager::SetIdleTimeout(unsigned long milliseconds) {
  ScopedCriticalSectionLock lock(lock_);
  idleTimeoutMs_ = milliseconds;
}

unsigned int ServerSocketManager::GetNumberOfClients() {
  ScopedCriticalSectionLock lock(lock_);
  return static_cast<unsigned int>(socketsByHandle_.size());
}

tOsTCPSocketAddress ServerSocketManager::GetAddressOfFarEnd(SocketHandle handle) {
  {
    ScopedCriticalSectionLock lock(lock_);
    auto found = socketsByHandle_.find(handle);
    if (found != socketsByHandle_.end()) return found->second->socket.GetAddressOfFarEnd();
  }
  report_socket_event(SOCKET_LOG_DEBUG,
                      "GetAddressOfFarEnd failing because socket handle not found");
  return tOsTCPSocketAddress{0, 0};
}

int ServerSocketManager::Send(SocketHandle handle, const void* data, int length) {
  DataSocketPtr entry;
  {
    ScopedCriticalSectionLock lock(lock_);
    entry = findLocked(handle);
  }
  if (entry.IsNil()) {
    report_socket_event(SOCKET_LOG_DEBUG, "Send failing because socket handle not found");
    return -1;
  }
  // Without the lock: a send may wait for the peer, and its callbacks take
  // the lock themselves.
  int result = entry->socket.Send(data, length);
  release(entry);
  return result;
}

void ServerSocketManager::Close() {
  report_socket_event(SOCKET_LOG_DEBUG, "Closing the ServerSocketManager");
  listeningSocket_.Close();
  ScopedCriticalSectionLock lock(lock_);
  // Closed explicitly: a holder of a counted reference keeps the object, not
  // the connection.
  for (auto& entry : socketsByHandle_) entry.second->socket.Close();
  socketsByHandle_.clear();
  socketsById_.clear();
}

// ---- Select ----------------------------------------------------------------

bool ServerSocketManager::Select() {
  int errors = 0;
  for (;;) {
    long timeoutMs = -1;
    const int arraySize = InitSocketArraysForSelect(&timeoutMs);
    if (arraySize == 0) return false;
    int count = arraySize;
    int rc = osTCPSelect(selectArray_.data(), &count, timeoutMs);
    if (rc == OS_ERROR_TIMEOUT) {
      errors = 0;
      if (timeoutMs < 0) continue;
      CloseIdleClients();
      return true;
    }
    if (rc == OS_OK && count >= 0 && count <= arraySize) {
      HandleReadActivity(count);
      CloseIdleClients();
      return true;
    }
    // Close() from another thread between building the array and the wait
    // leaves a closed descriptor in it: the manager was closed, which is
    // not a failure.
    if (rc == OS_ERROR_BAD_SOCKET && listeningSocket_.GetSocketID() == -1) return false;
    if (!HandleSelectError(rc, count, arraySize, errors)) {
      if (user_ != nullptr) user_->SelectError(*this);
      return false;
    }
  }
}

// Entry 0 is the listening socket, then every client in ascending identifier
// order. Returns the number of entries, 0 when there is no listening socket.
// `timeoutMs` receives how long the wait may last: until the first client
// falls silent for the idle time-out, -1 (for ever) without one.
int ServerSocketManager::InitSocketArraysForSelect(long* timeoutMs) {
  ScopedCriticalSectionLock lock(lock_);
  const long listening = listeningSocket_.GetSocketID();
  if (listening == -1) return 0;
  const size_t needed = 1 + socketsById_.size();
  if (selectArray_.size() < needed) selectArray_.resize(needed);
  size_t next = 0;
  selectArray_[next++] = listening;
  const unsigned long now = osGetClock();
  *timeoutMs = idleTimeoutMs_ == 0 ? -1 : static_cast<long>(idleTimeoutMs_);
  for (const auto& entry : socketsById_) {
    selectArray_[next++] = entry.first;
    if (idleTimeoutMs_ == 0) continue;
    const unsigned long silent = now - entry.second->lastActivity;
    const long left = silent >= idleTimeoutMs_ ? 0 : static_cast<long>(idleTimeoutMs_ - silent);
    if (left < *timeoutMs) *timeoutMs = left;
  }
  return static_cast<int>(needed);
}

void ServerSocketManager::CloseIdleClients() {
  std::vector<SocketHandle> idle;
  {
    ScopedCriticalSectionLock lock(lock_);
    if (idleTimeoutMs_ == 0) return;
    const unsigned long now = osGetClock();
    for (auto it = socketsById_.begin(); it != socketsById_.end();) {
      if (now - it->second->lastActivity < idleTimeoutMs_) {
        ++it;
        continue;
      }
      idle.push_back(it->second->handle);
      it->second->socket.Close();
      socketsByHandle_.erase(it->second->handle);
      it = socketsById_.erase(it);
    }
  }
  if (user_ == nullptr) return;
  for (SocketHandle handle : idle) {
    user_->ClientIdle(*this, handle);
    user_->SocketClosed(*this, handle);
  }
}

bool ServerSocketManager::HandleSelectError(int rc, int count, int arraySize, int& errors) {
  if (count < 0 || count > arraySize) {
    report_socket_event(SOCKET_LOG_ERROR,
                        "Number of sockets specified by osTCPSelect  is invalid; exiting.");
    exit(1);
  }
  if (rc == OS_ERROR_RETRY || rc == OS_ERROR_SELECT_RETRY) {
    report_socket_event(SOCKET_LOG_DEBUG, "osTCPSelect returned " + text(rc) + "; will retry");
    if (++errors <= MAX_SELECT_RETRIES) return true;
    report_socket_event(
        SOCKET_LOG_ERROR,
        "Error " + text(rc) +
            " returned by osTCPSelect; maximum number of retries already attempted");
    return false;
  }
  report_socket_event(SOCKET_LOG_ERROR, "Error " + text(rc) + " returned by osTCPSelect");
  return false;
}

void ServerSocketManager::HandleReadActivity(int count) {
  // The ready identifiers are copied first: an Accept() below may add
  // clients, and nothing else may touch the array while it is walked.
  const std::vector<long> ready(selectArray_.begin(), selectArray_.begin() + count);
  const long listening = listeningSocket_.GetSocketID();
  for (long socketId : ready) {
    if (socketId == -1) break;
    if (socketId == listening) {
      listeningSocket_.Accept();
    } else {
      receiveFrom(socketId);
    }
  }
}

void ServerSocketManager::receiveFrom(long socketId) {
  DataSocketPtr entry;
  {
    ScopedCriticalSectionLock lock(lock_);
    auto found = socketsById_.find(socketId);
    if (found != socketsById_.end()) entry = found->second;
  }
  if (entry.IsNil()) {
    report_socket_event(SOCKET_LOG_DEBUG,
                        "Socket " + text(socketId) +
                            " returned in read array from select no longer exists. (Listening "
                            "socket is " +
                            text(listeningSocket_.GetSocketID()) + ".)");
    return;
  }
  // The counted reference keeps the client alive while its callbacks run
  // without the lock and perhaps remove it from the maps.
  entry->socket.Receive(MESSAGES_PER_RECEIVE);
  {
    ScopedCriticalSectionLock lock(lock_);
    entry->lastActivity = osGetClock();
  }
  release(entry);
}

// ---- Accepting ---------------------------------------------------------------

void ServerSocketManager::SocketAccepted(ListeningSocket& /*listener*/, long socketId,
                                         const tOsTCPSocketAddress& farEnd) {
  if (user_ != nullptr && !user_->AdmitClient(*this, farEnd)) {
    osTCPClose(socketId);
    user_->ClientRefused(*this, farEnd, ClientRefusal::NOT_ADMITTED);
    return;
  }
  if (IsClientLimitExceeded(socketId)) return;
  bool closeOthers;
  {
    ScopedCriticalSectionLock lock(lock_);
    closeOthers = closeOtherSocketsAtSameIPAddress_;
  }
  if (closeOthers) CloseAnyOtherSocketAtSameIPAddress(farEnd);
  SocketHandle replaced;
  SocketHandle handle;
  {
    ScopedCriticalSectionLock lock(lock_);
    if (!addClient(socketId, farEnd, handle, replaced)) return;
  }
  if (user_ == nullptr) return;
  if (replaced != SocketHandle()) user_->SocketClosed(*this, replaced);
  user_->SocketAccepted(*this, handle);
}

bool ServerSocketManager::IsClientLimitExceeded(long socketId) {
  {
    ScopedCriticalSectionLock lock(lock_);
    if (maximumNumberOfClients_ == 0 || socketsByHandle_.size() < maximumNumberOfClients_) {
      return false;
    }
  }
  report_socket_event(SOCKET_LOG_WARNING,
                      "Maximum number of clients exceeded: closing socket " + text(socketId));
  int rc = osTCPClose(socketId);
  if (rc != OS_OK) {
    report_socket_event(SOCKET_LOG_WARNING,
                        "Error " + text(rc) + " closing socket " + text(socketId));
  }
  return true;
}

// A card that reconnects replaces its old connection.
void ServerSocketManager::CloseAnyOtherSocketAtSameIPAddress(const tOsTCPSocketAddress& farEnd) {
  std::vector<SocketHandle> closed;
  {
    ScopedCriticalSectionLock lock(lock_);
    for (auto it = socketsById_.begin(); it != socketsById_.end();) {
      if (it->second->socket.GetAddressOfFarEnd().ipAddress == farEnd.ipAddress) {
        closed.push_back(it->second->handle);
        socketsByHandle_.erase(it->second->handle);
        it = socketsById_.erase(it);
      } else {
        ++it;
      }
    }
  }
  if (user_ == nullptr) return;
  for (SocketHandle handle : closed) user_->SocketClosed(*this, handle);
}

// Under the lock. Builds the client under a new `handle` and enters it in
// both maps; false when it could not be made non-blocking (it is then
// dropped, unreported). `replaced` receives the handle of an entry that held
// the same identifier.
bool ServerSocketManager::addClient(long socketId, const tOsTCPSocketAddress& farEnd,
                                    SocketHandle& handle, SocketHandle& replaced) {
  handle = SocketHandle::Next();
  DataSocketPtr entry(new DataSocketAndInfo(this, socketId, farEnd, handle));
  entry->socket.SetReceivedDataShouldIncludeHeader(receivedDataShouldIncludeHeader_);
  if (!entry->socket.SetSocketIsNonBlocking(true)) return false;
  entry->lastActivity = osGetClock();
  auto old = socketsById_.find(socketId);
  if (old != socketsById_.end()) {
    report_socket_event(SOCKET_LOG_WARNING, "ID of accepted socket, " + text(socketId) +
                                                ", was already in use; old socket being removed");
    replaced = old->second->handle;
    // The identifier now belongs to the new client: the old entry must not
    // close it when it goes.
    if (old->second->socket.GetSocketID() == socketId) old->second->socket.ReleaseSocketID();
    socketsByHandle_.erase(replaced);
    socketsById_.erase(old);
  }
  socketsByHandle_[handle] = entry;
  socketsById_[socketId] = entry;
  return true;
}

void ServerSocketManager::AcceptError(ListeningSocket& /*listener*/) {
  if (user_ != nullptr) user_->AcceptError(*this);
}

void ServerSocketManager::AcceptRefused(ListeningSocket& /*listener*/,
                                        const tOsTCPSocketAddress& farEnd) {
  if (user_ != nullptr) user_->ClientRefused(*this, farEnd, ClientRefusal::NO_DESCRIPTORS);
}

// ---- Framed-socket callbacks -----------------------------------------------

void ServerSocketManager::MessageReceived(FramedDataSocket& socket, void* data, unsigned int size) {
  SocketHandle handle;
  {
    ScopedCriticalSectionLock lock(lock_);
    auto found = findLocked(socket);
    if (found == socketsById_.end()) return;
    handle = found->second->handle;
  }
  if (user_ != nullptr) user_->MessageReceived(*this, handle, data, size);
}

void ServerSocketManager::SocketClosed(FramedDataSocket& socket) {
  SocketHandle handle;
  {
    ScopedCriticalSectionLock lock(lock_);
    if (!removeLocked(socket, handle)) return;
  }
  if (user_ != nullptr) user_->SocketClosed(*this, handle);
}

void ServerSocketManager::SocketError(FramedDataSocket& socket) { handleSocketFailure(socket); }

void ServerSocketManager::MessageFramingError(FramedDataSocket& socket) {
  handleSocketFailure(socket);
}

void ServerSocketManager::handleSocketFailure(FramedDataSocket& socket) {
  SocketHandle handle;
  bool withinLimit;
  {
    ScopedCriticalSectionLock lock(lock_);
    if (!removeLocked(socket, handle)) return;
    withinLimit = recordSocketError();
  }
  if (user_ == nullptr) return;
  user_->SocketClosed(*this, handle);
  if (!withinLimit) user_->TooManySocketErrors(*this);
}

// Under the lock. Records one socket error and tells whether the errors of
// the last five minutes stay within the limit: at most errorFactor_ errors
// per socket, counted against the most sockets seen in that period.
bool ServerSocketManager::recordSocketError() {
  const unsigned long now = osGetClock();
  while (!errorRecords_.empty() && now - errorRecords_.front().time > errorPeriodMs_) {
    errorRecords_.pop_front();
  }
  const unsigned int sockets = static_cast<unsigned int>(socketsByHandle_.size()) + 1;
  errorRecords_.push_back(ErrorRecord{now, sockets});
  if (errorRecords_.size() <= errorFactor_ * sockets) return true;
  unsigned int largest = 0;
  for (const ErrorRecord& record : errorRecords_) largest = std::max(largest, record.sockets);
  if (errorRecords_.size() <= errorFactor_ * largest) return true;
  report_socket_event(SOCKET_LOG_ERROR, "Socket error limit exceeded; " +
                                            text(static_cast<long>(errorRecords_.size())) +
                                            " errors on " + text(largest) + " sockets in " +
                                            text(errorPeriodMs_ / 1000) + " seconds or less");
  return false;
}

// ---- Lookups (under the lock) ----------------------------------------------

std::map<long, ServerSocketManager::DataSocketPtr>::iterator ServerSocketManager::findLocked(
    FramedDataSocket& socket) {
  auto found = socketsById_.find(socket.GetSocketID());
  if (found != socketsById_.end() && &found->second->socket == &socket) return found;
  // A socket closed meanwhile no longer has the identifier it was entered
  // under.
  for (auto it = socketsById_.begin(); it != socketsById_.end(); ++it) {
    if (&it->second->socket == &socket) return it;
  }
  return socketsById_.end();
}

bool ServerSocketManager::removeLocked(FramedDataSocket& socket, SocketHandle& handle) {
  auto found = findLocked(socket);
  if (found == socketsById_.end()) return false;
  handle = found->second->handle;
  socketsByHandle_.erase(handle);
  socketsById_.erase(found);
  return true;
}

ServerSocketManager::DataSocketPtr ServerSocketManager::findLocked(SocketHandle handle) {
  auto found = socketsByHandle_.find(handle);
  return found == socketsByHandle_.end() ? DataSocketPtr() : found->second;
}

void ServerSocketManager::release(DataSocketPtr& entry) {
  ScopedCriticalSectionLock lock(lock_);
  entry.Reset();
}

}  // namespace Sockets
}  // namespace Zor
