#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "osa/OsaTestSupport.h"
#include "osa/osa.h"

namespace {

using osa_test::ScopedEnv;
using osa_test::TempDir;
using osa_test::unique_name;

// A segment name unique to this run, removed at scope end.
class AttachName {
 public:
  AttachName() : name_(unique_name("OsaShmAttach")) {}
  ~AttachName() { osUnshareMemory(name_.c_str()); }
  const char* Get() const { return name_.c_str(); }

 private:
  std::string name_;
};

TEST(OsaAttachSharedMemory, MissingSegmentIsFileNotFoundAndNotCreated) {
  AttachName name;
  void* address = nullptr;
  int result = osAttachSharedMemory(name.Get(), 64, &address);
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, result & 0xffff);
  EXPECT_EQ(ENOENT, osGetSpecificErrorCode(result));
  EXPECT_EQ(nullptr, address);
  // Still missing: the failed attach made nothing.
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, osAttachSharedMemory(name.Get(), 64, &address) & 0xffff);
}

TEST(OsaAttachSharedMemory, SeesWhatTheCreatorWrote) {
  AttachName name;
  void* created = nullptr;
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 128, &created));
  memcpy(created, "written by the creator", 23);
  void* attached = nullptr;
  ASSERT_EQ(OS_OK, osAttachSharedMemory(name.Get(), 128, &attached));
  EXPECT_STREQ("written by the creator", static_cast<const char*>(attached));
  static_cast<char*>(attached)[0] = 'W';
  EXPECT_EQ('W', static_cast<const char*>(created)[0]);
}

TEST(OsaAttachSharedMemory, SmallerSegmentIsRefusedAndNotGrown) {
  AttachName name;
  void* created = nullptr;
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 100, &created));
  void* attached = nullptr;
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, osAttachSharedMemory(name.Get(), 200000, &attached));
  EXPECT_EQ(nullptr, attached);
  EXPECT_EQ(OS_OK, osAttachSharedMemory(name.Get(), 100, &attached));
}

TEST(OsaAttachSharedMemory, NameIsMappedPerRoot) {
  AttachName name;
  TempDir root;
  void* created = nullptr;
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 64, &created));
  ScopedEnv env("KESTRIN_ROOT", root.Path().c_str());
  void* attached = nullptr;
  // Under another root the same name is another, missing, segment.
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, osAttachSharedMemory(name.Get(), 64, &attached) & 0xffff);
}

TEST(OsaAttachSharedMemory, InvalidArguments) {
  void* address = nullptr;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osAttachSharedMemory(nullptr, 64, &address));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osAttachSharedMemory("", 64, &address));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osAttachSharedMemory("a/b", 64, &address));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osAttachSharedMemory("name", 0, &address));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osAttachSharedMemory("name", 64, nullptr));
}

}  // namespace
