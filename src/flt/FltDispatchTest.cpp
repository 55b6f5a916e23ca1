#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "flt/FltRecord.h"
#include "osa/osa.h"
#include "flt/StrictJson.h"

namespace {

using flt_test::JsonObject;
using flt_test::StrictJsonParser;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(text.substr(start, end - start));
  }
  if (start != text.size()) lines.push_back("<unterminated>" + text.substr(start));
  return lines;
}

CFltRecord Record(int32_t eventId, const char* reason) {
  CFltRecord record;
  record.setEventId(eventId);
  record.setNotificationSequenceNumber(static_cast<uint32_t>(eventId) + 1);
  record.setDefinedName("systemId=PXR;entityId=host;entitySubId=mod");
  record.setRaiseTime(1700000000);
  record.setOriginalSeverity("major");
  record.setReason(reason);
  record.setAlarmSetText("");
  record.setAlarmSetQueueName("");
  record.setSeverity(4);
  return record;
}

// Each test runs under its own root with an empty log directory; dispatch
// is started unless the test says otherwise.
class FltDispatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kestrin_flt_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    root_ = pattern;
    std::filesystem::create_directories(root_ + "/kv/log");
    setenv("KESTRIN_ROOT", root_.c_str(), 1);
  }
  void TearDown() override {
    FltDispatchTerminate();
    unsetenv("KESTRIN_ROOT");
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  std::string RecordFile() const { return root_ + "/kv/log/faultrecords.jsonl"; }

  std::string root_;
};

TEST_F(FltDispatchTest, DispatchBeforeInitTxFails) {
  EXPECT_EQ(FLT_ERROR_NOT_INITIALIZED, FltDispatch(Record(1, "x")));
  EXPECT_FALSE(std::filesystem::exists(RecordFile()));
}

TEST_F(FltDispatchTest, DispatchAfterTerminateFails) {
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  ASSERT_EQ(FLT_OK, FltDispatchTerminate());
  EXPECT_EQ(FLT_ERROR_NOT_INITIALIZED, FltDispatch(Record(1, "x")));
  EXPECT_FALSE(std::filesystem::exists(RecordFile()));
}

TEST_F(FltDispatchTest, TerminateWithoutInitTxFails) {
  EXPECT_EQ(FLT_ERROR_NOT_INITIALIZED, FltDispatchTerminate());
}

TEST_F(FltDispatchTest, InitTxTwiceIsHarmless) {
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  EXPECT_EQ(FLT_OK, FltDispatchInitTx());
  EXPECT_EQ(FLT_OK, FltDispatch(Record(1, "x")));
}

TEST_F(FltDispatchTest, EachRecordIsOneLineInTheLogDirectory) {
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  ASSERT_EQ(FLT_OK, FltDispatch(Record(7001, "first")));
  // Read before anything else happens: the line is there at once.
  EXPECT_EQ(Record(7001, "first").ToJson() + "\n", ReadFile(RecordFile()));
  ASSERT_EQ(FLT_OK, FltDispatch(Record(7002, "second")));
  std::vector<std::string> lines = Lines(ReadFile(RecordFile()));
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(Record(7001, "first").ToJson(), lines[0]);
  EXPECT_EQ(Record(7002, "second").ToJson(), lines[1]);
}

TEST_F(FltDispatchTest, ExistingFileIsAppendedTo) {
  { std::ofstream(RecordFile()) << "{\"earlier\":true}\n"; }
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  ASSERT_EQ(FLT_OK, FltDispatch(Record(3, "later")));
  EXPECT_EQ("{\"earlier\":true}\n" + Record(3, "later").ToJson() + "\n", ReadFile(RecordFile()));
}

TEST_F(FltDispatchTest, FileMovedAwayIsStartedAgain) {
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  ASSERT_EQ(FLT_OK, FltDispatch(Record(1, "one")));
  std::filesystem::rename(RecordFile(), RecordFile() + ".1");
  ASSERT_EQ(FLT_OK, FltDispatch(Record(2, "two")));
  EXPECT_EQ(Record(2, "two").ToJson() + "\n", ReadFile(RecordFile()));
  EXPECT_EQ(Record(1, "one").ToJson() + "\n", ReadFile(RecordFile() + ".1"));
}

TEST_F(FltDispatchTest, MissingLogDirectoryGivesOpenError) {
  std::filesystem::remove_all(root_ + "/kv/log");
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  EXPECT_EQ(FLT_ERROR_OPEN, FltDispatch(Record(1, "x")));
}

// The descriptor writes, through the platform layer's override: counted,
// and failing, cut short or passed on as a test asks.
long g_writeCalls = 0;
int g_writeResult = OSA_CALL_REAL;
bool g_writeHalf = false;
int InjectedWrite(long, const void*, size_t length, size_t* written) {
  ++g_writeCalls;
  if (g_writeHalf) {
    if (written != nullptr) *written = length / 2;
    return OS_OK;
  }
  if (g_writeResult != OSA_CALL_REAL && written != nullptr) *written = 0;
  return g_writeResult;
}

class FltDispatchWrites : public FltDispatchTest {
 protected:
  void SetUp() override {
    FltDispatchTest::SetUp();
    g_writeCalls = 0;
    g_writeResult = OSA_CALL_REAL;
    g_writeHalf = false;
    overrides_.writeDescriptor = InjectedWrite;
    osSetOverrides(&overrides_);
  }
  void TearDown() override {
    osSetOverrides(nullptr);
    FltDispatchTest::TearDown();
  }
  tOsaOverrides overrides_{};
};

TEST_F(FltDispatchWrites, AFullDiskGivesWriteError) {
  g_writeResult = OS_ERROR_NO_SPACE | (ENOSPC << 16);
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  EXPECT_EQ(FLT_ERROR_WRITE, FltDispatch(Record(1, "x")));
}

TEST_F(FltDispatchTest, ALinkUnderTheFilesNameIsNeverWrittenThrough) {
  std::filesystem::create_symlink("/dev/full", RecordFile());
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  EXPECT_EQ(FLT_ERROR_OPEN, FltDispatch(Record(1, "x")));
}

TEST_F(FltDispatchWrites, PartialWriteIsAnErrorAndNotCompleted) {
  g_writeHalf = true;
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  EXPECT_EQ(FLT_ERROR_PARTIAL_WRITE, FltDispatch(Record(1, "x")));
  // One write of the whole line, never a second one for the rest.
  EXPECT_EQ(1, g_writeCalls);
}

TEST_F(FltDispatchWrites, WholeLineGoesInOneWrite) {
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  std::string longReason(100000, 'r');
  EXPECT_EQ(FLT_OK, FltDispatch(Record(1, longReason.c_str())));
  EXPECT_EQ(1, g_writeCalls);
  EXPECT_EQ(Record(1, longReason.c_str()).ToJson() + "\n", ReadFile(RecordFile()));
}

TEST_F(FltDispatchTest, ErrorTextsNameEveryCode) {
  EXPECT_STREQ("success", FltErrorText(FLT_OK));
  EXPECT_STREQ("fault-record dispatch is not started", FltErrorText(FLT_ERROR_NOT_INITIALIZED));
  EXPECT_STREQ("only part of the fault record was written", FltErrorText(FLT_ERROR_PARTIAL_WRITE));
  EXPECT_STREQ("unknown error", FltErrorText(99));
}

TEST_F(FltDispatchTest, ConcurrentDispatchesNeverInterleave) {
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  constexpr int THREADS = 4;
  constexpr int RECORDS = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; ++t) {
    threads.emplace_back([t] {
      std::string reason(3000 + t, static_cast<char>('a' + t));
      for (int i = 0; i < RECORDS; ++i) FltDispatch(Record(t * 1000 + i, reason.c_str()));
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<std::string> lines = Lines(ReadFile(RecordFile()));
  ASSERT_EQ(static_cast<size_t>(THREADS * RECORDS), lines.size());
  for (const std::string& line : lines) {
    JsonObject object;
    std::string error;
    ASSERT_TRUE(StrictJsonParser(line).Parse(&object, &error)) << error;
    int t = static_cast<int>(object.values["eventId"].number / 1000);
    EXPECT_EQ(std::string(3000 + t, static_cast<char>('a' + t)), object.values["reason"].text);
  }
}

// Python's json module, a parser nobody here wrote, must read every line
// and decode the hazards back.
TEST_F(FltDispatchTest, LinesParseWithPythonJson) {
  if (std::system("python3 -c 'import json' >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "python3 is not available";
  }
  ASSERT_EQ(FLT_OK, FltDispatchInitTx());
  ASSERT_EQ(FLT_OK, FltDispatch(Record(1, "quote \" backslash \\ tab \t bell \x07 nl \n end")));
  ASSERT_EQ(FLT_OK, FltDispatch(Record(2, "bad byte \xFF ok \xC3\xA9")));
  const std::string script = root_ + "/check.py";
  std::ofstream(script) << "import json, sys\n"
                           "for line in open(sys.argv[1], encoding='utf-8'):\n"
                           "    o = json.loads(line)\n"
                           "    print(','.join(o.keys()) + '|' + o['reason'].encode().hex())\n";
  const std::string output = root_ + "/out.txt";
  ASSERT_EQ(0, std::system(("python3 " + script + " " + RecordFile() + " > " + output).c_str()));
  const std::string keys =
      "eventId,sequence,definedName,raiseTime,isClear,originalSeverity,reason,alarmSetText,"
      "alarmSetQueue,severity|";
  auto hex = [](const std::string& text) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : text) out += std::string{digits[c >> 4], digits[c & 15]};
    return out;
  };
  EXPECT_EQ(keys + hex("quote \" backslash \\ tab \t bell \x07 nl \n end") + "\n" + keys +
                hex("bad byte \xC3\xBF ok \xC3\xA9") + "\n",
            ReadFile(output));
}

}  // namespace
