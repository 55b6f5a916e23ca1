// Add-log and log-file requests through the real daemon: exact lines in the
// system log, private files, the alarm log and the fault records.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "KestrinServer.h"
#include "kestrin/Records.h"
#include "osa/osa.h"
#include "qrt/QrtDiag.h"

namespace kestrin_e2e {
namespace {

using Texts = std::vector<std::string>;

// 2023-11-14T22:13:20 UTC; the daemon runs with TZ=UTC.
constexpr int32_t FIXED_SECONDS = 1700000000;

std::string HostName() {
  char name[256] = {};
  EXPECT_EQ(OS_OK, osTCPGetHostName(name, sizeof name));
  return name;
}

// A raw add-log record with a fixed time and PID 99.
kestrin::tKesAddLogMessage Record(uint32_t handle, uint16_t destination, uint32_t severity,
                                  int32_t eventId, const char* text, uint16_t flags = 0) {
  kestrin::tKesAddLogMessage message;
  memset(&message, 0, sizeof message);
  message.header.version = kestrin::KES_INTERFACE_VERSION;
  message.header.type = kestrin::KES_ADD_LOG;
  message.handle = handle;
  message.flags = flags;
  message.destination = destination;
  message.severity = severity;
  message.eventId = eventId;
  message.timeSeconds = FIXED_SECONDS;
  message.timeMicroseconds = 42;
  message.pid = 99;
  strncpy(message.text, text, sizeof message.text - 1);
  return message;
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

void Send(const KestrinServer& server, const kestrin::tKesAddLogMessage& message) {
  server.SendRecord(&message,
                    offsetof(kestrin::tKesAddLogMessage, text) + strlen(message.text) + 1);
}

// A running daemon and one module registered through the client library.
class E2eAddLog : public ::testing::Test {
 protected:
  void SetUp() override { Start({}); }

  void Start(const std::vector<std::string>& arguments) {
    server_.Start(arguments);
    ASSERT_TRUE(server_.WaitForReady()) << server_.Stdout();
    ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("App", "AppLog", 0, "app.log", &handle_));
  }

  void TearDown() override {
    EXPECT_EQ(0, server_.Run({"stop"}).status);
    EXPECT_EQ(0, server_.WaitForExit());
  }

  // The system-log line of a record made by Record().
  std::string SystemLine(const std::string& severity, int eventId, const std::string& message) {
    return "<" + severity + ">\t2023-11-14T22:13:20.000042\t" + HostName() + "\tAppLog\t[99]:\t" +
           "eventID=" + std::to_string(eventId) + "; message=" + message;
  }

  KestrinServer server_;
  int handle_ = -1;
};

// The first line of a private file carries the record's time, even though
// opening the file writes a report (with the present time) into the own log.
TEST_F(E2eAddLog, SystemLogAndPrivateFileGetTheirExactLines) {
  Send(server_, Record(handle_, 0x3, 4, 1234, "hello"));
  ASSERT_TRUE(server_.WaitForLogLine("app.log", "hello"));
  ASSERT_TRUE(server_.WaitForLogLine("system.log", "hello"));
  EXPECT_EQ(1, Count(server_.LogLines("system.log"), SystemLine("information", 1234, "hello")));
  EXPECT_EQ(Texts({"2023-11-14T22:13:20.000 [INFO ] {AppLog} (1234) - hello"}),
            server_.LogLines("app.log"));
  EXPECT_TRUE(
      server_.WaitForOwnLogText("Module App (99 on 0) is registering the private log file "
                                "app.log"));
}

TEST_F(E2eAddLog, ClientLibraryMessagesReachBothFiles) {
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle_, QRT_DESTINATION_BOTH, QRT_SEVERITY_ERROR, 100,
                                             "via the library", QRT_EVENT_CLASS_FAULT));
  ASSERT_TRUE(server_.WaitForLogLine("app.log", "via the library"));
  ASSERT_TRUE(server_.WaitForLogLine("system.log", "via the library"));
  const std::string mark = "\t" + HostName() + "\tAppLog\t[" + std::to_string(getpid()) +
                           "]:\teventID=100; message=via the library";
  bool found = false;
  for (const std::string& line : server_.LogLines("system.log")) {
    if (line.find(mark) != std::string::npos) {
      found = true;
      EXPECT_EQ(0u, line.find("<error>\t")) << line;
      EXPECT_EQ(mark.size() + line.find(mark), line.size()) << line;
    }
  }
  EXPECT_TRUE(found);
  Texts lines = server_.LogLines("app.log");
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find(" [ERROR] {AppLog} (100) - via the library"));
}

TEST_F(E2eAddLog, DroppedFlagShowsInThePrivateFile) {
  Send(server_, Record(handle_, 0x2, 8, 5, "after a gap", 0x2));
  ASSERT_TRUE(server_.WaitForLogLine("app.log", "after a gap"));
  Texts lines = server_.LogLines("app.log");
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(EndsWith(lines[0],
                       ".000 [DEBUG] {AppLog} (5) - (Messages have been dropped.) "
                       "after a gap"))
      << lines[0];
}

TEST_F(E2eAddLog, UnregisteredHandleIsAValidationErrorAndTheRecordIsDropped) {
  Send(server_, Record(200, 0x3, 4, 1, "nope"));
  EXPECT_TRUE(server_.WaitForOwnLogText(
      "AddLogMessage: handle 0xc8 isn't active. Card: 0, caller's PID: 99, msg: nope"));
  EXPECT_EQ(0, Count(server_.LogLines("system.log"), SystemLine("information", 1, "nope")));
}

TEST_F(E2eAddLog, RecordWithBytesAfterTheTextIsAValidationError) {
  kestrin::tKesAddLogMessage message = Record(handle_, 0x1, 4, 1, "tail");
  memcpy(message.text + 5, "xyz", 3);  // three bytes after the text's NUL
  server_.SendRecord(&message, offsetof(kestrin::tKesAddLogMessage, text) + 4 + 1 + 3);
  EXPECT_TRUE(server_.WaitForOwnLogText(
      "AddLogMessage: String not null-terminated, or message size incorrect. String: tail"));
  EXPECT_EQ(0, Count(server_.LogLines("system.log"), SystemLine("information", 1, "tail")));
}

TEST_F(E2eAddLog, LogFileSizeRequestsAreClampedAndReported) {
  ASSERT_EQ(QRT_OK, QrtDiagSetLogFileSize("sized.log", 0));
  ASSERT_EQ(QRT_OK, QrtDiagSetLogFileBackups("sized.log", 101));
  ASSERT_TRUE(server_.WaitForOwnLogText(
      "Setting number of backups of file sized.log to 100 in response to a LogFileSizeMessage"));
  Texts texts = server_.OwnLogTexts();
  EXPECT_EQ(1,
            Count(texts, "Creating object for file sized.log in response to LogFileSizeMessage"));
  EXPECT_EQ(1, Count(texts,
                     "Received a LogFileSize message requesting a file size of 0 bytes; "
                     "changing to the minimum value of 1024"));
  EXPECT_EQ(1, Count(texts,
                     "Setting maximum size of file sized.log to 1024 in response to a "
                     "LogFileSizeMessage"));
  EXPECT_EQ(1, Count(texts,
                     "Received LogFileSize requesting 101 back ups; changing to the "
                     "maximum value of 100"));
  EXPECT_EQ(1, Count(texts,
                     "From queue: Log File Size Message: version 34, max file size 0 kB, "
                     "file name sized.log"));
  EXPECT_EQ(1, Count(texts,
                     "From queue: Log File Size Message: version 34, keep 101 old logs, "
                     "file name sized.log"));
}

TEST_F(E2eAddLog, StampAllReachesEveryFileOnce) {
  int other = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("Other", "OtherLog", 0, "app.log", &other));
  ASSERT_NE(handle_, other) << "a second name in log: a second handle";
  Send(server_, Record(handle_, 0x1, 4, 77, "stamp me", 0x1));
  ASSERT_TRUE(server_.WaitForLogLine("app.log", "stamp me"));
  ASSERT_TRUE(server_.WaitForLogLine("QrtInternal.log", "stamp me"));
  Texts lines = server_.LogLines("app.log");
  ASSERT_EQ(1u, lines.size()) << "two handles, one file: stamped once";
  EXPECT_TRUE(EndsWith(lines[0], ".000 [INFO ] {AppLog} (77) - stamp me")) << lines[0];
  // Each file reaches the disk at its own flush: wait for every file read here.
  const std::string systemLine = SystemLine("information", 77, "stamp me");
  EXPECT_TRUE(WaitUntil([&] { return Count(server_.LogLines("system.log"), systemLine) >= 2; }))
      << "once as its destination, once stamped";
  EXPECT_EQ(2, Count(server_.LogLines("system.log"), systemLine));
  ASSERT_TRUE(server_.WaitForOwnLogText("stamp me"));
  Texts texts = server_.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "Stamping all log files with the following message."));
  EXPECT_EQ(1, Count(texts, "stamp me"));
}

class E2eAddLogTaxonomy : public E2eAddLog {
 protected:
  void SetUp() override {
    server_.WriteFile("kv/etc/KestrinTaxonomy",
                      "[fan]\n"
                      "eID=500\n"
                      "newID=501\n"
                      "newSev=major\n"
                      "eventClass=fault\n"
                      "newMsg=Fan failed\n"
                      "alarm=true\n"
                      "problemResolution=Replace the fan.\n");
    E2eAddLog::SetUp();
  }
};

TEST_F(E2eAddLogTaxonomy, MappedEventGoesToTheAlarmLogAndBecomesAFaultRecord) {
  Send(server_, Record(handle_, 0x1, 4, 500, "fan 2 stopped"));
  ASSERT_TRUE(server_.WaitForLogLine("alarms.systemlog", "Fan failed"));
  const std::string line = "<major>\t2023-11-14T22:13:20.000042\t" + HostName() +
                           "\tAppLog\t[99]:\teventID=501; message=Fan failed; "
                           "problemResolution=Replace the fan.";
  EXPECT_EQ(Texts({line}), server_.LogLines("alarms.systemlog"));
  ASSERT_TRUE(server_.WaitForLogLine("system.log", "Fan failed"));
  EXPECT_EQ(1, Count(server_.LogLines("system.log"), line));
  const std::string records = server_.ReadFile("kv/log/faultrecords.jsonl");
  EXPECT_NE(std::string::npos, records.find("\"eventId\":501,")) << records;
  EXPECT_NE(
      std::string::npos,
      records.find("\"definedName\":\"systemId=PXR;entityId=" + HostName() + ";entitySubId=App\""))
      << records;
  EXPECT_NE(std::string::npos, records.find("\"reason\":\"Fan failed\"")) << records;
}

class E2eAddLogTraced : public E2eAddLog {
 protected:
  void SetUp() override { Start({"-LogAddLog"}); }
};

TEST_F(E2eAddLogTraced, LogAddLogOptionTracesEveryAddLogTakenOffTheQueue) {
  Send(server_, Record(handle_, 0x1, 4, 1234, "hello"));
  EXPECT_TRUE(server_.WaitForOwnLogText(
      "From queue: Add Log Message: version 34, handle " + std::to_string(handle_) +
      ", flags 0, destination Ev, severity Info, event class unspecified, event ID 1234, time "
      "1700000000.000042, card 0, PID 99, \"hello\""));
}

}  // namespace
}  // namespace kestrin_e2e
