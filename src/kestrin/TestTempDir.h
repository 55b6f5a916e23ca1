// A private temporary directory for one test, removed with everything in it
// when the object goes away. Unique per object, so tests may run in parallel.
#ifndef KESTRIN_KESTRIN_TEST_TEMP_DIR_H_
#define KESTRIN_KESTRIN_TEST_TEMP_DIR_H_

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace kestrin {

class TestTempDir {
 public:
  TestTempDir() {
    std::random_device seed;
    std::mt19937_64 random(seed());
    std::filesystem::path base = std::filesystem::temp_directory_path();
    for (int attempt = 0; attempt < 100 && path_.empty(); ++attempt) {
      std::filesystem::path candidate = base / ("kestrin_test_" + std::to_string(random()));
      if (std::filesystem::create_directory(candidate)) path_ = candidate;
    }
    if (path_.empty()) ADD_FAILURE() << "cannot create a temporary directory under " << base;
  }

  ~TestTempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }

  TestTempDir(const TestTempDir&) = delete;
  TestTempDir& operator=(const TestTempDir&) = delete;

  // The path of `name` in this directory.
  std::string PathOf(const std::string& name) const { return (path_ / name).string(); }

  // Writes `content` byte for byte to `name` in this directory; returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    std::string path = PathOf(name);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    if (!out) ADD_FAILURE() << "cannot write " << path;
    return path;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_TEST_TEMP_DIR_H_
