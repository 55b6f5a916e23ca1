#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kestrin/Globals.h"
#include "kestrin/LogFileNames.h"
#include "kestrin/OtherRequests.h"
#include "kestrin/OwnLogTestSupport.h"

namespace kestrin {
namespace {

using Texts = std::vector<std::string>;

tKesLogFileSizeMessage SizeRequest(const char* fileName, uint32_t value) {
  tKesLogFileSizeMessage message;
  memset(&message, 0, sizeof message);
  message.header.version = KES_INTERFACE_VERSION;
  message.header.type = KES_LOG_FILE_SIZE;
  message.sizeOrCount = value;
  strncpy(message.fileName, fileName, sizeof message.fileName - 1);
  return message;
}

constexpr uint32_t COUNT = KES_LOG_FILE_SIZE_COUNT_BIT;

class OtherRequests : public OwnLogTest {
 protected:
  void SetUp() override {
    OwnLogTest::SetUp();
    ResetLogFileNamesForTesting();
    logFileMap.clear();
    file_ = LogFilePtr(new LogFile("sized.log"));
    logFileMap["sized.log"] = file_;
    file_->maxFileSize.Set(2048);
    file_->backupCount.Set(7);
  }

  void TearDown() override {
    logFileMap.clear();
    file_ = LogFilePtr();
    OwnLogTest::TearDown();
  }

  // Applies the request and returns the own log's texts it produced.
  Texts Apply(const char* fileName, uint32_t value) {
    OwnLogCapture own;
    tKesLogFileSizeMessage message = SizeRequest(fileName, value);
    process_set_log_file_size_message(&message);
    return own.Texts();
  }

  static std::string SizeSet(long size) {
    return "Setting maximum size of file sized.log to " + std::to_string(size) +
           " in response to a LogFileSizeMessage";
  }

  static std::string BackupsSet(unsigned int count) {
    return "Setting number of backups of file sized.log to " + std::to_string(count) +
           " in response to a LogFileSizeMessage";
  }

  LogFilePtr file_;
};

TEST_F(OtherRequests, SizeZeroBecomes1024WithTheMinimumMessageNamingZero) {
  EXPECT_EQ(Texts({"Received a LogFileSize message requesting a file size of 0 bytes; changing "
                   "to the minimum value of 1024",
                   SizeSet(1024)}),
            Apply("sized.log", 0));
  EXPECT_EQ(1024, file_->maxFileSize.Get());
}

TEST_F(OtherRequests, SizeOneKibibyteIs1024WithoutClamping) {
  EXPECT_EQ(Texts({SizeSet(1024)}), Apply("sized.log", 1));
  EXPECT_EQ(1024, file_->maxFileSize.Get());
}

TEST_F(OtherRequests, Size15360IsTheMaximumWithoutClamping) {
  EXPECT_EQ(Texts({SizeSet(15728640)}), Apply("sized.log", 15360));
  EXPECT_EQ(15728640, file_->maxFileSize.Get());
}

TEST_F(OtherRequests, Size15361IsClampedToTheMaximum) {
  EXPECT_EQ(Texts({"Received a LogFileSize message requesting a file size of 15729664 bytes; "
                   "changing to the maximum value of 15728640",
                   SizeSet(15728640)}),
            Apply("sized.log", 15361));
  EXPECT_EQ(15728640, file_->maxFileSize.Get());
}

TEST_F(OtherRequests, Size2097152KibibytesWrapsNegativeAndBecomesTheMinimum) {
  EXPECT_EQ(Texts({"Received a LogFileSize message requesting a file size of -2147483648 bytes; "
                   "changing to the minimum value of 1024",
                   SizeSet(1024)}),
            Apply("sized.log", 2097152));
  EXPECT_EQ(1024, file_->maxFileSize.Get());
}

TEST_F(OtherRequests, SizeBitsShiftedOutAreLost) {
  // 4194305 KiB << 10 keeps only 1024 in 32 bits: no clamping at all.
  EXPECT_EQ(Texts({SizeSet(1024)}), Apply("sized.log", 4194305));
}

TEST_F(OtherRequests, TopBitWithFiveKeepsFiveBackups) {
  EXPECT_EQ(Texts({BackupsSet(5)}), Apply("sized.log", COUNT | 5));
  EXPECT_EQ(5u, file_->backupCount.Get());
}

TEST_F(OtherRequests, TopBitWith101KeepsTheMaximumOf100WithTheMessage) {
  EXPECT_EQ(Texts({"Received LogFileSize requesting 101 back ups; changing to the maximum value "
                   "of 100",
                   BackupsSet(100)}),
            Apply("sized.log", COUNT | 101));
  EXPECT_EQ(100u, file_->backupCount.Get());
}

TEST_F(OtherRequests, TopBitWithZeroKeepsNoBackups) {
  EXPECT_EQ(Texts({BackupsSet(0)}), Apply("sized.log", COUNT));
  EXPECT_EQ(0u, file_->backupCount.Get());
  EXPECT_FALSE(file_->backupCount.IsUsingDefault());
}

TEST_F(OtherRequests, ARequestChangesOneSettingOnly) {
  Apply("sized.log", COUNT | 9);
  EXPECT_EQ(2048, file_->maxFileSize.Get());
  Apply("sized.log", 4);
  EXPECT_EQ(9u, file_->backupCount.Get());
  EXPECT_EQ(4096, file_->maxFileSize.Get());
}

TEST_F(OtherRequests, UnknownFileIsCreatedFirstThenSized) {
  EXPECT_EQ(Texts({"Creating object for file fresh.log in response to LogFileSizeMessage",
                   "Setting maximum size of file fresh.log to 8192 in response to a "
                   "LogFileSizeMessage"}),
            Apply("fresh.log", 8));
  ASSERT_EQ(1u, logFileMap.count("fresh.log"));
  EXPECT_EQ(8192, logFileMap["fresh.log"]->maxFileSize.Get());
  EXPECT_TRUE(logFileMap["fresh.log"]->backupCount.IsUsingDefault());
}

TEST_F(OtherRequests, FileNameIsNormalisedBeforeTheLookup) {
  EXPECT_EQ(Texts({SizeSet(3072)}), Apply("//sized.log", 3));
  EXPECT_EQ(3072, file_->maxFileSize.Get());
  EXPECT_EQ(0u, logFileMap.count("//sized.log"));
}

TEST_F(OtherRequests, RegisterRequestLogsOnlyTheObsoleteLine) {
  OwnLogCapture own;
  size_t files = logFileMap.size();
  tKesRegisterEntry entry{};
  process_register_message(&entry);
  EXPECT_EQ(Texts({"ERROR! process_register_message was called. This function is obsolete."}),
            own.Texts());
  EXPECT_NE(std::string::npos, own.Raw().find("[ERROR]"));
  EXPECT_EQ(files, logFileMap.size());
}

TEST_F(OtherRequests, DeregisterAndCoreRegistrationDoNothing) {
  OwnLogCapture own;
  tKesDeregisterMessage deregister{};
  process_deregister_message(&deregister);
  tKesCoreRegister core{};
  process_core_registration(&core);
  EXPECT_TRUE(own.Texts().empty());
  EXPECT_EQ(1u, logFileMap.size());
}

TEST_F(OtherRequests, NamesLeadingOutsideAreRefusedAndNothingIsCreated) {
  EXPECT_EQ(Texts({"Refused log file name \"../x.log\": it leads outside the log directory"}),
            Apply("../x.log", 1));
  EXPECT_EQ(Texts(), Apply("/../x.log", COUNT | 0)) << "reported once per name";
  EXPECT_EQ(0u, logFileMap.count("../x.log"));
  EXPECT_EQ(1u, logFileMap.size());
}

TEST_F(OtherRequests, TheDaemonsOwnFilesAreRefusedAndKeepTheirSettings) {
  const LogFilePtr saved = systemlog;
  systemlog = LogFilePtr(new LogFile("system.log"));
  systemlog->backupCount.Set(9);
  logFileMap["system.log"] = systemlog;
  EXPECT_EQ(Texts({"Refused request to change the backup count of \"system.log\": the daemon's "
                   "own files take their settings from Kestrin.conf only"}),
            Apply("system.log", COUNT | 0));
  EXPECT_EQ(9u, systemlog->backupCount.Get());
  EXPECT_EQ(Texts({"Refused request to change the maximum size of \"" + logger->GetName() +
                   "\": the daemon's own files take their settings from Kestrin.conf only"}),
            Apply(logger->GetName().c_str(), 1));
  EXPECT_EQ(Texts({"Refused request to change the maximum size of \"faultrecords.jsonl\": the "
                   "daemon's own files take their settings from Kestrin.conf only"}),
            Apply("faultrecords.jsonl", 1));
  EXPECT_EQ(0u, logFileMap.count("faultrecords.jsonl"));
  systemlog = saved;
}

}  // namespace
}  // namespace kestrin
