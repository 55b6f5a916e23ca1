// kestrin-seqcheck: checks numbered lines across a log file and its backups.
#include <stdio.h>
#include <string.h>

#include <string>

#include "SeqCheck.h"

namespace {

constexpr char USAGE[] =
    "Usage: kestrin-seqcheck FILE PATTERN\n"
    "Reads FILE's backups (FILE.N ... FILE.1, plain or .gz), oldest first, then\n"
    "FILE itself, and checks the numbered lines in them. PATTERN is a POSIX\n"
    "extended regular expression whose first group is a line's source and\n"
    "whose second is its sequence number, for example\n"
    "  'client ([0-9]+) seq ([0-9]+)'\n"
    "Reported: gaps, duplicates, lines out of order, malformed or merged lines,\n"
    "empty or missing backups, a backup present both plain and compressed.\n"
    "\n"
    "Exit status: 0 when there is no problem, 1 when there is one, 2 for a\n"
    "usage error.\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0)) {
    fputs(USAGE, stdout);
    return 0;
  }
  if (argc != 3) {
    fputs(USAGE, stderr);
    return 2;
  }
  seqcheck::Checker checker;
  std::string error;
  if (!checker.SetPattern(argv[2], &error)) {
    fprintf(stderr, "kestrin-seqcheck: bad pattern: %s\n", error.c_str());
    return 2;
  }
  const std::vector<std::string> problems = checker.Check(argv[1]);
  for (const std::string& problem : problems) printf("%s\n", problem.c_str());
  printf("kestrin-seqcheck: %lu lines from %zu sources, %zu problems\n", checker.Lines(),
         checker.Sources(), problems.size());
  return problems.empty() ? 0 : 1;
}
