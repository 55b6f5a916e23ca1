#include <gtest/gtest.h>

#include <exception>
#include <sstream>
#include <string>
#include <type_traits>

#include "zor/ZorException.h"

namespace {

std::string printed(const Zor::Generic& exception) {
  std::ostringstream out;
  exception.printOut(out);
  return out.str();
}

TEST(ZorException, LogicErrorPrintOutText) {
  Zor::LogicErrorException e("Table::Insert", "a duplicate key");
  EXPECT_EQ(printed(e), "LogicErrorException thrown by Table::Insert for a duplicate key");
  EXPECT_EQ(e.GetThrower(), "Table::Insert");
  EXPECT_EQ(e.GetDescription(), "a duplicate key");
}

TEST(ZorException, QrtErrorPrintOutTextHasUnsignedDecimalCode) {
  Zor::QrtErrorException e("Service::Start call to QrtServiceStartService", 4294967295u);
  EXPECT_EQ(printed(e),
            "QrtErrorException thrown by Service::Start call to QrtServiceStartService for QRT "
            "error 4294967295");
  EXPECT_EQ(e.GetError(), 4294967295u);
  EXPECT_EQ(e.GetThrower(), "Service::Start call to QrtServiceStartService");
}

TEST(ZorException, OsaErrorPrintOutText) {
  Zor::OsaErrorException e("GenericCriticalSection::Acquire call to osLockLwtMutex", 2);
  EXPECT_EQ(printed(e),
            "OsaErrorException thrown by GenericCriticalSection::Acquire call to osLockLwtMutex "
            "for OSA error 2");
  EXPECT_EQ(e.GetError(), 2u);
}

TEST(ZorException, WhatReturnsThePrintOutText) {
  Zor::OsaErrorException e("X::Y call to osZ", 17);
  EXPECT_STREQ(e.what(), "OsaErrorException thrown by X::Y call to osZ for OSA error 17");
  // The same text on a second call, through the standard base as well.
  const std::exception& base = e;
  EXPECT_STREQ(base.what(), "OsaErrorException thrown by X::Y call to osZ for OSA error 17");
}

TEST(ZorException, CaughtAsStdExceptionKeepsText) {
  try {
    throw Zor::LogicErrorException("A::B", "c");
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "LogicErrorException thrown by A::B for c");
    return;
  }
  FAIL() << "not caught";
}

TEST(ZorException, StreamOperatorWritesPrintOutInDecimal) {
  Zor::QrtErrorException e("T", 255);
  std::ostringstream out;
  out << std::hex << "[" << e << "]";
  EXPECT_EQ(out.str(), "[QrtErrorException thrown by T for QRT error 255]");
}

Zor::Generic* g_processed = nullptr;
int g_processedCount = 0;

void recording_processor(Zor::Generic& exception) {
  g_processed = &exception;
  ++g_processedCount;
}

TEST(ZorException, ProcessHandsExceptionToInstalledProcessor) {
  g_processed = nullptr;
  g_processedCount = 0;
  Zor::ExceptionProcessor initial = Zor::setDefaultExceptionProcessor(&recording_processor);
  ASSERT_NE(initial, nullptr);
  Zor::LogicErrorException e("A", "b");
  e.process();
  EXPECT_EQ(g_processed, &e);
  EXPECT_EQ(g_processedCount, 1);

  // Installing the initial one again returns ours, and process() no longer reaches it.
  EXPECT_EQ(Zor::setDefaultExceptionProcessor(initial), &recording_processor);
  e.process();
  EXPECT_EQ(g_processedCount, 1);
}

TEST(ZorException, NullProcessorMakesProcessDoNothing) {
  g_processedCount = 0;
  Zor::ExceptionProcessor initial = Zor::setDefaultExceptionProcessor(nullptr);
  Zor::OsaErrorException e("A", 1);
  e.process();
  EXPECT_EQ(Zor::setDefaultExceptionProcessor(initial), nullptr);
  EXPECT_EQ(g_processedCount, 0);
}

TEST(ZorException, ExceptionStackHooksRecordNothing) {
  EXPECT_EQ(Zor::CaptureExceptionStack(), 0);
  Zor::ClearExceptionStack();
  Zor::LogExceptionStack();
  EXPECT_EQ(Zor::CaptureExceptionStack(), 0);
}

TEST(ZorException, ScopeObjectsAreEmpty) {
  EXPECT_TRUE(std::is_empty<Zor::Translator>::value);
  EXPECT_TRUE(std::is_empty<Zor::ScopedNewThrowsException>::value);
  EXPECT_TRUE((std::is_constructible<Zor::Translator, bool>::value));
  EXPECT_TRUE(std::is_default_constructible<Zor::ScopedNewThrowsException>::value);
}

TEST(ZorException, FamilyDerivesFromGenericAndStdException) {
  EXPECT_TRUE((std::is_base_of<std::exception, Zor::Generic>::value));
  EXPECT_TRUE((std::is_base_of<Zor::Generic, Zor::LogicErrorException>::value));
  EXPECT_TRUE((std::is_base_of<Zor::Generic, Zor::QrtErrorException>::value));
  EXPECT_TRUE((std::is_base_of<Zor::Generic, Zor::OsaErrorException>::value));
  EXPECT_TRUE(std::has_virtual_destructor<Zor::Generic>::value);
}

}  // namespace
