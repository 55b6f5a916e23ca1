#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>

#include "kestrin/RecordPrinters.h"

namespace kestrin {
namespace {

template <typename Record>
std::string Print(const Record& record) {
  std::ostringstream out;
  out << record;
  return out.str();
}

tKesAddLogMessage MakeAddLog(const char* text) {
  tKesAddLogMessage m{};
  m.header.version = KES_INTERFACE_VERSION;
  m.header.type = KES_ADD_LOG;
  m.handle = 7;
  m.flags = 2;
  m.destination = 6;
  m.severity = 4;
  m.eventClass = 16;
  m.eventId = -12;
  m.timeSeconds = 1700000000;
  m.timeMicroseconds = 42;
  m.cardId = 3;
  m.pid = 4242;
  strcpy(m.text, text);
  return m;
}

tKesUnregAddLogMessage MakeUnreg() {
  tKesAddLogMessage in = MakeAddLog("hello");
  tKesUnregAddLogMessage m{};
  FormatKesUnregAddLogMessage(&m, &in, 41 + 5, "mod", "inlog", "f.log");
  return m;
}

tKesLogFileSizeMessage MakeLogFileSize(uint32_t sizeOrCount) {
  tKesLogFileSizeMessage m{};
  m.header.version = KES_INTERFACE_VERSION;
  m.header.type = KES_LOG_FILE_SIZE;
  m.sizeOrCount = sizeOrCount;
  strcpy(m.fileName, "app.log");
  return m;
}

// ---- Add-log -------------------------------------------------------------

TEST(RecordPrinters, AddLogPrintsEveryField) {
  EXPECT_EQ(
      "Add Log Message: version 34, handle 7, flags 2, destination Ev|Reg, severity Info, event "
      "class configuration, event ID -12, time 1700000000.000042, card 3, PID 4242, \"hello\"",
      Print(MakeAddLog("hello")));
}

TEST(RecordPrinters, AddLogUsesLowByteOfDestinationAndLow16BitsOfSeverity) {
  tKesAddLogMessage m = MakeAddLog("t");
  m.destination = 0x0102;   // only the low byte, 0x02, counts
  m.severity = 0x00010008;  // only the low 16 bits, 8, count
  m.eventClass = 3;         // not one class
  std::string text = Print(m);
  EXPECT_NE(std::string::npos,
            text.find(", destination Reg, severity Debug, event class ???, event ID"))
      << text;
}

TEST(RecordPrinters, MicrosecondsAreSixZeroFilledDigits) {
  tKesAddLogMessage m = MakeAddLog("t");
  m.timeMicroseconds = 0;
  EXPECT_NE(std::string::npos, Print(m).find(", time 1700000000.000000, card"));
  m.timeMicroseconds = 999999;
  EXPECT_NE(std::string::npos, Print(m).find(", time 1700000000.999999, card"));
}

TEST(RecordPrinters, FillIsBlankAgainAfterTheTime) {
  std::ostringstream out;
  out << MakeAddLog("t") << '|' << std::setw(4) << 7;
  std::string text = out.str();
  EXPECT_EQ("|   7", text.substr(text.size() - 5));
}

TEST(RecordPrinters, NoPrinterEndsWithANewline) {
  std::string texts[] = {Print(MakeAddLog("hello")), Print(MakeLogFileSize(5)), Print(MakeUnreg())};
  for (const std::string& text : texts) {
    ASSERT_FALSE(text.empty());
    EXPECT_NE('\n', text.back()) << text;
  }
}

TEST(RecordPrinters, RecordOfType6PassedToAddLogPrinterPrintsOnlyTheTypeError) {
  tKesAddLogMessage m = MakeAddLog("hello");
  m.header.type = KES_LOG_FILE_SIZE;
  EXPECT_EQ("Message Type 6 (ERROR: KES_ADD_LOG expected)", Print(m));
}

TEST(RecordPrinters, AddLogTextWithoutNulStopsAtTheField) {
  tKesAddLogMessage m = MakeAddLog("");
  memset(m.text, 'x', sizeof m.text);
  std::string text = Print(m);
  EXPECT_EQ(", \"" + std::string(900, 'x') + "\"", text.substr(text.find(", \"")));
}

// ---- Log-file-size -------------------------------------------------------

TEST(RecordPrinters, LogFileSizeWithTopBitPrintsKeepCount) {
  EXPECT_EQ("Log File Size Message: version 34, keep 5 old logs, file name app.log",
            Print(MakeLogFileSize(0x80000005u)));
}

TEST(RecordPrinters, LogFileSizePlainValuePrintsMaximumSize) {
  EXPECT_EQ("Log File Size Message: version 34, max file size 5 kB, file name app.log",
            Print(MakeLogFileSize(5)));
}

TEST(RecordPrinters, LogFileSizeWrongType) {
  tKesLogFileSizeMessage m = MakeLogFileSize(5);
  m.header.type = KES_ADD_LOG;
  EXPECT_EQ("Message Type 1 (ERROR: KES_LOG_FILE_SIZE expected)", Print(m));
}

// ---- Core register and greetings -----------------------------------------

TEST(RecordPrinters, CoreRegisterQuotesTheQueueName) {
  tKesCoreRegister m{};
  m.header.version = KES_INTERFACE_VERSION;
  m.header.type = KES_CORE_REGISTER;
  strcpy(m.queueName, "replyQ");
  EXPECT_EQ("Core Register Message: version 34, queue name \"replyQ\"", Print(m));
  m.header.type = 99;
  EXPECT_EQ("Message Type 99 (ERROR: KES_CORE_REGISTER expected)", Print(m));
}

TEST(RecordPrinters, AgentGreetingsQuotesTheCardName) {
  tKesAgentGreetingsMessage m{};
  FormatKesAgentGreetingsMessage(&m, "card7");
  EXPECT_EQ("Agent Greetings Message: version 34, card name \"card7\"", Print(m));
  m.header.type = KES_CORE_REGISTER;
  EXPECT_EQ("Message Type 8 (ERROR: KES_AGENT_GREETINGS expected)", Print(m));
}

// ---- Unregistered add-log and registration handle ------------------------

TEST(RecordPrinters, UnregAddLogPrintsNamesAndTextWithoutHandle) {
  EXPECT_EQ(
      "Unregistered Add Log Message: version 34, flags 2, destination Ev|Reg, severity Info, "
      "event class configuration, event ID -12, time 1700000000.000042, card 3, PID 4242, "
      "module name mod, mod name in log inlog, file name f.log, \"hello\"",
      Print(MakeUnreg()));
}

TEST(RecordPrinters, UnregAddLogOffsetOutsideTheAreaPrintsEmpty) {
  tKesUnregAddLogMessage m = MakeUnreg();
  m.logFileNameOffset = 5000;
  EXPECT_NE(std::string::npos, Print(m).find("mod name in log inlog, file name , \"hello\""));
}

TEST(RecordPrinters, UnregAddLogWrongType) {
  tKesUnregAddLogMessage m = MakeUnreg();
  m.header.type = KES_ADD_LOG;
  EXPECT_EQ("Message Type 1 (ERROR: KES_UNREG_ADD_LOG expected)", Print(m));
}

TEST(RecordPrinters, RegHandlePrintsHandleAndNames) {
  tKesUnregAddLogMessage in = MakeUnreg();
  tKesRegHandleMessage m{};
  FormatKesRegHandleMessage(&m, 9, &in);
  EXPECT_EQ(
      "Registration Handle Message: version 34, handle 9, mod name in log inlog, file name f.log",
      Print(m));
  m.header.type = KES_UNREG_ADD_LOG;
  EXPECT_EQ("Message Type 10 (ERROR: KES_REG_HANDLE expected)", Print(m));
}

// ---- Internal log request ------------------------------------------------

TEST(RecordPrinters, InternalLogRequestPrintsTextUnquotedWithoutTime) {
  tKesInternalLogRequestMessage m{};
  timeval time{};
  time.tv_sec = 1700000000;
  time.tv_usec = 5;
  FormatKesInternalLogRequestMessage(&m, time, 2, 7013, "socket closed");
  EXPECT_EQ(
      "Internal Log Request Message: version 34, severity Warn, eventID 7013, logDestination "
      "Reg, messageToLog socket closed",
      Print(m));
  m.header.type = KES_TIMER_TICK;
  EXPECT_EQ("Message Type 13 (ERROR: KES_INTERNAL_LOG_REQUEST expected)", Print(m));
}

}  // namespace
}  // namespace kestrin
