// Test support for the daemon's request handling: a fixture with the pieces
// a running daemon has (the standard log files, the registration table, the
// filter segment and the semaphore) under the program's private root, and a
// reader of the lines a file received during a test.
//
// DaemonTest builds them fresh for each test and removes every IPC object
// it made at the end, so tests do not see each other's state even when the
// whole program runs in one process. The calling thread is the main thread;
// the time zone is UTC so that time stamps are fixed texts.
#ifndef KESTRIN_KESTRIN_DAEMON_TEST_SUPPORT_H_
#define KESTRIN_KESTRIN_DAEMON_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kestrin/AlarmTaxonomy.h"
#include "kestrin/Globals.h"
#include "kestrin/LogFile.h"
#include "kestrin/LogFileNames.h"
#include "kestrin/OwnLogTestSupport.h"
#include "kestrin/Records.h"
#include "kestrin/RegTable.h"
#include "osa/osa.h"
#include "protocol/SharedLayout.h"

namespace kestrin {

// The bytes a file received from the moment of construction on.
class FileCapture {
 public:
  explicit FileCapture(const LogFilePtr& file) : file_(file), start_(CurrentSize()) {}

  std::string Raw() const {
    file_->Flush();
    std::ifstream in(file_->GetPathName(), std::ios::binary);
    in.seekg(static_cast<std::streamoff>(start_));
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }

  // The lines received, without their line ends.
  std::vector<std::string> Lines() const {
    std::istringstream in(Raw());
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
  }

 private:
  uintmax_t CurrentSize() const {
    file_->Flush();
    std::error_code error;
    uintmax_t size = std::filesystem::file_size(file_->GetPathName(), error);
    return error ? 0 : size;
  }

  LogFilePtr file_;
  uintmax_t start_;
};

// How many of `lines` equal `text`.
inline int CountOf(const std::vector<std::string>& lines, const std::string& text) {
  int count = 0;
  for (const std::string& line : lines) count += line == text ? 1 : 0;
  return count;
}

class DaemonTest : public OwnLogTest {
 protected:
  void SetUp() override {
    OwnLogTest::SetUp();
    setenv("TZ", "UTC", 1);
    tzset();
    ResetFiles();
    ResetLogFileNamesForTesting();
    MaxLogFiles = KES_DEFAULT_MAX_LOG_FILES;
    systemlog = LogFilePtr(new LogFile("system.log"));
    systemlog->SetIsOperationalLog(true);
    alarmLog = LogFilePtr(new LogFile("alarms.systemlog"));
    alarmLog->SetIsOperationalLog(true);
    logFileMap["system.log"] = systemlog;
    logFileMap[logger->GetName()] = logger;
    logFileMap["alarms.systemlog"] = alarmLog;
    RemoveSegments();
    ASSERT_TRUE(InitializeSharedMemory());
    create_ipc_semaphore();
    AlarmMap.clear();
    osLStrCpyn(Hostname, "testhost", sizeof Hostname);
  }

  void TearDown() override {
    osSetOverrides(nullptr);
    if (ipcSemaphore != -1) osSysVSemaphoreRemove(ipcSemaphore);
    ipcSemaphore = -1;
    if (sys5q != -1) osSysVQueueRemove(sys5q);
    sys5q = -1;
    RemoveSegments();
    ResetFiles();
    AlarmMap.clear();
    OwnLogTest::TearDown();
  }

  // Fills slot `handle` as the client library registers a module.
  static void Register(unsigned int handle, const char* moduleName, const char* moduleNameInLog,
                       const char* logFileName) {
    tKesRegTableEntry& entry = sharedRegistrationTable[handle];
    entry.version = KES_INTERFACE_VERSION;
    osLStrCpyn(entry.moduleName, moduleName, sizeof entry.moduleName);
    osLStrCpyn(entry.moduleNameInLog, moduleNameInLog, sizeof entry.moduleNameInLog);
    osLStrCpyn(entry.logFileName, logFileName, sizeof entry.logFileName);
    entry.handle = handle;
    entry.state = KES_SLOT_STATE_REGISTERED;
  }

  // An add-log record with a fixed time: 2023-11-14T22:13:20 UTC and the
  // given microseconds.
  static tKesAddLogMessage AddLogRecord(unsigned int handle, uint16_t destination,
                                        uint32_t severity, int32_t eventId, const char* text,
                                        int32_t microseconds = 42, uint16_t flags = 0) {
    tKesAddLogMessage message;
    memset(&message, 0, sizeof message);
    message.header.version = KES_INTERFACE_VERSION;
    message.header.type = KES_ADD_LOG;
    message.handle = handle;
    message.flags = flags;
    message.destination = destination;
    message.severity = severity;
    message.eventId = eventId;
    message.timeSeconds = FIXED_SECONDS;
    message.timeMicroseconds = microseconds;
    message.pid = 99;
    osLStrCpyn(message.text, text, sizeof message.text);
    return message;
  }

  static unsigned int SizeOf(const tKesAddLogMessage& message) {
    return static_cast<unsigned int>(offsetof(tKesAddLogMessage, text) + strlen(message.text) + 1);
  }

  static constexpr int32_t FIXED_SECONDS = 1700000000;
  static constexpr const char* FIXED_STAMP = "2023-11-14T22:13:20.";

 private:
  static void ResetFiles() {
    logFileMap.clear();
    for (LogFilePtr& file : logFileArray) file = LogFilePtr();
    systemlog = LogFilePtr();
    alarmLog = LogFilePtr();
  }

  static void RemoveSegments() {
    sharedRegistrationTable = nullptr;
    mySegment = nullptr;
    osUnshareMemory(KES_REG_TABLE_SEGMENT_NAME);
    osUnshareMemory(KES_FILTER_SEGMENT_NAME);
  }
};

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_DAEMON_TEST_SUPPORT_H_
