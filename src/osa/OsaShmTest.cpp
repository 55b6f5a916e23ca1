#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "osa/OsaTestSupport.h"
#include "osa/osa.h"

namespace {

using osa_test::Child;
using osa_test::ScopedEnv;
using osa_test::unique_name;

// A segment name unique to this run, removed at scope end.
class SegmentName {
 public:
  SegmentName() : name_(unique_name("OsaShm")) {}
  ~SegmentName() { osUnshareMemory(name_.c_str()); }
  const char* Get() const { return name_.c_str(); }

 private:
  std::string name_;
};

// The size of the shm object with the given POSIX name, or -errno.
long object_size(const std::string& posixName) {
  int fd = shm_open(posixName.c_str(), O_RDONLY, 0);
  if (fd < 0) return -errno;
  struct stat info;
  fstat(fd, &info);
  close(fd);
  return static_cast<long>(info.st_size);
}

struct ChildCheck {
  const char* name;
  size_t size;
};

// Attaches on its own, checks the parent's pattern and answers in byte 100.
int check_pattern_in_child(void* raw) {
  auto* check = static_cast<ChildCheck*>(raw);
  void* address = nullptr;
  if (osShareMemory(check->name, check->size, &address) != OS_OK) return -1;
  auto* bytes = static_cast<unsigned char*>(address);
  for (int i = 0; i < 100; ++i) {
    if (bytes[i] != static_cast<unsigned char>(i * 7)) return -2;
  }
  bytes[100] = 0xA5;
  return 0;
}

TEST(OsaShareMemory, NewSegmentIsZeroFilled) {
  SegmentName name;
  void* address = nullptr;
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 4096, &address));
  ASSERT_NE(nullptr, address);
  const auto* bytes = static_cast<const unsigned char*>(address);
  for (size_t i = 0; i < 4096; ++i) ASSERT_EQ(0, bytes[i]) << "at " << i;
}

TEST(OsaShareMemory, TwoAttachmentsSeeTheSameBytes) {
  SegmentName name;
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 205824, &first));
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 205824, &second));
  EXPECT_NE(first, second);
  memcpy(first, "registration", 13);
  EXPECT_STREQ("registration", static_cast<const char*>(second));
  static_cast<char*>(second)[205823] = 'z';
  EXPECT_EQ('z', static_cast<const char*>(first)[205823]);
}

TEST(OsaShareMemory, AnotherProcessSeesTheBytes) {
  SegmentName name;
  void* address = nullptr;
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 1088, &address));
  auto* bytes = static_cast<unsigned char*>(address);
  for (int i = 0; i < 100; ++i) bytes[i] = static_cast<unsigned char>(i * 7);
  ChildCheck check{name.Get(), 1088};
  Child child(check_pattern_in_child, &check, false);
  EXPECT_EQ(0, child.Result());
  child.Wait();
  EXPECT_EQ(0xA5, bytes[100]);
}

TEST(OsaShareMemory, GrowsButNeverShrinks) {
  SegmentName name;
  void* address = nullptr;
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 1000, &address));
  EXPECT_EQ(1000, object_size(std::string("/") + name.Get()));
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 8192, &address));
  EXPECT_EQ(8192, object_size(std::string("/") + name.Get()));
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 100, &address));
  EXPECT_EQ(8192, object_size(std::string("/") + name.Get()));
}

TEST(OsaShareMemory, LeadingSlashNamesTheSameSegment) {
  SegmentName name;
  void* plain = nullptr;
  void* slashed = nullptr;
  ASSERT_EQ(OS_OK, osShareMemory(name.Get(), 64, &plain));
  ASSERT_EQ(OS_OK, osShareMemory((std::string("/") + name.Get()).c_str(), 64, &slashed));
  memcpy(plain, "same", 5);
  EXPECT_STREQ("same", static_cast<const char*>(slashed));
}

TEST(OsaShareMemory, SegmentIsWorldReadWrite) {
  SegmentName name;
  mode_t old = umask(077);
  void* address = nullptr;
  int rc = osShareMemory(name.Get(), 64, &address);
  umask(old);
  ASSERT_EQ(OS_OK, rc);
  int fd = shm_open((std::string("/") + name.Get()).c_str(), O_RDONLY, 0);
  ASSERT_GE(fd, 0);
  struct stat info;
  fstat(fd, &info);
  close(fd);
  EXPECT_EQ(0666u, info.st_mode & 0777u);
}

TEST(OsaShareMemory, NameIsMappedPerRoot) {
  std::string name = unique_name("OsaShmRoot");
  char mapped[256];
  {
    ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root");
    ASSERT_EQ(OS_OK, osMapIpcName(name.c_str(), mapped, sizeof mapped));
    void* address = nullptr;
    ASSERT_EQ(OS_OK, osShareMemory(name.c_str(), 64, &address));
  }
  EXPECT_EQ(64, object_size(std::string("/") + mapped));
  EXPECT_EQ(-ENOENT, object_size("/" + name));
  ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root");
  EXPECT_EQ(OS_OK, osUnshareMemory(name.c_str()));
  EXPECT_EQ(-ENOENT, object_size(std::string("/") + mapped));
}

TEST(OsaUnshareMemory, RemovesTheSegment) {
  std::string name = unique_name("OsaShmGone");
  void* address = nullptr;
  ASSERT_EQ(OS_OK, osShareMemory(name.c_str(), 64, &address));
  memcpy(address, "old", 4);
  ASSERT_EQ(OS_OK, osUnshareMemory(name.c_str()));
  EXPECT_EQ(-ENOENT, object_size("/" + name));
  // A segment made again under the name is a new, zero-filled one.
  void* again = nullptr;
  ASSERT_EQ(OS_OK, osShareMemory(name.c_str(), 64, &again));
  EXPECT_EQ(0, static_cast<const char*>(again)[0]);
  EXPECT_STREQ("old", static_cast<const char*>(address));  // the old mapping lives on
  EXPECT_EQ(OS_OK, osUnshareMemory(name.c_str()));
}

TEST(OsaUnshareMemory, MissingSegmentGivesFileNotFoundWithErrno) {
  int rc = osUnshareMemory(unique_name("OsaShmMissing").c_str());
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, rc & 0xffff);
  EXPECT_EQ(ENOENT, osGetSpecificErrorCode(rc));
}

TEST(OsaShareMemory, KernelFailureCarriesItsErrno) {
  // A directory where the segment would be: shm_open refuses it with EISDIR.
  std::string name = unique_name("OsaShmDir");
  std::string directory = "/dev/shm/" + name;
  ASSERT_EQ(0, mkdir(directory.c_str(), 0700));
  void* address = nullptr;
  int rc = osShareMemory(name.c_str(), 64, &address);
  rmdir(directory.c_str());
  // Linux says EISDIR; gVisor, which runs some of our machines, says EINVAL.
  int detail = osGetSpecificErrorCode(rc);
  EXPECT_TRUE(detail == EISDIR || detail == EINVAL) << "errno " << detail;
  EXPECT_EQ(detail == EISDIR ? OS_ERROR_IS_DIRECTORY : OS_ERROR_INVALID_PARAMETER, rc & 0xffff);
  EXPECT_EQ(nullptr, address);
}

TEST(OsaShareMemory, InvalidArguments) {
  void* address = nullptr;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osShareMemory(nullptr, 64, &address));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osShareMemory("", 64, &address));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osShareMemory("a/b", 64, &address));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osShareMemory("OsaShmZero", 0, &address));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osShareMemory("OsaShmNull", 64, nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osUnshareMemory(nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osUnshareMemory("a/b"));
  EXPECT_EQ(nullptr, address);
  EXPECT_EQ(0, osGetSpecificErrorCode(OS_ERROR_INVALID_PARAMETER));
}

}  // namespace
