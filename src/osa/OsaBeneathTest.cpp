#include <errno.h>
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

bool exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

// A confined directory "logs" inside a temporary one, with a file "secret"
// beside it (outside) and links inside that lead out to it.
class Beneath : public ::testing::Test {
 protected:
  void SetUp() override {
    logs_ = dir_.File("logs");
    ASSERT_EQ(0, mkdir(logs_.c_str(), 0755));
    ASSERT_EQ(0, mkdir((logs_ + "/sub").c_str(), 0755));
    ASSERT_TRUE(write_file(dir_.File("secret"), "secret\n"));
    ASSERT_EQ(0, symlink(dir_.File("secret").c_str(), (logs_ + "/link.log").c_str()));
    ASSERT_EQ(0, symlink("../secret", (logs_ + "/relative.log").c_str()));
    ASSERT_EQ(0, symlink(dir_.Path().c_str(), (logs_ + "/out").c_str()));
  }

  int Open(const char* path, const char* mode) {
    tOsFile file = 0;
    int result = osOpenFileBeneath(logs_.c_str(), path, mode, &file);
    if (result == OS_OK) {
      fputs("written\n", osFileStream(file));
      osCloseFile(file);
    }
    // The general code; the errno behind it is checked where it matters.
    return result & 0xffff;
  }

  void ExpectSecretUntouched() { EXPECT_EQ("secret\n", read_file(dir_.File("secret"))); }

  TempDir dir_;
  std::string logs_;
};

TEST_F(Beneath, OpensCreatesAndAppendsInsideTheDirectory) {
  EXPECT_EQ(OS_OK, Open("a.log", "a+"));
  EXPECT_EQ(OS_OK, Open("sub/./b.log", "a"));
  EXPECT_EQ(OS_OK, Open("a.log", "a"));
  EXPECT_EQ("written\nwritten\n", read_file(logs_ + "/a.log"));
  EXPECT_EQ("written\n", read_file(logs_ + "/sub/b.log"));
  EXPECT_EQ(OS_OK, Open("a.log", "w"));
  EXPECT_EQ("written\n", read_file(logs_ + "/a.log"));
}

TEST_F(Beneath, TellsWhetherThePathStillNamesTheOpenFile) {
  long fd = -1;
  ASSERT_EQ(OS_OK, osOpenDescriptorBeneath(logs_.c_str(), "sub/open.log", "a", &fd));
  int same = -1;
  EXPECT_EQ(OS_OK, osDescriptorIsAtBeneath(logs_.c_str(), "sub/open.log", fd, &same));
  EXPECT_EQ(1, same);
  ASSERT_EQ(0, rename((logs_ + "/sub/open.log").c_str(), (logs_ + "/sub/moved.log").c_str()));
  EXPECT_EQ(OS_OK, osDescriptorIsAtBeneath(logs_.c_str(), "sub/open.log", fd, &same));
  EXPECT_EQ(0, same);  // nothing at the path
  ASSERT_TRUE(write_file(logs_ + "/sub/open.log", "another\n"));
  EXPECT_EQ(OS_OK, osDescriptorIsAtBeneath(logs_.c_str(), "sub/open.log", fd, &same));
  EXPECT_EQ(0, same);  // another file at the path
  EXPECT_EQ(OS_OK, osDescriptorIsAtBeneath(logs_.c_str(), "sub/moved.log", fd, &same));
  EXPECT_EQ(1, same);
  ASSERT_EQ(0, system(("rm -rf " + logs_ + "/sub").c_str()));
  same = -1;
  EXPECT_EQ(OS_OK, osDescriptorIsAtBeneath(logs_.c_str(), "sub/moved.log", fd, &same));
  EXPECT_EQ(0, same);  // its directory is gone
  osCloseDescriptor(fd);
  EXPECT_NE(OS_OK, osDescriptorIsAtBeneath(logs_.c_str(), "sub/moved.log", fd, &same));
}

TEST_F(Beneath, DescriptorIsCloseOnExec) {
  tOsFile file = 0;
  ASSERT_EQ(OS_OK, osOpenFileBeneath(logs_.c_str(), "c.log", "a+", &file));
  EXPECT_NE(0, fcntl(fileno(osFileStream(file)), F_GETFD) & FD_CLOEXEC);
  osCloseFile(file);
}

TEST_F(Beneath, NeverOpensThroughALinkOrDotDot) {
  for (const char* path : {"link.log", "relative.log", "out/secret", "../secret", "sub/../../secret",
                           "/etc/hostname"}) {
    EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, Open(path, "a+")) << path;
    EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, Open(path, "w")) << path;
  }
  ExpectSecretUntouched();
  EXPECT_FALSE(exists(dir_.File("new.log")));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, Open("out/new.log", "a+"));
  EXPECT_FALSE(exists(dir_.File("new.log")));
}

TEST_F(Beneath, MissingPiecesAreToldApart) {
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, Open("absent.log", "r"));
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, Open("nodir/absent.log", "a+"));
  tOsFile file = 0;
  int result = osOpenFileBeneath(dir_.File("nothing").c_str(), "a.log", "a+", &file);
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, result & 0xffff);
  EXPECT_EQ(ENOENT, osGetSpecificErrorCode(result));
  result = osOpenFileBeneath(logs_.c_str(), "link.log", "a+", &file);
  EXPECT_EQ(ELOOP, osGetSpecificErrorCode(result));
  result = osOpenFileBeneath(logs_.c_str(), "sub", "a+", &file);
  EXPECT_EQ(EISDIR, osGetSpecificErrorCode(result));
  EXPECT_EQ(OS_ERROR_IS_DIRECTORY, Open("sub", "a+"));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, Open("", "a+"));
  EXPECT_EQ(OS_ERROR_INVALID_PARAMETER, Open("a.log", "x"));
}

TEST_F(Beneath, MakesDirectoriesOnlyInside) {
  EXPECT_EQ(OS_OK, osMakeDirBeneath(logs_.c_str(), "sub/deeper"));
  EXPECT_TRUE(exists(logs_ + "/sub/deeper"));
  EXPECT_EQ(OS_ERROR_ALREADY_EXISTS, osMakeDirBeneath(logs_.c_str(), "sub/deeper"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, osMakeDirBeneath(logs_.c_str(), "out/escaped"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, osMakeDirBeneath(logs_.c_str(), "../escaped"));
  EXPECT_FALSE(exists(dir_.File("escaped")));
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osMakeDirBeneath(logs_.c_str(), "a/b"));
}

TEST_F(Beneath, DeletesOnlyInsideAndNeverALink) {
  ASSERT_TRUE(write_file(logs_ + "/sub/old.log.1", "x"));
  EXPECT_EQ(OS_OK, osDeleteFileBeneath(logs_.c_str(), "sub/old.log.1"));
  EXPECT_FALSE(exists(logs_ + "/sub/old.log.1"));
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, osDeleteFileBeneath(logs_.c_str(), "sub/old.log.1"));
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osDeleteFileBeneath(logs_.c_str(), "none/old.log.1"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, osDeleteFileBeneath(logs_.c_str(), "out/secret"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, osDeleteFileBeneath(logs_.c_str(), "../secret"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, osDeleteFileBeneath(logs_.c_str(), "link.log"));
  EXPECT_TRUE(exists(logs_ + "/link.log"));
  ExpectSecretUntouched();
}

TEST_F(Beneath, MovesOnlyInsideAndNeverALink) {
  ASSERT_TRUE(write_file(logs_ + "/m.log", "m"));
  EXPECT_EQ(OS_OK, osMoveFileBeneath(logs_.c_str(), "m.log", "sub/m.log.1"));
  EXPECT_EQ("m", read_file(logs_ + "/sub/m.log.1"));
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, osMoveFileBeneath(logs_.c_str(), "m.log", "m.log.2"));
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osMoveFileBeneath(logs_.c_str(), "sub/m.log.1", "no/m"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY,
            osMoveFileBeneath(logs_.c_str(), "sub/m.log.1", "out/secret"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, osMoveFileBeneath(logs_.c_str(), "out/secret", "s"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, osMoveFileBeneath(logs_.c_str(), "link.log", "l.1"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, osMoveFileBeneath(logs_.c_str(), "sub/m.log.1", "link.log"));
  EXPECT_TRUE(exists(logs_ + "/sub/m.log.1"));
  ExpectSecretUntouched();
}

TEST_F(Beneath, ExistenceIgnoresLinks) {
  ASSERT_TRUE(write_file(logs_ + "/e.log", "e"));
  EXPECT_EQ(OS_OK, osFileExistsBeneath(logs_.c_str(), "e.log"));
  EXPECT_EQ(OS_OK, osFileExistsBeneath(logs_.c_str(), "sub"));
  EXPECT_EQ(OS_ERROR_FILE_NOT_FOUND, osFileExistsBeneath(logs_.c_str(), "f.log"));
  EXPECT_EQ(OS_ERROR_PATH_NOT_FOUND, osFileExistsBeneath(logs_.c_str(), "x/f.log"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, osFileExistsBeneath(logs_.c_str(), "link.log"));
  EXPECT_EQ(OS_ERROR_OUTSIDE_DIRECTORY, osFileExistsBeneath(logs_.c_str(), "out/secret"));
}

TEST_F(Beneath, TheDirectoryItselfMayBeALink) {
  const std::string alias = dir_.File("alias");
  ASSERT_EQ(0, symlink(logs_.c_str(), alias.c_str()));
  tOsFile file = 0;
  ASSERT_EQ(OS_OK, osOpenFileBeneath(alias.c_str(), "via-alias.log", "a+", &file));
  osCloseFile(file);
  EXPECT_TRUE(exists(logs_ + "/via-alias.log"));
}

}  // namespace
