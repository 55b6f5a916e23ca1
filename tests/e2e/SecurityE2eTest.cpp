// A hostile local client against the real daemon: log-file names that lead
// outside the log directory or hold control characters, symbolic links
// planted in the log directory, texts that try to forge lines, requests
// against the daemon's own files, and more files than the daemon keeps.
// After each, nothing outside the log directory has changed and a good
// client is still served.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "KestrinServer.h"
#include "qrt/QrtDiag.h"

namespace kestrin_e2e {
namespace {

using Texts = std::vector<std::string>;

const Texts kHostileNames = {"../x.log",    "a/../../x.log", "..",         "x/..",
                             "a/./../../b", "new\nline.log", "\x1b[2J.log"};

std::string Refusal(const std::string& quoted, const std::string& reason) {
  return "Refused log file name \"" + quoted + "\": " + reason;
}

const Texts kRefusals = {Refusal("../x.log", "it leads outside the log directory"),
                         Refusal("a/../../x.log", "it leads outside the log directory"),
                         Refusal("..", "it leads outside the log directory"),
                         Refusal("x/..", "it leads outside the log directory"),
                         Refusal("a/./../../b", "it leads outside the log directory"),
                         Refusal("new#012line.log", "it holds control characters"),
                         Refusal("#033[2J.log", "it holds control characters")};

class E2eSecurity : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.WriteFile("outside/victim.log", "precious\n");
    // A file a name with ".." could reach from kv/log: R/x.log, R/kv/x.log.
    server_.WriteFile("x.log", "precious\n");
    server_.WriteFile("kv/x.log", "precious\n");
  }

  void StartReady(const std::string& configuration = "") {
    if (!configuration.empty()) server_.WriteFile("kv/etc/Kestrin.conf", configuration);
    server_.Start();
    ASSERT_TRUE(server_.WaitForReady()) << server_.Stdout();
    ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("good", "Good", 0, "good.log", &good_));
  }

  void TearDown() override {
    if (!server_.Running()) return;
    EXPECT_EQ(0, server_.Run({"stop"}).status);
    EXPECT_EQ(0, server_.WaitForExit());
  }

  // A good client's line reaches its file: the daemon still serves.
  void ExpectGoodClientServed(const std::string& text) {
    ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(good_, QRT_DESTINATION_PRIVATE_FILE,
                                               QRT_SEVERITY_INFO, 1, text.c_str(), 2));
    EXPECT_TRUE(server_.WaitForLogLine("good.log", text)) << server_.ReadFile("kv/log/Kestrin.log");
  }

  void ExpectEveryRefusalOnce() {
    ASSERT_TRUE(server_.WaitForOwnLogText(kRefusals.back()))
        << server_.ReadFile("kv/log/Kestrin.log");
    const Texts texts = server_.OwnLogTexts();
    for (const std::string& refusal : kRefusals) EXPECT_EQ(1, Count(texts, refusal)) << refusal;
  }

  KestrinServer server_;
  int good_ = -1;
};

TEST_F(E2eSecurity, RegisteredNamesLeadingOutsideAreRefusedAtAddLogTime) {
  StartReady();
  const auto before = EntriesOutsideLogDirectory(server_);
  for (size_t i = 0; i < kHostileNames.size(); ++i) {
    const std::string& name = kHostileNames[i];
    int handle = -1;
    ASSERT_EQ(QRT_OK, QrtDiagRegisterModule(("m" + std::to_string(i)).c_str(), "Hostile", 0,
                                            name.c_str(), &handle))
        << name;
    for (int line = 0; line < 3; ++line) {
      ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(handle, QRT_DESTINATION_BOTH, QRT_SEVERITY_ERROR, 9,
                                                 "through a hostile name", 1));
    }
  }
  ExpectEveryRefusalOnce();
  ExpectGoodClientServed("still served");
  EXPECT_EQ(before, EntriesOutsideLogDirectory(server_));
  // The whole request is dropped: not even the system log has it.
  for (const std::string& line : server_.LogLines("system.log")) {
    EXPECT_EQ(std::string::npos, line.find("through a hostile name")) << line;
  }
}

TEST_F(E2eSecurity, SizeAndBackupRequestsForNamesLeadingOutsideAreRefused) {
  StartReady();
  const auto before = EntriesOutsideLogDirectory(server_);
  for (const std::string& name : kHostileNames) {
    ASSERT_EQ(QRT_OK, QrtDiagSetLogFileSize(name.c_str(), 1)) << name;
    ASSERT_EQ(QRT_OK, QrtDiagSetLogFileBackups(name.c_str(), 0)) << name;
  }
  ExpectEveryRefusalOnce();
  ExpectGoodClientServed("still served");
  EXPECT_EQ(before, EntriesOutsideLogDirectory(server_));
  EXPECT_EQ(0, Count(server_.OwnLogTexts(),
                     "Creating object for file ../x.log in response to LogFileSizeMessage"));
}

TEST_F(E2eSecurity, ConfigurationSectionsLeadingOutsideAreIgnored) {
  StartReady("[config]\nMessagesBeforeSleep = 80\n[../x.log]\nRollOnStartUp = true\n"
             "[good.log]\nFileSize = 2048\n");
  EXPECT_TRUE(server_.WaitForOwnLogText(Refusal("../x.log", "it leads outside the log directory")));
  EXPECT_EQ("precious\n", server_.ReadFile("x.log"));
  EXPECT_EQ("precious\n", server_.ReadFile("kv/x.log"));
  EXPECT_FALSE(std::filesystem::exists(server_.Root() + "/kv/x.log.1"));
  ExpectGoodClientServed("still served");
}

TEST_F(E2eSecurity, NothingIsWrittenThroughALinkInTheLogDirectory) {
  std::filesystem::create_directories(server_.Root() + "/kv/log");
  std::filesystem::create_symlink(server_.Root() + "/outside/victim.log",
                                  server_.Root() + "/kv/log/linked.log");
  std::filesystem::create_directory_symlink(server_.Root() + "/outside",
                                            server_.Root() + "/kv/log/dir");
  StartReady();
  const auto before = EntriesOutsideLogDirectory(server_);
  int linked = -1;
  int throughDirectory = -1;
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("linked", "Linked", 0, "linked.log", &linked));
  ASSERT_EQ(QRT_OK, QrtDiagRegisterModule("dir", "Dir", 0, "dir/new.log", &throughDirectory));
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(linked, QRT_DESTINATION_PRIVATE_FILE,
                                             QRT_SEVERITY_ERROR, 1, "forged", 1));
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(throughDirectory, QRT_DESTINATION_PRIVATE_FILE,
                                             QRT_SEVERITY_ERROR, 1, "forged", 1));
  ASSERT_EQ(QRT_OK, QrtDiagSetLogFileBackups("linked.log", 0));
  const std::string log = server_.Root() + "/kv/log/";
  EXPECT_TRUE(server_.WaitForOwnLogText(
      "RollingFile: Error: File " + log + "linked.log lies outside " + log +
      " (a symbolic link or \"..\" on the way); not opened"))
      << server_.ReadFile("kv/log/Kestrin.log");
  EXPECT_TRUE(server_.WaitForOwnLogText(
      "RollingFile: Error: File " + log + "dir/new.log lies outside " + log +
      " (a symbolic link or \"..\" on the way); not opened"));
  ExpectGoodClientServed("still served");
  EXPECT_EQ(before, EntriesOutsideLogDirectory(server_));
  EXPECT_EQ("precious\n", server_.ReadFile("outside/victim.log"));
  EXPECT_FALSE(std::filesystem::exists(server_.Root() + "/outside/new.log"));
}

TEST_F(E2eSecurity, ControlCharactersInATextCannotForgeALineOrAField) {
  StartReady();
  ASSERT_EQ(QRT_OK, QrtDiagAddLogWithEvClass(good_, QRT_DESTINATION_BOTH, QRT_SEVERITY_WARNING, 42,
                                             "ok\n<error>\tforged", 1));
  ASSERT_TRUE(server_.WaitForLogLine("good.log", "ok#012<error>#011forged"));
  ASSERT_TRUE(server_.WaitForLogLine("system.log", "ok#012<error>#011forged"));
  const Texts good = server_.LogLines("good.log");
  ASSERT_EQ(1u, good.size());
  EXPECT_NE(std::string::npos, good[0].find(" [WARN ] {Good} (42) - ok#012<error>#011forged"));
  int found = 0;
  for (const std::string& line : server_.LogLines("system.log")) {
    if (line.find("forged") == std::string::npos) continue;
    ++found;
    EXPECT_EQ(5, std::count(line.begin(), line.end(), '\t')) << line;
    EXPECT_EQ(line.size() - strlen("message=ok#012<error>#011forged"),
              line.find("message=ok#012<error>#011forged"));
  }
  EXPECT_EQ(1, found);
}

TEST_F(E2eSecurity, TheDaemonsOwnFilesTakeNoSizeOrBackupRequests) {
  StartReady();
  for (const char* name : {"system.log", "Kestrin.log", "alarms.systemlog", "faultrecords.jsonl"}) {
    ASSERT_EQ(QRT_OK, QrtDiagSetLogFileSize(name, 1)) << name;
    ASSERT_EQ(QRT_OK, QrtDiagSetLogFileBackups(name, 0)) << name;
  }
  ASSERT_EQ(QRT_OK, QrtDiagSetLogFileSize("good.log", 1));
  ASSERT_EQ(QRT_OK, QrtDiagSetLogFileBackups("good.log", 0));
  ASSERT_TRUE(server_.WaitForOwnLogText(
      "Setting number of backups of file good.log to 0 in response to a LogFileSizeMessage"))
      << server_.ReadFile("kv/log/Kestrin.log");
  const Texts texts = server_.OwnLogTexts();
  EXPECT_EQ(1, Count(texts,
                     "Setting maximum size of file good.log to 1024 in response to a "
                     "LogFileSizeMessage"));
  const std::string tail = ": the daemon's own files take their settings from Kestrin.conf only";
  for (const char* name : {"system.log", "Kestrin.log", "alarms.systemlog", "faultrecords.jsonl"}) {
    const std::string quoted = std::string("\"") + name + "\"";
    EXPECT_EQ(1, Count(texts, "Refused request to change the maximum size of " + quoted + tail))
        << name;
    EXPECT_EQ(1, Count(texts, "Refused request to change the backup count of " + quoted + tail))
        << name;
    EXPECT_EQ(0, Count(texts, std::string("Setting maximum size of file ") + name +
                                  " to 1024 in response to a LogFileSizeMessage"));
  }
}

TEST_F(E2eSecurity, MaxLogFilesBoundsTheFilesClientsAdd) {
  // The three standard files and good.log count: 12 more fit.
  StartReady("[config]\nMessagesBeforeSleep = 80\nMaxLogFiles = 16\n");
  ExpectGoodClientServed("first");
  for (int i = 0; i < 14; ++i) {
    ASSERT_EQ(QRT_OK, QrtDiagSetLogFileSize(("f" + std::to_string(i) + ".log").c_str(), 64));
  }
  const std::string refused =
      "Refused to add log file \"f12.log\": MaxLogFiles (16) files are already known";
  ASSERT_TRUE(server_.WaitForOwnLogText(refused)) << server_.ReadFile("kv/log/Kestrin.log");
  const Texts texts = server_.OwnLogTexts();
  EXPECT_EQ(1, Count(texts, "Creating object for file f11.log in response to LogFileSizeMessage"));
  EXPECT_EQ(0, Count(texts, "Creating object for file f12.log in response to LogFileSizeMessage"));
  EXPECT_EQ(1, Count(texts,
                     "Refused to add log file \"f13.log\": MaxLogFiles (16) files are already "
                     "known"));
  ExpectGoodClientServed("the known files keep working");
}

}  // namespace
}  // namespace kestrin_e2e
