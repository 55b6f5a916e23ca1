// Test helper: a LogInterface that keeps every call, for tests that pin the
// exact messages of a class. Not part of the library.
#ifndef KESTRIN_ZOR_RECORDING_LOGGER_H_
#define KESTRIN_ZOR_RECORDING_LOGGER_H_

#include <functional>
#include <string>
#include <vector>

#include "zor/LogInterface.h"

namespace Zor {

class RecordingLogger : public LogInterface {
 public:
  struct Entry {
    std::string text;
    unsigned short level;
    unsigned long code;
    unsigned char kind;
  };

  const std::vector<Entry>& Entries() const { return entries_; }

  // The texts only, in order.
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (const Entry& entry : entries_) texts.push_back(entry.text);
    return texts;
  }

  void Clear() { entries_.clear(); }

  // Called after each entry is recorded (e.g. to write into a file from
  // inside the logger, as the daemon's own log does).
  void SetAfterEach(std::function<void(const Entry&)> afterEach) { afterEach_ = afterEach; }

 protected:
  void DoLogging(const char* text, unsigned short level, unsigned long code,
                 unsigned char kind) override {
    entries_.push_back(Entry{text, level, code, kind});
    // A copy: the callback may log again and move the vector.
    Entry entry = entries_.back();
    if (afterEach_) afterEach_(entry);
  }

 private:
  std::vector<Entry> entries_;
  std::function<void(const Entry&)> afterEach_;
};

}  // namespace Zor

#endif  // KESTRIN_ZOR_RECORDING_LOGGER_H_
