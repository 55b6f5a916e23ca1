// DataFile: reads a text file of sections of "key = value" lines, one section
// at a time, and hands out typed values of the current section.
//
// File syntax (after trimming blanks and tabs from each line):
//   [Name]        starts a section; the closing "]" is optional and the name
//                 is trimmed; names are case-sensitive and may repeat
//   ; text        a comment ("#" too)
//   key = value   an entry; the key is trimmed, the value is everything after
//                 the first "=" (it may itself hold "=")
// Lines before the first header are ignored. A section's body ends at the
// first empty line, the next header or the end of the file; lines after an
// empty line are skipped up to the next header. At most 256 body lines
// (comments included) are examined; the rest are skipped. A physical line
// may hold at most 511 characters: a longer one ends the walk (no further
// sections). A carriage return is ordinary text, so lines ending in CR LF
// keep the CR in names and values.
//
// Keys are case-sensitive and the first occurrence in a section wins. The
// typed getters never throw: they return 0 or false and report through their
// flags.
//
// Not thread-safe: one object is used by one thread.
#ifndef KESTRIN_KESTRIN_DATA_FILE_H_
#define KESTRIN_KESTRIN_DATA_FILE_H_

#include <stddef.h>
#include <stdint.h>

#include <fstream>
#include <string>
#include <vector>

class DataFile {
 public:
  // An object with no file: NextSection returns false.
  DataFile();

  // Opens `fileName` for reading. Throws the text "invalid fileName" (as a
  // const char*) when `fileName` is null, and the std::string "DataFile::
  // DataFile failed to open file <fileName>." when the file cannot be opened.
  explicit DataFile(const char* fileName);

  DataFile(const DataFile&) = delete;
  DataFile& operator=(const DataFile&) = delete;

  // Closes the file.
  ~DataFile();

  // Advances to the next section; `unused` is ignored. Returns false when
  // there is no further section (end of file, read failure or an over-long
  // line); the previous section's name and lines then stay as they were.
  bool NextSection(const char* unused = nullptr);

  // The current section's name; empty before the first successful NextSection.
  const std::string& GetSectionName() const { return section_name_; }

  // The raw value of `key` in the current section, untrimmed; the empty string
  // when the key is absent. Points into this object and stays valid until the
  // next NextSection.
  const char* GetString(const std::string& key) const;

  // GetString trimmed.
  std::string GetTrimmedString(const std::string& key) const;

  // atoi of the raw value: 0 when the key is absent or the text is not a
  // number. A null `key` counts as absent in every getter.
  int GetInt(const char* key) const;

  // atoi of the trimmed value. `found` is false (and the result 0) when the
  // value is empty or the key absent, true otherwise; the text is not checked,
  // so "abc" gives 0 and "12abc" gives 12, both found.
  int GetInt(const char* key, bool& found) const;

  // The trimmed value as a boolean word, compared case-insensitively: "true",
  // "t", "yes", "y" give true; "false", "f", "no", "n" give false. Empty or
  // absent: found and valid false. Any other text: found true, valid false.
  // The result is false whenever valid is false.
  bool GetBool(const char* key, bool& found, bool& valid) const;

  // The trimmed value as a count of bytes: digits, optionally followed by a
  // unit "kb", "mb" or "gb" (case-insensitive, blanks allowed before it) that
  // multiplies by 2^10, 2^20 or 2^30. Empty or absent: found and valid false.
  // A value that does not start with a digit, or has any other suffix: found
  // true, valid false, result 0. The arithmetic is unsigned 32-bit without
  // overflow checks: "4gb" gives 0 and "5gb" 1 GiB; range checks are the
  // caller's.
  uint32_t GetSizeInBytes(const char* key, bool& found, bool& valid) const;

 private:
  static constexpr size_t LINE_BUFFER_SIZE = 512;  // 511 characters and the NUL
  static constexpr int MAX_BODY_LINES = 256;

  // Reads the next physical line into line_buffer_; false when the stream
  // fails (end of file, read error or a line longer than 511 characters).
  bool ReadLine();
  // Skips lines, starting with the one in line_buffer_, until a header is in
  // line_buffer_; false when the stream fails first.
  bool SkipToHeader();
  // Reads body lines into lines_ until a line that ends the body, which stays
  // in line_buffer_ for the next NextSection.
  void ReadBody();
  // GetString's value trimmed, or the empty string for a null key.
  std::string TrimmedValue(const char* key) const;

  std::string file_name_;
  std::ifstream stream_;
  // The current section's non-comment body lines, trimmed, in file order.
  std::vector<std::string> lines_;
  // The last physical line read. Between two NextSection calls it holds the
  // line that ended the previous body, which the next call examines first.
  char line_buffer_[LINE_BUFFER_SIZE] = {};
  // Returned by GetString for an absent key.
  char empty_string_[2] = {};
  std::string section_name_;
};

#endif  // KESTRIN_KESTRIN_DATA_FILE_H_
