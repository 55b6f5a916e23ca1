#include <gtest/gtest.h>

#include <string>

#include "zor/LogInterface.h"
#include "zor/RecordingLogger.h"

namespace {

using LoggerPtr = AppFw::SmartPointerNTS<Zor::LogInterface>;

TEST(LogInterface, LogCutsLevelTo16BitsAndKindTo8Bits) {
  Zor::RecordingLogger logger;
  logger.Log("text", 0x12345UL, 0xABCDEF01UL, 0x1FFUL);
  ASSERT_EQ(logger.Entries().size(), 1u);
  const Zor::RecordingLogger::Entry& entry = logger.Entries()[0];
  EXPECT_EQ(entry.text, "text");
  EXPECT_EQ(entry.level, 0x2345);
  EXPECT_EQ(entry.code, 0xABCDEF01UL);
  EXPECT_EQ(entry.kind, 0xFF);
}

TEST(LogInterface, LogOfStringPassesTextAndDefaultsCodeAndKindToZero) {
  Zor::RecordingLogger logger;
  logger.Log(std::string("from a string"), 4);
  ASSERT_EQ(logger.Entries().size(), 1u);
  EXPECT_EQ(logger.Entries()[0].text, "from a string");
  EXPECT_EQ(logger.Entries()[0].level, 4);
  EXPECT_EQ(logger.Entries()[0].code, 0UL);
  EXPECT_EQ(logger.Entries()[0].kind, 0);
}

TEST(LogInterface, NullLoggerIsOneObject) {
  EXPECT_NE(Zor::NullLogger::Instance(), nullptr);
  EXPECT_EQ(Zor::NullLogger::Instance(), Zor::NullLogger::Instance());
  Zor::NullLogger::Instance()->Log("discarded", 1);  // must not crash
}

TEST(LogInterface, NewHolderHoldsTheNullLogger) {
  Zor::LogInterfaceHolder holder;
  EXPECT_FALSE(holder.GetLogger().IsNil());
  EXPECT_EQ(holder.GetLogger().Get(), Zor::NullLogger::Instance());
}

TEST(LogInterface, HolderPassesMessagesToTheInstalledLogger) {
  Zor::LogInterfaceHolder holder;
  Zor::RecordingLogger recorder;
  holder.SetLogger(LoggerPtr(&recorder, false));
  EXPECT_EQ(holder.GetLogger().Get(), &recorder);
  holder.GetLogger()->Log("hello", 4);
  ASSERT_EQ(recorder.Texts(), std::vector<std::string>{"hello"});
}

TEST(LogInterface, SetLoggerWithNilRestoresNullLogger) {
  Zor::LogInterfaceHolder holder;
  Zor::RecordingLogger recorder;
  holder.SetLogger(LoggerPtr(&recorder, false));
  holder.SetLogger(LoggerPtr());
  EXPECT_EQ(holder.GetLogger().Get(), Zor::NullLogger::Instance());
  holder.GetLogger()->Log("lost", 1);
  EXPECT_TRUE(recorder.Entries().empty());
}

TEST(LogInterface, ClearLoggerRestoresNullLogger) {
  Zor::LogInterfaceHolder holder;
  Zor::RecordingLogger recorder;
  holder.SetLogger(LoggerPtr(&recorder, false));
  holder.ClearLogger();
  EXPECT_EQ(holder.GetLogger().Get(), Zor::NullLogger::Instance());
  holder.GetLogger()->Log("lost", 1);
  EXPECT_TRUE(recorder.Entries().empty());
}

// Deletable loggers are owned by the holder and its copies.
class DeletionCountingLogger : public Zor::LogInterface {
 public:
  explicit DeletionCountingLogger(int* deletions) : deletions_(deletions) {}
  ~DeletionCountingLogger() override { ++*deletions_; }

 protected:
  void DoLogging(const char*, unsigned short, unsigned long, unsigned char) override {}

 private:
  int* deletions_;
};

TEST(LogInterface, HolderDeletesItsDeletableLoggerWhenReplacedOrGone) {
  int deletions = 0;
  {
    Zor::LogInterfaceHolder holder;
    holder.SetLogger(LoggerPtr(new DeletionCountingLogger(&deletions)));
    EXPECT_EQ(deletions, 0);
    holder.ClearLogger();
    EXPECT_EQ(deletions, 1);
    holder.SetLogger(LoggerPtr(new DeletionCountingLogger(&deletions)));
  }
  EXPECT_EQ(deletions, 2);
}

TEST(LogInterface, HolderSharesLoggerWithCallersPointer) {
  int deletions = 0;
  LoggerPtr mine(new DeletionCountingLogger(&deletions));
  {
    Zor::LogInterfaceHolder holder;
    holder.SetLogger(mine);
    EXPECT_EQ(mine.GetRefCount(), 2);
  }
  EXPECT_EQ(deletions, 0);
  EXPECT_EQ(mine.GetRefCount(), 1);
}

}  // namespace
