// Test helper: a fresh directory under the system's temporary directory,
// removed with everything in it when the object goes. Not part of the
// library.
#ifndef KESTRIN_ZOR_TEMPORARY_DIRECTORY_H_
#define KESTRIN_ZOR_TEMPORARY_DIRECTORY_H_

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace Zor {

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kestrin-zor-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  // Empty when the directory could not be made.
  const std::string& Path() const { return path_; }
  // Path() + "/" + `name`.
  std::string Join(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_TEMPORARY_DIRECTORY_H_
