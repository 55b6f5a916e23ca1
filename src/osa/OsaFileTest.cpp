#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "osa/OsaTestSupport.h"
#include "osa/osa.h"

namespace {

using osa_test::read_file;
using osa_test::TempDir;
using osa_test::write_file;

FILE* stream_of(tOsFile file) { return reinterpret_cast<FILE*>(file); }

bool file_exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

TEST(OsaOpenFile, WritesAndReadsBack) {
  TempDir dir;
  std::string path = dir.File("data.txt");
  tOsFile file = 0;
  ASSERT_EQ(OS_OK, osOpenFile(path.c_str(), "w", &file));
  ASSERT_NE(0u, file);
  fputs("line one\n", stream_of(file));
  ASSERT_EQ(OS_OK, osCloseFile(file));
  EXPECT_EQ("line one\n", read_file(path));
  ASSERT_EQ(OS_OK, osOpenFile(path.c_str(), "a", &file));
  fputs("line two\n", stream_of(file));
  ASSERT_EQ(OS_OK, osCloseFile(file));
  EXPECT_EQ("line one\nline two\n", read_file(path));
  ASSERT_EQ(OS_OK, osOpenFile(path.c_str(), "rb", &file));
  char buffer[32] = {0};
  EXPECT_EQ(18u, fread(buffer, 1, sizeof buffer, stream_of(file)));
  EXPECT_STREQ("line one\nline two\n", buffer);
  EXPECT_EQ(OS_OK, osCloseFile(file));
}

TEST(OsaOpenFile, DescriptorIsCloseOnExec) {
  TempDir dir;
  tOsFile file = 0;
  ASSERT_EQ(OS_OK, osOpenFile(dir.File("f").c_str(), "w", &file));
  int flags = fcntl(fileno(stream_of(file)), F_GETFD);
  EXPECT_NE(0, flags & FD_CLOEXEC);
  osCloseFile(file);
}

TEST(OsaOpenFile, DirectoryOpensForReading) {
  TempDir dir;
  tOsFile file = 0;
  ASSERT_EQ(OS_OK, osOpenFile(dir.Path().c_str(), "r", &file));
  EXPECT_NE(0u, file);
  EXPECT_EQ(OS_OK, osCloseFile(file));
}

TEST(OsaOpenFile, DirectoryForWritingIsADirectoryError) {
  TempDir dir;
  tOsFile file = 0;
  EXPECT_EQ(OS_ERROR_IS_DIRECTORY, osOpenFile(dir.Path().c_str(), "w", &file));
  EXPECT_EQ(0u, file);
}

TEST(OsaOpenFile, MissingFileIsFileNotFound) {
  TempDir dir;
  tOsFile file = 0;
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, osOpenFile(dir.File("missing").c_str(), "r", &file));
  EXPECT_EQ(0u, file);
}

TEST(OsaOpenFile, MissingDirectoryIsPathNotFound) {
  TempDir dir;
  tOsFile file = 0;
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osOpenFile(dir.File("no/file").c_str(), "r", &file));
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osOpenFile(dir.File("no/file").c_str(), "w", &file));
  EXPECT_EQ(0u, file);
}

TEST(OsaOpenFile, FileUsedAsDirectoryIsPathNotFound) {
  TempDir dir;
  ASSERT_TRUE(write_file(dir.File("plain"), "x"));
  tOsFile file = 0;
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osOpenFile(dir.File("plain/file").c_str(), "r", &file));
}

TEST(OsaOpenFile, InvalidArguments) {
  tOsFile file = 0;
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osOpenFile(nullptr, "r", &file));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osOpenFile("", "r", &file));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osOpenFile("/tmp", nullptr, &file));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osOpenFile("/tmp", "", &file));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osOpenFile("/tmp", "r", nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osOpenFile("/tmp", "rrrrrrrrrrrr", &file));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osCloseFile(0));
}

TEST(OsaMakeDir, CreatesWithMode0777LessUmask) {
  TempDir dir;
  mode_t old = umask(022);
  int rc = osMakeDir(dir.File("sub").c_str());
  umask(old);
  ASSERT_EQ(OS_OK, rc);
  struct stat info;
  ASSERT_EQ(0, stat(dir.File("sub").c_str(), &info));
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  EXPECT_EQ(0755u, info.st_mode & 0777u);
}

TEST(OsaMakeDir, UmaskZeroGivesWorldWritable) {
  TempDir dir;
  mode_t old = umask(0);
  int rc = osMakeDir(dir.File("open").c_str());
  umask(old);
  ASSERT_EQ(OS_OK, rc);
  struct stat info;
  ASSERT_EQ(0, stat(dir.File("open").c_str(), &info));
  EXPECT_EQ(0777u, info.st_mode & 0777u);
}

TEST(OsaMakeDir, ExistingDirectoryAlreadyExists) {
  TempDir dir;
  EXPECT_EQ(OS_ERROR_ALREADY_EXISTS, osMakeDir(dir.Path().c_str()));
}

TEST(OsaMakeDir, MissingParentIsPathNotFound) {
  TempDir dir;
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osMakeDir(dir.File("a/b").c_str()));
  EXPECT_FALSE(file_exists(dir.File("a")));
}

TEST(OsaMakeDir, FileOnTheWayIsPathNotFound) {
  TempDir dir;
  ASSERT_TRUE(write_file(dir.File("plain"), "x"));
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osMakeDir(dir.File("plain/b").c_str()));
}

TEST(OsaMakeDir, InvalidArguments) {
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMakeDir(nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMakeDir(""));
}

TEST(OsaDeleteFile, DeletesTheFile) {
  TempDir dir;
  ASSERT_TRUE(write_file(dir.File("gone"), "x"));
  EXPECT_EQ(OS_OK, osDeleteFile(dir.File("gone").c_str()));
  EXPECT_FALSE(file_exists(dir.File("gone")));
}

TEST(OsaDeleteFile, MissingFileIsFileNotFound) {
  TempDir dir;
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, osDeleteFile(dir.File("missing").c_str()));
}

TEST(OsaDeleteFile, MissingDirectoryIsPathNotFound) {
  TempDir dir;
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osDeleteFile(dir.File("no/file").c_str()));
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osDeleteFile(dir.File("no/deeper/file").c_str()));
}

TEST(OsaDeleteFile, DirectoryIsNotDeleted) {
  TempDir dir;
  ASSERT_EQ(OS_OK, osMakeDir(dir.File("sub").c_str()));
  EXPECT_EQ(OS_ERROR_IS_DIRECTORY, osDeleteFile(dir.File("sub").c_str()));
  EXPECT_TRUE(file_exists(dir.File("sub")));
}

TEST(OsaDeleteFile, InvalidArguments) {
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osDeleteFile(nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osDeleteFile(""));
}

TEST(OsaMoveFile, RenamesAndReplacesTheTarget) {
  TempDir dir;
  ASSERT_TRUE(write_file(dir.File("from"), "new"));
  ASSERT_TRUE(write_file(dir.File("to"), "old"));
  EXPECT_EQ(OS_OK, osMoveFile(dir.File("from").c_str(), dir.File("to").c_str()));
  EXPECT_FALSE(file_exists(dir.File("from")));
  EXPECT_EQ("new", read_file(dir.File("to")));
}

TEST(OsaMoveFile, MissingSourceIsFileNotFound) {
  TempDir dir;
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND,
            osMoveFile(dir.File("missing").c_str(), dir.File("to").c_str()));
}

TEST(OsaMoveFile, MissingSourceDirectoryIsPathNotFound) {
  TempDir dir;
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND,
            osMoveFile(dir.File("no/missing").c_str(), dir.File("to").c_str()));
}

TEST(OsaMoveFile, MissingTargetDirectoryIsPathNotFound) {
  TempDir dir;
  ASSERT_TRUE(write_file(dir.File("from"), "x"));
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND,
            osMoveFile(dir.File("from").c_str(), dir.File("no/to").c_str()));
  EXPECT_EQ("x", read_file(dir.File("from")));
}

TEST(OsaMoveFile, InvalidArguments) {
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMoveFile(nullptr, "/tmp/x"));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMoveFile("/tmp/x", nullptr));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMoveFile("", "/tmp/x"));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, osMoveFile("/tmp/x", ""));
}

}  // namespace
