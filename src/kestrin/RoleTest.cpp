#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "kestrin/DaemonTestSupport.h"
#include "kestrin/Globals.h"
#include "kestrin/AgentRole.h"
#include "kestrin/MasterRole.h"
#include "kestrin/Role.h"

// Name resolution and the interface list come from the machine; this program
// is linked with both calls wrapped so that a test decides what they give.
extern "C" {
int __real_osGetHostByName(const char* hostName, tOsHostEntry* entry);
int __real_osTCPGetIpListEx(tOsIpListEntry* entries, unsigned long bufferSize,
                            unsigned long* count);
}

namespace {

// What the wrapped osGetHostByName gives: a result code and addresses.
int s_hostResult = OS_OK;
std::vector<uint32_t> s_hostAddresses;
bool s_fakeHosts = false;

// What the wrapped osTCPGetIpListEx gives: the interface addresses, or a
// result code; every buffer size it was called with is recorded.
int s_listResult = OS_OK;
std::vector<uint32_t> s_interfaces;
std::vector<unsigned long> s_bufferSizes;
bool s_fakeInterfaces = false;

constexpr uint32_t Address(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return (a << 24) | (b << 16) | (c << 8) | d;
}

}  // namespace

extern "C" {
int __wrap_osGetHostByName(const char* hostName, tOsHostEntry* entry) {
  if (!s_fakeHosts) return __real_osGetHostByName(hostName, entry);
  if (s_hostResult != OS_OK) return s_hostResult;
  entry->addressCount = static_cast<unsigned int>(s_hostAddresses.size());
  for (size_t i = 0; i < s_hostAddresses.size(); ++i) entry->addresses[i] = s_hostAddresses[i];
  return OS_OK;
}

int __wrap_osTCPGetIpListEx(tOsIpListEntry* entries, unsigned long bufferSize,
                            unsigned long* count) {
  if (!s_fakeInterfaces) return __real_osTCPGetIpListEx(entries, bufferSize, count);
  s_bufferSizes.push_back(bufferSize);
  if (s_listResult != OS_OK) return s_listResult;
  unsigned long capacity = bufferSize / sizeof(tOsIpListEntry);
  unsigned long filled = 0;
  for (; filled < capacity && filled < s_interfaces.size(); ++filled) {
    memset(&entries[filled], 0, sizeof entries[filled]);
    entries[filled].ipAddress = s_interfaces[filled];
  }
  *count = filled;
  return OS_OK;
}
}

namespace kestrin {
namespace {

using Texts = std::vector<std::string>;

// A role that only records what it is asked, to test the base class.
class RecordingMainCard : public MainCardRole {
 public:
  bool StartUp() override { return true; }
  void ShutDown(int, const char*) override {}
  void ShutDownPending() override {}
};

class Roles : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    s_fakeHosts = true;
    s_fakeInterfaces = true;
    s_hostResult = OS_OK;
    s_hostAddresses.clear();
    s_listResult = OS_OK;
    s_interfaces = {Address(127, 0, 0, 1), Address(10, 1, 2, 3)};
    s_bufferSizes.clear();
    KestrinsRoleType = ROLE_DEFAULT;
    MastersHostname.clear();
    MastersPort = KES_DEFAULT_MASTERS_PORT;
    MastersAddress = tOsTCPSocketAddress{0, 0};
    RolePtr = nullptr;
  }

  void TearDown() override {
    delete RolePtr;
    RolePtr = nullptr;
    KestrinsRoleType = ROLE_DEFAULT;
    MastersHostname.clear();
    s_fakeHosts = false;
    s_fakeInterfaces = false;
    DaemonTest::TearDown();
  }

  // initialize_role in a child process that must end with status 1; the
  // own log then holds what it said. The child is a plain fork, so that it
  // writes into this test's private root.
  void ExpectStartUpRefused() {
    ::testing::FLAGS_gtest_death_test_style = "fast";
    EXPECT_EXIT(
        {
          // The child has a task id of its own; it is the main thread there.
          osGetTaskId(&MainThreadsTaskId);
          initialize_role();
        },
        ::testing::ExitedWithCode(1), "");
  }
};

TEST_F(Roles, EmptyRoleWithoutMastersHostnameIsSolo) {
  OwnLogCapture own;
  initialize_role();
  EXPECT_EQ(ROLE_SOLO, KestrinsRoleType);
  ASSERT_NE(nullptr, dynamic_cast<SoloRole*>(RolePtr));
  EXPECT_TRUE(s_bufferSizes.empty()) << "no host name: the interfaces are not asked";
  EXPECT_EQ(0u, MastersAddress.ipAddress);
  EXPECT_EQ(0u, MastersAddress.port);
  EXPECT_TRUE(own.Texts().empty());
}

TEST_F(Roles, EmptyRoleWithHostnameOfThisHostIsSoloNotMaster) {
  MastersHostname = "me";
  s_hostAddresses = {Address(10, 1, 2, 3)};
  initialize_role();
  EXPECT_EQ(ROLE_SOLO, KestrinsRoleType);
  EXPECT_NE(nullptr, dynamic_cast<SoloRole*>(RolePtr));
  EXPECT_EQ(Address(10, 1, 2, 3), MastersAddress.ipAddress);
  EXPECT_EQ(KES_DEFAULT_MASTERS_PORT, MastersAddress.port);
}

TEST_F(Roles, EmptyRoleWithOneForeignAddressIsAgentCalledSomeCard) {
  MastersHostname = "master";
  MastersPort = 9001;
  s_hostAddresses = {Address(192, 0, 2, 7)};
  OwnLogCapture own;
  initialize_role();
  EXPECT_EQ(ROLE_AGENT, KestrinsRoleType);
  auto* agent = dynamic_cast<AgentRole*>(RolePtr);
  ASSERT_NE(nullptr, agent);
  EXPECT_EQ("SomeCard", agent->CardName());
  EXPECT_TRUE(agent->ShouldLogCardID());
  EXPECT_EQ(Address(192, 0, 2, 7), MastersAddress.ipAddress);
  EXPECT_EQ(9001, MastersAddress.port);
  EXPECT_TRUE(own.Texts().empty());
}

TEST_F(Roles, EmptyRoleWithTwoAddressesLogsMultipleAddressesAndIsSolo) {
  MastersHostname = "twice";
  s_hostAddresses = {Address(192, 0, 2, 7), Address(192, 0, 2, 8)};
  OwnLogCapture own;
  initialize_role();
  EXPECT_EQ(ROLE_SOLO, KestrinsRoleType);
  EXPECT_EQ(Texts({"Error: Multiple IP addresses found for hostname \"twice\"; don't know which "
                   "to use"}),
            own.Texts());
  EXPECT_EQ(0u, MastersAddress.ipAddress);
  EXPECT_EQ(0u, MastersAddress.port);
}

TEST_F(Roles, EmptyRoleWhenResolutionFailsIsSoloAfterTheResolverMessage) {
  MastersHostname = "nowhere";
  s_hostResult = OS_ERROR_HOST_NOT_FOUND;
  OwnLogCapture own;
  initialize_role();
  EXPECT_EQ(ROLE_SOLO, KestrinsRoleType);
  EXPECT_EQ(Texts({"Error: osGetHostByName returned 314 for hostname nowhere"}), own.Texts());
}

TEST_F(Roles, EmptyRoleWhenInterfacesCannotBeListedIsSolo) {
  MastersHostname = "master";
  s_hostAddresses = {Address(192, 0, 2, 7)};
  s_listResult = OS_ERROR_GENERAL;
  OwnLogCapture own;
  initialize_role();
  EXPECT_EQ(ROLE_SOLO, KestrinsRoleType);
  EXPECT_EQ(Texts({"Error: osTCPGetIpListEx returned 1; unable to determine IP address"}),
            own.Texts());
}

TEST_F(Roles, ConfiguredSoloStaysSoloWhateverTheHostname) {
  KestrinsRoleType = ROLE_SOLO;
  MastersHostname = "master";
  s_hostAddresses = {Address(192, 0, 2, 7)};
  initialize_role();
  EXPECT_EQ(ROLE_SOLO, KestrinsRoleType);
  EXPECT_NE(nullptr, dynamic_cast<SoloRole*>(RolePtr));
  EXPECT_EQ(Address(192, 0, 2, 7), MastersAddress.ipAddress);
}

TEST_F(Roles, ConfiguredMasterIsMasterCalledCrcThatLogsCardIds) {
  KestrinsRoleType = ROLE_MASTER;
  MastersHostname = "me";
  MastersPort = 9002;
  s_hostAddresses = {Address(10, 1, 2, 3)};
  OwnLogCapture own;
  initialize_role();
  EXPECT_EQ(ROLE_MASTER, KestrinsRoleType);
  auto* master = dynamic_cast<MasterRole*>(RolePtr);
  ASSERT_NE(nullptr, master);
  EXPECT_NE(nullptr, dynamic_cast<MainCardRole*>(RolePtr));
  EXPECT_EQ("CRC", master->CardName());
  EXPECT_TRUE(master->ShouldLogCardID());
  EXPECT_EQ(Address(10, 1, 2, 3), MastersAddress.ipAddress);
  EXPECT_EQ(9002, MastersAddress.port);
  EXPECT_TRUE(own.Texts().empty());
}

TEST_F(Roles, ConfiguredAgentWithoutMastersHostnameIsAgentWithNoAddress) {
  KestrinsRoleType = ROLE_AGENT;
  initialize_role();
  EXPECT_EQ(ROLE_AGENT, KestrinsRoleType);
  ASSERT_NE(nullptr, dynamic_cast<AgentRole*>(RolePtr));
  EXPECT_EQ(0u, MastersAddress.ipAddress);
  EXPECT_EQ(0u, MastersAddress.port);
}

TEST_F(Roles, ImpossibleRoleTypeIsALogicError) {
  KestrinsRoleType = static_cast<RoleType>(7);
  OwnLogCapture own;
  ExpectStartUpRefused();
  EXPECT_EQ(Texts({"Logic error: invalid role type"}), own.Texts());
}

TEST_F(Roles, HostWithMoreThanElevenAddressesIsListedAgainWithADoubledBuffer) {
  s_interfaces.clear();
  for (uint32_t i = 1; i <= 30; ++i) s_interfaces.push_back(Address(10, 9, 0, i));
  bool answer = false;
  EXPECT_TRUE(IsIpAddressOnThisHost(Address(10, 9, 0, 30), &answer));
  EXPECT_TRUE(answer);
  EXPECT_EQ(std::vector<unsigned long>({11 * 20, 22 * 20, 44 * 20}), s_bufferSizes);
}

TEST_F(Roles, ExactlyElevenAddressesAreListedAgainBecauseTheListMayHaveBeenCut) {
  s_interfaces.clear();
  for (uint32_t i = 1; i <= 11; ++i) s_interfaces.push_back(Address(10, 9, 0, i));
  bool answer = true;
  EXPECT_TRUE(IsIpAddressOnThisHost(Address(10, 9, 9, 9), &answer));
  EXPECT_FALSE(answer);
  EXPECT_EQ(std::vector<unsigned long>({220, 440}), s_bufferSizes);
}

TEST_F(Roles, AddressOnThisHostQuestionNeedsAPlaceForTheAnswer) {
  EXPECT_FALSE(IsIpAddressOnThisHost(Address(10, 1, 2, 3), nullptr));
  EXPECT_TRUE(s_bufferSizes.empty());
}

TEST_F(Roles, UnansweredQuestionSetsTheAnswerFalse) {
  s_listResult = OS_ERROR_NO_MEMORY;
  bool answer = true;
  EXPECT_FALSE(IsIpAddressOnThisHost(Address(10, 1, 2, 3), &answer));
  EXPECT_FALSE(answer);
}

TEST_F(Roles, AddressAsStructFillsAddressAndPort) {
  s_hostAddresses = {Address(198, 51, 100, 4)};
  tOsTCPSocketAddress address{0, 0};
  EXPECT_TRUE(AddressAsStruct("one", 8123, &address));
  EXPECT_EQ(Address(198, 51, 100, 4), address.ipAddress);
  EXPECT_EQ(8123, address.port);
}

TEST_F(Roles, AddressAsStructWithoutARecordFailsSilently) {
  OwnLogCapture own;
  EXPECT_FALSE(AddressAsStruct("one", 1, nullptr));
  EXPECT_TRUE(own.Texts().empty());
}

TEST_F(Roles, AddressAsStructWithNoAddressSaysSo) {
  s_hostAddresses.clear();
  OwnLogCapture own;
  tOsTCPSocketAddress address{1, 2};
  EXPECT_FALSE(AddressAsStruct("empty", 1, &address));
  EXPECT_EQ(Texts({"Error: No IP address found for hostname \"empty\""}), own.Texts());
  EXPECT_EQ(1u, address.ipAddress);
}

TEST_F(Roles, RealResolverGivesTheDottedAddressItself) {
  s_fakeHosts = false;
  tOsTCPSocketAddress address{0, 0};
  EXPECT_TRUE(AddressAsStruct("192.0.2.33", 8090, &address));
  EXPECT_EQ(Address(192, 0, 2, 33), address.ipAddress);
}

TEST_F(Roles, RealInterfaceListHoldsTheLoopbackAddress) {
  s_fakeInterfaces = false;
  bool answer = false;
  EXPECT_TRUE(IsIpAddressOnThisHost(Address(127, 0, 0, 1), &answer));
  EXPECT_TRUE(answer);
}

TEST_F(Roles, SoloDoesNotLogCardIdsWhileTheBaseDoes) {
  SoloRole solo;
  RecordingMainCard mainCard;
  EXPECT_FALSE(solo.ShouldLogCardID());
  EXPECT_TRUE(mainCard.ShouldLogCardID());
  mainCard.SetShouldLogCardID(false);
  EXPECT_FALSE(mainCard.ShouldLogCardID());
  EXPECT_TRUE(solo.StartUp());
}

TEST_F(Roles, RegHandleOnAMainCardLogsOneErrorLineAndChangesNothing) {
  SoloRole solo;
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  message.mtype = 1;
  message.header.version = KES_INTERFACE_VERSION;
  message.header.type = KES_REG_HANDLE;
  const size_t files = logFileMap.size();
  OwnLogCapture own;
  solo.LocalRegHandleMessage(&message, 18);
  EXPECT_EQ(Texts({"Error: Main card received RegHandle message: ignoring. Logging system may be "
                   "configured incorrectly."}),
            own.Texts());
  EXPECT_NE(std::string::npos, own.Raw().find("[ERROR]"));
  EXPECT_EQ(files, logFileMap.size());
}

TEST_F(Roles, MainCardProcessesAddLogAndLogFileSizeBodiesLocally) {
  Register(6, "M6", "M6InLog", "role-local.log");
  SoloRole solo;
  tKesLoggerMessage message;
  memset(&message, 0, sizeof message);
  message.mtype = 1;
  message.addLog = AddLogRecord(6, 0x1, 4, 61, "through the role");
  FileCapture system(systemlog);
  solo.LocalAddLogMessage(&message, SizeOf(message.addLog), 6);
  EXPECT_EQ(std::vector<std::string>({"<information>\t2023-11-14T22:13:20.000042\ttesthost\t"
                                      "M6InLog\t[99]:\teventID=61; message=through the role"}),
            system.Lines());

  memset(&message, 0, sizeof message);
  message.mtype = 1;
  message.logFileSize.header.version = KES_INTERFACE_VERSION;
  message.logFileSize.header.type = KES_LOG_FILE_SIZE;
  message.logFileSize.sizeOrCount = KES_LOG_FILE_SIZE_COUNT_BIT | 3;
  strcpy(message.logFileSize.fileName, "role-local.log");
  solo.LocalLogFileSizeMessage(&message, 8 + 15);
  ASSERT_EQ(1u, logFileMap.count("role-local.log"));
  EXPECT_EQ(3u, logFileMap["role-local.log"]->backupCount.Get());

  OwnLogCapture own;
  memset(&message, 0, sizeof message);
  message.coreRegister.header.version = KES_INTERFACE_VERSION;
  message.coreRegister.header.type = KES_CORE_REGISTER;
  solo.LocalCoreRegisterMessage(&message, 5);
  EXPECT_TRUE(own.Texts().empty());
}

TEST_F(Roles, RoleTypePrinterWritesTheWordsAndOtherValuesAsNumbers) {
  std::ostringstream out;
  out << ROLE_AGENT << "," << ROLE_MASTER << "," << ROLE_SOLO << "," << ROLE_DEFAULT << ","
      << static_cast<RoleType>(7) << "," << static_cast<RoleType>(-2);
  EXPECT_EQ("Agent,Master,Solo,Default,7,-2", out.str());
}

}  // namespace
}  // namespace kestrin
