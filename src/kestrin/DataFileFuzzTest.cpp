// Robustness of DataFile against arbitrary input: thousands of generated
// files, from a fixed seed so that a failure repeats. Each file is walked to
// its end and every getter is asked for a handful of keys; the checks are the
// invariants that hold for any input. Run it under the sanitizers.
#include <gtest/gtest.h>
#include <stdio.h>

#include <random>
#include <string>
#include <vector>

#include "kestrin/DataFile.h"
#include "kestrin/TestTempDir.h"
#include "kestrin/TextForms.h"

namespace {

using kestrin::TestTempDir;
using kestrin::TrimWhiteSpace;

constexpr int FILE_COUNT = 3000;
constexpr unsigned SEED = 20240611;

// Pieces that steer generated files into the parser's interesting states.
const std::vector<std::string>& Fragments() {
  // clang-format off
  static const std::vector<std::string> fragments = {
      "[", "]", "=", "\n", "\n", "\n", "\r\n", " ", "\t", ";", "#",
      "key", "Key", "k", "kb", "MB", "gb", "true", "No", "12", "-5", "0010", "4",
      std::string(1, '\0'), "\xff", "[section]\n", "key = value\n", "\n\n",
      "key=", "Key = ", "k=", "\nkey = true\n", "\nk = 12kb\n", "\nKey = 5GB\n", "\nkey=N\n"};
  // clang-format on
  return fragments;
}

// Keys the getters are asked for: some occur in the fragments, some never do.
const std::vector<std::string>& Keys() {
  static const std::vector<std::string> keys = {"", "key", "Key", "k", "12", "true", "missing"};
  return keys;
}

std::string RandomBytes(std::mt19937& random, size_t length) {
  std::uniform_int_distribution<int> byte(0, 255);
  std::string text;
  for (size_t i = 0; i < length; ++i) text += static_cast<char>(byte(random));
  return text;
}

std::string RandomFragments(std::mt19937& random, size_t count) {
  std::uniform_int_distribution<size_t> pick(0, Fragments().size() - 1);
  std::uniform_int_distribution<int> percent(0, 99);
  std::uniform_int_distribution<size_t> long_run(500, 530);
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    // Now and then a run around the 511-character line limit.
    if (percent(random) == 0) {
      text += std::string(long_run(random), 'x');
    } else {
      text += Fragments()[pick(random)];
    }
  }
  return text;
}

std::string RandomFile(std::mt19937& random) {
  std::uniform_int_distribution<size_t> size(0, 400);
  return random() % 4 == 0 ? RandomBytes(random, size(random) * 3)
                           : RandomFragments(random, size(random));
}

// What the run reached, so that a generator gone dull shows up as a failure.
struct Reach {
  int sections = 0;
  int found_values = 0;
  int valid_bools = 0;
  int valid_sizes = 0;
};

void CheckGetters(const DataFile& file, const std::string& key, Reach& reach) {
  const char* raw = file.GetString(key);
  ASSERT_NE(nullptr, raw);
  std::string trimmed = TrimWhiteSpace(raw);
  EXPECT_EQ(trimmed, file.GetTrimmedString(key));

  bool found = false;
  file.GetInt(key.c_str());
  file.GetInt(key.c_str(), found);
  EXPECT_EQ(!trimmed.empty(), found);
  reach.found_values += found;

  bool valid = false;
  bool flag = file.GetBool(key.c_str(), found, valid);
  EXPECT_EQ(!trimmed.empty(), found);
  EXPECT_TRUE(valid || !flag) << "true without a valid word";
  reach.valid_bools += valid;
  EXPECT_TRUE(found || !valid) << "valid without a value";

  uint32_t bytes = file.GetSizeInBytes(key.c_str(), found, valid);
  EXPECT_EQ(!trimmed.empty(), found);
  EXPECT_TRUE(valid || bytes == 0) << "non-zero size " << bytes << " that is not valid";
  reach.valid_sizes += valid;
  EXPECT_TRUE(found || !valid) << "valid without a value";
}

void WalkFile(const std::string& path, const std::string& content, Reach& reach) {
  DataFile file(path.c_str());
  // Each section takes at least one line, so the walk is bounded by them.
  size_t line_count = 1;
  for (char c : content) line_count += c == '\n';
  size_t sections = 0;
  while (file.NextSection(nullptr)) {
    ASSERT_LE(++sections, line_count) << "walk does not end";
    ++reach.sections;
    const std::string& name = file.GetSectionName();
    EXPECT_EQ(TrimWhiteSpace(name), name);
    EXPECT_LE(name.size(), 510u);
    for (const std::string& key : Keys()) CheckGetters(file, key, reach);
  }
  EXPECT_FALSE(file.NextSection(nullptr));
}

TEST(DataFileFuzz, RandomFilesNeverBreakTheReader) {
  TestTempDir dir;
  std::mt19937 random(SEED);
  Reach reach;
  for (int i = 0; i < FILE_COUNT; ++i) {
    std::string content = RandomFile(random);
    std::string path = dir.Write("fuzz.conf", content);
    WalkFile(path, content, reach);
    if (HasFailure()) {
      ADD_FAILURE() << "file " << i << " of seed " << SEED << " failed";
      return;
    }
  }
  EXPECT_GT(reach.sections, FILE_COUNT);
  EXPECT_GT(reach.found_values, 100);
  EXPECT_GT(reach.valid_bools, 10);
  EXPECT_GT(reach.valid_sizes, 10);
  printf("sections %d, values %d, valid booleans %d, valid sizes %d\n", reach.sections,
         reach.found_values, reach.valid_bools, reach.valid_sizes);
}

}  // namespace
