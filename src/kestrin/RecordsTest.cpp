#include "kestrin/Records.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace kestrin {
namespace {

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
  m.timeMicroseconds = 123456;
  m.cardId = 3;
  m.pid = 4242;
  strcpy(m.text, text);
  return m;
}

TEST(Records, QueueLengthCountsTheTypeWordAllowance) {
  EXPECT_EQ(45u, KesQueueSendLength(41));
  EXPECT_EQ(41, KesRecordSizeFromQueueLength(45));
  // The tick and the stop/hup requests: a bare header is 8 bytes of text.
  EXPECT_EQ(8u, KesQueueSendLength(sizeof(tKesMessage)));
}

TEST(Records, AddLogHostToNetworkSwapsEveryIntegerAndNoText) {
  tKesAddLogMessage m = MakeAddLog("abc");
  HostToNetwork(&m);
  const unsigned char* b = reinterpret_cast<const unsigned char*>(&m);
  EXPECT_EQ(0x00, b[0]);
  EXPECT_EQ(34, b[1]);
  EXPECT_EQ(0x00, b[2]);
  EXPECT_EQ(1, b[3]);
  EXPECT_EQ(7, b[7]);                 // handle, big-endian
  EXPECT_EQ(2, b[9]);                 // flags
  EXPECT_EQ(6, b[11]);                // destination
  EXPECT_EQ(0xFF, b[20]);             // event ID -12 = 0xFFFFFFF4
  EXPECT_EQ(0xF4, b[23]);
  EXPECT_EQ(0x10, b[38]);             // PID 4242 = 0x1092
  EXPECT_EQ(0x92, b[39]);
  EXPECT_STREQ("abc", m.text);
  NetworkToHost(&m);
  tKesAddLogMessage original = MakeAddLog("abc");
  EXPECT_EQ(0, memcmp(&original, &m, sizeof m));
}

TEST(Records, UnregAddLogStoresEqualModuleNamesOnce) {
  tKesAddLogMessage in = MakeAddLog("hello");
  tKesUnregAddLogMessage out{};
  unsigned int size = FormatKesUnregAddLogMessage(&out, &in, 41 + 5, "modA", "modA", "a.log");
  EXPECT_EQ(KES_UNREG_ADD_LOG, out.header.type);
  EXPECT_EQ(34, out.header.version);
  EXPECT_EQ(0, out.moduleNameOffset);
  EXPECT_EQ(4, out.moduleNameLength);
  EXPECT_EQ(0, out.moduleNameInLogOffset);
  EXPECT_EQ(4, out.moduleNameInLogLength);
  EXPECT_EQ(5, out.logFileNameOffset);
  EXPECT_EQ(5, out.logFileNameLength);
  EXPECT_EQ(11, out.messageOffset);
  EXPECT_EQ(5, out.messageLength);
  EXPECT_EQ(11u + 5u + 53u, size);
  EXPECT_EQ(0, memcmp(out.stringArea, "modA\0a.log\0hello\0", 17));
  EXPECT_EQ(in.severity, out.severity);
  EXPECT_EQ(in.pid, out.pid);
}

TEST(Records, UnregAddLogPacksDistinctNames) {
  tKesAddLogMessage in = MakeAddLog("hi");
  tKesUnregAddLogMessage out{};
  unsigned int size = FormatKesUnregAddLogMessage(&out, &in, 43, "mod", "inlog", "f.log");
  EXPECT_EQ(4, out.moduleNameInLogOffset);
  EXPECT_EQ(10, out.logFileNameOffset);
  EXPECT_EQ(16, out.messageOffset);
  EXPECT_EQ(2, out.messageLength);
  EXPECT_EQ(16u + 2u + 53u, size);
  EXPECT_EQ(0, memcmp(out.stringArea, "mod\0inlog\0f.log\0hi\0", 19));
}

TEST(Records, AddLogFromUnregAddLogTakesHandleAndText) {
  tKesAddLogMessage in = MakeAddLog("payload");
  tKesUnregAddLogMessage unreg{};
  FormatKesUnregAddLogMessage(&unreg, &in, 41 + 7, "m", "n", "x.log");
  tKesAddLogMessage out{};
  unsigned int size = FormatKesAddLogMessage(&out, 99, &unreg);
  EXPECT_EQ(48u, size);
  EXPECT_EQ(99u, out.handle);
  EXPECT_EQ(KES_ADD_LOG, out.header.type);
  EXPECT_STREQ("payload", out.text);
  EXPECT_EQ(in.eventId, out.eventId);
  EXPECT_EQ(in.timeMicroseconds, out.timeMicroseconds);
}

TEST(Records, RegHandleCarriesNameInLogAndFileName) {
  tKesAddLogMessage in = MakeAddLog("t");
  tKesUnregAddLogMessage unreg{};
  FormatKesUnregAddLogMessage(&unreg, &in, 42, "module", "inlog", "dir/f.log");
  tKesRegHandleMessage out{};
  unsigned int size = FormatKesRegHandleMessage(&out, 12, &unreg);
  EXPECT_EQ(5u + 9u + 18u, size);
  EXPECT_EQ(12u, out.handle);
  EXPECT_EQ(0, out.moduleNameInLogOffset);
  EXPECT_EQ(6, out.logFileNameOffset);
  EXPECT_EQ(0, memcmp(out.stringArea, "inlog\0dir/f.log\0", 16));
}

TEST(Records, GreetingFromTwentyCharacterNameKeepsFifteen) {
  tKesAgentGreetingsMessage out{};
  unsigned int size = FormatKesAgentGreetingsMessage(&out, "ABCDEFGHIJKLMNOPQRST");
  EXPECT_EQ(20u, size);
  EXPECT_STREQ("ABCDEFGHIJKLMNO", out.cardName);
  EXPECT_EQ(KES_AGENT_GREETINGS, out.header.type);
}

TEST(Records, InternalLogRequestOfThousandCharactersIsCutTo899) {
  tKesInternalLogRequestMessage out{};
  timeval t{};
  t.tv_sec = 5;
  t.tv_usec = 6;
  std::string text(1000, 'x');
  unsigned int size = FormatKesInternalLogRequestMessage(&out, t, 2, 7012, text.c_str());
  EXPECT_EQ(921u, size);
  EXPECT_EQ(899u, strlen(out.messageToLog));
  EXPECT_EQ(2, out.logDestination);
  EXPECT_EQ(5u, out.timeSeconds);
  EXPECT_EQ(6u, out.timeMicroseconds);
  EXPECT_EQ(7012u, out.eventId);
  EXPECT_EQ(2, out.severity);
}

TEST(Records, InternalLogRequestSizeEndsAtTheNul) {
  tKesInternalLogRequestMessage out{};
  timeval t{};
  EXPECT_EQ(22u + 5u, FormatKesInternalLogRequestMessage(&out, t, 4, 1, "hello"));
  EXPECT_EQ(22u, FormatKesInternalLogRequestMessage(&out, t, 4, 1, ""));
}

TEST(Records, SetCardIdFillsOnlyZero) {
  tKesAddLogMessage m = MakeAddLog("");
  m.cardId = 0;
  SetCardID(&m);
  EXPECT_EQ(0u, m.cardId);  // this card is 0
  m.cardId = 9;
  SetCardID(&m);
  EXPECT_EQ(9u, m.cardId);
}

}  // namespace
}  // namespace kestrin
