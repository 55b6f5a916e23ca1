#include <errno.h>
#include <gtest/gtest.h>

#include "osa/OsaInternal.h"
#include "osa/osa.h"

namespace {

using osa_internal::file_error_from_errno;
using osa_internal::socket_error_from_errno;

TEST(OsaErrorCodes, ValuesAreFixed) {
  EXPECT_EQ(0, OS_OK);
  EXPECT_EQ(2, OS_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(7, OS_ERROR_TIMEOUT);
  EXPECT_EQ(14, OS_ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(15, OS_ERROR_PATH_NOT_FOUND);
  EXPECT_EQ(304, OS_ERROR_WOULD_BLOCK);
  EXPECT_EQ(310, OS_ERROR_CONN_ABORTED_BY_PEER);
  EXPECT_EQ(317, OS_ERROR_RETRY);
  EXPECT_EQ(325, OS_ERROR_SELECT_RETRY);
}

TEST(OsaFileErrors, ErrnoMapping) {
  EXPECT_EQ(OS_OK, file_error_from_errno(0));
  EXPECT_EQ(14, file_error_from_errno(ENOENT));
  EXPECT_EQ(15, file_error_from_errno(ENOTDIR));
  EXPECT_EQ(16, file_error_from_errno(ENOSPC));
  EXPECT_EQ(16, file_error_from_errno(EDQUOT));
  EXPECT_EQ(5, file_error_from_errno(EACCES));
  EXPECT_EQ(5, file_error_from_errno(EPERM));
  EXPECT_EQ(5, file_error_from_errno(EROFS));
  EXPECT_EQ(6, file_error_from_errno(EEXIST));
  EXPECT_EQ(18, file_error_from_errno(EISDIR));
  EXPECT_EQ(3, file_error_from_errno(ENOMEM));
  EXPECT_EQ(2, file_error_from_errno(EINVAL));
  EXPECT_EQ(2, file_error_from_errno(ENAMETOOLONG));
  EXPECT_EQ(1, file_error_from_errno(EIO));
}

TEST(OsaFileErrors, MissingParentMakesEnoentAPathError) {
  EXPECT_EQ(14, osa_internal::file_error_for_path(ENOENT, "/tmp/kestrin-no-such-file"));
  EXPECT_EQ(15, osa_internal::file_error_for_path(ENOENT, "/tmp/kestrin-no-such-dir/file"));
  EXPECT_EQ(14, osa_internal::file_error_for_path(ENOENT, "/no-such-file-at-root"));
  EXPECT_EQ(14, osa_internal::file_error_for_path(ENOENT, "relative-no-such-file"));
  EXPECT_EQ(16, osa_internal::file_error_for_path(ENOSPC, "/tmp/x"));
}

TEST(OsaSocketErrors, ErrnoMapping) {
  EXPECT_EQ(OS_OK, socket_error_from_errno(0));
  EXPECT_EQ(301, socket_error_from_errno(ECONNREFUSED));
  EXPECT_EQ(302, socket_error_from_errno(EHOSTUNREACH));
  EXPECT_EQ(302, socket_error_from_errno(ENETUNREACH));
  EXPECT_EQ(303, socket_error_from_errno(ECONNRESET));
  EXPECT_EQ(304, socket_error_from_errno(EAGAIN));
  EXPECT_EQ(304, socket_error_from_errno(EWOULDBLOCK));
  EXPECT_EQ(305, socket_error_from_errno(EADDRINUSE));
  EXPECT_EQ(306, socket_error_from_errno(EADDRNOTAVAIL));
  EXPECT_EQ(307, socket_error_from_errno(EBADF));
  EXPECT_EQ(307, socket_error_from_errno(ENOTSOCK));
  EXPECT_EQ(308, socket_error_from_errno(EINPROGRESS));
  EXPECT_EQ(309, socket_error_from_errno(ETIMEDOUT));
  EXPECT_EQ(310, socket_error_from_errno(ECONNABORTED));
  EXPECT_EQ(311, socket_error_from_errno(EPIPE));
  EXPECT_EQ(312, socket_error_from_errno(EISCONN));
  EXPECT_EQ(313, socket_error_from_errno(ENOTCONN));
  EXPECT_EQ(317, socket_error_from_errno(EINTR));
  EXPECT_EQ(325, socket_error_from_errno(EINTR, true));
  EXPECT_EQ(300, socket_error_from_errno(EPROTONOSUPPORT));
  EXPECT_EQ(300, socket_error_from_errno(EALREADY));
}

TEST(OsaSpecificError, SplitsCombinedValue) {
  int value = osa_internal::combined_error(OS_ERROR_ACCESS_DENIED, EACCES);
  EXPECT_EQ(OS_ERROR_ACCESS_DENIED | (EACCES << 16), value);
  EXPECT_EQ(OS_ERROR_ACCESS_DENIED, value & 0xffff);
  EXPECT_EQ(EACCES, osGetSpecificErrorCode(value));
}

TEST(OsaSpecificError, OkAndPlainCodesHaveNoDetail) {
  EXPECT_EQ(0, osa_internal::combined_error(OS_OK, EACCES));
  EXPECT_EQ(0, osGetSpecificErrorCode(OS_OK));
  EXPECT_EQ(0, osGetSpecificErrorCode(OS_ERROR_INVALID_PARAMETER));
}

}  // namespace

extern "C" int osa_c_header_check(void);

TEST(OsaHeader, CompilesAndLinksAsC) { EXPECT_EQ(0, osa_c_header_check()); }
