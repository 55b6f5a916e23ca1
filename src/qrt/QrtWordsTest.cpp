#include <gtest/gtest.h>

#include <string>

#include "qrt/QrtDiag.h"
#include "qrt/QrtFakeDaemon.h"

namespace {

using qrt_test::PrivateRoot;

unsigned short severity_of(const char* word) {
  unsigned short severity = 999;
  EXPECT_EQ(QRT_OK, QrtDiagSeverityFromWord(word, &severity)) << word;
  return severity;
}

unsigned long class_of(const char* word) {
  unsigned long eventClass = 999;
  EXPECT_EQ(QRT_OK, QrtDiagEventClassFromWord(word, &eventClass)) << word;
  return eventClass;
}

unsigned char destination_of(const char* word) {
  unsigned char destination = 99;
  EXPECT_EQ(QRT_OK, QrtDiagDestinationFromWord(word, &destination)) << word;
  return destination;
}

TEST(QrtWords, SeverityWordsGiveTheirCodes) {
  EXPECT_EQ(1, severity_of("error"));
  EXPECT_EQ(2, severity_of("warning"));
  EXPECT_EQ(4, severity_of("info"));
  EXPECT_EQ(8, severity_of("debug"));
  EXPECT_EQ(2, severity_of("WARNING"));
}

TEST(QrtWords, UnknownSeverityWordIsRefusedAndLeavesTheOutput) {
  unsigned short severity = 77;
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagSeverityFromWord("warn", &severity));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagSeverityFromWord("", &severity));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagSeverityFromWord(nullptr, &severity));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagSeverityFromWord("error", nullptr));
  EXPECT_EQ(77, severity);
}

TEST(QrtWords, EventClassWordsAreTheDaemonsWords) {
  EXPECT_EQ(0u, class_of("unspecified"));
  EXPECT_EQ(1u, class_of("fault"));
  EXPECT_EQ(2u, class_of("information"));
  EXPECT_EQ(4u, class_of("state"));
  EXPECT_EQ(8u, class_of("audit"));
  EXPECT_EQ(16u, class_of("configuration"));
  EXPECT_EQ(32u, class_of("data"));
  EXPECT_EQ(64u, class_of("maintenance"));
  EXPECT_EQ(128u, class_of("metrics"));
  EXPECT_EQ(256u, class_of("security"));
  EXPECT_EQ(256u, class_of("Security"));
  unsigned long eventClass = 5;
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagEventClassFromWord("info", &eventClass));
  EXPECT_EQ(5u, eventClass);
}

TEST(QrtWords, DestinationWords) {
  EXPECT_EQ(1, destination_of("system"));
  EXPECT_EQ(2, destination_of("private"));
  EXPECT_EQ(3, destination_of("both"));
  unsigned char destination = 9;
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagDestinationFromWord("file", &destination));
  EXPECT_EQ(9, destination);
}

TEST(QrtWords, ErrorTexts) {
  EXPECT_STREQ("success", QrtErrorText(QRT_OK));
  EXPECT_STREQ("the Kestrin daemon is not running", QrtErrorText(QRT_ERROR_NO_DAEMON));
  EXPECT_STREQ("the registration table is full", QrtErrorText(QRT_ERROR_TABLE_FULL));
  EXPECT_STREQ("the daemon's request queue is full", QrtErrorText(QRT_ERROR_QUEUE_FULL));
  EXPECT_STREQ("invalid or unregistered handle", QrtErrorText(QRT_ERROR_INVALID_HANDLE));
  EXPECT_STREQ("invalid parameter", QrtErrorText(QRT_ERROR_INVALID_PARAMETER));
  EXPECT_STREQ("the daemon's request queue refused the request",
               QrtErrorText(QRT_ERROR_SEND_FAILED));
  EXPECT_STREQ("cannot lock the registration table", QrtErrorText(QRT_ERROR_LOCK_FAILED));
  EXPECT_STREQ("service call out of order", QrtErrorText(QRT_ERROR_INVALID_STATE));
  EXPECT_STREQ("an operating-system call failed", QrtErrorText(QRT_ERROR_SYSTEM));
  EXPECT_STREQ("internal error in the client library", QrtErrorText(QRT_ERROR_INTERNAL));
  EXPECT_STREQ("unknown error", QrtErrorText(11));
  EXPECT_STREQ("unknown error", QrtErrorText(-1));
}

TEST(QrtWords, ResultCodesKeepTheirNumbers) {
  EXPECT_EQ(0, QRT_OK);
  EXPECT_EQ(1, QRT_ERROR_NO_DAEMON);
  EXPECT_EQ(2, QRT_ERROR_TABLE_FULL);
  EXPECT_EQ(3, QRT_ERROR_QUEUE_FULL);
  EXPECT_EQ(4, QRT_ERROR_INVALID_HANDLE);
  EXPECT_EQ(5, QRT_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(6, QRT_ERROR_SEND_FAILED);
  EXPECT_EQ(7, QRT_ERROR_LOCK_FAILED);
  EXPECT_EQ(8, QRT_ERROR_INVALID_STATE);
  EXPECT_EQ(9, QRT_ERROR_SYSTEM);
  EXPECT_EQ(10, QRT_ERROR_INTERNAL);
}

TEST(QrtWords, KeyFilePathFollowsTheRoot) {
  PrivateRoot root(false);
  char path[4096];
  ASSERT_EQ(QRT_OK, QrtDiagGetKeyFilePath(path, sizeof path));
  EXPECT_EQ(root.Path() + "/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH", path);
  char small[8];
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagGetKeyFilePath(small, sizeof small));
  EXPECT_EQ(QRT_ERROR_INVALID_PARAMETER, QrtDiagGetKeyFilePath(nullptr, 10));
}

TEST(QrtWords, KeyFilePathWithoutRootIsTheFixedPath) {
  const char* old = getenv("KESTRIN_ROOT");
  std::string saved = old == nullptr ? "" : old;
  unsetenv("KESTRIN_ROOT");
  char path[4096];
  int result = QrtDiagGetKeyFilePath(path, sizeof path);
  if (old != nullptr) setenv("KESTRIN_ROOT", saved.c_str(), 1);
  ASSERT_EQ(QRT_OK, result);
  EXPECT_STREQ("/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH", path);
}

}  // namespace
