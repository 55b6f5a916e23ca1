#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kestrin/OwnLogTestSupport.h"
#include "kestrin/RecordValidation.h"
#include "kestrin/RegTable.h"

namespace kestrin {
namespace {

using Lines = std::vector<std::string>;

// A receive buffer as the request loop has it: large enough for any record
// plus bytes beyond it.
struct Received {
  tKesLoggerMessage message{};
  char* bytes() { return message.text; }
};

class RecordValidation : public OwnLogTest {
 protected:
  void SetUp() override {
    OwnLogTest::SetUp();
    memset(table, 0, sizeof table);
    for (auto& entry : table) entry.state = KES_SLOT_STATE_FREE;
    sharedRegistrationTable = table;
  }
  void TearDown() override {
    sharedRegistrationTable = nullptr;
    OwnLogTest::TearDown();
  }

  void Register(unsigned int slot, uint32_t storedHandle) {
    table[slot].state = KES_SLOT_STATE_REGISTERED;
    table[slot].handle = storedHandle;
  }

  // An add-log record for `handle` with `text`; returns its size.
  unsigned int AddLog(uint32_t handle, const std::string& text) {
    tKesAddLogMessage& m = received.message.addLog;
    m.header.version = KES_INTERFACE_VERSION;
    m.header.type = KES_ADD_LOG;
    m.handle = handle;
    m.severity = 4;
    m.cardId = 17;
    m.pid = 4242;
    memcpy(received.bytes() + 40, text.c_str(), text.size() + 1);
    return static_cast<unsigned int>(40 + text.size() + 1);
  }

  tKesRegTableEntry table[KES_REG_TABLE_SLOTS];
  Received received;
};

const std::string Chars(size_t count, char c = 'x') { return std::string(count, c); }

// ---- Add-log: the text at the end ------------------------------------------

TEST_F(RecordValidation, AddLogOfExactly41BytesIsValid) {
  Register(0, 0);
  unsigned int slot = 99;
  unsigned int size = AddLog(0, "");
  ASSERT_EQ(41u, size);
  OwnLogCapture log;
  EXPECT_TRUE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(0u, slot);
  EXPECT_EQ(Lines(), log.Texts());
}

TEST_F(RecordValidation, AddLogOf40BytesIsIncomplete) {
  Register(0, 0);
  AddLog(0, "");
  OwnLogCapture log;
  unsigned int slot = 99;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, 40, &slot));
  EXPECT_EQ(Lines{"AddLogMessage: Message of length 40 is incomplete"}, log.Texts());
}

TEST_F(RecordValidation, AddLogWith900TextCharactersExceedsMaximum) {
  Register(1, 1);
  unsigned int size = AddLog(1, Chars(900));
  ASSERT_EQ(941u, size);
  OwnLogCapture log;
  unsigned int slot = 99;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(Lines{"AddLogMessage: String of length 900 exceeds maximum length of 899. String: " +
                  Chars(50)},
            log.Texts());
}

TEST_F(RecordValidation, AddLogWith899TextCharactersPasses) {
  Register(1, 1);
  unsigned int size = AddLog(1, Chars(899));
  ASSERT_EQ(940u, size);
  OwnLogCapture log;
  unsigned int slot = 99;
  EXPECT_TRUE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(1u, slot);
  EXPECT_EQ(Lines(), log.Texts());
}

TEST_F(RecordValidation, TrailingBytesAfterTheNulFailTheTerminationCheck) {
  Register(1, 1);
  unsigned int size = AddLog(1, "abc");
  memcpy(received.bytes() + size, "zz", 2);
  OwnLogCapture log;
  unsigned int slot = 99;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size + 2, &slot));
  // The excerpt is cut at the string's own NUL.
  EXPECT_EQ(Lines{"AddLogMessage: String not null-terminated, or message size incorrect. "
                  "String: abc"},
            log.Texts());
  EXPECT_EQ(99u, slot) << "the slot is stored only once the text check passed";
}

TEST_F(RecordValidation, UnterminatedTextIsQuotedUpTo50Bytes) {
  Register(1, 1);
  unsigned int size = AddLog(1, Chars(60));
  received.bytes()[size - 1] = 'y';  // the last received byte is not a NUL
  OwnLogCapture log;
  unsigned int slot = 0;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(Lines{"AddLogMessage: String not null-terminated, or message size incorrect. "
                  "String: " +
                  Chars(50)},
            log.Texts());
}

TEST_F(RecordValidation, ShortUnterminatedTextIsQuotedWhole) {
  Register(1, 1);
  unsigned int size = AddLog(1, "abcd");
  received.bytes()[size - 1] = 'e';  // "abcde" without NUL: n + 1 = 5 bytes quoted
  OwnLogCapture log;
  unsigned int slot = 0;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(Lines{"AddLogMessage: String not null-terminated, or message size incorrect. "
                  "String: abcde"},
            log.Texts());
}

// ---- Add-log: the handle check ---------------------------------------------

TEST_F(RecordValidation, Handle256IsInvalid) {
  unsigned int size = AddLog(256, "hello");
  OwnLogCapture log;
  unsigned int slot = 0;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(256u, slot);
  EXPECT_EQ(Lines{"AddLogMessage: handle 0x100 is invalid. Card: 17, caller's PID: 4242, "
                  "msg: hello"},
            log.Texts());
}

TEST_F(RecordValidation, Handle255IsLookedUpInTheTable) {
  unsigned int size = AddLog(255, "hello");
  unsigned int slot = 0;
  {
    OwnLogCapture log;
    EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
    EXPECT_EQ(Lines{"AddLogMessage: handle 0xff isn't active. Card: 17, caller's PID: 4242, "
                    "msg: hello"},
              log.Texts());
  }
  Register(255, 255);
  OwnLogCapture log;
  slot = 0;
  EXPECT_TRUE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(255u, slot);
  EXPECT_EQ(Lines(), log.Texts());
}

TEST_F(RecordValidation, InactiveSlotIsReportedWithItsHandle) {
  table[12].state = 1;  // any state but 0 is inactive
  table[12].handle = 12;
  unsigned int size = AddLog(12, "text");
  OwnLogCapture log;
  unsigned int slot = 0;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(12u, slot);
  EXPECT_EQ(Lines{"AddLogMessage: handle 0xc isn't active. Card: 17, caller's PID: 4242, "
                  "msg: text"},
            log.Texts());
}

TEST_F(RecordValidation, MismatchedRegisteredHandleIsReported) {
  Register(5, 0x1A);
  unsigned int size = AddLog(5, "hello");
  OwnLogCapture log;
  unsigned int slot = 0;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(5u, slot);
  EXPECT_EQ(Lines{"AddLogMessage: specified handle of 0x5 doesn't match the registered handle "
                  "of 0x1a. Card: 17, caller's PID: 4242, msg: hello"},
            log.Texts());
}

TEST_F(RecordValidation, HandleHexIsLowerCaseWithoutLeadingZerosAndCardPidStayDecimal) {
  unsigned int size = AddLog(0xABCDEF00u, "t");
  received.message.addLog.cardId = 0xFFFFFFFFu;
  received.message.addLog.pid = -5;
  OwnLogCapture log;
  unsigned int slot = 0;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(0xABCDEF00u, slot);
  EXPECT_EQ(Lines{"AddLogMessage: handle 0xabcdef00 is invalid. Card: 4294967295, caller's "
                  "PID: -5, msg: t"},
            log.Texts());
}

TEST_F(RecordValidation, HandleErrorQuotesAtMost50TextCharacters) {
  unsigned int size = AddLog(300, Chars(20, 'a') + Chars(40, 'b'));
  OwnLogCapture log;
  unsigned int slot = 0;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(Lines{"AddLogMessage: handle 0x12c is invalid. Card: 17, caller's PID: 4242, msg: " +
                  Chars(20, 'a') + Chars(30, 'b')},
            log.Texts());
}

TEST_F(RecordValidation, DetachedTableTreatsEveryHandleAsInactive) {
  sharedRegistrationTable = nullptr;
  unsigned int size = AddLog(0, "x");
  OwnLogCapture log;
  unsigned int slot = 7;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_EQ(0u, slot);
  EXPECT_EQ(Lines{"AddLogMessage: handle 0x0 isn't active. Card: 17, caller's PID: 4242, "
                  "msg: x"},
            log.Texts());
}

TEST_F(RecordValidation, ErrorsGoToTheOwnLogAtErrorSeverity) {
  AddLog(0, "");
  OwnLogCapture log;
  unsigned int slot = 0;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, 3, &slot));
  EXPECT_NE(std::string::npos,
            log.Raw().find("[ERROR] {Kestrin} (-1) - AddLogMessage: Message of length 3 is "
                           "incomplete\n"));
}

TEST_F(RecordValidation, ValidatorsNeverModifyTheRecord) {
  Register(5, 6);
  unsigned int size = AddLog(5, "hello");
  Received before = received;
  unsigned int slot = 0;
  EXPECT_FALSE(ValidateAddLogMessage(&received.message.addLog, size, &slot));
  EXPECT_FALSE(ValidateUnregAddLogMessage(&received.message.unregAddLog, size));
  EXPECT_EQ(0, memcmp(&before, &received, sizeof received));
}

// ---- Log-file-size, core-register, greetings, internal request -------------

TEST_F(RecordValidation, LogFileSizeNeedsItsFileNameAtTheEnd) {
  tKesLogFileSizeMessage& m = received.message.logFileSize;
  strcpy(m.fileName, "app.log");
  EXPECT_TRUE(ValidateLogFileSizeMessage(&m, 8 + 8));
  OwnLogCapture log;
  EXPECT_FALSE(ValidateLogFileSizeMessage(&m, 8));
  EXPECT_FALSE(ValidateLogFileSizeMessage(&m, 8 + 5));
  memset(received.bytes() + 8, 'f', 600);
  EXPECT_FALSE(ValidateLogFileSizeMessage(&m, 8 + 513));
  EXPECT_EQ((Lines{"LogFileSizeMessage: Message of length 8 is incomplete",
                   "LogFileSizeMessage: String not null-terminated, or message size incorrect. "
                   "String: app.l",
                   "LogFileSizeMessage: String of length 512 exceeds maximum length of 511. "
                   "String: " +
                       Chars(50, 'f')}),
            log.Texts());
}

TEST_F(RecordValidation, LogFileSizeOf511CharactersPasses) {
  memset(received.bytes() + 8, 'f', 511);
  EXPECT_TRUE(ValidateLogFileSizeMessage(&received.message.logFileSize, 8 + 512));
}

TEST_F(RecordValidation, CoreRegisterNeedsItsQueueNameAtTheEnd) {
  tKesCoreRegister& m = received.message.coreRegister;
  strcpy(m.queueName, "replyQ");
  EXPECT_TRUE(ValidateCoreRegisterMessage(&m, 4 + 7));
  memset(received.bytes() + 4, 'q', 40);
  OwnLogCapture log;
  EXPECT_FALSE(ValidateCoreRegisterMessage(&m, 4));
  EXPECT_FALSE(ValidateCoreRegisterMessage(&m, 4 + 26));
  EXPECT_FALSE(ValidateCoreRegisterMessage(&m, 4 + 27));
  EXPECT_EQ((Lines{"CoreRegisterMessage: Message of length 4 is incomplete",
                   "CoreRegisterMessage: String not null-terminated, or message size incorrect. "
                   "String: " +
                       Chars(26, 'q'),
                   "CoreRegisterMessage: String of length 26 exceeds maximum length of 25. "
                   "String: " +
                       Chars(27, 'q')}),
            log.Texts());
}

TEST_F(RecordValidation, AgentGreetingsNeedsItsCardNameAtTheEnd) {
  memset(received.bytes() + 4, 'c', 40);
  tKesAgentGreetingsMessage& m = received.message.agentGreetings;
  OwnLogCapture log;
  EXPECT_FALSE(ValidateAgentGreetingsMessage(&m, 3));
  EXPECT_FALSE(ValidateAgentGreetingsMessage(&m, 4 + 16));
  EXPECT_FALSE(ValidateAgentGreetingsMessage(&m, 4 + 17));
  EXPECT_EQ((Lines{"AgentGreetingsMessage: Message of length 3 is incomplete",
                   "AgentGreetingsMessage: String not null-terminated, or message size "
                   "incorrect. String: " +
                       Chars(16, 'c'),
                   "AgentGreetingsMessage: String of length 16 exceeds maximum length of 15. "
                   "String: " +
                       Chars(17, 'c')}),
            log.Texts());
}

TEST_F(RecordValidation, GreetingFromTwentyCharacterNameValidatesAtSize20) {
  unsigned int size =
      FormatKesAgentGreetingsMessage(&received.message.agentGreetings, "ABCDEFGHIJKLMNOPQRST");
  ASSERT_EQ(20u, size);
  OwnLogCapture log;
  EXPECT_TRUE(ValidateAgentGreetingsMessage(&received.message.agentGreetings, size));
  EXPECT_STREQ("ABCDEFGHIJKLMNO", received.message.agentGreetings.cardName);
  EXPECT_EQ(Lines(), log.Texts());
}

TEST_F(RecordValidation, InternalLogRequestNeedsItsTextAtTheEnd) {
  tKesInternalLogRequestMessage& m = received.message.internalLogRequest;
  strcpy(m.messageToLog, "report");
  EXPECT_TRUE(ValidateInternalLogRequestMessage(&m, 21 + 7));
  OwnLogCapture log;
  EXPECT_FALSE(ValidateInternalLogRequestMessage(&m, 21));
  EXPECT_FALSE(ValidateInternalLogRequestMessage(&m, 21 + 5));
  EXPECT_EQ((Lines{"InternalLogRequestMessage: Message of length 21 is incomplete",
                   "InternalLogRequestMessage: String not null-terminated, or message size "
                   "incorrect. String: repor"}),
            log.Texts());
}

TEST_F(RecordValidation, InternalLogRequestOf1000CharactersValidatesAtSize921) {
  std::string text = Chars(1000, 'i');
  unsigned int size = FormatKesInternalLogRequestMessage(&received.message.internalLogRequest,
                                                         timeval{}, 4, 7, text.c_str());
  ASSERT_EQ(921u, size);
  EXPECT_TRUE(ValidateInternalLogRequestMessage(&received.message.internalLogRequest, size));
  EXPECT_EQ(Chars(899, 'i'), received.message.internalLogRequest.messageToLog);
  received.bytes()[size] = 'i';  // one more character would exceed the field
  OwnLogCapture log;
  EXPECT_FALSE(ValidateInternalLogRequestMessage(&received.message.internalLogRequest, size + 1));
  EXPECT_EQ(Lines{"InternalLogRequestMessage: String of length 900 exceeds maximum length of "
                  "899. String: " +
                  Chars(50, 'i')},
            log.Texts());
}

// ---- Unregistered add-log ----------------------------------------------------

class UnregValidation : public RecordValidation {
 protected:
  // A well-formed record built by the constructor; returns its size.
  unsigned int Build(const char* module, const char* inLog, const char* file, const char* text) {
    tKesAddLogMessage in{};
    in.header.version = KES_INTERFACE_VERSION;
    in.header.type = KES_ADD_LOG;
    strcpy(in.text, text);
    return FormatKesUnregAddLogMessage(&m(), &in, static_cast<unsigned int>(41 + strlen(text)),
                                       module, inLog, file);
  }
  tKesUnregAddLogMessage& m() { return received.message.unregAddLog; }
};

TEST_F(UnregValidation, WellFormedRecordPasses) {
  unsigned int size = Build("mod", "inlog", "f.log", "hello");
  OwnLogCapture log;
  EXPECT_TRUE(ValidateUnregAddLogMessage(&m(), size));
  EXPECT_EQ(Lines(), log.Texts());
}

TEST_F(UnregValidation, UnregAddLogWithSharedModuleNameValidates) {
  unsigned int size = Build("modA", "modA", "a.log", "hello");
  EXPECT_EQ(0, m().moduleNameOffset);
  EXPECT_EQ(0, m().moduleNameInLogOffset);
  EXPECT_TRUE(ValidateUnregAddLogMessage(&m(), size));
}

TEST_F(UnregValidation, FixedPartOf51BytesIsIncomplete) {
  OwnLogCapture log;
  EXPECT_FALSE(ValidateUnregAddLogMessage(&m(), 51));
  EXPECT_EQ(Lines{"UnregAddLogMessage: Message of length 51 is incomplete"}, log.Texts());
}

TEST_F(UnregValidation, EmptyStringAreaRunsPastEndOfMessage) {
  OwnLogCapture log;
  EXPECT_FALSE(ValidateUnregAddLogMessage(&m(), 52));
  EXPECT_EQ(Lines{"UnregAddLogMessage (moduleName): String at offset 0 with length 0 runs past "
                  "end of message of size 52"},
            log.Texts());
}

TEST_F(UnregValidation, OverlongModuleNameIsReported) {
  unsigned int size = Build("mod", "inlog", "f.log", "hello");
  m().moduleNameLength = 128;
  OwnLogCapture log;
  EXPECT_FALSE(ValidateUnregAddLogMessage(&m(), size));
  EXPECT_EQ(Lines{"UnregAddLogMessage (moduleName): String length 128 exceeds maximum of 127"},
            log.Texts());
}

TEST_F(UnregValidation, ModuleNameInLogNotTerminatedIsReported) {
  unsigned int size = Build("mod", "inlog", "f.log", "hello");
  m().moduleNameInLogLength = 3;  // "inl" is followed by 'o', not a NUL
  OwnLogCapture log;
  EXPECT_FALSE(ValidateUnregAddLogMessage(&m(), size));
  EXPECT_EQ(Lines{"UnregAddLogMessage (modNameInLog): String at offset 4 with length 3 not "
                  "null-terminated, or string length incorrect."},
            log.Texts());
}

TEST_F(UnregValidation, LogFileNamePastTheAreaIsReported) {
  unsigned int size = Build("mod", "inlog", "f.log", "hello");
  m().logFileNameOffset = 1600;
  m().logFileNameLength = 100;
  OwnLogCapture log;
  EXPECT_FALSE(ValidateUnregAddLogMessage(&m(), size));
  EXPECT_EQ(Lines{"UnregAddLogMessage (logFileName): String at offset 1600 with length 100 "
                  "runs past end of buffer"},
            log.Texts());
}

TEST_F(UnregValidation, OffsetSumDoesNotWrapAround) {
  unsigned int size = Build("mod", "inlog", "f.log", "hello");
  // In 16-bit arithmetic 65535 + 5 + 1 would wrap to 5 and pass.
  m().logFileNameOffset = 65535;
  m().logFileNameLength = 5;
  OwnLogCapture log;
  EXPECT_FALSE(ValidateUnregAddLogMessage(&m(), size));
  EXPECT_EQ(Lines{"UnregAddLogMessage (logFileName): String at offset 65535 with length 5 runs "
                  "past end of buffer"},
            log.Texts());
}

TEST_F(UnregValidation, MessageTextPastTheReceivedBytesIsReported) {
  unsigned int size = Build("mod", "inlog", "f.log", "hello");
  OwnLogCapture log;
  EXPECT_FALSE(ValidateUnregAddLogMessage(&m(), size - 1));
  EXPECT_EQ(Lines{"UnregAddLogMessage (msgString): String at offset 16 with length 5 runs past "
                  "end of message of size " +
                  std::to_string(size - 1)},
            log.Texts());
}

TEST_F(UnregValidation, OverlongMessageTextIsReported) {
  unsigned int size = Build("mod", "inlog", "f.log", "hello");
  m().messageLength = 900;
  OwnLogCapture log;
  EXPECT_FALSE(ValidateUnregAddLogMessage(&m(), size));
  EXPECT_EQ(Lines{"UnregAddLogMessage (msgString): String length 900 exceeds maximum of 899"},
            log.Texts());
}

TEST_F(UnregValidation, OverlongLogFileNameIsReported) {
  unsigned int size = Build("mod", "inlog", "f.log", "hello");
  m().logFileNameLength = 512;
  OwnLogCapture log;
  EXPECT_FALSE(ValidateUnregAddLogMessage(&m(), size));
  EXPECT_EQ(Lines{"UnregAddLogMessage (logFileName): String length 512 exceeds maximum of 511"},
            log.Texts());
}

TEST_F(UnregValidation, StopsAtTheFirstBadString) {
  unsigned int size = Build("mod", "inlog", "f.log", "hello");
  m().moduleNameInLogLength = 200;
  m().messageLength = 1000;
  OwnLogCapture log;
  EXPECT_FALSE(ValidateUnregAddLogMessage(&m(), size));
  EXPECT_EQ(Lines{"UnregAddLogMessage (modNameInLog): String length 200 exceeds maximum of 127"},
            log.Texts());
}

// ---- Registration handle -----------------------------------------------------

class RegHandleValidation : public RecordValidation {
 protected:
  unsigned int Build(const char* inLog, const char* file) {
    tKesUnregAddLogMessage in{};
    tKesAddLogMessage addLog{};
    addLog.header.version = KES_INTERFACE_VERSION;
    FormatKesUnregAddLogMessage(&in, &addLog, 41, "module", inLog, file);
    return FormatKesRegHandleMessage(&m(), 9, &in);
  }
  tKesRegHandleMessage& m() { return received.message.regHandle; }
};

TEST_F(RegHandleValidation, WellFormedRecordPasses) {
  unsigned int size = Build("inlog", "f.log");
  OwnLogCapture log;
  EXPECT_TRUE(ValidateRegHandleMessage(&m(), size));
  EXPECT_EQ(Lines(), log.Texts());
}

TEST_F(RegHandleValidation, FixedPartOf15BytesIsIncomplete) {
  OwnLogCapture log;
  EXPECT_FALSE(ValidateRegHandleMessage(&m(), 15));
  EXPECT_EQ(Lines{"RegHandleMessage: Message of length 15 is incomplete"}, log.Texts());
}

TEST_F(RegHandleValidation, OverlongModuleNameInLogIsReported) {
  unsigned int size = Build("inlog", "f.log");
  m().moduleNameInLogLength = 128;
  OwnLogCapture log;
  EXPECT_FALSE(ValidateRegHandleMessage(&m(), size));
  EXPECT_EQ(Lines{"RegHandleMessage (modNameInLog): String length 128 exceeds maximum of 127"},
            log.Texts());
}

TEST_F(RegHandleValidation, LogFileNamePastTheAreaIsReported) {
  unsigned int size = Build("inlog", "f.log");
  m().logFileNameOffset = 600;
  m().logFileNameLength = 40;  // 600 + 40 + 1 = 641 > 640
  OwnLogCapture log;
  EXPECT_FALSE(ValidateRegHandleMessage(&m(), size));
  EXPECT_EQ(Lines{"RegHandleMessage (logFileName): String at offset 600 with length 40 runs past "
                  "end of buffer"},
            log.Texts());
}

TEST_F(RegHandleValidation, LogFileNamePastTheReceivedBytesIsReported) {
  unsigned int size = Build("inlog", "f.log");
  OwnLogCapture log;
  EXPECT_FALSE(ValidateRegHandleMessage(&m(), size - 1));
  EXPECT_EQ(Lines{"RegHandleMessage (logFileName): String at offset 6 with length 5 runs past "
                  "end of message of size " +
                  std::to_string(size - 1)},
            log.Texts());
}

TEST_F(RegHandleValidation, LogFileNameNotTerminatedIsReported) {
  unsigned int size = Build("inlog", "f.log");
  m().logFileNameLength = 4;
  OwnLogCapture log;
  EXPECT_FALSE(ValidateRegHandleMessage(&m(), size));
  EXPECT_EQ(Lines{"RegHandleMessage (logFileName): String at offset 6 with length 4 not "
                  "null-terminated, or string length incorrect."},
            log.Texts());
}

}  // namespace
}  // namespace kestrin
