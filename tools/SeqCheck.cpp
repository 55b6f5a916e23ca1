#include "SeqCheck.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <zlib.h>

namespace seqcheck {

namespace {

// Backup numbers looked for: the daemon keeps at most 100.
constexpr unsigned int MAX_BACKUP = 1000;

bool Exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

bool ReadPlain(const std::string& path, std::string* text) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  char buffer[65536];
  size_t count;
  while ((count = fread(buffer, 1, sizeof buffer, file)) > 0) text->append(buffer, count);
  const bool failed = ferror(file) != 0;
  fclose(file);
  return !failed;
}

}  // namespace

bool ReadGzip(const std::string& path, std::string* text) {
  gzFile file = gzopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  // zlib reads a file without the gzip header as it is: that is no backup.
  char probe;
  if (gzread(file, &probe, 0) < 0 || gzdirect(file) != 0) {
    gzclose(file);
    return false;
  }
  char buffer[65536];
  int count;
  while ((count = gzread(file, buffer, sizeof buffer)) > 0) text->append(buffer, count);
  int error = Z_OK;
  gzerror(file, &error);
  gzclose(file);
  return count == 0 && error == Z_OK;
}

Checker::~Checker() {
  if (compiled_) regfree(&regex_);
}

bool Checker::SetPattern(const std::string& pattern, std::string* error) {
  if (compiled_) regfree(&regex_);
  compiled_ = false;
  const int result = regcomp(&regex_, pattern.c_str(), REG_EXTENDED);
  if (result != 0) {
    char text[256];
    regerror(result, &regex_, text, sizeof text);
    *error = text;
    return false;
  }
  compiled_ = true;
  if (regex_.re_nsub < 2) {
    *error = "the pattern needs two groups: the source, then the sequence number";
    return false;
  }
  return true;
}

std::vector<std::string> Checker::Check(const std::string& path) {
  problems_.clear();
  sources_.clear();
  lines_ = 0;
  unsigned int oldest = 0;
  for (unsigned int n = 1; n <= MAX_BACKUP; ++n) {
    const std::string plain = path + "." + std::to_string(n);
    if (Exists(plain) || Exists(plain + ".gz")) oldest = n;
  }
  for (unsigned int n = oldest; n >= 1; --n) {
    const std::string plain = path + "." + std::to_string(n);
    const bool hasPlain = Exists(plain);
    const bool hasZipped = Exists(plain + ".gz");
    if (!hasPlain && !hasZipped) {
      problems_.push_back(plain + ": missing between the backups around it");
      continue;
    }
    if (hasPlain && hasZipped) problems_.push_back(plain + ": present both plain and compressed");
    const std::string name = hasZipped ? plain + ".gz" : plain;
    std::string text;
    if (!(hasZipped ? ReadGzip(name, &text) : ReadPlain(name, &text))) {
      problems_.push_back(name + (hasZipped ? ": not a valid gzip file" : ": unreadable"));
      continue;
    }
    if (text.empty()) {
      problems_.push_back(name + ": empty backup");
      continue;
    }
    CheckText(name, text, false);
  }
  std::string text;
  if (!ReadPlain(path, &text)) {
    problems_.push_back(path + ": unreadable");
  } else {
    CheckText(path, text, true);
  }
  return problems_;
}

void Checker::CheckText(const std::string& file, const std::string& text, bool live) {
  size_t start = 0;
  unsigned long number = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    ++number;
    const std::string where = file + ":" + std::to_string(number);
    if (end == std::string::npos) {
      problems_.push_back(where + (live ? ": the last line has no line end"
                                        : ": a backup that ends inside a line"));
      end = text.size();
    }
    CheckLine(where, text.substr(start, end - start));
    start = end + 1;
  }
}

void Checker::CheckLine(const std::string& where, const std::string& line) {
  ++lines_;
  regmatch_t groups[3];
  if (regexec(&regex_, line.c_str(), 3, groups, 0) != 0 || groups[1].rm_so < 0 ||
      groups[2].rm_so < 0) {
    problems_.push_back(where + ": malformed line: " + line);
    return;
  }
  regmatch_t again[3];
  const size_t after = static_cast<size_t>(groups[0].rm_eo);
  if (after < line.size() && groups[0].rm_eo > groups[0].rm_so &&
      regexec(&regex_, line.c_str() + after, 3, again, REG_NOTBOL) == 0) {
    problems_.push_back(where + ": merged lines: " + line);
    return;  // the numbers run into each other: none of them can be trusted
  }
  const std::string source = line.substr(groups[1].rm_so, groups[1].rm_eo - groups[1].rm_so);
  const std::string digits = line.substr(groups[2].rm_so, groups[2].rm_eo - groups[2].rm_so);
  char* rest = nullptr;
  const unsigned long long sequence = strtoull(digits.c_str(), &rest, 10);
  if (digits.empty() || *rest != '\0') {
    problems_.push_back(where + ": malformed sequence number \"" + digits + "\" of " + source);
    return;
  }
  const bool first = sources_.find(source) == sources_.end();
  Source& state = sources_[source];
  if (!state.seen.insert(sequence).second) {
    problems_.push_back(where + ": duplicate of " + source + " " + std::to_string(sequence));
    return;
  }
  if (!first && sequence < state.last) {
    problems_.push_back(where + ": out of order: " + source + " " + std::to_string(sequence) +
                        " after " + std::to_string(state.last));
    return;
  }
  if (!first && sequence > state.last + 1) {
    const unsigned long long missing = sequence - state.last - 1;
    problems_.push_back(where + ": gap in " + source + ": " + std::to_string(sequence) +
                        " follows " + std::to_string(state.last) + " (" +
                        std::to_string(missing) + " missing)");
  }
  state.last = sequence;
}

}  // namespace seqcheck
