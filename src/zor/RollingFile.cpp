#include "zor/RollingFile.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "osa/osa.h"
#include "zor/Scoped.h"

namespace Zor {

namespace {

// After a failed open, no new attempt is made until the clock has advanced
// by more than this many units.
constexpr uint32_t OPEN_RETRY_INTERVAL = 9999;

constexpr unsigned long LEVEL_ERROR = 1;
constexpr unsigned long LEVEL_INFO = 4;

// Longest fopen mode we pass on; anything longer is cut.
constexpr size_t MAX_MODE = 8;

// Bytes buffered per open file before the stream writes them out. Every
// write is a system call, an expensive one on some kernels; the timer
// tick's flush bounds how long a line stays in the buffer, whatever its size.
constexpr size_t STREAM_BUFFER_SIZE = 16384;

std::string number_text(long value) { return std::to_string(value); }

// The file name as one word of a shell command. Client processes choose log
// file names, so a name holding anything but the plain path characters is
// single-quoted: it must never be able to run a command of its own. Plain
// names (all the usual ones) stand in the command unchanged.
std::string ShellWord(const std::string& name) {
  static const char kPlain[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./+-:@%,=";
  if (!name.empty() && name.find_first_not_of(kPlain) == std::string::npos) return name;
  std::string quoted = "'";
  for (char c : name) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace

RollingFile::RollingFile(const char* pathName)
    : pathName_(pathName == nullptr ? "" : pathName),
      file_(nullptr),
      lastOpenAttempt_(0),
      mayOpen_(true),
      skipReported_(false),
      unflushed_(false),
      currentSize_(0),
      reportingError_(false),
      rollingOver_(false) {}

RollingFile::~RollingFile() { Close(); }

void RollingFile::SetPathName(const char* pathName) {
  if (file_ != nullptr) return;
  const char* name = pathName == nullptr ? "" : pathName;
  if (pathName_ != name) {
    pathName_ = name;
    mayOpen_ = true;
  }
}

int RollingFile::VPrintf(const char* format, va_list args) {
  FILE* stream = getFilePointer();
  if (stream == nullptr) return -1;
  int count = vfprintf(stream, format, args);
  if (count < 0) {
    int error = errno;
    Close();
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to write to file " + pathName_);
    return count;
  }
  unflushed_ = true;
  incFileSizeBy(static_cast<unsigned long>(count));
  return count;
}

int RollingFile::Write(const char* data, size_t length) {
  FILE* stream = getFilePointer();
  if (stream == nullptr) return -1;
  if (fwrite(data, 1, length, stream) != length) {
    int error = errno;
    Close();
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to write to file " + pathName_);
    return -1;
  }
  unflushed_ = true;
  incFileSizeBy(length);
  return static_cast<int>(length);
}

int RollingFile::Printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int count = VPrintf(format, args);
  va_end(args);
  return count;
}

void RollingFile::Close() {
  if (file_ != nullptr) {
    fclose(file_);
    file_ = nullptr;
  }
  unflushed_ = false;
}

void RollingFile::RollOver() {
  if (rollingOver_) return;
  ScopedVarChange<bool> rolling(rollingOver_, true);
  if (file_ == nullptr) {
    struct stat info;
    if (stat(pathName_.c_str(), &info) != 0) return;  // nothing to roll
  }
  const unsigned int kept = backupCount();
  // Backups left from an earlier, larger count go first.
  for (unsigned int n = kept + 1; n != 0 && deleteOldLog(n); ++n) {
  }
  deleteOldLog(kept);  // makes room for the renumbering; names ".0" when none are kept
  for (unsigned int n = kept; n >= 2; --n) renumberOldLog(n - 1, n);
  if (kept != 0) archiveCurrentFile();
  Close();
  openFile("w");
}

void RollingFile::flushFile() {
  if (file_ == nullptr) return;
  if (fflush(file_) != 0 || fsync(fileno(file_)) != 0) {
    int error = errno;
    Close();
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to flush file " + pathName_);
    return;
  }
  unflushed_ = false;
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

FILE* RollingFile::openFile(const char* mode) {
  const uint32_t now = static_cast<uint32_t>(osGetClock());
  if (!mayOpen_ && now - lastOpenAttempt_ <= OPEN_RETRY_INTERVAL) {
    if (!skipReported_) {
      skipReported_ = true;
      report(LEVEL_INFO, "Skipped opening of file " + pathName_ + " because of earlier error.");
    }
    return nullptr;
  }
  mayOpen_ = false;
  skipReported_ = false;
  lastOpenAttempt_ = now;
  if (pathName_.empty()) {
    report(LEVEL_ERROR, "Error: Attempt to open file with empty pathname");
    return nullptr;
  }
  if (pathName_.find("//") != std::string::npos) {
    report(LEVEL_ERROR, "Error: Attempt to open file with \"//\" in pathname");
    return nullptr;
  }
  Close();
  // "e" (close-on-exec) keeps the file out of the background gzip processes.
  char fullMode[MAX_MODE + 2];
  snprintf(fullMode, sizeof fullMode, "%.*se", static_cast<int>(MAX_MODE), mode);
  file_ = fopen(pathName_.c_str(), fullMode);
  int error = errno;
  if (file_ == nullptr && error == ENOENT && createDirectoriesInPathName()) {
    file_ = fopen(pathName_.c_str(), fullMode);
    error = errno;
  }
  if (file_ == nullptr) {
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to open file " + pathName_);
    return nullptr;
  }
  if (!streamBuffer_) streamBuffer_.reset(new char[STREAM_BUFFER_SIZE]);
  setvbuf(file_, streamBuffer_.get(), _IOFBF, STREAM_BUFFER_SIZE);
  if (!getFileStats()) {
    Close();
    return nullptr;
  }
  mayOpen_ = true;
  report(LEVEL_INFO,
         "Opened file " + pathName_ + "; initial size " + number_text(currentSize_) + " bytes");
  // The report may have written into this file and rolled it over, which
  // replaces the stream: hand out the current one.
  return file_;
}

bool RollingFile::createDirectoriesInPathName() {
  bool missing = false;
  for (size_t i = 1; i < pathName_.size(); ++i) {
    if (pathName_[i] != '/') continue;
    const std::string prefix = pathName_.substr(0, i);
    if (!missing) {
      tOsFile directory = 0;
      if (osOpenFile(prefix.c_str(), "r", &directory) == OS_OK) {
        osCloseFile(directory);
        continue;
      }
      missing = true;  // this one and every one after it are created
    }
    int rc = osMakeDir(prefix.c_str());
    if (rc != OS_OK) {
      report(LEVEL_ERROR, "OSA error " + number_text(rc) + " trying to create directory " + prefix);
      return false;
    }
  }
  return true;
}

bool RollingFile::getFileStats() {
  struct stat info;
  if (fstat(fileno(file_), &info) != 0) {
    int error = errno;
    report(LEVEL_ERROR, "Error " + number_text(error) + " trying to fstat file " + pathName_);
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    report(LEVEL_ERROR,
           "Error: Attempt to open directory " + pathName_ + "; only files may be opened");
    return false;
  }
  currentSize_ = static_cast<uint32_t>(info.st_size);
  return true;
}

bool RollingFile::deleteOldLog(unsigned int number) {
  bool deleted = false;
  deleteBackupFile(nameOfZippedOldLog(number), &deleted);
  deleteBackupFile(nameOfUnzippedOldLog(number), &deleted);
  return deleted;
}

void RollingFile::deleteBackupFile(const std::string& name, bool* deleted) {
  int rc = osDeleteFile(name.c_str());
  if (rc == OS_OK) {
    *deleted = true;
    report(LEVEL_INFO, "Deleted file " + name);
  } else if (rc != OS_ERROR_FILE_NOT_FOUND && rc != OS_ERROR_PATH_NOT_FOUND) {
    report(LEVEL_ERROR, "OSA error " + number_text(rc) + " trying to delete file " + name);
  }
}

void RollingFile::renumberOldLog(unsigned int from, unsigned int to) {
  moveBackupFile(nameOfZippedOldLog(from), nameOfZippedOldLog(to));
  moveBackupFile(nameOfUnzippedOldLog(from), nameOfUnzippedOldLog(to));
}

void RollingFile::moveBackupFile(const std::string& from, const std::string& to) {
  int rc = osMoveFile(from.c_str(), to.c_str());
  if (rc != OS_OK && rc != OS_ERROR_FILE_NOT_FOUND) {
    report(LEVEL_ERROR,
           "OSA error " + number_text(rc) + " trying to rename file " + from + " to " + to);
  }
}

void RollingFile::archiveCurrentFile() {
  const std::string backup = nameOfUnzippedOldLog(1);
  int rc = osMoveFile(pathName_.c_str(), backup.c_str());
  if (rc == OS_OK) {
    report(LEVEL_INFO, "File " + pathName_ + " has been rolled over");
  } else {
    report(LEVEL_ERROR, "OSA error " + number_text(rc) + " trying to rename file " + pathName_ +
                            " to " + backup);
  }
  Close();
  if (!zipBackups()) return;
  // Issued even when the rename failed; gzip then fails in the background.
  // The trailing "&" keeps the daemon from waiting for the compression.
  int result = osRunShellCommand(("nice -n 19 gzip " + ShellWord(backup) + " &").c_str());
  if (result != 0) {
    report(LEVEL_ERROR,
           "Error " + number_text(result) + " trying to spawn process to zip file " + backup);
  }
}

std::string RollingFile::nameOfZippedOldLog(unsigned int number) const {
  return nameOfUnzippedOldLog(number) + ".gz";
}

std::string RollingFile::nameOfUnzippedOldLog(unsigned int number) const {
  return pathName_ + "." + std::to_string(number);
}

FILE* RollingFile::getFilePointer() {
  if (file_ != nullptr) return file_;
  return openFile("a+");
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
