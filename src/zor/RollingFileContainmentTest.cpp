// Zor::RollingFile confined to a directory: symbolic links and ".." planted
// on the way never lead a write, a roll-over rename or a backup deletion
// outside it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "zor/RollingFile.h"
#include "zor/RollingFileTestSupport.h"

namespace rolling_file_test {
namespace {

class ContainedRollingFile : public RollingFile {
 protected:
  void SetUp() override {
    RollingFile::SetUp();
    std::filesystem::create_directory(path("logs"));
    std::filesystem::create_directory(path("outside"));
    write_file(path("outside/secret"), "secret\n");
  }

  std::string logs() const { return path("logs") + "/"; }

  // A file named `name` inside logs/, confined to it.
  std::unique_ptr<TestableRollingFile> Contained(const std::string& name) {
    std::unique_ptr<TestableRollingFile> file(new TestableRollingFile((logs() + name).c_str()));
    file->SetContainingDirectory(logs());
    configure(*file, 0, 2, false);
    return file;
  }

  void ExpectOutsideUntouched() {
    EXPECT_EQ("secret\n", read_file(path("outside/secret")));
    EXPECT_EQ(1u, static_cast<size_t>(std::distance(
                      std::filesystem::directory_iterator(path("outside")),
                      std::filesystem::directory_iterator())));
  }

  std::pair<int, std::string> refused(const std::string& name) {
    return {1, "RollingFile: Error: File " + logs() + name + " lies outside " + logs() +
                   " (a symbolic link or \"..\" on the way); not opened"};
  }
};

TEST_F(ContainedRollingFile, WritesAndRollsOverInsideAsUsual) {
  auto file = Contained("sub/app.log");
  EXPECT_EQ(6, file->Printf("first\n"));
  file->RollOver();
  EXPECT_EQ(7, file->Printf("second\n"));
  file->Close();
  EXPECT_EQ("first\n", read_file(path("logs/sub/app.log.1")));
  EXPECT_EQ("second\n", read_file(path("logs/sub/app.log")));
}

TEST_F(ContainedRollingFile, NeverWritesThroughALinkedFile) {
  std::filesystem::create_symlink(path("outside/secret"), path("logs/app.log"));
  auto file = Contained("app.log");
  EXPECT_EQ(-1, file->Printf("forged\n"));
  EXPECT_EQ(logged(), (Logged{refused("app.log")}));
  file->RollOver();  // a link is never rolled over
  EXPECT_TRUE(exists(path("logs/app.log")));
  EXPECT_FALSE(exists(path("logs/app.log.1")));
  ExpectOutsideUntouched();
}

TEST_F(ContainedRollingFile, NeverWritesThroughALinkedDirectory) {
  std::filesystem::create_directory_symlink(path("outside"), path("logs/d"));
  auto file = Contained("d/secret");
  EXPECT_EQ(-1, file->Printf("forged\n"));
  EXPECT_EQ(logged(), (Logged{refused("d/secret")}));
  auto fresh = Contained("d/new.log");
  EXPECT_EQ(-1, fresh->Printf("forged\n"));
  file->RollOver();
  ExpectOutsideUntouched();
}

TEST_F(ContainedRollingFile, NeverClimbsOutWithDotDot) {
  auto file = Contained("../outside/secret");
  EXPECT_EQ(-1, file->Printf("forged\n"));
  EXPECT_EQ(logged(), (Logged{refused("../outside/secret")}));
  file->RollOver();
  ExpectOutsideUntouched();
}

TEST_F(ContainedRollingFile, LinkedBackupsAreNeitherRenamedNorDeletedNorReplaced) {
  std::filesystem::create_symlink(path("outside/secret"), path("logs/app.log.1"));
  std::filesystem::create_symlink(path("outside/secret"), path("logs/app.log.3"));
  auto file = Contained("app.log");
  file->Printf("line\n");
  file->RollOver();
  EXPECT_TRUE(std::filesystem::is_symlink(path("logs/app.log.1")));
  EXPECT_TRUE(std::filesystem::is_symlink(path("logs/app.log.3")));
  const std::string name = logs() + "app.log";
  const Logged messages = logged();
  EXPECT_NE(messages.end(), std::find(messages.begin(), messages.end(),
                                      std::make_pair(1, "RollingFile: OSA error 19 trying to delete "
                                                        "file " + name + ".3")));
  EXPECT_NE(messages.end(),
            std::find(messages.begin(), messages.end(),
                      std::make_pair(1, "RollingFile: OSA error 19 trying to rename file " + name +
                                            ".1 to " + name + ".2")));
  EXPECT_NE(messages.end(),
            std::find(messages.begin(), messages.end(),
                      std::make_pair(1, "RollingFile: OSA error 19 trying to rename file " + name +
                                            " to " + name + ".1")));
  ExpectOutsideUntouched();
}

TEST_F(ContainedRollingFile, MissingDirectoriesInsideAreMadeWithoutFollowingLinks) {
  std::filesystem::create_directory_symlink(path("outside"), path("logs/out"));
  auto file = Contained("out/deeper/app.log");
  EXPECT_EQ(-1, file->Printf("x\n"));
  EXPECT_FALSE(exists(path("outside/deeper")));
  EXPECT_EQ(logged(), (Logged{refused("out/deeper/app.log")}));
  auto made = Contained("a/b/app.log");
  EXPECT_EQ(2, made->Printf("y\n"));
  made->Close();
  EXPECT_EQ("y\n", read_file(path("logs/a/b/app.log")));
}

TEST_F(ContainedRollingFile, AMissingContainingDirectoryIsMade) {
  auto file = std::unique_ptr<TestableRollingFile>(
      new TestableRollingFile((path("fresh/logs") + "/app.log").c_str()));
  file->SetContainingDirectory(path("fresh/logs") + "/");
  EXPECT_EQ(2, file->Printf("z\n"));
  file->Close();
  EXPECT_EQ("z\n", read_file(path("fresh/logs/app.log")));
}

}  // namespace
}  // namespace rolling_file_test
