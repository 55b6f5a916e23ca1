// The card's role: what happens to each request the main loop takes off the
// local request queue.
//
// A card plays one role for the life of the process. initialize_role picks
// it from KestrinsRoleType (resolving the automatic choice) and stores it in
// RolePtr; the process entry starts it, the stop client tells it a shutdown
// is coming, and clean-up shuts it down. The role object is never destroyed.
//
// Class tree:
//   Role             abstract: the operations every role offers
//   MainCardRole     processes the four local requests on this card
//   SoloRole         a stand-alone card: nothing to start or stop
//   MasterRole       a main card that also serves the Agents over TCP
//                    (MasterRole.h)
//   AgentRole        forwards every request to the Master over TCP
//                    (AgentRole.h)
//
// Threads: the main thread creates, starts and calls the role; the Agent and
// the Master each run one network thread of their own.
//
// Frames and queue records. A request travels between cards as a frame: the
// 4-byte frame header (zor/sockets/FrameHeader.h) followed directly by the
// record in network byte order, the header announcing the record's size. On
// the request queue the same record follows the 8-byte type word instead
// (tKesLoggerMessage). The two layouts differ by 4 bytes in front of the
// record, so the roles copy the record between a tKesFrame and a
// tKesLoggerMessage rather than overwrite the header in place. The lengths
// line up with the queue convention of Records.h: a frame of N bytes carries
// a record of N - 4 bytes, which goes to msgsnd with KesQueueSendLength(N -
// 4) = N; a record of size S taken off the queue goes out as a frame of S + 4
// bytes.
#ifndef KESTRIN_KESTRIN_ROLE_H_
#define KESTRIN_KESTRIN_ROLE_H_

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "kestrin/Globals.h"
#include "kestrin/Records.h"
#include "osa/osa.h"

namespace kestrin {

// The Master's host name or address (option -h; empty: none given) and the
// TCP port on which Agents reach it (option -p; default 8090).
extern std::string MastersHostname;
extern uint16_t MastersPort;
constexpr uint16_t KES_DEFAULT_MASTERS_PORT = 8090;

class Role {
 public:
  Role() : shouldLogCardID(true) {}
  virtual ~Role();

  // Called once by the process entry right after initialize_role; false ends
  // the process ("Failed to start role; exiting", status 1).
  virtual bool StartUp() = 0;
  // Called by clean-up, before the log files are flushed, with the reason
  // code (901..904) and its text.
  virtual void ShutDown(int reason, const char* text) = 0;
  // Called by the stop client before the shutdown request is sent, so that a
  // role with threads stops waiting on the network.
  virtual void ShutDownPending() = 0;

  // The local requests, each given the whole queue record (type word, header,
  // body) and the record's size (header plus body) as the main loop counts
  // it. `slot` is the sending client's registration-table slot.
  virtual void LocalAddLogMessage(tKesLoggerMessage* message, unsigned int size,
                                  unsigned int slot) = 0;
  virtual void LocalLogFileSizeMessage(tKesLoggerMessage* message, unsigned int size) = 0;
  virtual void LocalCoreRegisterMessage(tKesLoggerMessage* message, unsigned int size) = 0;
  virtual void LocalRegHandleMessage(tKesLoggerMessage* message, unsigned int size) = 0;

  // Whether add-log processing puts the originating card's ID into lines.
  void SetShouldLogCardID(bool value) { shouldLogCardID = value; }
  bool ShouldLogCardID() const { return shouldLogCardID; }

 private:
  bool shouldLogCardID;  // true unless the role says otherwise (Solo: false)
};

// Processes requests on this card: writes the log files, raises alarms.
class MainCardRole : public Role {
 public:
  // process_add_log_message on the add-log record.
  void LocalAddLogMessage(tKesLoggerMessage* message, unsigned int size,
                          unsigned int slot) override;
  // process_set_log_file_size_message on the log-file-size record.
  void LocalLogFileSizeMessage(tKesLoggerMessage* message, unsigned int size) override;
  // process_core_registration on the core-register record.
  void LocalCoreRegisterMessage(tKesLoggerMessage* message, unsigned int size) override;
  // A RegHandle record only ever travels from a Master to an Agent: one
  // error line, and the record is ignored.
  void LocalRegHandleMessage(tKesLoggerMessage* message, unsigned int size) override;
};

// A stand-alone card: its lines carry no card ID; nothing to start or stop.
class SoloRole : public MainCardRole {
 public:
  SoloRole() { SetShouldLogCardID(false); }
  bool StartUp() override { return true; }
  void ShutDown(int /*reason*/, const char* /*text*/) override {}
  void ShutDownPending() override {}
};

// A frame as it is built for sending or checked after receiving: the frame
// header, then one record (4-aligned, as the records need).
struct tKesFrame {
  unsigned char frameHeader[4];
  union {
    tKesMessage header;
    tKesAddLogMessage addLog;
    tKesLogFileSizeMessage logFileSize;
    tKesUnregAddLogMessage unregAddLog;
    tKesRegHandleMessage regHandle;
    tKesAgentGreetingsMessage agentGreetings;
    char record[KES_MAX_QUEUE_TEXT - KES_QUEUE_LENGTH_ALLOWANCE];
  };
};
static_assert(offsetof(tKesFrame, header) == 4, "the record follows the frame header directly");

// The size of the largest frame whose record fits one receive of the main
// loop: 1720 bytes of record and its header.
constexpr unsigned int KES_MAX_QUEUEABLE_FRAME = KES_MAX_QUEUE_TEXT;

// Writes the frame header for a record of `recordSize` bytes into `frame`
// and returns the frame's size, recordSize + 4.
unsigned int FinishFrame(tKesFrame* frame, unsigned int recordSize);

// Fills `message` from the frame of `frameSize` bytes at `frame` (at least
// 4; at most KES_MAX_QUEUEABLE_FRAME bytes are looked at): type word 1, the
// record, zero bytes after it. Returns the record's size (frameSize - 4, or
// less when the frame was cut to fit).
unsigned int QueueMessageFromFrame(tKesLoggerMessage* message, const void* frame,
                                   unsigned int frameSize);

// Puts a record of `recordSize` bytes, prepared in `message` with type word 1
// and zero bytes after it, on the daemon's own request queue, waiting while
// the queue is full. Returns the platform layer's result.
int SendToOwnQueue(tKesLoggerMessage* message, unsigned int recordSize);

// The active role; null until initialize_role.
extern Role* RolePtr;

// Resolves the automatic role (KestrinsRoleType 3) to Agent or Solo, creates
// the role and stores it in RolePtr: an AgentRole with the card name
// "SomeCard", a MasterRole with "CRC" (both given MastersAddress), or a
// SoloRole. Ends the process with status 1 for an impossible role type
// ("Logic error: invalid role type").
void initialize_role();

// The Master's address as initialize_role resolved it; zero (address 0,
// port 0) when no host name was given or it could not be resolved.
extern tOsTCPSocketAddress MastersAddress;

// Resolves `hostName` (a name or a dotted address) to exactly one IPv4
// address and stores it with `port` in `*address`. False, after an error
// line, when it has none or several; false without a line for a null
// `address`.
bool AddressAsStruct(const char* hostName, unsigned short port, tOsTCPSocketAddress* address);

// Whether `ipAddress` (IPv4, host byte order) is one of this host's
// interface addresses; the answer goes to `*answer`. Returns false when the
// question could not be answered (after an error line; `*answer` is then
// false) or `answer` is null.
bool IsIpAddressOnThisHost(unsigned long ipAddress, bool* answer);

// "Agent", "Master", "Solo", "Default"; any other value as its number.
std::ostream& operator<<(std::ostream& out, RoleType role);

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_ROLE_H_
