#include "kestrin/Role.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "kestrin/AddLog.h"
#include "kestrin/AgentRole.h"
#include "kestrin/InternalLog.h"
#include "kestrin/MasterRole.h"
#include "kestrin/OtherRequests.h"
#include "zor/sockets/FrameHeader.h"

namespace kestrin {

std::string MastersHostname;
uint16_t MastersPort = KES_DEFAULT_MASTERS_PORT;
Role* RolePtr = nullptr;
tOsTCPSocketAddress MastersAddress = {0, 0};

namespace {

// Room for this many interface entries at the first try; doubled while the
// platform fills the buffer completely (the list may have been cut).
constexpr size_t INITIAL_IP_LIST_ENTRIES = 11;

// The card names the Agent and the Master are given; fixed, not configured.
constexpr char AGENT_CARD_NAME[] = "SomeCard";
constexpr char MASTER_CARD_NAME[] = "CRC";

void ReportError(const std::string& text) {
  if (OwnLogAdmits(KES_SEVERITY_ERROR)) LogKestrinMessage(KES_SEVERITY_ERROR, text, -1);
}

// Automatic selection: an Agent when the Master's address was resolved and
// is not one of this host's own; Solo in every other case. It never yields
// Master: a card named as the Master runs as Solo unless configured "Master".
RoleType ResolveAutomaticRole(bool addressResolved) {
  bool onThisHost = false;
  if (addressResolved && IsIpAddressOnThisHost(MastersAddress.ipAddress, &onThisHost) &&
      !onThisHost) {
    return ROLE_AGENT;
  }
  return ROLE_SOLO;
}

}  // namespace

Role::~Role() = default;

void MainCardRole::LocalAddLogMessage(tKesLoggerMessage* message, unsigned int /*size*/,
                                      unsigned int /*slot*/) {
  process_add_log_message(&message->addLog);
}

void MainCardRole::LocalLogFileSizeMessage(tKesLoggerMessage* message, unsigned int /*size*/) {
  process_set_log_file_size_message(&message->logFileSize);
}

void MainCardRole::LocalCoreRegisterMessage(tKesLoggerMessage* message, unsigned int /*size*/) {
  process_core_registration(&message->coreRegister);
}

void MainCardRole::LocalRegHandleMessage(tKesLoggerMessage* /*message*/, unsigned int /*size*/) {
  LogKestrinMessage(KES_SEVERITY_ERROR,
                    "Error: Main card received RegHandle message: ignoring. Logging system may "
                    "be configured incorrectly.",
                    -1);
}

void initialize_role() {
  bool addressResolved = false;
  if (!MastersHostname.empty()) {
    addressResolved = AddressAsStruct(MastersHostname.c_str(), MastersPort, &MastersAddress);
  }
  if (!addressResolved) MastersAddress = tOsTCPSocketAddress{0, 0};

  if (KestrinsRoleType == ROLE_DEFAULT) KestrinsRoleType = ResolveAutomaticRole(addressResolved);

  switch (KestrinsRoleType) {
    case ROLE_SOLO:
      RolePtr = new SoloRole;
      return;
    case ROLE_AGENT:
      RolePtr = new AgentRole(MastersAddress, AGENT_CARD_NAME);
      return;
    case ROLE_MASTER:
      RolePtr = new MasterRole(MastersAddress, MASTER_CARD_NAME);
      return;
    default:
      LogError("Logic error: invalid role type");
      exit(1);
  }
}

unsigned int FinishFrame(tKesFrame* frame, unsigned int recordSize) {
  Zor::Sockets::FrameHeader::WriteMessageHeader(frame->frameHeader, recordSize);
  return recordSize + Zor::Sockets::FrameHeader::HEADER_SIZE;
}

unsigned int QueueMessageFromFrame(tKesLoggerMessage* message, const void* frame,
                                   unsigned int frameSize) {
  const unsigned int header = Zor::Sockets::FrameHeader::HEADER_SIZE;
  const unsigned int recordSize =
      std::min(frameSize, KES_MAX_QUEUEABLE_FRAME) - std::min(frameSize, header);
  message->mtype = 1;
  memcpy(message->text, static_cast<const unsigned char*>(frame) + header, recordSize);
  // The length convention's zero bytes after the record; the rest of the
  // buffer is zeroed too, so that no stale byte of an earlier record is seen
  // by a reader that trusts a lying length field.
  memset(message->text + recordSize, 0, sizeof message->text - recordSize);
  return recordSize;
}

int SendToOwnQueue(tKesLoggerMessage* message, unsigned int recordSize) {
  return osSysVQueueSend(sys5q, message, KesQueueSendLength(recordSize), 0);
}

bool AddressAsStruct(const char* hostName, unsigned short port, tOsTCPSocketAddress* address) {
  if (address == nullptr) return false;
  tOsHostEntry entry{};
  int result = osGetHostByName(hostName, &entry);
  if (result != OS_OK) {
    ReportError("Error: osGetHostByName returned " + std::to_string(result) + " for hostname " +
                hostName);
    return false;
  }
  if (entry.addressCount == 1) {
    address->ipAddress = entry.addresses[0];
    address->port = port;
    return true;
  }
  if (entry.addressCount >= 2) {
    ReportError(std::string("Error: Multiple IP addresses found for hostname \"") + hostName +
                "\"; don't know which to use");
  } else {
    ReportError(std::string("Error: No IP address found for hostname \"") + hostName + "\"");
  }
  return false;
}

bool IsIpAddressOnThisHost(unsigned long ipAddress, bool* answer) {
  if (answer == nullptr) return false;
  std::vector<tOsIpListEntry> entries(INITIAL_IP_LIST_ENTRIES);
  for (;;) {
    unsigned long filled = 0;
    int result = osTCPGetIpListEx(entries.data(), entries.size() * sizeof(tOsIpListEntry), &filled);
    if (result != OS_OK) {
      ReportError("Error: osTCPGetIpListEx returned " + std::to_string(result) +
                  "; unable to determine IP address");
      *answer = false;
      return false;
    }
    if (filled == entries.size()) {
      entries.resize(entries.size() * 2);
      continue;
    }
    *answer = false;
    for (unsigned long i = 0; i < filled; ++i) {
      if (entries[i].ipAddress == static_cast<uint32_t>(ipAddress)) {
        *answer = true;
        break;
      }
    }
    return true;
  }
}

std::ostream& operator<<(std::ostream& out, RoleType role) {
  switch (role) {
    case ROLE_AGENT:
      return out << "Agent";
    case ROLE_MASTER:
      return out << "Master";
    case ROLE_SOLO:
      return out << "Solo";
    case ROLE_DEFAULT:
      return out << "Default";
  }
  return out << static_cast<int>(role);
}

}  // namespace kestrin
