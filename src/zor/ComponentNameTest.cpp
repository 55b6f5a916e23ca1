// The component name, with the platform's process calls steered through the
// wrappers of OsaFaultInjection.
#include <gtest/gtest.h>

#include <string>

#include "osa/osa.h"
#include "zor/ComponentName.h"
#include "zor/OsaFaultInjection.h"

namespace {

class ComponentName : public ::testing::Test {
 protected:
  void SetUp() override {
    osa_fault::Reset();
    Zor::ComponentName::Set("");
  }
  void TearDown() override {
    osa_fault::Reset();
    Zor::ComponentName::Set("");
  }

  // The name worked out for a process whose file name is `fileName`.
  static std::string nameFor(const char* fileName) {
    Zor::ComponentName::Set("");
    osa_fault::Get().processFileName = fileName;
    return Zor::ComponentName::Get();
  }
};

TEST_F(ComponentName, RealProcessFileNameIsUsed) {
  EXPECT_EQ(Zor::ComponentName::Get(), "zor_fault_test");
  EXPECT_EQ(osa_fault::Get().lastFileNameTask, 0UL);
  EXPECT_EQ(osa_fault::Get().lastFileNameSize, 64u);
}

TEST_F(ComponentName, ExeSuffixInAnyCaseIsCut) {
  EXPECT_EQ(nameFor("kestrin.exe"), "kestrin");
  EXPECT_EQ(nameFor("kestrin.EXE"), "kestrin");
  EXPECT_EQ(nameFor("kestrin.ExE"), "kestrin");
  EXPECT_EQ(nameFor("kestrin.eXe"), "kestrin");
  EXPECT_EQ(nameFor("kestrin.exE"), "kestrin");
  EXPECT_EQ(nameFor("x.Exe"), "x");
}

TEST_F(ComponentName, OtherEndingsAreKept) {
  EXPECT_EQ(nameFor("kestrin"), "kestrin");
  EXPECT_EQ(nameFor("kestrinexe"), "kestrinexe");
  EXPECT_EQ(nameFor("kestrin.exe.old"), "kestrin.exe.old");
  EXPECT_EQ(nameFor("kestrin.ex"), "kestrin.ex");
  EXPECT_EQ(nameFor("kestrin_exe"), "kestrin_exe");
}

TEST_F(ComponentName, NamesShorterThanTheSuffixAreKept) {
  EXPECT_EQ(nameFor("exe"), "exe");
  EXPECT_EQ(nameFor(".ex"), ".ex");
  EXPECT_EQ(nameFor("E"), "E");
}

TEST_F(ComponentName, NameThatIsOnlyTheSuffixBecomesEmpty) { EXPECT_EQ(nameFor(".EXE"), ""); }

TEST_F(ComponentName, FailedFileNameFallsBackToProcessIdInDecimal) {
  osa_fault::Get().processFileNameError = OS_ERROR_FILE_NOT_FOUND;
  unsigned long processId = 0;
  ASSERT_EQ(osGetProcessId(&processId), OS_OK);
  EXPECT_EQ(Zor::ComponentName::Get(), std::to_string(processId));
  EXPECT_EQ(osa_fault::Get().lastItoaValue, static_cast<long>(processId));
  EXPECT_EQ(osa_fault::Get().lastItoaSize, 64u);
  EXPECT_EQ(osa_fault::Get().lastItoaSigned, 1);
}

TEST_F(ComponentName, FailedProcessIdGivesUnknown) {
  osa_fault::Get().processFileNameError = OS_ERROR_GENERAL;
  osa_fault::Get().processIdError = OS_ERROR_GENERAL;
  EXPECT_EQ(Zor::ComponentName::Get(), "unknown");
}

TEST_F(ComponentName, FailedNumberFormattingGivesUnknown) {
  osa_fault::Get().processFileNameError = OS_ERROR_GENERAL;
  osa_fault::Get().itoaError = OS_ERROR_BUFFER_TOO_SMALL;
  EXPECT_EQ(Zor::ComponentName::Get(), "unknown");
}

TEST_F(ComponentName, StoredNameIsReturnedWithoutAskingAgain) {
  osa_fault::Get().processFileName = "first.exe";
  EXPECT_EQ(Zor::ComponentName::Get(), "first");
  osa_fault::Get().processFileName = "second";
  EXPECT_EQ(Zor::ComponentName::Get(), "first");
  EXPECT_EQ(osa_fault::Get().fileNameCalls, 1);
}

TEST_F(ComponentName, SetReplacesTheNameAndNameGivesTheSameText) {
  Zor::ComponentName::Set("Kestrin.EXE");  // stored as given: only worked-out names are cut
  EXPECT_EQ(Zor::ComponentName::Get(), "Kestrin.EXE");
  EXPECT_STREQ(Zor::ComponentName::Name(), "Kestrin.EXE");
  EXPECT_EQ(osa_fault::Get().fileNameCalls, 0);
}

TEST_F(ComponentName, SetEmptyOrNullMakesTheNextGetWorkItOut) {
  Zor::ComponentName::Set("given");
  Zor::ComponentName::Set(nullptr);
  osa_fault::Get().processFileName = "probe";
  EXPECT_EQ(Zor::ComponentName::Get(), "probe");
  EXPECT_EQ(osa_fault::Get().fileNameCalls, 1);
}

}  // namespace
