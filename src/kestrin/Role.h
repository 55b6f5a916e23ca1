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
// The Agent (forwards to the Master over TCP) and the Master (also processes
// the Agents' requests) are not part of this build: initialize_role refuses
// them with a clear message and exit status 1.
//
// Threads: the main thread creates, starts and calls the role.
#ifndef KESTRIN_KESTRIN_ROLE_H_
#define KESTRIN_KESTRIN_ROLE_H_

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

// The active role; null until initialize_role.
extern Role* RolePtr;

// Resolves the automatic role (KestrinsRoleType 3) to Agent or Solo, creates
// the role and stores it in RolePtr. Ends the process with status 1 for a
// role that this build does not provide (Agent, Master) and for an
// impossible role type ("Logic error: invalid role type").
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
