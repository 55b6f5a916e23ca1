#include "zor/RollingFile.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "osa/osa.h"
#include "zor/BackupCompressor.h"
#include "zor/Scoped.h"

namespace Zor {

namespace {

// After a failed open, no new attempt is made until the clock has advanced
// by more than this many units.
constexpr uint32_t OPEN_RETRY_INTERVAL = 9999;

constexpr unsigned long LEVEL_ERROR = 1;
constexpr unsigned long LEVEL_WARNING = 2;
constexpr unsigned long LEVEL_INFO = 4;



std::string number_text(long value) { return std::to_string(value); }

// The lines in `length` bytes of `data`, counted by their line ends.
uint64_t LinesIn(const char* data, size_t length) {
  uint64_t lines = 0;
  for (const char* end = data + length;
       (data = static_cast<const char*>(memchr(data, '\n', end - data))) != nullptr; ++data) {
    ++lines;
  }
  return lines;
}

long SecondsNow() {
  long seconds = 0;
  long microseconds = 0;
  osGetTimeOfDay(&seconds, &microseconds);
  return seconds;
}

}  // namespace

RollingFile::RollingFile(const char* pathName)
    : pathName_(pathName == nullptr ? "" : pathName),
      fd_(-1),
      lastOpenAttempt_(0),
      mayOpen_(true),
      skipReported_(false),
      unflushed_(false),
      currentSize_(0),
      reportingError_(false),
      rollingOver_(false) {}

RollingFile::~RollingFile() { Close(); }

void RollingFile::SetPathName(const char* pathName) {
  if (fd_ >= 0) return;
  const char* name = pathName == nullptr ? "" : pathName;
  if (pathName_ != name) {
    pathName_ = name;
    mayOpen_ = true;
  }
}

void RollingFile::SetContainingDirectory(const std::string& directory) {
  if (directory_ == directory) return;
  directory_ = directory;
  mayOpen_ = true;
}

std::string RollingFile::anchor() const {
  if (!directory_.empty()) return directory_;
  const size_t slash = pathName_.rfind('/');
  return slash == std::string::npos ? "./" : pathName_.substr(0, slash + 1);
}

std::string RollingFile::relativeName(const std::string& name) const {
  const std::string base = anchor();
  if (name.size() > base.size() && name.compare(0, base.size(), base) == 0) {
    return name.substr(base.size());
  }
  return base == "./" ? name : "/" + name;
}

int RollingFile::VPrintf(const char* format, va_list args) {
  if (!getFilePointer()) {
    char text[STREAM_BUFFER_SIZE];
    const int count = vsnprintf(text, sizeof text, format, args);
    countLost(text, count < 0 ? 0 : std::min(static_cast<size_t>(count), sizeof text - 1),
              lastError_);
    return -1;
  }
  // Formatted straight into the buffer when it fits; otherwise the buffer
  // is written out first and the text formatted again, there or (longer
  // than the whole buffer) on the heap.
  va_list again;
  va_copy(again, args);
  const size_t room = STREAM_BUFFER_SIZE - buffered_;
  const int count = vsnprintf(streamBuffer_.get() + buffered_, room, format, args);
  if (count < 0) {
    va_end(again);
    failWrite(errno);
    return count;
  }
  const size_t length = static_cast<size_t>(count);
  bool written = true;
  if (length < room) {
    buffered_ += length;
  } else {
    std::unique_ptr<char[]> text(new char[length + 1]);
    vsnprintf(text.get(), length + 1, format, again);
    if (!writeOutBuffer()) {
      countLost(text.get(), length, lastError_);
      written = false;
    } else if (length < STREAM_BUFFER_SIZE) {
      memcpy(streamBuffer_.get(), text.get(), length);
      buffered_ = length;
    } else {
      written = writeThrough(text.get(), length);
    }
  }
  va_end(again);
  if (!written) return -1;
  unflushed_ = true;
  incFileSizeBy(length);
  return count;
}

int RollingFile::Write(const char* data, size_t length) {
  if (!getFilePointer()) {
    countLost(data, length, lastError_);
    return -1;
  }
  if (length <= STREAM_BUFFER_SIZE - buffered_) {
    memcpy(streamBuffer_.get() + buffered_, data, length);
    buffered_ += length;
  } else if (!writeOutBuffer()) {
    countLost(data, length, lastError_);
    return -1;
  } else if (length < STREAM_BUFFER_SIZE) {
    memcpy(streamBuffer_.get(), data, length);
    buffered_ = length;
  } else if (!writeThrough(data, length)) {
    return -1;
  }
  unflushed_ = true;
  incFileSizeBy(length);
  return static_cast<int>(length);
}

bool RollingFile::getFilePointer() {
  if (fd_ >= 0) return true;
  return openFile("a+");
}

void RollingFile::WriteOut() {
  if (buffered_ == 0) return;
  const char* start = streamBuffer_.get();
  const void* lastEnd = memrchr(start, '\n', buffered_);
  if (lastEnd == nullptr) return;
  const size_t complete = static_cast<const char*>(lastEnd) - start + 1;
  const size_t rest = buffered_ - complete;
  if (!writeThrough(start, complete)) return;
  memmove(streamBuffer_.get(), start + complete, rest);
  buffered_ = rest;
}

bool RollingFile::writeOutBuffer() {
  if (buffered_ == 0) return true;
  const bool written = writeThrough(streamBuffer_.get(), buffered_);
  buffered_ = 0;
  return written;
}

bool RollingFile::writeThrough(const char* data, size_t length) {
  const int result = writeCounted(data, length);
  if (result == OS_OK) return true;
  failWrite(osGetSpecificErrorCode(result));
  return false;
}

int RollingFile::writeCounted(const char* data, size_t length) {
  size_t written = 0;
  const int result = osWriteDescriptor(fd_, data, length, &written);
  if (result == OS_OK) {
    noteWritten();
  } else {
    cutTornLine(data, written);
    countLost(data + written, length - written, osGetSpecificErrorCode(result));
  }
  return result;
}

// A write that stopped part-way (a full disk) may have left the start of a
// line without its end: the file is cut back to its last whole line, so that
// a line reaches it whole or not at all.
void RollingFile::cutTornLine(const char* data, size_t written) {
  if (written == 0 || data[written - 1] == '\n') return;
  const void* lastEnd = memrchr(data, '\n', written);
  const size_t torn =
      lastEnd == nullptr ? written : written - (static_cast<const char*>(lastEnd) - data + 1);
  unsigned long long size = 0;
  int isDirectory = 0;
  if (osDescriptorInfo(fd_, &size, &isDirectory) != OS_OK || size < torn) return;
  osTruncateDescriptor(fd_, size - torn);
}

void RollingFile::countLost(const char* data, size_t length, int error) {
  const uint64_t lines = LinesIn(data, length);
  if (lines == 0) return;
  if (loss_.lines == 0 || loss_.over) {
    loss_ = Loss();
    loss_.beganAt = SecondsNow();
  }
  loss_.lines += lines;
  loss_.error = error;
}

void RollingFile::noteWritten() {
  if (loss_.lines != 0 && !loss_.over) {
    loss_.over = true;
    loss_.endedAt = SecondsNow();
  }
}

void RollingFile::ForgetLoss() {
  if (loss_.over) loss_ = Loss();
}

void RollingFile::failWrite(int error) {
  lastError_ = error;
  buffered_ = 0;  // what could not be written is dropped with the file
  Close();
  report(LEVEL_ERROR, "Error " + number_text(error) + " trying to write to file " + pathName_);
}

int RollingFile::Printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int count = VPrintf(format, args);
  va_end(args);
  return count;
}

void RollingFile::Close() {
  if (fd_ >= 0) {
    // Like a stream's close: what is buffered is written, a failure is not
    // reported (but the lines are counted as lost).
    if (buffered_ != 0) writeCounted(streamBuffer_.get(), buffered_);
    osCloseDescriptor(fd_);
    fd_ = -1;
  }
  buffered_ = 0;
  unflushed_ = false;
}

void RollingFile::RollOver() {
  if (rollingOver_) return;
  ScopedVarChange<bool> rolling(rollingOver_, true);
  ReportCompressionFailures();
  if (fd_ < 0 &&
      osFileExistsBeneath(anchor().c_str(), relativeName(pathName_).c_str()) != OS_OK) {
    return;  // nothing to roll (or only a link, which is never rolled)
  }
  const unsigned int kept = backupCount();
  // The compression thread leaves this file's backups alone until the new
  // backup 1 is complete and closed.
  BackupCompressor& compressor = BackupCompressor::Instance();
  const BackupCompressor::File file = compressorFile();
  compressor.BeginRollOver(file);
  // Backups left from an earlier, larger count go first.
  for (unsigned int n = kept + 1; n != 0 && deleteOldLog(n); ++n) {
  }
  deleteOldLog(kept);  // makes room for the renumbering; names ".0" when none are kept
  for (unsigned int n = kept; n >= 2; --n) renumberOldLog(n - 1, n);
  if (kept != 0) archiveCurrentFile();
  Close();
  compressor.EndRollOver(file);
  // Every plain backup is compressed, oldest first: also those left plain
  // when roll-overs outpaced compression, a failure or a restart.
  if (kept != 0 && zipBackups()) compressor.Request(file, kept);
  openFile("w");
}

void RollingFile::flushFile() {
  if (fd_ < 0) return;
  int result = OS_OK;
  if (buffered_ != 0) {
    result = writeCounted(streamBuffer_.get(), buffered_);
    buffered_ = 0;
  }
  if (result == OS_OK) result = osSyncDescriptor(fd_);
  if (result != OS_OK) {
    lastError_ = osGetSpecificErrorCode(result);
    Close();
    report(LEVEL_ERROR, "Error " + number_text(osGetSpecificErrorCode(result)) +
                            " trying to flush file " + pathName_);
    return;
  }
  unflushed_ = false;
}

void RollingFile::ReopenIfMoved() {
  if (fd_ < 0) return;
  int same = 1;
  if (osDescriptorIsAtBeneath(anchor().c_str(), relativeName(pathName_).c_str(), fd_, &same) !=
          OS_OK ||
      same != 0) {
    return;
  }
  // What waits in the buffer goes to the file now at the path, not after
  // the lines already in the old one.
  const std::string waiting(streamBuffer_.get(), buffered_);
  buffered_ = 0;
  Close();
  mayOpen_ = true;
  if (openFile("a+") && !waiting.empty()) Write(waiting.data(), waiting.size());
  report(LEVEL_WARNING,
         "File " + pathName_ + " was removed or renamed while open; reopened it at its path");
}

void RollingFile::Flush() {
  if (unflushed_) flushFile();
}

void RollingFile::SetLogger(const AppFw::SmartPointerNTS<LogInterface>& logger) {
  GetLoggerMgr().SetLogger(logger);
}

LogInterfaceHolder& RollingFile::GetLoggerMgr() {
  static LogInterfaceHolder holder;
  return holder;
}

bool RollingFile::openFile(const char* mode) {
  const uint32_t now = static_cast<uint32_t>(osGetClock());
  if (!mayOpen_ && now - lastOpenAttempt_ <= OPEN_RETRY_INTERVAL) {
    if (!skipReported_) {
      skipReported_ = true;
      report(LEVEL_INFO, "Skipped opening of file " + pathName_ + " because of earlier error.");
    }
    return false;
  }
  mayOpen_ = false;
  skipReported_ = false;
  lastOpenAttempt_ = now;
  if (pathName_.empty() || pathName_.find("//") != std::string::npos) lastError_ = EINVAL;
  if (pathName_.empty()) {
    report(LEVEL_ERROR, "Error: Attempt to open file with empty pathname");
    return false;
  }
  if (pathName_.find("//") != std::string::npos) {
    report(LEVEL_ERROR, "Error: Attempt to open file with \"//\" in pathname");
    return false;
  }
  Close();
  const std::string base = anchor();
  const std::string relative = relativeName(pathName_);
  long fd = -1;
  int result = osOpenDescriptorBeneath(base.c_str(), relative.c_str(), mode, &fd);
  if (result != OS_OK && osGetSpecificErrorCode(result) == ENOENT &&
      createDirectoriesInPathName()) {
    result = osOpenDescriptorBeneath(base.c_str(), relative.c_str(), mode, &fd);
  }
  if ((result & 0xffff) == OS_ERROR_OUTSIDE_DIRECTORY) {
    lastError_ = ELOOP;
    report(LEVEL_ERROR, "Error: File " + pathName_ + " lies outside " + base +
                            " (a symbolic link or \"..\" on the way); not opened");
    return false;
  }
  if (result != OS_OK) {
    const int error = result == OS_ERROR_INVALID_PARAMETER ? EINVAL : osGetSpecificErrorCode(result);
    lastError_ = error;
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to open file " + pathName_);
    return false;
  }
  fd_ = fd;
  buffered_ = 0;
  if (!streamBuffer_) streamBuffer_.reset(new char[STREAM_BUFFER_SIZE]);
  if (!getFileStats()) {
    Close();
    return false;
  }
  mayOpen_ = true;
  const uint32_t initialSize = currentSize_;
  endTornLine(mode);
  report(LEVEL_INFO,
         "Opened file " + pathName_ + "; initial size " + number_text(initialSize) + " bytes");
  // The report may have written into this file and rolled it over, which
  // replaced the descriptor: the file is open either way.
  return fd_ >= 0;
}

// A file appended to whose last byte is not a line end was cut off mid-line
// (a crash while writing): a line end goes first, so that the next line is
// not merged into the torn one.
void RollingFile::endTornLine(const char* mode) {
  if (!endsTornLines_ || mode[0] != 'a' || currentSize_ == 0) return;
  char last = '\n';
  size_t count = 0;
  if (osReadDescriptorAt(fd_, currentSize_ - 1, &last, 1, &count) != OS_OK || count != 1) return;
  if (last == '\n') return;
  streamBuffer_[0] = '\n';
  buffered_ = 1;
  unflushed_ = true;
  currentSize_ += 1;
}

bool RollingFile::createDirectoriesInPathName() {
  const std::string base = anchor();
  bool missing = false;
  for (size_t i = 1; i < pathName_.size(); ++i) {
    if (pathName_[i] != '/') continue;
    const std::string prefix = pathName_.substr(0, i);
    int rc = OS_OK;
    if (prefix.size() < base.size()) {
      // The containing directory itself: the operator's path, made as given.
      if (!missing) {
        tOsFile directory = 0;
        if (osOpenFile(prefix.c_str(), "r", &directory) == OS_OK) {
          osCloseFile(directory);
          continue;
        }
        missing = true;  // this one and every one after it are created
      }
      rc = osMakeDir(prefix.c_str());
    } else {
      // Inside it: only through the confined calls.
      rc = osMakeDirBeneath(base.c_str(), relativeName(prefix).c_str());
      if (rc == OS_ERROR_ALREADY_EXISTS) continue;
    }
    if (rc != OS_OK) {
      report(LEVEL_ERROR, "OSA error " + number_text(rc) + " trying to create directory " + prefix);
      return false;
    }
  }
  return true;
}

bool RollingFile::getFileStats() {
  unsigned long long size = 0;
  int isDirectory = 0;
  int result = osDescriptorInfo(fd_, &size, &isDirectory);
  if (result != OS_OK) {
    report(LEVEL_ERROR, "Error " + number_text(osGetSpecificErrorCode(result)) +
                            " trying to fstat file " + pathName_);
    return false;
  }
  if (isDirectory != 0) {
    report(LEVEL_ERROR,
           "Error: Attempt to open directory " + pathName_ + "; only files may be opened");
    return false;
  }
  currentSize_ = static_cast<uint32_t>(size);
  return true;
}

BackupCompressor::File RollingFile::compressorFile() const {
  return BackupCompressor::File{anchor(), relativeName(pathName_), pathName_};
}

// Each step on the backups holds the compressor's lock and tells it what
// moved, so that a compression finishing meanwhile lands on the backup's
// number as it is after the step.
bool RollingFile::deleteOldLog(unsigned int number) {
  BackupCompressor& compressor = BackupCompressor::Instance();
  auto lock = compressor.LockForRollOver();
  bool deleted = false;
  deleteBackupFile(nameOfZippedOldLog(number), &deleted);
  deleteBackupFile(nameOfUnzippedOldLog(number), &deleted);
  compressor.Deleted(compressorFile(), number);
  return deleted;
}

void RollingFile::deleteBackupFile(const std::string& name, bool* deleted) {
  int rc = osDeleteFileBeneath(anchor().c_str(), relativeName(name).c_str());
  if (rc == OS_OK) {
    *deleted = true;
    report(LEVEL_INFO, "Deleted file " + name);
  } else if (rc != OS_ERROR_FILE_NOT_FOUND && rc != OS_ERROR_PATH_NOT_FOUND) {
    report(LEVEL_ERROR, "OSA error " + number_text(rc) + " trying to delete file " + name);
  }
}

void RollingFile::renumberOldLog(unsigned int from, unsigned int to) {
  BackupCompressor& compressor = BackupCompressor::Instance();
  auto lock = compressor.LockForRollOver();
  moveBackupFile(nameOfZippedOldLog(from), nameOfZippedOldLog(to));
  moveBackupFile(nameOfUnzippedOldLog(from), nameOfUnzippedOldLog(to));
  compressor.Moved(compressorFile(), from, to);
}

void RollingFile::moveBackupFile(const std::string& from, const std::string& to) {
  int rc = osMoveFileBeneath(anchor().c_str(), relativeName(from).c_str(),
                             relativeName(to).c_str());
  if (rc != OS_OK && rc != OS_ERROR_FILE_NOT_FOUND) {
    report(LEVEL_ERROR,
           "OSA error " + number_text(rc) + " trying to rename file " + from + " to " + to);
  }
}

void RollingFile::archiveCurrentFile() {
  const std::string backup = nameOfUnzippedOldLog(1);
  int rc = osMoveFileBeneath(anchor().c_str(), relativeName(pathName_).c_str(),
                             relativeName(backup).c_str());
  if (rc == OS_OK) {
    report(LEVEL_INFO, "File " + pathName_ + " has been rolled over");
  } else {
    report(LEVEL_ERROR, "OSA error " + number_text(rc) + " trying to rename file " + pathName_ +
                            " to " + backup);
  }
  Close();
}

void RollingFile::ReportCompressionFailures() {
  for (const BackupCompressor::Report& failure : BackupCompressor::Instance().TakeReports()) {
    GetLoggerMgr().GetLogger()->Log("RollingFile: " + failure.text, failure.level);
  }
}

void RollingFile::WaitForCompressions() { BackupCompressor::Instance().WaitUntilIdle(); }

void RollingFile::StopCompressing() { BackupCompressor::Instance().Stop(); }

std::string RollingFile::nameOfZippedOldLog(unsigned int number) const {
  return nameOfUnzippedOldLog(number) + ".gz";
}

std::string RollingFile::nameOfUnzippedOldLog(unsigned int number) const {
  return pathName_ + "." + std::to_string(number);
}

void RollingFile::incFileSizeBy(unsigned long count) {
  currentSize_ += static_cast<uint32_t>(count);
  const long maximum = maxFileSize();
  if (maximum != 0 && static_cast<long>(currentSize_) >= maximum) RollOver();
}

void RollingFile::report(unsigned long level, const std::string& text) {
  if (reportingError_) return;
  ScopedVarChange<bool> reporting(reportingError_, true);
  GetLoggerMgr().GetLogger()->Log("RollingFile: " + text, level);
}

}  // namespace Zor
