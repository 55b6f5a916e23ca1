// Checks numbered lines across a log file and its backups: every source's
// sequence numbers must come once each, in order, without gaps, from the
// oldest backup to the live file.
//
// The file set of a path P is P.N ... P.1 (each plain or as P.N.gz, never
// both) and then P itself. A regular expression (POSIX extended) picks two
// groups out of a line: the source, then its sequence number.
#ifndef KESTRIN_TOOLS_SEQ_CHECK_H_
#define KESTRIN_TOOLS_SEQ_CHECK_H_

#include <regex.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace seqcheck {

class Checker {
 public:
  Checker() = default;
  ~Checker();
  Checker(const Checker&) = delete;
  Checker& operator=(const Checker&) = delete;

  // Compiles `pattern`; false with the reason in `error` when it is not a
  // valid expression or has fewer than two groups.
  bool SetPattern(const std::string& pattern, std::string* error);

  // Reads the file set of `path`, oldest first, and returns every problem
  // found, each as "WHERE: WHAT" (WHERE a file, or a file and line number).
  std::vector<std::string> Check(const std::string& path);

  // After Check: lines read and distinct sources seen.
  unsigned long Lines() const { return lines_; }
  size_t Sources() const { return sources_.size(); }

 private:
  struct Source {
    unsigned long long last = 0;
    std::set<unsigned long long> seen;
  };
  void CheckText(const std::string& file, const std::string& text, bool live);
  void CheckLine(const std::string& where, const std::string& line);

  regex_t regex_{};
  bool compiled_ = false;
  std::map<std::string, Source> sources_;
  std::vector<std::string> problems_;
  unsigned long lines_ = 0;
};

// Reads a whole gzip file; false when it cannot be read or is not valid.
bool ReadGzip(const std::string& path, std::string* text);

}  // namespace seqcheck

#endif  // KESTRIN_TOOLS_SEQ_CHECK_H_
