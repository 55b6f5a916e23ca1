#include "zor/sockets/FramedDataSocket.h"

#include <string.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>

#include "zor/Scoped.h"
#include "zor/sockets/SocketReport.h"

namespace Zor {
namespace Sockets {

namespace {

// Limits of the send and receive loops.
constexpr int MAX_SEND_RETRIES = 19;    // a 20th OS_ERROR_RETRY ends the send
constexpr int MAX_RECV_RETRIES = 20;    // consecutive OS_ERROR_RETRYs ending a receive
constexpr int MAX_SELECT_RETRIES = 19;  // a 20th select error ends the wait
constexpr unsigned long WRITE_WAIT_LIMIT_MS = 20000;

std::string text(long value) { return std::to_string(value); }

bool peer_gone(int rc) {
  return rc == OS_ERROR_CONN_RESET || rc == OS_ERROR_BROKEN_PIPE || rc == OS_ERROR_NOT_CONNECTED;
}

std::string pointer_text(const void* pointer) {
  std::ostringstream out;
  out << pointer;
  return out.str();
}

}  // namespace

FramedDataSocket::User::~User() = default;

FramedDataSocket::FramedDataSocket(User* user, bool nonBlocking, long receiveBufferSize,
                                   long sendBufferSize)
    : user_(user),
      socket_(OS_SOCK_STREAM, OS_IPPROTO_TCP),
      farEnd_{0, 0},
      socketIsNonBlocking_(nonBlocking),
      receiveBufferSize_(receiveBufferSize),
      sendBufferSize_(sendBufferSize),
      sendLock_(false, true) {
  // All three values are stored above, so Connect() applies each of them to
  // a new socket even when one fails here.
  SetSocketIsNonBlocking(nonBlocking) && SetReceiveBufferSize(receiveBufferSize) &&
      SetSendBufferSize(sendBufferSize);
}

FramedDataSocket::FramedDataSocket(User* user, long socketId, const tOsTCPSocketAddress& farEnd)
    : user_(user), socket_(socketId), farEnd_(farEnd), sendLock_(false, true) {}

FramedDataSocket::~FramedDataSocket() = default;

// ---- Options ---------------------------------------------------------------

bool FramedDataSocket::SetSocketIsNonBlocking(bool nonBlocking) {
  socketIsNonBlocking_ = nonBlocking;
  return applyOption(
      " trying to set non-blocking mode to ", flag_text(nonBlocking),
      [nonBlocking](long id) { return osTCPSetNonBlocking(id, nonBlocking ? 1 : 0); });
}

bool FramedDataSocket::SetReceiveBufferSize(long size) {
  receiveBufferSize_ = size;
  if (size == 0 || !socket_.IsOpen()) return true;
  if (size < 0) return false;
  return applyOption(" trying to set receive buffer size to ", text(size),
                     [size](long id) { return osTCPSetRcvBuf(id, size); });
}

bool FramedDataSocket::SetSendBufferSize(long size) {
  sendBufferSize_ = size;
  if (size == 0 || !socket_.IsOpen()) return true;
  if (size < 0) return false;
  return applyOption(" trying to set send buffer size to ", text(size),
                     [size](long id) { return osTCPSetSndBuf(id, size); });
}

// Applies one option to the open socket with `call`; a failure closes the
// socket and is logged as "Error r" + what + value + " on socket id".
bool FramedDataSocket::applyOption(const char* what, const std::string& value,
                                   const std::function<int(long)>& call) {
  long id;
  int rc;
  {
    ManagedOsaSocket::ScopedUse use(socket_);
    id = use.Id();
    if (id == -1) return true;  // no socket (any more): the value is only stored
    rc = call(id);
  }
  return optionApplied(rc, id, what, value);
}

bool FramedDataSocket::optionApplied(int rc, long socketId, const char* what,
                                     const std::string& value) {
  if (rc == OS_OK) return true;
  socket_.Close();
  report_socket_event(SOCKET_LOG_ERROR,
                      "Error " + text(rc) + what + value + " on socket " + text(socketId));
  return false;
}

void FramedDataSocket::Close() {
  socket_.Close();
  expectingHeader_.store(false, std::memory_order_relaxed);
  bytesExpected_.store(0, std::memory_order_relaxed);
}

// ---- Connect ---------------------------------------------------------------

bool FramedDataSocket::Connect(const tOsTCPSocketAddress& address, unsigned int retries,
                               unsigned long secondsBetweenRetries) {
  farEnd_ = address;
  for (unsigned int attempt = 0; attempt <= retries; ++attempt) {
    if (attempt > 0) {
      int rc = osSleep(secondsBetweenRetries * 1000);
      if (rc != OS_OK) {
        report_socket_event(SOCKET_LOG_ERROR,
                            "In Connect(): osSleep returned " + text(rc) + "; abandoning retries");
        return false;
      }
    }
    if (connectOnce(address)) return true;
    if (attempt == retries) break;  // keeps `attempt` from wrapping when retries is the maximum
  }
  return false;
}

bool FramedDataSocket::connectOnce(const tOsTCPSocketAddress& address) {
  if (!socket_.IsOpen() && !prepareNewSocket()) return false;
  long id;
  int rc;
  {
    ManagedOsaSocket::ScopedUse use(socket_);
    id = use.Id();
    rc = osTCPConnect(id, &address);
  }
  if (rc == OS_OK) {
    report_socket_event(SOCKET_LOG_DEBUG, "Socket " + text(id) + " connected to server at " +
                                              socket_address_text(address));
    return true;
  }
  // The socket stays open: the next attempt connects with it again.
  report_socket_event(SOCKET_LOG_ERROR, "Error " + text(rc) + " trying to connect to far end at " +
                                            socket_address_text(address) + " on socket " +
                                            text(id));
  return false;
}

bool FramedDataSocket::prepareNewSocket() {
  if (!socket_.Init(OS_SOCK_STREAM, OS_IPPROTO_TCP)) return false;
  resetFraming();
  return SetSocketIsNonBlocking(socketIsNonBlocking_) && SetReceiveBufferSize(receiveBufferSize_) &&
         SetSendBufferSize(sendBufferSize_);
}

void FramedDataSocket::resetFraming() {
  invalidDataReceived_ = false;
  expectingHeader_.store(true, std::memory_order_relaxed);
  bytesExpected_.store(FrameHeader::HEADER_SIZE, std::memory_order_relaxed);
  bytesReceived_ = 0;
}

// ---- Send ------------------------------------------------------------------

int FramedDataSocket::Send(const void* data, int length) {
  SendOutcome outcome;
  int result;
  {
    ScopedCriticalSectionLock lock(sendLock_);
    result = sendLoop(static_cast<const unsigned char*>(data), length, outcome);
  }
  // Outside the lock: the User may send again or close from its callback.
  if (outcome.error) notifyError();
  if (outcome.closed) notifyClosed();
  return result;
}

int FramedDataSocket::sendLoop(const unsigned char* data, int length, SendOutcome& outcome) {
  if (data == nullptr || length < 0) {
    report_socket_event(SOCKET_LOG_ERROR, "Send error: Invalid parameters: " + pointer_text(data) +
                                              " " + text(length));
    return -1;
  }
  if (length == 0) return 0;
  int total = 0;
  int retries = 0;
  for (;;) {
    if (!socket_.IsOpen()) {
      report_socket_event(SOCKET_LOG_INFO, "Send failed: Socket is closed");
      return -1;
    }
    SendStep step = sendOnce(data + total, length - total, outcome);
    if (step.count >= 0) total += step.count;
    if (step.retry) {
      // Retries follow each other at once: an interrupted send is repeated.
      if (++retries > MAX_SEND_RETRIES) {
        report_socket_event(SOCKET_LOG_ERROR, "osTCPSend on socket " + text(socket_.Get()) +
                                                  " received too many OS_ERROR_RETRYs");
        outcome.error = true;
        return -1;
      }
      continue;
    }
    if (step.wouldBlock) {
      if (!waitTillReadyToWrite(WRITE_WAIT_LIMIT_MS, outcome.error)) return -1;
      continue;
    }
    return step.count < 0 ? -1 : total;
  }
}

FramedDataSocket::SendStep FramedDataSocket::sendOnce(const unsigned char* data, int length,
                                                      SendOutcome& outcome) {
  ManagedOsaSocket::ScopedUse use(socket_);
  const long id = use.Id();
  int count = 0;
  int rc = osTCPSend(id, data, length, 0, &count);
  SendStep step{-1};
  if (rc == OS_OK) {
    step.count = count;
    if (count < length) {
      report_socket_event(SOCKET_LOG_DEBUG,
                          "Send partly blocked; sent " + text(count) + " out of " + text(length));
      step.wouldBlock = true;
    }
  } else if (rc == OS_ERROR_WOULD_BLOCK) {
    report_socket_event(SOCKET_LOG_DEBUG, "Send returned OS_ERROR_WOULD_BLOCK");
    step.count = 0;
    step.wouldBlock = true;
  } else if (rc == OS_ERROR_RETRY) {
    report_socket_event(SOCKET_LOG_DEBUG,
                        "Socket " + text(id) + ": osTCPSend returned OS_ERROR_RETRY");
    step.retry = true;
  } else if (peer_gone(rc)) {
    report_socket_event(SOCKET_LOG_INFO,
                        "Error " + text(rc) + " on socket " + text(id) + " (socket closed)");
    outcome.closed = true;
  } else {
    report_socket_event(SOCKET_LOG_ERROR, "Error " + text(rc) + " on socket " + text(id));
    outcome.error = true;
  }
  return step;
}

// Polls with a zero wait until the socket is writable: a busy wait, bounded
// by `limitMs`, which keeps the sending thread (and the send lock) for as
// short a time as the peer allows.
bool FramedDataSocket::waitTillReadyToWrite(unsigned long limitMs, bool& errorOccurred) {
  const unsigned long start = osGetClock();
  int selectErrors = 0;
  for (;;) {
    if (!socket_.IsOpen()) {
      report_socket_event(SOCKET_LOG_DEBUG,
                          "waitTillReadyToWrite giving up because socket is closed");
      return false;
    }
    int rc;
    {
      ManagedOsaSocket::ScopedUse use(socket_);
      long sockets[1] = {use.Id()};
      int count = 1;
      rc = osTCPSelectWrite(sockets, &count, 0);
    }
    if (rc == OS_OK) return true;
    if (rc == OS_ERROR_TIMEOUT) {
      if (osGetClock() - start >= limitMs) {
        report_socket_event(SOCKET_LOG_ERROR, "In FramedDataSocket, timed out waiting for socket " +
                                                  text(socket_.Get()) + " to unblock");
        return false;
      }
      continue;
    }
    if (!HandleSelectError(rc, selectErrors)) {
      errorOccurred = true;
      return false;
    }
  }
}

bool FramedDataSocket::HandleSelectError(int rc, int& selectErrors) {
  if (rc == OS_ERROR_RETRY || rc == OS_ERROR_SELECT_RETRY) {
    report_socket_event(SOCKET_LOG_DEBUG,
                        "In FramedDataSocket, osTCPSelect returned " + text(rc) + "; will retry");
    if (++selectErrors <= MAX_SELECT_RETRIES) return true;
    report_socket_event(
        SOCKET_LOG_ERROR,
        "In FramedDataSocket, error " + text(rc) +
            " returned by osTCPSelect; maximum number of retries already attempted");
    return false;
  }
  report_socket_event(SOCKET_LOG_ERROR,
                      "In FramedDataSocket, error " + text(rc) + " returned by osTCPSelect");
  return false;
}

// ---- Receive ---------------------------------------------------------------

bool FramedDataSocket::Receive(unsigned int maxMessages, unsigned int* delivered) {
  if (delivered != nullptr) *delivered = 0;
  const bool open = socket_.IsOpen();
  if (!open || invalidDataReceived_) {
    report_socket_event(SOCKET_LOG_WARNING,
                        std::string("Invalid call to FramedDataSocket::Receive: ") +
                            "IsOpen: " + flag_text(open) +
                            " invalidDataReceived: " + flag_text(invalidDataReceived_));
    return false;
  }
  ReceiveState state;
  while (maxMessages == 0 || state.messages < maxMessages) {
    if (!readOnce(state)) break;
  }
  if (delivered != nullptr) *delivered = state.messages;
  return state.result;
}

// One read for the frame being assembled; false when reading stops.
bool FramedDataSocket::readOnce(ReceiveState& state) {
  const unsigned int expected = bytesExpected_.load(std::memory_order_relaxed);
  // Nothing left to ask for: an invalid header announced an empty body (a
  // read of 0 bytes would look like the peer closing), or Close() cleared
  // the state from another thread.
  if (expected <= bytesReceived_) return socket_.IsOpen() ? false : closedByNearEnd(state);
  ensureReceiveBuffer(expected);
  long id;
  int count = 0;
  int rc;
  {
    ManagedOsaSocket::ScopedUse use(socket_);
    id = use.Id();
    // Close() from another thread got in since the state was read (during a
    // delivery callback, say, whose end then set the state up again).
    if (id == -1) return closedByNearEnd(state);
    rc = osTCPRecv(id, receiveBuffer_.get() + bytesReceived_,
                   static_cast<int>(expected - bytesReceived_), 0, &count);
  }
  if (rc != OS_ERROR_RETRY) state.consecutiveRetries = 0;
  if (rc == OS_OK && count > 0) {
    state.result = HandleSuccessfulRecv(static_cast<unsigned int>(count), expected, state.messages);
    return true;
  }
  if (rc == OS_ERROR_WOULD_BLOCK) return false;  // nothing more to read
  return handleFailedRecv(rc, id, state);
}

// Close() on another thread ended the connection before this thread's next
// read: the same end as a read woken by that close.
bool FramedDataSocket::closedByNearEnd(ReceiveState& state) {
  report_socket_event(SOCKET_LOG_INFO, "Socket closed by near end");
  state.result = false;
  notifyClosed();
  return false;
}

// A read that brought no data: the peer closed, or the platform failed.
// False when reading stops.
bool FramedDataSocket::handleFailedRecv(int rc, long id, ReceiveState& state) {
  if (rc == OS_ERROR_RETRY) {
    report_socket_event(SOCKET_LOG_DEBUG,
                        "Socket " + text(id) + ": osTCPRecv returned OS_ERROR_RETRY");
    if (++state.consecutiveRetries < MAX_RECV_RETRIES) return true;  // at once
    report_socket_event(SOCKET_LOG_ERROR,
                        "Socket " + text(id) + " received too many OS_ERROR_RETRYs on osTCPRecv");
    state.result = false;
    notifyError();
    return false;
  }
  state.result = false;
  if (rc == OS_OK) {
    report_socket_event(SOCKET_LOG_INFO, "Socket " + text(id) + " closed by far end");
    notifyClosed();
  } else if (peer_gone(rc)) {
    report_socket_event(
        SOCKET_LOG_INFO,
        "Socket " + text(id) + " closed by near or far end (result " + text(rc) + ")");
    notifyClosed();
  } else {
    report_socket_event(SOCKET_LOG_ERROR, "Error " + text(rc) + " on socket " + text(id));
    notifyError();
  }
  return false;
}

// `expected` is the frame length that the read was asked to complete; the
// handling works on it rather than on the member, which Close() may clear
// from another thread meanwhile.
bool FramedDataSocket::HandleSuccessfulRecv(unsigned int count, unsigned int expected,
                                            unsigned int& messages) {
  bytesReceived_ += count;
  if (bytesReceived_ > expected) {
    report_socket_event(SOCKET_LOG_ERROR, "LOGIC ERROR: expected " + text(expected) +
                                              " bytes, received " + text(bytesReceived_));
  }
  if (bytesReceived_ < expected) return true;
  if (expectingHeader_.load(std::memory_order_relaxed)) return handleHeader(expected);
  deliverFrame(expected);
  ++messages;
  return true;
}

// The header is complete: from now on the body it announces is awaited, even
// when the header is invalid. The Receive() call that finds it goes on
// reading; only later calls are refused.
bool FramedDataSocket::handleHeader(unsigned int expected) {
  FrameHeader header(receiveBuffer_.get());
  expectingHeader_.store(false, std::memory_order_relaxed);
  bytesExpected_.store(expected + header.GetMessageSize(), std::memory_order_relaxed);
  if (header.IsValid()) return true;
  invalidDataReceived_ = true;
  if (user_ != nullptr) user_->MessageFramingError(*this);
  return false;
}

void FramedDataSocket::deliverFrame(unsigned int frameSize) {
  if (user_ != nullptr) {
    if (receivedDataShouldIncludeHeader_) {
      user_->MessageReceived(*this, receiveBuffer_.get(), frameSize);
    } else {
      user_->MessageReceived(*this, receiveBuffer_.get() + FrameHeader::HEADER_SIZE,
                             frameSize - FrameHeader::HEADER_SIZE);
    }
  }
  expectingHeader_.store(true, std::memory_order_relaxed);
  bytesExpected_.store(FrameHeader::HEADER_SIZE, std::memory_order_relaxed);
  bytesReceived_ = 0;
}

// Grows the buffer to the larger of `size` and twice its capacity, but never
// beyond the largest frame: a peer cannot make it grow without bound.
void FramedDataSocket::ensureReceiveBuffer(unsigned int size) {
  if (receiveBufferCapacity_ >= size) return;
  unsigned int capacity = std::max(size, std::min(2 * receiveBufferCapacity_, MAX_FRAME_SIZE));
  std::unique_ptr<unsigned char[]> grown(new unsigned char[capacity]());
  // The count is clamped to what the old buffer holds: a platform call that
  // reported more bytes than it was asked for must not make this read past it.
  const unsigned int kept = std::min(bytesReceived_, receiveBufferCapacity_);
  if (kept > 0) memcpy(grown.get(), receiveBuffer_.get(), kept);
  receiveBuffer_.swap(grown);
  receiveBufferCapacity_ = capacity;
}

void FramedDataSocket::notifyError() {
  if (user_ != nullptr) user_->SocketError(*this);
}

void FramedDataSocket::notifyClosed() {
  if (user_ != nullptr) user_->SocketClosed(*this);
}

}  // namespace Sockets
}  // namespace Zor
