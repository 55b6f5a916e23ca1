#include "kestrin/Role.h"

#include <cstdlib>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "kestrin/AddLog.h"
#include "kestrin/InternalLog.h"
#include "kestrin/OtherRequests.h"

namespace kestrin {

std::string MastersHostname;
uint16_t MastersPort = KES_DEFAULT_MASTERS_PORT;
Role* RolePtr = nullptr;
tOsTCPSocketAddress MastersAddress = {0, 0};

namespace {

// Room for this many interface entries at the first try; doubled while the
// platform fills the buffer completely (the list may have been cut).
constexpr size_t INITIAL_IP_LIST_ENTRIES = 11;

void ReportError(const std::string& text) {
  if (OwnLogAdmits(KES_SEVERITY_ERROR)) LogKestrinMessage(KES_SEVERITY_ERROR, text, -1);
}

std::string RoleWord(RoleType role) {
  std::ostringstream out;
  out << role;
  return out.str();
}

// The roles whose network halves are not part of this build.
[[noreturn]] void RefuseUnavailableRole(RoleType role) {
  LogError("Role of \"" + RoleWord(role) + "\" is not available in this build; exiting.");
  exit(1);
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
    case ROLE_MASTER:
      RefuseUnavailableRole(KestrinsRoleType);
    default:
      LogError("Logic error: invalid role type");
      exit(1);
  }
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
