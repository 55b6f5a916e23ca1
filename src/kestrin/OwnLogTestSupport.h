// Test support: makes the daemon's own log observable.
//
// OwnLogTest, a fixture base, creates `logger` for each test as a real
// LogFile named after the test (under the program's private root, see
// PrivateRootEnvironment.h), admitting every severity, and makes the calling
// thread the main thread, so that LogKestrinMessage writes straight into that
// file. OwnLogCapture reads back the lines written since it was made.
#ifndef KESTRIN_KESTRIN_OWN_LOG_TEST_SUPPORT_H_
#define KESTRIN_KESTRIN_OWN_LOG_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kestrin/Globals.h"
#include "kestrin/LogFile.h"
#include "kestrin/PrivateRootEnvironment.h"
#include "osa/osa.h"

namespace kestrin {

class OwnLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Daemonized = true;  // no echo of every report to standard output
    ASSERT_EQ(OS_OK, osGetTaskId(&MainThreadsTaskId));
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    logger =
        LogFilePtr(new LogFile(std::string(test->test_suite_name()) + "." + test->name() + ".log"));
    logger->severityFilter.Set(DetailedSeverity::DEBUG_LEVEL);
  }

  void TearDown() override { logger = LogFilePtr(); }
};

// The own log's lines from the moment of construction on.
class OwnLogCapture {
 public:
  OwnLogCapture() : start_(CurrentSize()) {}

  // The text after " - " of each line written since construction, in order.
  std::vector<std::string> Texts() const {
    std::istringstream in(Raw());
    std::vector<std::string> texts;
    std::string line;
    while (std::getline(in, line)) {
      size_t dash = line.find(") - ");
      texts.push_back(dash == std::string::npos ? "<malformed> " + line : line.substr(dash + 4));
    }
    return texts;
  }

  // The lines written since construction, unchanged.
  std::string Raw() const {
    logger->Flush();
    std::ifstream in(logger->GetPathName(), std::ios::binary);
    in.seekg(static_cast<std::streamoff>(start_));
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }

 private:
  static uintmax_t CurrentSize() {
    logger->Flush();
    std::error_code error;
    uintmax_t size = std::filesystem::file_size(logger->GetPathName(), error);
    return error ? 0 : size;
  }

  uintmax_t start_;
};

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_OWN_LOG_TEST_SUPPORT_H_
