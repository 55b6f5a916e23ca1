// Test support for the configuration, taxonomy and event tests.
//
// FakeClientLibrary stands in for the client library behind the process-wide
// InternalEventManager: it records every submitted event and lets a test
// make registration or submission fail. ReportLines reads back the own log
// as "SEVERITY|eventId|text". LedDevices puts FIFOs where the LED devices
// are expected under the program's private root and reads every byte
// written to them.
#ifndef KESTRIN_KESTRIN_ALARM_TEST_SUPPORT_H_
#define KESTRIN_KESTRIN_ALARM_TEST_SUPPORT_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "kestrin/AlarmUtils.h"
#include "kestrin/OwnLogTestSupport.h"
#include "kestrin/PrivateRootEnvironment.h"

namespace kestrin {

class FakeClientLibrary {
 public:
  static constexpr int HANDLE = 7;

  // Resets the records and installs the fake into the process-wide manager,
  // which starts over: no handle, nothing deferred, events not yet possible.
  static void Install() {
    Events().clear();
    Registrations().clear();
    RegisterResult() = 0;
    AddLogResult() = 0;
    InternalEventManager::Instance().ResetForTesting(Register, AddLog);
  }

  // Each submitted event as "handle|destination|severity|eventId|class|text".
  static std::vector<std::string>& Events() {
    static std::vector<std::string> events;
    return events;
  }
  // Each registration attempt as "moduleName|moduleNameInLog|flags|logFile".
  static std::vector<std::string>& Registrations() {
    static std::vector<std::string> registrations;
    return registrations;
  }
  // What the next registrations and submissions return.
  static int& RegisterResult() {
    static int result = 0;
    return result;
  }
  static int& AddLogResult() {
    static int result = 0;
    return result;
  }

  static std::string Event(int destination, int severity, unsigned long eventId, int eventClass,
                           const std::string& text) {
    return std::to_string(HANDLE) + "|" + std::to_string(destination) + "|" +
           std::to_string(severity) + "|" + std::to_string(eventId) + "|" +
           std::to_string(eventClass) + "|" + text;
  }

 private:
  static int Register(const char* moduleName, const char* moduleNameInLog, int flags,
                      const char* logFileName, int* handle) {
    Registrations().push_back(std::string(moduleName) + "|" + moduleNameInLog + "|" +
                              std::to_string(flags) + "|" + logFileName);
    if (RegisterResult() != 0) return RegisterResult();
    *handle = HANDLE;
    return 0;
  }
  static int AddLog(int handle, unsigned char destination, unsigned short severity,
                    unsigned long eventId, const char* text, unsigned long eventClass) {
    Events().push_back(std::to_string(handle) + "|" + std::to_string(destination) + "|" +
                       std::to_string(severity) + "|" + std::to_string(eventId) + "|" +
                       std::to_string(eventClass) + "|" + text);
    return AddLogResult();
  }
};

// The own log's lines since `capture` was made, as "SEVERITY|eventId|text"
// with the severity word trimmed ("ERROR", "WARN", "INFO", "DEBUG").
inline std::vector<std::string> ReportLines(const OwnLogCapture& capture) {
  std::vector<std::string> lines;
  std::istringstream in(capture.Raw());
  std::string line;
  while (std::getline(in, line)) {
    size_t open = line.find(" [");
    size_t close = line.find("] {", open);
    size_t idOpen = line.find("} (", close);
    size_t idClose = line.find(") - ", idOpen);
    if (open == std::string::npos || close == std::string::npos || idOpen == std::string::npos ||
        idClose == std::string::npos) {
      lines.push_back("<malformed> " + line);
      continue;
    }
    std::string severity = line.substr(open + 2, close - open - 2);
    while (!severity.empty() && severity.back() == ' ') severity.pop_back();
    lines.push_back(severity + "|" + line.substr(idOpen + 3, idClose - idOpen - 3) + "|" +
                    line.substr(idClose + 4));
  }
  return lines;
}

// FIFOs standing in for "/dev/led0" and "/dev/led1" under the private root.
// Each is held open for reading and writing, so that the code under test can
// open it for writing without blocking, as often as it likes, and the reader
// never sees an end of file between two of its opens.
class LedDevices {
 public:
  LedDevices() {
    std::filesystem::create_directories(Directory());
    for (int device = 0; device < 2; ++device) {
      std::string path = Path(device);
      unlink(path.c_str());
      EXPECT_EQ(0, mkfifo(path.c_str(), 0600)) << path;
      fds_[device] = open(path.c_str(), O_RDWR | O_NONBLOCK);
      EXPECT_GE(fds_[device], 0) << path;
    }
  }
  ~LedDevices() {
    for (int device = 0; device < 2; ++device) {
      if (fds_[device] >= 0) close(fds_[device]);
      std::error_code ignored;
      std::filesystem::remove(Path(device), ignored);
    }
  }
  LedDevices(const LedDevices&) = delete;
  LedDevices& operator=(const LedDevices&) = delete;

  // Every byte written to `device` since the last call.
  std::vector<int> Bytes(int device) {
    std::vector<int> bytes;
    unsigned char buffer[64];
    ssize_t count;
    while (fds_[device] >= 0 && (count = read(fds_[device], buffer, sizeof buffer)) > 0) {
      bytes.insert(bytes.end(), buffer, buffer + count);
    }
    return bytes;
  }

  // Puts a directory in the device's place, so that opening it for writing
  // fails (a missing path would simply be created as a plain file).
  void Break(int device) {
    if (fds_[device] >= 0) close(fds_[device]);
    fds_[device] = -1;
    unlink(Path(device).c_str());
    EXPECT_EQ(0, mkdir(Path(device).c_str(), 0700));
  }

  static std::string Directory() { return PrivateRootEnvironment::Root() + "/dev"; }
  static std::string Path(int device) { return Directory() + "/led" + std::to_string(device); }

 private:
  int fds_[2] = {-1, -1};
};

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_ALARM_TEST_SUPPORT_H_
