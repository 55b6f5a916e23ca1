#include "kestrin/DataFile.h"

#include <stdlib.h>

#include "kestrin/TextForms.h"

using kestrin::AsciiStringToLowerCase;
using kestrin::TrimWhiteSpace;

namespace {

bool IsHeader(const std::string& line) { return !line.empty() && line[0] == '['; }

bool IsComment(const std::string& line) {
  return !line.empty() && (line[0] == ';' || line[0] == '#');
}

// "[ name ]" or "[ name" gives "name".
std::string SectionNameOf(const std::string& header) {
  std::string inner = header.substr(1);
  if (!inner.empty() && inner.back() == ']') inner.pop_back();
  return TrimWhiteSpace(inner);
}

// The shift a size unit stands for, or -1 when `unit` is not one.
int ShiftForUnit(const std::string& unit) {
  if (unit == "kb") return 10;
  if (unit == "mb") return 20;
  if (unit == "gb") return 30;
  return -1;
}

}  // namespace

DataFile::DataFile() = default;

DataFile::DataFile(const char* fileName) {
  if (fileName == nullptr) throw "invalid fileName";
  file_name_ = fileName;
  stream_.open(file_name_);
  if (!stream_.good()) {
    throw std::string("DataFile::DataFile failed to open file ") + file_name_ + ".";
  }
}

DataFile::~DataFile() { stream_.close(); }

bool DataFile::NextSection(const char* /*unused*/) {
  if (!stream_.good()) return false;
  if (!SkipToHeader()) return false;
  section_name_ = SectionNameOf(TrimWhiteSpace(line_buffer_));
  lines_.clear();
  ReadBody();
  return true;
}

bool DataFile::ReadLine() {
  // istream::getline fails on a line that does not fit the buffer, which is
  // what ends the walk at an over-long line.
  return static_cast<bool>(stream_.getline(line_buffer_, sizeof line_buffer_));
}

bool DataFile::SkipToHeader() {
  while (!IsHeader(TrimWhiteSpace(line_buffer_))) {
    if (!ReadLine()) return false;
  }
  return true;
}

void DataFile::ReadBody() {
  for (int examined = 0; examined < MAX_BODY_LINES; ++examined) {
    if (!ReadLine()) return;
    std::string line = TrimWhiteSpace(line_buffer_);
    if (line.empty() || IsHeader(line)) return;
    if (!IsComment(line)) lines_.push_back(line);
  }
}

const char* DataFile::GetString(const std::string& key) const {
  for (const std::string& line : lines_) {
    size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    if (TrimWhiteSpace(line.substr(0, equals)) == key) return line.c_str() + equals + 1;
  }
  return empty_string_;
}

std::string DataFile::GetTrimmedString(const std::string& key) const {
  return TrimWhiteSpace(GetString(key));
}

std::string DataFile::TrimmedValue(const char* key) const {
  return key == nullptr ? std::string() : GetTrimmedString(key);
}

int DataFile::GetInt(const char* key) const { return key == nullptr ? 0 : atoi(GetString(key)); }

int DataFile::GetInt(const char* key, bool& found) const {
  std::string value = TrimmedValue(key);
  found = !value.empty();
  return found ? atoi(value.c_str()) : 0;
}

bool DataFile::GetBool(const char* key, bool& found, bool& valid) const {
  std::string value = TrimmedValue(key);
  found = !value.empty();
  valid = false;
  if (!found) return false;
  AsciiStringToLowerCase(value);
  if (value == "true" || value == "t" || value == "yes" || value == "y") {
    valid = true;
    return true;
  }
  valid = value == "false" || value == "f" || value == "no" || value == "n";
  return false;
}

uint32_t DataFile::GetSizeInBytes(const char* key, bool& found, bool& valid) const {
  std::string value = TrimmedValue(key);
  found = !value.empty();
  valid = false;
  if (!found) return 0;
  size_t unit_start = value.find_first_not_of("0123456789");
  uint32_t number = static_cast<uint32_t>(atoi(value.substr(0, unit_start).c_str()));
  if (unit_start == std::string::npos) {
    valid = true;
    return number;
  }
  if (unit_start == 0) return 0;
  std::string unit = TrimWhiteSpace(value.substr(unit_start));
  AsciiStringToLowerCase(unit);
  int shift = ShiftForUnit(unit);
  if (shift < 0) return 0;
  valid = true;
  return number << shift;
}
