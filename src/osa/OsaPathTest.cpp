#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "osa/OsaInternal.h"
#include "osa/OsaTestSupport.h"
#include "osa/osa.h"

namespace {

using osa_test::ScopedEnv;

std::string map_path_of(const char* path) {
  char out[512];
  EXPECT_EQ(OS_OK, osMapPath(path, out, sizeof out));
  return out;
}

std::string ipc_name_of(const char* name) {
  char out[256];
  EXPECT_EQ(OS_OK, osMapIpcName(name, out, sizeof out));
  return out;
}

std::string path_of_kind(int kind) {
  char out[512];
  EXPECT_EQ(OS_OK, osGetPath(kind, out, sizeof out));
  return out;
}

TEST(OsaMapPath, FixedPathsUnchangedWithoutRoot) {
  ScopedEnv root("KESTRIN_ROOT", nullptr);
  EXPECT_EQ("/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH",
            map_path_of("/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH"));
  EXPECT_EQ("/kv/etc/", map_path_of("/kv/etc/"));
  EXPECT_EQ("/dev/led%d", map_path_of("/dev/led%d"));
  EXPECT_EQ("/kv/log/", map_path_of("/kv/log/"));
}

TEST(OsaMapPath, EmptyRootLeavesPathsUnchanged) {
  ScopedEnv root("KESTRIN_ROOT", "");
  EXPECT_EQ("/kv/etc/", map_path_of("/kv/etc/"));
  EXPECT_EQ("/dev/led%d", map_path_of("/dev/led%d"));
}

TEST(OsaMapPath, SlashRootLeavesPathsUnchanged) {
  ScopedEnv root("KESTRIN_ROOT", "/");
  EXPECT_EQ("/kv/log/", map_path_of("/kv/log/"));
}

TEST(OsaMapPath, FixedPathsGoUnderRoot) {
  ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root");
  EXPECT_EQ("/tmp/kestrin-root/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH",
            map_path_of("/kv/etc/KestrinFtokTarget_DO_NOT_TOUCH"));
  EXPECT_EQ("/tmp/kestrin-root/kv/etc/", map_path_of("/kv/etc/"));
  EXPECT_EQ("/tmp/kestrin-root/dev/led%d", map_path_of("/dev/led%d"));
  EXPECT_EQ("/tmp/kestrin-root/kv/log/", map_path_of("/kv/log/"));
}

TEST(OsaMapPath, RootEndingInSlashGivesNoDoubleSlash) {
  ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root/");
  EXPECT_EQ("/tmp/kestrin-root/kv/etc/", map_path_of("/kv/etc/"));
}

TEST(OsaMapPath, RelativePathStaysAsGiven) {
  ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root");
  EXPECT_EQ("Kestrin.log", map_path_of("Kestrin.log"));
}

TEST(OsaMapPath, RootIsRestoredAfterScope) {
  {
    ScopedEnv outer("KESTRIN_ROOT", "/tmp/outer");
    {
      ScopedEnv inner("KESTRIN_ROOT", "/tmp/inner");
      EXPECT_EQ("/tmp/inner/kv/etc/", map_path_of("/kv/etc/"));
    }
    EXPECT_EQ("/tmp/outer/kv/etc/", map_path_of("/kv/etc/"));
  }
}

TEST(OsaMapPath, TooSmallBufferCutsAndTerminates) {
  ScopedEnv root("KESTRIN_ROOT", "/r");
  char out[8];
  memset(out, 'x', sizeof out);
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, osMapPath("/kv/etc/", out, sizeof out));
  EXPECT_STREQ("/r/kv/e", out);
  char exact[11];  // "/r/kv/etc/" and its terminator fit exactly
  EXPECT_EQ(OS_OK, osMapPath("/kv/etc/", exact, sizeof exact));
  EXPECT_STREQ("/r/kv/etc/", exact);
}

TEST(OsaMapPath, NullArgumentsAreInvalid) {
  char out[16];
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMapPath(nullptr, out, sizeof out));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMapPath("/kv", nullptr, sizeof out));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMapPath("/kv", out, 0));
}

TEST(OsaGetPath, DirectoriesWithoutRoot) {
  ScopedEnv root("KESTRIN_ROOT", nullptr);
  EXPECT_EQ("/kv/log/", path_of_kind(OS_PATH_LOG));
  EXPECT_EQ("/kv/etc/", path_of_kind(OS_PATH_CONFIG));
  EXPECT_EQ(2, OS_PATH_LOG);
  EXPECT_EQ(1, OS_PATH_CONFIG);
}

TEST(OsaGetPath, DirectoriesUnderRoot) {
  ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root");
  EXPECT_EQ("/tmp/kestrin-root/kv/log/", path_of_kind(OS_PATH_LOG));
  EXPECT_EQ("/tmp/kestrin-root/kv/etc/", path_of_kind(OS_PATH_CONFIG));
}

TEST(OsaGetPath, UnknownKindIsInvalid) {
  char out[64] = "untouched";
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetPath(0, out, sizeof out));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetPath(3, out, sizeof out));
  EXPECT_STREQ("untouched", out);
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetPath(OS_PATH_LOG, nullptr, 64));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osGetPath(OS_PATH_LOG, out, 0));
}

TEST(OsaGetPath, TooSmallBufferIsReported) {
  ScopedEnv root("KESTRIN_ROOT", nullptr);
  char out[5];
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, osGetPath(OS_PATH_LOG, out, sizeof out));
  EXPECT_STREQ("/kv/", out);
}

TEST(OsaMapIpcName, UnchangedWithoutRoot) {
  ScopedEnv root("KESTRIN_ROOT", nullptr);
  EXPECT_EQ("KesRegTable", ipc_name_of("KesRegTable"));
}

TEST(OsaMapIpcName, AppendsStableHashOfRoot) {
  ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root");
  // 64-bit FNV-1a of "/tmp/kestrin-root", in 16 lower-case hex digits.
  EXPECT_EQ("KesRegTable_e64e4dcb42273907", ipc_name_of("KesRegTable"));
}

TEST(OsaMapIpcName, TrailingSlashOfRootDoesNotChangeName) {
  std::string plain;
  {
    ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root");
    plain = ipc_name_of("Q");
  }
  ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root//");
  EXPECT_EQ(plain, ipc_name_of("Q"));
}

TEST(OsaMapIpcName, DistinctRootsGiveDistinctNames) {
  std::string first;
  {
    ScopedEnv root("KESTRIN_ROOT", "/tmp/root-a");
    first = ipc_name_of("Q");
  }
  ScopedEnv root("KESTRIN_ROOT", "/tmp/root-b");
  std::string second = ipc_name_of("Q");
  EXPECT_NE(first, second);
  EXPECT_EQ(first.size(), second.size());
  EXPECT_EQ(0u, first.rfind("Q_", 0));
}

TEST(OsaMapIpcName, TooSmallBufferAndNullsAreReported) {
  ScopedEnv root("KESTRIN_ROOT", "/tmp/kestrin-root");
  char out[6];
  EXPECT_EQ(OS_ERROR_BUFFER_TOO_SMALL, osMapIpcName("Queue", out, sizeof out));
  EXPECT_STREQ("Queue", out);
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMapIpcName(nullptr, out, sizeof out));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMapIpcName("Q", nullptr, sizeof out));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMapIpcName("Q", out, 0));
}

TEST(OsaPosixIpcName, AddsLeadingSlashOnce) {
  ScopedEnv root("KESTRIN_ROOT", nullptr);
  char out[64];
  ASSERT_TRUE(osa_internal::posix_ipc_name("Seg", out, sizeof out));
  EXPECT_STREQ("/Seg", out);
  ASSERT_TRUE(osa_internal::posix_ipc_name("/Seg", out, sizeof out));
  EXPECT_STREQ("/Seg", out);
}

TEST(OsaPosixIpcName, RefusesEmptyAndInnerSlash) {
  char out[64];
  EXPECT_FALSE(osa_internal::posix_ipc_name("", out, sizeof out));
  EXPECT_FALSE(osa_internal::posix_ipc_name("/", out, sizeof out));
  EXPECT_FALSE(osa_internal::posix_ipc_name("a/b", out, sizeof out));
  EXPECT_FALSE(osa_internal::posix_ipc_name(nullptr, out, sizeof out));
  EXPECT_FALSE(osa_internal::posix_ipc_name("Seg", out, 4));
}

}  // namespace
